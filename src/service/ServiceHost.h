#pragma once

#include <QObject>
#include <QSocketNotifier>
#include <QTimer>

#include <initializer_list>

class AgentManager;

// Signal handling: the handler only writes the signal number to a self-pipe;
// the main thread reads it, logs and quits the event loop.
// False, with an Error line, when the signals cannot be caught.
bool catchUnixSignals(std::initializer_list<int> signalList);
void ignoreUnixSignals(std::initializer_list<int> signalList);
void signal_handler(int sig);
void stopService();
void releaseInstances();

// Runs the start sequence on the event loop: registration (retried with
// backoff until it succeeds), the agent-information report, the push channel
// and the scheduler.
class ServiceHost : public QObject
{
    Q_OBJECT
public:
    explicit ServiceHost(QObject* parent = nullptr);
    ~ServiceHost() override;

    // Must be called once the self-pipe exists (catchUnixSignals).
    void start();
    void shutdown();

    // Backoff before registration attempt n (1-based): 30 s doubling up to 15 min, ±20 %.
    static qint64 registrationDelayMs(int attempt, double jitter01);

    // For tests: the signal a main-thread reader saw, logs and stops.
    static void handleSignal(int sig);

private slots:
    void onSignalPipe();
    void attemptRegistration();

private:
    void continueStartup();
    bool registerWithServer(AgentManager& agent);

    QSocketNotifier* m_notifier = nullptr;
    QTimer m_retryTimer;
    int m_attempts = 0;
    bool m_reportedNoServer = false;
};

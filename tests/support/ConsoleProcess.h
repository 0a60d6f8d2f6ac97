#pragma once

// Runs the console (build/edr-console) on free loopback ports with a
// temporary data directory, and reads back what it stored.

#include "support/TestSupport.h"

#include <QJsonArray>
#include <QProcess>

namespace edrtest
{

class ConsoleProcess
{
public:
    explicit ConsoleProcess(const QStringList& extraArgs = {});
    ~ConsoleProcess();

    bool isRunning() const { return m_httpPort > 0; }
    int httpPort() const { return m_httpPort; }
    int socketPort() const { return m_socketPort; }
    int adminPort() const { return m_adminPort; }
    QString dataDir() const { return m_dir.path() + QStringLiteral("/data"); }

    // Requests as they came (the database's journal), oldest first, optionally
    // only those of one route.
    QList<QJsonObject> requests(const QString& route = QString()) const;
    bool waitForRequests(const QString& route, int count, int timeoutMs) const
    {
        return waitUntil([&] { return requests(route).size() >= count; }, timeoutMs);
    }

    // Admin endpoints, over TLS too when the console was started with --tls-cert.
    QByteArray admin(const QByteArray& method, const QByteArray& pathAndQuery,
                     const QByteArray& body = QByteArray()) const;
    int push(const QByteArray& command) const; // agents reached

    // The admin API; JSON content type unless headers say otherwise.
    struct Reply {
        int status = 0;
        QByteArray body;
        QJsonValue json() const;
    };
    Reply api(const QByteArray& method, const QByteArray& path, const QByteArray& body = QByteArray(),
              const QList<QPair<QByteArray, QByteArray>>& headers = {}) const;
    // Sends SIGTERM and waits for the exit; the exit code, or -1.
    int stop();
    void kill(); // SIGKILL, and waits for it
    QByteArray output() const;
    QJsonArray connections() const;
    QJsonArray socketMessages() const;

private:
    bool m_tls;
    QTemporaryDir m_dir;
    QProcess m_process;
    int m_httpPort = 0;
    int m_socketPort = 0;
    int m_adminPort = 0;
};

} // namespace edrtest

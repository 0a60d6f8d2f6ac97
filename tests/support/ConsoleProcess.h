#pragma once

// Runs the reference console (build/edr-console) on free loopback ports with a
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
    QString dataDir() const { return m_dir.path() + QStringLiteral("/data"); }

    // Stored requests, oldest first, optionally only those of one route.
    QList<QJsonObject> requests(const QString& route = QString()) const;
    bool waitForRequests(const QString& route, int count, int timeoutMs) const
    {
        return waitUntil([&] { return requests(route).size() >= count; }, timeoutMs);
    }

    // Admin endpoints, over TLS too when the console was started with --tls-cert.
    QByteArray admin(const QByteArray& method, const QByteArray& pathAndQuery,
                     const QByteArray& body = QByteArray()) const;
    int push(const QByteArray& command) const; // agents reached
    QJsonArray connections() const;
    QJsonArray socketMessages() const;

private:
    bool m_tls;
    QTemporaryDir m_dir;
    QProcess m_process;
    int m_httpPort = 0;
    int m_socketPort = 0;
};

} // namespace edrtest

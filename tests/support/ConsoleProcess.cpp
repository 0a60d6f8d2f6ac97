#include "support/ConsoleProcess.h"

#include "core/HostPaths.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>

#include <httplib.h>

namespace edrtest
{

ConsoleProcess::ConsoleProcess(const QStringList& extraArgs)
    : m_tls(extraArgs.contains(QStringLiteral("--tls-cert")))
{
    const QString portFile = m_dir.path() + QStringLiteral("/ports.json");
    m_process.start(QStringLiteral(EDR_CONSOLE_BIN),
                    QStringList{"--http-port", "0", "--socket-port", "0", "--data", dataDir(), "--schedule",
                                m_dir.path() + "/schedule.db", "--port-file", portFile} +
                        extraArgs);
    if (!m_process.waitForStarted(10000) || !waitUntil([&] { return QFile::exists(portFile); }, 10000))
        return;
    const QJsonObject ports = QJsonDocument::fromJson(HostPaths::readFile(portFile)).object();
    m_httpPort = ports.value(QStringLiteral("http")).toInt();
    m_socketPort = ports.value(QStringLiteral("socket")).toInt();
}

ConsoleProcess::~ConsoleProcess()
{
    m_process.kill();
    m_process.waitForFinished(5000);
}

QList<QJsonObject> ConsoleProcess::requests(const QString& route) const
{
    QList<QJsonObject> out;
    const QDir dir(dataDir() + QStringLiteral("/reports"));
    for (const QString& name : dir.entryList({QStringLiteral("*.json")}, QDir::Files, QDir::Name)) {
        const QJsonObject doc = QJsonDocument::fromJson(HostPaths::readFile(dir.filePath(name))).object();
        // An empty one is still being written.
        if (!doc.isEmpty() && (route.isEmpty() || doc.value(QStringLiteral("route")).toString() == route))
            out << doc;
    }
    return out;
}

QByteArray ConsoleProcess::admin(const QByteArray& method, const QByteArray& pathAndQuery,
                                 const QByteArray& body) const
{
    httplib::Client client((m_tls ? "https://127.0.0.1:" : "http://127.0.0.1:") + std::to_string(m_httpPort));
    // The test's own admin client trusts whatever the console presents.
    client.enable_server_certificate_verification(false);
    client.set_read_timeout(5);
    const std::string path = pathAndQuery.toStdString();
    const auto reply =
        method == "GET" ? client.Get(path) : client.Post(path, body.toStdString(), "text/plain");
    return reply ? QByteArray::fromStdString(reply->body) : QByteArray();
}

int ConsoleProcess::push(const QByteArray& command) const
{
    return QJsonDocument::fromJson(admin("POST", "/admin/push", command))
        .object()
        .value(QStringLiteral("sent"))
        .toInt();
}

QJsonArray ConsoleProcess::connections() const
{
    return QJsonDocument::fromJson(admin("GET", "/admin/agents"))
        .object()
        .value(QStringLiteral("connections"))
        .toArray();
}

QJsonArray ConsoleProcess::socketMessages() const
{
    return QJsonDocument::fromJson(admin("GET", "/admin/socket-messages")).array();
}

} // namespace edrtest

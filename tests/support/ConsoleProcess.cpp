#include "support/ConsoleProcess.h"

#include "core/HostPaths.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>

#include <httplib.h>
#include <sqlite3.h>

namespace edrtest
{

ConsoleProcess::ConsoleProcess(const QStringList& extraArgs)
    : m_tls(extraArgs.contains(QStringLiteral("--tls-cert")))
{
    const QString portFile = m_dir.path() + QStringLiteral("/ports.json");
    m_process.setProcessChannelMode(QProcess::MergedChannels);
    m_process.start(QStringLiteral(EDR_CONSOLE_BIN),
                    QStringList{"--http-port", "0", "--socket-port", "0", "--admin-port", "0", "--journal",
                                "--data", dataDir(), "--schedule", m_dir.path() + "/schedule.db",
                                "--port-file", portFile} +
                        extraArgs);
    if (!m_process.waitForStarted(10000) || !waitUntil([&] { return QFile::exists(portFile); }, 10000))
        return;
    const QJsonObject ports = QJsonDocument::fromJson(HostPaths::readFile(portFile)).object();
    m_httpPort = ports.value(QStringLiteral("http")).toInt();
    m_socketPort = ports.value(QStringLiteral("socket")).toInt();
    m_adminPort = ports.value(QStringLiteral("admin")).toInt();
}

ConsoleProcess::~ConsoleProcess()
{
    m_process.kill();
    m_process.waitForFinished(5000);
}

QList<QJsonObject> ConsoleProcess::requests(const QString& route) const
{
    QList<QJsonObject> out;
    sqlite3* db = nullptr;
    const QByteArray path = QFile::encodeName(dataDir() + QStringLiteral("/console.db"));
    if (sqlite3_open_v2(path.constData(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        sqlite3_close(db);
        return out;
    }
    sqlite3_busy_timeout(db, 5000);
    sqlite3_stmt* s = nullptr;
    sqlite3_prepare_v2(db,
                       "SELECT method, route, query, peer, time, headers, body FROM journal "
                       "WHERE ?1 IS NULL OR route=?1 ORDER BY id",
                       -1, &s, nullptr);
    const QByteArray wanted = route.toUtf8();
    if (!route.isEmpty())
        sqlite3_bind_text(s, 1, wanted.constData(), wanted.size(), SQLITE_TRANSIENT);
    const auto column = [&](int c) {
        return QByteArray(static_cast<const char*>(sqlite3_column_blob(s, c)), sqlite3_column_bytes(s, c));
    };
    while (s && sqlite3_step(s) == SQLITE_ROW) {
        const QByteArray body = column(6);
        QJsonObject doc{{QStringLiteral("method"), QString::fromUtf8(column(0))},
                        {QStringLiteral("route"), QString::fromUtf8(column(1))},
                        {QStringLiteral("query"), QString::fromUtf8(column(2))},
                        {QStringLiteral("peer"), QString::fromUtf8(column(3))},
                        {QStringLiteral("time"), QString::fromUtf8(column(4))},
                        {QStringLiteral("headers"), QJsonDocument::fromJson(column(5)).array()},
                        {QStringLiteral("size"), body.size()},
                        {QStringLiteral("raw_body"), QString::fromUtf8(body)}};
        const QJsonDocument parsed = QJsonDocument::fromJson(body);
        if (parsed.isObject())
            doc.insert(QStringLiteral("body"), parsed.object());
        else if (parsed.isArray())
            doc.insert(QStringLiteral("body"), parsed.array());
        out << doc;
    }
    sqlite3_finalize(s);
    sqlite3_close(db);
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

QJsonValue ConsoleProcess::Reply::json() const
{
    const QJsonDocument d = QJsonDocument::fromJson(body);
    return d.isArray() ? QJsonValue(d.array()) : d.isObject() ? QJsonValue(d.object()) : QJsonValue();
}

ConsoleProcess::Reply ConsoleProcess::api(const QByteArray& method, const QByteArray& path,
                                          const QByteArray& body,
                                          const QList<QPair<QByteArray, QByteArray>>& headers) const
{
    httplib::Client client((m_tls ? "https://127.0.0.1:" : "http://127.0.0.1:") +
                           std::to_string(m_adminPort));
    client.enable_server_certificate_verification(false);
    client.set_read_timeout(10);
    httplib::Headers h;
    std::string type = "application/json";
    for (const auto& [name, value] : headers) {
        if (name.compare("Content-Type", Qt::CaseInsensitive) == 0)
            type = value.toStdString();
        else
            h.emplace(name.toStdString(), value.toStdString());
    }
    httplib::Request req;
    req.method = method.toStdString();
    req.path = path.toStdString();
    req.headers = h;
    if (method != "GET") {
        req.body = body.toStdString();
        req.set_header("Content-Type", type);
    }
    Reply reply;
    if (const auto res = client.send(req)) {
        reply.status = res->status;
        reply.body = QByteArray::fromStdString(res->body);
    }
    return reply;
}

int ConsoleProcess::stop()
{
    m_process.terminate();
    if (!m_process.waitForFinished(15000))
        return -1;
    return m_process.exitStatus() == QProcess::NormalExit ? m_process.exitCode() : -1;
}

void ConsoleProcess::kill()
{
    m_process.kill();
    m_process.waitForFinished(15000);
}

QByteArray ConsoleProcess::output() const
{
    return const_cast<QProcess&>(m_process).readAll();
}

} // namespace edrtest

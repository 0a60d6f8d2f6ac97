#include "AdminApi.h"

#include "Orders.h"
#include "ReportItems.h"
#include "ScheduleFile.h"
#include "Store.h"

#include <QDateTime>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>

#include <httplib.h>

#include <openssl/crypto.h>

namespace
{
constexpr size_t kMaxAdminBody = 1 << 20;

void reply(httplib::Response& res, const QJsonValue& v, int status = 200)
{
    res.status = status;
    const QByteArray text =
        v.isArray() ? QJsonDocument(v.toArray()).toJson() : QJsonDocument(v.toObject()).toJson();
    res.set_content(text.toStdString(), "application/json");
}

void refuse(httplib::Response& res, int status, const QString& why)
{
    reply(res, QJsonObject{{QStringLiteral("error"), why}}, status);
}

QString param(const httplib::Request& req, const char* name)
{
    return req.has_param(name) ? QString::fromStdString(req.get_param_value(name)) : QString();
}

qint64 idAt(const httplib::Request& req, size_t i)
{
    return QString::fromStdString(req.matches[static_cast<int>(i)].str()).toLongLong();
}

bool sameSecret(const std::string& a, const std::string& b)
{
    return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

QString csvField(QString s)
{
    // A leading = + - @ would make a spreadsheet formula of it.
    if (!s.isEmpty() && QStringLiteral("=+-@").contains(s[0]))
        s.prepend(QLatin1Char('\''));
    if (s.contains(QLatin1Char(',')) || s.contains(QLatin1Char('"')) || s.contains(QLatin1Char('\n')))
        s = QLatin1Char('"') + s.replace(QLatin1Char('"'), QStringLiteral("\"\"")) + QLatin1Char('"');
    return s;
}

QByteArray searchCsv(const QJsonArray& results)
{
    QByteArray out;
    QStringList matchKeys;
    for (const QJsonValue& r : results)
        for (const QJsonValue& m : r[QStringLiteral("matches")].toArray())
            for (const QString& k : m.toObject().keys())
                if (!matchKeys.contains(k))
                    matchKeys << k;
    out += (QStringList{QStringLiteral("host"), QStringLiteral("hostname"), QStringLiteral("ip")} + matchKeys)
               .join(QLatin1Char(','))
               .toUtf8() +
           "\r\n";
    for (const QJsonValue& r : results) {
        const QJsonObject host = r[QStringLiteral("host")].toObject();
        for (const QJsonValue& m : r[QStringLiteral("matches")].toArray()) {
            QStringList row{QString::number(host.value(QLatin1String("id")).toInt()),
                            csvField(host.value(QLatin1String("hostname")).toString()),
                            csvField(host.value(QLatin1String("ip")).toString())};
            for (const QString& k : matchKeys) {
                const QJsonValue v = m.toObject().value(k);
                row << csvField(v.isDouble() ? QString::number(v.toInt()) : v.toString());
            }
            out += row.join(QLatin1Char(',')).toUtf8() + "\r\n";
        }
    }
    return out;
}
} // namespace

AdminApi::AdminApi(Store& store, Options options, std::function<std::set<qint64>()> online,
                   std::function<void()> ordersAdded)
    : m_store(store), m_options(std::move(options)), m_online(std::move(online)),
      m_ordersAdded(std::move(ordersAdded))
{
    if (!m_options.tlsCert.empty())
        m_server = std::make_unique<httplib::SSLServer>(m_options.tlsCert.c_str(), m_options.tlsKey.c_str());
    else
        m_server = std::make_unique<httplib::Server>();
    m_server->set_payload_max_length(kMaxAdminBody);
    m_server->set_read_timeout(10);
    routes();
}

AdminApi::~AdminApi() = default;

bool AdminApi::isLoopbackListener() const
{
    return m_options.listen.rfind("127.", 0) == 0 || m_options.listen == "::1" ||
           m_options.listen == "localhost";
}

bool AdminApi::valid() const
{
    return m_server->is_valid();
}

int AdminApi::bind()
{
    m_port = m_options.port == 0
                 ? m_server->bind_to_any_port(m_options.listen)
                 : (m_server->bind_to_port(m_options.listen, m_options.port) ? m_options.port : -1);
    return m_port;
}

void AdminApi::run()
{
    m_server->listen_after_bind();
}

void AdminApi::stop()
{
    m_server->stop();
}

void AdminApi::routes()
{
    httplib::Server& http = *m_server;
    Store& store = m_store;

    http.set_pre_routing_handler([this, &store](const httplib::Request& req, httplib::Response& res) {
        using R = httplib::Server::HandlerResponse;
        const bool changes = req.method != "GET" && req.method != "HEAD" && req.method != "OPTIONS";
        QString refusal;
        int status = 0;
        const std::string port = ":" + std::to_string(m_port);
        const std::string host = req.get_header_value("Host");
        // On loopback, a request naming another host is a page whose name was
        // pointed at 127.0.0.1 (DNS rebinding): it gets nothing.
        const bool loopbackName =
            host == "127.0.0.1" + port || host == "localhost" + port || host == "[::1]" + port;
        if (isLoopbackListener() && !loopbackName) {
            status = 403;
            refusal = QStringLiteral("the admin API answers to 127.0.0.1, localhost and [::1] only");
        } else if (!m_options.token.empty() &&
                   !sameSecret(req.get_header_value("Authorization"), "Bearer " + m_options.token)) {
            status = 401;
            refusal = QStringLiteral("a bearer token is needed");
            res.set_header("WWW-Authenticate", "Bearer");
        } else if (changes && req.get_header_value("Content-Type").rfind("application/json", 0) != 0) {
            status = 415;
            refusal = QStringLiteral("state-changing requests take Content-Type: application/json");
        } else if (changes && req.has_header("Origin") &&
                   req.get_header_value("Origin") !=
                       (m_options.tlsCert.empty() ? "http://" : "https://") + host) {
            // A browser names the page that sent the request: only the admin
            // listener's own pages may change anything.
            status = 403;
            refusal = QStringLiteral("requests from another origin are refused");
        }
        if (!status)
            return R::Unhandled;
        if (changes)
            store.audit(QString::fromStdString(req.remote_addr),
                        QString::fromStdString(req.method + " " + req.path).left(200), QString(),
                        QStringLiteral("refused: ") + refusal);
        refuse(res, status, refusal);
        return R::Handled;
    });
    http.set_error_handler([](const httplib::Request&, httplib::Response& res) {
        if (res.body.empty())
            refuse(res, res.status, QStringLiteral("HTTP %1").arg(res.status));
    });

    http.Get("/api/hosts", [this, &store](const httplib::Request&, httplib::Response& res) {
        reply(res, store.hosts(m_online()));
    });
    http.Get(R"(/api/hosts/(\d+))", [this, &store](const httplib::Request& req, httplib::Response& res) {
        const auto host = store.host(idAt(req, 1), m_online(), true);
        host ? reply(res, *host) : refuse(res, 404, QStringLiteral("no such host"));
    });
    http.Get(R"(/api/hosts/(\d+)/changes)",
             [this, &store](const httplib::Request& req, httplib::Response& res) {
                 const qint64 id = idAt(req, 1);
                 const QString category = param(req, "category");
                 const QString since = param(req, "since");
                 if (!category.isEmpty() && !ReportItems::categories().contains(category))
                     return refuse(res, 400, QStringLiteral("unknown category"));
                 QString sinceUtc;
                 if (!since.isEmpty()) {
                     const QDateTime t = QDateTime::fromString(since, Qt::ISODateWithMs);
                     if (!t.isValid())
                         return refuse(res, 400, QStringLiteral("\"since\" must be an ISO-8601 time"));
                     sinceUtc = t.toUTC().toString(Qt::ISODateWithMs);
                 }
                 if (!store.host(id, {}, false))
                     return refuse(res, 404, QStringLiteral("no such host"));
                 reply(res, store.changes(id, category, sinceUtc));
             });
    http.Get(R"(/api/hosts/(\d+)/snapshots)", [&store](const httplib::Request& req, httplib::Response& res) {
        const qint64 id = idAt(req, 1);
        if (!store.host(id, {}, false))
            return refuse(res, 404, QStringLiteral("no such host"));
        const QString category = param(req, "category");
        reply(res, store.snapshots(id, category.isEmpty() ? QString() : category));
    });
    http.Get(R"(/api/hosts/(\d+)/snapshots/([0-9a-f]{64}))",
             [&store](const httplib::Request& req, httplib::Response& res) {
                 const auto body = store.snapshot(idAt(req, 1), QString::fromStdString(req.matches[2].str()));
                 if (!body)
                     return refuse(res, 404, QStringLiteral("no such snapshot"));
                 res.set_content(body->toStdString(), "application/json");
             });
    http.Get("/api/search", [this, &store](const httplib::Request& req, httplib::Response& res) {
        static const std::pair<const char*, const char*> kinds[] = {{"package", "version"},
                                                                    {"port", nullptr},
                                                                    {"service", "state"},
                                                                    {"process", nullptr},
                                                                    {"startup", nullptr}};
        for (const auto& [kind, extra] : kinds) {
            if (!req.has_param(kind))
                continue;
            const QString value = param(req, kind);
            if (value.isEmpty() || (QLatin1String(kind) == QLatin1String("port") &&
                                    (value.toInt() < 1 || value.toInt() > 65535)))
                return refuse(res, 400, QStringLiteral("\"%1\" needs a value").arg(QLatin1String(kind)));
            const QJsonArray found =
                store.search(QLatin1String(kind), value, extra ? param(req, extra) : QString(), m_online());
            if (param(req, "format") == QLatin1String("csv")) {
                res.set_header("Content-Disposition", "attachment; filename=\"search.csv\"");
                res.set_content(searchCsv(found).toStdString(), "text/csv");
                return;
            }
            return reply(res, found);
        }
        refuse(res, 400, QStringLiteral("search by package, port, service, process or startup"));
    });

    http.Post(
        R"(/api/hosts/(\d+)/orders)", [this, &store](const httplib::Request& req, httplib::Response& res) {
            const qint64 id = idAt(req, 1);
            const QString source = QString::fromStdString(req.remote_addr);
            const QString target = QStringLiteral("host %1").arg(id);
            const QJsonObject order = QJsonDocument::fromJson(QByteArray::fromStdString(req.body)).object();
            const QString kind = order.value(QLatin1String("kind")).toString();
            const QString what = QStringLiteral("order %1").arg(kind.left(40));
            const auto refuseOrder = [&](int status, const QString& why) {
                store.audit(source, what, target, QStringLiteral("refused: ") + why);
                refuse(res, status, why);
            };
            if (!store.host(id, {}, false))
                return refuseOrder(404, QStringLiteral("no such host"));
            QString error;
            // The longest id the text can get, so a refusal comes before an id is spent.
            const auto text = Orders::commandText(order, 999999999999LL, &error);
            if (!text)
                return refuseOrder(400, error);
            if (text->toUtf8().size() > Orders::kMaxTextBytes)
                return refuseOrder(
                    413, QStringLiteral("the order's text exceeds %1 bytes").arg(Orders::kMaxTextBytes));
            QJsonObject created;
            const int status = store.addOrder(id, order, &created);
            if (status != 200)
                return refuseOrder(status, QStringLiteral("not stored"));
            store.audit(source, what, target,
                        QStringLiteral("queued order %1").arg(created.value(QLatin1String("id")).toInt()));
            m_ordersAdded();
            reply(res, created, 201);
        });
    http.Get(R"(/api/orders/(\d+))", [&store](const httplib::Request& req, httplib::Response& res) {
        const auto order = store.order(idAt(req, 1));
        order ? reply(res, *order) : refuse(res, 404, QStringLiteral("no such order"));
    });
    http.Get(R"(/api/hosts/(\d+)/orders)", [&store](const httplib::Request& req, httplib::Response& res) {
        const qint64 id = idAt(req, 1);
        if (!store.host(id, {}, false))
            return refuse(res, 404, QStringLiteral("no such host"));
        reply(res, store.hostOrders(id));
    });
    http.Delete(R"(/api/hosts/(\d+))", [&store](const httplib::Request& req, httplib::Response& res) {
        const qint64 id = idAt(req, 1);
        const int status = store.removeHost(id);
        store.audit(QString::fromStdString(req.remote_addr), QStringLiteral("remove host"),
                    QStringLiteral("host %1").arg(id),
                    status == 200 ? QStringLiteral("removed") : QStringLiteral("refused: %1").arg(status));
        status == 200 ? reply(res, QJsonObject{{QStringLiteral("removed"), id}})
                      : refuse(res, status, QStringLiteral("no such host"));
    });

    http.Get("/api/schedule", [this](const httplib::Request&, httplib::Response& res) {
        QFile f(m_options.schedulePath);
        const QByteArray xml = f.open(QIODevice::ReadOnly) ? f.read(1 << 20) : QByteArray();
        const auto tasks = ScheduleFile::parse(xml);
        if (!tasks)
            return refuse(res, 500, QStringLiteral("the schedule file is not well-formed"));
        reply(res, QJsonObject{{QStringLiteral("file"), m_options.schedulePath},
                               {QStringLiteral("tasks"), ScheduleFile::toJson(*tasks)}});
    });
    http.Put("/api/schedule", [this, &store](const httplib::Request& req, httplib::Response& res) {
        const QString source = QString::fromStdString(req.remote_addr);
        const QString what = QStringLiteral("schedule");
        const auto refuseEdit = [&](int status, const QString& why) {
            store.audit(source, what, m_options.schedulePath, QStringLiteral("refused: ") + why);
            refuse(res, status, why);
        };
        if (m_options.schedulePath.isEmpty())
            return refuseEdit(409, QStringLiteral("the console was started without --schedule"));
        const QJsonObject edit = QJsonDocument::fromJson(QByteArray::fromStdString(req.body)).object();
        QFile f(m_options.schedulePath);
        const QByteArray xml = f.open(QIODevice::ReadOnly) ? f.read(1 << 20) : QByteArray();
        auto tasks = ScheduleFile::parse(xml);
        if (!tasks)
            return refuseEdit(500, QStringLiteral("the schedule file is not well-formed"));
        QString error;
        if (!edit.value(QLatin1String("tasks")).isArray())
            return refuseEdit(400, QStringLiteral("send {\"tasks\": [...]}"));
        if (!ScheduleFile::apply(edit.value(QLatin1String("tasks")).toArray(), *tasks, &error))
            return refuseEdit(400, error);
        const QJsonValue reload = edit.value(QLatin1String("reload"));
        std::set<qint64> targets;
        if (reload == QJsonValue(QStringLiteral("all")))
            targets = m_online();
        else if (reload.isDouble()) {
            if (!store.host(reload.toInt(), {}, false))
                return refuseEdit(404, QStringLiteral("no such host to reload"));
            targets.insert(reload.toInt());
        } else if (!reload.isUndefined() && !reload.isNull())
            return refuseEdit(400, QStringLiteral("\"reload\" is \"all\" or a host id"));
        QSaveFile out(m_options.schedulePath);
        if (!out.open(QIODevice::WriteOnly) || out.write(ScheduleFile::write(*tasks)) < 0 || !out.commit())
            return refuseEdit(503, QStringLiteral("cannot write the schedule file"));
        QJsonArray orders;
        for (const qint64 host : targets) {
            QJsonObject created;
            if (store.addOrder(host, QJsonObject{{QStringLiteral("kind"), QStringLiteral("reload-schedule")}},
                               &created) == 200)
                orders.append(created.value(QLatin1String("id")));
        }
        store.audit(source, what, m_options.schedulePath,
                    QStringLiteral("saved; reload orders %1")
                        .arg(QString::fromUtf8(QJsonDocument(orders).toJson(QJsonDocument::Compact))));
        if (!orders.isEmpty())
            m_ordersAdded();
        reply(res, QJsonObject{{QStringLiteral("tasks"), ScheduleFile::toJson(*tasks)},
                               {QStringLiteral("orders"), orders}});
    });
    http.Get("/api/audit",
             [&store](const httplib::Request&, httplib::Response& res) { reply(res, store.auditRows()); });
}

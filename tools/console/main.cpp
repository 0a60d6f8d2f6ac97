// edr-console: the management server. It registers agents, keeps their
// reports as history in SQLite, serves a schedule file, holds the agents'
// push connections, sends them orders and answers an administrator's
// questions through the admin API.

#include "AdminApi.h"
#include "Orders.h"
#include "SettingsFile.h"
#include "SocketService.h"
#include "Store.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <thread>

namespace
{
std::atomic<int> g_stopSignal{0};
void onSignal(int sig)
{
    g_stopSignal = sig;
}

// Fault switches for tests and demos.
enum class Fault { None, RefuseRegistration, Error500, Silent };

Fault parseFault(const std::string& name, bool* ok)
{
    *ok = true;
    if (name == "none" || name.empty())
        return Fault::None;
    if (name == "refuse")
        return Fault::RefuseRegistration;
    if (name == "500")
        return Fault::Error500;
    if (name == "silent")
        return Fault::Silent;
    *ok = false;
    return Fault::None;
}

bool isLoopback(const std::string& addr)
{
    return addr.rfind("127.", 0) == 0 || addr == "::1";
}

// "90", "45s", "30m", "1h", "2d" -> seconds; -1 when not a duration.
qint64 parseDuration(const QString& text)
{
    static const QString units = QStringLiteral("smhd");
    static const qint64 factors[] = {1, 60, 3600, 86400};
    QString t = text.trimmed();
    qint64 factor = 1;
    if (!t.isEmpty() && units.contains(t.back())) {
        factor = factors[units.indexOf(t.back())];
        t.chop(1);
    }
    bool ok = false;
    const qint64 n = t.toLongLong(&ok);
    return ok && n > 0 && n < (qint64(1) << 40) ? n * factor : -1;
}

void replyJson(httplib::Response& res, const QJsonValue& value, int status = 200)
{
    res.status = status;
    const QByteArray text =
        value.isArray() ? QJsonDocument(value.toArray()).toJson() : QJsonDocument(value.toObject()).toJson();
    res.set_content(text.toStdString(), "application/json");
}

void replyStatus(httplib::Response& res, int status, const char* message)
{
    res.status = status;
    res.set_content(QJsonDocument(QJsonObject{{QStringLiteral("status"), false},
                                              {QStringLiteral("message"), QLatin1String(message)}})
                        .toJson(QJsonDocument::Compact)
                        .toStdString(),
                    "application/json");
}
constexpr size_t kMaxAgentBody = 32u << 20;
constexpr std::chrono::milliseconds kOrderGap{1500};
} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("edr-console"));
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Management server for edr-agent."));
    parser.addHelpOption();
    const QCommandLineOption hostOpt(QStringLiteral("host"),
                                     QStringLiteral("Address the agent API listens on (default 127.0.0.1)."),
                                     QStringLiteral("ADDR"), QStringLiteral("127.0.0.1"));
    const QCommandLineOption httpOpt(QStringLiteral("http-port"),
                                     QStringLiteral("HTTP API port (0: pick a free one)."),
                                     QStringLiteral("PORT"), QStringLiteral("7777"));
    const QCommandLineOption sockOpt(QStringLiteral("socket-port"),
                                     QStringLiteral("Socket service port (0: pick a free one)."),
                                     QStringLiteral("PORT"), QStringLiteral("3098"));
    const QCommandLineOption apiOpt(QStringLiteral("api-version"),
                                    QStringLiteral("API version path segment."), QStringLiteral("VER"),
                                    QStringLiteral("v1"));
    const QCommandLineOption dataOpt(QStringLiteral("data"),
                                     QStringLiteral("Directory of the database console.db."),
                                     QStringLiteral("DIR"), QStringLiteral("console-data"));
    const QCommandLineOption schedOpt(QStringLiteral("schedule"),
                                      QStringLiteral("Schedule file served by settings/getConfigFile."),
                                      QStringLiteral("FILE"));
    const QCommandLineOption portFileOpt(QStringLiteral("port-file"),
                                         QStringLiteral("Write the bound ports as JSON to FILE."),
                                         QStringLiteral("FILE"));
    const QCommandLineOption faultOpt(QStringLiteral("fault"),
                                      QStringLiteral("Start with a fault: none, refuse, 500, silent."),
                                      QStringLiteral("MODE"), QStringLiteral("none"));
    const QCommandLineOption certOpt(
        QStringLiteral("tls-cert"),
        QStringLiteral("Serve every listener over TLS with this PEM certificate chain."),
        QStringLiteral("FILE"));
    const QCommandLineOption keyOpt(
        QStringLiteral("tls-key"), QStringLiteral("PEM private key for --tls-cert."), QStringLiteral("FILE"));
    const QCommandLineOption summaryOpt(
        QStringLiteral("summary"), QStringLiteral("Print what the database under --data holds and exit."));
    const QCommandLineOption adminPortOpt(QStringLiteral("admin-port"),
                                          QStringLiteral("Admin API port (0: pick a free one)."),
                                          QStringLiteral("PORT"), QStringLiteral("7780"));
    const QCommandLineOption adminListenOpt(
        QStringLiteral("admin-listen"),
        QStringLiteral("Address the admin API listens on (default 127.0.0.1; others need a token file)."),
        QStringLiteral("ADDR"), QStringLiteral("127.0.0.1"));
    const QCommandLineOption adminTokenOpt(
        QStringLiteral("admin-token-file"),
        QStringLiteral("File holding the bearer token every admin request must carry."),
        QStringLiteral("FILE"));
    const QCommandLineOption keepOpt(QStringLiteral("keep-days"),
                                     QStringLiteral("Days of history kept (default 90)."),
                                     QStringLiteral("N"), QStringLiteral("90"));
    const QCommandLineOption keepProcOpt(QStringLiteral("keep-process-days"),
                                         QStringLiteral("Days of process lists kept (default 7)."),
                                         QStringLiteral("N"), QStringLiteral("7"));
    const QCommandLineOption ttlOpt(QStringLiteral("order-ttl"),
                                    QStringLiteral("How long an order waits for its host (default 1h)."),
                                    QStringLiteral("DURATION"), QStringLiteral("1h"));
    const QCommandLineOption journalOpt(
        QStringLiteral("journal"),
        QStringLiteral("Also keep every agent request as it came, in the journal table (tests, debugging)."));
    const QCommandLineOption configOpt(
        QStringLiteral("config"),
        QStringLiteral(
            "Read settings (\"admin-port = 7780\", one per line) from FILE; options given here win."),
        QStringLiteral("FILE"));
    const QList<QCommandLineOption> options{hostOpt,     httpOpt,      sockOpt,        apiOpt,        dataOpt,
                                            schedOpt,    portFileOpt,  faultOpt,       certOpt,       keyOpt,
                                            summaryOpt,  adminPortOpt, adminListenOpt, adminTokenOpt, keepOpt,
                                            keepProcOpt, ttlOpt,       journalOpt,     configOpt};
    parser.addOptions(options);
    // The settings file's values go before the command line's, so the last, the command line's, counts.
    QStringList arguments = app.arguments();
    parser.parse(arguments);
    if (parser.isSet(configOpt)) {
        QStringList known;
        for (const QCommandLineOption& o : options)
            if (!o.valueName().isEmpty() && o.names() != configOpt.names())
                known << o.names().constFirst();
        QFile f(parser.value(configOpt));
        QString error;
        std::optional<QStringList> settings;
        if (f.open(QIODevice::ReadOnly))
            settings = SettingsFile::toArguments(f.read(1 << 20), known, &error);
        else
            error = f.errorString();
        if (!settings) {
            std::fprintf(stderr, "edr-console: %s: %s\n", qPrintable(parser.value(configOpt)),
                         qPrintable(error));
            return 2;
        }
        arguments = arguments.mid(0, 1) + *settings + arguments.mid(1);
    }
    parser.process(arguments);

    bool ok = false;
    std::atomic<Fault> fault{parseFault(parser.value(faultOpt).toStdString(), &ok)};
    if (!ok) {
        std::fprintf(stderr, "edr-console: unknown fault mode\n");
        return 2;
    }
    Store::Options storeOptions;
    storeOptions.keepDays = parser.value(keepOpt).toInt();
    storeOptions.keepProcessDays = parser.value(keepProcOpt).toInt();
    storeOptions.journal = parser.isSet(journalOpt);
    const qint64 orderTtl = parseDuration(parser.value(ttlOpt));
    if (storeOptions.keepDays < 1 || storeOptions.keepProcessDays < 1 || orderTtl < 0) {
        std::fprintf(stderr, "edr-console: --keep-days, --keep-process-days and --order-ttl take positive "
                             "numbers\n");
        return 2;
    }
    AdminApi::Options adminOptions;
    adminOptions.listen = parser.value(adminListenOpt).toStdString();
    adminOptions.port = parser.value(adminPortOpt).toInt();
    adminOptions.schedulePath = parser.value(schedOpt);
    if (parser.isSet(adminTokenOpt)) {
        QFile f(parser.value(adminTokenOpt));
        adminOptions.token =
            f.open(QIODevice::ReadOnly) ? f.read(4096).trimmed().toStdString() : std::string();
        if (adminOptions.token.size() < 16) {
            std::fprintf(stderr, "edr-console: %s holds no token of 16 characters or more\n",
                         qPrintable(parser.value(adminTokenOpt)));
            return 2;
        }
    }
    if (!isLoopback(adminOptions.listen) && adminOptions.token.empty()) {
        std::fprintf(stderr,
                     "edr-console: the admin API listens beyond loopback (%s) only with "
                     "--admin-token-file\n",
                     adminOptions.listen.c_str());
        return 2;
    }
    if (parser.isSet(certOpt) != parser.isSet(keyOpt)) {
        std::fprintf(stderr, "edr-console: --tls-cert and --tls-key go together\n");
        return 2;
    }

    storeOptions.readOnly = parser.isSet(summaryOpt);
    QString error;
    std::unique_ptr<Store> opened = Store::open(parser.value(dataOpt), storeOptions, &error);
    if (!opened) {
        std::fprintf(stderr, "edr-console: %s\n", qPrintable(error));
        return 1;
    }
    Store& store = *opened;
    if (parser.isSet(summaryOpt)) {
        const QString text = store.summary();
        std::printf("%s", text.isEmpty()
                              ? qPrintable(QStringLiteral("no hosts in %1/console.db\n").arg(store.dataDir()))
                              : qPrintable(text));
        return text.isEmpty() ? 1 : 0;
    }

    const std::string host = parser.value(hostOpt).toStdString();
    const std::string prefix = "/api/" + parser.value(apiOpt).toStdString() + "/";
    const QString schedulePath = parser.value(schedOpt);
    SocketService sockets([&store](const std::string& token) {
        if (const auto id = store.hostOf(QString::fromStdString(token)))
            store.touch(*id);
    });
    const auto onlineHosts = [&] {
        std::set<qint64> online;
        for (const std::string& token : sockets.openTokens())
            if (const auto id = store.hostOf(QString::fromStdString(token)))
                online.insert(*id);
        return online;
    };

    const bool tls = parser.isSet(certOpt);
    std::unique_ptr<httplib::Server> httpServer;
    if (tls) {
        const QByteArray cert = QFile::encodeName(parser.value(certOpt));
        const QByteArray key = QFile::encodeName(parser.value(keyOpt));
        auto secure = std::make_unique<httplib::SSLServer>(cert.constData(), key.constData());
        std::string tlsError;
        if (!secure->is_valid() || !sockets.useTls(cert.toStdString(), key.toStdString(), &tlsError)) {
            std::fprintf(stderr, "edr-console: cannot use %s / %s: %s\n", cert.constData(), key.constData(),
                         tlsError.empty() ? "certificate or key not usable" : tlsError.c_str());
            return 1;
        }
        httpServer = std::move(secure);
        adminOptions.tlsCert = cert.toStdString();
        adminOptions.tlsKey = key.toStdString();
    } else {
        httpServer = std::make_unique<httplib::Server>();
    }
    httplib::Server& http = *httpServer;
    http.set_keep_alive_max_count(1);
    http.set_payload_max_length(kMaxAgentBody);
    http.set_read_timeout(30);

    std::mutex dispatchMutex;
    std::condition_variable dispatchCv;
    AdminApi admin(store, adminOptions, onlineHosts, [&] { dispatchCv.notify_all(); });
    if (!admin.valid()) {
        std::fprintf(stderr, "edr-console: the admin API cannot use the TLS certificate\n");
        return 1;
    }

    auto journal = [&](const httplib::Request& req, const std::string& route) {
        QJsonArray headers;
        for (const auto& h : req.headers)
            headers.append(QJsonArray{QString::fromStdString(h.first), QString::fromStdString(h.second)});
        const size_t q = req.target.find('?');
        store.journal(QString::fromStdString(req.method), QString::fromStdString(route),
                      q == std::string::npos ? QString() : QString::fromStdString(req.target.substr(q + 1)),
                      headers, QByteArray::fromStdString(req.body), QString::fromStdString(req.remote_addr));
    };
    auto apply_fault = [&](httplib::Response& res) {
        switch (fault.load()) {
        case Fault::Error500:
            res.status = 500;
            res.set_content("<html><body><h1>500 Internal Server Error</h1></body></html>", "text/html");
            return true;
        case Fault::Silent:
            for (int i = 0; i < 600 && fault.load() == Fault::Silent && !g_stopSignal; ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
            res.status = 504;
            return true;
        default:
            return false;
        }
    };
    // The token the agent got at registration, in Authorization as it is.
    auto hostOf = [&](const httplib::Request& req, const std::string& route) -> std::optional<qint64> {
        const auto id = store.hostOf(QString::fromStdString(req.get_header_value("Authorization")));
        if (!id)
            std::fprintf(stderr, "edr-console: %s from %s without a registered token: refused\n",
                         route.c_str(), req.remote_addr.c_str());
        return id;
    };

    static const char* const reportRoutes[] = {"machineInfo/addMachineInfo",  "machineInfo/addStartupApps",
                                               "machineInfo/addProcesses",    "machineInfo/addServicess",
                                               "machineInfo/addNwMonitoring", "machineInfo/addInstallSoft",
                                               "cmdAndPS/cmdOutput",          "firewall/firewallStatus",
                                               "cmdAndPS/osqueryoutput",      "settings/InvSettingsOutput"};

    http.Post(prefix + "machineInfo/registerAgent", [&](const httplib::Request& req, httplib::Response& res) {
        journal(req, "machineInfo/registerAgent");
        if (apply_fault(res))
            return;
        if (fault.load() == Fault::RefuseRegistration) {
            replyJson(res, QJsonObject{{QStringLiteral("status"), false}});
            return;
        }
        const QJsonObject body = QJsonDocument::fromJson(QByteArray::fromStdString(req.body)).object();
        const QString agentId = body.value(QStringLiteral("agent_id")).toString();
        if (agentId.isEmpty()) {
            replyJson(res, QJsonObject{{QStringLiteral("status"), false},
                                       {QStringLiteral("message"), QStringLiteral("agent_id missing")}});
            return;
        }
        QString token;
        const int status =
            store.registerAgent(agentId.left(200), QString::fromStdString(req.remote_addr), &token);
        if (status != 200)
            return replyStatus(res, status, "not stored");
        replyJson(res, QJsonObject{{QStringLiteral("status"), true}, {QStringLiteral("token"), token}});
    });
    for (const char* route : reportRoutes) {
        const std::string r = route;
        http.Post(prefix + r, [&, r](const httplib::Request& req, httplib::Response& res) {
            const auto id = hostOf(req, r);
            if (!id)
                return replyStatus(res, 401, "unknown token");
            journal(req, r);
            if (apply_fault(res))
                return;
            const int status =
                store.recordPost(*id, QString::fromStdString(r), QByteArray::fromStdString(req.body));
            if (status != 200)
                return replyStatus(res, status, status == 400 ? "not a JSON object" : "not stored");
            replyJson(res, QJsonObject{{QStringLiteral("status"), true}});
        });
    }
    http.Get(prefix + "settings/getConfigFile", [&](const httplib::Request& req, httplib::Response& res) {
        journal(req, "settings/getConfigFile");
        if (apply_fault(res))
            return;
        if (const auto id = store.hostOf(QString::fromStdString(req.get_header_value("Authorization"))))
            store.touch(*id);
        QFile f(schedulePath);
        if (schedulePath.isEmpty() || !f.open(QIODevice::ReadOnly)) {
            res.status = 404;
            res.set_content("no schedule configured", "text/plain");
            return;
        }
        res.set_content(f.readAll().toStdString(), "application/xml");
    });

    // Test endpoints on the agent listener, loopback only.
    http.set_pre_routing_handler([&](const httplib::Request& req, httplib::Response& res) {
        if (req.path.rfind("/admin/", 0) == 0 && !isLoopback(req.remote_addr)) {
            res.status = 403;
            return httplib::Server::HandlerResponse::Handled;
        }
        return httplib::Server::HandlerResponse::Unhandled;
    });
    http.Get("/admin/agents", [&](const httplib::Request&, httplib::Response& res) {
        replyJson(res, QJsonObject{{QStringLiteral("registered"), store.hosts(onlineHosts())},
                                   {QStringLiteral("connections"), sockets.connections()}});
    });
    http.Get("/admin/reports",
             [&](const httplib::Request&, httplib::Response& res) { replyJson(res, store.journalRows()); });
    http.Get("/admin/socket-messages",
             [&](const httplib::Request&, httplib::Response& res) { replyJson(res, sockets.messages()); });
    http.Post("/admin/push", [&](const httplib::Request& req, httplib::Response& res) {
        const int sent =
            sockets.push(req.body, req.has_param("peer") ? req.get_param_value("peer") : std::string());
        replyJson(res, QJsonObject{{QStringLiteral("sent"), sent}}, sent > 0 ? 200 : 404);
    });
    http.Post("/admin/close-connections", [&](const httplib::Request&, httplib::Response& res) {
        replyJson(res, QJsonObject{{QStringLiteral("closed"), sockets.closeAll()}});
    });
    http.Post("/admin/fault", [&](const httplib::Request& req, httplib::Response& res) {
        bool valid = false;
        const Fault f = parseFault(req.get_param_value("mode"), &valid);
        if (!valid) {
            res.status = 400;
            return;
        }
        fault = f;
        replyJson(
            res, QJsonObject{{QStringLiteral("fault"), QString::fromStdString(req.get_param_value("mode"))}});
    });

    const int wantedHttp = parser.value(httpOpt).toInt();
    const int httpPort = wantedHttp == 0 ? http.bind_to_any_port(host)
                                         : (http.bind_to_port(host, wantedHttp) ? wantedHttp : -1);
    const int socketPort = sockets.listen(host, parser.value(sockOpt).toInt());
    const int adminPort = admin.bind();
    if (httpPort <= 0 || socketPort <= 0 || adminPort <= 0) {
        std::fprintf(stderr, "edr-console: cannot bind (http %d, socket %d, admin %d)\n", httpPort,
                     socketPort, adminPort);
        return 1;
    }
    if (parser.isSet(portFileOpt)) {
        QFile f(parser.value(portFileOpt) + QStringLiteral(".tmp"));
        if (f.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
            f.write(QJsonDocument(QJsonObject{{QStringLiteral("http"), httpPort},
                                              {QStringLiteral("socket"), socketPort},
                                              {QStringLiteral("admin"), adminPort}})
                        .toJson());
            f.close();
            f.rename(parser.value(portFileOpt));
        }
    }
    std::printf("edr-console: %s %s:%d%s, socket%s %s:%d, admin %s:%d, data %s/console.db\n",
                tls ? "https" : "http", host.c_str(), httpPort, prefix.c_str(), tls ? " (TLS)" : "",
                host.c_str(), socketPort, adminOptions.listen.c_str(), adminPort,
                qPrintable(store.dataDir()));
    std::fflush(stdout);

    std::signal(SIGTERM, onSignal);
    std::signal(SIGINT, onSignal);
    std::signal(SIGPIPE, SIG_IGN);
    std::thread server([&] { http.listen_after_bind(); });
    std::thread adminServer([&] { admin.run(); });

    // Orders go out from here, one command per connection per gap.
    store.prune();
    auto lastPrune = std::chrono::steady_clock::now();
    auto lastExpiry = lastPrune - std::chrono::hours(1);
    while (!g_stopSignal) {
        const auto now = std::chrono::steady_clock::now();
        if (now - lastPrune > std::chrono::hours(1)) {
            store.prune();
            lastPrune = now;
        }
        if (now - lastExpiry > std::chrono::seconds(1)) {
            store.expireOrders(static_cast<int>(std::min<qint64>(orderTtl, INT32_MAX)));
            lastExpiry = now;
        }
        const std::vector<Store::Pending> queued = store.queuedOrders();
        if (!queued.empty()) {
            std::map<qint64, std::string> tokenOf;
            for (const auto& [token, id] : store.tokens())
                tokenOf[id] = token.toStdString();
            for (const Store::Pending& order : queued)
                if (sockets.sendPaced(tokenOf[order.host], order.text.toStdString(), kOrderGap))
                    store.markSent(order.id, Orders::answered(order.kind));
        }
        std::unique_lock<std::mutex> lock(dispatchMutex);
        dispatchCv.wait_for(lock, std::chrono::milliseconds(100));
    }
    http.stop();
    admin.stop();
    server.join();
    adminServer.join();
    sockets.stop();
    return 0;
}

// edr-console: a reference management server for one machine. It registers
// agents, stores every report and action result they post, serves a schedule
// file, holds the agents' push connections and lets an administrator on
// loopback list agents and reports and push commands.

#include "ConsoleStore.h"
#include "SocketService.h"

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
#include <csignal>
#include <cstdio>
#include <memory>
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

// One line per stored request: route, size, main keys, where it was saved.
int printSummary(const QString& dataDir)
{
    const QStringList files = QDir(dataDir + QStringLiteral("/reports"))
                                  .entryList({QStringLiteral("*.json")}, QDir::Files, QDir::Name);
    if (files.isEmpty()) {
        std::printf("no requests stored under %s\n", qPrintable(dataDir));
        return 1;
    }
    for (const QString& name : files) {
        QFile f(dataDir + QStringLiteral("/reports/") + name);
        if (!f.open(QIODevice::ReadOnly))
            continue;
        const QJsonObject doc = QJsonDocument::fromJson(f.readAll()).object();
        QStringList keys;
        const QJsonValue body = doc.value(QStringLiteral("body"));
        if (body.isObject()) {
            const QJsonObject object = body.toObject();
            for (auto it = object.begin(); it != object.end(); ++it)
                keys << (it.value().isArray()
                             ? QStringLiteral("%1[%2]").arg(it.key()).arg(it.value().toArray().size())
                             : it.key());
        }
        std::printf("%-5s %-30s %8d bytes  %s\n        saved as %s\n",
                    qPrintable(doc.value(QStringLiteral("method")).toString()),
                    qPrintable(doc.value(QStringLiteral("route")).toString()),
                    doc.value(QStringLiteral("size")).toInt(), qPrintable(keys.join(QStringLiteral(", "))),
                    qPrintable(f.fileName()));
    }
    return 0;
}

void replyJson(httplib::Response& res, const QJsonValue& value, int status = 200)
{
    res.status = status;
    const QByteArray text =
        value.isArray() ? QJsonDocument(value.toArray()).toJson() : QJsonDocument(value.toObject()).toJson();
    res.set_content(text.toStdString(), "application/json");
}
} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("edr-console"));
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Reference management server for edr-agent."));
    parser.addHelpOption();
    const QCommandLineOption hostOpt(QStringLiteral("host"),
                                     QStringLiteral("Address to listen on (default 127.0.0.1)."),
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
    const QCommandLineOption dataOpt(QStringLiteral("data"), QStringLiteral("Directory for stored requests."),
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
        QStringLiteral("Serve the HTTP API and the socket service over TLS with this PEM certificate chain."),
        QStringLiteral("FILE"));
    const QCommandLineOption keyOpt(
        QStringLiteral("tls-key"), QStringLiteral("PEM private key for --tls-cert."), QStringLiteral("FILE"));
    const QCommandLineOption summaryOpt(
        QStringLiteral("summary"),
        QStringLiteral("Print a readable summary of the requests stored under --data and exit."));
    parser.addOptions({hostOpt, httpOpt, sockOpt, apiOpt, dataOpt, schedOpt, portFileOpt, faultOpt, certOpt,
                       keyOpt, summaryOpt});
    parser.process(app);
    if (parser.isSet(summaryOpt))
        return printSummary(parser.value(dataOpt));

    bool ok = false;
    std::atomic<Fault> fault{parseFault(parser.value(faultOpt).toStdString(), &ok)};
    if (!ok) {
        std::fprintf(stderr, "edr-console: unknown fault mode\n");
        return 2;
    }
    const std::string host = parser.value(hostOpt).toStdString();
    const std::string prefix = "/api/" + parser.value(apiOpt).toStdString() + "/";
    const QString schedulePath = parser.value(schedOpt);
    ConsoleStore store(parser.value(dataOpt));
    SocketService sockets(store.dataDir() + QStringLiteral("/socket.log"));

    if (parser.isSet(certOpt) != parser.isSet(keyOpt)) {
        std::fprintf(stderr, "edr-console: --tls-cert and --tls-key go together\n");
        return 2;
    }
    const bool tls = parser.isSet(certOpt);
    std::unique_ptr<httplib::Server> httpServer;
    if (tls) {
        const QByteArray cert = QFile::encodeName(parser.value(certOpt));
        const QByteArray key = QFile::encodeName(parser.value(keyOpt));
        auto secure = std::make_unique<httplib::SSLServer>(cert.constData(), key.constData());
        std::string error;
        if (!secure->is_valid() || !sockets.useTls(cert.toStdString(), key.toStdString(), &error)) {
            std::fprintf(stderr, "edr-console: cannot use %s / %s: %s\n", cert.constData(), key.constData(),
                         error.empty() ? "certificate or key not usable" : error.c_str());
            return 1;
        }
        httpServer = std::move(secure);
    } else {
        httpServer = std::make_unique<httplib::Server>();
    }
    httplib::Server& http = *httpServer;
    http.set_keep_alive_max_count(1);

    auto store_request = [&](const httplib::Request& req, const std::string& route) {
        std::vector<std::pair<std::string, std::string>> headers(req.headers.begin(), req.headers.end());
        std::string query;
        const size_t q = req.target.find('?');
        if (q != std::string::npos)
            query = req.target.substr(q + 1);
        return store.storeRequest(req.method, route, query, headers, req.body, req.remote_addr);
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

    static const char* const reportRoutes[] = {"machineInfo/addMachineInfo",  "machineInfo/addStartupApps",
                                               "machineInfo/addProcesses",    "machineInfo/addServicess",
                                               "machineInfo/addNwMonitoring", "machineInfo/addInstallSoft",
                                               "cmdAndPS/cmdOutput",          "firewall/firewallStatus",
                                               "cmdAndPS/osqueryoutput",      "settings/InvSettingsOutput"};

    http.Post(prefix + "machineInfo/registerAgent", [&](const httplib::Request& req, httplib::Response& res) {
        store_request(req, "machineInfo/registerAgent");
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
        const QString token = store.registerAgent(agentId, QString::fromStdString(req.remote_addr));
        replyJson(res, QJsonObject{{QStringLiteral("status"), true}, {QStringLiteral("token"), token}});
    });
    for (const char* route : reportRoutes) {
        const std::string r = route;
        http.Post(prefix + r, [&, r](const httplib::Request& req, httplib::Response& res) {
            store_request(req, r);
            if (apply_fault(res))
                return;
            replyJson(res, QJsonObject{{QStringLiteral("status"), true}});
        });
    }
    http.Get(prefix + "settings/getConfigFile", [&](const httplib::Request& req, httplib::Response& res) {
        store_request(req, "settings/getConfigFile");
        if (apply_fault(res))
            return;
        QFile f(schedulePath);
        if (schedulePath.isEmpty() || !f.open(QIODevice::ReadOnly)) {
            res.status = 404;
            res.set_content("no schedule configured", "text/plain");
            return;
        }
        res.set_content(f.readAll().toStdString(), "application/xml");
    });

    // Admin endpoints, loopback only.
    http.set_pre_routing_handler([&](const httplib::Request& req, httplib::Response& res) {
        if (req.path.rfind("/admin/", 0) == 0 && !isLoopback(req.remote_addr)) {
            res.status = 403;
            return httplib::Server::HandlerResponse::Handled;
        }
        return httplib::Server::HandlerResponse::Unhandled;
    });
    http.Get("/admin/agents", [&](const httplib::Request&, httplib::Response& res) {
        replyJson(res, QJsonObject{{QStringLiteral("registered"), store.agents()},
                                   {QStringLiteral("connections"), sockets.connections()}});
    });
    http.Get("/admin/reports",
             [&](const httplib::Request&, httplib::Response& res) { replyJson(res, store.reports()); });
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
    if (httpPort <= 0 || socketPort <= 0) {
        std::fprintf(stderr, "edr-console: cannot bind (http %d, socket %d)\n", httpPort, socketPort);
        return 1;
    }
    if (parser.isSet(portFileOpt)) {
        QFile f(parser.value(portFileOpt) + QStringLiteral(".tmp"));
        if (f.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
            f.write(QJsonDocument(QJsonObject{{QStringLiteral("http"), httpPort},
                                              {QStringLiteral("socket"), socketPort}})
                        .toJson());
            f.close();
            f.rename(parser.value(portFileOpt));
        }
    }
    std::printf("edr-console: %s %s:%d%s, socket%s %s:%d, data %s\n", tls ? "https" : "http", host.c_str(),
                httpPort, prefix.c_str(), tls ? " (TLS)" : "", host.c_str(), socketPort,
                qPrintable(store.dataDir()));
    std::fflush(stdout);

    std::signal(SIGTERM, onSignal);
    std::signal(SIGINT, onSignal);
    std::signal(SIGPIPE, SIG_IGN);
    std::thread server([&] { http.listen_after_bind(); });
    while (!g_stopSignal)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    http.stop();
    server.join();
    sockets.stop();
    return 0;
}

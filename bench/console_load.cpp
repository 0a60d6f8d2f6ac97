// Load generator for edr-console: N simulated agents replay report bodies
// captured on this machine (each agent's bodies changed a little) in the
// default schedule's daily mix, one connection per post as the agent makes
// them. Prints throughput, latency percentiles, bytes posted and, with
// --admin-port, how long a package search across every host takes.
//
//   console_load --http-port P --admin-port A --bodies DIR --agents N [--threads T] [--days D]

#include <QByteArray>
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <httplib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <thread>
#include <vector>

namespace
{
using Clock = std::chrono::steady_clock;

struct Post {
    int agent;
    int kind; // index into kKinds
    int seq;  // how many of this kind the agent posted before
};

// Per agent and day: 96 agent information, 8 each of services, processes,
// ports, hardware and start-up, 1 software.
struct Kind {
    const char* route;
    const char* file;
    int perDay;
};
const Kind kKinds[] = {
    {"machineInfo/addMachineInfo", nullptr, 96},   {"machineInfo/addServicess", "services", 8},
    {"machineInfo/addProcesses", "processes", 8},  {"machineInfo/addNwMonitoring", "network", 8},
    {"machineInfo/addMachineInfo", "hardware", 8}, {"machineInfo/addStartupApps", "startup", 8},
    {"machineInfo/addInstallSoft", "software", 1}};

// Inserts `item` as the first element of the list named `key`.
QByteArray withFirst(QByteArray body, const QByteArray& key, const QByteArray& item)
{
    const int at = body.indexOf("\"" + key + "\"");
    const int open = at < 0 ? -1 : body.indexOf('[', at);
    if (open < 0)
        return body;
    const bool empty = body.mid(open + 1).trimmed().startsWith(']');
    return body.insert(open + 1, item + (empty ? "" : ","));
}

QByteArray bodyFor(const std::vector<QByteArray>& bodies, const Post& p)
{
    const QByteArray agent = QByteArray::number(p.agent);
    switch (p.kind) {
    case 0:
        return R"({"AgentVersion": "1.0.0", "IpAddress": "10.)" + QByteArray::number(p.agent / 256) + "." +
               QByteArray::number(p.agent % 256) + R"(.7"})";
    case 2: // every process list differs a little
        return withFirst(bodies[2], "Process",
                         R"({"CommandLine": "bench", "Name": "bench-)" + agent + R"(", "ProcessId": )" +
                             QByteArray::number(100000 + p.seq) + "}");
    case 4:
        return withFirst(bodies[4], "Users", R"({"Name": "user-)" + agent + R"("})");
    case 6:
        return withFirst(bodies[6], "InstallSoft",
                         R"({"Name": "bench-)" + agent + R"(", "PackageName": "bench-)" + agent +
                             R"(", "Version": "1.0"})");
    default:
        return bodies[static_cast<size_t>(p.kind)];
    }
}

double percentile(std::vector<double> v, double q)
{
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, static_cast<size_t>(q * static_cast<double>(v.size())))];
}
} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    const QCommandLineOption httpOpt(QStringLiteral("http-port"), QStringLiteral("Agent API port."),
                                     QStringLiteral("PORT"));
    const QCommandLineOption adminOpt(QStringLiteral("admin-port"), QStringLiteral("Admin API port."),
                                      QStringLiteral("PORT"));
    const QCommandLineOption bodiesOpt(
        QStringLiteral("bodies"), QStringLiteral("Directory of NAME.json bodies."), QStringLiteral("DIR"));
    const QCommandLineOption agentsOpt(QStringLiteral("agents"), QStringLiteral("Simulated agents."),
                                       QStringLiteral("N"), QStringLiteral("100"));
    const QCommandLineOption threadsOpt(QStringLiteral("threads"), QStringLiteral("Concurrent posters."),
                                        QStringLiteral("N"), QStringLiteral("8"));
    const QCommandLineOption daysOpt(QStringLiteral("days"), QStringLiteral("Simulated days."),
                                     QStringLiteral("N"), QStringLiteral("1"));
    parser.addOptions({httpOpt, adminOpt, bodiesOpt, agentsOpt, threadsOpt, daysOpt});
    parser.process(app);
    const int port = parser.value(httpOpt).toInt();
    const int agents = parser.value(agentsOpt).toInt();
    const int threads = std::max(1, parser.value(threadsOpt).toInt());
    const int days = std::max(1, parser.value(daysOpt).toInt());

    std::vector<QByteArray> bodies;
    for (const Kind& k : kKinds) {
        QFile f(parser.value(bodiesOpt) + QLatin1Char('/') + QLatin1String(k.file ? k.file : "agent-info") +
                QStringLiteral(".json"));
        if (!f.open(QIODevice::ReadOnly)) {
            std::fprintf(stderr, "console_load: cannot read %s\n", qPrintable(f.fileName()));
            return 2;
        }
        bodies.push_back(f.readAll().trimmed());
    }

    std::vector<std::string> tokens(static_cast<size_t>(agents));
    for (int a = 0; a < agents; ++a) {
        httplib::Client c("127.0.0.1", port);
        const auto r =
            c.Post("/api/v1/machineInfo/registerAgent", R"({"agent_id":"bench"})", "application/json");
        tokens[static_cast<size_t>(a)] = r ? QJsonDocument::fromJson(QByteArray::fromStdString(r->body))
                                                 .object()
                                                 .value(QStringLiteral("token"))
                                                 .toString()
                                                 .toStdString()
                                           : std::string();
        if (tokens[static_cast<size_t>(a)].empty()) {
            std::fprintf(stderr, "console_load: registration %d failed\n", a);
            return 1;
        }
    }

    // The day in order: a slot every 15 minutes, each kind at its own period.
    std::vector<Post> posts;
    for (int slot = 0; slot < 96 * days; ++slot)
        for (int a = 0; a < agents; ++a)
            for (int k = 0; k < static_cast<int>(std::size(kKinds)); ++k) {
                const int every = 96 / kKinds[k].perDay;
                if (slot % every == (a + k) % every)
                    posts.push_back({a, k, slot / every});
            }

    std::atomic<size_t> next{0};
    std::atomic<long long> bytes{0}, failed{0};
    std::mutex m;
    std::vector<double> latencies;
    latencies.reserve(posts.size());
    const auto start = Clock::now();
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
        workers.emplace_back([&] {
            std::vector<double> mine;
            for (size_t i = next++; i < posts.size(); i = next++) {
                const Post& p = posts[i];
                const QByteArray body = bodyFor(bodies, p);
                const auto t0 = Clock::now();
                httplib::Client c("127.0.0.1", port);
                const auto r =
                    c.Post(("/api/v1/" + std::string(kKinds[p.kind].route)).c_str(),
                           httplib::Headers{{"Authorization", tokens[static_cast<size_t>(p.agent)]}},
                           body.constData(), static_cast<size_t>(body.size()), "application/json");
                mine.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
                bytes += body.size();
                if (!r || r->status != 200)
                    ++failed;
            }
            std::lock_guard<std::mutex> lock(m);
            latencies.insert(latencies.end(), mine.begin(), mine.end());
        });
    for (auto& w : workers)
        w.join();
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::printf(
        "agents %d, posts %zu in %.1f s: %.0f posts/s, latency p50 %.1f ms, p99 %.1f ms, max %.1f ms, "
        "failed %lld, raw bytes posted %lld\n",
        agents, posts.size(), seconds, static_cast<double>(posts.size()) / seconds,
        percentile(latencies, 0.5), percentile(latencies, 0.99), percentile(latencies, 1.0), failed.load(),
        bytes.load());

    if (parser.isSet(adminOpt)) {
        std::vector<double> searches;
        size_t hosts = 0;
        for (int i = 0; i < 20; ++i) {
            httplib::Client c("127.0.0.1", parser.value(adminOpt).toInt());
            const auto t0 = Clock::now();
            const auto r = c.Get("/api/search?package=dpkg");
            searches.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
            if (r)
                hosts = static_cast<size_t>(
                    QJsonDocument::fromJson(QByteArray::fromStdString(r->body)).array().size());
        }
        std::printf("search ?package=dpkg: %zu hosts, p50 %.1f ms, max %.1f ms\n", hosts,
                    percentile(searches, 0.5), percentile(searches, 1.0));
    }
    return failed.load() == 0 ? 0 : 1;
}

// In-process cost of the process list and of the service and port parsers,
// without the agent's start-up or the tools' own run time.
#include "control/NetworkMonManager.h"
#include "control/ProcessManager.h"
#include "control/ServiceManager.h"

#include <QFile>
#include <QJsonDocument>

#include <benchmark/benchmark.h>

static QByteArray fixture(const char* relative)
{
    QFile f(QStringLiteral(EDR_FIXTURES_DIR "/") + QString::fromLatin1(relative));
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

// This machine's /proc, serialised as the report command prints it.
static void BM_ProcessesReportBody(benchmark::State& state)
{
    ProcessManager manager;
    for (auto _ : state) {
        QJsonObject body;
        manager.collectReport(body);
        benchmark::DoNotOptimize(QJsonDocument(body).toJson());
    }
}
BENCHMARK(BM_ProcessesReportBody)->Unit(benchmark::kMillisecond);

// One batched "show" answer for 150 units, split and applied.
static void BM_ServicesShowParse(benchmark::State& state)
{
    QByteArray block =
        "Type=notify\nSuccessExitStatus=\nMainPID=640\n"
        "ExecStart={ path=/usr/sbin/sshd ; argv[]=/usr/sbin/sshd -D $SSHD_OPTS ; ignore_errors=no }\n"
        "WantedBy=multi-user.target\nDescription=OpenBSD Secure Shell server\n"
        "ActiveState=active\nUnitFileState=enabled\n";
    QByteArray output;
    for (int i = 0; i < 150; ++i)
        output += (i ? "\n" : "") + block;
    for (auto _ : state) {
        const QList<QStringList> blocks = ServiceManager::splitShowBlocks(output);
        for (const QStringList& b : blocks) {
            ServiceInfo info;
            ServiceManager::applyProperties(b, info);
            benchmark::DoNotOptimize(info.toJson());
        }
    }
}
BENCHMARK(BM_ServicesShowParse)->Unit(benchmark::kMicrosecond);

static void BM_LsofAndSsParse(benchmark::State& state)
{
    const QByteArray lsof = fixture("commands/lsof/sockets.stdout");
    const QByteArray ss = fixture("commands/ss/sockets.stdout");
    for (auto _ : state) {
        QJsonArray listening, connections;
        NetworkMonManager::parseLsofOutput(lsof, listening, connections);
        NetworkMonManager::parseSsOutput(ss, listening, [](int) { return QString(); });
        benchmark::DoNotOptimize(listening);
    }
}
BENCHMARK(BM_LsofAndSsParse)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();

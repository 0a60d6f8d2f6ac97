// The dpkg status parser over a database of 5000 stanzas, built from the
// copy of a real one, and the whole software report of this machine.
#include "inventory/InstallSoftManager.h"

#include <QFile>
#include <QJsonDocument>
#include <QList>

#include <benchmark/benchmark.h>

namespace
{

QByteArray hostStatus()
{
    QFile f(QStringLiteral(EDR_FIXTURES_DIR "/roots/dpkg-host/var/lib/dpkg/status"));
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

// Real stanzas repeated under new names until there are `count` of them.
QByteArray synthesise(int count)
{
    const QByteArray text = hostStatus();
    QList<QByteArray> blocks;
    int start = 0;
    while (start < text.size()) {
        int end = text.indexOf("\n\n", start);
        if (end < 0)
            end = text.size();
        if (end > start)
            blocks << text.mid(start, end - start);
        start = end + 2;
    }
    QByteArray out;
    for (int i = 0; i < count && !blocks.isEmpty(); ++i) {
        QByteArray b = blocks.at(i % blocks.size());
        if (i >= blocks.size())
            b.replace("Package: ", "Package: copy" + QByteArray::number(i / blocks.size()) + "-");
        out += b + "\n\n";
    }
    return out;
}

void BM_ParseDpkgStatus5000(benchmark::State& state)
{
    const QByteArray status = synthesise(5000);
    size_t packages = 0;
    for (auto _ : state) {
        const auto parsed = InstallSoftManager::parseDpkgStatus(status);
        packages = static_cast<size_t>(parsed.size());
        benchmark::DoNotOptimize(parsed.data());
    }
    state.counters["packages"] = static_cast<double>(packages);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * status.size());
}
BENCHMARK(BM_ParseDpkgStatus5000)->Unit(benchmark::kMillisecond);

// Read, parse, date every package and serialise, on the machine running the bench.
void BM_SoftwareReportThisMachine(benchmark::State& state)
{
    InstallSoftManager manager;
    for (auto _ : state) {
        QJsonObject body;
        manager.collectReport(body);
        benchmark::DoNotOptimize(QJsonDocument(body).toJson().size());
    }
}
BENCHMARK(BM_SoftwareReportThisMachine)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();

// The dmidecode parser and the memory additions over 200 structures, made of
// the server fixture's memory devices (filled and empty slots alike).
#include "inventory/CDmiInfo.h"
#include "inventory/CHardwareInfo.h"

#include <QFile>

#include <benchmark/benchmark.h>

namespace
{

QString structures(int count)
{
    QFile f(QStringLiteral(EDR_FIXTURES_DIR "/commands/dmidecode/server/memory.stdout"));
    const QString text = f.open(QIODevice::ReadOnly) ? QString::fromLatin1(f.readAll()) : QString();
    QStringList devices;
    for (const QString& block : text.split(QStringLiteral("\n\n"), Qt::SkipEmptyParts))
        if (block.startsWith(QLatin1String("Memory Device")))
            devices << block;
    QString out;
    for (int i = 0; i < count && !devices.isEmpty(); ++i)
        out += devices.at(i % devices.size()) + QStringLiteral("\n\n");
    return out;
}

void BM_ParseDmidecode200(benchmark::State& state)
{
    const QString text = structures(200);
    for (auto _ : state) {
        QJsonArray out;
        CDmiInfo::parseDmiOutput(text, out);
        benchmark::DoNotOptimize(out.size());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * text.size());
}
BENCHMARK(BM_ParseDmidecode200)->Unit(benchmark::kMicrosecond);

void BM_ParseAndEnrichMemory200(benchmark::State& state)
{
    const QString text = structures(200);
    for (auto _ : state) {
        QJsonArray out;
        CDmiInfo::parseDmiOutput(text, out);
        CHardwareInfo::enrichMemoryDevices(out);
        benchmark::DoNotOptimize(out.size());
    }
}
BENCHMARK(BM_ParseAndEnrichMemory200)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();

// What a flood of refused connections costs the audit log: before throttling
// each one was a synced line of its own. The files are made under the current
// directory, so run it from the disk the agent's data lives on.
#include "core/AuditLog.h"
#include "core/CLogger.h"
#include "core/Common.h"

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

namespace
{
struct Scratch {
    QTemporaryDir dir{QDir::currentPath() + QStringLiteral("/audit-bench-XXXXXX")};
    Scratch()
    {
        Common::setPrefix(dir.path());
        QDir().mkpath(Common::getEdrDirPath());
        EDR_LOG->setFilePath(dir.path() + QStringLiteral("/EDR_Track.log"));
    }
    ~Scratch() { AuditLog::releaseInstance(); }
};

void refuse(benchmark::State& state, int addresses)
{
    Scratch scratch;
    AuditLog* audit = AuditLog::getInstance();
    int i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(audit->record(AuditLog::Listener,
                                               QStringLiteral("10.9.%1.%2").arg(i / 250 % 250).arg(i % 250),
                                               QString(), std::nullopt, AuditLog::RefusedPeer));
        i = (i + 1) % addresses;
    }
    state.counters["audit_bytes"] = static_cast<double>(QFileInfo(audit->filePath()).size());
}
} // namespace

static void BM_RefusedPeerFloodOneAddress(benchmark::State& state)
{
    refuse(state, 1);
}
BENCHMARK(BM_RefusedPeerFloodOneAddress)->Iterations(330000);

static void BM_RefusedPeerFloodManyAddresses(benchmark::State& state)
{
    refuse(state, 60000);
}
BENCHMARK(BM_RefusedPeerFloodManyAddresses)->Iterations(330000);

// An order's pending line and its completion in place, both synced.
static void BM_OrderRecord(benchmark::State& state)
{
    Scratch scratch;
    AuditLog* audit = AuditLog::getInstance();
    for (auto _ : state)
        audit->finish(audit->begin(AuditLog::Push, QStringLiteral("192.0.2.10"), "ACT#$#3#$#1|4242|r7", 3),
                      AuditLog::Done, true);
}
BENCHMARK(BM_OrderRecord)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();

// Cost of keeping a failed post (temporary file, fsync, rename) and what an
// empty outbox adds to a post that succeeded. The directory is made under the
// current directory, so run it from the disk the agent's data lives on.
#include "comm/Outbox.h"
#include "core/CLogger.h"
#include "core/Common.h"

#include <QDir>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

namespace
{
struct Scratch {
    QTemporaryDir dir{QDir::currentPath() + QStringLiteral("/outbox-bench-XXXXXX")};
    Scratch()
    {
        Common::setPrefix(dir.path());
        EDR_LOG->setFilePath(dir.path() + QStringLiteral("/EDR_Track.log"));
    }
};
} // namespace

// A 1 MiB processes snapshot kept again and again: each round writes the new
// file and removes the one it replaces.
static void BM_KeepOneMiBSnapshot(benchmark::State& state)
{
    Scratch scratch;
    Outbox outbox(scratch.dir.path() + QStringLiteral("/pending"));
    if (!outbox.lockAndScan()) {
        state.SkipWithError("cannot open the outbox");
        return;
    }
    const QByteArray body(1024 * 1024, 'x');
    for (auto _ : state)
        benchmark::DoNotOptimize(outbox.keep("bench", PROCESSES, body, QStringLiteral("bench")));
}
BENCHMARK(BM_KeepOneMiBSnapshot)->Unit(benchmark::kMillisecond);

// What ReportSubmitter does around a post that succeeded, outbox empty.
static void BM_SuccessfulPostEmptyOutbox(benchmark::State& state)
{
    Scratch scratch;
    Outbox outbox(scratch.dir.path() + QStringLiteral("/pending"));
    outbox.lockAndScan();
    for (auto _ : state) {
        benchmark::DoNotOptimize(outbox.mustQueue(ACTION_RESULT));
        outbox.onPosted("bench", PROCESSES);
    }
}
BENCHMARK(BM_SuccessfulPostEmptyOutbox)->Unit(benchmark::kNanosecond);

BENCHMARK_MAIN();

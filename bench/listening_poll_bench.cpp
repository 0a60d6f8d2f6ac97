// One poll of the listening sockets (four sock_diag dumps and the set
// comparison) with 10,000 established TCP sockets open on the host (5,000
// loopback connections, both ends; the hard limit of descriptors here is
// 20,000): the dump asks for listening and unconnected sockets only, so the cost must
// not grow with connections. Target: <= 0.2 ms CPU per poll.

#include "watch/ListeningSocketWatcher.h"

#include <benchmark/benchmark.h>

#include <QCoreApplication>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace
{
struct Connections {
    std::vector<int> fds;
    explicit Connections(int count)
    {
        rlimit lim{};
        getrlimit(RLIMIT_NOFILE, &lim);
        lim.rlim_cur = std::max<rlim_t>(lim.rlim_cur, static_cast<rlim_t>(count) * 2 + 1024);
        if (lim.rlim_max < lim.rlim_cur)
            lim.rlim_max = lim.rlim_cur;
        setrlimit(RLIMIT_NOFILE, &lim);
        const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        ::bind(listener, reinterpret_cast<sockaddr*>(&a), sizeof a);
        ::listen(listener, 4096);
        ::getsockname(listener, reinterpret_cast<sockaddr*>(&a), &len);
        for (int i = 0; i < count; ++i) {
            const int c = ::socket(AF_INET, SOCK_STREAM, 0);
            if (c < 0 || ::connect(c, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0)
                break;
            fds.push_back(c);
            const int s = ::accept(listener, nullptr, nullptr);
            if (s >= 0)
                fds.push_back(s);
        }
        fds.push_back(listener);
    }
    ~Connections()
    {
        for (int fd : fds)
            ::close(fd);
    }
};

void BM_ListeningPoll(benchmark::State& state)
{
    const Connections open(static_cast<int>(state.range(0)));
    ListeningSocketWatcher watcher(11);
    if (!watcher.start()) {
        state.SkipWithError("no sock_diag");
        return;
    }
    watcher.stop();
    for (auto _ : state)
        watcher.poll();
    state.counters["sockets_open"] = static_cast<double>(open.fds.size());
}
BENCHMARK(BM_ListeningPoll)->Arg(0)->Arg(5000)->Unit(benchmark::kMicrosecond);
} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}

// What a hop between two sleeping processes costs on this machine: the floor under any relayed
// call, whatever the code around it does.
//
// A ring of N processes passes one byte around over Unix stream socket pairs; each process
// sleeps in read() until its byte comes, writes it on and sleeps again, as the daemon's threads,
// the GUI and the HTTP client do per call. One iteration is one trip around the ring (N wake-ups).
// A bridged call is a ring of four (client, event loop, GUI, channel reader), nginx's answer a
// ring of two. BM_WakeRing/N/1 keeps the whole ring on one processor: the difference to /N/0
// is what waking a sleeping processor costs (on a virtual machine that does not poll before
// halting, a large part of a hop).

#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <vector>

#include <benchmark/benchmark.h>

namespace {

void keepToFirstProcessor() {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(0, &one);
    ::sched_setaffinity(0, sizeof one, &one);
}

// Passes bytes from `from` to `to` until `from` ends.
[[noreturn]] void forward(int from, int to) {
    char byte;
    while (::read(from, &byte, 1) == 1) {
        if (::write(to, &byte, 1) != 1) break;
    }
    ::_exit(0);
}

void BM_WakeRing(benchmark::State& state) {
    const auto members = static_cast<std::size_t>(state.range(0));
    const bool oneProcessor = state.range(1) != 0;
    // links[i] carries the byte from member i to member i + 1 (the last link back to member 0).
    std::vector<std::array<int, 2>> links(members);
    for (auto& link : links) {
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, link.data()) != 0) {
            state.SkipWithError("socketpair failed");
            return;
        }
    }
    std::vector<pid_t> children;
    for (std::size_t member = 1; member < members; ++member) {
        const pid_t child = ::fork();
        if (child == 0) {
            // Only its own two ends stay open, so that the ring ends when the parent lets go.
            const int from = links[member - 1][1];
            const int to = links[member][0];
            for (const auto& link : links) {
                for (const int end : link) {
                    if (end != from && end != to) ::close(end);
                }
            }
            if (oneProcessor) keepToFirstProcessor();
            forward(from, to);
        }
        children.push_back(child);
    }
    if (oneProcessor) keepToFirstProcessor();
    char byte = 'x';
    for (auto _ : state) {
        if (::write(links[0][0], &byte, 1) != 1 || ::read(links[members - 1][1], &byte, 1) != 1) {
            state.SkipWithError("the ring broke");
            break;
        }
    }
    for (auto& link : links) {
        ::close(link[0]);
        ::close(link[1]);
    }
    for (const pid_t child : children) ::waitpid(child, nullptr, 0);
    if (oneProcessor) {
        cpu_set_t all;
        CPU_ZERO(&all);
        for (int processor = 0; processor < CPU_SETSIZE; ++processor) CPU_SET(processor, &all);
        ::sched_setaffinity(0, sizeof all, &all);
    }
    // Hops a second; a hop's cost is the time of one iteration divided by the ring's size.
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * members));
}

}  // namespace

BENCHMARK(BM_WakeRing)->ArgsProduct({{2, 4}, {0, 1}})->UseRealTime()->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();

// Speed of the configuration tokenizer, of loading a large file and of generating it back.
//
// The "allocs" counter is the number of heap allocations per tokenized line, counted by the
// replaced global operator new below: it must stay the same as lines grow longer (the tokenizer
// allocates per line and per token, never per character).

#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <new>
#include <string>

#include "QBVPNConfiguration.h"

namespace {
std::size_t allocationCount = 0;  // benchmarks run on one thread
}  // namespace

// The replacements below pair malloc with free themselves; GCC's check cannot see that once
// they are inlined into callers of new and delete.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

void* operator new(std::size_t size) {
    ++allocationCount;
    if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

namespace {

// A line of the given length in code units: words of seven letters, one blank apart.
std::string lineOfLength(std::size_t length) {
    std::string line;
    while (line.size() < length)
        line += (line.size() % 8 == 7) ? ' ' : static_cast<char>('a' + line.size() % 8);
    return line;
}

// A line of the given length holding one long word: the token count stays 1 as it grows.
std::string wordOfLength(std::size_t length) {
    return "remote " + std::string(length - 7, 'x');
}

// A 10,000-line client profile: meta-commands, remote lines, options with quotes and comments.
std::string profileText(int lines) {
    std::string text = "# generated for the benchmark\n#lumentide name Benchmark Profile\n";
    for (int i = 2; i < lines; ++i) {
        switch (i % 5) {
            case 0:
                text += "remote vpn" + std::to_string(i) + ".example.net 1194 udp\n";
                break;
            case 1:
                text += "route 10." + std::to_string(i % 250) + ".0.0 255.255.0.0   # office\n";
                break;
            case 2:
                text += "setenv NAME \"Site " + std::to_string(i) + " \\\"main\\\"\"\n";
                break;
            case 3:
                text += "; a comment line that the loader skips\n";
                break;
            default:
                text += "#lumentide note" + std::to_string(i % 7) + " value " + std::to_string(i) +
                        "\n";
                break;
        }
    }
    return text;
}

void runParseLine(benchmark::State& state, const std::string& line) {
    const QBVPNConfiguration tokenizer;
    const std::size_t before = allocationCount;
    for (auto _ : state) benchmark::DoNotOptimize(tokenizer.parseLine(line));
    state.counters["allocs"] = benchmark::Counter(static_cast<double>(allocationCount - before),
                                                  benchmark::Counter::kAvgIterations);
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * line.size()));
    state.SetComplexityN(static_cast<std::int64_t>(line.size()));
}

void BM_ParseTypicalLine(benchmark::State& state) {
    runParseLine(state, "remote \"vpn1.office.example\" 1194 udp   # primary server");
}
BENCHMARK(BM_ParseTypicalLine);

void BM_ParseLineOfWords(benchmark::State& state) {
    runParseLine(state, lineOfLength(static_cast<std::size_t>(state.range(0))));
}
BENCHMARK(BM_ParseLineOfWords)->RangeMultiplier(4)->Range(16, 1024)->Complexity(benchmark::oN);

void BM_ParseLineOfOneLongWord(benchmark::State& state) {
    runParseLine(state, wordOfLength(static_cast<std::size_t>(state.range(0))));
}
BENCHMARK(BM_ParseLineOfOneLongWord)
    ->RangeMultiplier(4)
    ->Range(16, 1024)
    ->Complexity(benchmark::oN);

void BM_LoadText10000Lines(benchmark::State& state) {
    const std::string text = profileText(10000);
    for (auto _ : state) {
        QBVPNConfiguration document;
        document.parseRawData(text);
        benchmark::DoNotOptimize(document.getCommand("remote"));
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_LoadText10000Lines)->Unit(benchmark::kMillisecond);

void BM_LoadFile10000Lines(benchmark::State& state) {
    char path[] = "/tmp/qbconfigbench.XXXXXX";
    const int fd = ::mkstemp(path);
    if (fd < 0) {
        state.SkipWithError("cannot create a temporary file");
        return;
    }
    ::close(fd);
    const std::string text = profileText(10000);
    std::ofstream(path, std::ios::binary) << text;
    for (auto _ : state) {
        const auto document = QBVPNConfiguration::configurationWithFile(path);
        benchmark::DoNotOptimize(document->getCommand("remote"));
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
    ::unlink(path);
}
BENCHMARK(BM_LoadFile10000Lines)->Unit(benchmark::kMillisecond);

void BM_Generate10000Lines(benchmark::State& state) {
    QBVPNConfiguration document;
    document.parseRawData(profileText(10000));
    for (auto _ : state) benchmark::DoNotOptimize(document.generateRawConfigurationData());
}
BENCHMARK(BM_Generate10000Lines)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();

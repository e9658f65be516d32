// Parsing and rendering costs of the address values: how fast interface listings and
// configuration lines can be turned into QBIPAddress / QBIPNetwork objects.
#include <benchmark/benchmark.h>

#include "QBIPAddress.h"
#include "QBIPNetwork.h"

namespace {

void parseText(benchmark::State& state, const char* text) {
    for (auto _ : state) {
        QBIPAddress address(text);
        benchmark::DoNotOptimize(address);
    }
}

void BM_ParseIPv4(benchmark::State& state) { parseText(state, "192.168.100.254"); }
void BM_ParseIPv6(benchmark::State& state) { parseText(state, "2001:db8:85a3::8a2e:370:7334"); }
void BM_ParseHexNetmask(benchmark::State& state) { parseText(state, "0xffffff00"); }
void BM_ParseInvalid(benchmark::State& state) { parseText(state, "vpn.example.com"); }

void BM_RenderIPv4(benchmark::State& state) {
    const QBIPAddress address("192.168.100.254");
    for (auto _ : state) benchmark::DoNotOptimize(address.address());
}

void BM_RenderIPv6(benchmark::State& state) {
    const QBIPAddress address("2001:db8:85a3::8a2e:370:7334");
    for (auto _ : state) benchmark::DoNotOptimize(address.address());
}

void networkFromText(benchmark::State& state, const char* text) {
    for (auto _ : state) {
        QBIPNetwork network(text);
        benchmark::DoNotOptimize(network);
    }
}

void BM_NetworkFromPrefixText(benchmark::State& state) {
    networkFromText(state, "192.168.1.0/24");
}
void BM_NetworkFromMaskText(benchmark::State& state) {
    networkFromText(state, "192.168.1.0/255.255.255.0");
}
void BM_NetworkFromIPv6Text(benchmark::State& state) { networkFromText(state, "fe80::1/64"); }

}  // namespace

BENCHMARK(BM_ParseIPv4);
BENCHMARK(BM_ParseIPv6);
BENCHMARK(BM_ParseHexNetmask);
BENCHMARK(BM_ParseInvalid);
BENCHMARK(BM_RenderIPv4);
BENCHMARK(BM_RenderIPv6);
BENCHMARK(BM_NetworkFromPrefixText);
BENCHMARK(BM_NetworkFromMaskText);
BENCHMARK(BM_NetworkFromIPv6Text);

BENCHMARK_MAIN();

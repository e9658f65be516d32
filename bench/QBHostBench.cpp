// Speed of the host-name conversions: Punycode of single labels both ways, and IDNA of whole
// names (NFKC, label walk, Punycode of the non-ASCII labels).
#include <benchmark/benchmark.h>

#include <string>

#include "QBHost.h"

namespace {

const std::string germanLabel = "b\u00fccher";
const std::string japaneseLabel =
    "\u306a\u305c\u307f\u3093\u306a\u65e5\u672c\u8a9e\u3092\u8a71\u3057\u3066\u304f\u308c\u306a"
    "\u3044\u306e\u304b";
const std::string typicalName = "www.b\u00fccher-stra\u00dfe.example.de";
const std::string asciiName = "vpn-gateway-03.example.com";

void BM_PunycodeEncodeShortLabel(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(QBHost::punycodeEncodedString(germanLabel));
}
BENCHMARK(BM_PunycodeEncodeShortLabel);

void BM_PunycodeDecodeShortLabel(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(QBHost::punycodeDecodedString("bcher-kva"));
}
BENCHMARK(BM_PunycodeDecodeShortLabel);

void BM_PunycodeEncodeJapaneseLabel(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(QBHost::punycodeEncodedString(japaneseLabel));
}
BENCHMARK(BM_PunycodeEncodeJapaneseLabel);

void BM_PunycodeDecodeJapaneseLabel(benchmark::State& state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(
            QBHost::punycodeDecodedString("n8jok5ay5dzabd5bym9f0cm5685rrjetr6pdxa"));
}
BENCHMARK(BM_PunycodeDecodeJapaneseLabel);

// 64 KiB inputs crafted against the conversions: a label of distinct CJK code points (each
// one a round of the encoder) and Punycode digits that each insert a code point near the front.
std::string distinctCJKLabel() {
    std::string label;
    for (char32_t c = 0x4E00; label.size() < 65536; ++c) {
        label += static_cast<char>(0xE0 | (c >> 12));
        label += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        label += static_cast<char>(0x80 | (c & 0x3F));
    }
    return label;
}

void BM_PunycodeEncode64KiBLabel(benchmark::State& state) {
    const std::string label = distinctCJKLabel();
    for (auto _ : state) benchmark::DoNotOptimize(QBHost::punycodeEncodedString(label));
}
BENCHMARK(BM_PunycodeEncode64KiBLabel)->Unit(benchmark::kMillisecond);

void BM_PunycodeDecode64KiBDigits(benchmark::State& state) {
    const std::string digits(65536, 'b');
    for (auto _ : state) benchmark::DoNotOptimize(QBHost::punycodeDecodedString(digits));
}
BENCHMARK(BM_PunycodeDecode64KiBDigits)->Unit(benchmark::kMillisecond);

void BM_IDNAEncode64KiBLabel(benchmark::State& state) {
    const std::string name = distinctCJKLabel() + ".example";
    for (auto _ : state) benchmark::DoNotOptimize(QBHost::IDNAEncodedString(name));
}
BENCHMARK(BM_IDNAEncode64KiBLabel)->Unit(benchmark::kMillisecond);

void BM_IDNAEncodeTypicalName(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(QBHost::IDNAEncodedString(typicalName));
}
BENCHMARK(BM_IDNAEncodeTypicalName);

void BM_IDNAEncodeASCIIName(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(QBHost::IDNAEncodedString(asciiName));
}
BENCHMARK(BM_IDNAEncodeASCIIName);

void BM_IDNADecodeTypicalName(benchmark::State& state) {
    const std::string encoded = QBHost::IDNAEncodedString(typicalName);
    for (auto _ : state) benchmark::DoNotOptimize(QBHost::IDNADecodedString(encoded));
}
BENCHMARK(BM_IDNADecodeTypicalName);

}  // namespace

BENCHMARK_MAIN();

// Speed of the buffer operations on the paths the socket and the HTTP front end use.
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>
#include <vector>

#include "QBBuffer.h"

namespace {

// A typical browser request header block of about 400 bytes, ending with the blank line.
std::string httpHeaderBlock() {
    std::string block =
        "POST /vpn HTTP/1.1\r\nHost: 127.94.0.1:986\r\nConnection: keep-alive\r\n"
        "Content-Length: 312\r\nContent-Type: text/xml\r\nOrigin: https://vpn.example.com\r\n"
        "User-Agent: Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/537.36 (KHTML, like Gecko)\r\n"
        "Accept: */*\r\nAccept-Encoding: gzip, deflate, br\r\nAccept-Language: en-US,en;q=0.9\r\n"
        "Referer: https://vpn.example.com/connect\r\nSec-Fetch-Mode: cors\r\n";
    block.resize(396, 'x');
    return block + "\r\n\r\n";
}

// Append count bytes and read them back; the head moves on, so writes regularly wrap.
void BM_AppendThenRead(benchmark::State& state) {
    const auto count = state.range(0);
    const std::vector<std::uint8_t> bytes(static_cast<std::size_t>(count), 'a');
    auto buffer = QBBuffer::init();
    buffer->writeRawData(bytes.data(), 1000);  // keep head and tail off the store's start
    buffer->removeData(1000);
    for (auto _ : state) {
        if (!buffer->writeRawData(bytes.data(), count)) state.SkipWithError("write refused");
        auto out = buffer->readRawData(count);
        benchmark::DoNotOptimize(out);
    }
    state.SetBytesProcessed(state.iterations() * count);
}
BENCHMARK(BM_AppendThenRead)->Arg(16)->Arg(512)->Arg(4096)->Arg(65536);

// The socket's terminated read: one byte appended at a time, tail test after each byte.
void BM_HeaderByteByByteWithTailTest(benchmark::State& state) {
    const std::string header = httpHeaderBlock();
    auto buffer = QBBuffer::init();
    for (auto _ : state) {
        for (char c : header) {
            buffer->writeByte(c);
            if (buffer->terminatedWithBytes("\r\n\r\n", 4)) break;
        }
        auto text = buffer->readString();
        benchmark::DoNotOptimize(text);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(header.size()));
}
BENCHMARK(BM_HeaderByteByByteWithTailTest);

// Finding the end of a line in a full header block, the terminator straddling the wrap point.
void BM_TerminatorSearch(benchmark::State& state) {
    const std::string header = httpHeaderBlock();
    auto buffer = QBBuffer::initWithSize(static_cast<std::int64_t>(header.size()));
    buffer->writeRawData(header.data(), 200);
    buffer->removeData(200);
    buffer->writeString(header.substr(0, header.size() - 1));
    buffer->writeByte('|');
    for (auto _ : state) benchmark::DoNotOptimize(buffer->readDataLengthTerminatedBy('|'));
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(header.size()));
}
BENCHMARK(BM_TerminatorSearch);

// A request body taken out as text, as the HTTP front end does after reading Content-Length.
void BM_BodyAsString(benchmark::State& state) {
    const std::string body(static_cast<std::size_t>(state.range(0)), 'x');
    auto buffer = QBBuffer::initWithSize(state.range(0));
    for (auto _ : state) {
        buffer->writeString(body);
        auto text = buffer->readString();
        benchmark::DoNotOptimize(text);
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_BodyAsString)->Arg(312)->Arg(65536);

}  // namespace

BENCHMARK_MAIN();

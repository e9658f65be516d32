// Speed of the bridge server's request path, piece by piece and as a whole: the bytes of one
// request held in memory, vetted, decoded, dispatched and answered (no I/O). The load script
// bench/http_load.sh measures the server under concurrent connections.
#include <benchmark/benchmark.h>

#include <string>

#include "QBKelvoXMLRPCServer.h"

namespace {

// A browser's POST of "connectWithToken" with four parameters.
const std::string callBody =
    "<?xml "
    "version=\"1.0\"?>\r\n<methodCall>\r\n<methodName>connectWithToken</methodName>\r\n<params>\r\n"
    "<param><value><string>vpn.example.com</string></value></param>\r\n"
    "<param><value><int>443</int></value></param>\r\n"
    "<param><value><int>8080</int></value></param>\r\n"
    "<param><value><string>0123456789abcdef0123456789abcdef</string></value></param>\r\n"
    "</params>\r\n</methodCall>\r\n";

const std::string headerBlock =
    "POST /vpn HTTP/1.1\r\nHost: 127.94.0.1:986\r\nConnection: keep-alive\r\n"
    "Content-Length: " +
    std::to_string(callBody.size()) +
    "\r\nContent-Type: text/xml\r\n"
    "Origin: https://vpn.example.com\r\n"
    "User-Agent: Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/537.36 (KHTML, like Gecko)\r\n"
    "Accept: */*\r\nAccept-Encoding: gzip, deflate, br\r\nAccept-Language: en-US,en;q=0.9\r\n"
    "Referer: https://vpn.example.com/connect\r\nSec-Fetch-Mode: cors\r\n\r\n";

class Answers : public QBKelvoBridgeCommands {
public:
    bool answersAtOnce(std::string_view) const override { return true; }
    std::string clientOS() override { return "Mac OS 12.0.0"; }
    std::string clientVersion() override { return "1.0,1"; }
    std::int64_t authorizeServer(const std::string&, std::int64_t, std::int64_t) override {
        return 1;
    }
    std::string connect(const std::string&, std::int64_t, std::int64_t) override { return "ok"; }
    std::string connect(const std::string&, std::int64_t, std::int64_t,
                        const std::string&) override {
        return "ok";
    }
    std::string disconnectWithSecToken(const std::string&) override { return ""; }
    std::string suspendWithSecToken(const std::string&) override { return ""; }
    std::string resume() override { return ""; }
    std::string state() override { return "connected"; }
    std::int64_t connectionTime() override { return 42; }
    std::string connectionTimeDisplayable() override { return "00:00:42"; }
    std::string trafficRates() override { return "0,0"; }
    std::string trafficTotals() override { return "0,0"; }
};

void BM_ParseRequestHead(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(QBKelvoXMLRPCServer::parseRequestHead(headerBlock));
    }
}
BENCHMARK(BM_ParseRequestHead);

void BM_DecodeMethodCall(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(QBKelvoXMLRPCServer::decodeMethodCall(callBody));
}
BENCHMARK(BM_DecodeMethodCall);

void BM_EncodeReply(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(QBKelvoXMLRPCServer::httpReply(
            200, {}, QBKelvoXMLRPCServer::methodResponseDocument({std::string("connected")})));
    }
}
BENCHMARK(BM_EncodeReply);

// One request, from its bytes to the reply's bytes.
void requestRoundTrip(benchmark::State& state, const std::string& request) {
    auto server =
        QBKelvoXMLRPCServer::serverWithAddress(nullptr, 0, nullptr, std::make_shared<Answers>());
    for (auto _ : state) {
        auto step = server->readHTTPRequest(request, 0);
        const auto* reply = std::get_if<QBTCPEventServer::Reply>(&step);
        if (!reply || reply->consumed != request.size()) {
            state.SkipWithError("request failed");
            break;
        }
        benchmark::DoNotOptimize(reply->bytes.data());
    }
}

void BM_PostRoundTrip(benchmark::State& state) {
    requestRoundTrip(state, headerBlock + callBody);
}
BENCHMARK(BM_PostRoundTrip);

void BM_OptionsRoundTrip(benchmark::State& state) {
    requestRoundTrip(
        state,
        "OPTIONS /vpn HTTP/1.1\r\nHost: 127.94.0.1:986\r\nOrigin: https://vpn.example.com\r\n"
        "Access-Control-Request-Method: POST\r\n\r\n");
}
BENCHMARK(BM_OptionsRoundTrip);

}  // namespace

BENCHMARK_MAIN();

// Fuzz target: the bridge server's request handling (header block, request state machine, body
// reading, method-call decoding, element search) fed a byte stream in arbitrary pieces, the way
// the event server shows a connection's pending bytes after every receive.
//
// Input: one seed byte (bit 7: the commands answer at once instead of on a pool thread; the rest
// chooses the split, see Splits.h), then the stream. Checked for every input:
//  - every step consumes only bytes that were pending, and a wait for more bytes asks for more
//    than are pending;
//  - every reply is a complete status-200 response of the dialect (its Content-Length matches);
//  - each request is either answered or refused, and the outcome (replies, close) does not
//    depend on how the stream was split: it equals the outcome of the whole stream at once;
//  - the bytes not yet received are poisoned, so AddressSanitizer reports any read past what
//    was received.

#include <sanitizer/asan_interface.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "QBKelvoXMLRPCServer.h"
#include "Splits.h"

namespace {

// Answers every command at once with its arguments echoed, so the replies carry what was sent.
class EchoCommands : public QBKelvoBridgeCommands {
public:
    bool atOnce = false;
    bool answersAtOnce(std::string_view) const override { return atOnce; }
    std::string clientOS() override { return "Mac OS 12.0.0"; }
    std::string clientVersion() override { return "1.0"; }
    std::int64_t authorizeServer(const std::string&, std::int64_t port, std::int64_t) override {
        return port;
    }
    std::string connect(const std::string& server, std::int64_t, std::int64_t) override {
        return server;
    }
    std::string connect(const std::string& server, std::int64_t, std::int64_t,
                        const std::string& token) override {
        return server + token;
    }
    std::string disconnectWithSecToken(const std::string& token) override { return token; }
    std::string suspendWithSecToken(const std::string& token) override { return token; }
    std::string resume() override { return "resumed"; }
    std::string state() override { return "connected"; }
    std::int64_t connectionTime() override { return 42; }
    std::string connectionTimeDisplayable() override { return "00:00:42"; }
    std::string trafficRates() override { return "1/2"; }
    std::string trafficTotals() override { return "3/4"; }
};

struct Outcome {
    std::vector<std::string> replies;
    bool closed = false;
    bool operator==(const Outcome&) const = default;
};

void require(bool condition) {
    if (!condition) std::abort();
}

// A reply must be one whole response of the dialect: status 200 and a matching Content-Length.
void checkReply(const std::string& reply) {
    constexpr std::string_view statusLine = "HTTP/1.1 200 OK\r\n";
    require(reply.starts_with(statusLine));
    const auto blockEnd = reply.find("\r\n\r\n");
    require(blockEnd != std::string::npos);
    constexpr std::string_view lengthHeader = "\r\nContent-Length: ";
    const auto lengthAt = reply.find(lengthHeader);
    require(lengthAt != std::string::npos && lengthAt < blockEnd);
    const auto content = reply.size() - (blockEnd + 4);
    require(std::stoul(reply.substr(lengthAt + lengthHeader.size())) == content);
}

// The stream in a heap block whose bytes not yet received are poisoned, so that
// AddressSanitizer reports any read past the pending bytes (exactly at their end; a block's
// consumed front is poisoned as far as the shadow memory's 8-byte granules allow).
class ReceivedBytes {
public:
    explicit ReceivedBytes(std::string_view stream) : bytes(new char[stream.size() + 1]), size(stream.size()) {
        std::copy(stream.begin(), stream.end(), bytes.get());
        ASAN_POISON_MEMORY_REGION(bytes.get(), size + 1);
    }
    ~ReceivedBytes() { ASAN_UNPOISON_MEMORY_REGION(bytes.get(), size + 1); }
    ReceivedBytes(const ReceivedBytes&) = delete;
    ReceivedBytes& operator=(const ReceivedBytes&) = delete;

    std::string_view pending() const { return {bytes.get() + start, received - start}; }
    std::size_t unreceived() const { return size - received; }
    void receive(std::size_t count) {
        ASAN_UNPOISON_MEMORY_REGION(bytes.get() + received, count);
        received += count;
    }
    void consume(std::size_t count) {
        ASAN_POISON_MEMORY_REGION(bytes.get() + start, count);
        start += count;
    }

private:
    const std::unique_ptr<char[]> bytes;
    const std::size_t size;
    std::size_t start = 0;
    std::size_t received = 0;
};

// Plays the event server: feeds pieces of stream (Splits decides their sizes; a body read stops
// where the server asked), takes replies off the front, stops at a close or the stream's end.
Outcome serve(QBKelvoXMLRPCServer& server, std::string_view stream, Splits* splits) {
    Outcome outcome;
    ReceivedBytes bytes(stream);
    std::size_t alreadySeen = 0;
    for (;;) {
        const auto pending = bytes.pending();
        const auto step = server.readHTTPRequest(pending, alreadySeen);
        alreadySeen = 0;
        if (const auto* wait = std::get_if<QBTCPEventServer::Wait>(&step)) {
            require(wait->needed == 0 || wait->needed > pending.size());
            if (bytes.unreceived() == 0) return outcome;
            if (wait->needed == 0) alreadySeen = pending.size();
            // Like the event server: with a byte count asked for, reads stop there and the
            // server is asked again only once they are all pending (or the stream has ended).
            do {
                std::size_t piece = splits ? splits->next(bytes.unreceived()) : bytes.unreceived();
                if (wait->needed > 0) piece = std::min(piece, wait->needed - bytes.pending().size());
                bytes.receive(piece);
            } while (bytes.pending().size() < wait->needed && bytes.unreceived() > 0);
        } else if (const auto* reply = std::get_if<QBTCPEventServer::Reply>(&step)) {
            require(reply->consumed > 0 && reply->consumed <= pending.size());
            checkReply(reply->bytes);
            outcome.replies.push_back(reply->bytes);
            bytes.consume(reply->consumed);
        } else if (const auto* offload = std::get_if<QBTCPEventServer::Offload>(&step)) {
            require(offload->consumed > 0 && offload->consumed <= pending.size());
            const auto answer = offload->work();
            if (!answer) {
                outcome.closed = true;
                return outcome;
            }
            checkReply(*answer);
            outcome.replies.push_back(*answer);
            bytes.consume(offload->consumed);
        } else {
            outcome.closed = true;
            return outcome;
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const auto commands = std::make_shared<EchoCommands>();
    static const auto server = QBKelvoXMLRPCServer::serverWithAddress(
        QBIPAddress::ipAddressWithAddress("127.0.0.1"), 0, nullptr, commands);
    if (size == 0) return 0;
    commands->atOnce = (data[0] & 0x80) != 0;
    Splits splits(data[0]);
    const std::string_view stream(reinterpret_cast<const char*>(data + 1), size - 1);
    require(serve(*server, stream, &splits) == serve(*server, stream, nullptr));
    return 0;
}

#pragma once
// QBKelvoXMLRPCServer: the small HTTP server through which a web page in the user's browser
// reaches the service, and the XML-RPC layer on top of it.
//
// It speaks a narrow dialect of HTTP/1.1: methods POST and OPTIONS, the path "/vpn", a body
// only with a "Content-Length" of 1 to 65536 bytes that begins with an XML declaration. An
// OPTIONS request gets the CORS preflight answer; a POST body is an XML-RPC method call whose
// method name selects one of the bridge commands (QBKelvoBridgeCommands), and the command's
// result is written back as a method response. The only status ever sent is 200. Everything
// outside the dialect, an undecodable call or an unknown method closes the connection without
// any reply. Connections are persistent: the reply carries no Connection header and the next
// request is read from the same connection.
//
// The XML is not parsed as XML: each element is what the pattern "<tag>(.+?)</tag>" finds
// ("." matching line ends too), and its text is taken unchanged, entities included.
//
// Serving: a QBTCPEventServer reads the connections on a few event-loop threads and shows this
// server each connection's received bytes (readHTTPRequest). A preflight, and a call whose command
// answers at once, is answered on the loop thread. A call whose command may wait (for the GUI
// application) is deferred: the commands' startCommand may start it without a thread (a GUI
// client is connected now) and the reply is written when its result comes; otherwise it runs on
// a pool thread. Either way the connection is read again only after its reply. Which method a
// name selects, and how its parameters become arguments, is the method table's
// (QBKelvoBridgeCommands::methods()).
//
// Bounds a page cannot get around (see Settings): a connection idle between requests, or with
// an unfinished header block, is closed after a time-out; a header block is at most
// maxHeaderBlockLength bytes; a body must arrive within a time-out; connections and pool threads
// are limited as QBTCPEventServer::Limits says.
//
// Invariants: every field is set at creation and only read afterwards.
// Threads: serve() runs on the calling thread (and starts the loop threads); shutdown() and
// connectionCount() may be called from any thread. The request operations keep no state between
// calls and run on several threads at once.
//
//   auto server = QBKelvoXMLRPCServer::serverWithAddress(address, 986, channel, commands);
//   std::thread loop([&] { server->serve(); });
//   ...
//   server->shutdown();
//   loop.join();

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "QBIPAddress.h"
#include "QBKelvoBridgeCommands.h"
#include "QBTCPEventServer.h"
#include "QBTCPSocket.h"

class QBLumentideIPC;

class QBKelvoXMLRPCServer : public QBTCPEventServer::Protocol {
public:
    // An XML-RPC parameter or result: a string, or an integer (int elements hold 32 bits).
    using Value = QBKelvoBridgeCommands::Result;
    using Headers = std::map<std::string, std::string>;

    using Step = QBTCPEventServer::Step;

    // Longest request body accepted, in bytes.
    static constexpr std::int64_t maxBodyLength = 65536;
    // Longest header block accepted, terminator included: the size of a default byte buffer.
    static constexpr std::size_t maxHeaderBlockLength =
        static_cast<std::size_t>(QBBuffer::defaultSize);

    struct Settings {
        // A connection that starts no request for this long is closed, so a silent peer never
        // holds a connection for ever. Longer than browsers keep idle connections open.
        std::chrono::milliseconds idleTimeout{60000};
        // From a request's first byte to the end of its header block. A browser sends its
        // header block at once; a peer trickling bytes to hold a connection is cut off.
        std::chrono::milliseconds headerBlockTimeout{10000};
        // From the end of the header block until the whole body has arrived. Clients may send
        // the body in a later segment (curl waits up to a second for "100 Continue" first).
        std::chrono::milliseconds bodyTimeout{5000};
        QBTCPEventServer::Limits serving{};
    };

    // The parts of a request's header block that the server looks at; views into the block.
    struct RequestHead {
        std::vector<std::string_view> requestLine;  // first line split at every white space
        // (name, value) of every header line with a colon, in order: the name trimmed of white
        // space, the value everything after the first colon, untrimmed.
        std::vector<std::pair<std::string_view, std::string_view>> headers;
        // Value of the last header named exactly name (a later line replaces an earlier one).
        std::optional<std::string_view> header(std::string_view name) const;
    };

    struct MethodCall {
        std::string name;
        std::vector<Value> params;
    };

    // A server for address and port that relays calls to bridgeCommands (null: every method
    // is unknown) and holds channel for the commands' use.
    static std::shared_ptr<QBKelvoXMLRPCServer> serverWithAddress(
        std::shared_ptr<QBIPAddress> address, std::int32_t andPort,
        std::shared_ptr<QBLumentideIPC> andIPC,
        std::shared_ptr<QBKelvoBridgeCommands> bridgeCommands = nullptr);
    static std::shared_ptr<QBKelvoXMLRPCServer> serverWithAddress(
        std::shared_ptr<QBIPAddress> address, std::int32_t andPort,
        std::shared_ptr<QBLumentideIPC> andIPC,
        std::shared_ptr<QBKelvoBridgeCommands> bridgeCommands, const Settings& settings);

    // serverWithAddress is the usual way to make one.
    QBKelvoXMLRPCServer(std::shared_ptr<QBIPAddress> address, std::int32_t andPort,
                        std::shared_ptr<QBLumentideIPC> andIPC,
                        std::shared_ptr<QBKelvoBridgeCommands> bridgeCommands,
                        const Settings& settings);

    // Listens and serves on the calling thread; returns after shutdown() (once every command in
    // progress has finished), or at once when the address and port cannot be listened on.
    void serve();
    // Asks serve() to return; returns at once. Any thread.
    void shutdown();
    // Connections open now.
    std::size_t connectionCount() const { return eventServer.connectionCount(); }

    // Logs "Client connected" for a newly accepted connection.
    void clientConnected() override;
    // What to do with a connection's received bytes: wait for the rest of a request, answer
    // it, run its command on a pool thread, or close the connection (anything outside the
    // dialect). alreadySeen bytes were pending at the previous look at the same request.
    Step readHTTPRequest(std::string_view pending, std::size_t alreadySeen);
    Step nextStep(std::string_view pending, std::size_t alreadySeen) override {
        return readHTTPRequest(pending, alreadySeen);
    }
    // Decodes a method call and answers it (consuming consumed bytes): at once when its
    // command answers at once, otherwise deferred (started without a thread, or on a pool
    // thread). Close when the call cannot be decoded or names no known method.
    Step processXMLRPCRequest(std::string_view body, std::size_t consumed);
    // Calls the command the name selects; nullopt for an unknown name (or no commands).
    std::optional<Value> performXMLMethod(const std::string& name,
                                          const std::vector<Value>& withParams);
    // The HTTP reply (status 200) carrying values as a method response.
    static std::string methodResponseReply(const std::vector<Value>& values);

    // Plain-text pieces of the above, for tests and fuzzers.
    // Content of the first element named tag; nullopt when there is none (or it is empty).
    static std::optional<std::string> getXMLTag(std::string_view tag, std::string_view inData);
    // Contents of all such elements, in order; empty when there is none.
    static std::vector<std::string> getAllXMLTags(std::string_view tag, std::string_view inData);
    // Method name and parameters of a call; nullopt without methodCall or methodName content.
    static std::optional<MethodCall> decodeMethodCall(std::string_view body);
    // Splits a header block; the result refers to headerBlock, which must outlive it.
    static RequestHead parseRequestHead(std::string_view headerBlock);
    static std::string methodResponseDocument(const std::vector<Value>& values);
    // One complete HTTP response: the status line, the given headers with the six fixed ones
    // set over them, an empty line and the content.
    static std::string httpReply(std::int32_t status, const Headers& headers,
                                 std::string_view content);
    // Reason phrase of a status of the reason table; empty for any other status.
    static std::string_view reasonPhrase(std::int32_t status);

    std::shared_ptr<QBIPAddress> address() const { return _address; }
    std::int32_t port() const { return _port; }
    std::shared_ptr<QBTCPSocket> serverSocket() const { return _serverSocket; }
    const Settings& settings() const { return _settings; }

private:
    Step answerPost(const RequestHead& head, std::string_view pending, std::size_t blockLength);

    const std::shared_ptr<QBIPAddress> _address;
    const std::int32_t _port;
    const std::vector<std::string> allowedPaths;
    const std::vector<std::string> allowedMethods;
    // The channel the service's bridge commands reach the GUI through; held, not used, here.
    const std::shared_ptr<QBLumentideIPC> lumentideIPC;
    const std::shared_ptr<QBKelvoBridgeCommands> bridgeCommands;
    const std::shared_ptr<QBTCPSocket> _serverSocket;
    const Settings _settings;
    QBTCPEventServer eventServer;
};

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
// The XML is not parsed as XML: each element is found by the pattern "<tag>(.+?)</tag>"
// (ICU, "." matching line ends too) and its text is taken unchanged, entities included.
//
// Bounds a page cannot get around (see Settings): a connection idle between requests, or with
// an unfinished header block, is closed after a time-out; a header block is at most
// QBTCPSocket::maxMessageLength bytes; a body must arrive within a time-out; connection threads
// are limited as QBTCPSocket::ServerLimits says.
//
// Invariants: every field is set at creation and only read afterwards.
// Threads: serve() runs the accept loop on the calling thread; shutdown() may be called from any
// thread; each connection is served on a thread of its own, so the request operations run on
// several threads at once and keep no state between calls.
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
#include "QBTCPSocket.h"

class QBLumentideIPC;

class QBKelvoXMLRPCServer : public QBTCPSocketServerDelegate,
                            public std::enable_shared_from_this<QBKelvoXMLRPCServer> {
public:
    // An XML-RPC parameter or result: a string, or an integer (int elements hold 32 bits).
    using Value = std::variant<std::string, std::int64_t>;
    using Headers = std::map<std::string, std::string>;

    // Longest request body accepted, in bytes.
    static constexpr std::int64_t maxBodyLength = 65536;

    struct Settings {
        // A connection that starts no request for this long is closed, so a silent peer never
        // holds a connection thread for ever. Longer than browsers keep idle connections open.
        std::chrono::milliseconds idleTimeout{60000};
        // From a request's first byte to the end of its header block. A browser sends its
        // header block at once; a peer trickling bytes to hold a thread is cut off.
        std::chrono::milliseconds headerBlockTimeout{10000};
        // From the end of the header block until the whole body has arrived. Clients may send
        // the body in a later segment (curl waits up to a second for "100 Continue" first).
        std::chrono::milliseconds bodyTimeout{5000};
        QBTCPSocket::ServerLimits connectionLimits{};
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

    // Use serverWithAddress: serve() needs the server to be owned by a shared_ptr.
    QBKelvoXMLRPCServer(std::shared_ptr<QBIPAddress> address, std::int32_t andPort,
                        std::shared_ptr<QBLumentideIPC> andIPC,
                        std::shared_ptr<QBKelvoBridgeCommands> bridgeCommands,
                        const Settings& settings);

    // Runs the accept loop on the calling thread; returns after shutdown(), or at once when the
    // address and port cannot be listened on.
    void serve();
    // Asks serve() to return; returns at once. Any thread.
    void shutdown();

    // Serves one accepted connection, request after request, until it ends; then closes it.
    void clientConnected(std::shared_ptr<QBTCPSocket> connection) override;
    // Reads, vets and answers one request. True when it was answered and the connection stays
    // open; false when the connection must be closed.
    bool readHTTPRequest(QBTCPSocket& connection);
    // Writes one complete HTTP response: the status line, the given headers with the six fixed
    // ones set over them, an empty line and the content. A failed send is not reported.
    void sendHTTPReplyWithStatus(std::int32_t status, const Headers& withHeaders,
                                 std::string_view withContent, QBTCPSocket& toSocket);
    // Decodes a method call, runs its command and sends the response. False (nothing sent) when
    // the call cannot be decoded or names no known method.
    bool processXMLRPCRequest(std::string_view body, QBTCPSocket& forSocket);
    // Calls the command the name selects; nullopt for an unknown name (or no commands).
    std::optional<Value> performXMLMethod(const std::string& name,
                                          const std::vector<Value>& withParams);
    // Writes values as a method response with status 200.
    void sendXMLRPCMethodResponse(const std::vector<Value>& values, QBTCPSocket& toSocket);

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
    static std::string httpReply(std::int32_t status, const Headers& headers,
                                 std::string_view content);
    // Reason phrase of a status of the reason table; empty for any other status.
    static std::string_view reasonPhrase(std::int32_t status);

    std::shared_ptr<QBIPAddress> address() const { return _address; }
    std::int32_t port() const { return _port; }
    std::shared_ptr<QBLumentideIPC> lumentideIPC() const { return lumentideIPC_; }
    std::shared_ptr<QBKelvoBridgeCommands> bridgeCommands() const { return bridgeCommands_; }
    std::shared_ptr<QBTCPSocket> serverSocket() const { return _serverSocket; }
    const Settings& settings() const { return settings_; }

private:
    bool answerPost(const RequestHead& head, QBTCPSocket& connection);

    const std::shared_ptr<QBIPAddress> _address;
    const std::int32_t _port;
    const std::vector<std::string> allowedPaths;
    const std::vector<std::string> allowedMethods;
    const std::shared_ptr<QBLumentideIPC> lumentideIPC_;  // held for the commands; not used here
    const std::shared_ptr<QBKelvoBridgeCommands> bridgeCommands_;
    const std::shared_ptr<QBTCPSocket> _serverSocket;
    const Settings settings_;
};

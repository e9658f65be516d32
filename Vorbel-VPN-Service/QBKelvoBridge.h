#pragma once
// QBKelvoBridge: the thirteen bridge commands, relayed to the GUI application over the message
// channel. The one implementation of QBKelvoBridgeCommands that the service uses; both bridge
// servers share one.
//
// A relayed command checks its arguments (a rejected one gives the command's default at once:
// nothing is sent and nothing is launched), makes sure that a GUI client is connected (starting
// the application and waiting for it when none is, see QBKelvoGUIApplication), sends a
// "serviceCmd" message whose content names the command and its arguments to the first connected
// client, waits for its reply and takes the answer under "result" ("version" for clientVersion)
// when it has the expected type. A JSON string counts where a string is expected; a JSON number or
// boolean (true 1, false 0) where a number is, a fractional number cut toward zero and values
// beyond 64 bits clamped. Anything else, no reply, or a GUI that goes away gives the default.
// clientOS answers at once from the operating-system version and never involves the GUI.
//
// Threads: every command may run on any thread, several at once; each waits on its own request.
// No lock is held here: the channel and the application object do their own locking.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "QBKelvoBridgeCommands.h"

class QBKelvoGUIApplication;
class QBLumentideIPC;

class QBKelvoBridge : public QBKelvoBridgeCommands {
public:
    // The message command that carries every bridge command.
    static constexpr const char* serviceCommand = "serviceCmd";
    // Longest security token, in UTF-16 code units.
    static constexpr std::size_t maximumTokenLength = 256;
    static constexpr std::int64_t lowestPort = 1;
    static constexpr std::int64_t highestPort = 65535;
    // clientVersion's answer when neither the GUI nor the installed application tells one.
    static constexpr const char* unknownVersion = "0.0.0,0";

    QBKelvoBridge(std::shared_ptr<QBLumentideIPC> channel,
                  std::shared_ptr<QBKelvoGUIApplication> application);

    bool answersAtOnce(std::string_view method) const override { return method == "clientOS"; }

    std::string clientOS() override;
    std::string clientVersion() override;
    std::int64_t authorizeServer(const std::string& server, std::int64_t port,
                                 std::int64_t webPort) override;
    std::string connect(const std::string& server, std::int64_t port,
                        std::int64_t webPort) override;
    std::string connect(const std::string& server, std::int64_t port, std::int64_t webPort,
                        const std::string& secToken) override;
    std::string disconnectWithSecToken(const std::string& secToken) override;
    std::string suspendWithSecToken(const std::string& secToken) override;
    std::string resume() override;
    std::string state() override;
    std::int64_t connectionTime() override;
    std::string connectionTimeDisplayable() override;
    std::string trafficRates() override;
    std::string trafficTotals() override;

    // The answer under key when it is a string; nullopt otherwise (also without an answer).
    static std::optional<std::string> stringAnswer(const std::optional<nlohmann::json>& answer,
                                                   const char* key);
    // The answer under key when it is a number or a boolean; nullopt otherwise.
    static std::optional<std::int64_t> numberAnswer(const std::optional<nlohmann::json>& answer,
                                                    const char* key);

private:
    // Makes sure that a GUI client is connected (launching when allowed) and sends content to
    // the first client; its reply's content, or nullopt.
    std::optional<nlohmann::json> relay(const nlohmann::json& content, bool launchAllowed = true);
    // Server and ports as the connect-like commands need them.
    static bool acceptsServer(const std::string& server, std::int64_t port, std::int64_t webPort);
    static nlohmann::json serverContent(const char* command, const std::string& server,
                                        std::int64_t port, std::int64_t webPort);
    // A token as disconnect and suspend send it: the empty string in place of one too long.
    static std::string boundedToken(const std::string& token);

    const std::shared_ptr<QBLumentideIPC> channel;
    const std::shared_ptr<QBKelvoGUIApplication> application;
};

#pragma once
// QBKelvoBridge: the thirteen bridge commands, relayed to the GUI application over the message
// channel. The one implementation of QBKelvoBridgeCommands that the service uses; both bridge
// servers share one.
//
// Every command follows its entry of the method table (QBKelvoBridgeCommands::methods()). A
// relayed command checks its arguments (a rejected one gives the command's default at once:
// nothing is sent and nothing is launched), makes sure that a GUI client is connected (starting
// the application and waiting for it when none is and the entry allows a launch, see
// QBKelvoGUIApplication), sends a "serviceCmd" message whose content names the command and its
// arguments to the first connected client, waits for its reply and takes the answer under the
// entry's answer key when it has the expected type. A JSON string counts where a string is expected; a JSON number or
// boolean (true 1, false 0) where a number is, a fractional number cut toward zero and values
// beyond 64 bits clamped. Anything else, no reply, or a GUI that goes away gives the default.
// clientOS answers at once from the operating-system version and never involves the GUI.
//
// A relayed command runs either whole on the calling thread (perform: it may launch the GUI and
// wait), or, when a GUI client is connected, is started by startCommand on an event-loop thread
// and finished by the channel thread that reads the GUI's answer, holding no thread meanwhile.
//
// Threads: every command may run on any thread, several at once; each waits on its own request.
// No lock is held here: the channel and the application object do their own locking. The bridge
// must outlive the answers of the commands it started (the bridge servers hold it).

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "QBKelvoBridgeCommands.h"

class QBKelvoGUIApplication;
class QBLumentideIPC;

class QBKelvoBridge : public QBKelvoBridgeCommands {
public:
    // The message command that carries every bridge command.
    static constexpr const char* serviceCommand = "serviceCmd";

    QBKelvoBridge(std::shared_ptr<QBLumentideIPC> channel,
                  std::shared_ptr<QBKelvoGUIApplication> application);

    // Starts a relayed command without waiting when a GUI client is connected now, and answers a
    // rejected argument at once; false otherwise (clientOS, an unknown name, no GUI client).
    bool startCommand(std::string_view method, const Arguments& arguments,
                      const Finish& finish) override;

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
                                                   std::string_view key);
    // The answer under key when it is a number or a boolean; nullopt otherwise.
    static std::optional<std::int64_t> numberAnswer(const std::optional<nlohmann::json>& answer,
                                                    std::string_view key);

private:
    // The content to send for the arguments; nullopt when an argument is rejected.
    static std::optional<nlohmann::json> contentFor(const Method& method,
                                                    const Arguments& arguments);
    // The command's result from the GUI's answer (nullopt: none came).
    Result resultFrom(const Method& method, const std::optional<nlohmann::json>& answer) const;
    // The whole command on the calling thread, waiting for the GUI (and launching it) as needed.
    Result perform(MethodId id, const Arguments& arguments);

    const std::shared_ptr<QBLumentideIPC> channel;
    const std::shared_ptr<QBKelvoGUIApplication> application;
};

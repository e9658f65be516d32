#include "VorbelVPNService.h"

#include <systemd/sd-daemon.h>

#include <chrono>
#include <thread>

#include "QBKelvoBridge.h"
#include "QBKelvoXMLRPCServer.h"
#include "QBLumentideIPC.h"
#include "platform/QBChildProcess.h"
#include "platform/QBText.h"

namespace {

// Bound on waiting for the channel's threads at stop: they only have to notice the wake-up and
// close descriptors, so this is generous; a stuck GUI reader must not keep the daemon alive.
constexpr std::chrono::seconds channelTeardownTimeout{5};

// A child's output as lines split at "\n" alone; nullopt when it is not UTF-8.
std::optional<std::vector<std::string>> linesOf(const std::string& output) {
    if (!QBText::isValidUTF8(output)) return std::nullopt;
    std::vector<std::string> lines;
    std::size_t start = 0;
    for (auto end = output.find('\n'); end != std::string::npos; end = output.find('\n', start)) {
        lines.push_back(output.substr(start, end - start));
        start = end + 1;
    }
    lines.push_back(output.substr(start));
    return lines;
}

}  // namespace

VorbelVPNService::VorbelVPNService(Settings settings)
    : _settings(std::move(settings)),
      _address1(QBIPAddress::ipAddressWithAddress(_settings.address1)),
      _address2(QBIPAddress::ipAddressWithAddress(_settings.address2)),
      _port(_settings.port) {}

VorbelVPNService::~VorbelVPNService() = default;

void VorbelVPNService::startService() {
    addIPAlias();

    // Under socket activation the service manager owns the socket file (its mode, its removal).
    const bool socketPassed = sd_listen_fds(0) > 0;
    auto channel = QBLumentideIPC::initWithSocketPath(_settings.channelSocketPath, socketPassed);
    setLumentideIPC(channel);
    channel->startServerOnThread();

    // One bridge for both servers: a launch of the GUI application in flight is shared by the
    // requests of both addresses.
    auto bridge = std::make_shared<QBKelvoBridge>(
        channel, std::make_shared<QBKelvoGUIApplication>(channel, _settings.guiApplication));
    const auto listeningPort = static_cast<std::int32_t>(port());
    auto server1 =
        QBKelvoXMLRPCServer::serverWithAddress(address1(), listeningPort, channel, bridge);
    setXmlRpcServer1(server1);
    auto server2 =
        QBKelvoXMLRPCServer::serverWithAddress(address2(), listeningPort, channel, bridge);
    setXmlRpcServer2(server2);

    // A stop that came while the parts above were being made found some of them unset; stop
    // them now so that the service still ends. (stopService sets the flag before it reads the
    // properties, and the properties are set before the flag is read here, so between the two
    // every part is stopped at least once; a second shutdown has no effect.)
    if (stopRequested.load()) {
        server1->shutdown();
        server2->shutdown();
        channel->shutdown();
        channel->waitForThreads(channelTeardownTimeout);
        removeIPAlias();  // the stop may have looked before addIPAlias had set the flag
    }

    // The second server is served on this thread: when no thread can be started, the
    // exception leaves before anything is running that would have to be joined.
    std::thread serving1([server1] { server1->serve(); });
    server2->serve();
    serving1.join();
}

void VorbelVPNService::stopService() {
    stopRequested.store(true);
    if (auto server = xmlRpcServer1()) server->shutdown();
    if (auto server = xmlRpcServer2()) server->shutdown();
    if (auto channel = lumentideIPC()) {
        channel->shutdown();
        // The channel tears down on its own threads (closing its clients and removing the
        // socket file); the stop is complete, and the process may end, only after that.
        channel->waitForThreads(channelTeardownTimeout);
    }
    removeIPAlias();
}

void VorbelVPNService::addIPAlias() {
    const auto address = address1();
    const auto text = address ? address->address() : std::nullopt;
    if (text && getIfconfigData(_settings.aliasInterface).listsIPv4Address(*text)) return;
    runTask(_settings.interfaceTool, _settings.addAliasArguments);
    setIpAliasAdded(true);
}

void VorbelVPNService::removeIPAlias() {
    if (ipAliasAdded()) runTask(_settings.interfaceTool, _settings.removeAliasArguments);
}

std::int32_t VorbelVPNService::runTask(const std::string& program,
                                       const std::optional<std::vector<std::string>>& arguments,
                                       std::optional<std::vector<std::string>>* output,
                                       const std::optional<std::string>& workingDirectory) {
    QBChildProcess::Options options;
    options.workingDirectory = workingDirectory;
    const auto result =
        QBChildProcess::run(program, arguments.value_or(std::vector<std::string>{}), options);
    if (output != nullptr) *output = linesOf(result.output);
    return result.status;
}

std::int32_t VorbelVPNService::runTask(const std::string& program,
                                       const std::optional<std::vector<std::string>>& arguments) {
    return runTask(program, arguments, nullptr, std::nullopt);
}

QBInterfaceData VorbelVPNService::getIfconfigData(const std::string& interfaceName) {
    auto arguments = _settings.inspectArguments;
    arguments.push_back(interfaceName);
    return QBInterfaceData::parse(QBChildProcess::run(_settings.interfaceTool, arguments).output);
}

#define QB_ATOMIC_PROPERTY(Type, getter, setter, field)   \
    Type VorbelVPNService::getter() const {               \
        QBMutexLock guard(propertyLock);                  \
        return field;                                     \
    }                                                     \
    void VorbelVPNService::setter(Type value) {           \
        QBMutexLock guard(propertyLock);                  \
        field = std::move(value);                         \
    }

QB_ATOMIC_PROPERTY(std::shared_ptr<QBKelvoXMLRPCServer>, xmlRpcServer1, setXmlRpcServer1, _xmlRpcServer1)
QB_ATOMIC_PROPERTY(std::shared_ptr<QBKelvoXMLRPCServer>, xmlRpcServer2, setXmlRpcServer2, _xmlRpcServer2)
QB_ATOMIC_PROPERTY(bool, ipAliasAdded, setIpAliasAdded, _ipAliasAdded)
QB_ATOMIC_PROPERTY(std::shared_ptr<QBIPAddress>, address1, setAddress1, _address1)
QB_ATOMIC_PROPERTY(std::shared_ptr<QBIPAddress>, address2, setAddress2, _address2)
QB_ATOMIC_PROPERTY(std::int64_t, port, setPort, _port)
QB_ATOMIC_PROPERTY(std::shared_ptr<QBLumentideIPC>, lumentideIPC, setLumentideIPC, _lumentideIPC)

#undef QB_ATOMIC_PROPERTY

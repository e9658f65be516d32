#pragma once
// VorbelVPNService: the daemon's service object. It owns the loopback alias, the GUI message
// channel (server end) and the two bridge servers, and runs the start and stop sequences.
//
// The alias (address1 as a host address on lo) is made and inspected by running the interface
// tool (iproute2's ip) as a child: added at start unless the tool already lists it, removed at
// stop only when this service added it. The channel's socket comes from the service manager when
// it passed one (socket activation, name "MasterSocket"); otherwise the service binds the path.
//
// Lifecycle: Created -> startService() (Starting, then Serving while both bridge servers'
// accept loops run) -> stopService() from a signal handler thread (Stopping) -> startService()
// returns when both servers have stopped serving (Ended).
//
// Threads: startService() runs on the main thread and blocks. stopService() may run on any
// thread, concurrently with startService() and with itself. All seven properties are atomic:
// each read or write takes propertyLock briefly and hands out whole shared_ptr values; no other
// lock is ever taken while it is held.

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "QBIPAddress.h"
#include "QBInterfaceData.h"
#include "QBKelvoGUIApplication.h"
#include "QBMutex.h"

class QBKelvoXMLRPCServer;
class QBLumentideIPC;

class VorbelVPNService {
public:
    // Every setting of the daemon. The binary uses the defaults; tests pass others (ephemeral
    // ports, temporary socket paths) without any switch in the shipped program.
    struct Settings {
        std::string address1 = "127.94.0.1";
        std::string address2 = "127.0.0.1";
        std::int64_t port = 986;
        std::string channelSocketPath = "/var/run/com.kelvo.TunnelwrightService.socket";
        // The GUI application: where it is installed, who the console user is, how it starts.
        QBKelvoGUIApplication::Settings guiApplication{};
        // The interface tool and its command lines (no shell): inspection gets the interface
        // name appended; the alias is added to and removed from aliasInterface.
        std::string interfaceTool = "/sbin/ip";
        std::vector<std::string> inspectArguments = {"-o", "address", "show", "dev"};
        std::string aliasInterface = "lo";
        std::vector<std::string> addAliasArguments = {"address", "add", "127.94.0.1/32",
                                                      "dev", "lo"};
        std::vector<std::string> removeAliasArguments = {"address", "del", "127.94.0.1/32",
                                                         "dev", "lo"};
    };

    VorbelVPNService() : VorbelVPNService(Settings{}) {}
    explicit VorbelVPNService(Settings settings);
    ~VorbelVPNService();
    VorbelVPNService(const VorbelVPNService&) = delete;
    VorbelVPNService& operator=(const VorbelVPNService&) = delete;

    // Runs the start sequence, then blocks until both bridge servers have returned from serve.
    void startService();
    // Runs the stop sequence. Safe to call more than once and from several threads at once.
    void stopService();

    // Adds the alias unless the interface already lists address1; sets ipAliasAdded once the
    // add command has been run, whatever its outcome.
    void addIPAlias();
    // Runs the remove command when ipAliasAdded is set (at every call; the flag stays set).
    void removeIPAlias();
    // Runs program with arguments as a child and returns its exit status (QBChildProcess::
    // notStarted when it could not be started). When output is given, it receives the child's
    // standard output and error as lines split at "\n" (a trailing "\n" gives a last, empty
    // line), or nullopt when those bytes are not UTF-8.
    std::int32_t runTask(const std::string& program,
                         const std::optional<std::vector<std::string>>& arguments,
                         std::optional<std::vector<std::string>>* output,
                         const std::optional<std::string>& workingDirectory);
    std::int32_t runTask(const std::string& program,
                         const std::optional<std::vector<std::string>>& arguments);
    // What the interface tool lists for interfaceName; empty data when it cannot be run.
    QBInterfaceData getIfconfigData(const std::string& interfaceName);

    std::shared_ptr<QBKelvoXMLRPCServer> xmlRpcServer1() const;
    void setXmlRpcServer1(std::shared_ptr<QBKelvoXMLRPCServer> server);
    std::shared_ptr<QBKelvoXMLRPCServer> xmlRpcServer2() const;
    void setXmlRpcServer2(std::shared_ptr<QBKelvoXMLRPCServer> server);
    bool ipAliasAdded() const;
    void setIpAliasAdded(bool added);
    std::shared_ptr<QBIPAddress> address1() const;
    void setAddress1(std::shared_ptr<QBIPAddress> address);
    std::shared_ptr<QBIPAddress> address2() const;
    void setAddress2(std::shared_ptr<QBIPAddress> address);
    std::int64_t port() const;
    void setPort(std::int64_t port);
    std::shared_ptr<QBLumentideIPC> lumentideIPC() const;
    void setLumentideIPC(std::shared_ptr<QBLumentideIPC> channel);

    const Settings& settings() const { return _settings; }

private:
    const Settings _settings;

    // Guards the seven properties below. A leaf lock: held only to copy a value in or out.
    mutable QBMutex propertyLock;
    std::shared_ptr<QBKelvoXMLRPCServer> _xmlRpcServer1 QB_GUARDED_BY(propertyLock);
    std::shared_ptr<QBKelvoXMLRPCServer> _xmlRpcServer2 QB_GUARDED_BY(propertyLock);
    bool _ipAliasAdded QB_GUARDED_BY(propertyLock) = false;
    std::shared_ptr<QBIPAddress> _address1 QB_GUARDED_BY(propertyLock);
    std::shared_ptr<QBIPAddress> _address2 QB_GUARDED_BY(propertyLock);
    std::int64_t _port QB_GUARDED_BY(propertyLock) = 0;
    std::shared_ptr<QBLumentideIPC> _lumentideIPC QB_GUARDED_BY(propertyLock);

    // Set by the first stopService(); a start still in progress then stops what it creates.
    std::atomic<bool> stopRequested{false};
};

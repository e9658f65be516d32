#pragma once
// VorbelVPNService: the daemon's service object. It owns the loopback alias, the GUI message
// channel (server end) and the two bridge servers, and runs the start and stop sequences.
//
// Lifecycle: Created -> startService() (Starting, then Serving while both bridge servers'
// accept loops run) -> stopService() from a signal handler thread (Stopping) -> startService()
// returns when both servers have stopped serving (Ended).
//
// Threads: startService() runs on the main thread and blocks. stopService() may run on any
// thread, concurrently with startService() and with itself. All seven properties are atomic:
// each read or write takes propertyLock briefly and hands out whole shared_ptr values.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "QBIPAddress.h"
#include "QBKelvoGUIApplication.h"

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

    const Settings& settings() const { return settings_; }

private:
    const Settings settings_;

    mutable std::mutex propertyLock;  // guards the seven properties below; leaf lock
    std::shared_ptr<QBKelvoXMLRPCServer> xmlRpcServer1_;
    std::shared_ptr<QBKelvoXMLRPCServer> xmlRpcServer2_;
    bool ipAliasAdded_ = false;
    std::shared_ptr<QBIPAddress> address1_;
    std::shared_ptr<QBIPAddress> address2_;
    std::int64_t port_ = 0;
    std::shared_ptr<QBLumentideIPC> lumentideIPC_;

    // Set by the first stopService(); a start still in progress then stops what it creates.
    std::atomic<bool> stopRequested{false};
};

#include "VorbelVPNService.h"

VorbelVPNService::VorbelVPNService(Settings settings)
    : settings_(std::move(settings)),
      address1_(QBIPAddress::ipAddressWithAddress(settings_.address1)),
      address2_(QBIPAddress::ipAddressWithAddress(settings_.address2)),
      port_(settings_.port) {}

VorbelVPNService::~VorbelVPNService() = default;

void VorbelVPNService::startService() {
    // The bridge servers and the channel join this sequence as they are built; until then there
    // is nothing to serve and the start returns at once.
}

void VorbelVPNService::stopService() {
    stopRequested.store(true);
}

#define QB_ATOMIC_PROPERTY(Type, getter, setter, field)   \
    Type VorbelVPNService::getter() const {               \
        std::lock_guard guard(propertyLock);              \
        return field;                                     \
    }                                                     \
    void VorbelVPNService::setter(Type value) {           \
        std::lock_guard guard(propertyLock);              \
        field = std::move(value);                         \
    }

QB_ATOMIC_PROPERTY(std::shared_ptr<QBKelvoXMLRPCServer>, xmlRpcServer1, setXmlRpcServer1, xmlRpcServer1_)
QB_ATOMIC_PROPERTY(std::shared_ptr<QBKelvoXMLRPCServer>, xmlRpcServer2, setXmlRpcServer2, xmlRpcServer2_)
QB_ATOMIC_PROPERTY(bool, ipAliasAdded, setIpAliasAdded, ipAliasAdded_)
QB_ATOMIC_PROPERTY(std::shared_ptr<QBIPAddress>, address1, setAddress1, address1_)
QB_ATOMIC_PROPERTY(std::shared_ptr<QBIPAddress>, address2, setAddress2, address2_)
QB_ATOMIC_PROPERTY(std::int64_t, port, setPort, port_)
QB_ATOMIC_PROPERTY(std::shared_ptr<QBLumentideIPC>, lumentideIPC, setLumentideIPC, lumentideIPC_)

#undef QB_ATOMIC_PROPERTY

#include "QBSocket.h"

#include <cxxabi.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <typeinfo>

bool QBSocket::isOpen() {
    raiseAbstractClass();
}

void QBSocket::writeData(const std::vector<std::uint8_t>&) {
    raiseAbstractClass();
}

std::vector<std::uint8_t> QBSocket::readData(std::uint32_t) {
    raiseAbstractClass();
}

void QBSocket::close() {
    raiseAbstractClass();
}

bool QBSocket::outOfResources(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

void QBSocket::raiseAbstractClass() const {
    throw QBInternalInconsistencyException("The class " + className() +
                                           " is abstract and must be subclassed.");
}

std::string QBSocket::className() const {
    const char* mangled = typeid(*this).name();
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> demangled(
        abi::__cxa_demangle(mangled, nullptr, nullptr, &status), std::free);
    return status == 0 && demangled ? std::string(demangled.get()) : std::string(mangled);
}

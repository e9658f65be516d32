#pragma once
// QBSocket: the abstract base of the core library's sockets.
//
// It declares the four operations every concrete socket provides. The base versions are not
// meant to be called: each raises QBInternalInconsistencyException naming the receiver's class,
// so a subclass that forgets to provide one fails loudly instead of silently doing nothing.
//
// Threads: no state of its own; the subclass says which threads may use an object.

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

// Raised only for programming errors, such as calling an operation of an abstract class.
class QBInternalInconsistencyException : public std::logic_error {
public:
    using std::logic_error::logic_error;
};

class QBSocket {
public:
    QBSocket() = default;
    virtual ~QBSocket() = default;
    QBSocket(const QBSocket&) = delete;
    QBSocket& operator=(const QBSocket&) = delete;

    // Each base version raises QBInternalInconsistencyException with the reason
    // "The class <name> is abstract and must be subclassed.".
    virtual bool isOpen();
    virtual void writeData(const std::vector<std::uint8_t>& data);
    virtual std::vector<std::uint8_t> readData(std::uint32_t count);
    virtual void close();

    // Whether an accept failed for want of descriptors or kernel memory (EMFILE, ENFILE,
    // ENOBUFS, ENOMEM). The listening socket then stays readable, so an accept loop that simply
    // tried again would spin: it must make room or pause instead.
    static bool outOfResources(int error);

protected:
    [[noreturn]] void raiseAbstractClass() const;
    // Unqualified C++ name of the receiver's dynamic class, e.g. "QBTCPSocket".
    std::string className() const;
};

#pragma once
// QBRandom: uniform random integers in a range, a random element of an array, and
// cryptographically secure random bytes.
//
// Ranges use glibc's arc4random (unbiased, seeded from the kernel); secure bytes come from
// getrandom(2). No state of its own; every operation may be called from any thread.
//
//   auto index = QBRandom::randomInRange(0, 10);              // 0 to 9
//   auto key = QBRandom::secureRandomBytes(32);               // throws QBSecureRandomError

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <vector>

// Raised when the secure random source fails: the one failure that is not a result, because a
// caller that asked for key material must never go on with predictable bytes.
class QBSecureRandomError : public std::runtime_error {
  public:
    QBSecureRandomError();
    // The exception's name; what() gives its reason.
    const char* name() const noexcept { return "secureRandomBytes failed"; }
};

class QBRandom {
  public:
    // The secure source's read call; getrandom(2) has this shape.
    using SecureSource = ssize_t (*)(void* buffer, std::size_t length, unsigned int flags);

    // Uniform in 0 to n - 1; 0 when n is 0; -1 when n is negative.
    static std::int64_t randomInRange(std::int64_t n);
    // Uniform in start to stop - 1; start when start equals stop; -1 when start is negative or
    // stop is below start.
    static std::int64_t randomInRange(std::int64_t start, std::int64_t stop);

    // A copy of one element chosen uniformly; nullopt for an empty array.
    template <typename T>
    static std::optional<T> randomObjectInArray(const std::vector<T>& array) {
        if (array.empty()) return std::nullopt;
        return array[static_cast<std::size_t>(
            randomInRange(static_cast<std::int64_t>(array.size())))];
    }

    // count secure random bytes (empty for count 0 or below); throws QBSecureRandomError when
    // the source fails, never returning a partly filled result.
    static std::vector<std::uint8_t> secureRandomBytes(std::int64_t count);
    // The same with another source in place of getrandom(2).
    static std::vector<std::uint8_t> secureRandomBytes(std::int64_t count, SecureSource source);

    QBRandom() = delete;
};

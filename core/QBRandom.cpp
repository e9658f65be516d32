#include "QBRandom.h"

#include <sys/random.h>

#include <cerrno>
#include <cstdlib>
#include <limits>

namespace {

// Draws uniformly from 0 to bound - 1 for bounds beyond arc4random_uniform's 32 bits:
// 64-bit draws, rejecting those in the incomplete last block so that every value is equally
// likely (the same method arc4random_uniform uses for 32 bits).
std::uint64_t uniform64(std::uint64_t bound) {
    const std::uint64_t rejectBelow =
        (std::numeric_limits<std::uint64_t>::max() - bound + 1) % bound;
    for (;;) {
        std::uint64_t draw = 0;
        arc4random_buf(&draw, sizeof draw);
        if (draw >= rejectBelow) return draw % bound;
    }
}

}  // namespace

QBSecureRandomError::QBSecureRandomError()
    : std::runtime_error("secureRandomBytes failed due to SecRandomCopyBytes error") {}

std::int64_t QBRandom::randomInRange(std::int64_t n) {
    if (n < 0) return -1;
    if (n == 0) return 0;
    const auto bound = static_cast<std::uint64_t>(n);
    if (bound <= std::numeric_limits<std::uint32_t>::max())
        return static_cast<std::int64_t>(arc4random_uniform(static_cast<std::uint32_t>(bound)));
    return static_cast<std::int64_t>(uniform64(bound));
}

std::int64_t QBRandom::randomInRange(std::int64_t start, std::int64_t stop) {
    if (start < 0 || stop < start) return -1;
    return start + randomInRange(stop - start);
}

std::vector<std::uint8_t> QBRandom::secureRandomBytes(std::int64_t count) {
    return secureRandomBytes(count, &::getrandom);
}

std::vector<std::uint8_t> QBRandom::secureRandomBytes(std::int64_t count, SecureSource source) {
    if (count <= 0) return {};
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(count), 0);
    // getrandom may return fewer bytes than asked (large requests, signals); keep reading.
    std::size_t filled = 0;
    while (filled < bytes.size()) {
        const std::size_t wanted = bytes.size() - filled;
        const ssize_t got = source(bytes.data() + filled, wanted, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0 || static_cast<std::size_t>(got) > wanted) throw QBSecureRandomError();
        filled += static_cast<std::size_t>(got);
    }
    return bytes;
}

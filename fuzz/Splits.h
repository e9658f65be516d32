#pragma once
// Splits: cuts a byte stream into pieces whose sizes follow from one seed byte, so that a fuzz
// input is "seed byte + stream" and the fuzzer tries each stream in many different splits.
// Bits 0-1 of the seed choose the largest piece (1, 7, 64 bytes or unbounded); all its bits
// seed a small generator for the sizes in between.
//
// Threads: a value object for one thread.

#include <cstddef>
#include <cstdint>

class Splits {
public:
    explicit Splits(std::uint8_t seed)
        : state(0x9E3779B9u ^ (static_cast<std::uint32_t>(seed) * 0x01000193u)),
          largest(largestPieces[seed & 3]) {}

    // The size of the next piece: 1 to remaining (remaining > 0).
    std::size_t next(std::size_t remaining) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        const std::size_t limit = largest < remaining ? largest : remaining;
        return 1 + state % limit;
    }

private:
    static constexpr std::size_t largestPieces[4] = {1, 7, 64, static_cast<std::size_t>(-1)};
    std::uint32_t state;
    std::size_t largest;
};

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <set>

#include "QBRandom.h"

TEST(QBRandomTest, RangesHitEveryValueAndReachBeyondThirtyTwoBits) {
    for (const auto& [start, stop, only] : {std::tuple{0, 0, 0}, {5, 5, 5}, {5, 4, -1}, {-1, 3, -1}})
        EXPECT_EQ(QBRandom::randomInRange(start, stop), only) << start << ".." << stop;
    EXPECT_EQ(QBRandom::randomInRange(-1), -1);
    std::set<std::int64_t> seen;
    for (int i = 0; i < 1000; ++i) seen.insert(QBRandom::randomInRange(100, 110));
    EXPECT_EQ(seen, (std::set<std::int64_t>{100, 101, 102, 103, 104, 105, 106, 107, 108, 109}));
    std::int64_t largest = 0;  // a bound cut to 32 bits never passes 2^32
    for (int i = 0; i < 64; ++i) largest = std::max(largest, QBRandom::randomInRange(1LL << 40));
    EXPECT_GT(largest, 1LL << 39);  // fails by chance with probability 2^-64
    EXPECT_LT(largest, 1LL << 40);
    EXPECT_EQ(QBRandom::randomObjectInArray(std::vector<int>{}), std::nullopt);
    const std::vector items{1, 2, 3};
    std::set<int> picked;
    for (int i = 0; i < 200; ++i) picked.insert(*QBRandom::randomObjectInArray(items));
    EXPECT_EQ(picked.size(), 3u);
}

TEST(QBRandomTest, SecureBytesAreFreshAndReadToTheEndOrFailWithTheNamedError) {
    EXPECT_TRUE(QBRandom::secureRandomBytes(-3).empty());
    const auto first = QBRandom::secureRandomBytes(32);
    EXPECT_EQ(first.size(), 32u);
    EXPECT_NE(first, QBRandom::secureRandomBytes(32));  // equal by chance: probability 2^-256
    // At most 3 bytes per call, and EINTR on every other call.
    static int calls;
    calls = 0;  // a static for the capture-less source; reset so that the test can repeat
    const auto shortReads = [](void* buffer, std::size_t length, unsigned) -> ssize_t {
        if (++calls % 2 == 0) return errno = EINTR, -1;
        std::memset(buffer, 0xAB, std::min<std::size_t>(length, 3));
        return static_cast<ssize_t>(std::min<std::size_t>(length, 3));
    };
    EXPECT_EQ(QBRandom::secureRandomBytes(10, shortReads), std::vector<std::uint8_t>(10, 0xAB));
    EXPECT_EQ(calls, 7);
    const auto failing = [](void*, std::size_t, unsigned) -> ssize_t { return errno = ENOSYS, -1; };
    EXPECT_THROW(QBRandom::secureRandomBytes(8, failing), QBSecureRandomError);
}

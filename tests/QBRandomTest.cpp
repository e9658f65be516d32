#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "QBRandom.h"

namespace {

// Pearson's statistic over 10 slices of [0, bound) shifted by start. For 9 degrees of freedom
// it exceeds 60 with probability below 1e-9, while a generator that favours one slice by a few
// percent, or never reaches some, exceeds it every time at these sample sizes.
double chiSquareOverTenSlices(std::int64_t start, std::int64_t bound, int draws) {
    std::vector<int> counts(10, 0);
    for (int i = 0; i < draws; ++i) {
        const auto value = QBRandom::randomInRange(start, start + bound) - start;
        if (value < 0 || value >= bound) return 1e9;
        ++counts[static_cast<std::size_t>(value / ((bound + 9) / 10))];
    }
    double sum = 0;
    const double expected = draws / 10.0;
    for (int count : counts) sum += (count - expected) * (count - expected) / expected;
    return sum;
}

int sourceCalls = 0;

// At most 3 bytes per call, and EINTR on every other call.
ssize_t shortReadingSource(void* buffer, std::size_t length, unsigned int) {
    if (++sourceCalls % 2 == 0) return errno = EINTR, -1;
    const std::size_t count = std::min<std::size_t>(length, 3);
    std::memset(buffer, 0xAB, count);
    return static_cast<ssize_t>(count);
}

ssize_t failingSource(void*, std::size_t, unsigned int) { return errno = ENOSYS, -1; }

}  // namespace

TEST(QBRandomTest, RangesAreUniformAlsoBeyondThirtyTwoBits) {
    EXPECT_EQ(QBRandom::randomInRange(1), 0);
    EXPECT_EQ(QBRandom::randomInRange(0), 0);
    EXPECT_EQ(QBRandom::randomInRange(5, 5), 5);
    EXPECT_EQ(QBRandom::randomInRange(-1), -1);
    EXPECT_EQ(QBRandom::randomInRange(5, 4), -1);
    EXPECT_EQ(QBRandom::randomInRange(-1, 3), -1);
    EXPECT_LT(chiSquareOverTenSlices(100, 10, 100000), 60.0);
    // A bound cut to 32 bits would fill only the first slice of 2^40.
    EXPECT_LT(chiSquareOverTenSlices(0, std::int64_t{1} << 40, 20000), 60.0);
}

TEST(QBRandomTest, RandomObjectComesFromTheArray) {
    EXPECT_EQ(QBRandom::randomObjectInArray(std::vector<int>{}), std::nullopt);
    EXPECT_EQ(QBRandom::randomObjectInArray(std::vector<std::string>{"only"}), "only");
    std::set<int> seen;
    for (int i = 0; i < 200; ++i) seen.insert(*QBRandom::randomObjectInArray(std::vector{0, 1, 2}));
    EXPECT_EQ(seen, (std::set<int>{0, 1, 2}));
}

TEST(QBRandomTest, SecureBytesHaveTheAskedLength) {
    EXPECT_EQ(QBRandom::secureRandomBytes(16).size(), 16u);
    EXPECT_TRUE(QBRandom::secureRandomBytes(0).empty());
    EXPECT_TRUE(QBRandom::secureRandomBytes(-3).empty());
    // Equal 32-byte draws have probability 2^-256; all zeros would mean an unfilled buffer.
    const auto first = QBRandom::secureRandomBytes(32);
    EXPECT_NE(first, QBRandom::secureRandomBytes(32));
    EXPECT_NE(first, std::vector<std::uint8_t>(32, 0));
}

TEST(QBRandomTest, SecureSourceIsReadToTheEndOrFailsWithTheNamedError) {
    EXPECT_EQ(QBRandom::secureRandomBytes(10, &shortReadingSource),
              std::vector<std::uint8_t>(10, 0xAB));
    EXPECT_EQ(sourceCalls, 7);  // reads of 3, 3, 3 and 1 bytes with 3 interruptions between them
    try {
        QBRandom::secureRandomBytes(8, &failingSource);
        ADD_FAILURE() << "no exception";
    } catch (const QBSecureRandomError& error) {
        EXPECT_STREQ(error.name(), "secureRandomBytes failed");
        EXPECT_STREQ(error.what(), "secureRandomBytes failed due to SecRandomCopyBytes error");
    }
}

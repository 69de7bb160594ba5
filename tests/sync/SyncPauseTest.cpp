// The random pause: where its numbers come from and the arithmetic that turns one into
// microseconds for usleep.
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <gtest/gtest.h>
#include <limits>
#include <vector>

#include "sync/SyncSimulator.h"

namespace {
std::atomic<int> g_randCalls{0};
}  // namespace

// This binary's rand(): counts its callers and otherwise behaves like the C library's (which
// draws from the random() generator), so a pause that used rand() instead of random() would
// show here although both give the same numbers.
extern "C" int rand(void) noexcept
{
    ++g_randCalls;
    return static_cast<int>(random());
}

namespace {

// Puts random() on a state of the test's own, seeded, while alive; the previous state (the
// never-seeded sequence the simulator runs on) comes back afterwards.
class SeededRandom {
public:
    explicit SeededRandom(unsigned seed) : _seed(seed) { _previous = initstate(seed, _state, sizeof _state); }
    ~SeededRandom() { setstate(_previous); }
    // Starts the sequence of the seed again.
    void restart() { srandom(_seed); }

private:
    unsigned _seed;
    char _state[256];
    char* _previous = nullptr;
};

TEST(SyncPause, DrawsEachPauseFromRandom)
{
    constexpr float kSeconds = 0.004f;  // pauses of a few milliseconds, spread over 4000 values
    constexpr int kDraws = 6;
    SeededRandom generator(20240611u);
    std::vector<long> drawn;
    for (int i = 0; i < kDraws; ++i) drawn.push_back(random());

    generator.restart();
    const int randBefore = g_randCalls.load();
    std::vector<uint32_t> expected, paused;
    for (int i = 0; i < kDraws; ++i) {
        expected.push_back(syncsim::pauseMicroseconds(drawn[i], kSeconds));
        paused.push_back(syncsim::randomPause(kSeconds));
    }
    EXPECT_EQ(paused, expected) << "each pause is the next number of random()";
    EXPECT_EQ(g_randCalls.load(), randBefore) << "the pause drew from rand()";
    for (uint32_t microseconds : paused) EXPECT_LT(microseconds, 4000u);
}

TEST(SyncPause, HandsTheLowThirtyTwoBitsOfTheProductToUsleep)
{
    // Products of 2^32 microseconds or more (a duration above about 71 minutes) wrap around.
    // float(999999) * 10000 is 9999989760 in 32-bit float; 9999989760 - 2 * 2^32 = 1410055168.
    EXPECT_EQ(syncsim::pauseMicroseconds(999999, 10000.0f), 1410055168u);
    EXPECT_EQ(syncsim::pauseMicroseconds(2999999, 5000.0f), 705027584u);   // m = 999999: 4999994880
    EXPECT_EQ(syncsim::pauseMicroseconds(123456, 40000.0f), 643272704u);   // 4938240000
    // Just below and at 2^32 (4294967296 = 1048576 * 4096, exact in float).
    EXPECT_EQ(syncsim::pauseMicroseconds(524288, 8192.0f), 0u);
    EXPECT_EQ(syncsim::pauseMicroseconds(524287, 8192.0f), 4294959104u);
    // Beyond 2^55 every float is a multiple of 2^32: the low bits are all zero.
    EXPECT_EQ(syncsim::pauseMicroseconds(999999, 1.0e20f), 0u);
    EXPECT_EQ(syncsim::pauseMicroseconds(999999, std::numeric_limits<float>::max()), 0u);
    // A negative duration gives the two's complement low bits of the negative product.
    EXPECT_EQ(syncsim::pauseMicroseconds(999999, -1.0f), 4293967297u);
    EXPECT_EQ(syncsim::pauseMicroseconds(1, -0.5f), 0u);  // -0.5 truncates to 0
    // Not a number of microseconds at all: no pause.
    EXPECT_EQ(syncsim::pauseMicroseconds(5, std::numeric_limits<float>::infinity()), 0u);
    EXPECT_EQ(syncsim::pauseMicroseconds(0, std::numeric_limits<float>::infinity()), 0u);  // 0 * inf
    EXPECT_EQ(syncsim::pauseMicroseconds(5, std::nanf("")), 0u);
}

}  // namespace

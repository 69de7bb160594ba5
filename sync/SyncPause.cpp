// The simulator's waits: random pauses and console prompts.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <unistd.h>

#include "sync/SyncSimulator.h"

namespace syncsim {

namespace {

std::mutex g_consoleMutex;   // guards g_lineBuffer and keeps prompt and read together
char g_lineBuffer[1024];     // one line of standard input, shared by every prompt

}  // namespace

uint32_t pauseMicroseconds(long randomValue, float seconds)
{
    const long m = randomValue % 1000000;
    // 32-bit float on purpose: the pause is float(m) * seconds, truncated, of which usleep
    // gets the low 32 bits (a product of 2^32 microseconds or more wraps around).
    const float product = static_cast<float>(m) * seconds;
    // An infinite or NaN duration has no integer part to hand on: it gives no pause.
    if (!std::isfinite(product)) return 0;
    // The truncation and the remainder are exact in double for every finite float, so this is
    // the low 32 bits (two's complement for a negative product) at any magnitude, without the
    // undefined conversion of an out-of-range float to an integer.
    double low = std::fmod(std::trunc(static_cast<double>(product)), 4294967296.0);
    if (low < 0.0) low += 4294967296.0;
    return static_cast<uint32_t>(low);
}

uint32_t randomPause(float seconds)
{
    // The generator is never seeded: runs repeat the same sequence of pauses.
    const uint32_t microseconds = pauseMicroseconds(random(), seconds);
    usleep(microseconds);
    return microseconds;
}

QString promptForLine(const QString& prompt)
{
    std::lock_guard guard(g_consoleMutex);
    std::fprintf(stdout, "%s ", prompt.toUtf8().constData());
    std::fflush(stdout);
    // Only the wait matters. End of input is not examined: the read returns at once and the
    // buffer keeps the line read before it.
    [[maybe_unused]] const char* line = std::fgets(g_lineBuffer, sizeof g_lineBuffer, stdin);
    return QString::fromUtf8(g_lineBuffer).trimmed();
}

}  // namespace syncsim

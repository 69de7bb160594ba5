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
    // 32-bit float on purpose: the pause is float(m) * seconds, truncated.
    const float product = static_cast<float>(m) * seconds;
    if (!std::isfinite(product) || std::fabs(product) >= 9.0e18f) return 0;
    return static_cast<uint32_t>(static_cast<int64_t>(product));
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
    // Only the wait matters; at end of input the read returns at once with nothing.
    if (!std::fgets(g_lineBuffer, sizeof g_lineBuffer, stdin)) g_lineBuffer[0] = '\0';
    return QString::fromUtf8(g_lineBuffer).trimmed();
}

}  // namespace syncsim

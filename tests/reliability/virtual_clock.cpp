#include "virtual_clock.h"

#include <atomic>

static constexpr int64_t NOT_SET = INT64_MIN;
static std::atomic<int64_t> s_s64Ms{NOT_SET};

// Stands before the C library's, for this program and for the library that it tests.
extern "C" time_t time(time_t *pTime) noexcept
{
    int64_t s64Ms = s_s64Ms.load();
    if (s64Ms == NOT_SET)
    {
        timespec stNow = {};
        clock_gettime(CLOCK_REALTIME, &stNow);
        s64Ms = static_cast<int64_t>(stNow.tv_sec) * 1000;
    }
    const time_t tNow = static_cast<time_t>(s64Ms / 1000);
    if (pTime != nullptr)
    {
        *pTime = tNow;
    }
    return tNow;
}

void CLOCK_Set(int64_t s64Ms)
{
    s_s64Ms = s64Ms;
}

void CLOCK_Step(int64_t s64Ms)
{
    s_s64Ms += s64Ms;
}

void CLOCK_Release()
{
    s_s64Ms = NOT_SET;
}

int64_t CLOCK_RealMs()
{
    timespec stNow = {};
    clock_gettime(CLOCK_MONOTONIC, &stNow);
    return static_cast<int64_t>(stNow.tv_sec) * 1000 + stNow.tv_nsec / 1000000;
}

// A pause that signals do not cut short.
#ifndef QUARRIN_UTIL_PAUSE_H
#define QUARRIN_UTIL_PAUSE_H

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <unistd.h>

namespace libquarrin
{

inline int64_t UTIL_NowUs()
{
    struct timespec stNow = {};
    clock_gettime(CLOCK_MONOTONIC, &stNow);
    return static_cast<int64_t>(stNow.tv_sec) * 1000000 + stNow.tv_nsec / 1000;
}

/// Sleeps the whole time, less than a second, whatever signals the host takes meanwhile: one usleep, and more only for
/// what a signal took away.
inline void UTIL_Pause(useconds_t u32Us)
{
    const int64_t s64End = UTIL_NowUs() + u32Us;
    int64_t s64Rest = u32Us;
    while (s64Rest > 0 && usleep(static_cast<useconds_t>(s64Rest)) != 0 && errno == EINTR)
    {
        s64Rest = s64End - UTIL_NowUs();
    }
}

} // namespace libquarrin

#endif

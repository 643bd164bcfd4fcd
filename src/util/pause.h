// A pause that signals do not cut short.
#ifndef QUARRIN_UTIL_PAUSE_H
#define QUARRIN_UTIL_PAUSE_H

#include <cerrno>
#include <cstdint>
#include <ctime>

namespace libquarrin
{

/// Sleeps the whole time, whatever signals the host takes meanwhile.
inline void UTIL_Pause(int64_t s64Ms)
{
    struct timespec stRest = {};
    stRest.tv_sec = static_cast<time_t>(s64Ms / 1000);
    stRest.tv_nsec = static_cast<long>(s64Ms % 1000) * 1000000L;
    while (nanosleep(&stRest, &stRest) != 0 && errno == EINTR)
    {
    }
}

} // namespace libquarrin

#endif

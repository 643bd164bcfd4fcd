// An owned descriptor.
#ifndef QUARRIN_UTIL_FD_H
#define QUARRIN_UTIL_FD_H

#include <cstdint>
#include <unistd.h>
#include <utility>

namespace libquarrin
{

/// A descriptor that is closed at the end of the caller's block; -1: none.
struct UTIL_FD
{
    UTIL_FD() = default;
    explicit UTIL_FD(int32_t s32Own) : s32Fd(s32Own)
    {
    }
    UTIL_FD(UTIL_FD &&other) noexcept : s32Fd(std::exchange(other.s32Fd, -1))
    {
    }
    UTIL_FD &operator=(UTIL_FD &&other) noexcept
    {
        std::swap(s32Fd, other.s32Fd); // what was held goes with the other
        return *this;
    }
    ~UTIL_FD()
    {
        if (s32Fd >= 0)
        {
            (void)close(s32Fd); // nothing is written through it
        }
    }

    int32_t s32Fd = -1;
};

} // namespace libquarrin

#endif

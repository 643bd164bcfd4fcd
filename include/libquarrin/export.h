// Symbol export and the one ABI rule: file offsets and times are 64-bit on every target.
#ifndef LIBQUARRIN_EXPORT_H
#define LIBQUARRIN_EXPORT_H

#include <cstdint>
#include <sys/types.h>
#include <time.h>

/// Marks a symbol as part of the library's interface; everything else is built hidden.
#define QN_API __attribute__((visibility("default")))

#if UINTPTR_MAX == 0xffffffffu
#if !defined(_FILE_OFFSET_BITS) || _FILE_OFFSET_BITS != 64 || !defined(_TIME_BITS) || _TIME_BITS != 64
#error "libquarrin on a 32-bit target needs -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64 (CMake and pkg-config pass them)"
#endif
#endif

static_assert(sizeof(time_t) == 8, "libquarrin needs a 64-bit time_t: define _TIME_BITS=64 for every source file");
static_assert(sizeof(off_t) == 8, "libquarrin needs a 64-bit off_t: define _FILE_OFFSET_BITS=64 for every source file");

#endif

// ext4's shutdown, which the kernel's headers for programs do not have (fs/ext4/ext4.h, EXT4_IOC_SHUTDOWN).
#ifndef QUARRIN_TESTS_CARD_SIM_EXT4_SHUTDOWN_H
#define QUARRIN_TESTS_CARD_SIM_EXT4_SHUTDOWN_H

#include <cstdint>

#include <sys/ioctl.h>

constexpr unsigned long EXT4_SHUTDOWN = _IOR('X', 125, uint32_t);
constexpr uint32_t EXT4_NO_LOG_FLUSH = 2; ///< the journal is not flushed, every later access fails

#endif

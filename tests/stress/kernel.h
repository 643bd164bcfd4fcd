// Stands between the library and the kernel, in this program only: uevents come from the test, over a pair of sockets
// per card, and get lost as a kernel's do; the second that a plug event settles is short; partition tables are read
// again.
#ifndef QUARRIN_TESTS_KERNEL_H
#define QUARRIN_TESTS_KERNEL_H

#include <cstdint>
#include <string>

/// Cards have the numbers 0 to KERNEL_CARDS - 1 and the names "c0", "c1" …
constexpr int32_t KERNEL_CARDS = 2;

/// Sends "ACTION@/devices/stress/cN" to the monitor of a card. False when nobody listens, or the socket is full: the
/// event is lost then.
bool KERNEL_Uevent(int32_t s32Card, const std::string &strAction);

/// Somebody listens for the events of a card.
bool KERNEL_IsHeard(int32_t s32Card);

/// Forgets the sockets of a card, whose handle is gone.
void KERNEL_Forget(int32_t s32Card);

#endif

// Calls of the C library that fail when a test says so. They stand in the test program, before the C library's own, and
// work the same on the machine, under the sanitizers and under an emulator.
// Threads: any; the failure is every thread's.
#ifndef QUARRIN_TESTS_FAILING_CALLS_H
#define QUARRIN_TESTS_FAILING_CALLS_H

#include <cstdint>
#include <functional>
#include <string>

enum TEST_CALL_E : int32_t
{
    TEST_CALL_SELECT,
    TEST_CALL_RECVMSG,
    TEST_CALL_SOCKET,
    TEST_CALL_STATVFS,
    TEST_CALL_REMOVE,
    TEST_CALL_COUNT
};

/// Calls fnBody; until it comes back, every call of one kind fails with s32Errno, without being made.
void TEST_WithFailingCall(TEST_CALL_E enCall, int32_t s32Errno, const std::function<void()> &fnBody);

/// Calls fnBody; until it comes back, statvfs answers that file systems have no blocks at all.
void TEST_WithEmptyTotals(const std::function<void()> &fnBody);

/// Calls fnBody; until it comes back, every file that is about to be removed is shown to fnBefore first.
void TEST_BeforeRemove(const std::function<void(const std::string &)> &fnBefore, const std::function<void()> &fnBody);

#endif

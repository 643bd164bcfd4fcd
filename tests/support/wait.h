// Waiting for a condition with a limit, never for a fixed time.
#ifndef QUARRIN_TESTS_WAIT_H
#define QUARRIN_TESTS_WAIT_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <thread>

#ifndef QUARRIN_SLOW
#define QUARRIN_SLOW 1
#endif

/// Limits are so many times longer than they are where the machine itself runs the tests: an emulator may be slow.
constexpr int32_t TEST_SLOW = QUARRIN_SLOW;

inline void TEST_SleepMs(int32_t s32Ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(s32Ms));
}

/// Waits until the condition holds; false when it did not within s32Ms milliseconds, TEST_SLOW times longer where slow.
inline bool TEST_WaitFor(const std::function<bool()> &fnCondition, int32_t s32Ms = 5000)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(s32Ms) * TEST_SLOW;
    while (!fnCondition())
    {
        if (std::chrono::steady_clock::now() >= deadline)
        {
            return fnCondition();
        }
        TEST_SleepMs(1);
    }
    return true;
}

#endif

#include "support/mutex_hold.h"

#include <atomic>
#include <dlfcn.h>

#include "support/wait.h"

namespace
{

thread_local int32_t t_s32BeforeLock = 0; // locks until the one before which this thread stops; 0: none
thread_local const pthread_mutex_t *t_pBeforeLock = nullptr; // null: locks of any mutex
thread_local const pthread_mutex_t *t_pAfterUnlock = nullptr;
thread_local int32_t t_s32Locks = 0;
std::atomic<int32_t> s_s32Held{0};
std::atomic<bool> s_bReleased{false};
std::atomic<const pthread_mutex_t *> s_pWatched{nullptr};
std::atomic<int32_t> s_s32Watched{0};

void Hold()
{
    s_s32Held += 1;
    while (!s_bReleased)
    {
        TEST_SleepMs(1);
    }
    s_s32Held -= 1;
}

using MUTEX_CALL = int (*)(pthread_mutex_t *);

MUTEX_CALL Real(const char *pszName)
{
    return reinterpret_cast<MUTEX_CALL>(dlsym(RTLD_NEXT, pszName));
}

} // namespace

extern "C" int pthread_mutex_lock(pthread_mutex_t *pMutex) noexcept
{
    static const MUTEX_CALL pfnLock = Real("pthread_mutex_lock");
    t_s32Locks += 1;
    if (s_pWatched == pMutex)
    {
        s_s32Watched += 1;
    }
    if (t_s32BeforeLock > 0 && (t_pBeforeLock == nullptr || t_pBeforeLock == pMutex))
    {
        t_s32BeforeLock -= 1;
        if (t_s32BeforeLock == 0)
        {
            Hold();
        }
    }
    return pfnLock(pMutex);
}

extern "C" int pthread_mutex_unlock(pthread_mutex_t *pMutex) noexcept
{
    static const MUTEX_CALL pfnUnlock = Real("pthread_mutex_unlock");
    const int s32Result = pfnUnlock(pMutex);
    if (t_pAfterUnlock != nullptr && t_pAfterUnlock == pMutex)
    {
        t_pAfterUnlock = nullptr;
        Hold();
    }
    return s32Result;
}

void MUTEX_HOLD_BeforeLock(int32_t s32Nth, const pthread_mutex_t *pMutex)
{
    s_bReleased = false;
    t_pBeforeLock = pMutex;
    t_s32BeforeLock = s32Nth;
}

void MUTEX_HOLD_AfterUnlock(const pthread_mutex_t *pMutex)
{
    s_bReleased = false;
    t_pAfterUnlock = pMutex;
}

bool MUTEX_HOLD_WaitHeld(int32_t s32Ms)
{
    return TEST_WaitFor([] { return s_s32Held.load() > 0; }, s32Ms);
}

void MUTEX_HOLD_Release()
{
    s_bReleased = true;
}

int32_t MUTEX_HOLD_CountLocks(const std::function<void()> &fn)
{
    const int32_t s32Before = t_s32Locks;
    fn();
    return t_s32Locks - s32Before;
}

void MUTEX_HOLD_Watch(const pthread_mutex_t *pMutex)
{
    s_pWatched = pMutex;
    s_s32Watched = 0;
}

int32_t MUTEX_HOLD_Watched()
{
    return s_s32Watched;
}

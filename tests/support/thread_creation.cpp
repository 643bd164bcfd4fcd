#include "support/thread_creation.h"

#include <dlfcn.h>
#include <mutex>
#include <utility>

namespace
{

struct CREATION_STATE_S
{
    std::mutex mutex;
    int32_t s32Result = 0;
    int32_t s32Skip = 0;
    int32_t s32Fail = 0;
    int32_t s32Seen = 0;
    std::function<void(const THREAD_CREATION_S &)> fnBefore;
};

CREATION_STATE_S &State()
{
    static CREATION_STATE_S *pState = new CREATION_STATE_S(); // outlives every thread of the process
    return *pState;
}

// The result that a start is to have; 0 lets it happen.
int32_t NextResult()
{
    const std::lock_guard<std::mutex> lock(State().mutex);
    State().s32Seen += 1;
    if (State().s32Skip > 0)
    {
        State().s32Skip -= 1;
        return 0;
    }
    if (State().s32Fail > 0)
    {
        State().s32Fail -= 1;
        return State().s32Result;
    }
    return 0;
}

} // namespace

extern "C" int pthread_create(pthread_t *pThread, const pthread_attr_t *pstAttr, void *(*pfnMain)(void *),
                              void *pArg) noexcept
{
    using CREATE = int (*)(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);
    static const CREATE pfnCreate = reinterpret_cast<CREATE>(dlsym(RTLD_NEXT, "pthread_create"));
    std::function<void(const THREAD_CREATION_S &)> fnBefore;
    {
        const std::lock_guard<std::mutex> lock(State().mutex);
        fnBefore = State().fnBefore;
    }
    if (fnBefore)
    {
        fnBefore({pstAttr, pArg});
    }
    const int32_t s32Result = NextResult();
    return s32Result != 0 ? s32Result : pfnCreate(pThread, pstAttr, pfnMain, pArg);
}

void THREAD_CREATION_Reset()
{
    const std::lock_guard<std::mutex> lock(State().mutex);
    State().s32Skip = 0;
    State().s32Fail = 0;
    State().s32Seen = 0;
    State().fnBefore = nullptr;
}

void THREAD_CREATION_Fail(int32_t s32Result, int32_t s32Skip, int32_t s32Count)
{
    const std::lock_guard<std::mutex> lock(State().mutex);
    State().s32Result = s32Result;
    State().s32Skip = s32Skip;
    State().s32Fail = s32Count;
}

void THREAD_CREATION_Before(std::function<void(const THREAD_CREATION_S &)> fnBefore)
{
    const std::lock_guard<std::mutex> lock(State().mutex);
    State().fnBefore = std::move(fnBefore);
}

int32_t THREAD_CREATION_Count()
{
    const std::lock_guard<std::mutex> lock(State().mutex);
    return State().s32Seen;
}

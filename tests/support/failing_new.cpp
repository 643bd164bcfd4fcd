#include "support/failing_new.h"

#include <cstddef>
#include <dlfcn.h>
#include <new>

// The allocations that do not throw come through this one too, but for a sanitizer's.
void *operator new(std::size_t bytes)
{
    using NEW = void *(*)(std::size_t);
    static const NEW pfnNew = reinterpret_cast<NEW>(dlsym(RTLD_NEXT, sizeof(std::size_t) == 8 ? "_Znwm" : "_Znwj"));
    if (t_s64UntilFailingNew > 0 && --t_s64UntilFailingNew == 0)
    {
        throw std::bad_alloc();
    }
    return pfnNew(bytes);
}

bool TEST_WithFailingNew(int32_t s32Nth, const std::function<void()> &fnCall)
{
    t_s64UntilFailingNew = s32Nth;
    fnCall();
    const bool bFailed = t_s64UntilFailingNew == 0;
    t_s64UntilFailingNew = 0;
    return bFailed;
}

std::vector<uint32_t> TEST_FailEachNew(const std::function<uint32_t()> &fnCall)
{
    std::vector<uint32_t> vecResults;
    for (bool bFailed = true; bFailed;)
    {
        uint32_t u32Result = 0;
        bFailed = TEST_WithFailingNew(static_cast<int32_t>(vecResults.size()) + 1, [&] { u32Result = fnCall(); });
        vecResults.push_back(u32Result);
    }
    return vecResults;
}

#include "memory/allocations.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <new>

namespace
{

std::atomic<bool> s_bArmed{false};
std::atomic<bool> s_bAllLater{false};
std::atomic<int64_t> s_s64Nth{0};
std::atomic<int64_t> s_s64Count{0};
thread_local bool t_bLibrary = true;

bool Fails()
{
    if (!t_bLibrary || !s_bArmed)
    {
        return false;
    }
    const int64_t s64Number = ++s_s64Count;
    const int64_t s64Nth = s_s64Nth;
    return s64Nth > 0 && (s64Number == s64Nth || (s_bAllLater && s64Number > s64Nth));
}

} // namespace

void ALLOCATIONS_Arm(int64_t s64Nth, bool bAllLater)
{
    s_s64Nth = s64Nth;
    s_bAllLater = bAllLater;
    s_s64Count = 0;
    s_bArmed = true;
}

void ALLOCATIONS_Disarm()
{
    s_bArmed = false;
}

int64_t ALLOCATIONS_Count()
{
    return s_s64Count;
}

ALLOCATIONS_OWNER::ALLOCATIONS_OWNER(bool bLibrary) : m_bBefore(t_bLibrary)
{
    t_bLibrary = bLibrary;
}

ALLOCATIONS_OWNER::~ALLOCATIONS_OWNER()
{
    t_bLibrary = m_bBefore;
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)

void *operator new(std::size_t bytes, const std::nothrow_t &) noexcept
{
    return Fails() ? nullptr : malloc(bytes);
}

void *operator new[](std::size_t bytes, const std::nothrow_t &) noexcept
{
    return Fails() ? nullptr : malloc(bytes);
}

void *operator new(std::size_t bytes)
{
    void *pBlock = Fails() ? nullptr : malloc(bytes);
    if (pBlock == nullptr)
    {
        throw std::bad_alloc();
    }
    return pBlock;
}

void *operator new[](std::size_t bytes)
{
    return operator new(bytes);
}

void operator delete(void *pBlock) noexcept
{
    free(pBlock);
}

void operator delete[](void *pBlock) noexcept
{
    free(pBlock);
}

void operator delete(void *pBlock, std::size_t) noexcept
{
    free(pBlock);
}

void operator delete[](void *pBlock, std::size_t) noexcept
{
    free(pBlock);
}

#else

// Before the C library's own, which are called by these names of theirs.
extern "C"
{
    void *__libc_malloc(size_t bytes);
    void *__libc_calloc(size_t count, size_t bytes);
    void *__libc_realloc(void *pBlock, size_t bytes);
    void *__libc_memalign(size_t alignment, size_t bytes);

    void *malloc(size_t bytes)
    {
        return Fails() ? nullptr : __libc_malloc(bytes);
    }

    void *calloc(size_t count, size_t bytes)
    {
        return Fails() ? nullptr : __libc_calloc(count, bytes);
    }

    void *realloc(void *pBlock, size_t bytes)
    {
        return Fails() ? nullptr : __libc_realloc(pBlock, bytes);
    }

    void *memalign(size_t alignment, size_t bytes)
    {
        return Fails() ? nullptr : __libc_memalign(alignment, bytes);
    }

    void *aligned_alloc(size_t alignment, size_t bytes)
    {
        return memalign(alignment, bytes);
    }

    int posix_memalign(void **ppBlock, size_t alignment, size_t bytes)
    {
        void *pBlock = memalign(alignment, bytes);
        if (pBlock == nullptr)
        {
            return ENOMEM;
        }
        *ppBlock = pBlock;
        return 0;
    }
}

#endif

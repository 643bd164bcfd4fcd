// Painted stacks. See the header.

#include "stack.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <pthread.h>
#include <sys/mman.h>

namespace
{

constexpr size_t STACK_BYTES = 512 * 1024;
constexpr size_t THREADS = 64;
constexpr unsigned char PAINT = 0xa5;

std::atomic<bool> g_bPaint{false};
std::atomic<size_t> g_count{0};
unsigned char *g_apStacks[THREADS]; // their lowest bytes

int CreatePainted(pthread_t *pThread, const pthread_attr_t *pstAttr, void *(*pfnMain)(void *), void *pArg)
{
    using CREATE = int (*)(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);
    static const CREATE pfnCreate = reinterpret_cast<CREATE>(dlsym(RTLD_NEXT, "pthread_create"));
    if (!g_bPaint)
    {
        return pfnCreate(pThread, pstAttr, pfnMain, pArg);
    }
    void *pStack = mmap(nullptr, STACK_BYTES, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    const size_t thread = g_count.fetch_add(1);
    if (pStack == MAP_FAILED || thread >= THREADS)
    {
        (void)fputs("stack: no room for another thread\n", stderr);
        abort();
    }
    memset(pStack, PAINT, STACK_BYTES);
    g_apStacks[thread] = static_cast<unsigned char *>(pStack);

    pthread_attr_t stAttr;
    pthread_attr_init(&stAttr);
    int s32Detached = PTHREAD_CREATE_JOINABLE;
    if (pstAttr != nullptr)
    {
        pthread_attr_getdetachstate(pstAttr, &s32Detached);
    }
    pthread_attr_setdetachstate(&stAttr, s32Detached);
    pthread_attr_setstack(&stAttr, pStack, STACK_BYTES);
    const int s32Result = pfnCreate(pThread, &stAttr, pfnMain, pArg);
    pthread_attr_destroy(&stAttr);
    return s32Result;
}

void *CallMain(void *pArg)
{
    (*static_cast<const std::function<void()> *>(pArg))();
    return nullptr;
}

} // namespace

extern "C" int pthread_create(pthread_t *pThread, const pthread_attr_t *pstAttr, void *(*pfnMain)(void *),
                              void *pArg) noexcept
{
    return CreatePainted(pThread, pstAttr, pfnMain, pArg);
}

void STACK_Paint()
{
    g_bPaint = true;
}

size_t STACK_Count()
{
    return g_count;
}

int64_t STACK_Used(size_t thread)
{
    if (thread >= g_count)
    {
        (void)fputs("stack: there is no such thread\n", stderr);
        abort();
    }
    size_t untouched = 0;
    while (untouched < STACK_BYTES && g_apStacks[thread][untouched] == PAINT)
    {
        ++untouched;
    }
    return static_cast<int64_t>(STACK_BYTES - untouched);
}

int64_t STACK_Of(const std::function<void()> &fnCall)
{
    const size_t thread = STACK_Count();
    pthread_t tid;
    if (pthread_create(&tid, nullptr, CallMain, const_cast<std::function<void()> *>(&fnCall)) != 0)
    {
        (void)fputs("stack: the thread cannot be started\n", stderr);
        abort();
    }
    pthread_join(tid, nullptr);
    return STACK_Used(thread);
}

// The accounting of the heap. See the header.
// Threads: any. Locks: a spin lock around the table of blocks; nothing in here allocates.

#include "heap.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <link.h>
#include <malloc.h>
#include <sched.h>
#include <sys/mman.h>

extern "C"
{
    // What glibc has behind the names that are taken here.
    void *__libc_malloc(size_t bytes);
    void *__libc_calloc(size_t count, size_t bytes);
    void *__libc_realloc(void *pBlock, size_t bytes);
    void *__libc_memalign(size_t alignment, size_t bytes);
    void __libc_free(void *pBlock);
}

namespace
{

// Open addressing: more slots than any question needs blocks at once, in pages that cost nothing until they are used.
constexpr size_t SLOTS = size_t{1} << 21;
constexpr size_t RANGES = 16;

struct BLOCK_S
{
    uintptr_t address; // 0: free slot
    uint32_t u32Bytes;
    bool bLibrary;
};

struct RANGE_S
{
    uintptr_t begin;
    uintptr_t end;
};

BLOCK_S *g_pBlocks = nullptr; // null: not counting
RANGE_S g_astLibrary[RANGES]; // where the code of libquarrin and of the C++ library lies
size_t g_ranges = 0;
HEAP_S g_stHeld;
int64_t g_s64Peak = 0;
std::atomic_flag g_lock = ATOMIC_FLAG_INIT;

struct GUARD_S
{
    GUARD_S()
    {
        while (g_lock.test_and_set(std::memory_order_acquire))
        {
            sched_yield();
        }
    }
    ~GUARD_S()
    {
        g_lock.clear(std::memory_order_release);
    }
    GUARD_S(const GUARD_S &) = delete;
    GUARD_S &operator=(const GUARD_S &) = delete;
};

size_t HomeOf(uintptr_t address)
{
    return static_cast<size_t>((uint64_t{address} >> 3) * 0x9e3779b97f4a7c15u >> 43) % SLOTS;
}

bool IsLibrary(const void *pCaller)
{
    const uintptr_t address = reinterpret_cast<uintptr_t>(pCaller);
    for (size_t i = 0; i < g_ranges; ++i)
    {
        if (address >= g_astLibrary[i].begin && address < g_astLibrary[i].end)
        {
            return true;
        }
    }
    return false;
}

void CountLocked(const BLOCK_S &stBlock, int64_t s64Sign)
{
    int64_t &s64Side = stBlock.bLibrary ? g_stHeld.s64Library : g_stHeld.s64Others;
    s64Side += s64Sign * int64_t{stBlock.u32Bytes};
    if (g_stHeld.Total() > g_s64Peak)
    {
        g_s64Peak = g_stHeld.Total();
    }
}

void Add(void *pBlock, const void *pCaller)
{
    if (g_pBlocks == nullptr || pBlock == nullptr)
    {
        return;
    }
    const BLOCK_S stBlock = {reinterpret_cast<uintptr_t>(pBlock),
                             static_cast<uint32_t>(malloc_usable_size(pBlock) + sizeof(size_t)), IsLibrary(pCaller)};
    const GUARD_S guard;
    size_t slot = HomeOf(stBlock.address);
    while (g_pBlocks[slot].address != 0)
    {
        slot = (slot + 1) % SLOTS;
    }
    g_pBlocks[slot] = stBlock;
    CountLocked(stBlock, 1);
}

// A block from before the start is not there.
void Remove(const void *pBlock)
{
    if (g_pBlocks == nullptr || pBlock == nullptr)
    {
        return;
    }
    const uintptr_t address = reinterpret_cast<uintptr_t>(pBlock);
    const GUARD_S guard;
    size_t hole = HomeOf(address);
    while (g_pBlocks[hole].address != address)
    {
        if (g_pBlocks[hole].address == 0)
        {
            return;
        }
        hole = (hole + 1) % SLOTS;
    }
    CountLocked(g_pBlocks[hole], -1);
    // Whatever the slot kept from its own place moves up, so that a search never meets a gap.
    for (size_t next = (hole + 1) % SLOTS; g_pBlocks[next].address != 0; next = (next + 1) % SLOTS)
    {
        const size_t home = HomeOf(g_pBlocks[next].address);
        if ((next + SLOTS - home) % SLOTS >= (next + SLOTS - hole) % SLOTS)
        {
            g_pBlocks[hole] = g_pBlocks[next];
            hole = next;
        }
    }
    g_pBlocks[hole].address = 0;
}

int NoteLibrary(struct dl_phdr_info *pInfo, size_t, void *)
{
    if (strstr(pInfo->dlpi_name, "libquarrin") == nullptr && strstr(pInfo->dlpi_name, "libstdc++") == nullptr)
    {
        return 0;
    }
    for (int i = 0; i < pInfo->dlpi_phnum && g_ranges < RANGES; ++i)
    {
        const auto &stHeader = pInfo->dlpi_phdr[i];
        if (stHeader.p_type == PT_LOAD && (stHeader.p_flags & PF_X) != 0)
        {
            const uintptr_t begin = static_cast<uintptr_t>(pInfo->dlpi_addr) + stHeader.p_vaddr;
            g_astLibrary[g_ranges++] = {begin, begin + stHeader.p_memsz};
        }
    }
    return 0;
}

} // namespace

void HEAP_Start()
{
    dl_iterate_phdr(NoteLibrary, nullptr);
    void *pTable = mmap(nullptr, SLOTS * sizeof(BLOCK_S), PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (pTable == MAP_FAILED || g_ranges < 2)
    {
        (void)fputs("heap: no room for the table, or the libraries are not found\n", stderr);
        abort();
    }
    g_pBlocks = static_cast<BLOCK_S *>(pTable);
}

HEAP_S HEAP_Now()
{
    const GUARD_S guard;
    return g_stHeld;
}

HEAP_S HEAP_Since(const HEAP_S &stThen)
{
    const HEAP_S stNow = HEAP_Now();
    return {stNow.s64Library - stThen.s64Library, stNow.s64Others - stThen.s64Others};
}

void HEAP_ResetPeak()
{
    const GUARD_S guard;
    g_s64Peak = g_stHeld.Total();
}

int64_t HEAP_Peak()
{
    const GUARD_S guard;
    return g_s64Peak;
}

// ---- the family

extern "C" void *malloc(size_t bytes) noexcept
{
    void *pBlock = __libc_malloc(bytes);
    Add(pBlock, __builtin_return_address(0));
    return pBlock;
}

extern "C" void *calloc(size_t count, size_t bytes) noexcept
{
    void *pBlock = __libc_calloc(count, bytes);
    Add(pBlock, __builtin_return_address(0));
    return pBlock;
}

// The old block is taken out first: once it is free, another thread may get its address.
extern "C" void *realloc(void *pOld, size_t bytes) noexcept
{
    Remove(pOld);
    void *pBlock = __libc_realloc(pOld, bytes);
    Add(pBlock != nullptr || bytes == 0 ? pBlock : pOld, __builtin_return_address(0));
    return pBlock;
}

extern "C" void *memalign(size_t alignment, size_t bytes) noexcept
{
    void *pBlock = __libc_memalign(alignment, bytes);
    Add(pBlock, __builtin_return_address(0));
    return pBlock;
}

extern "C" void *aligned_alloc(size_t alignment, size_t bytes) noexcept
{
    void *pBlock = __libc_memalign(alignment, bytes);
    Add(pBlock, __builtin_return_address(0));
    return pBlock;
}

extern "C" int posix_memalign(void **ppBlock, size_t alignment, size_t bytes) noexcept
{
    void *pBlock = __libc_memalign(alignment, bytes);
    Add(pBlock, __builtin_return_address(0));
    if (pBlock == nullptr)
    {
        return ENOMEM;
    }
    *ppBlock = pBlock;
    return 0;
}

extern "C" void free(void *pBlock) noexcept
{
    Remove(pBlock);
    __libc_free(pBlock);
}

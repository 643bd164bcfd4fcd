#include "chance.h"

#include <atomic>
#include <chrono>
#include <thread>

static std::atomic<uint64_t> g_u64Seed{1};
static std::atomic<uint64_t> g_u64NextStream{1000000}; // beyond those that are given
static thread_local uint64_t g_u64State = 0;           // 0: no stream yet

// One step of splitmix64.
static uint64_t Mix(uint64_t u64Value)
{
    u64Value = (u64Value ^ (u64Value >> 30)) * 0xbf58476d1ce4e5b9u;
    u64Value = (u64Value ^ (u64Value >> 27)) * 0x94d049bb133111ebu;
    return u64Value ^ (u64Value >> 31);
}

void CHANCE_Seed(uint64_t u64Seed)
{
    g_u64Seed.store(u64Seed, std::memory_order_relaxed);
}

void CHANCE_Thread(uint64_t u64Stream)
{
    g_u64State = Mix(g_u64Seed.load(std::memory_order_relaxed) + Mix(u64Stream + 1)) | 1;
}

uint32_t CHANCE_Below(uint32_t u32Limit)
{
    if (g_u64State == 0)
    {
        CHANCE_Thread(g_u64NextStream.fetch_add(1, std::memory_order_relaxed));
    }
    g_u64State += 0x9e3779b97f4a7c15u;
    return static_cast<uint32_t>(Mix(g_u64State) >> 32) % u32Limit;
}

bool CHANCE_In100(uint32_t u32Percent)
{
    return CHANCE_Below(100) < u32Percent;
}

void CHANCE_Delay(int32_t s32LongestMs)
{
    const uint32_t u32Kind = CHANCE_Below(1000);
    if (u32Kind < 600)
    {
        return;
    }
    if (u32Kind < 850)
    {
        std::this_thread::yield();
        return;
    }
    const uint32_t u32Longest = static_cast<uint32_t>(s32LongestMs) * 1000;
    const uint32_t u32Us =
        u32Kind < 990 ? CHANCE_Below(u32Longest < 2000 ? u32Longest : 2000) : CHANCE_Below(u32Longest);
    std::this_thread::sleep_for(std::chrono::microseconds(u32Us));
}

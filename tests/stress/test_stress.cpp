// Everything at once: cameras, control calls, pulls, mounts, formats that fail, replays, listings, quota checks and
// moves of damaged files, with random delays in every slot, every command and every plug event. After each round
// nothing may be left.

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

extern "C"
{
#include <libavutil/log.h>
}

#include "chance.h"
#include "slots.h"
#include "support/process.h"
#include "support/wait.h"
#include "watch.h"
#include "world.h"

static int64_t Number(const char *pszName, int64_t s64Default)
{
    const char *pszValue = getenv(pszName);
    return pszValue == nullptr || *pszValue == '\0' ? s64Default : strtoll(pszValue, nullptr, 10);
}

// Keeps the library's lines off the terminal, and gives the terminal back for a failure.
class SILENCE
{
public:
    SILENCE() : m_s32Saved(dup(STDOUT_FILENO))
    {
        fflush(stdout);
        const int s32Null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(s32Null, STDOUT_FILENO);
        close(s32Null);
    }
    ~SILENCE()
    {
        fflush(stdout);
        dup2(m_s32Saved, STDOUT_FILENO);
        close(m_s32Saved);
    }
    SILENCE(const SILENCE &) = delete;
    SILENCE &operator=(const SILENCE &) = delete;

private:
    int m_s32Saved;
};

// A round of all worlds side by side, and what must hold of the whole program then.
static void Round(std::vector<std::unique_ptr<WORLD_S>> &vecWorlds, int32_t s32Ms)
{
    std::vector<std::thread> vecThreads;
    for (const std::unique_ptr<WORLD_S> &spWorld : vecWorlds)
    {
        const uint64_t u64Stream = CHANCE_Below(1000000);
        vecThreads.emplace_back(
            [&spWorld, u64Stream, s32Ms]
            {
                CHANCE_Thread(u64Stream);
                WORLD_Round(*spWorld, s32Ms);
            });
    }
    for (std::thread &thread : vecThreads)
    {
        thread.join();
    }
    if (SLOTS_OpenWriters() != 0 || SLOTS_OpenReaders() != 0)
    {
        WATCH_Violation("%d writers and %d readers were never closed", SLOTS_OpenWriters(), SLOTS_OpenReaders());
    }
    SLOTS_Forget();
}

TEST(Stress, EverythingAtOnceLeavesNothing)
{
    const int64_t s64Seed = Number("QUARRIN_SEED", time(nullptr));
    const int64_t s64Seconds = Number("QUARRIN_STRESS_SECONDS", QUARRIN_STRESS_SECONDS);
    fprintf(stderr, "[  figures ] QUARRIN_SEED=%lld QUARRIN_STRESS_SECONDS=%lld makes the same choices again\n",
            static_cast<long long>(s64Seed), static_cast<long long>(s64Seconds));
    const PROCESS_LIMIT limit(static_cast<int32_t>(s64Seconds) + 300);
    av_log_set_level(AV_LOG_QUIET); // files that are just being written are opened
    CHANCE_Seed(static_cast<uint64_t>(s64Seed));
    CHANCE_Thread(0);
    CAMERA_Prepare();
    WATCH_Begin();
    WATCH_ForgetLog();
    const int32_t s32Threads = PROCESS_ThreadCount();
    const int32_t s32Descriptors = PROCESS_DescriptorCount();
    int32_t s32Rounds = 0;
    {
        const SILENCE silence;
        std::vector<std::unique_ptr<WORLD_S>> vecWorlds;
        std::vector<STRESS_CARD *> vecCards;
        for (int32_t i = 0; i < 2; ++i)
        {
            vecWorlds.push_back(std::make_unique<WORLD_S>(i));
            vecCards.push_back(&vecWorlds.back()->card);
        }
        STRESS_CARD_Known(vecCards);
        const time_t tEnd = time(nullptr) + s64Seconds;
        while (time(nullptr) < tEnd && WATCH_Violations() == 0)
        {
            Round(vecWorlds, 300 + static_cast<int32_t>(CHANCE_Below(2500)));
            ++s32Rounds;
            if (WATCH_Violations() == 0)
            {
                WATCH_ForgetLog();
            }
        }
        // A format worker that outlived its handle ends on its own.
        EXPECT_TRUE(TEST_WaitFor([&] { return PROCESS_ThreadCount() <= s32Threads; }, 30000)) << "a thread is left";
        for (STRESS_CARD *pCard : vecCards)
        {
            EXPECT_EQ(0, pCard->Running());
        }
    }
    EXPECT_EQ(s32Descriptors, PROCESS_DescriptorCount());
    WATCH_End();
    fprintf(stderr, "[  figures ] %d rounds: %s\n", s32Rounds, WATCH_CountsText().c_str());
    EXPECT_GT(s32Rounds, 0);
    EXPECT_GT(WATCH_Counted(WATCH_E_FRAMES), 0);
    EXPECT_EQ(0, WATCH_Violations());
    if (HasFailure())
    {
        WATCH_ShowLog();
    }
}

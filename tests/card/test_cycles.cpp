// Cards come and go while two sessions of each record and a third thread plays back.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "card/sim/guard.h"
#include "card/sim/loop.h"
#include "pump.h"
#include "rig.h"
#include "support/card.h"

using namespace libquarrin;

namespace
{

// One call may take as long as a few commands of a busy machine, and not longer.
constexpr int64_t CALL_LIMIT_MS = 20000 * TEST_SLOW;
constexpr int32_t CARDS = 5;

/// How the card goes in one cycle.
enum CYCLE_E : int32_t
{
    CYCLE_E_WRITTEN,  ///< pulled; what was written is on it
    CYCLE_E_CUT,      ///< pulled; what was not synced is lost
    CYCLE_E_BARE,     ///< the same, and the dead mount is the library's to take off
    CYCLE_E_SPURIOUS, ///< the kernel says that it went, and later that it came, and it was there all the time
    CYCLE_E_COUNT
};

/// Plays back whatever is there, without a break.
class REPLAYER
{
public:
    explicit REPLAYER(tagQN_HANDLER_S *pHandle, uint32_t u32Seed) : m_pHandle(pHandle), m_random(u32Seed)
    {
        m_thread = std::thread(
            [this]
            {
                while (m_bRun)
                {
                    PlayOne();
                    TEST_SleepMs(5);
                }
            });
    }
    ~REPLAYER()
    {
        m_bRun = false;
        m_thread.join();
    }
    REPLAYER(const REPLAYER &) = delete;
    REPLAYER &operator=(const REPLAYER &) = delete;

    int64_t Frames() const
    {
        return m_s64Frames;
    }

private:
    void PlayOne()
    {
        std::vector<tagQN_FILE_INFO_S> vecFiles;
        uint32_t u32Result = 0;
        RIG_Timed("QN_ReplayListFile", [&] { u32Result = QN_ReplayListFile(m_pHandle, QN_VOLUME_ID_E_0, &vecFiles); });
        if (u32Result != 0 || vecFiles.empty())
        {
            return;
        }
        tagQN_REPLAY_HANDLER_S *pReplay = nullptr;
        const tagQN_FILE_INFO_S &stInfo = vecFiles[m_random() % vecFiles.size()];
        RIG_Timed("QN_ReplayOpen",
                  [&] { u32Result = QN_ReplayOpen(m_pHandle, stInfo, tagQN_REPLAY_PARAM_S(), pReplay); });
        if (u32Result != 0)
        {
            return; // pulled meanwhile, or a file in progress that has no header yet
        }
        for (int32_t i = 0; i < 60 && Read(pReplay); ++i)
        {
            m_s64Frames += 1;
        }
        RIG_Timed("QN_ReplaySeekTime", [&] { QN_ReplaySeekTime(pReplay, 0); });
        RIG_Timed("QN_ReplayClose", [&] { EXPECT_EQ(0, QN_ReplayClose(pReplay)); });
    }

    static bool Read(tagQN_REPLAY_HANDLER_S *pReplay)
    {
        uint8_t *pu8Data = nullptr;
        uint32_t u32Size = 0;
        uint64_t u64Pts = 0;
        bool bKey = false;
        bool bVideo = false;
        uint32_t u32Result = 0;
        RIG_Timed("QN_ReplayReadFrame",
                  [&] { u32Result = QN_ReplayReadFrame(pReplay, &pu8Data, &u32Size, &u64Pts, &bKey, &bVideo); });
        if (u32Result == 0)
        {
            QN_ReplayFreeFrame(pReplay, pu8Data);
        }
        return u32Result == 0;
    }

    tagQN_HANDLER_S *m_pHandle;
    std::mt19937 m_random;
    std::atomic<int64_t> m_s64Frames{0};
    std::atomic<bool> m_bRun{true};
    std::thread m_thread;
};

/// One card going through its cycles.
class CYCLER
{
public:
    CYCLER(int32_t s32Card, uint32_t u32Seed) : m_s32Card(s32Card), m_random(u32Seed)
    {
    }

    void Run(int32_t s32Cycles)
    {
        m_rig.Init();
        ASSERT_TRUE(m_rig.WaitListening());
        m_upReplayer = std::make_unique<REPLAYER>(m_rig.pHandle, m_random());
        for (int32_t i = 0; i < s32Cycles && !::testing::Test::HasFailure(); ++i)
        {
            const std::string strWhere = "card " + std::to_string(m_s32Card) + ", cycle " + std::to_string(i);
            SCOPED_TRACE(strWhere);
            Cycle();
            s32Done += 1;
        }
        CheckOld();
        m_apPump[0].reset();
        m_apPump[1].reset();
        s64Replayed = m_upReplayer->Frames();
        m_upReplayer.reset();
        m_rig.Destroy();
    }

    const CARD &Card() const
    {
        return m_rig.card;
    }

    int32_t s32Done = 0;
    int32_t s32Files = 0;    ///< finished before a pull and found whole
    int64_t s64Replayed = 0; ///< frames that were played back

private:
    void Cycle()
    {
        ASSERT_TRUE(ComeIn());
        ASSERT_NO_FATAL_FAILURE(CheckFiles());
        ASSERT_NO_FATAL_FAILURE(Record());
        m_enCycle = static_cast<CYCLE_E>(m_random() % CYCLE_E_COUNT);
        if (m_enCycle == CYCLE_E_CUT || m_enCycle == CYCLE_E_BARE)
        {
            Sync();
        }
        m_vecFinished = m_rig.Finished();
        ASSERT_TRUE(m_apPump[m_random() % 2]->WaitWritten(static_cast<int64_t>(m_random() % 30)));
        ASSERT_NO_FATAL_FAILURE(GoOut());
        if (m_random() % 4 == 0)
        {
            m_apPump[m_random() % 2].reset(); // a session made anew after some of the pulls
        }
    }

    bool ComeIn()
    {
        const bool bIn = m_enCycle == CYCLE_E_SPURIOUS && m_bWasIn ? m_rig.card.Announce("add") : m_rig.card.In();
        m_bWasIn = true;
        return bIn && m_rig.WaitFor(QN_STATE_E_MOUNTED) && m_rig.WaitIdle() && m_rig.Mounts() == 1;
    }

    // What was finished before the pull is there, whole; then everything makes room.
    void CheckFiles()
    {
        for (const std::string &strPath : m_vecFinished)
        {
            EXPECT_TRUE(TEST_Exists(strPath)) << strPath << " is gone, kind " << m_enCycle;
            EXPECT_EQ("", PUMP::WhatIsWrong(strPath)) << "kind " << m_enCycle;
            s32Files += 1;
        }
        m_vecFinished.clear();
        for (const std::string &strName : TEST_List(m_rig.Folder()))
        {
            unlink((m_rig.Folder() + "/" + strName).c_str());
        }
        CheckOld();
        if (!m_bOld)
        {
            TEST_Touch(OldFile(), OldText());
            Sync();
            m_bOld = true;
        }
    }

    // A file of the first cycle is never harmed.
    void CheckOld() const
    {
        if (m_bOld && m_rig.State() == QN_STATE_E_MOUNTED)
        {
            EXPECT_EQ(OldText(), TEST_ReadFile(OldFile()));
        }
    }

    std::string OldFile() const
    {
        return m_rig.card.MountDir() + "/event/old";
    }

    static std::string OldText()
    {
        return std::string(100000, 'o');
    }

    void Sync() const
    {
        const int s32Dir = open(m_rig.card.MountDir().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        EXPECT_EQ(0, syncfs(s32Dir));
        close(s32Dir);
    }

    // Both sessions record, and each splits once.
    void Record()
    {
        constexpr QN_FILE_FMT_E FORMATS[4] = {QN_FILE_FMT_E_MKV, QN_FILE_FMT_E_TS, QN_FILE_FMT_E_MP4,
                                              QN_FILE_FMT_E_MOV};
        for (size_t i = 0; i < 2; ++i)
        {
            if (m_apPump[i] == nullptr)
            {
                m_apPump[i] =
                    std::make_unique<PUMP>(m_rig.pHandle, FORMATS[m_random() % 4], i == 0, i == 0 ? "first" : "second");
                ASSERT_NE(nullptr, m_apPump[i]->pSession);
            }
            // A remove@ may have come twice: the second one marks also a session that was stopped after the first.
            m_apPump[i]->Stop();
            ASSERT_EQ(0u, m_apPump[i]->Start());
        }
        for (const std::unique_ptr<PUMP> &upPump : m_apPump)
        {
            ASSERT_TRUE(upPump->WaitWritten(10 + static_cast<int64_t>(m_random() % 20)));
            const std::string strKey = upPump->Split();
            ASSERT_NE("", strKey);
            ASSERT_TRUE(TEST_WaitFor([&] { return IsFinished(strKey); }, RIG_WAIT_MS)) << strKey;
            // A file that is split off in the second of its name gets its final name first and its trailer then.
            ASSERT_TRUE(m_rig.WaitIdle());
        }
    }

    bool IsFinished(const std::string &strKey) const
    {
        for (const std::string &strPath : m_rig.Finished())
        {
            if (strPath.rfind(m_rig.Folder() + "/" + strKey, 0) == 0)
            {
                return true;
            }
        }
        return false;
    }

    void GoOut()
    {
        if (m_enCycle == CYCLE_E_SPURIOUS)
        {
            ASSERT_TRUE(m_rig.card.Announce("remove"));
        }
        else
        {
            constexpr CARD_PULL_E PULLS[] = {CARD_PULL_WRITTEN, CARD_PULL_CUT, CARD_PULL_BARE};
            ASSERT_TRUE(m_rig.card.Out(PULLS[m_enCycle]));
        }
        if (m_random() % 4 == 0)
        {
            StopBoth(); // some hosts notice before the library does
        }
        ASSERT_TRUE(m_rig.WaitFor(QN_STATE_E_UNPLUGIN));
        StopBoth();
        for (const std::unique_ptr<PUMP> &upPump : m_apPump)
        {
            ASSERT_EQ(QN_RECORD_STATE_IDLE, upPump->pSession->enRecordState.load());
        }
        if (m_enCycle != CYCLE_E_SPURIOUS)
        {
            ASSERT_EQ(0, m_rig.Mounts()) << "kind " << m_enCycle;
            ASSERT_TRUE(m_rig.card.Gone(RIG_WAIT_MS)) << "something keeps the card's files open";
        }
    }

    void StopBoth()
    {
        for (const std::unique_ptr<PUMP> &upPump : m_apPump)
        {
            upPump->Stop();
        }
    }

    int32_t m_s32Card;
    std::mt19937 m_random;
    CARD_RIG m_rig;
    std::unique_ptr<REPLAYER> m_upReplayer;
    std::unique_ptr<PUMP> m_apPump[2];
    CYCLE_E m_enCycle = CYCLE_E_WRITTEN;
    bool m_bWasIn = false;
    bool m_bOld = false;
    std::vector<std::string> m_vecFinished;
};

class CardCycles : public CARD_REAL
{
};

} // namespace

TEST_F(CardCycles, NothingHangsIsLeftOrIsLostOverManyPulls)
{
    const int32_t s32Cycles = RIG_Number("QUARRIN_CYCLES", 10);
    const uint32_t u32Seed = static_cast<uint32_t>(RIG_Number("QUARRIN_SEED", 1));
    const PROCESS_LIMIT limit(120 + 12 * s32Cycles / CARDS);
    GUARD_Start(); // its pipe stays for the program's life
    (void)TEST_EncodeH264();
    (void)TEST_EncodeAac();
    const int32_t s32Threads = PROCESS_ThreadCount();
    const int32_t s32Descriptors = PROCESS_DescriptorCount();
    std::vector<std::string> vecPlaces; // of the cards: their directories and devices
    const auto begin = std::chrono::steady_clock::now();

    int32_t s32Done = 0;
    int32_t s32Files = 0;
    int64_t s64Replayed = 0;
    {
        std::vector<std::unique_ptr<CYCLER>> vecCyclers;
        std::vector<std::thread> vecThreads;
        for (int32_t i = 0; i < CARDS; ++i)
        {
            vecCyclers.push_back(std::make_unique<CYCLER>(i, u32Seed + static_cast<uint32_t>(i)));
            vecPlaces.push_back(vecCyclers.back()->Card().Dir());
            vecPlaces.push_back(vecCyclers.back()->Card().Device());
            const int32_t s32Share = s32Cycles / CARDS + (i < s32Cycles % CARDS ? 1 : 0);
            vecThreads.emplace_back([&vecCyclers, i, s32Share] { vecCyclers[static_cast<size_t>(i)]->Run(s32Share); });
        }
        for (std::thread &thread : vecThreads)
        {
            thread.join();
        }
        for (const std::unique_ptr<CYCLER> &upCycler : vecCyclers)
        {
            s32Done += upCycler->s32Done;
            s32Files += upCycler->s32Files;
            s64Replayed += upCycler->s64Replayed;
        }
    }

    const auto end = std::chrono::steady_clock::now();
    const double dSeconds = std::chrono::duration<double>(end - begin).count();
    RIG_Say(
        "seed %u: %d cycles on %d cards in %.0f s, %.1f s each; %d finished files found whole, %lld frames replayed",
        u32Seed, s32Done, CARDS, dSeconds, dSeconds * CARDS / std::max(s32Done, 1), s32Files,
        static_cast<long long>(s64Replayed));
    RIG_Say("longest calls: %s", RIG_TimesText().c_str());
    EXPECT_EQ(s32Cycles, s32Done);
    EXPECT_GE(s32Files, s32Cycles - CARDS);
    EXPECT_GT(s64Replayed, 0);
    EXPECT_LT(RIG_LongestMs(), CALL_LIMIT_MS);
    EXPECT_TRUE(TEST_WaitFor([&] { return PROCESS_ThreadCount() == s32Threads; })) << PROCESS_ThreadCount();
    EXPECT_EQ(s32Descriptors, PROCESS_DescriptorCount());
    for (const std::string &strPlace : vecPlaces)
    {
        EXPECT_FALSE(LOOP_HasMountBelow(strPlace)) << strPlace;
        EXPECT_FALSE(TEST_Exists(strPlace)) << strPlace;
    }
}

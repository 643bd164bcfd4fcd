// The process killed at any moment while it records with splits.

#include <cstdlib>
#include <random>

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "recorder.h"
#include "support/card.h"
#include "verdict.h"

using namespace libquarrin;

static constexpr uint32_t HELD_BACK = 3;        // frames that FFmpeg holds back to bring two streams in order
static constexpr uint32_t CLUSTER_LEAST = 4096; // Matroska begins no cluster before the last one has this size
static constexpr uint32_t TS_LOST_MOST = 3;
static constexpr uint32_t SILENCE_MOST = 10 * RECORDER_FPS + 1; // FFmpeg waits until more than 10 s lie between

class Killed : public ::testing::TestWithParam<QN_FILE_FMT_E>
{
protected:
    void Look(const RECORDER_PARAM_S &stParam, const RECORDER_LOG_S &stLog)
    {
        const std::vector<VERDICT_FILE_S> vecFiles = VERDICT_Look(stParam.strMount + "/rec", stLog);
        EXPECT_EQ("", VERDICT_Missing(vecFiles, stLog));
        for (const VERDICT_FILE_S &stFile : vecFiles)
        {
            SCOPED_TRACE(stFile.strPath);
            if (stFile.bFinal)
            {
                EXPECT_TRUE(stFile.bNoted);
                EXPECT_EQ(stFile.u32GivenVideo, stFile.u32FoundVideo);
                EXPECT_EQ(stFile.u32GivenAudio, stFile.u32FoundAudio);
                m_stWhole.Add(1);
            }
            else
            {
                LookAtUnfinished(stParam, stFile, stLog);
            }
        }
    }

    void LookAtUnfinished(const RECORDER_PARAM_S &stParam, const VERDICT_FILE_S &stFile, const RECORDER_LOG_S &stLog)
    {
        m_stLostVideo.Add(stFile.LostVideo());
        m_stLostAudio.Add(stFile.LostAudio());
        const uint32_t u32Held = stParam.bAudio ? HELD_BACK : 0;
        if (stParam.enFormat == QN_FILE_FMT_E_MKV)
        {
            const bool bGroup = stFile.LostVideo() <= RECORDER_GOP + u32Held;
            EXPECT_TRUE(bGroup || VERDICT_BytesBeforeLastGroup(stFile, stLog) <= CLUSTER_LEAST)
                << stFile.LostVideo() << " pictures are lost";
        }
        else if (stParam.enFormat == QN_FILE_FMT_E_TS)
        {
            EXPECT_LE(stFile.LostVideo(), TS_LOST_MOST);
        }
        // MP4 and MOV: nothing can be read before their trailer.
    }

    FIGURE_S m_stWhole;
    FIGURE_S m_stLostVideo;
    FIGURE_S m_stLostAudio;
};

TEST_P(Killed, LeavesFinishedFilesWholeAndLosesLittleOfTheOther)
{
    const uint32_t u32Seed = SEED();
    const char *pszExt = QN_STORAGE_FmtType2FileExt(GetParam());
    const int32_t s32Points = POINTS(12);
    for (int32_t i = 0; i < s32Points; i++)
    {
        const uint32_t u32Point = u32Seed + static_cast<uint32_t>(i);
        SCOPED_TRACE("replay: QUARRIN_SEED=" + std::to_string(u32Point) +
                     " QUARRIN_POINTS=1 test_reliability --gtest_filter='*Killed*/" + pszExt + "'");
        std::mt19937 random(u32Point);
        TEMP_DIR dir;
        ASSERT_EQ(0, mkdir((dir.strPath + "/rec").c_str(), 0700));
        RECORDER_PARAM_S stParam;
        stParam.strMount = dir.strPath;
        stParam.enFormat = GetParam();
        stParam.bAudio = random() % 2 == 0;
        stParam.u32SplitSeconds = 5 + static_cast<uint32_t>(random() % 6);
        stParam.u32KillFrame = 1 + static_cast<uint32_t>(random() % 700);
        stParam.u32KillNs = static_cast<uint32_t>(random() % 300000);
        RECORDER recorder(stParam);
        ASSERT_TRUE(recorder.WaitKilled());
        ASSERT_FALSE(recorder.Log().bFailed);
        Look(stParam, recorder.Log());
        if (HasFailure())
        {
            return;
        }
    }
    FIGURES_Say("killed, %s: %lld finished files whole; of files in progress, pictures lost: %s; audio frames lost: %s",
                pszExt, static_cast<long long>(m_stWhole.s64Count), m_stLostVideo.Text().c_str(),
                m_stLostAudio.Text().c_str());
}

INSTANTIATE_TEST_SUITE_P(Each, Killed,
                         ::testing::Values(QN_FILE_FMT_E_MKV, QN_FILE_FMT_E_TS, QN_FILE_FMT_E_MP4, QN_FILE_FMT_E_MOV),
                         [](const auto &stInfo) { return std::string(QN_STORAGE_FmtType2FileExt(stInfo.param)); });

class KilledInSilence : public ::testing::TestWithParam<QN_FILE_FMT_E>
{
};

// An audio stream that is enabled and delivers nothing: FFmpeg waits for it before it writes a picture.
TEST_P(KilledInSilence, LosesWhatFFmpegHoldsBackForTheSilentStream)
{
    FIGURE_S stLost;
    const int32_t s32Points = POINTS(2);
    for (int32_t i = 0; i < s32Points; i++)
    {
        std::mt19937 random(SEED() + static_cast<uint32_t>(i));
        TEMP_DIR dir;
        ASSERT_EQ(0, mkdir((dir.strPath + "/rec").c_str(), 0700));
        RECORDER_PARAM_S stParam;
        stParam.strMount = dir.strPath;
        stParam.enFormat = GetParam();
        stParam.bAudio = true;
        stParam.bSilent = true;
        stParam.u32SplitSeconds = 3600;
        stParam.u32KillFrame = 1000 + static_cast<uint32_t>(random() % 500);
        RECORDER recorder(stParam);
        ASSERT_TRUE(recorder.WaitKilled());
        for (const VERDICT_FILE_S &stFile : VERDICT_Look(dir.strPath + "/rec", recorder.Log()))
        {
            EXPECT_LE(stFile.LostVideo(), SILENCE_MOST + RECORDER_GOP)
                << "QUARRIN_SEED=" << SEED() + static_cast<uint32_t>(i);
            stLost.Add(stFile.LostVideo());
        }
    }
    EXPECT_EQ(s32Points, stLost.s64Count);
    FIGURES_Say("killed with a silent audio stream, %s: pictures lost: %s", QN_STORAGE_FmtType2FileExt(GetParam()),
                stLost.Text().c_str());
}

INSTANTIATE_TEST_SUITE_P(Each, KilledInSilence, ::testing::Values(QN_FILE_FMT_E_MKV, QN_FILE_FMT_E_TS),
                         [](const auto &stInfo) { return std::string(QN_STORAGE_FmtType2FileExt(stInfo.param)); });

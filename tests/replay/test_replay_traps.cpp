// Replays and a card that goes, and files that are broken.

#include "replay_fixture.h"

#include <atomic>
#include <cstring>
#include <random>
#include <vector>

#include <dlfcn.h>

extern "C"
{
#include <libavcodec/packet.h>
}

#include "support/process.h"

using namespace libquarrin;

static std::atomic<const uint8_t *> s_pu8Watched{nullptr}; // bytes of a frame
static std::atomic<int32_t> s_s32Freed{0};                 // how often they were freed

extern "C" void av_packet_free(AVPacket **ppPacket)
{
    static const auto s_pfnReal = reinterpret_cast<void (*)(AVPacket **)>(dlsym(RTLD_NEXT, "av_packet_free"));
    if (ppPacket != nullptr && *ppPacket != nullptr && (*ppPacket)->data != nullptr &&
        (*ppPacket)->data == s_pu8Watched)
    {
        s_s32Freed += 1;
    }
    s_pfnReal(ppPacket);
}

class ReplayTraps : public REPLAY_TEST
{
protected:
    // Reads to the end or to an error, frame by frame; the number of frames.
    static int32_t ReadAll(tagQN_REPLAY_HANDLER_S *pReplay)
    {
        int32_t s32Frames = 0;
        uint8_t *pu8Data = nullptr;
        uint32_t u32Size = 0;
        uint64_t u64Pts = 0;
        bool bKey = false;
        bool bVideo = false;
        while (QN_ReplayReadFrame(pReplay, &pu8Data, &u32Size, &u64Pts, &bKey, &bVideo) == 0)
        {
            ++s32Frames;
            QN_ReplayFreeFrame(pReplay, pu8Data);
        }
        return s32Frames;
    }

    PROCESS_LIMIT m_limit{120};
};

TEST_F(ReplayTraps, AnUnplugClosesTheReaderAndKeepsTheReplay)
{
    tagQN_REPLAY_HANDLER_S *pReplay = Open(Clip());
    FAKE_PLATFORM_OnCommand(
        [this](const std::string &strCommand)
        {
            if (strCommand.find("umount") == 0)
            {
                EXPECT_TRUE(PROCESS_DescriptorsBelow(m_strMount).empty());
            }
            return 0;
        });
    EXPECT_EQ(0, QN_EVENT_HandleHotplugOut(m_pHandle));
    EXPECT_EQ(1, FAKE_PLATFORM_CommandCount("umount"));
    EXPECT_EQ(nullptr, pReplay->pReader);
    EXPECT_EQ(1u, m_pHandle->lstReplay.size());
    EXPECT_EQ(8u, QN_ReplaySeekTime(pReplay, 0));
    EXPECT_EQ(0, QN_ReplayClose(pReplay));
    EXPECT_TRUE(m_pHandle->lstReplay.empty());
    FAKE_PLATFORM_OnCommand(nullptr);
}

// The host learns of the pull with its next call; until then it may be decoding the frame.
TEST_F(ReplayTraps, AnUnplugLeavesTheFrameThatIsOutUntilTheReplayIsClosed)
{
    tagQN_REPLAY_HANDLER_S *apReplay[2] = {Open(Clip()), Open(Clip())};
    uint8_t *apu8Data[2] = {};
    std::vector<uint8_t> avecCopy[2];
    for (int32_t i = 0; i < 2; ++i)
    {
        uint32_t u32Size = 0;
        uint64_t u64Pts = 0;
        bool bKey = false;
        bool bVideo = false;
        ASSERT_EQ(0u, QN_ReplayReadFrame(apReplay[i], &apu8Data[i], &u32Size, &u64Pts, &bKey, &bVideo));
        avecCopy[i].assign(apu8Data[i], apu8Data[i] + u32Size);
        ASSERT_LT(0u, u32Size);
    }
    s_pu8Watched = apu8Data[0];
    s_s32Freed = 0;
    EXPECT_EQ(0, QN_EVENT_HandleHotplugOut(m_pHandle));
    EXPECT_EQ(8u, QN_ReplayFreeFrame(apReplay[0], apu8Data[0]));
    EXPECT_EQ(0, s_s32Freed);
    for (int32_t i = 0; i < 2; ++i)
    {
        EXPECT_EQ(nullptr, apReplay[i]->pReader);
        EXPECT_EQ(0, memcmp(apu8Data[i], avecCopy[i].data(), avecCopy[i].size()));
    }
    EXPECT_EQ(0, QN_ReplayClose(apReplay[0]));
    EXPECT_EQ(1, s_s32Freed);
    s_pu8Watched = nullptr;
    EXPECT_EQ(0, memcmp(apu8Data[1], avecCopy[1].data(), avecCopy[1].size()));
    EXPECT_EQ(0u, QN_Destroy(m_pHandle)); // closes the other one
}

// A replay keeps one frame for the host; one of a reader that came later goes with its reader.
TEST_F(ReplayTraps, ASecondUnplugKeepsNoSecondFrame)
{
    tagQN_REPLAY_HANDLER_S *pReplay = Open(Clip());
    uint8_t *apu8Data[2] = {};
    std::vector<uint8_t> vecCopy;
    for (int32_t i = 0; i < 2; ++i)
    {
        uint32_t u32Size = 0;
        uint64_t u64Pts = 0;
        bool bKey = false;
        bool bVideo = false;
        ASSERT_EQ(0u, QN_ReplayReadFrame(pReplay, &apu8Data[i], &u32Size, &u64Pts, &bKey, &bVideo));
        if (i == 0)
        {
            vecCopy.assign(apu8Data[0], apu8Data[0] + u32Size);
        }
        s_pu8Watched = apu8Data[1];
        s_s32Freed = 0;
        EXPECT_EQ(0, QN_EVENT_HandleHotplugOut(m_pHandle));
        EXPECT_EQ(i, s_s32Freed);
        pReplay->pReader = // as a host's that opens it again behind the library's back
            FFMUXER_ReadOpen(&pReplay->stParam, pReplay->stFileInfo.strPath.c_str(), QN_FILE_FMT_E_TS);
    }
    s_pu8Watched = nullptr;
    EXPECT_EQ(0, memcmp(apu8Data[0], vecCopy.data(), vecCopy.size()));
    EXPECT_EQ(0, QN_ReplayClose(pReplay));
}

static int32_t CloseByWayOfTheHost(void *pReader)
{
    return FFMUXER_ReadClose(pReader);
}

TEST_F(ReplayTraps, AnUnplugLeavesTheFrameThatIsOutBehindATableOfTheHostToo)
{
    tagQN_MEDIA_API_S stApi = qn_media_api_ffmpeg;
    stApi.pfnReadClose = CloseByWayOfTheHost;
    tagQN_REPLAY_HANDLER_S *pReplay = Open(Clip());
    pReplay->pstMediaApi = &stApi;
    uint8_t *pu8Data = nullptr;
    uint32_t u32Size = 0;
    uint64_t u64Pts = 0;
    bool bKey = false;
    bool bVideo = false;
    ASSERT_EQ(0u, QN_ReplayReadFrame(pReplay, &pu8Data, &u32Size, &u64Pts, &bKey, &bVideo));
    const std::vector<uint8_t> vecCopy(pu8Data, pu8Data + u32Size);
    EXPECT_EQ(0, QN_EVENT_HandleHotplugOut(m_pHandle));
    EXPECT_EQ(0, memcmp(pu8Data, vecCopy.data(), vecCopy.size()));
    EXPECT_EQ(0, QN_ReplayClose(pReplay));
}

/// A reader of a host's own: nothing in it is a frame of the library's.
struct OWN_READER_S
{
    uint64_t au64Words[8];
};

static int32_t CloseOwn(void *pReader)
{
    for (const uint64_t u64Word : static_cast<OWN_READER_S *>(pReader)->au64Words)
    {
        EXPECT_EQ(~uint64_t{0}, u64Word);
    }
    return 0;
}

TEST_F(ReplayTraps, AnUnplugLooksIntoNoReaderOfTheHost)
{
    OWN_READER_S stReader;
    memset(&stReader, 0xff, sizeof(stReader));
    tagQN_MEDIA_API_S stApi = {};
    stApi.pfnReadClose = CloseOwn;
    tagQN_REPLAY_HANDLER_S *pReplay = Open(Clip());
    FFMUXER_ReadClose(pReplay->pReader);
    pReplay->pstMediaApi = &stApi;
    pReplay->pReader = &stReader;
    EXPECT_EQ(0, QN_EVENT_HandleHotplugOut(m_pHandle));
    EXPECT_EQ(nullptr, pReplay->pReader);
    EXPECT_EQ(0, QN_ReplayClose(pReplay));
}

TEST_F(ReplayTraps, AnUnplugOfATableWithoutTheCloseSlotIsHarmless)
{
    tagQN_REPLAY_HANDLER_S *pReplay = Open(Clip());
    pReplay->pstMediaApi->pfnReadClose(pReplay->pReader);
    pReplay->pstMediaApi = &qn_media_api_wav;
    int32_t s32Reader = 0;
    pReplay->pReader = &s32Reader;
    EXPECT_EQ(0, QN_EVENT_HandleHotplugOut(m_pHandle));
    EXPECT_EQ(nullptr, pReplay->pReader);
    EXPECT_EQ(QN_STATE_E_UNPLUGIN, m_pHandle->enState.load());
}

TEST_F(ReplayTraps, ATableWithoutReadSlotsGivesEight)
{
    tagQN_REPLAY_HANDLER_S *pReplay = Open(Clip());
    pReplay->pstMediaApi->pfnReadClose(pReplay->pReader);
    pReplay->pstMediaApi = &qn_media_api_wav;
    int32_t s32Reader = 0;
    pReplay->pReader = &s32Reader;
    tagQN_METADATA_S stMetadata = {};
    EXPECT_EQ(8u, QN_ReplayReadMetadata(pReplay, &stMetadata));
    EXPECT_EQ(0, ReadAll(pReplay));
    EXPECT_EQ(8u, QN_ReplaySeekTime(pReplay, 0));
    EXPECT_EQ(0, QN_ReplayClose(pReplay));
}

TEST_F(ReplayTraps, ClosesAgainstUnplugsInALoopReturn)
{
    const std::string strPath = Clip();
    std::atomic<bool> bEnd{false};
    std::thread plugger(
        [&]
        {
            while (!bEnd)
            {
                QN_EVENT_HandleHotplugOut(m_pHandle);
                QN_EVENT_HandleHotplugIn(m_pHandle);
                std::this_thread::yield();
            }
        });
    int32_t s32Opened = 0;
    for (int32_t i = 0; i < 2000 && s32Opened < 40; ++i)
    {
        tagQN_REPLAY_HANDLER_S *pReplay = nullptr;
        if (QN_ReplayOpenByFilePath(m_pHandle, strPath, m_stReplayParam, pReplay) == 0)
        {
            ++s32Opened;
            ReadAll(pReplay);
            EXPECT_EQ(0, QN_ReplayClose(pReplay));
        }
    }
    bEnd = true;
    plugger.join();
    EXPECT_GT(s32Opened, 0);
    EXPECT_TRUE(m_pHandle->lstReplay.empty());
    EXPECT_TRUE(PROCESS_DescriptorsBelow(m_strMount).empty());
}

TEST_F(ReplayTraps, AnOpenDuringAnUnmountWaitsAndIsRefused)
{
    const std::string strPath = Clip();
    FAKE_PLATFORM_Stall("umount");
    std::thread unmounter([this] { EXPECT_EQ(0u, QN_StorageUnMount(m_pHandle)); });
    ASSERT_TRUE(FAKE_PLATFORM_WaitStalled());
    std::thread opener(
        [&]
        {
            tagQN_REPLAY_HANDLER_S *pReplay = nullptr;
            EXPECT_EQ(3u, QN_ReplayOpenByFilePath(m_pHandle, strPath, m_stReplayParam, pReplay));
            std::vector<tagQN_FILE_INFO_S> vecFiles;
            EXPECT_EQ(3u, QN_ReplayListFile(m_pHandle, QN_VOLUME_ID_E_0, &vecFiles));
        });
    TEST_SleepMs(10);
    EXPECT_TRUE(PROCESS_DescriptorsBelow(m_strMount).empty()) << "nothing is opened while the card is going";
    FAKE_PLATFORM_Release();
    unmounter.join();
    opener.join();
}

TEST_F(ReplayTraps, CallsOfSeveralThreadsOnOneReplayAreSerialised)
{
    tagQN_REPLAY_HANDLER_S *pReplay = Open(Clip());
    std::vector<std::thread> vecThreads;
    for (int32_t i = 0; i < 3; ++i)
    {
        vecThreads.emplace_back(
            [pReplay]
            {
                for (uint64_t j = 0; j < 50; ++j)
                {
                    tagQN_METADATA_S stMetadata = {};
                    EXPECT_EQ(0u, QN_ReplayReadMetadata(pReplay, &stMetadata));
                    EXPECT_EQ(64u, stMetadata.u32Width);
                    QN_ReplaySeekTime(pReplay, 0);
                }
            });
    }
    for (std::thread &thread : vecThreads)
    {
        thread.join();
    }
    EXPECT_EQ(0, QN_ReplayClose(pReplay));
}

TEST_F(ReplayTraps, TruncatedAndRandomFilesDoNoHarm)
{
    std::minstd_rand random(7);
    for (const int32_t s32Format : {0, 1, 2, 3})
    {
        const QN_FILE_FMT_E enFormat = static_cast<QN_FILE_FMT_E>(s32Format);
        const std::string strPath = Folder(0) + "/2024-03-01-08-15-00." + QN_STORAGE_FmtType2FileExt(enFormat);
        TEST_WriteClip(strPath, enFormat);
        const std::string strWhole = TEST_ReadFile(strPath);
        for (int32_t i = 0; i < 12; ++i)
        {
            std::string strBroken = strWhole.substr(0, random() % strWhole.size());
            for (int32_t j = 0; i % 2 == 1 && j < 20 && !strBroken.empty(); ++j)
            {
                strBroken[random() % strBroken.size()] = static_cast<char>(random());
            }
            TEST_Touch(strPath, strBroken);
            tagQN_REPLAY_HANDLER_S *pReplay = nullptr;
            const uint32_t u32Result = QN_ReplayOpenByFilePath(m_pHandle, strPath, m_stReplayParam, pReplay);
            EXPECT_TRUE(u32Result == 0 || u32Result == 7) << u32Result;
            EXPECT_EQ(u32Result == 0, pReplay != nullptr);
            if (pReplay != nullptr)
            {
                ReadAll(pReplay);
                QN_ReplaySeekTime(pReplay, 1);
                ReadAll(pReplay);
                EXPECT_EQ(0, QN_ReplayClose(pReplay));
            }
        }
    }
    EXPECT_TRUE(m_pHandle->lstReplay.empty());
    EXPECT_TRUE(PROCESS_DescriptorsBelow(m_strMount).empty());
}

// Memory that runs out in a host's call: the call says so and has done nothing, or it does its work all the same.

#include "session_fixture.h"

#include "support/failing_new.h"

using namespace libquarrin;

namespace
{

class NoMemory : public SESSION_TEST
{
protected:
    /// Every call with too little memory said so, and there were some; the one with enough had success.
    static void ExpectTold(const std::vector<uint32_t> &vecResults, uint32_t u32NoMemory = 6)
    {
        ASSERT_LE(2u, vecResults.size());
        EXPECT_EQ(std::vector<uint32_t>(vecResults.size() - 1, u32NoMemory),
                  std::vector<uint32_t>(vecResults.begin(), vecResults.end() - 1));
        EXPECT_EQ(0u, vecResults.back());
    }
};

} // namespace

TEST_F(NoMemory, ForASessionMakesNone)
{
    tagQN_RECORD_PARAM_S stParam = Param();
    tagQN_RECORD_HANDLER_S *pSession = nullptr;
    ExpectTold(TEST_FailEachNew(
        [&]
        {
            EXPECT_EQ(nullptr, pSession);
            EXPECT_TRUE(m_pHandle->lstRecord.empty());
            return QN_RecordInit(m_pHandle, &stParam, pSession);
        }));
    EXPECT_NE(nullptr, pSession);
    EXPECT_EQ(1u, m_pHandle->lstRecord.size());
}

TEST_F(NoMemory, ForAStartLeavesTheSessionIdle)
{
    tagQN_RECORD_HANDLER_S *pSession = Make();
    ExpectTold(TEST_FailEachNew(
        [&]
        {
            EXPECT_EQ(QN_RECORD_STATE_IDLE, pSession->enRecordState.load());
            EXPECT_EQ(0, FAKE_MEDIA_Opens());
            return QN_RecordStart(pSession, "a comment that takes memory of its own");
        }));
    EXPECT_EQ(QN_RECORD_STATE_WAIT_KEY, pSession->enRecordState.load());
    EXPECT_EQ(1, FAKE_MEDIA_Opens());
    EXPECT_EQ(0u, QN_RecordStop(pSession));
}

TEST_F(NoMemory, ForAFrameDropsIt)
{
    tagQN_RECORD_HANDLER_S *pSession = Run();
    ASSERT_TRUE(WaitForIdle());
    std::vector<uint8_t> vecFrame(8, 1);
    const std::vector<uint32_t> vecResults =
        TEST_FailEachNew([&] { return QN_RecordWriteFrame(pSession, vecFrame.data(), 8, 1000, 0, 1); });
    EXPECT_EQ(std::vector<uint32_t>(2, 0), vecResults); // its check is all that it takes memory for
    EXPECT_EQ(2u, FAKE_MEDIA_Writers()[0].vecFrames.size());
}

TEST_F(NoMemory, ForASplitKeepsTheFileUntilTheNextKeyFrame)
{
    tagQN_RECORD_HANDLER_S *pSession = Run(60, "a comment that takes memory of its own");
    TEST_WaitForNextSecond();
    Age(pSession, 100);
    std::vector<uint8_t> vecFrame(8, 1);
    const std::vector<uint32_t> vecResults = TEST_FailEachNew(
        [&]
        {
            EXPECT_EQ(1, FAKE_MEDIA_Opens());
            return QN_RecordWriteFrame(pSession, vecFrame.data(), 8, 1000, 1, 1);
        });
    EXPECT_LE(5u, vecResults.size());
    EXPECT_EQ(std::vector<uint32_t>(vecResults.size(), 0), vecResults);
    ASSERT_EQ(2, FAKE_MEDIA_Opens());
    // The first file has its first frame and those of the calls that could not split, but for the first call's.
    EXPECT_EQ(vecResults.size() - 1, FAKE_MEDIA_Writers()[0].vecFrames.size());
    EXPECT_EQ(1u, FAKE_MEDIA_Writers()[1].vecFrames.size());
    EXPECT_TRUE(WaitForIdle());
    EXPECT_EQ(1, FAKE_MEDIA_Writers()[0].s32Closes);
    EXPECT_EQ(0u, QN_RecordStop(pSession));
    EXPECT_TRUE(m_pHandle->lstRecord.front()->strFilePath.find("unknown") != std::string::npos);
}

TEST_F(NoMemory, AtTheEndOfAFileCostsItsNameAtMost)
{
    for (const bool bAync : {false, true})
    {
        tagQN_RECORD_HANDLER_S *pSession = Make();
        pSession->strNameTag = "a comment that takes memory of its own";
        const std::string strFinal = FinalPath(1000, 1010, pSession->strNameTag);
        const std::string strPath = Folder(0) + "/a-file-in-progress-with-a-long-name.mkv";
        int32_t s32Files = 0;
        int32_t s32Named = 0;
        const std::vector<uint32_t> vecResults = TEST_FailEachNew(
            [&]
            {
                void *pWriter = FAKE_MEDIA_Api()->pfnWriteOpen(&pSession->stParam, strPath.c_str());
                const uint32_t u32Result = bAync ? QN_RecordClosePostProcessAync(pSession, pWriter, strPath, 1000, 1010)
                                                 : QN_RecordClosePostProcess(pSession, pWriter, strPath, 1000, 1010);
                EXPECT_EQ(0, FAKE_MEDIA_OpenWriters());
                s32Files += 1;
                s32Named += rename(strFinal.c_str(), strPath.c_str()) == 0 ? 1 : 0;
                EXPECT_EQ(0, remove(strPath.c_str())); // under the one name or the other
                return u32Result;
            });
        EXPECT_EQ(std::vector<uint32_t>(vecResults.size(), 0), vecResults);
        EXPECT_LT(0, s32Named);
        EXPECT_LT(s32Named, s32Files);
        EXPECT_TRUE(FAKE_PLATFORM_Logged("no memory for the final name of " + strPath));
        FAKE_PLATFORM_Reset();
        EXPECT_EQ(0u, QN_RecordDestroy(pSession));
    }
}

TEST_F(NoMemory, ForTheCheckOfADestroyLeavesItOut)
{
    for (int32_t i = 1; i <= 3; ++i)
    {
        tagQN_RECORD_HANDLER_S *pSession = Make();
        (void)TEST_WithFailingNew(i, [&] { EXPECT_EQ(0u, QN_RecordDestroy(pSession)); });
        EXPECT_EQ(nullptr, pSession);
        EXPECT_TRUE(m_pHandle->lstRecord.empty());
    }
}

TEST_F(NoMemory, ForASwitchOfDeletionChangesNothing)
{
    m_pHandle->astVolume[0].bAutoDelete = false;
    ExpectTold(TEST_FailEachNew(
        [&]
        {
            EXPECT_FALSE(m_pHandle->astVolume[0].bAutoDelete);
            return QN_RecordStorageUpdate(m_pHandle, QN_VOLUME_ID_E_0, 1);
        }));
    EXPECT_TRUE(m_pHandle->astVolume[0].bAutoDelete);
}

TEST_F(NoMemory, ForMovingAFileAsideRunsNoCommand)
{
    ExpectTold(TEST_FailEachNew(
        [&]
        {
            {
                const FAKES_OWN_NEW own;
                EXPECT_EQ(0, FAKE_PLATFORM_CommandCount("mv "));
            }
            return QN_RecordErrorFileClear(m_pHandle, QN_VOLUME_ID_E_0, "2024-03-01-08-15-00.To.unknown.ts");
        }));
    EXPECT_EQ(1, FAKE_PLATFORM_CommandCount("mv "));
    EXPECT_EQ(0u, QN_StorageUnMount(m_pHandle)); // no command counts as under way
}

TEST_F(NoMemory, ForUnitsGivesNone)
{
    std::vector<uint8_t> vecBytes = {0, 0, 0, 1, 0x67, 1, 2, 0, 0, 0, 1, 0x68, 1, 2, 0, 0, 0, 1, 0x65, 1, 2};
    const uint32_t u32Len = static_cast<uint32_t>(vecBytes.size());
    std::vector<std::pair<unsigned char *, int>> vecNalus;
    const std::vector<uint32_t> vecResults = TEST_FailEachNew(
        [&]
        {
            const auto u32Result = static_cast<uint32_t>(SPLIT_H26X_NALUS(vecBytes.data(), u32Len, vecNalus));
            EXPECT_EQ(u32Result, vecNalus.size());
            std::vector<std::pair<unsigned char *, int>>().swap(vecNalus); // its room would serve the next call
            return u32Result;
        });
    ASSERT_LE(2u, vecResults.size());
    EXPECT_EQ(3u, vecResults.back());
    EXPECT_EQ(0u, vecResults.front());
    tagQN_BYTES stPps = {};
    tagQN_BYTES stSps = {};
    ExpectTold(TEST_FailEachNew(
                   [&]
                   {
                       EXPECT_EQ(nullptr, stSps.pu8Data);
                       return static_cast<uint32_t>(QN_GetH26xInfo(vecBytes.data(), u32Len, false, &stPps, &stSps));
                   }),
               0xffffffffu);
    EXPECT_EQ(vecBytes.data(), stSps.pu8Data);
}

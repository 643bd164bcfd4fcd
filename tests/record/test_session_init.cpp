// Making record sessions, and the switch of automatic deletion.

#include "session_fixture.h"

#include <climits>

using namespace libquarrin;

class SessionInit : public SESSION_TEST
{
};

class StorageUpdate : public SESSION_TEST
{
};

TEST_F(SessionInit, RefusesNullsAndASetReferenceInThatOrder)
{
    tagQN_RECORD_PARAM_S stParam = Param();
    tagQN_RECORD_HANDLER_S *pSession = nullptr;
    EXPECT_EQ(1u, QN_RecordInit(nullptr, &stParam, pSession));
    EXPECT_EQ(1u, QN_RecordInit(nullptr, nullptr, pSession));
    EXPECT_EQ(2u, QN_RecordInit(m_pHandle, nullptr, pSession));
    EXPECT_EQ(nullptr, pSession);

    pSession = Make();
    tagQN_RECORD_HANDLER_S *const pBefore = pSession;
    EXPECT_EQ(2u, QN_RecordInit(m_pHandle, nullptr, pSession));
    EXPECT_EQ(1u, QN_RecordInit(m_pHandle, &stParam, pSession));
    EXPECT_EQ(pBefore, pSession);
    EXPECT_EQ(1u, m_pHandle->lstRecord.size());
}

TEST_F(SessionInit, NeedsAMountedCard)
{
    tagQN_RECORD_PARAM_S stParam = Param();
    stParam.enFormat = static_cast<QN_FILE_FMT_E>(4); // the state is looked at first
    for (int32_t s32State = 0; s32State < 4; ++s32State)
    {
        m_pHandle->enState = static_cast<QN_STATE_E>(s32State);
        tagQN_RECORD_HANDLER_S *pSession = nullptr;
        EXPECT_EQ(3u, QN_RecordInit(m_pHandle, &stParam, pSession)) << s32State;
        EXPECT_EQ(nullptr, pSession);
    }
    EXPECT_FALSE(FAKE_PLATFORM_Logged("Unsupport file format"));
    EXPECT_TRUE(m_pHandle->lstRecord.empty());
}

// Promised: hosts look at the session, not at the result.
TEST_F(SessionInit, AnswersAnUnknownContainerWithSuccessAndNoSession)
{
    for (const int32_t s32Format : {4, 5, 6, 7, 9, 11, INT_MAX})
    {
        tagQN_RECORD_PARAM_S stParam = Param();
        stParam.enFormat = static_cast<QN_FILE_FMT_E>(s32Format);
        tagQN_RECORD_HANDLER_S *pSession = nullptr;
        const std::string strText = "Unsupport file format=" + std::to_string(s32Format) + " for init record";
        const std::string strPrinted =
            TEST_Printed([&] { EXPECT_EQ(0u, QN_RecordInit(m_pHandle, &stParam, pSession)); });
        EXPECT_EQ(nullptr, pSession);
        EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(3, "QN_RecordInit", strText));
        EXPECT_TRUE(TEST_HasLine(strPrinted, "\\[ERROR\\]\\[QN_RecordInit:\\d+\\] " + strText)) << strPrinted;
    }
    EXPECT_TRUE(m_pHandle->lstRecord.empty());
}

// Promised: the test is a signed one.
TEST_F(SessionInit, TakesANegativeContainerForMatroska)
{
    tagQN_RECORD_PARAM_S stParam = Param();
    stParam.enFormat = static_cast<QN_FILE_FMT_E>(-1);
    tagQN_RECORD_HANDLER_S *pSession = Make(stParam);
    ASSERT_NE(nullptr, pSession);
    EXPECT_EQ(0u, QN_RecordStart(pSession, nullptr));
    EXPECT_EQ(".mkv", pSession->strFilePath.substr(pSession->strFilePath.size() - 4));
}

TEST_F(SessionInit, TakesAllFourContainers)
{
    for (int32_t s32Format = 0; s32Format < 4; ++s32Format)
    {
        tagQN_RECORD_PARAM_S stParam = Param();
        stParam.enFormat = static_cast<QN_FILE_FMT_E>(s32Format);
        EXPECT_NE(nullptr, Make(stParam)) << s32Format;
    }
    EXPECT_EQ(4u, m_pHandle->lstRecord.size());
}

TEST_F(SessionInit, AnswersADisabledVolumeWithSuccessAndNoSession)
{
    m_pHandle->astVolume[0].bEnable = 0;
    tagQN_RECORD_PARAM_S stParam = Param();
    stParam.enFormat = QN_FILE_FMT_E_MP4;
    tagQN_RECORD_HANDLER_S *pSession = nullptr;
    const std::string strPrinted = TEST_Printed([&] { EXPECT_EQ(0u, QN_RecordInit(m_pHandle, &stParam, pSession)); });
    EXPECT_EQ(nullptr, pSession);
    EXPECT_TRUE(m_pHandle->lstRecord.empty());
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(3, "QN_RecordInit", "Storage Volume for format=2 not init."));
    EXPECT_TRUE(TEST_HasLine(strPrinted, "\\[ERROR\\]\\[QN_RecordInit:\\d+\\] Storage Volume for format=2 not init\\."))
        << strPrinted;

    // The other volumes do not matter, and the container is looked at first.
    stParam.enFormat = static_cast<QN_FILE_FMT_E>(4);
    EXPECT_EQ(0u, QN_RecordInit(m_pHandle, &stParam, pSession));
    EXPECT_TRUE(FAKE_PLATFORM_Logged("Unsupport file format=4 for init record"));
    m_pHandle->astVolume[0].bEnable = 1;
    m_pHandle->astVolume[1].bEnable = 0;
    EXPECT_NE(nullptr, Make());
}

TEST_F(SessionInit, FillsTheSessionAndLinksIt)
{
    tagQN_RECORD_PARAM_S stParam = Param();
    stParam.stVideo.u32Width = 640;
    stParam.stAudio.u32Fps = 2;
    stParam.bAutoSplit = 1;
    stParam.u32SplitSeconds = 77;
    tagQN_RECORD_HANDLER_S *pSession = nullptr;
    ASSERT_EQ(0u, QN_RecordInit(m_pHandle, &stParam, pSession));
    ASSERT_NE(nullptr, pSession);
    EXPECT_EQ(m_pHandle, pSession->pstHandle);
    EXPECT_EQ(QN_VOLUME_ID_E_0, pSession->enVolumeId);
    EXPECT_EQ(640u, pSession->stParam.stVideo.u32Width);
    EXPECT_EQ(2u, pSession->stParam.stAudio.u32Fps);
    EXPECT_EQ(1, pSession->stParam.bAutoSplit);
    EXPECT_EQ(77u, pSession->stParam.u32SplitSeconds);
    EXPECT_EQ("", pSession->strNameTag);
    EXPECT_EQ("", pSession->strFilePath);
    EXPECT_EQ(QN_RECORD_STATE_IDLE, pSession->enRecordState.load());
    EXPECT_EQ(&qn_media_api_ffmpeg, pSession->pstMediaApi);
    EXPECT_EQ(nullptr, pSession->pWriter);
    ASSERT_EQ(0, pthread_mutex_trylock(&pSession->stMutex));
    pthread_mutex_unlock(&pSession->stMutex);

    tagQN_RECORD_HANDLER_S *pSecond = Make();
    EXPECT_EQ((std::list<tagQN_RECORD_HANDLER_S *>{pSession, pSecond}), m_pHandle->lstRecord);
    EXPECT_TRUE(Names().empty()) << "nothing is written before the start";
}

TEST_F(SessionInit, CopiesTheParameterSetsOfAVideoSession)
{
    tagQN_RECORD_PARAM_S stParam = Param();
    tagQN_RECORD_HANDLER_S *pSession = nullptr;
    {
        std::vector<uint8_t> vecSps = {0, 0, 0, 1, 0x67, 9};
        std::vector<uint8_t> vecPps = {0, 0, 0, 1, 0x68};
        stParam.stVideo.stSps = {vecSps.data(), static_cast<uint32_t>(vecSps.size())};
        stParam.stVideo.stPps = {vecPps.data(), static_cast<uint32_t>(vecPps.size())};
        pSession = Make(stParam);
    } // the caller's buffers are gone
    ASSERT_NE(nullptr, pSession);
    const tagQN_BYTES stSps = pSession->stParam.stVideo.stSps;
    const tagQN_BYTES stPps = pSession->stParam.stVideo.stPps;
    EXPECT_NE(stParam.stVideo.stSps.pu8Data, stSps.pu8Data);
    ASSERT_EQ(6u, stSps.u32Len);
    EXPECT_EQ(0x67, stSps.pu8Data[4]);
    ASSERT_EQ(5u, stPps.u32Len);
    EXPECT_EQ(0x68, stPps.pu8Data[4]);
    EXPECT_EQ(0u, QN_RecordDestroy(pSession));
}

TEST_F(SessionInit, LeavesTheParameterSetsOfASessionWithoutVideoToTheCaller)
{
    uint8_t au8Sps[4] = {1, 2, 3, 4};
    uint8_t au8Pps[2] = {5, 6};
    tagQN_RECORD_PARAM_S stParam = Param();
    stParam.stVideo.bEnable = 0;
    stParam.stVideo.stSps = {au8Sps, 4};
    stParam.stVideo.stPps = {au8Pps, 2};
    tagQN_RECORD_HANDLER_S *pSession = Make(stParam);
    ASSERT_NE(nullptr, pSession);
    EXPECT_EQ(au8Sps, pSession->stParam.stVideo.stSps.pu8Data);
    EXPECT_EQ(au8Pps, pSession->stParam.stVideo.stPps.pu8Data);
    EXPECT_EQ(0u, QN_RecordDestroy(pSession)); // would abort if it freed them
    EXPECT_EQ(4, au8Sps[3]);
}

TEST_F(StorageUpdate, RefusesANullHandleAndAnUnknownVolume)
{
    EXPECT_EQ(1u, QN_RecordStorageUpdate(nullptr, QN_VOLUME_ID_E_0, 1));
    StallDispatcher();
    m_pHandle->enStorageState = QN_STORAGE_STATE_E_FULL;
    for (const int32_t s32Volume : {-1, 3, INT_MIN, INT_MAX})
    {
        EXPECT_EQ(3u, QN_RecordStorageUpdate(m_pHandle, static_cast<QN_VOLUME_ID_E>(s32Volume), 1)) << s32Volume;
    }
    EXPECT_TRUE(Ring().empty());
    EXPECT_EQ(QN_STORAGE_STATE_E_FULL, m_pHandle->enStorageState.load());
}

TEST_F(StorageUpdate, ClearsTheFullStateAndPostsNothingWhenDeletionComesOn)
{
    StallDispatcher();
    m_pHandle->enStorageState = QN_STORAGE_STATE_E_FULL;
    m_pHandle->astVolume[1].bAutoDelete = false;
    EXPECT_EQ(0u, QN_RecordStorageUpdate(m_pHandle, QN_VOLUME_ID_E_1, 2)); // anything but 0 is true
    EXPECT_TRUE(m_pHandle->astVolume[1].bAutoDelete);
    EXPECT_EQ(QN_STORAGE_STATE_E_NORMAL, m_pHandle->enStorageState.load());
    EXPECT_TRUE(Ring().empty());
}

TEST_F(StorageUpdate, PostsAQuotaUpdateInAnyOtherCase)
{
    const struct
    {
        QN_STORAGE_STATE_E enState;
        tagBU_BOOL bAutoDelete;
        QN_VOLUME_ID_E enVolume;
    } astCases[] = {
        {QN_STORAGE_STATE_E_FULL, 0, QN_VOLUME_ID_E_0},
        {QN_STORAGE_STATE_E_NORMAL, 1, QN_VOLUME_ID_E_1},
        {QN_STORAGE_STATE_E_NORMAL, 0, QN_VOLUME_ID_E_2},
    };
    StallDispatcher();
    size_t posted = 0;
    for (const auto &stCase : astCases)
    {
        m_pHandle->enStorageState = stCase.enState;
        EXPECT_EQ(0u, QN_RecordStorageUpdate(m_pHandle, stCase.enVolume, stCase.bAutoDelete));
        EXPECT_EQ(stCase.bAutoDelete != 0, m_pHandle->astVolume[stCase.enVolume].bAutoDelete);
        EXPECT_EQ(stCase.enState, m_pHandle->enStorageState.load());
        const std::vector<tagQN_EVENT_SLOT_S> vecRing = Ring();
        ASSERT_EQ(++posted, vecRing.size());
        EXPECT_EQ(QN_EVENT_E_QUOTA_UPDATE, vecRing.back().enEvent);
        ASSERT_NE(nullptr, vecRing.back().spPayload);
        EXPECT_EQ(stCase.enVolume, *static_cast<QN_VOLUME_ID_E *>(vecRing.back().spPayload.get()));
    }
    FAKE_PLATFORM_Release();
    EXPECT_TRUE(FAKE_PLATFORM_WaitLogged("QN_EVENT_E_QUOTA_UPDATE"));
}

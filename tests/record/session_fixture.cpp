#include "session_fixture.h"

using namespace libquarrin;

void TEST_WaitForNextSecond()
{
    const time_t tNow = time(nullptr);
    TEST_WaitFor([tNow] { return time(nullptr) != tNow; });
}

void SESSION_TEST::SetUp()
{
    CARD_TEST::SetUp();
    FAKE_MEDIA_Reset();
    InitMounted();
}

void SESSION_TEST::TearDown()
{
    FAKE_MEDIA_Release();
    CARD_TEST::TearDown();
    for (const std::string &strViolation : FAKE_MEDIA_Violations())
    {
        ADD_FAILURE() << strViolation;
    }
    EXPECT_EQ(0, FAKE_MEDIA_OpenWriters()) << "writers that nobody closed";
    FAKE_MEDIA_Reset();
}

tagQN_RECORD_PARAM_S SESSION_TEST::Param()
{
    tagQN_RECORD_PARAM_S stParam = {};
    stParam.enFormat = QN_FILE_FMT_E_MKV;
    stParam.stVideo.bEnable = 1;
    stParam.stVideo.enCodec = QN_CODEC_H264;
    stParam.stAudio.bEnable = 1;
    stParam.stAudio.enCodec = QN_CODEC_AAC;
    return stParam;
}

tagQN_RECORD_HANDLER_S *SESSION_TEST::Make(tagQN_RECORD_PARAM_S stParam)
{
    tagQN_RECORD_HANDLER_S *pSession = nullptr;
    EXPECT_EQ(0u, QN_RecordInit(m_pHandle, &stParam, pSession));
    if (pSession != nullptr)
    {
        pSession->pstMediaApi = FAKE_MEDIA_Api();
    }
    return pSession;
}

tagQN_RECORD_HANDLER_S *SESSION_TEST::Make()
{
    return Make(Param());
}

tagQN_RECORD_HANDLER_S *SESSION_TEST::Start(int32_t s32Split, const char *pszTag)
{
    tagQN_RECORD_PARAM_S stParam = Param();
    stParam.bAutoSplit = s32Split >= 0 ? 1 : 0;
    stParam.u32SplitSeconds = static_cast<uint32_t>(s32Split);
    tagQN_RECORD_HANDLER_S *pSession = Make(stParam);
    EXPECT_EQ(0u, QN_RecordStart(pSession, pszTag));
    return pSession;
}

tagQN_RECORD_HANDLER_S *SESSION_TEST::Run(int32_t s32Split, const char *pszTag)
{
    tagQN_RECORD_HANDLER_S *pSession = Start(s32Split == 0 ? 1 : s32Split, pszTag);
    EXPECT_EQ(0u, Video(pSession, "first", true));
    pSession->stParam.u32SplitSeconds = static_cast<uint32_t>(s32Split);
    EXPECT_EQ(QN_RECORD_STATE_RUNNING, pSession->enRecordState.load());
    return pSession;
}

static uint32_t Write(tagQN_RECORD_HANDLER_S *pSession, const std::string &strBytes, bool bKey, bool bVideo,
                      uint64_t u64Pts)
{
    std::vector<uint8_t> vecData(strBytes.begin(), strBytes.end());
    vecData.push_back(0); // never empty, so that the pointer is not null
    return QN_RecordWriteFrame(pSession, vecData.data(), static_cast<uint32_t>(strBytes.size()), u64Pts, bKey ? 1 : 0,
                               bVideo ? 1 : 0);
}

uint32_t SESSION_TEST::Video(tagQN_RECORD_HANDLER_S *pSession, const std::string &strBytes, bool bKey, uint64_t u64Pts)
{
    return Write(pSession, strBytes, bKey, true, u64Pts);
}

uint32_t SESSION_TEST::Audio(tagQN_RECORD_HANDLER_S *pSession, const std::string &strBytes, bool bKey, uint64_t u64Pts)
{
    return Write(pSession, strBytes, bKey, false, u64Pts);
}

void SESSION_TEST::Age(tagQN_RECORD_HANDLER_S *pSession, int32_t s32Seconds)
{
    pthread_mutex_lock(&pSession->stMutex);
    pSession->tFileStart -= s32Seconds;
    if (pSession->tRunStart != 0)
    {
        pSession->tRunStart -= s32Seconds;
    }
    pthread_mutex_unlock(&pSession->stMutex);
}

std::string SESSION_TEST::SplitOff(tagQN_RECORD_HANDLER_S *pSession)
{
    Age(pSession, 60);
    const time_t tStart = pSession->tFileStart;
    pSession->strNameTag += "+";
    EXPECT_EQ(0u, Video(pSession, "next", true));
    return FinalPath(tStart, pSession->tFileStart, pSession->strNameTag);
}

void SESSION_TEST::SetState(tagQN_RECORD_HANDLER_S *pSession, int32_t s32State)
{
    pthread_mutex_lock(&pSession->stMutex);
    pSession->enRecordState = static_cast<QN_RECORD_STATE_E>(s32State);
    pthread_mutex_unlock(&pSession->stMutex);
}

void SESSION_TEST::StallDispatcher()
{
    ASSERT_TRUE(WaitForIdle());
    FAKE_PLATFORM_Stall("mkdir -p");
    QN_EVENT_PushEvent(m_pHandle, QN_EVENT_E_MOUNT_DONE, nullptr);
    ASSERT_TRUE(FAKE_PLATFORM_WaitStalled());
}

std::vector<tagQN_EVENT_SLOT_S> SESSION_TEST::Ring()
{
    std::vector<tagQN_EVENT_SLOT_S> vecSlots;
    pthread_mutex_lock(&m_pHandle->mutexEvent);
    for (uint32_t i = 0; i < m_pHandle->u32EventCount; ++i)
    {
        vecSlots.push_back(m_pHandle->astEventQueue[(m_pHandle->u32EventHead + i) % QN_EVENT_SLOTS]);
    }
    pthread_mutex_unlock(&m_pHandle->mutexEvent);
    return vecSlots;
}

void SESSION_TEST::FillRing()
{
    while (Ring().size() < QN_EVENT_SLOTS)
    {
        QN_EVENT_PushEvent(m_pHandle, static_cast<QN_EVENT_E>(5), nullptr);
    }
}

bool SESSION_TEST::WaitForFullRing()
{
    return TEST_WaitFor([this] { return Ring().size() == QN_EVENT_SLOTS; });
}

std::string SESSION_TEST::FinalPath(time_t tStart, time_t tEnd, const std::string &strTag, const char *pszExt)
{
    return QN_STORAGE_GenerateRecordFile(m_strMount.c_str(), "rec", tStart, tEnd, strTag.c_str(), pszExt);
}

std::vector<std::string> SESSION_TEST::Names()
{
    return TEST_List(Folder(0));
}

#include "core/core_test.h"

#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

#include "support/streams.h"

using namespace libquarrin;

static std::mutex g_mutexOpen; // guards the lists of OpenAtUnmount

void CORE_TEST::SetUp()
{
    CARD_TEST::SetUp();
    m_spLimit.reset(new PROCESS_LIMIT(120));
    std::thread([] {}).join(); // a sanitizer starts a thread of its own with the first one
    THREAD_CREATION_Reset();
    SYSTEM_CALLS_Reset();
    FAKE_BACKEND_Reset();
    m_s32Threads = PROCESS_ThreadCount();
    m_s32Descriptors = PROCESS_DescriptorCount();
    m_spOpenAtUnmount = std::make_shared<std::vector<std::string>>();
    const auto spOpen = m_spOpenAtUnmount;
    const std::string strMount = m_strMount;
    FAKE_PLATFORM_OnCommand(
        [spOpen, strMount](const std::string &strCommand)
        {
            if (strCommand.rfind("umount ", 0) == 0)
            {
                const std::vector<std::string> vecOpen = PROCESS_DescriptorsBelow(strMount);
                const std::lock_guard<std::mutex> lock(g_mutexOpen);
                spOpen->insert(spOpen->end(), vecOpen.begin(), vecOpen.end());
            }
            return 0;
        });
}

void CORE_TEST::TearDown()
{
    FAKE_PLATFORM_OnCommand(nullptr); // what it refers to may be gone with the test's own block
    FAKE_BACKEND_ReleaseClose();
    SYSTEM_CALLS_Reset();
    THREAD_CREATION_Reset();
    CARD_TEST::TearDown();
    EXPECT_TRUE(TEST_WaitFor([this] { return PROCESS_ThreadCount() <= m_s32Threads; })) << "a thread is left";
    EXPECT_EQ(m_s32Descriptors, PROCESS_DescriptorCount());
    EXPECT_EQ(0, FAKE_BACKEND_OpenNow());
    EXPECT_EQ(0, FAKE_BACKEND_Strangers());
    m_spLimit.reset();
}

bool CORE_TEST::Settle()
{
    return WaitForIdle(30000);
}

void CORE_TEST::InitUnplugged()
{
    unlink(m_strPartition.c_str());
    unlink(m_strDevice.c_str());
    const int32_t s32Selects = SYSTEM_CALLS_Selects();
    Init();
    // Until the monitor listens: its descriptor is open then.
    ASSERT_TRUE(TEST_WaitFor([s32Selects] { return SYSTEM_CALLS_Selects() > s32Selects; }));
}

void CORE_TEST::InitWithoutEventThread()
{
    ASSERT_NO_FATAL_FAILURE(InitUnplugged());
    QN_EVENT_Destroy(m_pHandle); // ends the thread; the queue is opened again
    m_pHandle->bEventExit = false;
    TEST_Touch(m_strDevice);
    TEST_Touch(m_strPartition);
}

void CORE_TEST::SetState(QN_STATE_E enState)
{
    pthread_mutex_lock(&m_pHandle->mutexState);
    m_pHandle->enState = enState;
    pthread_mutex_unlock(&m_pHandle->mutexState);
}

QN_STATE_E CORE_TEST::State() const
{
    return m_pHandle->enState.load();
}

uint32_t CORE_TEST::Queued()
{
    pthread_mutex_lock(&m_pHandle->mutexEvent);
    const uint32_t u32Count = m_pHandle->u32EventCount;
    pthread_mutex_unlock(&m_pHandle->mutexEvent);
    return u32Count;
}

int32_t CORE_TEST::Push(int32_t s32Event, std::shared_ptr<void> spPayload)
{
    return QN_EVENT_PushEvent(m_pHandle, static_cast<QN_EVENT_E>(s32Event), std::move(spPayload));
}

void CORE_TEST::FillRing()
{
    while (Queued() < QN_EVENT_SLOTS)
    {
        Push(5);
    }
}

void CORE_TEST::StallDispatcher()
{
    static tagQN_RECORD_PARAM_S stParam; // the fake back end does not look at it
    const auto spSession = std::make_shared<tagQN_RECORD_HANDLER_S>();
    auto spEvent = std::shared_ptr<tagQN_AUTO_SPLIT_EVENT_S>(new tagQN_AUTO_SPLIT_EVENT_S(),
                                                             [spSession](tagQN_AUTO_SPLIT_EVENT_S *p) { delete p; });
    spSession->pstHandle = m_pHandle;
    spSession->pstMediaApi = &g_stFakeBackend;
    spEvent->pstRecord = spSession.get();
    spEvent->strFilePath = m_dir.strPath + "/stall";
    spEvent->pWriter = g_stFakeBackend.pfnWriteOpen(&stParam, spEvent->strFilePath.c_str());
    FAKE_BACKEND_HoldClose(spEvent->pWriter);
    Push(QN_EVENT_E_RECORD_AUTO_SPLIT, spEvent);
    ASSERT_TRUE(FAKE_BACKEND_WaitHeld());
    ASSERT_EQ(0u, Queued());
}

void CORE_TEST::ReleaseDispatcher()
{
    FAKE_BACKEND_ReleaseClose();
}

tagQN_RECORD_HANDLER_S *CORE_TEST::MakeSession(bool bAutoSplit, uint32_t u32SplitSeconds)
{
    tagQN_RECORD_PARAM_S stParam = {};
    stParam.stVideo.bEnable = 1;
    stParam.bAutoSplit = bAutoSplit ? 1 : 0;
    stParam.u32SplitSeconds = u32SplitSeconds;
    tagQN_RECORD_HANDLER_S *pSession = nullptr;
    EXPECT_EQ(0u, QN_RecordInit(m_pHandle, &stParam, pSession));
    if (pSession != nullptr)
    {
        pSession->pstMediaApi = &g_stFakeBackend;
    }
    return pSession;
}

tagQN_RECORD_HANDLER_S *CORE_TEST::MakeRunningSession(const std::string &strTag, bool bAutoSplit)
{
    tagQN_RECORD_HANDLER_S *pSession = MakeSession(bAutoSplit);
    EXPECT_EQ(0u, QN_RecordStart(pSession, strTag.c_str()));
    EXPECT_EQ(0u, WriteKeyFrame(pSession));
    EXPECT_EQ(QN_RECORD_STATE_RUNNING, pSession->enRecordState.load());
    return pSession;
}

void CORE_TEST::Age(tagQN_RECORD_HANDLER_S *pSession, int64_t s64Seconds)
{
    pthread_mutex_lock(&pSession->stMutex);
    pSession->tFileStart -= s64Seconds;
    pSession->tRunStart -= s64Seconds;
    pthread_mutex_unlock(&pSession->stMutex);
}

uint32_t CORE_TEST::WriteKeyFrame(tagQN_RECORD_HANDLER_S *pSession)
{
    unsigned char au8Frame[] = {0, 0, 0, 1, 0x65, 1, 2, 3};
    return QN_RecordWriteFrame(pSession, au8Frame, sizeof(au8Frame), 1000, 1, 1);
}

static std::string MakeClip(const std::string &strFolder)
{
    const std::vector<TEST_FRAME_S> &vecFrames = TEST_EncodeH264();
    tagQN_RECORD_PARAM_S stParam = {};
    stParam.stVideo = TEST_VideoParam(QN_CODEC_H264, vecFrames);
    const std::string strPath = strFolder + "/2024-03-01-08-15-00.To.2024-03-01-08-20-00.mkv";
    void *pWriter = FFMUXER_WriteOpen(&stParam, strPath.c_str());
    uint64_t u64Pts = 1000;
    for (const TEST_FRAME_S &stFrame : vecFrames)
    {
        FFMUXER_WriteFrame(pWriter, stFrame.vecData.data(), static_cast<uint32_t>(stFrame.vecData.size()), u64Pts,
                           stFrame.bKey, true);
        u64Pts += 40;
    }
    FFMUXER_WriteClose(pWriter);
    return strPath;
}

tagQN_REPLAY_HANDLER_S *CORE_TEST::MakeReplay(const tagQN_MEDIA_API_S *pstMediaApi)
{
    tagQN_REPLAY_HANDLER_S *pReplay = nullptr;
    EXPECT_EQ(0u, QN_ReplayOpenByFilePath(m_pHandle, MakeClip(Folder(0)), tagQN_REPLAY_PARAM_S{}, pReplay));
    if (pReplay != nullptr && pstMediaApi != nullptr)
    {
        EXPECT_EQ(0, pReplay->pstMediaApi->pfnReadClose(pReplay->pReader));
        pReplay->pstMediaApi = pstMediaApi;
        pReplay->pReader = FAKE_BACKEND_MakeReader();
    }
    return pReplay;
}

std::string CORE_TEST::MountLine() const
{
    return "mkdir -p " + m_strMount + "; mount " + m_strPartition + " " + m_strMount;
}

std::string CORE_TEST::UnmountLine() const
{
    return "umount " + m_strMount + "; rm -rf " + m_strMount;
}

std::vector<std::string> CORE_TEST::OpenAtUnmount()
{
    const std::lock_guard<std::mutex> lock(g_mutexOpen);
    return *m_spOpenAtUnmount;
}

BACKGROUND::BACKGROUND(std::function<void()> fnWork)
    : m_thread(
          [this, fnWork]
          {
              fnWork();
              m_bDone = true;
          })
{
}

BACKGROUND::~BACKGROUND()
{
    m_thread.join();
}

bool BACKGROUND::IsDone(int32_t s32Ms) const
{
    return TEST_WaitFor([this] { return m_bDone.load(); }, s32Ms);
}

bool BACKGROUND::WaitDone(int32_t s32Ms) const
{
    return IsDone(s32Ms);
}

bool BACKGROUND::StaysBusy() const
{
    return !IsDone(50);
}

#include "recorder.h"

#include <csignal>
#include <cstring>
#include <new>
#include <thread>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

extern "C"
{
#include <libavutil/log.h>
}

#include "card/sim/faults.h"
#include "durable.h"
#include "support/streams.h"
#include "virtual_clock.h"

using namespace libquarrin;

static constexpr uint32_t FRAME_MS = 1000 / RECORDER_FPS;
static constexpr uint32_t AUDIO_RATE = 48000;

static const std::vector<TEST_FRAME_S> &Video()
{
    return TEST_EncodeH264(320, 240, RECORDER_FPS, RECORDER_GOP, 4 * RECORDER_GOP);
}

static const std::vector<TEST_FRAME_S> &Audio()
{
    return TEST_EncodeAac(AUDIO_RATE, 2, 60);
}

uint32_t RECORDER_Bytes(uint32_t u32Frame)
{
    return static_cast<uint32_t>(Video()[u32Frame % Video().size()].vecData.size());
}

const std::vector<uint8_t> &RECORDER_Frame(bool bVideo, uint32_t u32Frame)
{
    const std::vector<TEST_FRAME_S> &vecFrames = bVideo ? Video() : Audio();
    return vecFrames[u32Frame % vecFrames.size()].vecData;
}

/// All that the child has.
struct CHILD_S
{
    const RECORDER_PARAM_S *pParam = nullptr;
    RECORDER_LOG_S *pLog = nullptr;
    tagQN_HANDLER_S *pHandle = nullptr;
    tagQN_RECORD_HANDLER_S *pSession = nullptr;
    tagTOOL_DURABLE_S stDurable;
};

static CHILD_S *s_pChild = nullptr; // of the one child in this process, for the calls that are told of

static int64_t StartOf(const char *pszPath)
{
    const char *pszName = strrchr(pszPath, '/') + 1;
    tm stStart = {};
    tm stEnd = {};
    std::string strExt;
    const bool bFolder = strchr(pszName, '.') == nullptr;
    if (!bFolder)
    {
        QN_STORAGE_GetFilenameInfo(pszName, stStart, stEnd, strExt);
    }
    return bFolder ? 0 : timegm(&stStart); // names are UTC
}

static void NoteCall(FAULT_CALL_E enCall, const char *pszPath, bool bAfter)
{
    RECORDER_LOG_S &stLog = *s_pChild->pLog;
    const uint32_t u32Call = stLog.u32Calls.fetch_add(1);
    if (u32Call >= RECORDER_CALLS)
    {
        return;
    }
    RECORDER_CALL_S &stCall = stLog.astCalls[u32Call];
    stCall.bAfter = bAfter;
    stCall.s64Start = StartOf(pszPath);
    stCall.u32Video = stLog.u32Video;
    stCall.u32Audio = stLog.u32Audio;
    stCall.s64Logged = *s_pChild->pParam->pLogged;
    stCall.s64Ms = CLOCK_RealMs();
    stCall.s64PassMs = s_pChild->stDurable.s64PassBegin;
    stCall.enCall = enCall == FAULT_CALL_RENAME   ? RECORDER_CALL_RENAME
                    : enCall == FAULT_CALL_UNLINK ? RECORDER_CALL_UNLINK
                                                  : RECORDER_CALL_SYNC;
}

static void NoteCalls(CHILD_S &stChild)
{
    if (stChild.pParam->pLogged != nullptr)
    {
        FAULTS_Begin((stChild.pParam->strMount + "/rec").c_str());
        FAULTS_Watch(NoteCall);
    }
}

static bool Begin(CHILD_S &stChild)
{
    tagQN_STORAGE_PARAM_S stStorage;
    stStorage.strDevice = "/dev/null"; // exists, so that the folder counts as mounted
    stStorage.s32PartitionNo = 1;
    stStorage.pszMountPoint = stChild.pParam->strMount;
    stStorage.astVolume[0].bEnable = 1;
    stStorage.astVolume[0].pszFolder = "rec";
    stStorage.astVolume[0].u32QuotaType = stChild.pParam->u32QuotaBytes == 0 ? 1 : 0;
    stStorage.astVolume[0].u32QuotaPercent = 100;
    stStorage.astVolume[0].u32QuotaBytes = stChild.pParam->u32QuotaBytes;
    stStorage.astVolume[0].bAutoDelete = stChild.pParam->u32QuotaBytes == 0 ? 0 : 1;
    tagQN_RECORD_PARAM_S stParam = {};
    stParam.enFormat = stChild.pParam->enFormat;
    stParam.stVideo = TEST_VideoParam(QN_CODEC_H264, Video(), 320, 240, static_cast<int32_t>(RECORDER_FPS));
    if (stChild.pParam->bAudio)
    {
        stParam.stAudio = TEST_AudioParam(AUDIO_RATE, 2);
    }
    stParam.bAutoSplit = 1;
    stParam.u32SplitSeconds = stChild.pParam->u32SplitSeconds;
    return QN_Init(&stStorage, stChild.pHandle) == 0 &&
           QN_RecordInit(stChild.pHandle, &stParam, stChild.pSession) == 0 && stChild.pSession != nullptr &&
           TOOL_DURABLE_Begin(stChild.stDurable, stChild.pParam->strMount + "/rec", stChild.pParam->u32Durable) &&
           QN_RecordStart(stChild.pSession, nullptr) == 0;
}

static void NoteFile(CHILD_S &stChild, uint32_t u32Frame)
{
    RECORDER_LOG_S &stLog = *stChild.pLog;
    const uint32_t u32Files = stLog.u32Files;
    if (u32Files > 0 && stLog.astFiles[u32Files - 1].s64Start == stChild.pSession->tFileStart)
    {
        return;
    }
    if (u32Files > 0)
    {
        stLog.astFiles[u32Files - 1].s64SplitMs = CLOCK_RealMs();
    }
    stLog.astFiles[u32Files].s64Start = stChild.pSession->tFileStart; // read by the one thread that changes it
    stLog.astFiles[u32Files].u32First = u32Frame;
    stLog.astFiles[u32Files].u32FirstAudio = stLog.u32Audio;
    stLog.u32Files = u32Files + 1;
}

static void Write(CHILD_S &stChild, const TEST_FRAME_S &stFrame, uint64_t u64Pts, bool bVideo)
{
    std::vector<uint8_t> vecData = stFrame.vecData;
    timespec stFrom = {};
    timespec stTo = {};
    clock_gettime(CLOCK_MONOTONIC, &stFrom);
    (void)QN_RecordWriteFrame(stChild.pSession, vecData.data(), static_cast<uint32_t>(vecData.size()), u64Pts,
                              stFrame.bKey ? 1 : 0, bVideo ? 1 : 0); // 0 for every frame
    clock_gettime(CLOCK_MONOTONIC, &stTo);
    const int64_t s64Us = (stTo.tv_sec - stFrom.tv_sec) * 1000000 + (stTo.tv_nsec - stFrom.tv_nsec) / 1000;
    if (s64Us > stChild.pLog->s64LongestUs)
    {
        stChild.pLog->s64LongestUs = s64Us;
    }
}

static void WritePicture(CHILD_S &stChild, uint32_t u32Frame)
{
    RECORDER_LOG_S &stLog = *stChild.pLog;
    const uint64_t u64Pts = 1000 + uint64_t{u32Frame} * FRAME_MS;
    CLOCK_Step(FRAME_MS);
    Write(stChild, Video()[u32Frame % Video().size()], u64Pts, true);
    NoteFile(stChild, u32Frame);
    stLog.as64VideoMs[u32Frame] = CLOCK_RealMs();
    stLog.astFiles[stLog.u32Files - 1].u32Video += 1;
    stLog.u32Video = u32Frame + 1;
    while (stChild.pParam->bAudio && !stChild.pParam->bSilent &&
           1000 + uint64_t{stLog.u32Audio} * 1024 * 1000 / AUDIO_RATE <= u64Pts)
    {
        Write(stChild, Audio()[stLog.u32Audio % Audio().size()],
              1000 + uint64_t{stLog.u32Audio} * 1024 * 1000 / AUDIO_RATE, false);
        stLog.astFiles[stLog.u32Files - 1].u32Audio += 1;
        stLog.u32Audio += 1;
    }
    stLog.s64PassBeginMs = stChild.stDurable.s64PassBegin.load();
    stLog.s64LongestPassMs = stChild.stDurable.s64LongestPass.load();
}

// Kills the process a moment after a picture was handed in, in whatever call the others are then.
static void KillLater(const RECORDER_PARAM_S *pParam, const RECORDER_LOG_S *pLog)
{
    while (pLog->u32Video < pParam->u32KillFrame)
    {
        std::this_thread::yield();
    }
    timespec stFrom = {};
    timespec stNow = {};
    clock_gettime(CLOCK_MONOTONIC, &stFrom);
    do
    {
        clock_gettime(CLOCK_MONOTONIC, &stNow);
    } while ((stNow.tv_sec - stFrom.tv_sec) * 1000000000 + stNow.tv_nsec - stFrom.tv_nsec < pParam->u32KillNs);
    (void)kill(getpid(), SIGKILL); // cannot fail
}

// In the order of the tool.
static void End(CHILD_S &stChild)
{
    (void)QN_RecordStop(stChild.pSession);    // refuses a null session only
    (void)QN_RecordDestroy(stChild.pSession); // the files' names are final behind this
    TOOL_DURABLE_End(stChild.stDurable);
    stChild.pLog->s64LongestPassMs = stChild.stDurable.s64LongestPass.load();
    stChild.pLog->s64PassBeginMs = 0;
    (void)QN_Destroy(stChild.pHandle); // refuses a null handle only
}

[[noreturn]] static void RunChild(const RECORDER_PARAM_S &stParam, RECORDER_LOG_S *pLog)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL); // goes with the test program
    const int s32Null = open("/dev/null", O_RDWR | O_CLOEXEC);
    dup2(s32Null, STDOUT_FILENO);
    dup2(s32Null, STDERR_FILENO);
    CLOCK_Set(RECORDER_EPOCH * 1000);
    CHILD_S *pChild = new CHILD_S();
    s_pChild = pChild;
    pChild->pParam = &stParam;
    pChild->pLog = pLog;
    NoteCalls(*pChild);
    if (!Begin(*pChild))
    {
        pLog->bFailed = true;
        _exit(1);
    }
    if (stParam.u32KillFrame > 0)
    {
        std::thread(KillLater, &stParam, pLog).detach();
    }
    for (uint32_t u32Frame = 0; u32Frame < RECORDER_FRAMES && pLog->u32Files < RECORDER_FILES; u32Frame++)
    {
        WritePicture(*pChild, u32Frame);
        if (stParam.u32PauseUs > 0)
        {
            usleep(stParam.u32PauseUs);
        }
        if (u32Frame + 1 == stParam.u32Frames)
        {
            End(*pChild);
            _exit(0);
        }
    }
    if (stParam.u32KillFrame > 0)
    {
        pause(); // the one that kills may be late where processors are busy
    }
    _exit(2); // nobody killed it
}

RECORDER::RECORDER(const RECORDER_PARAM_S &stParam)
{
    av_log_set_level(AV_LOG_QUIET);
    (void)Video(); // before the fork: encoders have threads
    (void)Audio();
    void *pShared = mmap(nullptr, sizeof(RECORDER_LOG_S), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    EXPECT_NE(MAP_FAILED, pShared);
    m_pLog = new (pShared) RECORDER_LOG_S();
    m_pid = fork();
    if (m_pid == 0)
    {
        RunChild(stParam, m_pLog);
    }
    EXPECT_GT(m_pid, 0);
}

RECORDER::~RECORDER()
{
    Kill();
    munmap(m_pLog, sizeof(RECORDER_LOG_S));
}

bool RECORDER::WaitKilled()
{
    int32_t s32Status = 0;
    const pid_t pid = waitpid(m_pid, &s32Status, 0);
    m_pid = -1;
    return pid > 0 && WIFSIGNALED(s32Status) && WTERMSIG(s32Status) == SIGKILL;
}

bool RECORDER::HasEnded()
{
    int32_t s32Status = 0;
    if (m_pid > 0 && waitpid(m_pid, &s32Status, WNOHANG) == m_pid)
    {
        m_pid = -1;
        m_bEnded = true;
        EXPECT_TRUE(WIFEXITED(s32Status) && WEXITSTATUS(s32Status) == 0) << "the recorder ended with " << s32Status;
    }
    return m_bEnded;
}

void RECORDER::Kill()
{
    if (m_pid > 0)
    {
        kill(m_pid, SIGKILL);
        (void)WaitKilled();
    }
}

#include "memory/life.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <signal.h>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>
#include <vector>

#include "memory/allocations.h"
#include "memory/device.h"
#include "support/process.h"
#include "support/streams.h"
#include "support/wait.h"
#ifdef QUARRIN_TEST_FAULTS
#include "card/sim/faults.h"
#endif

using namespace libquarrin;

static constexpr int64_t NOON = 1700049600;
static constexpr int32_t END_UNTOUCHED = 10;
static constexpr int32_t END_TOUCHED = 11;
static constexpr int32_t END_TROUBLE = 12;
static constexpr int32_t END_CRASHED = 13;
static constexpr uint32_t NO_MEMORY = 6;

static const char *s_pszStep = "";
static int s_s32Words = -1; // descriptor of the words of this life
static bool s_bTrouble = false;

static void Say(const char *pszFormat, ...)
{
    char szText[512];
    va_list args;
    va_start(args, pszFormat);
    const int s32Len = vsnprintf(szText, sizeof(szText), pszFormat, args);
    va_end(args);
    (void)!write(s_s32Words, szText, static_cast<size_t>(std::min<int>(s32Len, sizeof(szText) - 1)));
}

static void Check(bool bHolds, const char *pszWhat)
{
    if (!bHolds)
    {
        s_bTrouble = true;
        Say("%s: %s\n", s_pszStep, pszWhat);
    }
}

// One call of the library; again while it has no memory, which a host would do too.
static uint32_t Call(const char *pszStep, const std::function<uint32_t()> &fnCall)
{
    s_pszStep = pszStep;
    uint32_t u32Result = NO_MEMORY;
    for (int32_t i = 0; i < 3 && u32Result == NO_MEMORY; ++i)
    {
        const ALLOCATIONS_OWNER library(true);
        u32Result = fnCall();
    }
    return u32Result;
}

static QN_STATE_E StateOf(tagQN_HANDLER_S *pHandle)
{
    QN_STATE_E enState = QN_STATE_E_UNPLUGIN;
    QN_GetState(pHandle, &enState);
    return enState;
}

static bool WaitMounted(tagQN_HANDLER_S *pHandle, int32_t s32Ms)
{
    // The folder is made by an event of its own, behind the state.
    return TEST_WaitFor([&] { return StateOf(pHandle) == QN_STATE_E_MOUNTED; }, s32Ms);
}

static const std::vector<TEST_FRAME_S> &Pictures()
{
    return TEST_EncodeH264(64, 64, 25, 5, 15);
}

static const std::vector<TEST_FRAME_S> &Sound()
{
    return TEST_EncodeAac(48000, 2, 20, true);
}

static tagQN_RECORD_PARAM_S ParamOf(QN_FILE_FMT_E enFormat)
{
    tagQN_RECORD_PARAM_S stParam = {};
    stParam.enFormat = enFormat;
    stParam.stVideo = TEST_VideoParam(QN_CODEC_H264, Pictures());
    stParam.stAudio = TEST_AudioParam(48000, 2);
    stParam.bAutoSplit = 1;
    stParam.u32SplitSeconds = 6;
    return stParam;
}

static void WriteAll(tagQN_RECORD_HANDLER_S *pSession, uint64_t u64Pts)
{
    for (size_t i = 0; i < Pictures().size(); ++i)
    {
        std::vector<uint8_t> vecPicture = Pictures()[i].vecData;
        std::vector<uint8_t> vecSound = Sound()[i].vecData;
        const ALLOCATIONS_OWNER library(true);
        u64Pts += 40;
        QN_RecordWriteFrame(pSession, vecPicture.data(), static_cast<uint32_t>(vecPicture.size()), u64Pts,
                            Pictures()[i].bKey, 1);
        QN_RecordWriteFrame(pSession, vecSound.data(), static_cast<uint32_t>(vecSound.size()), u64Pts, 1, 0);
    }
}

// Two files and the begin of a third; the session ends with its destruction. False: it never began.
static bool Record(tagQN_HANDLER_S *pHandle, QN_FILE_FMT_E enFormat, const char *pszTag)
{
    tagQN_RECORD_PARAM_S stParam = ParamOf(enFormat);
    tagQN_RECORD_HANDLER_S *pSession = nullptr;
    Call("QN_RecordInit", [&] { return QN_RecordInit(pHandle, &stParam, pSession); });
    if (pSession == nullptr)
    {
        return false;
    }
    uint32_t u32Started = 7;
    (void)TEST_WaitFor( // the folder is made just after the mount
        [&]
        {
            u32Started = Call("QN_RecordStart", [&] { return QN_RecordStart(pSession, pszTag); });
            return u32Started != 7;
        },
        1000);
    s_pszStep = "frames";
    if (u32Started == 0)
    {
        WriteAll(pSession, 0);
        DEVICE_StepClock(6);
        WriteAll(pSession, 600);
        Call("QN_RecordPause", [&] { return QN_RecordPause(pSession); });
        Call("QN_RecordResume", [&] { return QN_RecordResume(pSession); });
        DEVICE_StepClock(6);
        WriteAll(pSession, 1200);
        DEVICE_StepClock(6);
        Call("QN_RecordStop", [&] { return QN_RecordStop(pSession); });
    }
    Call("QN_RecordStorageUpdate", [&] { return QN_RecordStorageUpdate(pHandle, QN_VOLUME_ID_E_0, 1); });
    Call("QN_RecordDestroy", [&] { return QN_RecordDestroy(pSession); });
    return u32Started == 0;
}

static void ReplayAll(tagQN_HANDLER_S *pHandle)
{
    std::vector<tagQN_FILE_INFO_S> vecFiles;
    Call("QN_ReplayListFile", [&] { return QN_ReplayListFile(pHandle, QN_VOLUME_ID_E_0, &vecFiles); });
    for (const tagQN_FILE_INFO_S &stFile : vecFiles)
    {
        tagQN_REPLAY_HANDLER_S *pReplay = nullptr;
        const uint32_t u32Opened = Call("QN_ReplayOpenByFileName",
                                        [&]
                                        {
                                            const ALLOCATIONS_OWNER test(false); // the arguments are the host's
                                            std::string strName = stFile.strName;
                                            const ALLOCATIONS_OWNER library(true);
                                            return QN_ReplayOpenByFileName(pHandle, std::move(strName), {}, pReplay);
                                        });
        Check((u32Opened == 0) == (pReplay != nullptr), "result and replay do not fit");
        s_pszStep = "replay";
        tagQN_METADATA_S stMetadata = {};
        uint8_t *pu8Data = nullptr;
        uint32_t u32Size = 0;
        uint64_t u64Pts = 0;
        bool bKey = false;
        bool bVideo = false;
        const ALLOCATIONS_OWNER library(true);
        QN_ReplayReadMetadata(pReplay, &stMetadata);
        while (QN_ReplayReadFrame(pReplay, &pu8Data, &u32Size, &u64Pts, &bKey, &bVideo) == 0)
        {
            QN_ReplayFreeFrame(pReplay, pu8Data);
        }
        QN_ReplaySeekTime(pReplay, 0);
        QN_ReplayClose(pReplay);
    }
}

static void OtherCalls(tagQN_HANDLER_S *pHandle, const DEVICE_S &stDevice)
{
    tagQN_STORAGE_INFO_S stInfo = {};
    char szPath[256] = {};
    std::vector<uint8_t> vecPicture(16 * 16 * 3, 100);
    Call("QN_STORAGE_GetStorageInfo",
         [&]
         {
             QN_STORAGE_GetStorageInfo(stDevice.strMount.c_str(), &stInfo);
             QN_STORAGE_PrettierSize(5ULL << 30);
             QN_STORAGE_GetFilenameComment("2024-03-01-08-15-00.[a comment of some length].mkv");
             return 0u;
         });
    Call("QN_RecordErrorFileClear",
         [&] { return QN_RecordErrorFileClear(pHandle, QN_VOLUME_ID_E_0, "no-such-file-of-a-camera.ts"); });
    Call("QN_RecordSaveRGBAsJpeg",
         [&]
         {
             QN_RecordSaveRGBAsJpeg(pHandle, vecPicture.data(), static_cast<uint32_t>(vecPicture.size()),
                                    {16, 16, 24, 48, 0, 90}, "comment", szPath);
             return 0u;
         });
    const std::string strPicture = stDevice.strRoot + "/picture.jpg";
    Call("FFMUXER_SaveYuvToJpeg",
         [&] { return static_cast<uint32_t>(FFMUXER_SaveYuvToJpeg(strPicture.c_str(), vecPicture.data(), 16, 16)); });
    std::vector<uint8_t> vecKey = Pictures()[0].vecData;
    tagQN_BYTES stPps = {};
    tagQN_BYTES stSps = {};
    Call("QN_GetH26xInfo",
         [&]
         {
             QN_GetH26xInfo(vecKey.data(), static_cast<uint32_t>(vecKey.size()), false, &stPps, &stSps);
             return 0u;
         });
}

// Formats until the card is mounted; false when the worker of a format never ended.
static bool MountByFormat(tagQN_HANDLER_S *pHandle, int32_t s32Ms)
{
    if (StateOf(pHandle) == QN_STATE_E_MOUNTED)
    {
        return true;
    }
    Call("QN_StorageFormat", [&] { return QN_StorageFormat(pHandle, QN_FS_TYPE_E_EXT4); });
    s_pszStep = "format";
    (void)TEST_WaitFor([&] { return StateOf(pHandle) != QN_STATE_E_FORMATING; }, s32Ms);
    return StateOf(pHandle) != QN_STATE_E_FORMATING;
}

static void End(tagQN_HANDLER_S *&pHandle)
{
    Check(Call("QN_Destroy", [&] { return QN_Destroy(pHandle); }) == 0 && pHandle == nullptr, "did not end");
}

static bool Init(DEVICE_S &stDevice, tagQN_HANDLER_S *&pHandle)
{
    const uint32_t u32Result = Call("QN_Init", [&] { return QN_Init(&stDevice.stParam, pHandle); });
    Check((u32Result == 0) == (pHandle != nullptr), "result and handle do not fit");
    if (pHandle != nullptr && (pHandle->stEventThread.bNoThread || pHandle->stHotplugThread.bNoThread))
    {
        End(pHandle); // a thread that could not be started is told by the log alone
    }
    return pHandle != nullptr;
}

// Everything, while memory may fail.
static void Poor(const LIFE_S &stLife, DEVICE_S &stDevice, tagQN_HANDLER_S *&pHandle)
{
    const int32_t s32Patience = stLife.bAllLater ? 300 : 5000;
    if (!Init(stDevice, pHandle) || !WaitMounted(pHandle, s32Patience))
    {
        return;
    }
    (void)Record(pHandle, stLife.enFormat, "poor");
    ReplayAll(pHandle);
    OtherCalls(pHandle, stDevice);
    Call("QN_StorageUnMount", [&] { return QN_StorageUnMount(pHandle); });
    (void)MountByFormat(pHandle, s32Patience);
    (void)WaitMounted(pHandle, stLife.bAllLater ? 100 : 1000);
}

// The pictures of the finished files with a tag.
static size_t PicturesOnCard(const DEVICE_S &stDevice, const std::string &strTag)
{
    size_t count = 0;
    for (const auto &entry : std::filesystem::directory_iterator(stDevice.strFolder))
    {
        const std::string strName = entry.path().filename();
        if (strName.find(strTag) != std::string::npos && strName.find("unknown") == std::string::npos)
        {
            const TEST_MEDIA_S stMedia = TEST_ReadMedia(entry.path(), false);
            count += stMedia.VideoStream() < 0 ? 0 : stMedia.Of(stMedia.VideoStream()).size();
        }
    }
    return count;
}

// With memory again the same handle records without a loss: nothing is left claimed, counted or waited for.
static void Rich(const LIFE_S &stLife, DEVICE_S &stDevice, tagQN_HANDLER_S *&pHandle)
{
    if (pHandle != nullptr &&
        (StateOf(pHandle) == QN_STATE_E_UNPLUGIN ? !WaitMounted(pHandle, 5000) : !MountByFormat(pHandle, 1000)))
    {
        Check(StateOf(pHandle) == QN_STATE_E_FORMATING, "the card was not mounted when there was memory again");
        End(pHandle); // a worker that could not be started leaves the state at formatting
    }
    if (pHandle == nullptr && !Init(stDevice, pHandle))
    {
        Check(false, "no handle with memory");
        return;
    }
    Check(WaitMounted(pHandle, 5000), "not mounted with memory");
    Check(Record(pHandle, stLife.enFormat, "rich"), "no session with memory");
    s_pszStep = "rich";
    Check(PicturesOnCard(stDevice, "rich") == 3 * Pictures().size(), "pictures are missing");
    ReplayAll(pHandle);
}

static void Live(const LIFE_S &stLife, const std::string &strFolder)
{
    DEVICE_SetClock(NOON);
    DEVICE_S stDevice = DEVICE_Make(strFolder);
    tagQN_HANDLER_S *pHandle = nullptr;
    const int32_t s32Descriptors = PROCESS_DescriptorCount();
    const int32_t s32Threads = PROCESS_ThreadCount(); // an emulator has some of its own
#ifdef QUARRIN_TEST_FAULTS
    FAULTS_Begin(stLife.s32Call >= 0 ? stDevice.strMount.c_str() : nullptr);
    const FAULT_S stFault = {stLife.s32CallNth, 1, EIO, 0};
    if (stLife.s32Call >= 0)
    {
        FAULTS_Set(static_cast<FAULT_CALL_E>(stLife.s32Call), &stFault);
    }
#endif
    ALLOCATIONS_Arm(stLife.s64Nth, stLife.bAllLater);
    Poor(stLife, stDevice, pHandle);
    ALLOCATIONS_Disarm();
#ifdef QUARRIN_TEST_FAULTS
    FAULTS_Begin(nullptr);
#endif
    Rich(stLife, stDevice, pHandle);
    if (pHandle != nullptr)
    {
        End(pHandle);
    }
    s_pszStep = "end";
    Check(access(stDevice.strMount.c_str(), F_OK) != 0, "the card stayed mounted");
    Check(TEST_WaitFor([s32Threads] { return PROCESS_ThreadCount() <= s32Threads; }), "a thread is left");
    Check(PROCESS_DescriptorCount() == s32Descriptors, "a descriptor is left");
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

// Who called through a pointer to what is no code, null or freed memory: no backtrace finds out.
static void *CallerOfNoCode(const void *pContext)
{
    const mcontext_t &stMachine = static_cast<const ucontext_t *>(pContext)->uc_mcontext;
    Dl_info stInfo = {};
#if defined(__x86_64__)
    const bool bCode = dladdr(reinterpret_cast<void *>(stMachine.gregs[REG_RIP]), &stInfo) != 0;
    return bCode ? nullptr : *reinterpret_cast<void **>(stMachine.gregs[REG_RSP]);
#elif defined(__arm__)
    const bool bCode = dladdr(reinterpret_cast<void *>(stMachine.arm_pc), &stInfo) != 0;
    return bCode ? nullptr : reinterpret_cast<void *>(stMachine.arm_lr);
#else
    (void)stMachine;
    (void)stInfo;
    return nullptr;
#endif
}

static void OnCrash(int s32Signal, siginfo_t *, void *pContext)
{
    Say("%s: signal %d\n", s_pszStep, s32Signal);
    void *apFrames[40] = {CallerOfNoCode(pContext)};
    if (apFrames[0] != nullptr)
    {
        backtrace_symbols_fd(apFrames, 1, s_s32Words);
    }
    const int s32Count = backtrace(apFrames, 40);
    backtrace_symbols_fd(apFrames, s32Count, s_s32Words);
    _exit(END_CRASHED);
}

// A stack of its own: a library may have used up the thread's.
static void CatchCrashes()
{
    static char acStack[64 * 1024];
    stack_t stStack = {};
    stStack.ss_sp = acStack;
    stStack.ss_size = sizeof(acStack);
    (void)sigaltstack(&stStack, nullptr);
    struct sigaction stAction = {};
    stAction.sa_sigaction = OnCrash;
    stAction.sa_flags = SA_ONSTACK | SA_SIGINFO;
    for (const int s32Signal : {SIGSEGV, SIGBUS, SIGABRT})
    {
        (void)sigaction(s32Signal, &stAction, nullptr);
    }
}

#endif

/// Crashes of other libraries without memory. The library cannot keep them from it: its own calls are right.
struct CRASH_RULE_S
{
    const char *pszFrame; ///< stands in the line of the frame, or in the first one: the step and the signal
    const char *pszWhy;
};

static const CRASH_RULE_S CRASH_RULES[] = {
    {"/libavformat.so", "FFmpeg's muxers write to a dynamic buffer that they could not open"},
    {"/libavcodec.so", "FFmpeg's parsers and bit stream filters use what they could not allocate"},
    {"/libavutil.so", "as above"},
    {"/libc.so.6(pthread_create", "glibc 2.36 aborts when it has no memory for a new thread's own variables"},
#if defined(__arm__)
    {"QN_Init: signal 6", "the same, where no backtrace leads out of abort"},
    {"QN_StorageFormat: signal 6", "the same for the worker of a format"},
#endif
    {"/libSDL2-2.0.so", "SDL has an error text for missing memory, allocates room for it, and has no memory for that"},
};

// The crash happened where a rule says, on this side of any frame of ours.
static bool IsForeignCrash(const std::string &strWords)
{
    std::istringstream lines(strWords);
    std::string strLine;
    while (std::getline(lines, strLine) && strLine.find("/libquarrin.so") == std::string::npos)
    {
        for (const CRASH_RULE_S &stRule : CRASH_RULES)
        {
            if (strLine.find(stRule.pszFrame) != std::string::npos)
            {
                return true;
            }
        }
    }
    return false;
}

static std::string WordsPath(const std::string &strFolder)
{
    return strFolder + ".words";
}

void LIFE_Prepare()
{
    (void)Pictures();
    (void)Sound();
    void *apFrames[4];
    (void)backtrace(apFrames, 4); // the first call loads a library
}

pid_t LIFE_Begin(const LIFE_S &stLife, const std::string &strFolder)
{
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid != 0)
    {
        return pid;
    }
    const ALLOCATIONS_OWNER test(false);
    alarm(static_cast<unsigned>(60 * TEST_SLOW));
    s_s32Words = open(WordsPath(strFolder).c_str(), O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0600);
    const int s32Null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    (void)dup2(s32Null, 1);
    (void)dup2(getenv("QUARRIN_LIFE_LOG") != nullptr ? s_s32Words : s32Null, 2);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    CatchCrashes();
#else
    (void)dup2(s_s32Words, 2);
#endif
    try
    {
        Live(stLife, strFolder);
    }
    catch (const std::exception &error)
    {
        Say("%s: an exception came out: %s\n", s_pszStep, error.what());
        _exit(END_TROUBLE);
    }
    const int64_t s64Count = ALLOCATIONS_Count();
    Say("count %lld\n", static_cast<long long>(s64Count));
    exit(s_bTrouble ? END_TROUBLE : stLife.s64Nth == 0 || s64Count < stLife.s64Nth ? END_UNTOUCHED : END_TOUCHED);
}

LIFE_END_S LIFE_Wait(pid_t pid, const std::string &strFolder)
{
    LIFE_END_S stEnd;
    int s32Status = 0;
    (void)waitpid(pid, &s32Status, 0);
    std::ostringstream words;
    words << std::ifstream(WordsPath(strFolder)).rdbuf();
    const std::string strWords = words.str();
    const size_t at = strWords.rfind("count ");
    stEnd.s64Count = at == std::string::npos ? 0 : strtoll(strWords.c_str() + at + strlen("count "), nullptr, 10);
    const bool bEnded = WIFEXITED(s32Status);
    stEnd.bUntouched = bEnded && WEXITSTATUS(s32Status) == END_UNTOUCHED;
    stEnd.bForeignCrash = bEnded && WEXITSTATUS(s32Status) == END_CRASHED && IsForeignCrash(strWords);
    if (!stEnd.bForeignCrash &&
        (!bEnded || (WEXITSTATUS(s32Status) != END_UNTOUCHED && WEXITSTATUS(s32Status) != END_TOUCHED)))
    {
        const int s32Signal = bEnded ? 0 : WTERMSIG(s32Status);
        stEnd.strTrouble = strWords + (s32Signal == SIGALRM ? "it hung\n" : "");
        stEnd.strTrouble +=
            (bEnded ? "status " : "signal ") + std::to_string(bEnded ? WEXITSTATUS(s32Status) : s32Signal) + "\n";
    }
    std::error_code error;
    std::filesystem::remove_all(strFolder, error);
    std::filesystem::remove(WordsPath(strFolder), error);
    return stEnd;
}

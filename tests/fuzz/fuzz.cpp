#include "fuzz.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <unistd.h>

extern "C"
{
#include <libavutil/log.h>
}

#include "support/scratch.h"

using namespace libquarrin;

static std::atomic<uint32_t> s_au32Logs[8];

extern "C" int BU_RunCmd(const char *)
{
    return 0;
}

// Formats as a real logger does, so that a wrong argument shows.
static void Format(const char *pszFormat, va_list args)
{
    char acText[1024];
    (void)vsnprintf(acText, sizeof(acText), pszFormat, args);
}

extern "C" int UTIL_LOG_Print(int level, const char *, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    Format(format, args);
    va_end(args);
    s_au32Logs[level & 7] += 1;
    return 0;
}

extern "C" int BSP_PrintLog(int, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    Format(format, args);
    va_end(args);
    return 0;
}

// The library's traces would fill the fuzzer's terminal, and the file names of a machine with another zone would
// differ.
extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    FUZZ_Check(freopen("/dev/null", "w", stdout) != nullptr, "standard output can be put away");
    setenv("TZ", "UTC", 1);
    av_log_set_level(AV_LOG_QUIET);
    return 0;
}

// FFmpeg is not built with the fuzzer's instruments. What it says on the way, down to its traces, tells where an input
// went: the fuzzer takes these counters for coverage.
__attribute__((section("__libfuzzer_extra_counters"))) static uint8_t s_au8Said[4096];

static void OnLog(void *, int, const char *pszFormat, va_list)
{
    uint32_t u32Hash = 2166136261;
    for (; *pszFormat != '\0'; ++pszFormat)
    {
        u32Hash = (u32Hash ^ static_cast<uint8_t>(*pszFormat)) * 16777619;
    }
    uint8_t &u8Count = s_au8Said[(u32Hash ^ u32Hash >> 16) % sizeof(s_au8Said)];
    u8Count = static_cast<uint8_t>(u8Count + (u8Count < UINT8_MAX ? 1 : 0));
}

void FUZZ_ListenToFFmpeg()
{
    av_log_set_callback(OnLog);
}

void FUZZ_Check(bool bHolds, const char *pszWhat)
{
    if (!bHolds)
    {
        fprintf(stderr, "does not hold: %s\n", pszWhat);
        abort();
    }
}

uint8_t FUZZ_INPUT::U8()
{
    if (m_size == 0)
    {
        return 0;
    }
    m_size -= 1;
    return *m_pu8Data++;
}

uint32_t FUZZ_INPUT::U32()
{
    uint32_t u32Value = 0;
    for (int32_t i = 0; i < 4; ++i)
    {
        u32Value = u32Value << 8 | U8();
    }
    return u32Value;
}

int64_t FUZZ_INPUT::S64()
{
    const uint64_t u64High = U32();
    return static_cast<int64_t>(u64High << 32 | U32());
}

std::string FUZZ_INPUT::Text()
{
    std::string strText;
    for (size_t left = U8(); left > 0 && m_size > 0; --left)
    {
        const char c = static_cast<char>(U8());
        if (c != '\0')
        {
            strText += c;
        }
    }
    return strText;
}

std::string FUZZ_INPUT::Rest()
{
    std::string strRest(reinterpret_cast<const char *>(m_pu8Data), m_size);
    m_size = 0;
    return strRest;
}

static std::string *s_pstrScratch = nullptr;

static void RemoveScratch()
{
    (void)TEST_RemoveScratch(*s_pstrScratch); // what stays is of no harm
}

const std::string &FUZZ_Scratch()
{
    if (s_pstrScratch == nullptr)
    {
        const std::string strPath = TEST_MakeScratch("fuzz");
        FUZZ_Check(!strPath.empty(), "a scratch folder can be made");
        s_pstrScratch = new std::string(strPath); // as long as the process
        atexit(RemoveScratch);
    }
    return *s_pstrScratch;
}

uint32_t FUZZ_Logs(int32_t s32Level)
{
    return s_au32Logs[s32Level & 7];
}

void FUZZ_WriteFile(const std::string &strPath, const std::string &strBytes)
{
    std::ofstream(strPath, std::ios::binary) << strBytes;
}

void FUZZ_ClearRing(tagQN_HANDLER_S *pHandle)
{
    pHandle->u32EventCount = 0;
    pHandle->u32EventHead = 0;
    pHandle->u32EventTail = 0;
    for (tagQN_EVENT_SLOT_S &stSlot : pHandle->astEventQueue)
    {
        stSlot = tagQN_EVENT_SLOT_S();
    }
}

tagQN_HANDLER_S *FUZZ_Handle()
{
    static tagQN_HANDLER_S *pHandle = nullptr;
    if (pHandle != nullptr)
    {
        return pHandle;
    }
    tagQN_STORAGE_PARAM_S stParam;
    stParam.strDevice = FUZZ_Scratch() + "/card1";
    stParam.s32PartitionNo = 1;
    stParam.pszMountPoint = FUZZ_Scratch() + "/mnt";
    stParam.astVolume[0].bEnable = 1;
    stParam.astVolume[0].pszFolder = "rec";
    stParam.astVolume[1].bEnable = 1;
    stParam.astVolume[1].pszFolder = "event";
    stParam.astVolume[0].u32QuotaBytes = UINT32_MAX;
    stParam.astVolume[1].u32QuotaBytes = UINT32_MAX;
    FUZZ_WriteFile(stParam.strDevice, "");
    FUZZ_WriteFile(stParam.strDevice + "p1", "");
    std::filesystem::create_directories(stParam.pszMountPoint + "/rec");
    std::filesystem::create_directories(stParam.pszMountPoint + "/event");
    FUZZ_Check(QN_Init(&stParam, pHandle) == 0, "a handle can be made");
    QN_STORAGE_HotplugDestroy(pHandle);
    QN_EVENT_Destroy(pHandle);
    pHandle->bEventExit = false; // the ring takes events again, and the target hands them out
    FUZZ_ClearRing(pHandle);
    return pHandle;
}

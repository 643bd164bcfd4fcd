#include "support/fake_platform.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <utility>

#include "bu_platform.h"
#include "support/failing_new.h"
#include "support/wait.h"

namespace
{

struct FAKE_STATE_S
{
    std::mutex mutex;
    std::vector<std::pair<std::string, int32_t>> vecAnswers;
    std::function<int32_t(const std::string &)> fnRun;
    std::string strStall;
    bool bStall = false;
    int32_t s32Stalled = 0;
    std::vector<std::string> vecCommands;
    std::vector<FAKE_LOG_S> vecLogs;
};

FAKE_STATE_S &State()
{
    static FAKE_STATE_S *pState = new FAKE_STATE_S(); // outlives every thread of the process
    return *pState;
}

void Record(int32_t s32Level, const char *pszPrefix, const char *pszFormat, va_list args)
{
    const FAKES_OWN_NEW own;
    va_list again;
    va_copy(again, args);
    const int s32Len = vsnprintf(nullptr, 0, pszFormat, args);
    std::string strText(static_cast<size_t>(s32Len > 0 ? s32Len : 0), '\0');
    vsnprintf(&strText[0], strText.size() + 1, pszFormat, again);
    va_end(again);
    std::lock_guard<std::mutex> lock(State().mutex);
    State().vecLogs.push_back({s32Level, pszPrefix, strText});
}

bool IsStalled(const std::string &strCommand)
{
    std::lock_guard<std::mutex> lock(State().mutex);
    return State().bStall && strCommand.find(State().strStall) != std::string::npos;
}

void CountStalled(int32_t s32Delta)
{
    std::lock_guard<std::mutex> lock(State().mutex);
    State().s32Stalled += s32Delta;
}

} // namespace

extern "C" int BU_RunCmd(const char *cmd)
{
    const FAKES_OWN_NEW own;
    const std::string strCommand = cmd;
    {
        std::lock_guard<std::mutex> lock(State().mutex);
        State().vecCommands.push_back(strCommand);
    }
    if (IsStalled(strCommand))
    {
        CountStalled(1);
        while (IsStalled(strCommand))
        {
            TEST_SleepMs(1);
        }
        CountStalled(-1);
    }
    std::function<int32_t(const std::string &)> fnRun;
    {
        std::lock_guard<std::mutex> lock(State().mutex);
        for (auto it = State().vecAnswers.rbegin(); it != State().vecAnswers.rend(); ++it)
        {
            if (strCommand.find(it->first) != std::string::npos)
            {
                return it->second;
            }
        }
        fnRun = State().fnRun;
    }
    return fnRun ? fnRun(strCommand) : 0;
}

extern "C" int UTIL_LOG_Print(int level, const char *prefix, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    Record(level, prefix, format, args);
    va_end(args);
    return 0;
}

extern "C" int BSP_PrintLog(int level, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    Record(level, "", format, args);
    va_end(args);
    return 0;
}

void FAKE_PLATFORM_Reset()
{
    std::lock_guard<std::mutex> lock(State().mutex);
    State().vecAnswers.clear();
    State().fnRun = nullptr;
    State().bStall = false;
    State().vecCommands.clear();
    State().vecLogs.clear();
}

void FAKE_PLATFORM_Answer(const std::string &strPart, int32_t s32Result)
{
    std::lock_guard<std::mutex> lock(State().mutex);
    State().vecAnswers.emplace_back(strPart, s32Result);
}

void FAKE_PLATFORM_OnCommand(std::function<int32_t(const std::string &)> fnRun)
{
    std::lock_guard<std::mutex> lock(State().mutex);
    State().fnRun = std::move(fnRun);
}

void FAKE_PLATFORM_Stall(const std::string &strPart)
{
    std::lock_guard<std::mutex> lock(State().mutex);
    State().strStall = strPart;
    State().bStall = true;
}

bool FAKE_PLATFORM_WaitStalled(int32_t s32Ms)
{
    return TEST_WaitFor(
        []
        {
            std::lock_guard<std::mutex> lock(State().mutex);
            return State().s32Stalled > 0;
        },
        s32Ms);
}

void FAKE_PLATFORM_Release()
{
    std::lock_guard<std::mutex> lock(State().mutex);
    State().bStall = false;
}

std::vector<std::string> FAKE_PLATFORM_Commands()
{
    std::lock_guard<std::mutex> lock(State().mutex);
    return State().vecCommands;
}

int32_t FAKE_PLATFORM_CommandCount(const std::string &strPart)
{
    int32_t s32Count = 0;
    for (const std::string &strCommand : FAKE_PLATFORM_Commands())
    {
        s32Count += strCommand.find(strPart) != std::string::npos ? 1 : 0;
    }
    return s32Count;
}

std::vector<FAKE_LOG_S> FAKE_PLATFORM_Logs()
{
    std::lock_guard<std::mutex> lock(State().mutex);
    return State().vecLogs;
}

bool FAKE_PLATFORM_Logged(const std::string &strPart)
{
    for (const FAKE_LOG_S &stLog : FAKE_PLATFORM_Logs())
    {
        if (stLog.strText.find(strPart) != std::string::npos)
        {
            return true;
        }
    }
    return false;
}

bool FAKE_PLATFORM_LoggedExactly(int32_t s32Level, const std::string &strFunc, const std::string &strText)
{
    for (const FAKE_LOG_S &stLog : FAKE_PLATFORM_Logs())
    {
        if (stLog.s32Level == s32Level && stLog.strPrefix.rfind(strFunc + "[", 0) == 0 && stLog.strText == strText)
        {
            return true;
        }
    }
    return false;
}

bool FAKE_PLATFORM_WaitLogged(const std::string &strPart, int32_t s32Ms)
{
    return TEST_WaitFor([&strPart] { return FAKE_PLATFORM_Logged(strPart); }, s32Ms);
}

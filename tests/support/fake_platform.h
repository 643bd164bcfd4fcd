// A utility layer for tests: records command lines and log lines, answers commands as told, and can hold one up.
#ifndef QUARRIN_TESTS_FAKE_PLATFORM_H
#define QUARRIN_TESTS_FAKE_PLATFORM_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

/// One line that reached UTIL_LOG_Print or BSP_PrintLog.
struct FAKE_LOG_S
{
    int32_t s32Level;
    std::string strPrefix; ///< empty for BSP_PrintLog
    std::string strText;
};

/// Forgets everything: answers, stalls, recorded lines. No command may be stalled. Every test begins with it.
void FAKE_PLATFORM_Reset();

/// Lets every command line that contains strPart end with s32Result; others succeed. The latest answer counts.
void FAKE_PLATFORM_Answer(const std::string &strPart, int32_t s32Result);

/// Calls a function for every command line that no answer fits; its result is the command's.
void FAKE_PLATFORM_OnCommand(std::function<int32_t(const std::string &)> fnRun);

/// Holds up the next command lines that contain strPart until FAKE_PLATFORM_Release.
void FAKE_PLATFORM_Stall(const std::string &strPart);

/// Waits until a command is held up. False after s32Ms milliseconds.
bool FAKE_PLATFORM_WaitStalled(int32_t s32Ms = 5000);

/// Lets all held-up commands go on, and stalls no more.
void FAKE_PLATFORM_Release();

/// The command lines so far, in order of their begin.
std::vector<std::string> FAKE_PLATFORM_Commands();

/// How many command lines contain strPart.
int32_t FAKE_PLATFORM_CommandCount(const std::string &strPart);

/// The log lines so far.
std::vector<FAKE_LOG_S> FAKE_PLATFORM_Logs();

/// A log line contains strPart.
bool FAKE_PLATFORM_Logged(const std::string &strPart);

/// A log line has exactly this level, a prefix that begins with "FUNC[" and exactly this text.
bool FAKE_PLATFORM_LoggedExactly(int32_t s32Level, const std::string &strFunc, const std::string &strText);

/// Waits for a log line that contains strPart. False after s32Ms milliseconds.
bool FAKE_PLATFORM_WaitLogged(const std::string &strPart, int32_t s32Ms = 5000);

#endif

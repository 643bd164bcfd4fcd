// Programs run as a user runs them: the tool and ffmpeg, side by side.
#ifndef QUARRIN_TESTS_TOOL_PROCESS_H
#define QUARRIN_TESTS_TOOL_PROCESS_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <sys/types.h>

/// How a program is started.
struct TOOL_START_S
{
    std::vector<std::string> vecArgs; ///< without the program
    std::string strProgram;           ///< empty: the tool
    std::string strTimeZone;          ///< value of TZ; empty: as it is
    std::string strFolder;            ///< working directory; empty: as it is
    uint64_t u64LargestFile = 0;      ///< writes behind this size fail; 0: no limit
    bool bPlainUser = false;          ///< without any of the super-user's powers
    bool bTerminal = false;           ///< standard error is a terminal
};

/// A program that was started. Killed at the end when it still runs, and when the test program is killed.
class TOOL_PROCESS
{
public:
    explicit TOOL_PROCESS(const TOOL_START_S &stStart);
    ~TOOL_PROCESS();
    TOOL_PROCESS(const TOOL_PROCESS &) = delete;
    TOOL_PROCESS &operator=(const TOOL_PROCESS &) = delete;

    /// Waits for the end, two minutes at most. The exit status; 128 + n after signal n; -1 when it does not end.
    int32_t Wait();
    bool IsRunning();
    void Signal(int32_t s32Signal) const;
    pid_t Pid() const
    {
        return m_pid;
    }
    /// What was written so far.
    std::string Out();
    std::string Err();
    /// Waits until standard error holds a text.
    bool WaitForErr(const std::string &strText);
    /// Waits until a progress line tells of s32Seconds seconds and s32Frames frames, or more.
    bool WaitForProgress(int32_t s32Seconds, int32_t s32Frames = 0);

private:
    [[noreturn]] void RunChild(const TOOL_START_S &stStart, int s32Out, int s32Err) const;
    void Poll();

    pid_t m_pid = -1;
    bool m_bEnded = false;
    int32_t m_s32Status = -1;
    int m_s32Out = -1;      ///< a file without a name
    int m_s32Err = -1;      ///< the same
    int m_s32Terminal = -1; ///< the near end of the terminal
    std::string m_strTerminal;
};

/// Starts the tool.
std::unique_ptr<TOOL_PROCESS> TOOL_Start(const std::vector<std::string> &vecArgs);

/// Outcome of a program that has ended.
struct TOOL_RESULT_S
{
    int32_t s32Status = -1;
    std::string strOut;
    std::string strErr;
};

/// Runs the tool to its end.
TOOL_RESULT_S TOOL_Run(const std::vector<std::string> &vecArgs);
TOOL_RESULT_S TOOL_Run(const TOOL_START_S &stStart);

/// Runs `ffmpeg -y -v error` with arguments parted by blanks; true when it succeeded.
bool TOOL_RunFfmpeg(const std::string &strArgs);

/// Parts a text at a sign; an empty last part is left out.
std::vector<std::string> TOOL_Parts(const std::string &strText, char cSign);

#endif

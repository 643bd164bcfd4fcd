#include "tool_process.h"

#include <csignal>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/wait.h"

static constexpr int32_t TOOL_PATIENCE_MS = 120000;

TOOL_PROCESS::TOOL_PROCESS(const TOOL_START_S &stStart)
{
    int s32Err = -1;
    m_s32Out = memfd_create("out", MFD_CLOEXEC);
    m_s32Err = memfd_create("err", MFD_CLOEXEC);
    if (stStart.bTerminal)
    {
        EXPECT_EQ(0, openpty(&m_s32Terminal, &s32Err, nullptr, nullptr, nullptr));
        fcntl(m_s32Terminal, F_SETFD, FD_CLOEXEC);
    }
    fflush(nullptr);
    m_pid = fork();
    if (m_pid == 0)
    {
        RunChild(stStart, m_s32Out, stStart.bTerminal ? s32Err : m_s32Err);
    }
    if (s32Err >= 0)
    {
        close(s32Err);
    }
}

/// Root's powers come back with every exec, unless they are taken from the set that bounds them.
static void DropPowers()
{
    for (int32_t s32Power = 0; s32Power < 64; s32Power++)
    {
        prctl(PR_CAPBSET_DROP, s32Power, 0, 0, 0);
    }
}

void TOOL_PROCESS::RunChild(const TOOL_START_S &stStart, int s32Out, int s32Err) const
{
    const std::string strProgram = stStart.strProgram.empty() ? QUARRIN_TOOL : stStart.strProgram;
    std::vector<char *> vecArgs = {const_cast<char *>(strProgram.c_str())};
    for (const std::string &strArg : stStart.vecArgs)
    {
        vecArgs.push_back(const_cast<char *>(strArg.c_str()));
    }
    vecArgs.push_back(nullptr);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
    dup2(s32Out, STDOUT_FILENO);
    dup2(s32Err, STDERR_FILENO);
    if (!stStart.strTimeZone.empty())
    {
        setenv("TZ", stStart.strTimeZone.c_str(), 1);
    }
    if (stStart.u64LargestFile != 0)
    {
        const rlimit stLimit = {stStart.u64LargestFile, stStart.u64LargestFile};
        signal(SIGXFSZ, SIG_IGN); // so that the write fails instead
        setrlimit(RLIMIT_FSIZE, &stLimit);
    }
    if (stStart.bPlainUser)
    {
        DropPowers();
    }
    if (stStart.strFolder.empty() || chdir(stStart.strFolder.c_str()) == 0)
    {
        execvp(strProgram.c_str(), vecArgs.data());
    }
    _exit(127);
}

TOOL_PROCESS::~TOOL_PROCESS()
{
    if (!m_bEnded)
    {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    for (int s32Fd : {m_s32Out, m_s32Err, m_s32Terminal})
    {
        if (s32Fd >= 0)
        {
            close(s32Fd);
        }
    }
}

void TOOL_PROCESS::Poll()
{
    int s32Status = 0;
    if (!m_bEnded && waitpid(m_pid, &s32Status, WNOHANG) == m_pid)
    {
        m_bEnded = true;
        m_s32Status = WIFEXITED(s32Status) ? WEXITSTATUS(s32Status) : 128 + WTERMSIG(s32Status);
    }
    pollfd stPoll = {m_s32Terminal, POLLIN, 0};
    while (m_s32Terminal >= 0 && poll(&stPoll, 1, 0) == 1 && (stPoll.revents & POLLIN) != 0)
    {
        char acText[1024];
        const ssize_t sRead = read(m_s32Terminal, acText, sizeof(acText));
        m_strTerminal.append(acText, sRead > 0 ? static_cast<size_t>(sRead) : 0);
    }
}

int32_t TOOL_PROCESS::Wait()
{
    const auto fnEnded = [this]
    {
        Poll();
        return m_bEnded;
    };
    TEST_WaitFor(fnEnded, TOOL_PATIENCE_MS);
    return m_s32Status;
}

bool TOOL_PROCESS::IsRunning()
{
    Poll();
    return !m_bEnded;
}

void TOOL_PROCESS::Signal(int32_t s32Signal) const
{
    kill(m_pid, s32Signal);
}

static std::string ReadAll(int s32Fd)
{
    std::string strText;
    char acText[4096];
    ssize_t sRead = 0;
    while ((sRead = pread(s32Fd, acText, sizeof(acText), static_cast<off_t>(strText.size()))) > 0)
    {
        strText.append(acText, static_cast<size_t>(sRead));
    }
    return strText;
}

std::string TOOL_PROCESS::Out()
{
    return ReadAll(m_s32Out);
}

std::string TOOL_PROCESS::Err()
{
    Poll();
    return m_s32Terminal >= 0 ? m_strTerminal : ReadAll(m_s32Err);
}

bool TOOL_PROCESS::WaitForErr(const std::string &strText)
{
    return TEST_WaitFor([this, &strText] { return m_bEnded || Err().find(strText) != std::string::npos; },
                        TOOL_PATIENCE_MS) &&
           Err().find(strText) != std::string::npos;
}

bool TOOL_PROCESS::WaitForProgress(int32_t s32Seconds, int32_t s32Frames)
{
    const auto fnReached = [this, s32Seconds, s32Frames]
    {
        for (const std::string &strLine : TOOL_Parts(Err(), '\n'))
        {
            int32_t as32Now[4] = {};
            if (sscanf(strLine.c_str(), "%d:%d:%d  %d frames", &as32Now[0], &as32Now[1], &as32Now[2], &as32Now[3]) ==
                    4 &&
                as32Now[0] * 3600 + as32Now[1] * 60 + as32Now[2] >= s32Seconds && as32Now[3] >= s32Frames)
            {
                return true;
            }
        }
        return false;
    };
    return TEST_WaitFor([this, &fnReached] { return m_bEnded || fnReached(); }, TOOL_PATIENCE_MS) && fnReached();
}

std::unique_ptr<TOOL_PROCESS> TOOL_Start(const std::vector<std::string> &vecArgs)
{
    TOOL_START_S stStart;
    stStart.vecArgs = vecArgs;
    return std::make_unique<TOOL_PROCESS>(stStart);
}

TOOL_RESULT_S TOOL_Run(const TOOL_START_S &stStart)
{
    TOOL_PROCESS process(stStart);
    TOOL_RESULT_S stResult;
    stResult.s32Status = process.Wait();
    stResult.strOut = process.Out();
    stResult.strErr = process.Err();
    return stResult;
}

TOOL_RESULT_S TOOL_Run(const std::vector<std::string> &vecArgs)
{
    TOOL_START_S stStart;
    stStart.vecArgs = vecArgs;
    return TOOL_Run(stStart);
}

std::vector<std::string> TOOL_Parts(const std::string &strText, char cSign)
{
    std::vector<std::string> vecParts;
    size_t uBegin = 0;
    while (uBegin < strText.size())
    {
        const size_t uEnd = std::min(strText.find(cSign, uBegin), strText.size());
        vecParts.push_back(strText.substr(uBegin, uEnd - uBegin));
        uBegin = uEnd + 1;
    }
    return vecParts;
}

bool TOOL_RunFfmpeg(const std::string &strArgs)
{
    TOOL_START_S stStart;
    stStart.strProgram = "ffmpeg";
    stStart.vecArgs = TOOL_Parts("-y -v error -nostdin " + strArgs, ' ');
    const TOOL_RESULT_S stResult = TOOL_Run(stStart);
    EXPECT_EQ(0, stResult.s32Status) << stResult.strErr;
    return stResult.s32Status == 0;
}

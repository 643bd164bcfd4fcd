// Running a program below a shell that reports how it ended.
//
// The report comes through a pipe. waitpid alone would not do: in a host that ignores SIGCHLD, or whose handler collects
// every child, the kernel's status is gone before it can be read.
// Threads: any; nothing of the host's signal settings is touched. Locks: none.

#include "process.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "log.h"

// The descriptor of the report in the shell; a single digit, since older shells take no more. The program itself does
// not get it: a daemon that it leaves behind must not keep the pipe open.
constexpr int REPORT_FD = 9;
static const char *const REPORT_SCRIPT = "PATH=${PATH:+$PATH:}/usr/local/sbin:/usr/sbin:/sbin:/usr/bin:/bin\n"
                                         "export PATH\n"
                                         "\"$@\" 9>&-\n"
                                         "echo $? >&9\n";

static bool FindProgram(const std::string &strFolders, const char *pszName, std::string &strPath)
{
    size_t uBegin = 0;
    while (uBegin <= strFolders.size())
    {
        const size_t uEnd = std::min(strFolders.find(':', uBegin), strFolders.size());
        const std::string strFolder = strFolders.substr(uBegin, uEnd - uBegin);
        strPath = strFolder + "/" + pszName;
        // A relative folder (or an empty one, the current directory) is no place to take a root shell from.
        if (!strFolder.empty() && strFolder[0] == '/' && access(strPath.c_str(), X_OK) == 0)
        {
            return true;
        }
        uBegin = uEnd + 1;
    }
    return false;
}

std::vector<std::string> PLATFORM_FindShell(const std::string &strFolders)
{
    std::string strPath;
    if (FindProgram(strFolders, "bash", strPath))
    {
        return {strPath};
    }
    if (FindProgram(strFolders, "busybox", strPath))
    {
        return {strPath, "sh"};
    }
    return {};
}

std::string PLATFORM_ShellFolders()
{
    const char *pszPath = getenv("PATH");
    return std::string(pszPath != nullptr ? pszPath : "") + ":/bin:/usr/bin:/usr/local/bin";
}

static std::vector<char *> ArgumentPointers(std::vector<std::string> &vecArgs)
{
    std::vector<char *> vecPointers;
    vecPointers.reserve(vecArgs.size() + 1);
    for (std::string &strArg : vecArgs)
    {
        vecPointers.push_back(&strArg[0]);
    }
    vecPointers.push_back(nullptr);
    return vecPointers;
}

// The command starts with nothing blocked or ignored, whatever the calling thread has, and in a group of its own.
static void SetAttributes(posix_spawnattr_t &stAttributes)
{
    sigset_t stNone;
    sigset_t stDefault;
    sigemptyset(&stNone);
    sigemptyset(&stDefault);
    for (const int s32Signal : {SIGCHLD, SIGPIPE, SIGINT, SIGQUIT, SIGTERM, SIGHUP})
    {
        sigaddset(&stDefault, s32Signal);
    }
    posix_spawnattr_setsigmask(&stAttributes, &stNone);
    posix_spawnattr_setsigdefault(&stAttributes, &stDefault);
    posix_spawnattr_setpgroup(&stAttributes, 0);
    posix_spawnattr_setflags(&stAttributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
}

// 0 or an errno value.
static int Spawn(std::vector<std::string> &vecArgs, int s32ReportFd, pid_t &pid)
{
    posix_spawnattr_t stAttributes;
    posix_spawn_file_actions_t stActions;
    posix_spawnattr_init(&stAttributes);
    posix_spawn_file_actions_init(&stActions);
    SetAttributes(stAttributes);
    posix_spawn_file_actions_adddup2(&stActions, s32ReportFd, REPORT_FD);
    posix_spawn_file_actions_addopen(&stActions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    std::vector<char *> vecPointers = ArgumentPointers(vecArgs);
    const int s32Error = posix_spawn(&pid, vecPointers[0], &stActions, &stAttributes, vecPointers.data(), environ);
    posix_spawn_file_actions_destroy(&stActions);
    posix_spawnattr_destroy(&stAttributes);
    return s32Error;
}

// The report is a decimal number; nothing at all when the shell was killed before it could write it.
static std::string ReadReport(int s32Fd)
{
    std::string strReport;
    char szPart[32];
    for (;;)
    {
        const ssize_t sLen = read(s32Fd, szPart, sizeof(szPart));
        if (sLen > 0)
        {
            strReport.append(szPart, static_cast<size_t>(sLen));
        }
        else if (sLen == 0 || errno != EINTR)
        {
            return strReport;
        }
    }
}

// Collects the shell. What it says counts only when the report is missing.
static int32_t CollectShell(pid_t pid)
{
    int s32Status = 0;
    while (waitpid(pid, &s32Status, 0) < 0)
    {
        if (errno != EINTR)
        {
            return PLATFORM_NOT_STARTED; // the host has collected it already
        }
    }
    return WIFSIGNALED(s32Status) ? 128 + WTERMSIG(s32Status) : PLATFORM_NOT_STARTED;
}

int32_t PLATFORM_RunArgs(const std::vector<std::string> &vecShell, const std::vector<std::string> &vecArgs)
{
    int as32Pipe[2];
    if (pipe2(as32Pipe, O_CLOEXEC) != 0)
    {
        PLATFORM_LogError("no pipe for \"%s\": %s", vecArgs[0].c_str(), strerror(errno));
        return PLATFORM_NOT_STARTED;
    }
    std::vector<std::string> vecAll = vecShell;
    vecAll.insert(vecAll.end(), {"-c", REPORT_SCRIPT, "quarrin"});
    vecAll.insert(vecAll.end(), vecArgs.begin(), vecArgs.end());
    pid_t pid = -1;
    const int s32Error = Spawn(vecAll, as32Pipe[1], pid);
    close(as32Pipe[1]);
    const std::string strReport = s32Error == 0 ? ReadReport(as32Pipe[0]) : std::string();
    close(as32Pipe[0]);
    if (s32Error != 0)
    {
        PLATFORM_LogError("cannot start %s: %s", vecShell[0].c_str(), strerror(s32Error));
        return PLATFORM_NOT_STARTED;
    }
    const int32_t s32Shell = CollectShell(pid);
    return strReport.empty() ? s32Shell : static_cast<int32_t>(strtol(strReport.c_str(), nullptr, 10));
}

// Running a program below a shell that reports how it ended.
//
// The report comes through a pipe. waitpid alone would not do: in a host that ignores SIGCHLD, or whose handler
// collects every child, the kernel's status is gone before it can be read. The end of the pipe is not waited for: a
// host that forks meanwhile leaves a process behind that has the pipe open for as long as it lives.
// Threads: any; nothing of the host's signal settings is touched. Locks: none.

#include "process.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "environment.h"
#include "log.h"

// The descriptor of the report in the shell, the lowest that is no standard one: all above it are closed. The program
// itself does not get it: a daemon that it leaves behind must not keep the pipe open.
constexpr int REPORT_FD = STDERR_FILENO + 1;
static const char *const REPORT_SCRIPT = "PATH=${PATH:+$PATH:}/usr/local/sbin:/usr/sbin:/sbin:/usr/bin:/bin\n"
                                         "export PATH\n"
                                         "\"$@\" 3>&-\n"
                                         "echo $? >&3\n";
constexpr int LOOK_EVERY_MS = 1000; // whether the shell still lives, when nothing comes through the pipe

// glibc since 2.34, with which close_range comes.
#if defined(__GLIBC__) && __GLIBC__ * 1000 + __GLIBC_MINOR__ >= 2034
#define PLATFORM_HAVE_CLOSEFROM
#else
#include <dirent.h>
#endif

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

// No descriptor of the host's: a recording that is open in a mount's or a mkfs's process keeps the card busy.
static void CloseAbove(posix_spawn_file_actions_t &stActions, int s32Last)
{
#ifdef PLATFORM_HAVE_CLOSEFROM
    posix_spawn_file_actions_addclosefrom_np(&stActions, s32Last + 1);
#else
    DIR *pFolder = opendir("/proc/self/fd"); // what another thread opens meanwhile is its own to mark
    while (const dirent *pEntry = pFolder != nullptr ? readdir(pFolder) : nullptr)
    {
        const int s32Fd = static_cast<int>(strtol(pEntry->d_name, nullptr, 10));
        if (s32Fd > s32Last && s32Fd != dirfd(pFolder))
        {
            posix_spawn_file_actions_addclose(&stActions, s32Fd); // one that is closed already does no harm
        }
    }
    if (pFolder != nullptr)
    {
        closedir(pFolder);
    }
#endif
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
    CloseAbove(stActions, REPORT_FD);
    std::vector<char *> vecPointers = ArgumentPointers(vecArgs);
    std::vector<std::string> vecEnvironment = PLATFORM_CommandEnvironment(environ);
    std::vector<char *> vecVariables = ArgumentPointers(vecEnvironment);
    const int s32Error =
        posix_spawn(&pid, vecPointers[0], &stActions, &stAttributes, vecPointers.data(), vecVariables.data());
    posix_spawn_file_actions_destroy(&stActions);
    posix_spawnattr_destroy(&stAttributes);
    return s32Error;
}

// The shell has ended, or was collected by the host.
static bool HasEnded(pid_t pid)
{
    siginfo_t stInfo = {};
    return waitid(P_PID, static_cast<id_t>(pid), &stInfo, WEXITED | WNOHANG | WNOWAIT) != 0 || stInfo.si_pid != 0;
}

// Something can be read; false when the shell ended and left nothing.
static bool WaitForReport(int s32Fd, pid_t pid)
{
    for (;;)
    {
        struct pollfd stLook = {s32Fd, POLLIN, 0};
        const bool bEnded = HasEnded(pid); // before the look: what it has written is there then
        if (poll(&stLook, 1, bEnded ? 0 : LOOK_EVERY_MS) > 0)
        {
            return true;
        }
        if (bEnded)
        {
            return false;
        }
    }
}

// The report is a decimal number and a newline; nothing at all when the shell was killed before it could write it.
static std::string ReadReport(int s32Fd, pid_t pid)
{
    std::string strReport;
    char szPart[32];
    while (strReport.find('\n') == std::string::npos && WaitForReport(s32Fd, pid))
    {
        const ssize_t sLen = read(s32Fd, szPart, sizeof(szPart));
        if (sLen > 0)
        {
            strReport.append(szPart, static_cast<size_t>(sLen));
        }
        else if (sLen == 0 || errno != EINTR)
        {
            break;
        }
    }
    return strReport;
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
    const std::string strReport = s32Error == 0 ? ReadReport(as32Pipe[0], pid) : std::string();
    close(as32Pipe[0]);
    if (s32Error != 0)
    {
        PLATFORM_LogError("cannot start %s: %s", vecShell[0].c_str(), strerror(s32Error));
        return PLATFORM_NOT_STARTED;
    }
    const int32_t s32Shell = CollectShell(pid);
    return strReport.empty() ? s32Shell : static_cast<int32_t>(strtol(strReport.c_str(), nullptr, 10));
}

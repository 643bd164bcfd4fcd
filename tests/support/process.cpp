#include "support/process.h"

#include <algorithm>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <sys/select.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/wait.h"

static std::vector<std::string> Entries(const std::string &strFolder)
{
    std::vector<std::string> vecNames;
    DIR *pDir = opendir(strFolder.c_str());
    if (pDir == nullptr)
    {
        return vecNames;
    }
    const std::string strOwn = std::to_string(dirfd(pDir));
    while (const dirent *pEntry = readdir(pDir))
    {
        // The descriptor of this very listing does not count.
        if (pEntry->d_name[0] != '.' && !(strFolder == "/proc/self/fd" && strOwn == pEntry->d_name))
        {
            vecNames.emplace_back(pEntry->d_name);
        }
    }
    closedir(pDir);
    return vecNames;
}

static std::string FirstLine(const std::string &strPath)
{
    std::ifstream file(strPath);
    std::string strLine;
    std::getline(file, strLine);
    return strLine;
}

static std::string Cut(const std::string &strName)
{
    return strName.substr(0, 15);
}

std::vector<std::string> PROCESS_ThreadNames()
{
    std::vector<std::string> vecNames;
    for (const std::string &strTask : Entries("/proc/self/task"))
    {
        const std::string strName = FirstLine("/proc/self/task/" + strTask + "/comm");
        if (!strName.empty()) // a thread may end while it is looked at
        {
            vecNames.push_back(strName);
        }
    }
    return vecNames;
}

bool PROCESS_HasThread(const std::string &strName)
{
    const std::vector<std::string> vecNames = PROCESS_ThreadNames();
    return std::find(vecNames.begin(), vecNames.end(), Cut(strName)) != vecNames.end();
}

bool PROCESS_ThreadWaits(const std::string &strName)
{
    for (const std::string &strTask : Entries("/proc/self/task"))
    {
        const std::string strFolder = "/proc/self/task/" + strTask;
        if (FirstLine(strFolder + "/comm") == Cut(strName))
        {
            const std::string strCall = FirstLine(strFolder + "/syscall"); // "202 0x... ..." or "running"
            return std::strtol(strCall.c_str(), nullptr, 10) == SYS_futex;
        }
    }
    return false;
}

int32_t PROCESS_ThreadCount()
{
    return static_cast<int32_t>(PROCESS_ThreadNames().size());
}

int32_t PROCESS_DescriptorCount()
{
    return static_cast<int32_t>(Entries("/proc/self/fd").size());
}

std::vector<std::string> PROCESS_DescriptorsBelow(const std::string &strPath)
{
    std::vector<std::string> vecTargets;
    for (const std::string &strFd : Entries("/proc/self/fd"))
    {
        char szTarget[PATH_MAX + 1] = {};
        const ssize_t s64Len = readlink(("/proc/self/fd/" + strFd).c_str(), szTarget, PATH_MAX);
        if (s64Len > 0 && (szTarget == strPath || std::string(szTarget).rfind(strPath + "/", 0) == 0))
        {
            vecTargets.emplace_back(szTarget);
        }
    }
    return vecTargets;
}

bool PROCESS_SelectTakes(int32_t s32Fd)
{
    std::vector<fd_set> vecSets(static_cast<size_t>(s32Fd) / FD_SETSIZE + 1); // no bit is set: it looks at nothing
    timeval stWait = {};
    const pid_t pid = fork();
    if (pid == 0)
    {
        _exit(select(s32Fd + 1, vecSets.data(), nullptr, nullptr, &stWait) == 0 ? 0 : 1);
    }
    int32_t s32Status = 0;
    return pid > 0 && waitpid(pid, &s32Status, 0) == pid && WIFEXITED(s32Status) && WEXITSTATUS(s32Status) == 0;
}

static char g_szLimit[256]; // what the handler below writes; a handler may not build texts

static void OnAlarm(int)
{
    if (write(STDERR_FILENO, g_szLimit, strlen(g_szLimit)) < 0)
    {
        _exit(2);
    }
    _exit(1);
}

PROCESS_LIMIT::PROCESS_LIMIT(int32_t s32NativeSeconds)
{
    const int32_t s32Seconds = s32NativeSeconds * TEST_SLOW;
    const ::testing::TestInfo *pInfo = ::testing::UnitTest::GetInstance()->current_test_info();
    const std::string strText = "FAILED: " + std::string(pInfo->test_suite_name()) + "." + pInfo->name() +
                                " did not end within " + std::to_string(s32Seconds) + " seconds: something hangs\n";
    strncpy(g_szLimit, strText.c_str(), sizeof(g_szLimit) - 1);
    signal(SIGALRM, OnAlarm);
    alarm(static_cast<unsigned>(s32Seconds));
}

PROCESS_LIMIT::~PROCESS_LIMIT()
{
    alarm(0);
}

#include "storage/storage_support.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>

#include <fcntl.h>
#include <unistd.h>

#include "support/card.h"

int32_t TEST_OpenDescriptors()
{
    return static_cast<int32_t>(TEST_List("/proc/self/fd").size());
}

std::vector<std::string> TEST_OpenBelow(const std::string &strDir)
{
    std::vector<std::string> vecPaths;
    for (const std::string &strFd : TEST_List("/proc/self/fd"))
    {
        std::error_code error;
        const std::string strPath = std::filesystem::read_symlink("/proc/self/fd/" + strFd, error).string();
        if (!error && (strPath == strDir || strPath.rfind(strDir + "/", 0) == 0))
        {
            vecPaths.push_back(strPath);
        }
    }
    return vecPaths;
}

std::string TEST_Sparse(const std::string &strPath, uint64_t u64Size)
{
    TEST_Touch(strPath);
    EXPECT_EQ(0, truncate(strPath.c_str(), static_cast<off_t>(u64Size))) << strPath;
    return strPath;
}

double TEST_Seconds()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::duration<double>>(now).count();
}

TIME_ZONE::TIME_ZONE(const char *pszZone) : m_bBefore(getenv("TZ") != nullptr)
{
    if (m_bBefore)
    {
        m_strBefore = getenv("TZ");
    }
    setenv("TZ", pszZone, 1);
    tzset();
}

TIME_ZONE::~TIME_ZONE()
{
    if (m_bBefore)
    {
        setenv("TZ", m_strBefore.c_str(), 1);
    }
    else
    {
        unsetenv("TZ");
    }
    tzset();
}

BLOCKED_STDOUT::BLOCKED_STDOUT()
{
    fflush(stdout);
    setvbuf(stdout, nullptr, _IOLBF, 0); // a line reaches the pipe at once
    m_s32Saved = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    EXPECT_EQ(0, pipe2(m_as32Pipe, O_CLOEXEC));
    fcntl(m_as32Pipe[1], F_SETFL, O_NONBLOCK);
    const std::string strBlock(4096, '\n');
    while (write(m_as32Pipe[1], strBlock.data(), strBlock.size()) > 0)
    {
    }
    fcntl(m_as32Pipe[1], F_SETFL, 0);
    dup2(m_as32Pipe[1], STDOUT_FILENO);
    close(m_as32Pipe[1]);
}

void BLOCKED_STDOUT::Release()
{
    if (m_drain.joinable())
    {
        return;
    }
    m_drain = std::thread(
        [s32Fd = m_as32Pipe[0]]
        {
            char acBlock[4096];
            while (read(s32Fd, acBlock, sizeof(acBlock)) > 0)
            {
            }
        });
}

BLOCKED_STDOUT::~BLOCKED_STDOUT()
{
    Release();
    fflush(stdout);
    dup2(m_s32Saved, STDOUT_FILENO); // the last writing end: the drain ends
    close(m_s32Saved);
    m_drain.join();
    close(m_as32Pipe[0]);
}

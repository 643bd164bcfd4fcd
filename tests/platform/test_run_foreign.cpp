// The command runner in a host that forks, leaves descriptors open, and was started with a shell's settings exported.

#include <csignal>
#include <cstdlib>
#include <string>
#include <vector>

#include <dlfcn.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include "helpers.h"
#include "process.h"
#include "quarrin_platform.h"
#include "support/process.h"

namespace
{

bool s_bForks = false; // a fork falls between the pipe and its close
pid_t s_forked = -1;

} // namespace

// In the place of the C library's: what the runner has open at this moment, a process of the host's has open as well.
extern "C" int posix_spawn(pid_t *pPid, const char *pszPath, const posix_spawn_file_actions_t *pActions,
                           const posix_spawnattr_t *pAttributes, char *const *ppszArgs, char *const *ppszVariables)
{
    if (s_bForks && s_forked < 0)
    {
        s_forked = fork();
        if (s_forked == 0)
        {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
        }
        while (s_forked == 0)
        {
            pause();
        }
    }
    static const auto s_pfnSpawn = reinterpret_cast<decltype(&posix_spawn)>(dlsym(RTLD_NEXT, "posix_spawn"));
    return s_pfnSpawn(pPid, pszPath, pActions, pAttributes, ppszArgs, ppszVariables);
}

/// A host that forks while a command is begun, and whose process lives on.
class RunWhileForking : public DIR_TEST
{
protected:
    void SetUp() override
    {
        DIR_TEST::SetUp();
        s_bForks = true;
    }

    void TearDown() override
    {
        s_bForks = false;
        EXPECT_GT(s_forked, 0);
        kill(s_forked, SIGKILL);
        waitpid(s_forked, nullptr, 0);
        s_forked = -1;
        DIR_TEST::TearDown();
    }
};

TEST_F(RunWhileForking, TakesTheReportAndDoesNotWaitForTheOtherProcess)
{
    const PROCESS_LIMIT limit(30);
    EXPECT_EQ(5, QN_PLATFORM_RunCommand("exit 5"));
}

TEST_F(RunWhileForking, NoticesAShellThatWasKilledBeforeItsReport)
{
    const PROCESS_LIMIT limit(30);
    EXPECT_EQ(128 + SIGKILL, QN_PLATFORM_RunCommand("kill -KILL $PPID"));
}

/// A variable of the environment, as long as the object lives.
class VARIABLE
{
public:
    VARIABLE(const char *pszName, const std::string &strValue) : m_strName(pszName)
    {
        setenv(pszName, strValue.c_str(), 1);
    }
    ~VARIABLE()
    {
        unsetenv(m_strName.c_str());
    }
    VARIABLE(const VARIABLE &) = delete;
    VARIABLE &operator=(const VARIABLE &) = delete;

private:
    std::string m_strName;
};

class RunWithSettings : public DIR_TEST
{
protected:
    // What lines do, and how they end, in both shells.
    void ExpectOrdinary(const std::string &strWhat)
    {
        SCOPED_TRACE(strWhat);
        const std::string strOut = m_strDir + "/out";
        EXPECT_EQ(0, QN_PLATFORM_RunCommand("true"));
        EXPECT_EQ(7, QN_PLATFORM_RunCommand("exit 7"));
        EXPECT_EQ(3, QN_PLATFORM_RunCommand(("false; echo -e \"a\\nb\" > " + strOut + "; exit 3").c_str()));
        EXPECT_EQ("a\nb\n", ReadFile(strOut));
        EXPECT_EQ(0, QN_PLATFORM_RunCommand(("printf '%s' $UNSET/pro[c] > " + strOut).c_str()));
        EXPECT_EQ("/proc", ReadFile(strOut));
        EXPECT_EQ(6, QN_PLATFORM_RunCommand("cd / && (exit 6)"));
        if (access("/bin/busybox", X_OK) == 0)
        {
            const std::vector<std::string> vecShell = {"/bin/busybox", "sh"};
            EXPECT_EQ(3, PLATFORM_RunArgs(vecShell, {"/bin/busybox", "sh", "-c", "false; exit 3"}));
        }
        std::filesystem::remove(strOut);
    }
};

TEST_F(RunWithSettings, DoesWhatTheLineSaysWhateverTheShellWasTold)
{
    const std::string strExit = MakeFile("exit", "exit 0\n");
    for (const char *pszOptions :
         {"errexit", "noexec", "noglob", "nounset", "onecmd", "errexit:noexec:xtrace", "posix"})
    {
        const VARIABLE variable("SHELLOPTS", pszOptions);
        ExpectOrdinary(std::string("SHELLOPTS=") + pszOptions);
    }
    for (const char *pszName : {"BASH_ENV", "ENV"})
    {
        const VARIABLE variable(pszName, strExit);
        ExpectOrdinary(pszName);
    }
    for (const char *pszName : {"BASHOPTS", "POSIXLY_CORRECT", "GLOBIGNORE"})
    {
        const VARIABLE variable(pszName, pszName == std::string("BASHOPTS") ? "nullglob:failglob:xpg_echo" : "*");
        ExpectOrdinary(pszName);
    }
}

TEST_F(RunWithSettings, RunsNoFunctionOfTheHostsEnvironment)
{
    for (const char *pszName : {"echo", "exit", "printf", "export", "mount", "cd"})
    {
        const std::string strBody = "() {  builtin printf '0\\n'; }";
        const VARIABLE variable((std::string("BASH_FUNC_") + pszName + "%%").c_str(), strBody);
        ExpectOrdinary(std::string("function ") + pszName);
    }
}

TEST_F(RunWithSettings, LeavesTheRestOfTheEnvironmentToTheCommand)
{
    const VARIABLE variable("QUARRIN_TEST_BASH", "() a value");
    const std::string strOut = m_strDir + "/out";
    EXPECT_EQ(0, QN_PLATFORM_RunCommand(("printf %s \"$QUARRIN_TEST_BASH\" > " + strOut).c_str()));
    EXPECT_EQ("() a value", ReadFile(strOut));
}

TEST_F(RunWithSettings, GivesTheCommandNoDescriptorOfTheHost)
{
    const std::string strFile = MakeFile("recording");
    const std::string strOut = m_strDir + "/out";
    std::vector<int> vecOpen;
    for (const int s32Least : {3, 4, 9, 10, 200, 900})
    {
        const int s32Open = open(strFile.c_str(), O_RDWR); // no O_CLOEXEC, as FFmpeg's callers and older hosts have it
        vecOpen.push_back(fcntl(s32Open, F_DUPFD, s32Least));
        close(s32Open);
    }
    const std::string strLine = "ls -l /proc/self/fd > " + strOut + " 2>/dev/null";
    EXPECT_EQ(0, QN_PLATFORM_RunCommand(strLine.c_str()));
    EXPECT_EQ(std::string::npos, ReadFile(strOut).find(strFile)) << ReadFile(strOut);
    EXPECT_NE(std::string::npos, ReadFile(strOut).find(strOut)) << ReadFile(strOut);
    EXPECT_EQ(std::string::npos, ReadFile(strOut).find("pipe:")) << ReadFile(strOut); // nor the runner's own
    for (const int s32Open : vecOpen)
    {
        close(s32Open);
    }
}

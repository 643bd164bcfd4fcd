// Threads: how many there are, how often they wake when nothing happens, and what they make resident.

#include "questions.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <set>
#include <string>
#include <sys/prctl.h>
#include <unistd.h>

#include "rig.h"

using namespace libquarrin;

namespace
{

constexpr uint32_t IDLE_SECONDS = 10;

std::set<std::string> Threads()
{
    std::set<std::string> setThreads;
    DIR *pDir = opendir("/proc/self/task");
    while (const dirent *pEntry = pDir != nullptr ? readdir(pDir) : nullptr)
    {
        if (pEntry->d_name[0] != '.')
        {
            setThreads.insert(pEntry->d_name);
        }
    }
    if (pDir != nullptr)
    {
        closedir(pDir);
    }
    return setThreads;
}

std::set<std::string> ThreadsSince(const std::set<std::string> &setThen)
{
    std::set<std::string> setNew;
    for (const std::string &strThread : Threads())
    {
        if (setThen.count(strThread) == 0)
        {
            setNew.insert(strThread);
        }
    }
    return setNew;
}

// The number behind a word in a file of /proc.
int64_t ReadWord(const std::string &strPath, const char *pszWord)
{
    char szText[8192] = {};
    const int s32Fd = open(strPath.c_str(), O_RDONLY | O_CLOEXEC);
    const ssize_t bytes = s32Fd < 0 ? -1 : read(s32Fd, szText, sizeof(szText) - 1);
    if (s32Fd >= 0)
    {
        close(s32Fd);
    }
    const char *pszFound = bytes > 0 ? strstr(szText, pszWord) : nullptr;
    if (pszFound == nullptr)
    {
        RIG_Fail("no " + std::string(pszWord) + " in " + strPath);
    }
    return strtoll(pszFound + strlen(pszWord), nullptr, 10);
}

int64_t SleepsOf(const std::set<std::string> &setThreads)
{
    int64_t s64Sleeps = 0;
    for (const std::string &strThread : setThreads)
    {
        s64Sleeps += ReadWord("/proc/self/task/" + strThread + "/status", "\nvoluntary_ctxt_switches:");
    }
    return s64Sleeps;
}

int64_t ResidentKb()
{
    return ReadWord("/proc/self/smaps_rollup", "Private_Dirty:");
}

double Now()
{
    struct timespec stTime = {};
    clock_gettime(CLOCK_MONOTONIC, &stTime);
    return static_cast<double>(stTime.tv_sec) + static_cast<double>(stTime.tv_nsec) / 1e9;
}

int64_t CountSince(const std::set<std::string> &setThen)
{
    return static_cast<int64_t>(ThreadsSince(setThen).size());
}

} // namespace

void ASK_Threads()
{
    CARD_S stIn(true);
    CARD_S stOut(false);
    const std::set<std::string> setBefore = Threads();
    tagQN_HANDLER_S *pHandle = RIG_Open(stOut);
    RIG_Figure("threads_card_out", CountSince(setBefore));
    RIG_Expect(QN_Destroy(pHandle), "QN_Destroy");
    RIG_WaitFor("the threads to end", [&setBefore] { return CountSince(setBefore) == 0; });

    pHandle = RIG_Open(stIn);
    RIG_Figure("threads_card_in", CountSince(setBefore));
    FEED_S stFeed = RIG_Record(pHandle, QN_FILE_FMT_E_MKV, true, true);
    RIG_Feed(stFeed, 500);
    RIG_Figure("threads_recording", CountSince(setBefore));
    RIG_Finish(stFeed);

    RIG_HoldFormat(true);
    RIG_BeginFormat(pHandle);
    usleep(300000); // long enough for any thread that might come in addition
    RIG_Figure("threads_formatting", CountSince(setBefore));
    RIG_HoldFormat(false);
    RIG_WaitFor("the card", [pHandle] { return pHandle->enState.load() == QN_STATE_E_MOUNTED; });
    RIG_Expect(QN_Destroy(pHandle), "QN_Destroy");
    RIG_WaitFor("the threads to end", [&setBefore] { return CountSince(setBefore) == 0; });
}

void ASK_Idle()
{
    // Whether a stack begins with a huge page is the kernel's affair.
    (void)prctl(PR_SET_THP_DISABLE, 1, 0, 0, 0); // a kernel without them knows no such call
    CARD_S stOut(false);
    CARD_S stIn(true);
    std::set<std::string> setBefore = Threads();
    tagQN_HANDLER_S *pOut = RIG_Open(stOut);
    const std::set<std::string> setOut = ThreadsSince(setBefore);
    setBefore = Threads();
    const int64_t s64Before = ResidentKb();
    tagQN_HANDLER_S *pIn = RIG_Open(stIn);
    RIG_Figure("handle_resident", ResidentKb() - s64Before);
    const std::set<std::string> setIn = ThreadsSince(setBefore);

    // A uevent wakes every listener, and other programs of this machine may cause them by the dozen.
    const int as32Sockets[] = {RIG_TakeSocket(pOut), RIG_TakeSocket(pIn)};
    usleep(500000); // what was woken by all this is asleep again
    const int64_t s64Out = SleepsOf(setOut);
    const int64_t s64In = SleepsOf(setIn);
    const double dBegin = Now();
    sleep(IDLE_SECONDS);
    const double dOut = static_cast<double>(SleepsOf(setOut) - s64Out);
    const double dIn = static_cast<double>(SleepsOf(setIn) - s64In);
    const double dSeconds = Now() - dBegin; // a busy machine may oversleep
    RIG_Figure("wakeups_card_out", dOut / dSeconds);
    RIG_Figure("wakeups_card_in", dIn / dSeconds);
    RIG_Expect(QN_Destroy(pOut), "QN_Destroy");
    RIG_Expect(QN_Destroy(pIn), "QN_Destroy");
    for (const int s32Socket : as32Sockets)
    {
        close(s32Socket);
    }
}

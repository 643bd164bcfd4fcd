#include "support/call_limit.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <unistd.h>

#include "support/wait.h"

namespace
{

constexpr int32_t LIMIT_SECONDS = 30;

int32_t Signal()
{
    return SIGRTMAX - 2; // nobody else's
}

// A handler may not build texts.
void OnLimit(int, siginfo_t *pInfo, void *)
{
    const char *apszText[] = {"FAILED: a call of ", static_cast<const char *>(pInfo->si_value.sival_ptr),
                              " did not come back in time: something hangs\n"};
    for (const char *pszText : apszText)
    {
        if (write(STDERR_FILENO, pszText, strlen(pszText)) < 0)
        {
            break;
        }
    }
    _exit(1);
}

bool Listen()
{
    struct sigaction stAction = {};
    stAction.sa_sigaction = OnLimit;
    stAction.sa_flags = SA_SIGINFO;
    return sigaction(Signal(), &stAction, nullptr) == 0;
}

// The calls that run on one thread.
struct THREAD_CALLS_S
{
    int32_t s32Depth = 0;
    timer_t timer = {};

    void Begin(const char *pszCall)
    {
        static const bool bListening = Listen();
        struct sigevent stEvent = {};
        stEvent.sigev_notify = SIGEV_SIGNAL;
        stEvent.sigev_signo = Signal();
        stEvent.sigev_value.sival_ptr = const_cast<char *>(pszCall);
        struct itimerspec stLimit = {};
        stLimit.it_value.tv_sec = LIMIT_SECONDS * TEST_SLOW;
        if (s32Depth++ == 0 && (!bListening || timer_create(CLOCK_MONOTONIC, &stEvent, &timer) != 0 ||
                                timer_settime(timer, 0, &stLimit, nullptr) != 0))
        {
            abort(); // a test without its limit might hang unseen
        }
    }
    void End()
    {
        if (--s32Depth == 0)
        {
            timer_delete(timer);
        }
    }
};

thread_local THREAD_CALLS_S t_stCalls;

} // namespace

CALL_LIMIT::CALL_LIMIT(const char *pszCall)
{
    t_stCalls.Begin(pszCall);
}

CALL_LIMIT::~CALL_LIMIT()
{
    t_stCalls.End();
}

// Stop signals. Threads: any; the flag is the only thing that a handler touches.

#include "stop_signal.h"

#include <atomic>
#include <csignal>
#include <initializer_list>

static std::atomic<bool> s_bAsked{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler writes it");

static void OnSignal(int)
{
    s_bAsked = true;
}

void TOOL_STOP_Catch()
{
    struct sigaction stAction = {};
    stAction.sa_handler = OnSignal; // without SA_RESTART: a read that waits returns
    sigemptyset(&stAction.sa_mask);
    for (int s32Signal : {SIGINT, SIGTERM, SIGHUP})
    {
        sigaction(s32Signal, &stAction, nullptr);
    }
    stAction.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &stAction, nullptr);
}

bool TOOL_STOP_Asked()
{
    return s_bAsked;
}

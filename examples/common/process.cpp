// The process of a host. See the header.

#include "process.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <ctime>

#include <fcntl.h>
#include <unistd.h>

extern "C"
{
#include <libavutil/mem.h>
}

constexpr size_t MOST_AT_ONCE = 256 << 20;

static int g_output = -1; // set once, before there are threads

void LimitMemory()
{
    av_max_alloc(MOST_AT_ONCE);
}

int TakeStandardOutput()
{
    (void)fflush(stdout); // nothing was printed yet
    const int own = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    const bool done = own >= 0 && nowhere >= 0 && dup2(nowhere, STDOUT_FILENO) >= 0;
    if (nowhere > STDERR_FILENO)
    {
        close(nowhere);
    }
    g_output = done ? own : -1;
    return g_output;
}

void Say(const char *format, ...)
{
    char line[512];
    va_list args;
    va_start(args, format);
    const int length = std::max(vsnprintf(line, sizeof(line) - 1, format, args), 0);
    va_end(args);
    const size_t used = std::min(static_cast<size_t>(length), sizeof(line) - 2); // a longer one is cut
    for (size_t i = 0; i < used; i++)
    {
        // A card's names come from strangers, and a terminal obeys control characters; those of C1 are two bytes in
        // UTF-8.
        const unsigned char byte = static_cast<unsigned char>(line[i]);
        const unsigned char next = static_cast<unsigned char>(i + 1 < used ? line[i + 1] : 0);
        line[i] = byte < 0x20 || byte == 0x7f || (byte == 0xc2 && next >= 0x80 && next < 0xa0) ? '?' : line[i];
    }
    line[used] = '\n';
    (void)WriteAll(g_output, line, used + 1);
}

bool WriteAll(int fd, const void *data, size_t size)
{
    const char *next = static_cast<const char *>(data);
    while (size > 0)
    {
        const ssize_t written = write(fd, next, size);
        if (written < 0 && errno != EINTR)
        {
            return false;
        }
        next += std::max<ssize_t>(written, 0);
        size -= static_cast<size_t>(std::max<ssize_t>(written, 0));
    }
    return true;
}

static sigset_t HandledSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGUSR1})
    {
        sigaddset(&signals, number);
    }
    return signals;
}

void BlockSignals()
{
    const sigset_t signals = HandledSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

int WaitForSignal(std::chrono::nanoseconds limit)
{
    const sigset_t signals = HandledSignals();
    const auto left = std::max(limit, std::chrono::nanoseconds(0));
    timespec time = {};
    time.tv_sec = static_cast<time_t>(left / std::chrono::seconds(1));
    time.tv_nsec = static_cast<long>((left % std::chrono::seconds(1)).count());
    return std::max(sigtimedwait(&signals, nullptr, &time), 0); // -1: time is over, or another signal came
}

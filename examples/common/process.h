// What a host settles for its process before the first thread exists: memory, standard output and signals.
#ifndef EXAMPLES_PROCESS_H
#define EXAMPLES_PROCESS_H

#include <chrono>
#include <cstddef>

/// Lets FFmpeg take 256 MB at once and no more, in the whole process: a file on a card from a stranger may speak of
/// anything. The index of a day of sound has 100 MB.
void LimitMemory();

/// Takes standard output for the program's own words: the library prints its messages there as well as to
/// UTIL_LOG_Print, and from now on the former go nowhere. The descriptor to write to; -1 on failure.
int TakeStandardOutput();

/// Writes one line to that descriptor. A program goes on when nobody listens.
void Say(const char *format, ...) __attribute__((format(printf, 1, 2)));

/// Writes everything; false when the other end is closed or full.
bool WriteAll(int fd, const void *data, size_t size);

/// Blocks SIGINT, SIGTERM, SIGHUP and SIGUSR1 in this thread and in those that it starts, the library's too, so that
/// none of them ends the program with a file open and a card mounted. SIGPIPE is ignored: a write fails instead.
void BlockSignals();

/// Waits for one of the blocked signals, which is also how these programs sleep. Its number; 0 when the time is over.
int WaitForSignal(std::chrono::nanoseconds limit);

#endif

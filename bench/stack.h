// How deep stacks get: threads that this process starts get painted ones, of which the untouched rest is measured.
#ifndef QUARRIN_BENCH_STACK_H
#define QUARRIN_BENCH_STACK_H

#include <cstddef>
#include <cstdint>
#include <functional>

/// From now on every new thread gets a painted stack.
void STACK_Paint();

/// Number of threads with a painted stack so far; the next one has this number.
size_t STACK_Count();

/// Bytes that a thread has used of its stack so far, with what the C library keeps at its top.
int64_t STACK_Used(size_t thread);

/// Calls a function on a thread of its own; the bytes of stack that it took.
int64_t STACK_Of(const std::function<void()> &fnCall);

#endif

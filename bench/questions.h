// The questions that the program answers, one for each run of it: figures must not see what another question left
// behind.
#ifndef QUARRIN_BENCH_QUESTIONS_H
#define QUARRIN_BENCH_QUESTIONS_H

/// Heap of handles, sessions and recordings.
void ASK_Record();
/// Heap that each frame leaves behind within a file, and what stays when the file is finished.
void ASK_Frames();
/// Heap of replays.
void ASK_Replay();
/// Depth of every thread's stack.
void ASK_Stack();
/// Number of threads.
void ASK_Threads();
/// How often an idle handle wakes, and what it makes resident; an emulator shows neither.
void ASK_Idle();
/// Heap of listing a hundred thousand files.
void ASK_Listing();
/// Time of the same; an emulator's says nothing.
void ASK_ListingTime();

#endif

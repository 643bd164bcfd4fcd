// What the kernel knows of this process: its threads and descriptors; and a limit on the time that a test may take.
#ifndef QUARRIN_TESTS_PROCESS_H
#define QUARRIN_TESTS_PROCESS_H

#include <cstdint>
#include <string>
#include <vector>

/// Names of all threads, as the kernel shows them: 15 characters at most.
std::vector<std::string> PROCESS_ThreadNames();

/// A thread has this name, cut to 15 characters.
bool PROCESS_HasThread(const std::string &strName);

/// The first thread of this name (cut) waits in the kernel for a mutex or a condition. False too when the kernel does
/// not tell.
bool PROCESS_ThreadWaits(const std::string &strName);

/// Number of threads.
int32_t PROCESS_ThreadCount();

/// Number of open descriptors.
int32_t PROCESS_DescriptorCount();

/// What the descriptors at or below a path point to.
std::vector<std::string> PROCESS_DescriptorsBelow(const std::string &strPath);

/// This machine's select takes a descriptor beyond fd_set's 1023. An emulator of one may end the program at that, so it
/// is tried in a process of its own.
bool PROCESS_SelectTakes(int32_t s32Fd);

/// Ends the whole process with a message when it lives longer than s32NativeSeconds (times TEST_SLOW): for tests of
/// what might hang, where no thread is left that could tell.
class PROCESS_LIMIT
{
public:
    explicit PROCESS_LIMIT(int32_t s32NativeSeconds);
    ~PROCESS_LIMIT();
    PROCESS_LIMIT(const PROCESS_LIMIT &) = delete;
    PROCESS_LIMIT &operator=(const PROCESS_LIMIT &) = delete;
};

#endif

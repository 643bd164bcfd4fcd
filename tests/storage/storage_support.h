// What the storage tests need beyond a card: time zones, sparse files, open descriptors.
#ifndef QUARRIN_TESTS_STORAGE_SUPPORT_H
#define QUARRIN_TESTS_STORAGE_SUPPORT_H

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

/// Number of descriptors that the process has open.
int32_t TEST_OpenDescriptors();

/// The open descriptors below a directory, as paths.
std::vector<std::string> TEST_OpenBelow(const std::string &strDir);

/// Makes a file of a size that takes no room on the disk; its path.
std::string TEST_Sparse(const std::string &strPath, uint64_t u64Size);

/// Seconds since a fixed point, for lower bounds.
double TEST_Seconds();

/// Sets the time zone of the process for its own lifetime.
class TIME_ZONE
{
public:
    explicit TIME_ZONE(const char *pszZone);
    ~TIME_ZONE();
    TIME_ZONE(const TIME_ZONE &) = delete;
    TIME_ZONE &operator=(const TIME_ZONE &) = delete;

private:
    std::string m_strBefore;
    bool m_bBefore;
};

/// Lets every thread that prints to standard output wait, until Release.
class BLOCKED_STDOUT
{
public:
    BLOCKED_STDOUT();
    ~BLOCKED_STDOUT();
    BLOCKED_STDOUT(const BLOCKED_STDOUT &) = delete;
    BLOCKED_STDOUT &operator=(const BLOCKED_STDOUT &) = delete;

    void Release();

private:
    int32_t m_s32Saved;
    int32_t m_as32Pipe[2] = {-1, -1};
    std::thread m_drain;
};

#endif

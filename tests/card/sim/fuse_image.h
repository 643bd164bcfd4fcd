// An image file that a server process of our own exports, by the kernel's FUSE protocol: what goes through it can be
// delayed, can fail, can be logged, and ends for good when the server is killed.
// Threads: one object is one thread's at a time; the settings are any thread's.
#ifndef QUARRIN_TESTS_CARD_SIM_FUSE_IMAGE_H
#define QUARRIN_TESTS_CARD_SIM_FUSE_IMAGE_H

#include <atomic>
#include <cstdint>
#include <string>

#include <sys/types.h>

/// What the server looks at before each request, in memory that it shares with the program.
struct FUSE_CONTROL_S
{
    std::atomic<int32_t> s32DelayMs{0};     ///< each write and sync takes so much longer
    std::atomic<int32_t> s32ReadErrno{0};   ///< reads fail with this
    std::atomic<int32_t> s32WriteErrno{0};  ///< writes and syncs fail with this, once s64WritesLeft is used up
    std::atomic<int64_t> s64WritesLeft{-1}; ///< writes that still succeed before; negative: none fails
    std::atomic<int64_t> s64Reads{0};
    std::atomic<int64_t> s64Writes{0};
    std::atomic<int64_t> s64Failures{0};
    std::atomic<int64_t> s64Logged{0}; ///< entries of the log that were written so far
};

class FUSE_IMAGE
{
public:
    /// The image is exported as strDir/card. Every write and flush is logged in strLog (see write_log.h); empty: it is
    /// not.
    FUSE_IMAGE(const std::string &strImage, const std::string &strDir, const std::string &strLog = "");
    ~FUSE_IMAGE();
    FUSE_IMAGE(const FUSE_IMAGE &) = delete;
    FUSE_IMAGE &operator=(const FUSE_IMAGE &) = delete;

    /// This machine has FUSE.
    static bool IsAvailable();

    /// Starts the server; does nothing while it runs. False when the kernel refuses.
    bool Start();

    /// Kills the server: every request fails from now on, those on their way too.
    void Kill();

    /// Kills the server and takes its mount away.
    void Stop();

    const std::string &Path() const ///< the exported image
    {
        return m_strPath;
    }
    FUSE_CONTROL_S &Control()
    {
        return *m_pControl;
    }

    /// Fails every write after s64Count more of them.
    void FailWritesAfter(int64_t s64Count, int32_t s32Errno);

    /// No delay, no failure.
    void Heal();

private:
    std::string m_strImage;
    std::string m_strDir;
    std::string m_strPath;
    std::string m_strLog;
    pid_t m_pid = -1;
    bool m_bMounted = false;
    FUSE_CONTROL_S *m_pControl;
};

#endif

// A small recorder in a process of its own, which can be killed at any moment: it notes in shared memory what it handed to
// the library. Its clock runs with the frames, so that minutes of film take as long as the writing takes.
#ifndef QUARRIN_TESTS_RELIABILITY_RECORDER_H
#define QUARRIN_TESTS_RELIABILITY_RECORDER_H

#include <atomic>
#include <cstdint>
#include <string>

#include <sys/types.h>

#include "libquarrin.h"

constexpr uint32_t RECORDER_FPS = 25;
constexpr uint32_t RECORDER_GOP = 25;
constexpr uint32_t RECORDER_FILES = 128;
constexpr uint32_t RECORDER_FRAMES = 16384;
constexpr int64_t RECORDER_EPOCH = 1700000000; ///< second at which the recorder's clock starts

struct RECORDER_PARAM_S
{
    std::string strMount; ///< the folder that stands for the mounted card; recordings lie in rec below it
    libquarrin::QN_FILE_FMT_E enFormat = libquarrin::QN_FILE_FMT_E_MKV;
    bool bAudio = false;          ///< the session has an audio stream
    bool bSilent = false;         ///< which never delivers
    uint32_t u32SplitSeconds = 8; ///< of the recorder's clock
    uint32_t u32PauseUs = 0;      ///< from frame to frame; 0: as fast as it goes
    uint32_t u32Durable = 0;      ///< as the tool's --durable
    uint32_t u32KillFrame = 0;    ///< 0: it is not killed from inside
    uint32_t u32KillNs = 0;       ///< so long after the frame before was handed in
};

/// One file, as the recorder knows it.
struct RECORDER_FILE_S
{
    int64_t s64Start;               ///< second of the recorder's clock at which it was begun
    uint32_t u32First;              ///< number of its first picture
    std::atomic<uint32_t> u32Video; ///< pictures whose calls came back
    std::atomic<uint32_t> u32Audio;
    std::atomic<int64_t> s64SplitMs; ///< real time at which the next file had been begun; 0: not yet
};

/// In shared memory; outlives the recorder.
struct RECORDER_LOG_S
{
    std::atomic<uint32_t> u32Files;
    RECORDER_FILE_S astFiles[RECORDER_FILES];
    std::atomic<uint32_t> u32Video;        ///< pictures whose calls came back, in all files
    int64_t as64VideoMs[RECORDER_FRAMES];  ///< real time at which each came back
    std::atomic<int64_t> s64LongestUs;     ///< longest call for one frame
    std::atomic<int64_t> s64PassBeginMs;   ///< --durable: begin of the pass that runs; 0: none does
    std::atomic<int64_t> s64LongestPassMs; ///< --durable: longest that ended
    std::atomic<bool> bFailed;             ///< the library refused to begin
};

class RECORDER
{
public:
    /// Starts the process. The streams it needs are encoded by the first recorder of the program.
    explicit RECORDER(const RECORDER_PARAM_S &stParam);
    ~RECORDER();
    RECORDER(const RECORDER &) = delete;
    RECORDER &operator=(const RECORDER &) = delete;

    /// Waits until it was killed from inside. False when it ended in another way.
    bool WaitKilled();

    /// Kills it.
    void Kill();

    const RECORDER_LOG_S &Log() const
    {
        return *m_pLog;
    }

private:
    RECORDER_LOG_S *m_pLog;
    pid_t m_pid = -1;
};

/// Bytes of the picture with that number.
uint32_t RECORDER_Bytes(uint32_t u32Frame);

#endif

// A small recorder in a process of its own, which can be killed at any moment: it notes in shared memory what it handed
// to the library. Its clock runs with the frames, so that minutes of film take as long as the writing takes.
#ifndef QUARRIN_TESTS_RELIABILITY_RECORDER_H
#define QUARRIN_TESTS_RELIABILITY_RECORDER_H

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

#include "libquarrin.h"

constexpr uint32_t RECORDER_FPS = 25;
constexpr uint32_t RECORDER_GOP = 25;
constexpr uint32_t RECORDER_FILES = 128;
constexpr uint32_t RECORDER_FRAMES = 16384;
constexpr uint32_t RECORDER_CALLS = 4096;
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
    uint32_t u32Frames = 0;       ///< it stops, destroys and ends by itself after so many; 0: it does not
    uint32_t u32QuotaBytes = 0;   ///< the oldest files go when there are more bytes; 0: none goes

    /// Not null: calls that rename, delete and sync recordings are noted, with this number of the moment.
    const std::atomic<int64_t> *pLogged = nullptr;
};

/// One file, as the recorder knows it.
struct RECORDER_FILE_S
{
    int64_t s64Start;               ///< second of the recorder's clock at which it was begun
    uint32_t u32First;              ///< number of its first picture
    uint32_t u32FirstAudio;         ///< number of its first audio frame
    std::atomic<uint32_t> u32Video; ///< pictures whose calls came back
    std::atomic<uint32_t> u32Audio;
    std::atomic<int64_t> s64SplitMs; ///< real time at which the next file had been begun; 0: not yet
};

enum RECORDER_CALL_E : int32_t
{
    RECORDER_CALL_NONE, ///< the note is not whole yet
    RECORDER_CALL_RENAME,
    RECORDER_CALL_UNLINK,
    RECORDER_CALL_SYNC
};

/// A call on a recording, or on the folder of recordings: one note before it, one behind when it succeeded.
struct RECORDER_CALL_S
{
    std::atomic<RECORDER_CALL_E> enCall;
    bool bAfter;
    int64_t s64Start;  ///< second at which the file was begun; 0: the folder
    uint32_t u32Video; ///< pictures whose calls had come back, in all files
    uint32_t u32Audio; ///< audio frames likewise
    int64_t s64Logged; ///< pLogged at that moment
    int64_t s64Ms;     ///< real time
    int64_t s64PassMs; ///< --durable: begin of the pass that runs; 0: none does
};

/// In shared memory; outlives the recorder.
struct RECORDER_LOG_S
{
    std::atomic<uint32_t> u32Files;
    RECORDER_FILE_S astFiles[RECORDER_FILES];
    std::atomic<uint32_t> u32Video;        ///< pictures whose calls came back, in all files
    std::atomic<uint32_t> u32Audio;        ///< audio frames whose calls came back, in all files
    int64_t as64VideoMs[RECORDER_FRAMES];  ///< real time at which each came back
    std::atomic<int64_t> s64LongestUs;     ///< longest call for one frame
    std::atomic<int64_t> s64PassBeginMs;   ///< --durable: begin of the pass that runs; 0: none does
    std::atomic<int64_t> s64LongestPassMs; ///< --durable: longest that ended
    std::atomic<bool> bFailed;             ///< the library refused to begin
    std::atomic<uint32_t> u32Calls;        ///< notes of calls; more than RECORDER_CALLS: some were lost
    RECORDER_CALL_S astCalls[RECORDER_CALLS];
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

    /// It has ended by itself, having stopped; see u32Frames. Does not wait.
    bool HasEnded();

    /// Kills it.
    void Kill();

    const RECORDER_LOG_S &Log() const
    {
        return *m_pLog;
    }

private:
    RECORDER_LOG_S *m_pLog;
    pid_t m_pid = -1;
    bool m_bEnded = false;
};

/// Bytes of the picture with that number.
uint32_t RECORDER_Bytes(uint32_t u32Frame);

/// The picture or audio frame with that number, as it was handed in.
const std::vector<uint8_t> &RECORDER_Frame(bool bVideo, uint32_t u32Frame);

#endif

// A record session that a thread of its own feeds without a break, and that knows how many frames each file must hold.
//
// The begin of every file is set back to a second of its own, years ago: it is never too short to be kept, and is known
// by its name.
#ifndef QUARRIN_TESTS_CARD_PUMP_H
#define QUARRIN_TESTS_CARD_PUMP_H

#include <atomic>
#include <cstdint>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "libquarrin.h"
#include "support/streams.h"

/// Milliseconds from one video frame to the next, in stream time.
constexpr uint64_t PUMP_FRAME_MS = 40;

class PUMP
{
public:
    /// Makes the session; the storage is mounted. Frames come every s32PauseUs microseconds.
    PUMP(libquarrin::tagQN_HANDLER_S *pHandle, libquarrin::QN_FILE_FMT_E enFormat, bool bAudio, const char *pszTag,
         int32_t s32PauseUs = 2000);
    ~PUMP(); // stops feeding and destroys the session
    PUMP(const PUMP &) = delete;
    PUMP &operator=(const PUMP &) = delete;

    /// QN_RecordStart; its result.
    uint32_t Start();

    /// QN_RecordStop.
    void Stop();

    /// Lets the next key frame begin a new file. What the name of the old one begins with once it is finished; empty
    /// when nothing is written at the moment.
    std::string Split();

    /// Frames that were written (not: dropped) so far, in all files.
    int64_t Written() const
    {
        return m_s64Written;
    }

    /// Waits until so many more frames were written.
    bool WaitWritten(int64_t s64More) const;

    /// A finished file of any pump of the program holds exactly the video frames that were given for it, from a key
    /// frame on, without a gap. The sentence that says what is wrong; empty: it is whole.
    static std::string WhatIsWrong(const std::string &strPath);

    libquarrin::tagQN_RECORD_HANDLER_S *pSession = nullptr;

private:
    void Feed();
    void WriteVideo();
    void WriteAudio();
    void Note();

    libquarrin::tagQN_HANDLER_S *m_pHandle;
    const std::vector<TEST_FRAME_S> &m_vecVideo;
    const std::vector<TEST_FRAME_S> &m_vecAudio;
    bool m_bAudio;
    std::string m_strTag;
    int32_t m_s32PauseUs;
    size_t m_uVideo = 0;
    size_t m_uAudio = 0;
    uint64_t m_u64Pts = PUMP_FRAME_MS;
    uint64_t m_u64AudioPts = PUMP_FRAME_MS;
    time_t m_tFile = 0;   ///< begin of the file that is written, as this object has set it
    bool m_bRuns = false; ///< the frame before was written
    std::atomic<int64_t> m_s64Written{0};
    std::atomic<bool> m_bRun{true};
    std::thread m_thread;
};

#endif

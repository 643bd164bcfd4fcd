// One recording on a card whose every write and flush is logged, with the recorder's notes of what it had handed in,
// was told to be on the card, and had deleted at which entry of the log. It can be kept and read again.
#ifndef QUARRIN_TESTS_RELIABILITY_BLOCK_RUN_H
#define QUARRIN_TESTS_RELIABILITY_BLOCK_RUN_H

#include <cstdint>
#include <memory>
#include <random>
#include <string>

#include "card/sim/card.h"
#include "card/sim/write_log.h"
#include "recorder.h"
#include "support/card.h"

/// Kept as it is.
struct BLOCK_RUN_PARAM_S
{
    libquarrin::QN_FILE_FMT_E enFormat = libquarrin::QN_FILE_FMT_E_MKV;
    bool bAudio = false;
    uint32_t u32Durable = 1;
    uint32_t u32QuotaBytes = 0;
    uint32_t u32BlockBytes = 4096; ///< of the file system
    uint32_t u32Run = 0;           ///< number of the recording
    uint32_t u32Seed = 0;          ///< of all that is left to chance, together with the number
    uint64_t u64First = 0;         ///< entries of the log when the recording began
    uint64_t u64Last = 0;          ///< and when it had ended
    int64_t s64EndMs = 0;          ///< when it had ended
};

class BLOCK_RUN
{
public:
    explicit BLOCK_RUN(const BLOCK_RUN_PARAM_S &stParamIn);
    /// One that was kept; Load follows.
    explicit BLOCK_RUN(const std::string &strDir);
    ~BLOCK_RUN();
    BLOCK_RUN(const BLOCK_RUN &) = delete;
    BLOCK_RUN &operator=(const BLOCK_RUN &) = delete;

    /// Mounts the card, puts an older file on it, and begins to record.
    bool Begin();

    /// Lets the kernel write something back now and then; true once the recorder has ended.
    bool Poll();

    /// Takes the card away and reads its log.
    bool End();

    /// Reads log and notes.
    bool Load();

    /// Copies them into a folder that stays; its path, which is the one that they came from when they had been kept.
    std::string Keep() const;

    /// The older file below a mount directory is as it was.
    static bool IsOldFileWhole(const std::string &strMount);

    const RECORDER_LOG_S &Notes() const
    {
        return *m_pNotes;
    }
    const std::string &Base() const ///< the image before the first entry
    {
        return m_strBase;
    }

    BLOCK_RUN_PARAM_S stParam;
    WRITE_LOG log;

private:
    void WriteBackSomething();

    TEMP_DIR m_dir;
    std::string m_strFrom; ///< where base, log and notes lie
    std::string m_strBase;
    std::mt19937 m_random;
    std::unique_ptr<CARD> m_upCard;
    RECORDER_PARAM_S m_stRecorder;
    std::unique_ptr<RECORDER> m_upRecorder;
    std::unique_ptr<RECORDER_LOG_S> m_upLoaded;
    const RECORDER_LOG_S *m_pNotes = nullptr;
    int64_t m_s64NextMs = 0; ///< when something is written back
};

#endif

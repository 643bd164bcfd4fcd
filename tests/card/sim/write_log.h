// The log of a served card: every write and every flush in the order in which the card got them. From it comes any
// image that a power cut may leave: what was flushed is there; of what came behind, anything may be. The card takes one
// request after the other, so a write that the kernel had not yet seen answered when it sent the flush counts as
// flushed too.
// Threads: one log is one thread's at a time.
#ifndef QUARRIN_TESTS_CARD_SIM_WRITE_LOG_H
#define QUARRIN_TESTS_CARD_SIM_WRITE_LOG_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

constexpr int64_t WRITE_LOG_FLUSH = -1;

/// One entry of the log file; the data of a write follows it.
struct WRITE_LOG_ENTRY_S
{
    int64_t s64Offset;   ///< on the card; WRITE_LOG_FLUSH: all before is on the card for good
    int64_t s64Ms;       ///< CLOCK_MONOTONIC
    uint32_t u32Bytes;   ///< 0 for a flush
    uint32_t u32Padding; ///< 0
};

/// What becomes of the writes between the last flush and the cut.
enum WRITE_LOG_LOSS_E : int32_t
{
    WRITE_LOG_LOSS_NONE,   ///< all of them are there
    WRITE_LOG_LOSS_TORN,   ///< the last one got only so far, in the middle of a block
    WRITE_LOG_LOSS_WRITES, ///< any of them, each whole
    WRITE_LOG_LOSS_BLOCKS, ///< any of their 4 KiB blocks, in any order, some of them torn
    WRITE_LOG_LOSS_LIES    ///< the card has no respect for flushes: the same for all that came before
};

/// One power cut.
struct WRITE_LOG_CUT_S
{
    size_t uEntries = 0; ///< the card got so many
    WRITE_LOG_LOSS_E enLoss = WRITE_LOG_LOSS_NONE;
    uint32_t u32Seed = 0; ///< what is lost
};

class WRITE_LOG
{
public:
    /// strBase: the image before the first entry. False when one cannot be read, or the log ends within an entry.
    bool Load(const std::string &strLog, const std::string &strBase);

    size_t Entries() const
    {
        return m_vecEntries.size();
    }

    bool IsFlush(size_t uEntry) const
    {
        return Head(uEntry).s64Offset == WRITE_LOG_FLUSH;
    }

    int64_t Ms(size_t uEntry) const ///< when the card got it
    {
        return Head(uEntry).s64Ms;
    }

    /// The image that the cut leaves. Quickest when the cuts come in order.
    void Build(const WRITE_LOG_CUT_S &stCut, std::vector<uint8_t> &vecImage);

private:
    WRITE_LOG_ENTRY_S Head(size_t uEntry) const;
    const uint8_t *Data(size_t uEntry) const;
    void Apply(size_t uEntry, std::vector<uint8_t> &vecImage) const;
    size_t BehindFlush(size_t uEntries) const;
    void Settle(size_t uEntries);

    std::vector<uint8_t> m_vecBytes;   ///< the log file
    std::vector<size_t> m_vecEntries;  ///< where each entry begins in it
    std::vector<uint8_t> m_vecBase;    ///< the image before the first
    std::vector<uint8_t> m_vecSettled; ///< the image behind m_uSettled of them
    size_t m_uSettled = 0;
};

#endif

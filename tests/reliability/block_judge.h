// Mounts what a power cut may leave of a recorded card, and compares it with what is due.
#ifndef QUARRIN_TESTS_RELIABILITY_BLOCK_JUDGE_H
#define QUARRIN_TESTS_RELIABILITY_BLOCK_JUDGE_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "block_due.h"
#include "block_run.h"
#include "verdict.h"

/// Over all states.
struct BLOCK_FIGURES_S
{
    FIGURE_S stLostMs[4]; ///< of files in progress, by container: from the first lost picture to the cut
    FIGURE_S stPassMs;
    FIGURE_S stLateMs;
    int64_t s64Whole = 0;   ///< finished files that hold everything
    int64_t s64Damaged = 0; ///< finished files that do not, which were not due yet
    int64_t s64Empty = 0;   ///< of these, files without a byte: shorter than the time between two passes
    int64_t s64Gone = 0;    ///< files whose deletion had reached the card

    void Add(const BLOCK_FIGURES_S &stOther);
};

class BLOCK_JUDGE
{
public:
    explicit BLOCK_JUDGE(BLOCK_RUN &run);
    ~BLOCK_JUDGE();
    BLOCK_JUDGE(const BLOCK_JUDGE &) = delete;
    BLOCK_JUDGE &operator=(const BLOCK_JUDGE &) = delete;

    bool IsReady() const
    {
        return m_pu8Image != nullptr;
    }

    /// The sentences that say what is wrong with the state; none: nothing is.
    std::vector<std::string> WhatIsWrong(const WRITE_LOG_CUT_S &stCut, BLOCK_FIGURES_S &stFigures);

private:
    void PutIn();
    bool Mount() const;
    void LookAtFiles();
    void LookAtFile(uint32_t u32File, const std::vector<VERDICT_FILE_S> &vecFiles);
    void LookAtFound(const BLOCK_DUE_S &stDue, const VERDICT_FILE_S &stFile);
    void LookAtBound(const BLOCK_DUE_S &stDue, const VERDICT_FILE_S &stFile);
    void LookAtPictures(uint32_t u32Due, const VERDICT_FILE_S &stFile, const char *pszWhy);
    void LookWhole(const VERDICT_FILE_S &stFile, const char *pszWhy);
    void Count(const VERDICT_FILE_S &stFile);
    VERDICT_FILE_S LookOnce(const libquarrin::tagQN_FILE_INFO_S &stInfo);
    void Wrong(const VERDICT_FILE_S &stFile, const std::string &strWhat);

    BLOCK_RUN &m_run;
    CARD m_card;
    uint8_t *m_pu8Image = nullptr; ///< the card's image
    std::vector<uint8_t> m_vecState;
    std::map<std::string, VERDICT_FILE_S> m_mapSeen; ///< by name and bytes; most files are the same in many states

    // Of the state that is looked at
    int64_t m_s64Logged = 0;
    int64_t m_s64CutMs = 0; ///< the latest moment that fits
    BLOCK_PASSES_S m_stPasses;
    std::vector<std::string> m_vecWrong;
    BLOCK_FIGURES_S *m_pFigures = nullptr;
};

#endif

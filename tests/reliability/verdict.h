// What a recorder left behind, put beside what it had handed in.
#ifndef QUARRIN_TESTS_RELIABILITY_VERDICT_H
#define QUARRIN_TESTS_RELIABILITY_VERDICT_H

#include <cstdint>
#include <string>
#include <vector>

#include "recorder.h"

struct VERDICT_FILE_S
{
    std::string strPath;
    bool bFinal = false; ///< it has its final name
    int64_t s64Bytes = 0;
    uint32_t u32No = 0;         ///< number in the recorder's notes
    bool bNoted = false;        ///< the recorder had noted it; a file may be younger than its note
    uint32_t u32GivenVideo = 0; ///< pictures that were handed in and came back
    uint32_t u32GivenAudio = 0;
    uint32_t u32FoundVideo = 0; ///< packets that a demuxer finds
    uint32_t u32FoundAudio = 0;
    uint32_t u32SameVideo = 0; ///< packets from the first on that are, one by one, what was handed in
    uint32_t u32SameAudio = 0;
    bool bOpened = false;

    /// Pictures and audio frames that are missing at its end.
    uint32_t LostVideo() const;
    uint32_t LostAudio() const;
};

/// Looks at one file of a folder.
VERDICT_FILE_S VERDICT_LookAt(const libquarrin::tagQN_FILE_INFO_S &stInfo, const RECORDER_LOG_S &stLog);

/// Looks at every file of a folder, in order of begin.
std::vector<VERDICT_FILE_S> VERDICT_Look(const std::string &strFolder, const RECORDER_LOG_S &stLog);

/// Payload of the pictures that are missing, without those of the last group of pictures: what Matroska collected of a
/// cluster beyond one group.
uint32_t VERDICT_BytesBeforeLastGroup(const VERDICT_FILE_S &stFile, const RECORDER_LOG_S &stLog);

/// Every file that the recorder had noted is there exactly once. The sentence that says what is wrong; empty: nothing.
std::string VERDICT_Missing(const std::vector<VERDICT_FILE_S> &vecFiles, const RECORDER_LOG_S &stLog);

/// Sum and maximum of a figure over many runs, for one line of text.
struct FIGURE_S
{
    int64_t s64Most = 0;
    int64_t s64Sum = 0;
    int64_t s64Count = 0;

    void Add(int64_t s64Value);
    void Add(const FIGURE_S &stOther);
    std::string Text() const; ///< "at most 3, on average 1.2, of 200"
};

/// Prints one line of figures on standard error.
void FIGURES_Say(const char *pszFormat, ...) __attribute__((format(printf, 1, 2)));

/// A number from the environment, or s64Default.
int64_t NUMBER(const char *pszName, int64_t s64Default);

/// QUARRIN_POINTS from the environment, or s32Default.
int32_t POINTS(int32_t s32Default);

/// QUARRIN_SEED from the environment, or one of this moment. Printed once.
uint32_t SEED();

#endif

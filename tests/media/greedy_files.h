// Small files of a stranger, made byte by byte, and opens of them that are measured.
#ifndef QUARRIN_TESTS_GREEDY_FILES_H
#define QUARRIN_TESTS_GREEDY_FILES_H

#include <cstdint>
#include <initializer_list>
#include <string>

#include "demuxer_fixture.h"

std::string Num(uint64_t u64Value, int32_t s32Bytes);
std::string W(uint64_t u64Value); ///< four bytes
std::string Repeat(const std::string &str, size_t count);
std::string Text(size_t number); ///< six digits

// ---- MP4

std::string Box(const std::string &strType, const std::string &strBody);
std::string Table(const std::string &strType, std::initializer_list<uint64_t> list);

struct TRACK_S
{
    bool bAudio = false;
    std::string strSizes = Table("stsz", {1, 1});
    std::string strTimes = Table("stts", {1, 1, 1});
    std::string strRuns = Table("stsc", {1, 1, 1, 1});
    std::string strChunks = Table("stco", {1, 8});
    std::string strEdits;
    std::string strMore; ///< in the sample table
};
std::string Track(const TRACK_S &st, uint32_t u32Id = 1);
std::string Mp4(const std::string &strInMoov, const std::string &strBehind = "");

// ---- Matroska

/// An element with a size of eight bytes.
std::string El(uint32_t u32Id, const std::string &strBody, uint64_t u64Size = 0);
/// With sizes of one byte, or two.
std::string Small(uint32_t u32Id, const std::string &strBody);
std::string MkvTrack(uint32_t u32Number, const std::string &strMore = "");
std::string Mkv(const std::string &strInSegment, const std::string &strBehind = "", std::string strTracks = "");

// ---- the measured open

class GREEDY_TEST : public DEMUXER_TEST
{
protected:
    /// Opens a file of these bytes in a process of its own: in a second of processor time, and in 128 MB.
    void ExpectModest(const std::string &strBytes, libquarrin::QN_FILE_FMT_E enFormat, const std::string &strWhat,
                      bool bOpens = false);

    /// The same for a file that is there.
    void ExpectModestFile(libquarrin::QN_FILE_FMT_E enFormat, const std::string &strWhat, bool bOpens = false);

    /// What the file speaks of cannot be in it: it is not opened, and that is soon told.
    void ExpectRefused(const std::string &strBytes, libquarrin::QN_FILE_FMT_E enFormat, const std::string &strWhat);

private:
    bool m_bOpened = false; ///< the latest one
};

#endif

// A look at a media file of a stranger before FFmpeg opens it: MP4 and MOV (ISO/IEC 14496-12).
// Threads: any. Locks: none. Not here: Matroska (mkv_check.cpp), damage that FFmpeg answers quickly.

#include "media/file_check.h"

#include <algorithm>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "media/file_bytes.h"
#include "media/mkv_check.h"

namespace libquarrin
{

static constexpr uint32_t MAX_BOXES = 4096; // below one moov or moof; a track has some thirty
static constexpr int32_t MAX_DEPTH = 10;    // FFmpeg goes no deeper
static constexpr uint64_t SPARE_SAMPLES = 65536;
static constexpr uint64_t BYTES_PER_SEGMENT = 1024;
static constexpr uint64_t SPARE_SEGMENTS = 64;

/// The file, and what it has promised so far.
struct tagFILE_S
{
    tagFILE_BYTES_S stBytes;
    uint64_t u64Samples = 0;  ///< of all tracks and fragments
    uint64_t u64Segments = 0; ///< of all segment indexes
};

/// A box without its header.
struct tagBOX_S
{
    uint32_t u32Type;
    uint64_t u64Begin;
    uint64_t u64End;
};

/// One track.
struct tagTRACK_S
{
    uint64_t u64Samples;
    uint64_t u64Chunks;
    uint64_t u64ChunkSamples; ///< that the chunks hold
    uint64_t u64Edits;
    tagBOX_S stChunkRuns; ///< stsc; it can be counted when the chunks are known
};

static constexpr uint32_t Type(const char (&szName)[5])
{
    return static_cast<uint32_t>(szName[0]) << 24 | static_cast<uint32_t>(szName[1]) << 16 |
           static_cast<uint32_t>(szName[2]) << 8 | static_cast<uint32_t>(szName[3]);
}

// One for each byte, and some for a file that was cut.
static uint64_t MaxSamples(tagFILE_S &stFile)
{
    return stFile.stBytes.u64Size + SPARE_SAMPLES;
}

// The box at a place; false: there is none, or FFmpeg would not read on either.
static bool ReadBox(tagFILE_S &stFile, uint64_t u64At, uint64_t u64End, tagBOX_S &stBox)
{
    if (u64At > u64End || u64End - u64At < 8)
    {
        return false;
    }
    uint64_t u64Bytes = FILEBYTES_Word(stFile.stBytes, u64At);
    stBox.u32Type = FILEBYTES_Word(stFile.stBytes, u64At + 4);
    stBox.u64Begin = u64At + 8;
    if (u64Bytes == 1) // a longer number follows
    {
        u64Bytes = FILEBYTES_Number(stFile.stBytes, u64At + 8, 8);
        stBox.u64Begin = u64At + 16;
    }
    if (u64Bytes == 0) // as far as there is anything
    {
        u64Bytes = u64End - u64At;
    }
    if (u64Bytes < stBox.u64Begin - u64At)
    {
        return false;
    }
    stBox.u64End = u64Bytes > u64End - u64At ? u64End : u64At + u64Bytes;
    return stBox.u64Begin <= stBox.u64End;
}

// The number at an offset, of entries that follow it; false: they do not fit.
static bool ReadCount(tagFILE_S &stFile, const tagBOX_S &stBox, uint32_t u32Offset, uint64_t u64EntryBytes,
                      uint64_t &u64Count)
{
    u64Count = FILEBYTES_Word(stFile.stBytes, stBox.u64Begin + u32Offset);
    const uint64_t u64Bytes = stBox.u64End - stBox.u64Begin;
    return u64Count == 0 || (u64Bytes >= u32Offset + 4 && u64Count * u64EntryBytes <= u64Bytes - u32Offset - 4);
}

static bool TakeSizes(tagFILE_S &stFile, const tagBOX_S &stBox, tagTRACK_S &stTrack)
{
    const uint64_t u64Each = FILEBYTES_Word(stFile.stBytes, stBox.u64Begin + 4);
    return ReadCount(stFile, stBox, 8, u64Each == 0 ? 4 : 0, stTrack.u64Samples);
}

static bool TakeCompactSizes(tagFILE_S &stFile, const tagBOX_S &stBox, tagTRACK_S &stTrack)
{
    const uint64_t u64Bits = FILEBYTES_Word(stFile.stBytes, stBox.u64Begin + 4) & UINT8_MAX; // 4, 8 or 16
    return ReadCount(stFile, stBox, 8, 0, stTrack.u64Samples) &&
           stTrack.u64Samples * u64Bits / 8 <= stBox.u64End - stBox.u64Begin;
}

// Table boxes of a track. False: more than the file can hold.
static bool TakeTable(tagFILE_S &stFile, const tagBOX_S &stBox, tagTRACK_S &stTrack)
{
    uint64_t u64Count = 0;
    switch (stBox.u32Type)
    {
    case Type("stsz"):
        return TakeSizes(stFile, stBox, stTrack);
    case Type("stz2"):
        return TakeCompactSizes(stFile, stBox, stTrack);
    case Type("stco"):
        return ReadCount(stFile, stBox, 4, 4, stTrack.u64Chunks);
    case Type("co64"):
        return ReadCount(stFile, stBox, 4, 8, stTrack.u64Chunks);
    case Type("elst"):
        return ReadCount(stFile, stBox, 4, 12, stTrack.u64Edits);
    case Type("stsc"):
        stTrack.stChunkRuns = stBox;
        return ReadCount(stFile, stBox, 4, 12, u64Count);
    case Type("stts"):
    case Type("ctts"):
    case Type("sbgp"):
        return ReadCount(stFile, stBox, stBox.u32Type == Type("sbgp") ? 8 : 4, 8, u64Count);
    case Type("stss"):
    case Type("stps"):
        return ReadCount(stFile, stBox, 4, 4, u64Count);
    default:
        return true;
    }
}

// Runs of chunks with as many samples each: a first chunk, samples for each, a description.
static uint64_t CountChunkSamples(tagFILE_S &stFile, const tagTRACK_S &stTrack)
{
    const tagBOX_S &stBox = stTrack.stChunkRuns;
    const uint64_t u64Runs = stBox.u32Type != 0 ? FILEBYTES_Word(stFile.stBytes, stBox.u64Begin + 4) : 0;
    uint64_t u64Samples = 0;
    for (uint64_t i = 0; i < u64Runs && u64Samples <= stFile.stBytes.u64Size; ++i)
    {
        const uint64_t u64At = stBox.u64Begin + 8 + i * 12;
        const uint64_t u64First = FILEBYTES_Word(stFile.stBytes, u64At);
        const uint64_t u64Next = i + 1 < u64Runs ? FILEBYTES_Word(stFile.stBytes, u64At + 12) : stTrack.u64Chunks + 1;
        u64Samples += u64Next > u64First ? (u64Next - u64First) * FILEBYTES_Word(stFile.stBytes, u64At + 4) : 0;
    }
    return u64Samples;
}

// A run of samples in a fragment.
static bool TakeRun(tagFILE_S &stFile, const tagBOX_S &stBox)
{
    const uint32_t u32Flags = FILEBYTES_Word(stFile.stBytes, stBox.u64Begin);
    uint64_t u64EntryBytes = 0;
    for (const uint32_t u32Field : {0x100u, 0x200u, 0x400u, 0x800u}) // duration, size, flags, composition time
    {
        u64EntryBytes += (u32Flags & u32Field) != 0 ? 4 : 0;
    }
    uint64_t u64Count = 0;
    const bool bFits = ReadCount(stFile, stBox, 4, u64EntryBytes, u64Count);
    stFile.u64Samples += u64Count;
    return bFits && stFile.u64Samples <= MaxSamples(stFile);
}

static bool TakeSegments(tagFILE_S &stFile, const tagBOX_S &stBox)
{
    const uint32_t u32Version = FILEBYTES_Word(stFile.stBytes, stBox.u64Begin) >> 24;
    stFile.u64Segments += FILEBYTES_Word(stFile.stBytes, stBox.u64Begin + (u32Version == 0 ? 20 : 28)) & UINT16_MAX;
    return stFile.u64Segments <= SPARE_SEGMENTS + stFile.stBytes.u64Size / BYTES_PER_SEGMENT;
}

static bool HasBoxes(uint32_t u32Type)
{
    constexpr uint32_t CONTAINERS[] = {Type("moov"), Type("trak"), Type("mdia"), Type("minf"),
                                       Type("stbl"), Type("edts"), Type("udta"), Type("ilst"),
                                       Type("mvex"), Type("moof"), Type("traf")};
    return std::find(std::begin(CONTAINERS), std::end(CONTAINERS), u32Type) != std::end(CONTAINERS);
}

static bool WalkBoxes(tagFILE_S &stFile, tagBOX_S stParent, tagTRACK_S &stTrack, uint32_t &u32Boxes, int32_t s32Depth);

static bool WalkTrack(tagFILE_S &stFile, const tagBOX_S &stBox, uint32_t &u32Boxes, int32_t s32Depth)
{
    tagTRACK_S stTrack = {};
    if (!WalkBoxes(stFile, stBox, stTrack, u32Boxes, s32Depth))
    {
        return false;
    }
    const uint64_t u64Samples = std::max(stTrack.u64Samples, CountChunkSamples(stFile, stTrack));
    const uint64_t u64Edits = std::max<uint64_t>(stTrack.u64Edits, 1);
    if (u64Samples > MaxSamples(stFile) / u64Edits)
    {
        return false;
    }
    stFile.u64Samples += u64Samples * u64Edits;
    return stFile.u64Samples <= MaxSamples(stFile);
}

static bool TakeBox(tagFILE_S &stFile, tagBOX_S stBox, tagTRACK_S &stTrack, uint32_t &u32Boxes, int32_t s32Depth)
{
    if (++u32Boxes > MAX_BOXES)
    {
        return false;
    }
    switch (stBox.u32Type)
    {
    case Type("cmov"): // a compressed one holds anything
        return false;
    case Type("trak"):
        return WalkTrack(stFile, stBox, u32Boxes, s32Depth);
    case Type("trun"):
        return TakeRun(stFile, stBox);
    case Type("keys"):
        return FILEBYTES_Word(stFile.stBytes, stBox.u64Begin + 4) <= MAX_BOXES;
    case Type("meta"):
        // QuickTime's has no word before its boxes.
        stBox.u64Begin += FILEBYTES_Word(stFile.stBytes, stBox.u64Begin) == 0 ? 4 : 0;
        return WalkBoxes(stFile, stBox, stTrack, u32Boxes, s32Depth);
    default:
        return HasBoxes(stBox.u32Type) ? WalkBoxes(stFile, stBox, stTrack, u32Boxes, s32Depth)
                                       : TakeTable(stFile, stBox, stTrack);
    }
}

static bool WalkBoxes(tagFILE_S &stFile, tagBOX_S stParent, tagTRACK_S &stTrack, uint32_t &u32Boxes, int32_t s32Depth)
{
    tagBOX_S stBox = {};
    for (uint64_t u64At = stParent.u64Begin; s32Depth < MAX_DEPTH && ReadBox(stFile, u64At, stParent.u64End, stBox);
         u64At = stBox.u64End)
    {
        if (!TakeBox(stFile, stBox, stTrack, u32Boxes, s32Depth + 1))
        {
            return false;
        }
    }
    return true;
}

static bool IsModestMp4(tagFILE_S &stFile)
{
    tagBOX_S stBox = {};
    for (uint64_t u64At = 0; ReadBox(stFile, u64At, stFile.stBytes.u64Size, stBox); u64At = stBox.u64End)
    {
        uint32_t u32Boxes = 0;
        tagTRACK_S stNone = {};
        const bool bModest = stBox.u32Type == Type("sidx")   ? TakeSegments(stFile, stBox)
                             : stBox.u32Type == Type("mdat") ? true
                                                             : TakeBox(stFile, stBox, stNone, u32Boxes, 0);
        if (!bModest)
        {
            return false;
        }
    }
    return true;
}

bool FFREAD_IsModest(const char *pszPath, QN_FILE_FMT_E enFormat)
{
    tagFILE_S stFile;
    tagFILE_BYTES_S &stBytes = stFile.stBytes;
    stBytes.s32Fd = open(pszPath, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat stStat = {};
    bool bModest = true;
    if (stBytes.s32Fd >= 0 && fstat(stBytes.s32Fd, &stStat) == 0 && S_ISREG(stStat.st_mode))
    {
        stBytes.u64Size = static_cast<uint64_t>(stStat.st_size);
        const bool bMp4 = enFormat == QN_FILE_FMT_E_MP4 || enFormat == QN_FILE_FMT_E_MOV;
        const bool bOther = enFormat == QN_FILE_FMT_E_TS || enFormat == QN_FILE_FMT_E_AAC;
        bModest = bMp4 ? IsModestMp4(stFile) : bOther || FFREAD_IsModestMatroska(stBytes);
    }
    if (stBytes.s32Fd >= 0)
    {
        close(stBytes.s32Fd);
    }
    return bModest;
}

} // namespace libquarrin

// Small files that speak of much: an open of any of them is quick, and takes little memory.

#include "demuxer_fixture.h"

#include <ctime>
#include <functional>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/wait.h"

using namespace libquarrin;

namespace
{

constexpr double MOST_SECONDS = 1.0; // of processor time, so that other work beside the test does not count
constexpr int64_t MOST_KIB = 128 * 1024;
constexpr size_t MOST_BYTES = 1 << 20;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool OWN_MEMORY = false; // a sanitizer takes more for itself
constexpr int32_t SLOWER = 8;
#else
constexpr bool OWN_MEMORY = true;
// An emulator takes some twenty times the processor time of the machine itself; it waits only TEST_SLOW times longer.
constexpr int32_t SLOWER = TEST_SLOW > 1 ? 5 : 1;
#endif

std::string Num(uint64_t u64Value, int32_t s32Bytes)
{
    std::string str;
    for (int32_t i = s32Bytes - 1; i >= 0; --i)
    {
        str += static_cast<char>(u64Value >> 8 * i & 0xff);
    }
    return str;
}

std::string W(uint64_t u64Value)
{
    return Num(u64Value, 4);
}

std::string Box(const std::string &strType, const std::string &strBody)
{
    return W(strBody.size() + 8) + strType + strBody;
}

std::string Table(const std::string &strType, std::initializer_list<uint64_t> list)
{
    std::string strBody = W(0);
    for (const uint64_t u64Word : list)
    {
        strBody += W(u64Word);
    }
    return Box(strType, strBody);
}

std::string Repeat(const std::string &str, size_t count)
{
    std::string strAll;
    for (size_t i = 0; i < count; ++i)
    {
        strAll += str;
    }
    return strAll;
}

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

std::string Track(const TRACK_S &st, uint32_t u32Id = 1)
{
    const std::string strMatrix = W(0x10000) + Repeat(W(0), 3) + W(0x10000) + Repeat(W(0), 3) + W(0x40000000);
    const std::string strEntry = st.bAudio
                                     ? Box("sowt", std::string(6, '\0') + Num(1, 2) + W(0) + W(0) + Num(1, 2) +
                                                       Num(16, 2) + W(0) + W(8000u << 16))
                                     : Box("avc1", std::string(6, '\0') + Num(1, 2) + std::string(16, '\0') +
                                                       Num(64, 2) + Num(64, 2) + W(0x480000) + W(0x480000) + W(0) +
                                                       Num(1, 2) + std::string(32, '\0') + Num(24, 2) + Num(0xffff, 2));
    const std::string strTables =
        Box("stsd", W(0) + W(1) + strEntry) + st.strTimes + st.strRuns + st.strSizes + st.strChunks + st.strMore;
    return Box("trak",
               Box("tkhd", W(3) + W(0) + W(0) + W(u32Id) + W(0) + W(1000) + Repeat(W(0), 4) + strMatrix + W(64u << 16) +
                               W(64u << 16)) +
                   st.strEdits +
                   Box("mdia", Box("mdhd", W(0) + W(0) + W(0) + W(1000) + W(1000) + W(0)) +
                                   Box("hdlr", W(0) + W(0) + (st.bAudio ? "soun" : "vide") + std::string(13, '\0')) +
                                   Box("minf", Box("stbl", strTables))));
}

std::string Mp4(const std::string &strInMoov, const std::string &strBehind = "")
{
    return Box("ftyp", "isom" + W(0) + "isom") +
           Box("moov", Box("mvhd", W(0) + W(0) + W(0) + W(1000) + W(1000) + W(0x10000) + Num(0x100, 2) +
                                       std::string(10, '\0') + W(0x10000) + Repeat(W(0), 3) + W(0x10000) +
                                       Repeat(W(0), 3) + W(0x40000000) + Repeat(W(0), 6) + W(2)) +
                           strInMoov) +
           strBehind + Box("mdat", std::string(64, 'x'));
}

// An element of Matroska with a size of eight bytes.
std::string El(uint32_t u32Id, const std::string &strBody, uint64_t u64Size = 0)
{
    int32_t s32Bytes = 4;
    while (s32Bytes > 1 && u32Id >> (8 * s32Bytes - 8) == 0)
    {
        --s32Bytes;
    }
    return Num(u32Id, s32Bytes) + Num(u64Size != 0 ? u64Size : strBody.size(), 8).replace(0, 1, 1, '\x01') + strBody;
}

// With sizes of one byte, or two.
std::string Small(uint32_t u32Id, const std::string &strBody)
{
    const std::string strLong = El(u32Id, "");
    return strLong.substr(0, strLong.size() - 8) +
           (strBody.size() < 127 ? Num(0x80 | strBody.size(), 1) : Num(0x4000 | strBody.size(), 2)) + strBody;
}

std::string MkvTrack(uint32_t u32Number, const std::string &strMore = "")
{
    return El(0xae, Small(0xd7, Num(u32Number, 1)) + Small(0x73c5, Num(u32Number, 1)) + Small(0x83, Num(1, 1)) +
                        Small(0x86, "V_MPEG4/ISO/AVC") +
                        Small(0xe0, Small(0xb0, Num(64, 2)) + Small(0xba, Num(64, 2))) + strMore);
}

std::string Mkv(const std::string &strInSegment, const std::string &strBehind = "", std::string strTracks = "")
{
    if (strTracks.empty())
    {
        strTracks = MkvTrack(1);
    }
    return El(0x1a45dfa3, Small(0x4282, "matroska")) +
           El(0x18538067,
              El(0x1549a966, Small(0x2ad7b1, Num(1000000, 4))) + El(0x1654ae6b, strTracks) + strInSegment +
                  El(0x1f43b675, Small(0xe7, Num(0, 1)) +
                                     Small(0xa3, Num(0x81, 1) + Num(0, 2) + Num(0x80, 1) + Num(0x000000010910, 6))) +
                  strBehind);
}

std::string Text(size_t number)
{
    std::string str = std::to_string(number);
    return std::string(6 - std::min<size_t>(6, str.size()), '0') + str;
}

class DemuxerGreedy : public DEMUXER_TEST
{
protected:
    // Opens the file in a process of its own.
    void ExpectModest(const std::string &strBytes, QN_FILE_FMT_E enFormat, const std::string &strWhat,
                      bool bOpens = false)
    {
        ASSERT_GE(MOST_BYTES, strBytes.size()) << strWhat;
        TEST_Touch(Path(), strBytes);
        int as32Pipe[2] = {-1, -1};
        ASSERT_EQ(0, pipe(as32Pipe));
        const pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0)
        {
            const USED_S stBefore = Used();
            void *pReader = FFMUXER_ReadOpen(nullptr, Path().c_str(), enFormat);
            USED_S stUsed = Used();
            stUsed.dSeconds -= stBefore.dSeconds;
            stUsed.s64Kib -= stBefore.s64Kib;
            stUsed.bOpen = pReader != nullptr;
            _exit(write(as32Pipe[1], &stUsed, sizeof(stUsed)) == static_cast<ssize_t>(sizeof(stUsed)) ? 0 : 1);
        }
        close(as32Pipe[1]);
        USED_S stUsed;
        const ssize_t got = read(as32Pipe[0], &stUsed, sizeof(stUsed));
        close(as32Pipe[0]);
        int32_t s32Status = 0;
        EXPECT_EQ(pid, waitpid(pid, &s32Status, 0));
        ASSERT_EQ(static_cast<ssize_t>(sizeof(stUsed)), got) << strWhat << " ended with " << s32Status;
        printf("[  figures ] %s: %.2f s, %lld KiB, %s\n", strWhat.c_str(), stUsed.dSeconds,
               static_cast<long long>(stUsed.s64Kib), stUsed.bOpen ? "opened" : "refused");
        EXPECT_TRUE(stUsed.bOpen || !bOpens) << strWhat;
        EXPECT_GT(MOST_SECONDS * SLOWER * TEST_SLOW, stUsed.dSeconds) << strWhat;
        EXPECT_TRUE(!OWN_MEMORY || stUsed.s64Kib < MOST_KIB) << strWhat << ": " << stUsed.s64Kib << " KiB";
    }

private:
    struct USED_S
    {
        double dSeconds = 0;
        int64_t s64Kib = 0; ///< the largest address space so far
        bool bOpen = false;
    };

    static USED_S Used()
    {
        USED_S st;
        struct timespec stTime = {};
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &stTime);
        st.dSeconds = static_cast<double>(stTime.tv_sec) + static_cast<double>(stTime.tv_nsec) / 1e9;
        const std::string strStatus = TEST_ReadFile("/proc/self/status");
        const size_t at = strStatus.find("VmPeak:");
        st.s64Kib = at != std::string::npos ? std::stoll(strStatus.substr(at + 7)) : 0;
        return st;
    }
};

} // namespace

// Otherwise the files below would be refused for what they are made of.
TEST_F(DemuxerGreedy, FilesOfThisMakeOpenWhenTheySpeakOfLittle)
{
    ExpectModest(Mp4(Track(TRACK_S())), QN_FILE_FMT_E_MP4, "two samples", true);
    ExpectModest(Mp4(Track(TRACK_S()), Repeat(Box("free", ""), 1000)), QN_FILE_FMT_E_MOV, "and boxes", true);
    ExpectModest(Mkv(""), QN_FILE_FMT_E_MKV, "one frame", true);
    ExpectModest(Mkv(El(0x1254c367, El(0x7373, Small(0x67c8, Small(0x45a3, "a") + Small(0x4487, "x"))))),
                 QN_FILE_FMT_E_MKV, "a tag", true);
}

TEST_F(DemuxerGreedy, AnMp4WithTablesOfMillionsInFewBytes)
{
    constexpr uint64_t MANY = 58000000;
    TRACK_S st;
    st.strSizes = Table("stsz", {1, MANY});
    st.strTimes = Table("stts", {1, MANY, 1});
    st.strRuns = Table("stsc", {1, 1, MANY, 1});
    ASSERT_GT(700u, Mp4(Track(st)).size());
    ExpectModest(Mp4(Track(st)), QN_FILE_FMT_E_MP4, "a constant size");
    ExpectModest(Mp4(Track(st)), QN_FILE_FMT_E_MOV, "a constant size in MOV");
    st.bAudio = true;
    ExpectModest(Mp4(Track(st)), QN_FILE_FMT_E_MP4, "of audio");
    st.strMore = Table("ctts", {1, MANY, 1});
    st.bAudio = false;
    ExpectModest(Mp4(Track(st)), QN_FILE_FMT_E_MP4, "with composition times");
    TRACK_S stPcm;
    stPcm.bAudio = true;
    stPcm.strRuns = Table("stsc", {1, 1, 0x7fffffff, 1});
    stPcm.strChunks = Box("stco", W(0) + W(100000) + Repeat(W(8), 100000));
    ExpectModest(Mp4(Track(stPcm)), QN_FILE_FMT_E_MOV, "many chunks of many");
    for (const char *pszType : {"stco", "co64", "stss", "stts", "ctts", "stsc", "elst", "sbgp", "sdtp", "stz2"})
    {
        TRACK_S stHuge;
        stHuge.strMore = Table(pszType, {0x1fffffff, 0x1fffffff, 0x1fffffff});
        ExpectModest(Mp4(Track(stHuge)), QN_FILE_FMT_E_MP4, std::string("the count of ") + pszType);
    }
    // As many as a file of a million bytes may have.
    TRACK_S stMost;
    stMost.strSizes = Table("stsz", {1, 1000000});
    stMost.strTimes = Table("stts", {1, 1000000, 1});
    stMost.strRuns = Table("stsc", {1, 1, 1000000, 1});
    stMost.strMore = Table("ctts", {1, 1000000, 1});
    stMost.strEdits = Box("edts", Table("elst", {1, 1000, 0, 0x10000}));
    ExpectModest(Mp4(Track(stMost)) + Box("free", std::string(1000000, '\0')), QN_FILE_FMT_E_MP4, "a million samples",
                 true);
}

TEST_F(DemuxerGreedy, AnMp4WithManyTracks)
{
    TRACK_S st;
    st.strSizes = Table("stsz", {1, 655000});
    st.strTimes = Table("stts", {1, 655000, 1});
    st.strRuns = Table("stsc", {1, 1, 655000, 1});
    std::string strTracks;
    for (uint32_t i = 1; i <= 100; ++i)
    {
        strTracks += Track(st, i);
    }
    ExpectModest(Mp4(strTracks), QN_FILE_FMT_E_MP4, "a hundred tracks");
    ExpectModest(Mp4(Repeat(Track(TRACK_S()), 2000)), QN_FILE_FMT_E_MP4, "two thousand small tracks");
}

TEST_F(DemuxerGreedy, AnMp4ThatIsCutManyTimes)
{
    TRACK_S st;
    st.strSizes = Table("stsz", {1, 100000});
    st.strTimes = Table("stts", {1, 100000, 1});
    st.strRuns = Table("stsc", {1, 1, 100000, 1});
    st.strEdits = Box("edts", Box("elst", W(0) + W(60000) + Repeat(W(100000) + W(0) + W(0x10000), 60000)));
    ExpectModest(Mp4(Track(st)), QN_FILE_FMT_E_MP4, "sixty thousand edits");
}

TEST_F(DemuxerGreedy, AnMp4WithFragmentsAndSegmentsOfMany)
{
    const std::string strExtends = Box("mvex", Table("trex", {1, 1, 1, 1, 0}));
    const std::string strHuge =
        Box("moof", Table("mfhd", {1}) + Box("traf", Table("tfhd", {1}) + Table("trun", {0x7fffffff})));
    ExpectModest(Mp4(Track(TRACK_S()) + strExtends, strHuge), QN_FILE_FMT_E_MP4, "a run of two thousand millions");
    const std::string strMany = Box("moof", Table("mfhd", {1}) + Box("traf", Table("tfhd", {1}) + Table("trun", {60})));
    ExpectModest(Mp4(Track(TRACK_S()) + strExtends, Repeat(strMany, 14000)), QN_FILE_FMT_E_MP4, "many fragments");
    std::string strSegments;
    for (uint64_t i = 0; i < 20000; ++i)
    {
        strSegments +=
            Box("sidx", W(0x01000000) + W(1) + W(1000) + Num(0, 8) + Num((20000 - i) << 20, 8) + Num(0, 2) + Num(1, 2));
    }
    ExpectModest(Mp4(Track(TRACK_S()) + strExtends, strSegments), QN_FILE_FMT_E_MP4, "segments backwards");
    ExpectModest(
        Mp4(Track(TRACK_S()) + strExtends, Repeat(Box("sidx", W(0) + W(1) + W(1000) + W(0) + W(0) + Num(0, 2) +
                                                                  Num(40000, 2) + Repeat(W(9) + W(1) + W(0), 40000)),
                                                  2)),
        QN_FILE_FMT_E_MP4, "long segment indexes");
}

TEST_F(DemuxerGreedy, AnMp4WithNamesAndBoxesWithoutEnd)
{
    std::string strKeys;
    std::string strItems;
    for (size_t i = 1; i <= 20000; ++i)
    {
        strKeys += Box("mdta", Text(i));
        strItems += W(25) + W(i) + Box("data", W(1) + W(0) + "x");
    }
    ExpectModest(
        Mp4(Track(TRACK_S()) + Box("meta", Box("hdlr", W(0) + W(0) + "mdta" + std::string(13, '\0')) +
                                               Box("keys", W(0) + W(20000) + strKeys) + Box("ilst", strItems))),
        QN_FILE_FMT_E_MP4, "twenty thousand names");
    ExpectModest(Mp4(Track(TRACK_S()) + Repeat(Box("udta", ""), 100000)), QN_FILE_FMT_E_MP4, "empty boxes");
    ExpectModest(Mp4("", Repeat(Box("free", ""), 100000)), QN_FILE_FMT_E_MP4, "empty boxes outside");
    ExpectModest(Repeat(Box("moov", Track(TRACK_S())), 1500), QN_FILE_FMT_E_MP4, "many movies");
    ExpectModest(Mp4(Box("cmov", Box("dcom", "zlib") + Box("cmvd", W(0x40000000) + std::string(1000, 'x')))),
                 QN_FILE_FMT_E_MOV, "a compressed movie");
}

TEST_F(DemuxerGreedy, AMatroskaWithTagsChaptersAndCues)
{
    std::string strTags;
    std::string strChapters;
    std::string strCues;
    for (size_t i = 0; i < 30000; ++i)
    {
        strTags += Small(0x67c8, Small(0x45a3, Text(i)) + Small(0x4487, "x"));
        strChapters += Small(0xb6, Small(0x73c4, Num(i % 2 == 0 ? i + 1 : 60000 - i, 3)) + Small(0x91, Num(i, 3)));
        strCues +=
            Small(0xbb, Small(0xb3, Num(60000 - i, 3)) + Small(0xb7, Small(0xf7, Num(1, 1)) + Small(0xf1, Num(i, 3))));
    }
    const std::string strAllTags = El(0x1254c367, El(0x7373, strTags));
    const std::string strAllChapters = El(0x1043a770, El(0x45b9, strChapters));
    ExpectModest(Mkv(strAllTags), QN_FILE_FMT_E_MKV, "tags");
    ExpectModest(Mkv(strAllChapters), QN_FILE_FMT_E_MKV, "chapters");
    ExpectModest(Mkv(El(0x1c53bb6b, strCues)), QN_FILE_FMT_E_MKV, "cues backwards");
    const auto Behind = [&](uint32_t u32Id, const std::string &strWhat)
    {
        const auto Seek = [u32Id](uint64_t u64Position)
        {
            return El(0x114d9b74, Small(0x4dbb, Small(0x53ab, W(u32Id)) + Small(0x53ac, W(u64Position))));
        };
        const std::string strFile = Mkv(Seek(0), strWhat);
        const size_t segment = strFile.find(W(0x18538067)) + 12;
        return Mkv(Seek(strFile.rfind(strWhat) - segment), strWhat);
    };
    ExpectModest(Behind(0x1254c367, strAllTags), QN_FILE_FMT_E_MKV, "tags behind the clusters");
    ExpectModest(Behind(0x1043a770, strAllChapters), QN_FILE_FMT_E_MKV, "chapters behind the clusters");
}

TEST_F(DemuxerGreedy, AMatroskaWithTracksAttachmentsAndSizes)
{
    std::string strTracks;
    for (uint32_t i = 1; i <= 120; ++i)
    {
        strTracks += MkvTrack(i);
    }
    ExpectModest(Mkv("", "", strTracks), QN_FILE_FMT_E_MKV, "a hundred and twenty tracks");
    ExpectModest(Mkv(El(0x1941a469, Repeat(El(0x61a7, Small(0x466e, "a") + Small(0x4660, "x/y") + Small(0x465c, "b") +
                                                          Small(0x46ae, Num(7, 1))),
                                           10000))),
                 QN_FILE_FMT_E_MKV, "attachments");
    ExpectModest(Mkv("", "", MkvTrack(1, El(0x63a2, std::string(4, 'x'), 0x0ffffff0))), QN_FILE_FMT_E_MKV,
                 "private data of 256 MB");
    ExpectModest(Mkv(El(0x1254c367, "", 0x0ffffff0)), QN_FILE_FMT_E_MKV, "tags of 256 MB");
    ExpectModest(Mkv("", El(0x1f43b675, El(0xa3, std::string(8, '\x81'), 0x0ffffff0))), QN_FILE_FMT_E_MKV,
                 "a frame of 256 MB");
}

TEST_F(DemuxerGreedy, ATransportStreamWithEveryPid)
{
    std::string strBytes;
    for (uint32_t i = 0; i < 5500; ++i)
    {
        const uint32_t u32Pid = 32 + i;
        std::string strPacket = Num(0x47, 1) + Num(0x4000 | u32Pid, 2) + Num(0x10, 1) + Num(0x000001e0, 4) +
                                Num(0xffff, 2) + Num(0x8080, 2) + Num(5, 1) + Num(0x2100010001, 5) + Num(1, 4) +
                                Num(0x67, 1);
        strPacket.resize(188, 'x');
        strBytes += strPacket;
    }
    ExpectModest(strBytes, QN_FILE_FMT_E_TS, "every PID");
}

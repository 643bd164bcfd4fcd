// Small MP4 files and transport streams that speak of much: an open of any of them is quick, and takes little memory.

#include "greedy_files.h"

using namespace libquarrin;

namespace
{

class DemuxerGreedy : public GREEDY_TEST
{
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

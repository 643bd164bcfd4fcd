// Tables of MP4 files, held against the file that they are in: to the entry, and none is overlooked.

#include "greedy_files.h"

using namespace libquarrin;

namespace
{

class GreedyTables : public GREEDY_TEST
{
protected:
    static std::string Extends()
    {
        return Box("mvex", Table("trex", {1, 1, 1, 1, 0}));
    }

    // A track of so many samples in one chunk.
    static TRACK_S TrackOf(uint32_t u32Samples)
    {
        TRACK_S st;
        st.strSizes = Table("stsz", {1, u32Samples});
        st.strTimes = Table("stts", {1, u32Samples, 1});
        st.strRuns = Table("stsc", {1, 1, u32Samples, 1});
        return st;
    }
};

} // namespace

// A table may fill its box, and no more.
TEST_F(GreedyTables, HaveNoEntryMoreThanRoom)
{
    constexpr size_t ENTRIES = 16; // so many that a byte less for each would make room for one more
    const struct
    {
        const char *pszType;
        size_t bytes;     ///< of an entry
        uint32_t u32Head; ///< words before the count
    } astTables[] = {{"stco", 4, 1}, {"co64", 8, 1},  {"stss", 4, 1}, {"stps", 4, 1}, {"stts", 8, 1},
                     {"ctts", 8, 1}, {"stsc", 12, 1}, {"stsz", 4, 2}, {"sbgp", 8, 2}};
    for (const auto &st : astTables)
    {
        const std::string strType = st.pszType;
        const std::string strHead = Repeat(W(0), st.u32Head);
        const std::string strEntries(ENTRIES * st.bytes, '\0');
        TRACK_S stTrack;
        stTrack.strMore = Box(strType, strHead + W(ENTRIES) + strEntries);
        ExpectModest(Mp4(Track(stTrack)), QN_FILE_FMT_E_MP4, strType + " to the end", true);
        stTrack.strMore = Box(strType, strHead + W(ENTRIES + 1) + strEntries);
        ExpectRefused(Mp4(Track(stTrack)), QN_FILE_FMT_E_MP4, strType + " and one more");
        // Its box ends within the count; what follows makes a number of it.
        stTrack.strMore = Box(strType, strHead + Num(1, 3)) + Box("free", "");
        ExpectRefused(Mp4(Track(stTrack)), QN_FILE_FMT_E_MP4, strType + " that ends within its count");
        // Its box says that it goes on behind the one that it is in.
        stTrack.strMore = W(8 + 4 * st.u32Head + 4 + 100 * st.bytes) + strType + strHead + W(100);
        ExpectRefused(Mp4(Track(stTrack)) + Box("free", std::string(5000, '\0')), QN_FILE_FMT_E_MP4,
                      strType + " that goes on outside");
    }
    const auto fnRun = [](uint32_t u32Count)
    {
        const std::string strRun = Box("trun", W(0xf00) + W(u32Count) + Repeat(W(1) + W(1) + W(0) + W(0), ENTRIES));
        return Box("moof", Table("mfhd", {1}) + Box("traf", Table("tfhd", {1}) + strRun));
    };
    ExpectModest(Mp4(Track(TRACK_S()) + Extends(), fnRun(ENTRIES)), QN_FILE_FMT_E_MP4, "a run to the end", true);
    ExpectRefused(Mp4(Track(TRACK_S()) + Extends(), fnRun(ENTRIES + 1)), QN_FILE_FMT_E_MP4, "a run and one more");
}

TEST_F(GreedyTables, AreFoundBehindALongBox)
{
    const std::string strLong = W(1) + "free" + Num(16 + 1000, 8) + std::string(1000, '\0');
    ExpectModest(strLong + Mp4(Track(TRACK_S())), QN_FILE_FMT_E_MP4, "a sound movie", true);
    ExpectRefused(strLong + Mp4(Track(TrackOf(58000000))), QN_FILE_FMT_E_MP4, "a movie of millions");
}

TEST_F(GreedyTables, EndAtABoxThatIsShorterThanItsHead)
{
    ExpectModest(Mp4(Track(TRACK_S())) + W(7) + "free" + std::string(1000, '\0'), QN_FILE_FMT_E_MP4,
                 "a box of seven bytes", true);
}

TEST_F(GreedyTables, AreCountedForAllTracksTogether)
{
    TRACK_S st = TrackOf(600);
    st.strEdits = Box("edts", Box("elst", W(0) + W(100) + Repeat(W(600) + W(0) + W(0x10000), 100)));
    ExpectModest(Mp4(Track(st)), QN_FILE_FMT_E_MP4, "one track that is cut a hundred times", true);
    ExpectRefused(Mp4(Track(st) + Track(st, 2)), QN_FILE_FMT_E_MP4, "two such tracks");
    std::string strTracks;
    for (uint32_t i = 1; i <= 100; ++i)
    {
        strTracks += Track(TrackOf(655000), i);
    }
    ExpectRefused(Mp4(strTracks), QN_FILE_FMT_E_MP4, "a hundred tracks");
}

TEST_F(GreedyTables, AreCountedInChunksRunsAndSegments)
{
    TRACK_S stPcm;
    stPcm.bAudio = true;
    stPcm.strRuns = Table("stsc", {1, 1, 0x7fffffff, 1});
    stPcm.strChunks = Box("stco", W(0) + W(100000) + Repeat(W(8), 100000));
    ExpectRefused(Mp4(Track(stPcm)), QN_FILE_FMT_E_MOV, "many chunks of many");
    const std::string strRun = Box("traf", Table("tfhd", {1}) + Table("trun", {0x7fffffff}));
    ExpectRefused(Mp4(Track(TRACK_S()) + Extends(), Box("moof", Table("mfhd", {1}) + strRun)), QN_FILE_FMT_E_MP4,
                  "a run of two thousand millions");
    const std::string strShort =
        Box("sidx", W(0) + W(1) + W(1000) + W(0) + W(0) + Num(0, 2) + Num(1, 2) + W(9) + W(1) + W(0));
    const std::string strLong = Box("sidx", W(0x01000000) + W(1) + W(1000) + Num(0, 8) + Num(0, 8) + Num(0, 2) +
                                                Num(1, 2) + W(9) + W(1) + W(0));
    for (const std::string &strSegment : {strShort, strLong})
    {
        ExpectRefused(Mp4(Track(TRACK_S()) + Extends(), Repeat(strSegment, 10000)), QN_FILE_FMT_E_MP4,
                      "ten thousand segments");
    }
}

TEST_F(GreedyTables, OfMatroskaMayStandFarBehind)
{
    const std::string strTag = El(0x1254c367, El(0x7373, Small(0x67c8, Small(0x45a3, "a") + Small(0x4487, "x"))));
    ExpectModest(Mkv(El(0xec, std::string(100000, '\0')) + strTag), QN_FILE_FMT_E_MKV, "a tag far behind", true);
}

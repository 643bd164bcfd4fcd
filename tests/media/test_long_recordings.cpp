// A day's recording in one file: it opens and plays, whatever is refused of strangers.

#include "greedy_files.h"

#include <ctime>
#include <functional>

using namespace libquarrin;

namespace
{

constexpr uint64_t SECONDS = 24 * 3600;
constexpr uint64_t FPS = 30;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr double OPENS_IN = 40;
#else
constexpr double OPENS_IN = 3 * TEST_SLOW;
#endif

// Of the processor: other work beside the test does not count.
double Seconds()
{
    struct timespec stTime = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &stTime);
    return static_cast<double>(stTime.tv_sec) + static_cast<double>(stTime.tv_nsec) / 1e9;
}

class LongRecordings : public GREEDY_TEST
{
protected:
    // Opens Path(), reads a frame, goes to noon and reads one there.
    void ExpectPlays(QN_FILE_FMT_E enFormat, uint64_t u64TicksPerSecond, const std::string &strWhat)
    {
        const double dBegin = Seconds();
        Open(enFormat);
        const double dTook = Seconds() - dBegin;
        printf("[  figures ] %s: %.2f s\n", strWhat.c_str(), dTook);
        EXPECT_GT(OPENS_IN, dTook) << strWhat;
        EXPECT_EQ(0, TEST_Get(m_pReader).s32Ret) << strWhat;
        EXPECT_LE(0, FFMUXER_ReadSeek(m_pReader, SECONDS / 2)) << strWhat;
        const GOT_S stGot = TEST_Get(m_pReader);
        ASSERT_EQ(0, stGot.s32Ret) << strWhat;
        EXPECT_GE(2u, SECONDS / 2 - stGot.u64Pts / u64TicksPerSecond) << strWhat; // at the key frame before
        Close();
    }
};

// A key frame with its parameter sets.
std::string Picture()
{
    const std::vector<uint8_t> &vecData = TEST_EncodeH264()[0].vecData;
    return std::string(vecData.begin(), vecData.end());
}

// A list of numbers of so many bytes each.
std::string Numbers(uint64_t u64Count, int32_t s32Bytes, const std::function<uint64_t(uint64_t)> &fnNumber)
{
    std::string str(static_cast<size_t>(u64Count) * static_cast<size_t>(s32Bytes), '\0');
    size_t at = 0;
    for (uint64_t i = 0; i < u64Count; ++i)
    {
        const uint64_t u64Number = fnNumber(i);
        for (int32_t s32Byte = s32Bytes - 1; s32Byte >= 0; --s32Byte)
        {
            str[at++] = static_cast<char>(u64Number >> 8 * s32Byte & 0xff);
        }
    }
    return str;
}

} // namespace

TEST_F(LongRecordings, AnMp4OfADayAtThirtyFrames)
{
    constexpr uint64_t SAMPLES = SECONDS * FPS;
    constexpr uint64_t DATA = 44 << 20; // the tables are before it
    const std::string strPicture = Picture();
    TRACK_S st;
    st.strSizes =
        Box("stsz", W(0) + W(0) + W(SAMPLES) + Numbers(SAMPLES, 4, [&](uint64_t) { return strPicture.size(); }));
    st.strTimes = Table("stts", {1, SAMPLES, 1000 / FPS});
    // One and two samples by turns: as many runs as chunks. All of them are one picture.
    constexpr uint64_t CHUNKS = SAMPLES / 3 * 2;
    const auto Run = [](uint64_t u64At)
    {
        const uint64_t au64Run[] = {u64At / 3 + 1, 1 + u64At / 3 % 2, 1};
        return au64Run[u64At % 3];
    };
    st.strRuns = Box("stsc", W(0) + W(CHUNKS) + Numbers(CHUNKS * 3, 4, Run));
    st.strChunks = Box("co64", W(0) + W(CHUNKS) + Numbers(CHUNKS, 8, [](uint64_t) { return DATA + 8; }));
    st.strMore = Box("stss", W(0) + W(SECONDS) + Numbers(SECONDS, 4, [](uint64_t u64At) { return u64At * FPS + 1; }));
    std::string strFile = Mp4(Track(st));
    ASSERT_GT(DATA, strFile.size() + 8);
    strFile += Box("free", std::string(DATA - strFile.size() - 8, '\0')) + Box("mdat", strPicture + strPicture);
    TEST_Touch(Path(), strFile);
    ExpectPlays(QN_FILE_FMT_E_MP4, 1000, "MP4");
    ExpectPlays(QN_FILE_FMT_E_MOV, 1000, "MOV");
}

TEST_F(LongRecordings, AMatroskaOfADayWithACueEachSecond)
{
    const std::string strTracks = MkvTrack(1) + MkvTrack(2);
    // Pictures in the first minute; then what is no more than a mark of one.
    const std::string strPicture = Num(0, 2) + Num(0x80, 1) + Picture();
    const std::string strMark = Num(0, 2) + Num(0x80, 1) + Num(0x000000010910, 6);
    const auto Cluster = [&](uint64_t u64Second)
    {
        const std::string &strBlock = u64Second < 60 ? strPicture : strMark;
        return El(0x1f43b675, Small(0xe7, Num(u64Second * 1000, 4)) + El(0xa3, Num(0x81, 1) + strBlock) +
                                  El(0xa3, Num(0x82, 1) + strBlock));
    };
    std::string strClusters;
    std::vector<size_t> vecPlaces;
    for (uint64_t i = 1; i < SECONDS; ++i)
    {
        vecPlaces.push_back(strClusters.size());
        strClusters += Cluster(i);
    }
    const auto Cues = [&](size_t first)
    {
        std::string str;
        for (uint64_t i = 1; i < SECONDS; ++i)
        {
            const std::string strPlace = Small(0xf1, Num(first + vecPlaces[static_cast<size_t>(i - 1)], 4));
            str += Small(0xbb, Small(0xb3, Num(i * 1000, 4)) + Small(0xb7, Small(0xf7, Num(1, 1)) + strPlace) +
                                   Small(0xb7, Small(0xf7, Num(2, 1)) + strPlace));
        }
        return El(0x1c53bb6b, str);
    };
    const auto Seek = [](uint64_t u64Place)
    {
        return El(0x114d9b74, Small(0x4dbb, Small(0x53ab, W(0x1c53bb6b)) + Small(0x53ac, W(u64Place))));
    };
    // By its first bytes: a sanitizer looks at all that a comparison might look at.
    const auto Place = [](const std::string &strFile, const std::string &strPart)
    {
        return strFile.find(strPart.substr(0, 64)) - strFile.find(W(0x18538067)) - 12;
    };

    const std::string strInFront = Mkv(Cues(0), strClusters, strTracks);
    TEST_Touch(Path(), Mkv(Cues(Place(strInFront, strClusters)), strClusters, strTracks));
    ExpectPlays(QN_FILE_FMT_E_MKV, 1000, "Matroska with cues in front");

    std::string strBehind = Mkv(Seek(0), strClusters + Cues(0), strTracks);
    const size_t clusters = Place(strBehind, strClusters);
    const size_t cues = clusters + strClusters.size();
    TEST_Touch(Path(), Mkv(Seek(cues), strClusters + Cues(clusters), strTracks));
    ExpectPlays(QN_FILE_FMT_E_MKV, 1000, "Matroska with cues behind");
}

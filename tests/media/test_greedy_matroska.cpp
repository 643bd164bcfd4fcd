// Small Matroska files that speak of much: an open of any of them is quick, and takes little memory.

#include "greedy_files.h"

using namespace libquarrin;

namespace
{

class GreedyMatroska : public GREEDY_TEST
{
protected:
    bool Opens(const std::string &strBytes)
    {
        TEST_Touch(Path(), strBytes);
        void *pReader = FFMUXER_ReadOpen(nullptr, Path().c_str(), QN_FILE_FMT_E_MKV);
        (void)FFMUXER_ReadClose(pReader); // null does nothing
        return pReader != nullptr;
    }
};

std::string Cue(size_t time, size_t place)
{
    return Small(0xbb, Small(0xb3, Num(time, 3)) + Small(0xb7, Small(0xf7, Num(1, 1)) + Small(0xf1, Num(place, 3))));
}

// What frames are packed with: the kind of compression, and its settings.
std::string Packed(uint64_t u64Kind, const std::string &strSettings = "")
{
    return El(0x6d80, El(0x6240, Small(0x5032, Num(3, 1)) +
                                     El(0x5034, Small(0x4254, Num(u64Kind, 1)) + El(0x4255, strSettings))));
}

std::string ManyTags(size_t count)
{
    std::string strTags;
    for (size_t i = 0; i < count; ++i)
    {
        strTags += Small(0x67c8, Small(0x45a3, Text(i)) + Small(0x4487, "x"));
    }
    return El(0x1254c367, El(0x7373, strTags));
}

std::string SeekTo(uint32_t u32Id, uint64_t u64Position)
{
    return El(0x114d9b74, Small(0x4dbb, Small(0x53ab, W(u32Id)) + Small(0x53ac, W(u64Position))));
}

// Where the content of the segment begins.
size_t SegmentOf(const std::string &strFile)
{
    return strFile.find(W(0x18538067)) + 12;
}

} // namespace

TEST_F(GreedyMatroska, TagsAndChapters)
{
    std::string strTags;
    std::string strChapters;
    for (size_t i = 0; i < 30000; ++i)
    {
        strTags += Small(0x67c8, Small(0x45a3, Text(i)) + Small(0x4487, "x"));
        strChapters += Small(0xb6, Small(0x73c4, Num(i % 2 == 0 ? i + 1 : 60000 - i, 3)) + Small(0x91, Num(i, 3)));
    }
    const std::string strAllTags = El(0x1254c367, El(0x7373, strTags));
    const std::string strAllChapters = El(0x1043a770, El(0x45b9, strChapters));
    ExpectModest(Mkv(strAllTags), QN_FILE_FMT_E_MKV, "tags");
    ExpectModest(Mkv(strAllChapters), QN_FILE_FMT_E_MKV, "chapters");
    const auto Behind = [](uint32_t u32Id, const std::string &strWhat)
    {
        const std::string strFile = Mkv(SeekTo(u32Id, 0), strWhat);
        return Mkv(SeekTo(u32Id, strFile.rfind(strWhat) - SegmentOf(strFile)), strWhat);
    };
    ExpectModest(Behind(0x1254c367, strAllTags), QN_FILE_FMT_E_MKV, "tags behind the clusters");
    ExpectModest(Behind(0x1043a770, strAllChapters), QN_FILE_FMT_E_MKV, "chapters behind the clusters");
}

TEST_F(GreedyMatroska, TracksAttachmentsAndSizes)
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

TEST_F(GreedyMatroska, CuesOutOfTheirOrder)
{
    std::string strBackwards;
    std::string strDense;
    std::string strEven;
    std::string strOdd;
    std::string strSome;
    for (size_t i = 0; i < 30000; ++i)
    {
        strBackwards += Cue(60000 - i, i);
        strEven += i < 20000 ? Cue(2 * i, i) : "";
        strOdd += i < 20000 ? Cue(2 * i + 1, i) : "";
        strSome += Cue(i % 400 == 399 ? i - 5 : i, i);
    }
    for (size_t i = 0; i < 100000; ++i)
    {
        strDense += Small(0xbb, Small(0xb3, Num(200000 - i, 3)) + Small(0xb7, "")); // of a track without a number
    }
    ExpectModest(Mkv(El(0x1c53bb6b, strBackwards)), QN_FILE_FMT_E_MKV, "cues backwards");
    ExpectModest(Mkv(El(0x1c53bb6b, strDense), "",
                     El(0xae, Small(0x73c5, Num(1, 1)) + Small(0x83, Num(1, 1)) + Small(0x86, "V_MPEG4/ISO/AVC"))),
                 QN_FILE_FMT_E_MKV, "as many as there can be");
    ExpectModest(Mkv(El(0x1c53bb6b, strEven) + El(0x1c53bb6b, strOdd)), QN_FILE_FMT_E_MKV, "two lists of cues");
    ExpectModest(Mkv(El(0x1c53bb6b, strSome)), QN_FILE_FMT_E_MKV, "some cues late", true);
}

TEST_F(GreedyMatroska, CuesBehindTheClustersAreLookedAtToo)
{
    // FFmpeg reads them at the first seek.
    std::string strBackwards;
    std::string strGood;
    for (size_t i = 0; i < 30000; ++i)
    {
        strBackwards += Cue(60000 - i, i);
        strGood += Cue(i, i);
    }
    for (const bool bGood : {false, true})
    {
        const std::string strCues = El(0x1c53bb6b, bGood ? strGood : strBackwards);
        const std::string strFile = Mkv(SeekTo(0x1c53bb6b, 0), strCues);
        const std::string strWhole = Mkv(SeekTo(0x1c53bb6b, strFile.rfind(strCues) - SegmentOf(strFile)), strCues);
        TEST_Touch(Path(), strWhole);
        void *pReader = FFMUXER_ReadOpen(nullptr, Path().c_str(), QN_FILE_FMT_E_MKV);
        EXPECT_EQ(bGood, pReader != nullptr);
        (void)FFMUXER_ReadClose(pReader); // null does nothing
    }
}

TEST_F(GreedyMatroska, EmptyTracks)
{
    ExpectModest(Mkv("", "", MkvTrack(1) + Repeat(Small(0xae, ""), 500000)), QN_FILE_FMT_E_MKV,
                 "half a million tracks");
}

TEST_F(GreedyMatroska, PackedFrames)
{
    // By zlib: a kilobyte may stand for one megabyte, and a block has 256 frames.
    std::string strLaces = Num(0x81, 1) + Num(0, 2) + Num(0x04, 1) + Num(255, 1) + Repeat(std::string(3000, 'x'), 256);
    for (const uint64_t u64Kind : {0u, 1u, 2u, 7u})
    {
        ExpectModest(Mkv("", El(0x1f43b675, El(0xa3, strLaces)), MkvTrack(1, Packed(u64Kind))), QN_FILE_FMT_E_MKV,
                     "packed frames of kind " + std::to_string(u64Kind));
        EXPECT_FALSE(Opens(Mkv("", "", MkvTrack(1, Packed(u64Kind))))) << u64Kind;
    }
    EXPECT_FALSE(Opens(Mkv("", "", MkvTrack(1, El(0x6d80, Small(0x6240, "")))))); // zlib, when it is not told
    strLaces = Num(0x81, 1) + Num(0, 2) + Num(0x04, 1) + Num(255, 1) + Repeat("12345678", 256);
    ExpectModest(
        Mkv("", El(0x1f43b675, Repeat(El(0xa3, strLaces), 10)), MkvTrack(1, Packed(3, std::string(900000, 'x')))),
        QN_FILE_FMT_E_MKV, "a long begin of each frame");
    EXPECT_TRUE(Opens(Mkv("", "", MkvTrack(1, Packed(3, "abcd")))));
}

TEST_F(GreedyMatroska, ABlockWithMuchBesideItsFrames)
{
    const std::string strAdded = El(0x75a1, El(0xa6, Small(0xee, Num(1, 1)) + El(0xa5, std::string(900000, 'x'))));
    const std::string strFrames = Num(0x81, 1) + Num(0, 2) + Num(0x04, 1) + Num(255, 1) + Repeat("12345678", 256);
    const std::string strCluster = El(0x1f43b675, Small(0xe7, Num(0, 1)) + El(0xa0, El(0xa1, strFrames) + strAdded));
    ExpectModest(Mkv("", strCluster), QN_FILE_FMT_E_MKV, "much beside 256 frames");
    ExpectModest(Mkv("", Num(0, 1) + strCluster), QN_FILE_FMT_E_MKV, "behind a wrong byte");
}

TEST_F(GreedyMatroska, ElementsThatFfmpegFindsOnlyAfterAnError)
{
    const std::string strTags = ManyTags(30000);
    ExpectModest(Mkv(Num(0, 1) + strTags), QN_FILE_FMT_E_MKV, "behind a wrong byte");
    ExpectModest(Mkv(El(0x1549a966, Small(0x2ad7b1, Num(1, 8) + "123456789") + strTags)), QN_FILE_FMT_E_MKV,
                 "in a broken element");
    ExpectModest(Mkv(El(0xec, strTags) + Num(0, 1)), QN_FILE_FMT_E_MKV, "in a filler before a wrong byte");
    const std::string strSeeks = El(0x114d9b74, Small(0x4dbb, Small(0x53ac, W(0)) + Small(0x53ab, W(0x1254c367))) +
                                                    Num(0x10, 1) + Num(strTags.size(), 3) + strTags.substr(12));
    ExpectModest(Mkv(strSeeks), QN_FILE_FMT_E_MKV, "in a list of places");
}

TEST_F(GreedyMatroska, ListsOfPlacesThatNameOneAnother)
{
    // Each names the next one, and the last one the tags.
    const std::string strTags = ManyTags(30000);
    const std::string strOne = SeekTo(0x114d9b74, 0);
    std::string strFile = Mkv(strOne, Repeat(strOne, 20) + strTags);
    const size_t segment = SegmentOf(strFile);
    const size_t chain = strFile.rfind(strTags) - 20 * strOne.size();
    std::string strChain;
    for (size_t i = 1; i <= 20; ++i)
    {
        strChain += SeekTo(i < 20 ? 0x114d9b74 : 0x1254c367, chain + i * strOne.size() - segment);
    }
    ExpectModest(Mkv(SeekTo(0x114d9b74, chain - segment), strChain + strTags), QN_FILE_FMT_E_MKV, "a chain");
}

TEST_F(GreedyMatroska, CuesThatAreNamedTwice)
{
    const std::string strCues = El(0x1c53bb6b, Cue(0, 0) + Cue(1, 1));
    const std::string strFile = Mkv(Repeat(SeekTo(0x1c53bb6b, 0), 2), strCues);
    const std::string strSeek = SeekTo(0x1c53bb6b, strFile.rfind(strCues) - SegmentOf(strFile));
    EXPECT_TRUE(Opens(Mkv(strSeek + strSeek, strCues)));
}

TEST_F(GreedyMatroska, ACueOfVeryManyParts)
{
    EXPECT_FALSE(Opens(Mkv(El(0x1c53bb6b, El(0xbb, Repeat("\xec\x80", 1500000))))));
}

TEST_F(GreedyMatroska, EncryptedFrames)
{
    // They are not unpacked: nothing stands for more than it is.
    EXPECT_TRUE(Opens(Mkv("", "", MkvTrack(1, El(0x6d80, El(0x6240, Small(0x5033, Num(1, 1))))))));
    EXPECT_FALSE(Opens(Mkv("", "", MkvTrack(1, El(0x6d80, El(0x6240, Small(0x5033, Num(0, 1))))))));
}

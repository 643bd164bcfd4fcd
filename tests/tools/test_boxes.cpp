// The outermost boxes of an MP4 file: whole, cut anywhere, and not such a file.

#include "boxes.h"

#include <fstream>

#include <gtest/gtest.h>

#include "support/scratch.h"

class Boxes : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_strFolder = TEST_MakeScratch("boxes");
        ASSERT_FALSE(m_strFolder.empty());
    }

    void TearDown() override
    {
        EXPECT_TRUE(TEST_RemoveScratch(m_strFolder));
    }

    bool AreWhole(const std::string &strBytes)
    {
        const std::string strPath = m_strFolder + "/file";
        std::ofstream(strPath, std::ios::binary) << strBytes;
        return TOOL_BOXES_AreWhole(strPath);
    }

    static std::string Box(const std::string &strType, size_t uPayload)
    {
        const size_t uSize = 8 + uPayload;
        const std::string strSize = {'\0', '\0', static_cast<char>(uSize >> 8), static_cast<char>(uSize & 0xff)};
        return strSize + strType + std::string(uPayload, 'x');
    }

    std::string m_strFolder;
};

TEST_F(Boxes, AreWholeWithTheMovieAtEitherEnd)
{
    EXPECT_TRUE(AreWhole(Box("ftyp", 16) + Box("mdat", 400) + Box("moov", 90)));
    EXPECT_TRUE(AreWhole(Box("ftyp", 16) + Box("moov", 90) + Box("mdat", 0)));
}

TEST_F(Boxes, AreNotWholeWhereverTheyAreCut)
{
    const std::string strFile = Box("ftyp", 16) + Box("mdat", 400) + Box("moov", 90);
    for (size_t u = 0; u < strFile.size(); u++)
    {
        EXPECT_FALSE(AreWhole(strFile.substr(0, u))) << u;
    }
    EXPECT_FALSE(AreWhole(strFile + "x"));
    EXPECT_FALSE(AreWhole(strFile + std::string("\0\0\0\7free", 8))) << "a box is not shorter than its header";
}

TEST_F(Boxes, MayHaveLongSizesOrReachToTheEnd)
{
    using namespace std::string_literals;
    const std::string strLong = "\0\0\0\1mdat\0\0\0\0\0\0\0\x14zzzz"s;
    EXPECT_TRUE(AreWhole(Box("moov", 8) + strLong));
    EXPECT_FALSE(AreWhole(Box("moov", 8) + strLong.substr(0, 19)));
    EXPECT_FALSE(AreWhole(Box("moov", 8) + "\0\0\0\1mdat\xff\xff\xff\xff\xff\xff\xff\xff"s));
    EXPECT_TRUE(AreWhole(Box("moov", 8) + "\0\0\0\0mdatzz"s));
}

TEST_F(Boxes, AreNoneInOtherFiles)
{
    EXPECT_FALSE(AreWhole(""));
    EXPECT_FALSE(AreWhole(std::string(500, '\xff')));
    EXPECT_FALSE(TOOL_BOXES_AreWhole(m_strFolder + "/none"));
    EXPECT_FALSE(TOOL_BOXES_AreWhole(m_strFolder));
}

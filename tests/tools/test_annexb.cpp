#include "annexb.h"

#include <gtest/gtest.h>

using BYTES = std::vector<uint8_t>;

static BYTES Normalised(const BYTES &vecIn)
{
    BYTES vecOut;
    TOOL_ANNEXB_Append(vecIn.data(), vecIn.size(), vecOut);
    return vecOut;
}

TEST(AnnexB, WritesEveryStartCodeWithFourBytes)
{
    EXPECT_EQ((BYTES{0, 0, 0, 1, 0x67, 9, 0, 0, 0, 1, 0x68, 8, 0, 0, 0, 1, 0x65, 7}),
              Normalised({0, 0, 0, 1, 0x67, 9, 0, 0, 1, 0x68, 8, 0, 0, 1, 0x65, 7}));
}

TEST(AnnexB, LeavesFourByteStartCodesAndEmulationPreventionAsTheyAre)
{
    const BYTES vecUnit = {0, 0, 0, 1, 0x65, 0, 0, 3, 1, 0, 0, 3, 0, 5};
    EXPECT_EQ(vecUnit, Normalised(vecUnit));
}

TEST(AnnexB, DropsEmptyUnitsAndTheZeroesBehindAUnit)
{
    EXPECT_EQ((BYTES{0, 0, 0, 1, 0x65, 7}), Normalised({0, 0, 1, 0, 0, 0, 1, 0x65, 7, 0, 0, 0}));
}

TEST(AnnexB, GivesNothingForBytesWithoutAStartCode)
{
    EXPECT_TRUE(Normalised({1, 2, 3, 4, 5}).empty());
    EXPECT_TRUE(Normalised({}).empty());
    EXPECT_TRUE(Normalised({0, 0}).empty());
}

TEST(AnnexB, KnowsAStartCodeAtTheBeginOnly)
{
    const BYTES vecFour = {0, 0, 0, 1, 0x67};
    const BYTES vecThree = {0, 0, 1, 0x67, 1};
    const BYTES vecLengths = {1, 0x64, 0, 0x1f, 0xff, 0, 0, 1}; // a configuration record
    EXPECT_TRUE(TOOL_ANNEXB_Is(vecFour.data(), vecFour.size()));
    EXPECT_TRUE(TOOL_ANNEXB_Is(vecThree.data(), vecThree.size()));
    EXPECT_FALSE(TOOL_ANNEXB_Is(vecLengths.data(), vecLengths.size()));
    EXPECT_FALSE(TOOL_ANNEXB_Is(nullptr, 0));
}

TEST(Adts, HeaderOfAStereoFrameAt48KHzHasTheBytesOfTheStandard)
{
    tagTOOL_ADTS_S stAdts;
    const BYTES vecConfig = {0x11, 0x90}; // LC, 48 kHz, 2 channels
    ASSERT_TRUE(TOOL_ADTS_FromConfig(vecConfig.data(), vecConfig.size(), stAdts));
    BYTES vecHeader;
    ASSERT_TRUE(TOOL_ADTS_Append(stAdts, 100, vecHeader));
    EXPECT_EQ((BYTES{0xff, 0xf1, 0x4c, 0x80, 0x0d, 0x7f, 0xfc}), vecHeader);
    EXPECT_EQ(48000u, TOOL_ADTS_Rate(stAdts.u32RateIndex));
}

TEST(Adts, ReadsBackWhatItWrote)
{
    for (uint32_t u32Channels = 1; u32Channels <= 7; u32Channels++)
    {
        for (uint32_t u32Rate = 0; u32Rate <= 12; u32Rate++)
        {
            BYTES vecHeader;
            ASSERT_TRUE(TOOL_ADTS_Append({1, u32Rate, u32Channels}, 8000, vecHeader));
            tagTOOL_ADTS_S stRead;
            ASSERT_TRUE(TOOL_ADTS_FromHeader(vecHeader.data(), vecHeader.size(), stRead));
            EXPECT_EQ(u32Rate, stRead.u32RateIndex);
            EXPECT_EQ(u32Channels, stRead.u32Channels);
            EXPECT_EQ(1u, stRead.u32Profile);
        }
    }
}

TEST(Adts, TakesTheCoreOfAnSbrConfiguration)
{
    tagTOOL_ADTS_S stAdts;
    const BYTES vecConfig = {0x2b, 0x92, 0x08, 0x00}; // type 5, core 22.05 kHz, 2 channels, 44.1 kHz, core type 2
    ASSERT_TRUE(TOOL_ADTS_FromConfig(vecConfig.data(), vecConfig.size(), stAdts));
    EXPECT_EQ(22050u, TOOL_ADTS_Rate(stAdts.u32RateIndex));
    EXPECT_EQ(2u, stAdts.u32Channels);
    EXPECT_EQ(1u, stAdts.u32Profile);
}

TEST(Adts, RefusesWhatAHeaderCannotSay)
{
    tagTOOL_ADTS_S stAdts;
    BYTES vecHeader;
    const BYTES vecNoChannels = {0x11, 0x80};
    const BYTES vecFreeRate = {0x17, 0x80, 0, 0, 0};
    const BYTES vecEld = {0xf8, 0xe6, 0x40, 0};
    EXPECT_FALSE(TOOL_ADTS_FromConfig(vecNoChannels.data(), vecNoChannels.size(), stAdts));
    EXPECT_FALSE(TOOL_ADTS_FromConfig(vecFreeRate.data(), vecFreeRate.size(), stAdts));
    EXPECT_FALSE(TOOL_ADTS_FromConfig(vecEld.data(), vecEld.size(), stAdts));
    EXPECT_FALSE(TOOL_ADTS_FromConfig(nullptr, 0, stAdts));
    EXPECT_TRUE(TOOL_ADTS_Append({1, 3, 2}, 0x1fff - 7, vecHeader));
    EXPECT_FALSE(TOOL_ADTS_Append({1, 3, 2}, 0x1fff - 6, vecHeader));
    const BYTES vecNoise = {0xff, 0x00, 1, 2, 3, 4, 5, 6};
    EXPECT_FALSE(TOOL_ADTS_FromHeader(vecNoise.data(), vecNoise.size(), stAdts));
    EXPECT_FALSE(TOOL_ADTS_FromHeader(vecNoise.data(), 6, stAdts));
}

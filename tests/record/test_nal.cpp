// NAL units: splitting, types and parameter sets.

#include <gtest/gtest.h>

#include "libquarrin.h"
#include "support/capture.h"
#include "support/streams.h"

using namespace libquarrin;

using BYTES = std::vector<unsigned char>;
using NALUS = std::vector<std::pair<unsigned char *, int>>;

// The units as bytes, after a check that they lie in the buffer one behind the other.
static std::vector<BYTES> Split(BYTES &vecData)
{
    unsigned char u8Other = 0;
    NALUS vecNalus = {{&u8Other, 1}}; // what is in there goes away
    const int32_t s32Count = SPLIT_H26X_NALUS(vecData.data(), static_cast<uint32_t>(vecData.size()), vecNalus);
    EXPECT_EQ(static_cast<size_t>(s32Count), vecNalus.size());
    std::vector<BYTES> vecUnits;
    unsigned char *pu8At = vecData.data();
    for (const auto &nalu : vecNalus)
    {
        EXPECT_EQ(pu8At, nalu.first);
        pu8At = nalu.first + nalu.second;
        vecUnits.emplace_back(nalu.first, pu8At);
    }
    EXPECT_TRUE(vecNalus.empty() || pu8At == vecData.data() + vecData.size());
    return vecUnits;
}

TEST(SplitNalus, SplitsAtFourByteStartCodes)
{
    const struct
    {
        const char *pszWhat;
        BYTES vecData;
        std::vector<BYTES> vecUnits;
    } astCases[] = {
        {"three units",
         {0, 0, 0, 1, 0x67, 9, 0, 0, 0, 1, 0x68, 0, 0, 0, 1, 0x65, 8, 7},
         {{0, 0, 0, 1, 0x67, 9}, {0, 0, 0, 1, 0x68}, {0, 0, 0, 1, 0x65, 8, 7}}},
        {"one unit", {0, 0, 0, 1, 0x67, 9}, {{0, 0, 0, 1, 0x67, 9}}},
        {"four zeros are one code", {5, 6, 0, 0, 0, 0, 1, 0x67}, {{5, 6}, {0, 0, 0, 0, 1, 0x67}}},
        {"four zeros at the begin", {0, 0, 0, 0, 1, 0x67}, {{0, 0, 0, 0, 1, 0x67}}},
        {"five zeros are none", {5, 0, 0, 0, 0, 0, 1, 0x67}, {{5, 0, 0, 0, 0, 0, 1, 0x67}}},
        {"two zeros are none", {0, 0, 1, 0x67, 9, 0, 0, 1, 0x68}, {{0, 0, 1, 0x67, 9, 0, 0, 1, 0x68}}},
        {"one zero is none", {9, 0, 1, 9, 0, 1}, {{9, 0, 1, 9, 0, 1}}},
        {"short codes inside stay", {0, 0, 0, 1, 6, 1, 0, 0, 1, 0x65, 3}, {{0, 0, 0, 1, 6, 1, 0, 0, 1, 0x65, 3}}},
        {"bytes before the first code", {1, 2, 3, 0, 0, 0, 1, 0x67}, {{1, 2, 3}, {0, 0, 0, 1, 0x67}}},
        {"no code at all", {1, 2, 3, 4, 5, 6}, {{1, 2, 3, 4, 5, 6}}},
        {"zeros alone", {0, 0, 0, 0, 0, 0}, {{0, 0, 0, 0, 0, 0}}},
        {"a code at the end", {9, 9, 0, 0, 0, 1}, {{9, 9}, {0, 0, 0, 1}}},
        {"two codes in a row", {0, 0, 0, 1, 0, 0, 0, 1, 0x65}, {{0, 0, 0, 1}, {0, 0, 0, 1, 0x65}}},
        {"three zeros and not a one", {0, 0, 0, 2, 0, 0, 0, 1, 0x65}, {{0, 0, 0, 2}, {0, 0, 0, 1, 0x65}}},
        {"six bytes", {0, 0, 0, 1, 0x65, 1}, {{0, 0, 0, 1, 0x65, 1}}},
        {"five bytes are too few", {0, 0, 0, 1, 0x65}, {}},
        {"nothing", {}, {}},
    };
    for (const auto &stCase : astCases)
    {
        BYTES vecData = stCase.vecData;
        EXPECT_EQ(stCase.vecUnits, Split(vecData)) << stCase.pszWhat;
        EXPECT_EQ(stCase.vecData, vecData) << stCase.pszWhat; // nothing is changed
    }
}

TEST(SplitNalus, OfNothingIsEmptyAndClearsTheOutput)
{
    unsigned char au8Data[8] = {0, 0, 0, 1, 0x65, 1, 2, 3};
    NALUS vecNalus = {{au8Data, 8}};
    EXPECT_EQ(0, SPLIT_H26X_NALUS(au8Data, 5, vecNalus));
    EXPECT_TRUE(vecNalus.empty());
    vecNalus = {{au8Data, 8}};
    EXPECT_EQ(0, SPLIT_H26X_NALUS(nullptr, 0, vecNalus));
    EXPECT_TRUE(vecNalus.empty());
}

TEST(NalType, ReadsTheHeaderBehindEitherStartCode)
{
    const struct
    {
        BYTES vecUnit;
        int32_t s32H264;
        int32_t s32H265;
    } astCases[] = {
        {{0, 0, 0, 1, 0x67}, 7, 51},       {{0, 0, 0, 1, 0x68}, 8, 52},
        {{0, 0, 0, 1, 0x65, 1, 2}, 5, 50}, {{0, 0, 1, 0x67, 0}, 7, 51},
        {{0, 0, 1, 0x41, 9}, 1, 32},       {{0, 0, 0, 1, 0x40}, 0, 32},
        {{0, 0, 0, 1, 0x42}, 2, 33},       {{0, 0, 0, 1, 0x44}, 4, 34},
        {{0, 0, 0, 1, 0xff}, 31, 63},      {{0, 0, 1, 0xff, 0}, 31, 63},
        {{0, 0, 0, 1, 0x26, 1}, 6, 19},    {{0, 0, 0, 1}, -2, -2},
        {{0, 0, 1, 0x67}, -2, -2},         {{}, -2, -2},
        {{1, 0, 0, 1, 0x67}, -1, -1},      {{0, 1, 0, 1, 0x67}, -1, -1},
        {{0, 0, 2, 1, 0x67}, -1, -1},      {{0, 0, 0, 2, 0x67}, -1, -1},
        {{0, 0, 0, 0, 1, 0x67}, -1, -1},   {{9, 9, 9, 9, 9, 9}, -1, -1},
        {{0, 0, 0, 0, 0}, -1, -1},
    };
    for (const auto &stCase : astCases)
    {
        BYTES vecUnit = stCase.vecUnit;
        const uint32_t u32Len = static_cast<uint32_t>(vecUnit.size());
        EXPECT_EQ(stCase.s32H264, GET_H264_NAL_TYPE(vecUnit.data(), u32Len)) << ::testing::PrintToString(vecUnit);
        EXPECT_EQ(stCase.s32H265, GET_H265_NAL_TYPE(vecUnit.data(), u32Len)) << ::testing::PrintToString(vecUnit);
    }
}

class H26xInfo : public ::testing::Test
{
protected:
    int32_t Info(BYTES &vecData, bool bH265)
    {
        return QN_GetH26xInfo(vecData.data(), static_cast<uint32_t>(vecData.size()), bH265, &m_stPps, &m_stSps);
    }

    static BYTES Of(const tagQN_BYTES &stBytes)
    {
        return BYTES(stBytes.pu8Data, stBytes.pu8Data + stBytes.u32Len);
    }

    tagQN_BYTES m_stPps{nullptr, 0};
    tagQN_BYTES m_stSps{nullptr, 0};
};

TEST_F(H26xInfo, FindsSpsAndPpsOfH264)
{
    BYTES vecData = {0, 0, 0, 1, 0x67, 9, 0, 0, 0, 1, 0x68, 5, 6, 0, 0, 0, 1, 0x65, 8, 7};
    EXPECT_EQ(0, Info(vecData, false));
    EXPECT_EQ((BYTES{0, 0, 0, 1, 0x67, 9}), Of(m_stSps));
    EXPECT_EQ((BYTES{0, 0, 0, 1, 0x68, 5, 6}), Of(m_stPps));
    EXPECT_EQ(vecData.data(), m_stSps.pu8Data); // no copy
    EXPECT_EQ(vecData.data() + 6, m_stPps.pu8Data);
}

TEST_F(H26xInfo, FindsOnlyTheFirstUnitBehindThreeByteStartCodes)
{
    BYTES vecData = {0, 0, 1, 0x67, 9, 0, 0, 1, 0x68, 5, 6, 0, 0, 1, 0x65, 8, 7};
    EXPECT_EQ(0, Info(vecData, false));
    EXPECT_EQ(vecData, Of(m_stSps)); // the whole access unit
    EXPECT_EQ(nullptr, m_stPps.pu8Data);
}

TEST_F(H26xInfo, GivesVpsAsSpsForH265AndLeavesTheSpsOut)
{
    BYTES vecData = {0, 0, 0, 1, 0x40, 1, 2, 0, 0, 0, 1, 0x42, 3, 0, 0, 0, 1, 0x44, 4, 5, 0, 0, 0, 1, 0x26, 6};
    EXPECT_EQ(0, Info(vecData, true));
    EXPECT_EQ((BYTES{0, 0, 0, 1, 0x40, 1, 2}), Of(m_stSps));
    EXPECT_EQ((BYTES{0, 0, 0, 1, 0x44, 4, 5}), Of(m_stPps));
}

TEST_F(H26xInfo, LeavesOutputsOfMissingTypesUntouched)
{
    unsigned char u8Mark = 0;
    m_stSps = m_stPps = tagQN_BYTES{&u8Mark, 1};
    BYTES vecData = {0, 0, 0, 1, 0x65, 8, 7, 6};
    EXPECT_EQ(0, Info(vecData, false));
    EXPECT_EQ(&u8Mark, m_stSps.pu8Data);
    EXPECT_EQ(&u8Mark, m_stPps.pu8Data);
    BYTES vecSps = {0, 0, 0, 1, 0x42, 8, 7, 6}; // an H.265 SPS
    EXPECT_EQ(0, Info(vecSps, true));
    EXPECT_EQ(&u8Mark, m_stSps.pu8Data);
    EXPECT_EQ(&u8Mark, m_stPps.pu8Data);
}

TEST_F(H26xInfo, TakesTheLastOfEachType)
{
    BYTES vecData = {0, 0, 0, 1, 0x67, 1, 0, 0, 0, 1, 0x68, 2, 0, 0, 0, 1, 0x67, 3, 0, 0, 0, 1, 0x68, 4};
    EXPECT_EQ(0, Info(vecData, false));
    EXPECT_EQ((BYTES{0, 0, 0, 1, 0x67, 3}), Of(m_stSps));
    EXPECT_EQ((BYTES{0, 0, 0, 1, 0x68, 4}), Of(m_stPps));
}

TEST_F(H26xInfo, SkipsUnitsWithoutAType)
{
    BYTES vecData = {1, 2, 3, 0, 0, 0, 1, 0, 0, 0, 1, 0x67, 3};
    EXPECT_EQ(0, Info(vecData, false));
    EXPECT_EQ((BYTES{0, 0, 0, 1, 0x67, 3}), Of(m_stSps));
    EXPECT_EQ(nullptr, m_stPps.pu8Data);
}

TEST_F(H26xInfo, SaysThatThereIsNoUnit)
{
    STDOUT_CAPTURE capture;
    BYTES vecData = {0, 0, 0, 1, 0x67};
    EXPECT_EQ(-1, Info(vecData, false));
    EXPECT_EQ("Split nalus failed\n", capture.Text());
    EXPECT_EQ(-1, Info(vecData, true));
    EXPECT_EQ(2, capture.Count("Split nalus failed\n"));
    EXPECT_EQ(nullptr, m_stSps.pu8Data);
    EXPECT_EQ(nullptr, m_stPps.pu8Data);
}

TEST_F(H26xInfo, SaysNothingOtherwise)
{
    STDOUT_CAPTURE capture;
    BYTES vecData = {0, 0, 0, 1, 0x65, 8, 7, 6};
    EXPECT_EQ(0, Info(vecData, false));
    EXPECT_EQ("", capture.Text());
}

TEST_F(H26xInfo, ServesARealKeyFrame)
{
    BYTES vecData = TEST_EncodeH264()[0].vecData;
    EXPECT_EQ(0, Info(vecData, false));
    EXPECT_EQ(7, GET_H264_NAL_TYPE(m_stSps.pu8Data, m_stSps.u32Len));
    EXPECT_EQ(8, GET_H264_NAL_TYPE(m_stPps.pu8Data, m_stPps.u32Len));
    const tagQN_STREAM_PARAM_S stParam = TEST_VideoParam(QN_CODEC_H264, TEST_EncodeH264());
    EXPECT_EQ(Of(stParam.stSps), Of(m_stSps));
    EXPECT_EQ(Of(stParam.stPps), Of(m_stPps));

    BYTES vecH265 = TEST_EncodeH265()[0].vecData;
    EXPECT_EQ(0, Info(vecH265, true));
    EXPECT_EQ(32, GET_H265_NAL_TYPE(m_stSps.pu8Data, m_stSps.u32Len));
    EXPECT_EQ(34, GET_H265_NAL_TYPE(m_stPps.pu8Data, m_stPps.u32Len));
}

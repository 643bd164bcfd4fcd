#include "support/h265_sets.h"

namespace
{

class BIT_WRITER
{
public:
    void U(uint32_t u32Bits, uint64_t u64Value)
    {
        for (uint32_t i = u32Bits; i > 0; --i)
        {
            m_vecBits.push_back(i <= 64 && (u64Value >> (i - 1) & 1) != 0); // a longer field begins with zeros
        }
    }
    void Ue(uint32_t u32Value)
    {
        uint32_t u32Length = 0;
        while (u32Length < 31 && (uint64_t{u32Value} + 1) >> (u32Length + 1) != 0)
        {
            ++u32Length;
        }
        U(u32Length, 0);
        U(u32Length + 1, uint64_t{u32Value} + 1);
    }
    void Ues(uint32_t u32Count, uint32_t u32Value)
    {
        for (; u32Count > 0; --u32Count)
        {
            Ue(u32Value);
        }
    }
    size_t Length() const
    {
        return m_vecBits.size();
    }
    void Cut(size_t length)
    {
        m_vecBits.resize(length);
    }

    // Behind the header of two bytes, 00 00 0x becomes 00 00 03 0x for an x of 3 at most.
    std::vector<uint8_t> Unit() const
    {
        std::vector<uint8_t> vecOut = {0x42, 0x01};
        uint32_t u32Zeros = 0;
        for (size_t i = 0; i + 8 <= m_vecBits.size(); i += 8)
        {
            uint32_t u32Byte = 0;
            for (size_t j = i; j < i + 8; ++j)
            {
                u32Byte = u32Byte << 1 | (m_vecBits[j] ? 1 : 0);
            }
            if (u32Zeros >= 2 && u32Byte <= 3)
            {
                vecOut.push_back(3);
                u32Zeros = 0;
            }
            vecOut.push_back(static_cast<uint8_t>(u32Byte));
            u32Zeros = u32Byte == 0 ? u32Zeros + 1 : 0;
        }
        return vecOut;
    }

private:
    std::vector<bool> m_vecBits;
};

void ProfileTierLevel(BIT_WRITER &bits, const H265_SPS_S &stSps)
{
    bits.U(8, 1); // main profile
    bits.U(32, 0x60000000);
    bits.U(48, 0x900000000000);
    bits.U(8, 93);
    for (uint32_t i = 0; i < stSps.u32SubLayers; ++i)
    {
        bits.U(2, stSps.u32SubLayerFlags);
    }
    bits.U(stSps.u32SubLayers > 0 ? (8 - stSps.u32SubLayers) * 2 : 0, 0);
    for (uint32_t i = 0; i < stSps.u32SubLayers; ++i)
    {
        bits.U((stSps.u32SubLayerFlags & 2) != 0 ? 88 : 0, 0);
        bits.U((stSps.u32SubLayerFlags & 1) != 0 ? 8 : 0, 90);
    }
}

void ScalingLists(BIT_WRITER &bits, uint32_t u32How)
{
    bits.U(1, u32How > 0 ? 1 : 0);
    bits.U(u32How > 0 ? 1 : 0, u32How > 1 ? 1 : 0);
    for (uint32_t i = 0; u32How > 1 && i < 20; ++i) // six of 4x4, 8x8 and 16x16, two of 32x32
    {
        bits.U(1, u32How - 2);
        bits.Ues(u32How == 2 ? 1 : (i < 6 ? 16 : 64) + (i < 12 ? 0 : 1), i % 3);
    }
}

void ShortTermSets(BIT_WRITER &bits, const H265_SPS_S &stSps)
{
    bits.Ue(stSps.s64Sets >= 0 ? static_cast<uint32_t>(stSps.s64Sets) : static_cast<uint32_t>(stSps.vecSets.size()));
    for (size_t i = 0; i < stSps.vecSets.size(); ++i)
    {
        const H265_SET_S &stSet = stSps.vecSets[i];
        bits.U(i > 0 ? 1 : 0, stSet.bByDifference ? 1 : 0);
        if (stSet.bByDifference)
        {
            bits.U(1, 0);
            bits.Ue(stSps.u32Distance);
            for (uint32_t j = 0; j <= stSet.u32Pictures; ++j)
            {
                bits.U(j % 2 == 0 ? 1 : 2, 1); // used; or not used, and kept
            }
            continue;
        }
        bits.Ue(stSet.u32Negative);
        bits.Ue(stSet.u32Positive);
        for (uint32_t j = 0; j < stSet.u32Negative + stSet.u32Positive; ++j)
        {
            bits.Ue(stSps.u32Distance);
            bits.U(1, 1);
        }
    }
}

} // namespace

std::vector<uint8_t> H265_MakeSps(const H265_SPS_S &stSps, int32_t s32Less)
{
    BIT_WRITER bits;
    bits.U(4, 0);
    bits.U(3, stSps.u32SubLayers);
    bits.U(1, 1);
    ProfileTierLevel(bits, stSps);
    bits.Ue(0);
    bits.Ue(stSps.u32Chroma);
    bits.U(stSps.u32Chroma == 3 ? 1 : 0, 0);
    bits.Ues(2, stSps.u32Size);
    bits.U(1, stSps.bWindow ? 1 : 0);
    bits.Ues(stSps.bWindow ? 4 : 0, 2);
    bits.Ues(3, 0);
    bits.U(1, stSps.bOrderOfEach ? 1 : 0);
    bits.Ues(stSps.bOrderOfEach ? 3 * (stSps.u32SubLayers + 1) : 3, 1);
    bits.Ues(6, 0);
    ScalingLists(bits, stSps.u32ScalingLists);
    bits.U(2, 3);
    bits.U(1, stSps.bPcm ? 1 : 0);
    if (stSps.bPcm)
    {
        bits.U(8, 0x77);
        bits.Ues(2, 0);
        bits.U(1, 0);
    }
    ShortTermSets(bits, stSps);
    if (s32Less < 0)
    {
        bits.U(4, 6); // no long-term pictures, both tools on, no VUI
        bits.U(2, 1); // no extension, the stop bit
        bits.U((8 - bits.Length() % 8) % 8, 0);
        return bits.Unit();
    }
    const size_t length = bits.Length();
    bits.Cut(length - static_cast<size_t>(s32Less));
    const size_t fill = (8 - bits.Length() % 8) % 8;
    bits.U(static_cast<uint32_t>(fill), 0xff);
    bits.Cut(s32Less > 0 && bits.Length() >= length ? bits.Length() - 8 : bits.Length());
    return bits.Unit();
}

std::vector<uint8_t> H265_CutSps()
{
    H265_SPS_S stSps;
    stSps.s64Sets = 64;
    return H265_MakeSps(stSps, 0);
}

std::pair<size_t, size_t> H265_PlaceOfSps(const TEST_FRAME_S &stFrame)
{
    const std::vector<uint8_t> &vec = stFrame.vecData;
    size_t begin = 0;
    for (size_t i = 0; i + 4 < vec.size(); ++i)
    {
        if (vec[i] == 0 && vec[i + 1] == 0 && vec[i + 2] == 0 && vec[i + 3] == 1)
        {
            if (begin != 0)
            {
                return {begin, i - begin};
            }
            begin = vec[i + 4] == 0x42 ? i + 4 : 0;
        }
    }
    return {begin, begin != 0 ? vec.size() - begin : 0};
}

TEST_FRAME_S H265_WithSps(const TEST_FRAME_S &stFrame, const std::vector<uint8_t> &vecSps)
{
    const std::pair<size_t, size_t> place = H265_PlaceOfSps(stFrame);
    const auto itBegin = stFrame.vecData.begin() + static_cast<ptrdiff_t>(place.first);
    TEST_FRAME_S stOut;
    stOut.bKey = stFrame.bKey;
    stOut.vecData.assign(stFrame.vecData.begin(), itBegin);
    stOut.vecData.insert(stOut.vecData.end(), vecSps.begin(), vecSps.end());
    stOut.vecData.insert(stOut.vecData.end(), itBegin + static_cast<ptrdiff_t>(place.second), stFrame.vecData.end());
    return stOut;
}

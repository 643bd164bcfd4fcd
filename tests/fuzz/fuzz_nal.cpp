// H.264 and H.265 byte streams: units cover the buffer, stay inside it, and have the types that their headers say.

#include "fuzz.h"

#include <cstring>
#include <memory>
#include <utility>
#include <vector>

using namespace libquarrin;

namespace
{

using NALUS = std::vector<std::pair<unsigned char *, int>>;

// A four-byte start code ends here: a one behind three or four zeros, not more.
bool IsStartCode(const uint8_t *pu8Data, size_t at)
{
    size_t zeros = 0;
    while (zeros < at && pu8Data[at - 1 - zeros] == 0)
    {
        ++zeros;
    }
    return pu8Data[at] == 1 && (zeros == 3 || zeros == 4);
}

size_t CountUnits(const uint8_t *pu8Data, size_t size)
{
    size_t units = 1;
    for (size_t i = 0; i < size; ++i)
    {
        const bool bAtBegin = i == 3 || (i == 4 && pu8Data[0] == 0);
        units += IsStartCode(pu8Data, i) && !bAtBegin ? 1 : 0;
    }
    return units;
}

int32_t TypeOf(const uint8_t *pu8Data, int32_t s32Len, bool bH265)
{
    if (s32Len < 5)
    {
        return -2;
    }
    const bool bShort = memcmp(pu8Data, "\0\0\1", 3) == 0;
    if (!bShort && memcmp(pu8Data, "\0\0\0\1", 4) != 0)
    {
        return -1;
    }
    const uint8_t u8Header = pu8Data[bShort ? 3 : 4];
    return bH265 ? u8Header >> 1 & 63 : u8Header & 31;
}

void CheckUnits(uint8_t *pu8Data, uint32_t u32Len, const NALUS &vecNalus)
{
    const uint8_t *pu8Next = pu8Data;
    for (const auto &unit : vecNalus)
    {
        FUZZ_Check(unit.first == pu8Next && unit.second > 0, "a unit begins where the one before it ends");
        pu8Next += unit.second;
        FUZZ_Check(GET_H264_NAL_TYPE(unit.first, static_cast<uint32_t>(unit.second)) ==
                       TypeOf(unit.first, unit.second, false),
                   "the type of H.264 is that of the header byte");
        FUZZ_Check(GET_H265_NAL_TYPE(unit.first, static_cast<uint32_t>(unit.second)) ==
                       TypeOf(unit.first, unit.second, true),
                   "the type of H.265 is that of the header byte");
    }
    FUZZ_Check(u32Len < 6 ? vecNalus.empty() : pu8Next == pu8Data + u32Len, "the units cover the buffer");
    FUZZ_Check(u32Len < 6 || vecNalus.size() == CountUnits(pu8Data, u32Len), "every start code begins a unit");
}

void CheckSets(uint8_t *pu8Data, uint32_t u32Len, bool bH265, const NALUS &vecNalus)
{
    uint8_t u8Before = 0;
    const tagQN_BYTES stUntouched = {&u8Before, 4321};
    tagQN_BYTES stWantedPps = stUntouched;
    tagQN_BYTES stWantedSps = stUntouched;
    for (const auto &unit : vecNalus)
    {
        const int32_t s32Type = TypeOf(unit.first, unit.second, bH265);
        const tagQN_BYTES stUnit = {unit.first, static_cast<uint32_t>(unit.second)};
        stWantedSps = s32Type == (bH265 ? 32 : 7) ? stUnit : stWantedSps;
        stWantedPps = s32Type == (bH265 ? 34 : 8) ? stUnit : stWantedPps;
    }
    tagQN_BYTES stPps = stUntouched;
    tagQN_BYTES stSps = stUntouched;
    FUZZ_Check(QN_GetH26xInfo(pu8Data, u32Len, bH265, &stPps, &stSps) == (vecNalus.empty() ? -1 : 0),
               "parameter sets are looked for when there are units");
    FUZZ_Check(stPps.pu8Data == stWantedPps.pu8Data && stPps.u32Len == stWantedPps.u32Len, "the last PPS is found");
    FUZZ_Check(stSps.pu8Data == stWantedSps.pu8Data && stSps.u32Len == stWantedSps.u32Len, "the last SPS is found");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pu8Data, size_t size)
{
    // A buffer of exactly the input's size: a read behind it is seen.
    const std::unique_ptr<uint8_t[]> spData(new uint8_t[size]);
    std::copy(pu8Data, pu8Data + size, spData.get());
    const uint32_t u32Len = static_cast<uint32_t>(size);
    NALUS vecNalus = {{nullptr, 1}};
    const int32_t s32Units = SPLIT_H26X_NALUS(spData.get(), u32Len, vecNalus);
    FUZZ_Check(s32Units == static_cast<int32_t>(vecNalus.size()), "the count is that of the units");
    CheckUnits(spData.get(), u32Len, vecNalus);
    CheckSets(spData.get(), u32Len, false, vecNalus);
    CheckSets(spData.get(), u32Len, true, vecNalus);
    FUZZ_Check(GET_H264_NAL_TYPE(spData.get(), u32Len) == TypeOf(spData.get(), static_cast<int32_t>(u32Len), false),
               "the type is read of any buffer");
    FUZZ_Check(memcmp(spData.get(), pu8Data, size) == 0, "nothing is written into the buffer");
    return 0;
}

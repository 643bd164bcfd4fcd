// ADTS headers: seven bytes are read and no more, and the AudioSpecificConfig has their fields.

#include "fuzz.h"

#include <memory>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pu8Data, size_t size)
{
    constexpr size_t ADTS_BYTES = 7;
    if (size < ADTS_BYTES)
    {
        return 0; // the call is made for a whole header
    }
    const std::unique_ptr<uint8_t[]> spHeader(new uint8_t[ADTS_BYTES]);
    std::copy(pu8Data, pu8Data + ADTS_BYTES, spHeader.get());
    const uint16_t u16Config = AAC_GET_AUDIO_SPECIFIC_CONFIG(spHeader.get());

    // Five bits of object type, four of the sampling frequency's index, four of the channels, three of nothing.
    const uint32_t u32Bits = (u16Config & 0xffu) << 8 | u16Config >> 8;
    const uint32_t u32Header = static_cast<uint32_t>(pu8Data[2]) << 8 | pu8Data[3];
    FUZZ_Check(u32Bits >> 11 == (u32Header >> 14) + 1, "the object type is the profile and one");
    FUZZ_Check((u32Bits >> 7 & 15) == (u32Header >> 10 & 15), "the sampling frequency is the header's");
    FUZZ_Check((u32Bits >> 3 & 15) == (u32Header >> 6 & 7), "the channels are the header's");
    FUZZ_Check((u32Bits & 7) == 0, "nothing else is set");
    return 0;
}

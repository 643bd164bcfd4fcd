// AAC: from an ADTS header to an AudioSpecificConfig.

#include <gtest/gtest.h>

#include "libquarrin.h"
#include "support/capture.h"
#include "support/streams.h"

TEST(AudioSpecificConfig, ComesFromTheFixedHeader)
{
    const struct
    {
        unsigned char au8Adts[7];
        uint16_t u16Config; // first byte low
        const char *pszPrinted;
    } astCases[] = {
        {{0xff, 0xf1, 0x50, 0x80, 0x01, 0x23, 0xfc},
         0x1012,
         "Get ADTS: ff f1 50 80 01 23 fc \nParse ADTS: t:2 s:4 c:2\n"},
        // Low complexity, 48000 Hz, stereo and mono; 8000 Hz, mono.
        {{0xff, 0xf1, 0x4c, 0x80, 0, 0x1f, 0xfc}, 0x9011, "Get ADTS: ff f1 4c 80 00 1f fc \nParse ADTS: t:2 s:3 c:2\n"},
        {{0xff, 0xf1, 0x4c, 0x40, 0, 0x1f, 0xfc}, 0x8811, "Get ADTS: ff f1 4c 40 00 1f fc \nParse ADTS: t:2 s:3 c:1\n"},
        {{0xff, 0xf1, 0x6c, 0x40, 0, 0x1f, 0xfc},
         0x8815,
         "Get ADTS: ff f1 6c 40 00 1f fc \nParse ADTS: t:2 s:11 c:1\n"},
        // The channel configuration spans two bytes.
        {{0, 0, 0x01, 0xc0, 0, 0, 0}, 0x3808, "Get ADTS: 00 00 01 c0 00 00 00 \nParse ADTS: t:1 s:0 c:7\n"},
        {{0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff},
         0xb827,
         "Get ADTS: ff ff ff ff ff ff ff \nParse ADTS: t:4 s:15 c:7\n"},
        {{0, 0, 0, 0, 0, 0, 0}, 0x0008, "Get ADTS: 00 00 00 00 00 00 00 \nParse ADTS: t:1 s:0 c:0\n"},
    };
    for (const auto &stCase : astCases)
    {
        unsigned char au8Adts[7];
        std::copy(std::begin(stCase.au8Adts), std::end(stCase.au8Adts), au8Adts);
        STDOUT_CAPTURE capture;
        EXPECT_EQ(stCase.u16Config, AAC_GET_AUDIO_SPECIFIC_CONFIG(au8Adts)) << stCase.pszPrinted;
        EXPECT_EQ(stCase.pszPrinted, capture.Text());
    }
}

TEST(AudioSpecificConfig, ServesARealFrame)
{
    std::vector<uint8_t> vecFrame = TEST_EncodeAac(44100, 1)[0].vecData;
    const STDOUT_CAPTURE capture;
    const uint16_t u16Config = AAC_GET_AUDIO_SPECIFIC_CONFIG(vecFrame.data());
    EXPECT_EQ(0x12, u16Config & 0xff); // low complexity, index 4, one channel
    EXPECT_EQ(0x08, u16Config >> 8);
}

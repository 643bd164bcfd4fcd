// Records that hosts fill word by word: every field stands where it is promised, on 32-bit targets word after word.

#include <atomic>
#include <cstddef>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "libquarrin.h"

using namespace libquarrin;

namespace
{

// A field and its offset; pointers have four bytes on 32-bit targets, eight and their alignment on the others.
struct FIELD_S
{
    const char *pszName;
    size_t uOffset;
    size_t uOffset32;
    size_t uOffset64;
};

constexpr bool IS_32_BIT = sizeof(void *) == 4;

void ExpectLayout(const std::vector<FIELD_S> &vecFields)
{
    for (const FIELD_S &stField : vecFields)
    {
        EXPECT_EQ(IS_32_BIT ? stField.uOffset32 : stField.uOffset64, stField.uOffset) << stField.pszName;
    }
}

// The fields are whole words, one after the other, on every target.
void ExpectWords(const std::vector<size_t> &vecOffsets)
{
    for (size_t i = 0; i < vecOffsets.size(); ++i)
    {
        EXPECT_EQ(4 * i, vecOffsets[i]) << "word " << i;
    }
}

template <typename ENUM> constexpr bool IsWord()
{
    return sizeof(ENUM) == 4 && std::is_same<typename std::underlying_type<ENUM>::type, int32_t>::value;
}

} // namespace

#define FIELD(record, field, offset32, offset64)                                                                       \
    {                                                                                                                  \
#field, offsetof(record, field), offset32, offset64                                                            \
    }

TEST(Layout, BytesAreAPointerAndALength)
{
    ExpectLayout({FIELD(tagQN_BYTES, pu8Data, 0, 0), FIELD(tagQN_BYTES, u32Len, 4, 8)});
    EXPECT_EQ(IS_32_BIT ? 8u : 16u, sizeof(tagQN_BYTES));
}

TEST(Layout, StreamParametersAreTwelveWords)
{
    ExpectLayout({
        FIELD(tagQN_STREAM_PARAM_S, bEnable, 0, 0),
        FIELD(tagQN_STREAM_PARAM_S, enCodec, 4, 4),
        FIELD(tagQN_STREAM_PARAM_S, u32Width, 8, 8),
        FIELD(tagQN_STREAM_PARAM_S, u32Height, 12, 12),
        FIELD(tagQN_STREAM_PARAM_S, u32Fps, 16, 16),
        FIELD(tagQN_STREAM_PARAM_S, u32BitRate, 20, 20),
        FIELD(tagQN_STREAM_PARAM_S, stSps, 24, 24),
        FIELD(tagQN_STREAM_PARAM_S, stPps, 32, 40),
        FIELD(tagQN_STREAM_PARAM_S, u32TimeBaseNum, 40, 56),
        FIELD(tagQN_STREAM_PARAM_S, u32TimeBaseDen, 44, 60),
    });
    EXPECT_EQ(IS_32_BIT ? 48u : 64u, sizeof(tagQN_STREAM_PARAM_S));
}

TEST(Layout, RecordParametersAre27Words)
{
    ExpectLayout({
        FIELD(tagQN_RECORD_PARAM_S, enFormat, 0, 0),
        FIELD(tagQN_RECORD_PARAM_S, stVideo, 4, 8),
        FIELD(tagQN_RECORD_PARAM_S, stAudio, 52, 72),
        FIELD(tagQN_RECORD_PARAM_S, bAutoSplit, 100, 136),
        FIELD(tagQN_RECORD_PARAM_S, u32SplitSeconds, 104, 140),
    });
    EXPECT_EQ(IS_32_BIT ? 108u : 144u, sizeof(tagQN_RECORD_PARAM_S));
}

TEST(Layout, MetadataIs24WordsOnEveryTarget)
{
    constexpr size_t VIDEO_RESERVED = offsetof(tagQN_METADATA_S, au32VideoReserved);
    constexpr size_t AUDIO_RESERVED = offsetof(tagQN_METADATA_S, au32AudioReserved);
    ExpectWords({
        offsetof(tagQN_METADATA_S, bHasAudio),
        offsetof(tagQN_METADATA_S, u32VideoCodec),
        offsetof(tagQN_METADATA_S, u32Width),
        offsetof(tagQN_METADATA_S, u32Height),
        offsetof(tagQN_METADATA_S, u32FrameRate),
        offsetof(tagQN_METADATA_S, u32VideoBitRate),
        VIDEO_RESERVED,
        VIDEO_RESERVED + 4,
        VIDEO_RESERVED + 8,
        VIDEO_RESERVED + 12,
        offsetof(tagQN_METADATA_S, u32VideoTimeBaseNum),
        offsetof(tagQN_METADATA_S, u32VideoTimeBaseDen),
        offsetof(tagQN_METADATA_S, u32AudioReserved),
        offsetof(tagQN_METADATA_S, u32AudioCodec),
        offsetof(tagQN_METADATA_S, u32SampleRate),
        offsetof(tagQN_METADATA_S, u32AudioBitRate),
        offsetof(tagQN_METADATA_S, u32Channels),
        AUDIO_RESERVED,
        AUDIO_RESERVED + 4,
        AUDIO_RESERVED + 8,
        AUDIO_RESERVED + 12,
        AUDIO_RESERVED + 16,
        offsetof(tagQN_METADATA_S, u32AudioTimeBaseNum),
        offsetof(tagQN_METADATA_S, u32AudioTimeBaseDen),
    });
    EXPECT_EQ(16u, sizeof(tagQN_METADATA_S::au32VideoReserved));
    EXPECT_EQ(20u, sizeof(tagQN_METADATA_S::au32AudioReserved));
    EXPECT_EQ(96u, sizeof(tagQN_METADATA_S));
}

TEST(Layout, ReplayParametersAre24WordsOnEveryTarget)
{
    EXPECT_EQ(0u, offsetof(tagQN_REPLAY_PARAM_S, au32Reserved));
    EXPECT_EQ(96u, sizeof(tagQN_REPLAY_PARAM_S::au32Reserved));
    EXPECT_EQ(96u, sizeof(tagQN_REPLAY_PARAM_S));
}

TEST(Layout, PhotoParametersAreSixWordsOnEveryTarget)
{
    ExpectWords({
        offsetof(tagQN_PHOTO_PARAM_S, u32Width),
        offsetof(tagQN_PHOTO_PARAM_S, u32Height),
        offsetof(tagQN_PHOTO_PARAM_S, u32Depth),
        offsetof(tagQN_PHOTO_PARAM_S, u32Pitch),
        offsetof(tagQN_PHOTO_PARAM_S, u32PixelFormat),
        offsetof(tagQN_PHOTO_PARAM_S, u32Quality),
    });
    EXPECT_EQ(24u, sizeof(tagQN_PHOTO_PARAM_S));
}

TEST(Layout, CapacityIsThreeWordsAndAPercentageOnEveryTarget)
{
    ExpectLayout({FIELD(tagQN_STORAGE_INFO_S, u32TotalKB, 0, 0), FIELD(tagQN_STORAGE_INFO_S, u32FreeKB, 4, 4),
                  FIELD(tagQN_STORAGE_INFO_S, u32UsedKB, 8, 8), FIELD(tagQN_STORAGE_INFO_S, dUsedPercent, 16, 16)});
    EXPECT_EQ(24u, sizeof(tagQN_STORAGE_INFO_S));
}

TEST(Layout, BackEndTablesAreTheirSlotsInOrder)
{
    const std::vector<size_t> vecOffsets = {
        offsetof(tagQN_MEDIA_API_S, pfnWriteOpen),        offsetof(tagQN_MEDIA_API_S, pfnWriteFrame),
        offsetof(tagQN_MEDIA_API_S, pfnWriteClose),       offsetof(tagQN_MEDIA_API_S, pfnReadOpen),
        offsetof(tagQN_MEDIA_API_S, pfnReadMetadata),     offsetof(tagQN_MEDIA_API_S, pfnReadGetFrame),
        offsetof(tagQN_MEDIA_API_S, pfnReadReleaseFrame), offsetof(tagQN_MEDIA_API_S, pfnReadSeek),
        offsetof(tagQN_MEDIA_API_S, pfnReadClose),        offsetof(tagQN_MEDIA_API_S, pfnSaveYuvToJpeg),
        offsetof(tagQN_MEDIA_API_S, pfnGetWriteBytes),
    };
    for (size_t i = 0; i < vecOffsets.size(); ++i)
    {
        EXPECT_EQ(i * sizeof(void *), vecOffsets[i]) << "slot " << i;
    }
    EXPECT_EQ(vecOffsets.size() * sizeof(void *), sizeof(tagQN_MEDIA_API_S));
    EXPECT_EQ(sizeof(void *), sizeof(tagQN_PHOTO_API_S));
}

TEST(Layout, EnumerationsAreSignedWords)
{
    EXPECT_TRUE(IsWord<QN_STATE_E>());
    EXPECT_TRUE(IsWord<QN_STORAGE_STATE_E>());
    EXPECT_TRUE(IsWord<QN_VOLUME_ID_E>());
    EXPECT_TRUE(IsWord<QN_FS_TYPE_E>());
    EXPECT_TRUE(IsWord<QN_FILE_FMT_E>());
    EXPECT_TRUE(IsWord<QN_EVENT_E>());
    EXPECT_TRUE(IsWord<QN_CODEC_TYPE_E>());
    EXPECT_TRUE(IsWord<QN_RECORD_STATE_E>());
    EXPECT_EQ(4u, sizeof(std::atomic<QN_STATE_E>));
    EXPECT_EQ(4u, sizeof(tagBU_BOOL));
}

TEST(Layout, TimesAndFileOffsetsHave64Bits)
{
    EXPECT_EQ(8u, sizeof(time_t));
    EXPECT_EQ(8u, sizeof(off_t));
    EXPECT_EQ(8u, sizeof(tagQN_FILE_INFO_S::tStart));
    EXPECT_EQ(8u, sizeof(tagQN_FILE_INFO_S::tEnd));
    EXPECT_EQ(8u, sizeof(tagQN_FILE_INFO_S::u64Size));
    EXPECT_EQ(8u, sizeof(tagQN_RECORD_HANDLER_S::tFileStart));
    EXPECT_EQ(16u, sizeof(timeval));
    EXPECT_TRUE((std::is_same<decltype(QN_REcordGetWriteBytes(nullptr)), int64_t>::value));
    EXPECT_TRUE((std::is_same<decltype(QN_STORAGE_GetMountedTotalSize(nullptr)), int64_t>::value));
}

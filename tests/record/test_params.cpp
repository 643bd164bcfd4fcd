// Parameter records: order and width of their fields, which hosts of the C kind rely on.

#include <cstddef>
#include <type_traits>

#include <gtest/gtest.h>

#include "libquarrin.h"

using namespace libquarrin;

TEST(StreamParam, HoldsItsFieldsInOrder)
{
    const size_t au32Offsets[] = {
        offsetof(tagQN_STREAM_PARAM_S, bEnable),        offsetof(tagQN_STREAM_PARAM_S, enCodec),
        offsetof(tagQN_STREAM_PARAM_S, u32Width),       offsetof(tagQN_STREAM_PARAM_S, u32Height),
        offsetof(tagQN_STREAM_PARAM_S, u32Fps),         offsetof(tagQN_STREAM_PARAM_S, u32BitRate),
        offsetof(tagQN_STREAM_PARAM_S, stSps),          offsetof(tagQN_STREAM_PARAM_S, stPps),
        offsetof(tagQN_STREAM_PARAM_S, u32TimeBaseNum), offsetof(tagQN_STREAM_PARAM_S, u32TimeBaseDen)};
    for (size_t i = 0; i < 6; ++i)
    {
        EXPECT_EQ(i * 4, au32Offsets[i]);
    }
    EXPECT_EQ(24u, au32Offsets[6]);
    EXPECT_EQ(24u + sizeof(tagQN_BYTES), au32Offsets[7]);
    EXPECT_EQ(24u + 2 * sizeof(tagQN_BYTES), au32Offsets[8]);
    EXPECT_EQ(au32Offsets[8] + 4, au32Offsets[9]);
    EXPECT_EQ(2 * sizeof(void *), sizeof(tagQN_BYTES)); // two words on the device: twelve words in all
}

TEST(StreamParam, IsPlainData)
{
    EXPECT_TRUE(std::is_trivially_copyable<tagQN_STREAM_PARAM_S>::value);
    EXPECT_TRUE(std::is_trivially_copyable<tagQN_RECORD_PARAM_S>::value);
    EXPECT_TRUE(std::is_standard_layout<tagQN_RECORD_PARAM_S>::value);
}

TEST(RecordParam, HoldsItsFieldsInOrder)
{
    const size_t u32Video = offsetof(tagQN_RECORD_PARAM_S, stVideo);
    const size_t u32Audio = offsetof(tagQN_RECORD_PARAM_S, stAudio);
    const size_t u32Split = offsetof(tagQN_RECORD_PARAM_S, bAutoSplit);
    EXPECT_EQ(0u, offsetof(tagQN_RECORD_PARAM_S, enFormat));
    EXPECT_EQ(sizeof(void *), u32Video);
    EXPECT_EQ(u32Video + sizeof(tagQN_STREAM_PARAM_S), u32Audio);
    EXPECT_EQ(u32Audio + sizeof(tagQN_STREAM_PARAM_S), u32Split);
    EXPECT_EQ(u32Split + 4, offsetof(tagQN_RECORD_PARAM_S, u32SplitSeconds));
}

TEST(CodecType, KeepsTwoAndThreeFree)
{
    EXPECT_EQ(0, QN_CODEC_H264);
    EXPECT_EQ(1, QN_CODEC_H265);
    EXPECT_EQ(4, QN_CODEC_AAC);
}

// The FFmpeg writer on parameters and frames that no sensible host hands in.

#include "muxer_fixture.h"

#include <random>
#include <unistd.h>

using namespace libquarrin;

class MuxerHostile : public MUXER_TEST
{
protected:
    // Mostly the sensible value, at times 0, 1, the largest ones or anything.
    uint32_t Pick(uint32_t u32Sensible)
    {
        const uint32_t au32Odd[] = {0, 1, 0x7fffffffu, 0x80000000u, 0xffffffffu, static_cast<uint32_t>(m_random())};
        const size_t u32Which = static_cast<size_t>(m_random() % 12);
        return u32Which < 6 ? au32Odd[u32Which] : u32Sensible;
    }

    void Spoil(tagQN_STREAM_PARAM_S &st)
    {
        st.u32Width = Pick(st.u32Width);
        st.u32Height = Pick(st.u32Height);
        st.u32Fps = Pick(st.u32Fps);
        st.u32BitRate = Pick(st.u32BitRate);
        st.u32TimeBaseNum = Pick(st.u32TimeBaseNum);
        st.u32TimeBaseDen = Pick(st.u32TimeBaseDen);
    }

    // Few values, so that start codes come about.
    std::vector<uint8_t> Junk()
    {
        std::vector<uint8_t> vecJunk(static_cast<size_t>(m_random() % 64 + 1));
        for (uint8_t &u8 : vecJunk)
        {
            u8 = static_cast<uint8_t>(m_random() % 4 != 0 ? m_random() % 3 : m_random() % 256);
        }
        return vecJunk;
    }

    void WriteSomething()
    {
        uint64_t u64Pts = m_random() % 2 == 0 ? 1000 : m_random();
        for (size_t i = 0; i < 12; ++i)
        {
            const bool bVideo = m_random() % 2 == 0;
            TEST_FRAME_S stFrame = bVideo ? TEST_EncodeH264()[i] : TEST_EncodeAac()[i];
            if (m_random() % 6 == 0)
            {
                stFrame.vecData = Junk();
            }
            WriteOne(stFrame, bVideo, u64Pts);
            u64Pts += m_random() % 10 != 0 ? 40 : m_random();
        }
    }

    std::mt19937_64 m_random{20240501}; // the same numbers in every run
};

TEST_F(MuxerHostile, AnyParametersMakeAWriterOrLeaveNothing)
{
    int32_t s32Opened = 0;
    for (int32_t i = 0; i < 300; ++i)
    {
        const int32_t s32Format = i % 4;
        tagQN_RECORD_PARAM_S stParam = i % 3 == 0 ? H265(s32Format) : Both(s32Format);
        Spoil(stParam.stVideo);
        Spoil(stParam.stAudio);
        std::vector<uint8_t> vecJunk = Junk();
        if (m_random() % 4 == 0)
        {
            stParam.stVideo.stPps = tagQN_BYTES{vecJunk.data(), static_cast<uint32_t>(vecJunk.size())};
        }
        const STDOUT_CAPTURE capture; // the refusals
        m_pWriter = FFMUXER_WriteOpen(&stParam, Path().c_str());
        if (m_pWriter == nullptr)
        {
            EXPECT_FALSE(TEST_Exists(Path()));
            continue;
        }
        ++s32Opened;
        WriteSomething();
        EXPECT_LE(0, FFMUXER_GetWriteBytes(m_pWriter));
        EXPECT_EQ(0, FFMUXER_WriteClose(m_pWriter));
        m_pWriter = nullptr;
        unlink(Path().c_str());
    }
    EXPECT_LT(30, s32Opened); // both outcomes are met
    EXPECT_GT(270, s32Opened);
}

TEST_F(MuxerHostile, RandomBytesAsFramesHurtNeitherTheWriterNorTheOtherStream)
{
    for (int32_t s32Format = 0; s32Format < 4; ++s32Format)
    {
        Open(Both(s32Format));
        for (size_t i = 0; i < 15; ++i)
        {
            TEST_FRAME_S stJunk;
            stJunk.vecData = Junk();
            stJunk.bKey = i % 5 == 0;
            WriteOne(stJunk, false, 1000 + i * 40);
            WriteOne(TEST_EncodeH264()[i], true, 1000 + i * 40);
        }
        const TEST_MEDIA_S stMedia = Finish(true, true);
        ASSERT_LE(0, stMedia.VideoStream()) << s32Format;
        EXPECT_LE(14, stMedia.vecStreams[static_cast<size_t>(stMedia.VideoStream())].s32Decoded) << s32Format;
    }
}

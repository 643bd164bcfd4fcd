#include "demuxer_fixture.h"

#include <cstddef>
#include <cstring>
#include <set>

using namespace libquarrin;

namespace
{

constexpr uint32_t UNTOUCHED = 0xa5a5a5a5u;

class DemuxerMetadata : public DEMUXER_TEST
{
protected:
    // The words of the open file; what is not written stays UNTOUCHED.
    tagQN_METADATA_S Metadata()
    {
        tagQN_METADATA_S st;
        memset(&st, 0xa5, sizeof(st));
        EXPECT_EQ(0, FFMUXER_ReadMetadata(m_pReader, &st));
        return st;
    }

    // Numbers of the words that were written.
    std::set<size_t> Written()
    {
        const tagQN_METADATA_S st = Metadata();
        uint32_t au32Words[24];
        memcpy(au32Words, &st, sizeof(au32Words));
        std::set<size_t> set;
        for (size_t i = 0; i < 24; ++i)
        {
            if (au32Words[i] != UNTOUCHED)
            {
                set.insert(i);
            }
        }
        return set;
    }

    void MakeAndOpenMkv(const std::vector<SOURCE_S> &vecSources)
    {
        MakeAndOpen({QN_FILE_FMT_E_MKV, "matroska"}, vecSources);
    }
};

} // namespace

TEST_F(DemuxerMetadata, IsARecordOf24Words)
{
    EXPECT_EQ(96u, sizeof(tagQN_METADATA_S));
    EXPECT_EQ(0u, offsetof(tagQN_METADATA_S, bHasAudio));
    EXPECT_EQ(4u, offsetof(tagQN_METADATA_S, u32VideoCodec));
    EXPECT_EQ(8u, offsetof(tagQN_METADATA_S, u32Width));
    EXPECT_EQ(12u, offsetof(tagQN_METADATA_S, u32Height));
    EXPECT_EQ(16u, offsetof(tagQN_METADATA_S, u32FrameRate));
    EXPECT_EQ(20u, offsetof(tagQN_METADATA_S, u32VideoBitRate));
    EXPECT_EQ(24u, offsetof(tagQN_METADATA_S, au32VideoReserved));
    EXPECT_EQ(40u, offsetof(tagQN_METADATA_S, u32VideoTimeBaseNum));
    EXPECT_EQ(44u, offsetof(tagQN_METADATA_S, u32VideoTimeBaseDen));
    EXPECT_EQ(48u, offsetof(tagQN_METADATA_S, u32AudioReserved));
    EXPECT_EQ(52u, offsetof(tagQN_METADATA_S, u32AudioCodec));
    EXPECT_EQ(56u, offsetof(tagQN_METADATA_S, u32SampleRate));
    EXPECT_EQ(60u, offsetof(tagQN_METADATA_S, u32AudioBitRate));
    EXPECT_EQ(64u, offsetof(tagQN_METADATA_S, u32Channels));
    EXPECT_EQ(68u, offsetof(tagQN_METADATA_S, au32AudioReserved));
    EXPECT_EQ(88u, offsetof(tagQN_METADATA_S, u32AudioTimeBaseNum));
    EXPECT_EQ(92u, offsetof(tagQN_METADATA_S, u32AudioTimeBaseDen));
}

TEST_F(DemuxerMetadata, RefusesANullReaderAndTouchesNothing)
{
    tagQN_METADATA_S st;
    memset(&st, 0xa5, sizeof(st));
    EXPECT_EQ(-1, FFMUXER_ReadMetadata(nullptr, &st));
    EXPECT_EQ(UNTOUCHED, st.bHasAudio);
    EXPECT_EQ(UNTOUCHED, st.u32VideoCodec);
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
}

TEST_F(DemuxerMetadata, RefusesANullRecord)
{
    MakeAndOpenMkv({SOURCE_H264()});
    EXPECT_EQ(-1, FFMUXER_ReadMetadata(m_pReader, nullptr));
}

TEST_F(DemuxerMetadata, DescribesTheVideoOfEveryContainer)
{
    const uint32_t au32TimeBaseDen[] = {1000, 90000, 12800, 12800};
    for (size_t i = 0; i < TEST_CONTAINERS.size(); ++i)
    {
        for (const bool bH265 : {false, true})
        {
            ASSERT_NO_FATAL_FAILURE(MakeAndOpen(TEST_CONTAINERS[i], {bH265 ? SOURCE_H265() : SOURCE_H264()}));
            const tagQN_METADATA_S st = Metadata();
            const TEST_MEDIA_S stMedia = TEST_ReadMedia(Path());
            EXPECT_EQ(0u, st.bHasAudio);
            EXPECT_EQ(bH265 ? 1u : 0u, st.u32VideoCodec) << TEST_CONTAINERS[i].pszMuxer;
            EXPECT_EQ(64u, st.u32Width);
            EXPECT_EQ(64u, st.u32Height);
            EXPECT_EQ(25u, st.u32FrameRate) << TEST_CONTAINERS[i].pszMuxer;
            EXPECT_EQ(static_cast<uint32_t>(stMedia.vecStreams[0].s64BitRate), st.u32VideoBitRate);
            EXPECT_EQ(1u, st.u32VideoTimeBaseNum);
            EXPECT_EQ(au32TimeBaseDen[i], st.u32VideoTimeBaseDen);
            Close();
        }
    }
}

TEST_F(DemuxerMetadata, CarriesTheBitRateWhereTheFileHasOne)
{
    MakeAndOpen({QN_FILE_FMT_E_MP4, "mp4"}, {SOURCE_Aac(), SOURCE_Aac(), SOURCE_H264()});
    const tagQN_METADATA_S st = Metadata();
    const TEST_MEDIA_S stMedia = TEST_ReadMedia(Path());
    EXPECT_LT(0u, st.u32VideoBitRate);
    EXPECT_EQ(static_cast<uint32_t>(stMedia.vecStreams[2].s64BitRate), st.u32VideoBitRate);
    EXPECT_LT(0u, st.u32AudioBitRate);
    EXPECT_EQ(static_cast<uint32_t>(stMedia.vecStreams[1].s64BitRate), st.u32AudioBitRate);
}

TEST_F(DemuxerMetadata, WritesOnlyTheWordsOfTheChosenStreams)
{
    MakeAndOpenMkv({SOURCE_Pcm(), SOURCE_Aac(), SOURCE_H264()});
    EXPECT_EQ((std::set<size_t>{0, 1, 2, 3, 4, 5, 10, 11, 13, 14, 15, 16, 22, 23}), Written());
    Close();
    MakeAndOpenMkv({SOURCE_H264()});
    EXPECT_EQ((std::set<size_t>{0, 1, 2, 3, 4, 5, 10, 11}), Written());
    Close();
    MakeAndOpenMkv({SOURCE_Pcm(), SOURCE_Aac()});
    EXPECT_EQ((std::set<size_t>{0, 13, 14, 15, 16, 22, 23}), Written());
    Close();
    MakeAndOpenMkv({SOURCE_Pcm()});
    EXPECT_EQ((std::set<size_t>{0}), Written());
}

TEST_F(DemuxerMetadata, DescribesTheAudioBeforeTheVideo)
{
    for (const CONTAINER_S &stContainer : TEST_CONTAINERS)
    {
        ASSERT_NO_FATAL_FAILURE(MakeAndOpen(stContainer, {SOURCE_Aac(48000, 2), SOURCE_Aac(32000, 1), SOURCE_H264()}));
        const tagQN_METADATA_S st = Metadata();
        const TEST_MEDIA_S stMedia = TEST_ReadMedia(Path());
        EXPECT_EQ(1u, st.bHasAudio) << stContainer.pszMuxer;
        EXPECT_EQ(0u, st.u32VideoCodec);
        EXPECT_EQ(1u, st.u32AudioCodec);                             // no H.264
        EXPECT_EQ(32000u, st.u32SampleRate) << stContainer.pszMuxer; // the later one
        EXPECT_EQ(1u, st.u32Channels);
        ASSERT_EQ(3u, stMedia.vecStreams.size());
        EXPECT_EQ(static_cast<uint32_t>(stMedia.vecStreams[1].s64BitRate), st.u32AudioBitRate);
        EXPECT_EQ(static_cast<uint32_t>(stMedia.vecStreams[1].s32TimeBaseNum), st.u32AudioTimeBaseNum);
        EXPECT_EQ(static_cast<uint32_t>(stMedia.vecStreams[1].s32TimeBaseDen), st.u32AudioTimeBaseDen);
        Close();
    }
}

TEST_F(DemuxerMetadata, CallsAudioAtIndexZeroNone)
{
    for (const CONTAINER_S &stContainer : TEST_CONTAINERS)
    {
        ASSERT_NO_FATAL_FAILURE(MakeAndOpen(stContainer, {SOURCE_Aac(), SOURCE_H264()}));
        tagQN_METADATA_S st = Metadata();
        EXPECT_EQ(0u, st.bHasAudio) << stContainer.pszMuxer;
        EXPECT_EQ(UNTOUCHED, st.u32AudioCodec);
        EXPECT_EQ(UNTOUCHED, st.u32SampleRate);
        EXPECT_EQ(64u, st.u32Width);
        Close();
        ASSERT_NO_FATAL_FAILURE(MakeAndOpen(stContainer, {SOURCE_Aac()}));
        st = Metadata();
        EXPECT_EQ(0u, st.bHasAudio) << stContainer.pszMuxer;
        EXPECT_EQ(UNTOUCHED, st.u32Width);
        Close();
    }
}

TEST_F(DemuxerMetadata, CallsRawAacNoAudio)
{
    TEST_WriteAac(Path());
    Open(QN_FILE_FMT_E_AAC);
    EXPECT_EQ((std::set<size_t>{0}), Written());
    EXPECT_EQ(0u, Metadata().bHasAudio);
}

TEST_F(DemuxerMetadata, NeverChoosesAudioBehindTheVideo)
{
    for (const CONTAINER_S &stContainer : TEST_CONTAINERS)
    {
        ASSERT_NO_FATAL_FAILURE(MakeAndOpen(stContainer, {SOURCE_H264(), SOURCE_Aac(), SOURCE_Aac(32000, 1)}));
        const tagQN_METADATA_S st = Metadata();
        EXPECT_EQ(0u, st.bHasAudio) << stContainer.pszMuxer;
        EXPECT_EQ(UNTOUCHED, st.u32SampleRate);
        Close();
    }
}

TEST_F(DemuxerMetadata, ChoosesTheLastAudioWhereThereIsNoVideo)
{
    MakeAndOpenMkv({SOURCE_Aac(48000, 2), SOURCE_Aac(32000, 1), SOURCE_Aac(16000, 2), SOURCE_Pcm()});
    const tagQN_METADATA_S st = Metadata();
    EXPECT_EQ(1u, st.bHasAudio);
    EXPECT_EQ(16000u, st.u32SampleRate);
    EXPECT_EQ(2u, st.u32Channels);
    EXPECT_EQ(UNTOUCHED, st.u32VideoCodec);
}

TEST_F(DemuxerMetadata, KnowsMp3AsWell)
{
    MakeAndOpenMkv({SOURCE_Aac(), SOURCE_Mp3(), SOURCE_H265()});
    const tagQN_METADATA_S st = Metadata();
    EXPECT_EQ(1u, st.bHasAudio);
    EXPECT_EQ(1u, st.u32AudioCodec);
    EXPECT_EQ(44100u, st.u32SampleRate);
    EXPECT_EQ(2u, st.u32Channels);
    EXPECT_EQ(1u, st.u32VideoCodec);
}

TEST_F(DemuxerMetadata, SkipsOtherCodecs)
{
    MakeAndOpenMkv({SOURCE_Pcm(), SOURCE_H264()});
    EXPECT_EQ(0u, Metadata().bHasAudio);
    Close();
    MakeAndOpenMkv({SOURCE_Aac(), SOURCE_Pcm(), SOURCE_H264()});
    EXPECT_EQ(0u, Metadata().bHasAudio); // the audio is at index 0, what follows it does not count
}

TEST_F(DemuxerMetadata, ChoosesTheFirstOfTwoVideos)
{
    MakeAndOpenMkv({SOURCE_H265(), SOURCE_H264()});
    EXPECT_EQ(1u, Metadata().u32VideoCodec);
    Close();
    MakeAndOpenMkv({SOURCE_H264(), SOURCE_H265()});
    EXPECT_EQ(0u, Metadata().u32VideoCodec);
}

TEST_F(DemuxerMetadata, CutsTheFrameRateToAWholeNumber)
{
    SOURCE_S st = SOURCE_H264(30);
    st.s32FrameNum = 1001;
    st.s32FrameDen = 30000; // 29.97
    MakeAndOpen({QN_FILE_FMT_E_MP4, "mp4"}, {st});
    EXPECT_EQ(29u, Metadata().u32FrameRate);
    Close();
    st.s32FrameNum = 2;
    st.s32FrameDen = 1; // a picture every other second
    MakeAndOpen({QN_FILE_FMT_E_MP4, "mp4"}, {st});
    EXPECT_EQ(0u, Metadata().u32FrameRate);
}

TEST_F(DemuxerMetadata, LeavesAnUnknownFrameRateAlone)
{
    SOURCE_S st = SOURCE_H264();
    st.bDeclareRate = false;
    st.vecFrames.resize(1); // nothing to measure it by
    MakeAndOpenMkv({st});
    EXPECT_EQ((std::set<size_t>{0, 1, 2, 3, 5, 10, 11}), Written());
}

TEST_F(DemuxerMetadata, ReadsTheSameAgainAndDisturbsNoFrame)
{
    MakeAndOpenMkv({SOURCE_H264()});
    const tagQN_METADATA_S stFirst = Metadata();
    const GOT_S stGot = TEST_Get(m_pReader);
    const std::vector<uint8_t> vecBytes = stGot.Bytes();
    const tagQN_METADATA_S stSecond = Metadata();
    EXPECT_EQ(0, memcmp(&stFirst, &stSecond, sizeof(stFirst)));
    EXPECT_EQ(vecBytes, stGot.Bytes());
    EXPECT_EQ(0, FFMUXER_ReadReleaseFrame(m_pReader, stGot.pu8Data));
}

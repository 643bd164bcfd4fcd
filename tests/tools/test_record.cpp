// Recordings from end to end: generated clip, files, a live input, signals.

#include <csignal>
#include <cstdint>
#include <map>

extern "C"
{
#include <libavcodec/codec_id.h>
}

#include "recordings.h"

static constexpr size_t TIME_LEN = 19; // YYYY-MM-DD-hh-mm-ss

/// The recording ended well and left one finished file.
static std::string OneFile(const std::string &strName)
{
    RECORDING_S &stRecording = RECORDINGS::Get().Of(strName);
    EXPECT_EQ(0, stRecording.pTool->Wait()) << stRecording.pTool->Err();
    const std::vector<std::string> vecNames = stRecording.Names();
    EXPECT_EQ(1u, vecNames.size());
    for (const std::string &strFile : vecNames)
    {
        EXPECT_EQ(std::string::npos, strFile.find("unknown")) << strFile;
    }
    EXPECT_EQ(stRecording.Path() + "\n", stRecording.pTool->Out()); // the result, and nothing else
    return stRecording.Path();
}

static void ExpectPlayable(const std::string &strPath, int32_t s32VideoCodec)
{
    const TEST_MEDIA_S stMedia = TEST_ReadMedia(strPath, true, true);
    ASSERT_TRUE(stMedia.bOpened) << strPath;
    ASSERT_EQ(2u, stMedia.vecStreams.size());
    ASSERT_GE(stMedia.VideoStream(), 0);
    EXPECT_EQ(s32VideoCodec, stMedia.vecStreams[static_cast<size_t>(stMedia.VideoStream())].s32CodecId);
    for (const TEST_MEDIA_STREAM_S &stStream : stMedia.vecStreams)
    {
        EXPECT_GT(stStream.s32Decoded, 0) << strPath;
        EXPECT_EQ(0, stStream.s32DecodeErrors) << strPath;
    }
    EXPECT_TRUE(VideoOf(stMedia).front().bKey);
}

TEST(RecordFile, KeepsEveryFrameOfAnMp4InMatroska)
{
    const TEST_MEDIA_S stFrom = TEST_ReadMedia(RECORDINGS::Get().Media("clip.mp4"));
    ExpectSameFrames(stFrom, TEST_ReadMedia(OneFile("file.mkv")), 1000);
}

TEST(RecordFile, KeepsEveryFrameOfAnMp4InATransportStream)
{
    const TEST_MEDIA_S stFrom = TEST_ReadMedia(RECORDINGS::Get().Media("clip.mp4"));
    ExpectSameFrames(stFrom, TEST_ReadMedia(OneFile("file.ts")), 50);
}

TEST(RecordFile, KeepsEveryFrameWhileItIsWrittenThroughToTheCard)
{
    const TEST_MEDIA_S stFrom = TEST_ReadMedia(RECORDINGS::Get().Media("clip.mp4"));
    ExpectSameFrames(stFrom, TEST_ReadMedia(OneFile("durable")), 50);
    EXPECT_EQ(std::string::npos, RECORDINGS::Get().Of("durable").pTool->Err().find("warning"));
}

TEST(RecordFile, KeepsEveryFrameOfATransportStreamInMp4)
{
    const TEST_MEDIA_S stFrom = TEST_ReadMedia(RECORDINGS::Get().Media("clip.ts"));
    ExpectSameFrames(stFrom, TEST_ReadMedia(OneFile("file.mp4")), 50);
}

TEST(RecordFile, KeepsEveryFrameOfAnMp4InMov)
{
    const TEST_MEDIA_S stFrom = TEST_ReadMedia(RECORDINGS::Get().Media("clip.mp4"));
    ExpectSameFrames(stFrom, TEST_ReadMedia(OneFile("file.mov")), 50);
}

TEST(RecordFile, KeepsEveryFrameOfH265InMatroska)
{
    const std::string strPath = OneFile("file265.mkv");
    ExpectPlayable(strPath, AV_CODEC_ID_HEVC);
    ExpectSameFrames(TEST_ReadMedia(RECORDINGS::Get().Media("clip265.mkv")), TEST_ReadMedia(strPath), 1000);
}

TEST(RecordFile, KeepsEveryFrameOfH265InATransportStream)
{
    const std::string strPath = OneFile("file265.ts");
    ExpectPlayable(strPath, AV_CODEC_ID_HEVC);
    ExpectSameFrames(TEST_ReadMedia(RECORDINGS::Get().Media("clip265.mkv")), TEST_ReadMedia(strPath), 1000);
}

TEST(RecordFile, DecodesWithoutAnErrorInEveryContainer)
{
    for (const char *pszName : {"file.mkv", "file.ts", "file.mp4", "file.mov"})
    {
        ExpectPlayable(OneFile(pszName), AV_CODEC_ID_H264);
    }
}

TEST(RecordFile, WritesFourByteStartCodesAndAdtsHeadersIntoATransportStream)
{
    const TEST_MEDIA_S stMedia = TEST_ReadMedia(OneFile("file.ts"), false);
    for (const TEST_PACKET_S &stPacket : VideoOf(stMedia))
    {
        for (size_t u = 3; u + 2 < stPacket.vecBytes.size(); u++)
        {
            const uint8_t *pu8 = &stPacket.vecBytes[u];
            ASSERT_FALSE(pu8[0] == 0 && pu8[1] == 0 && pu8[2] == 1 && pu8[-1] != 0) << "three-byte start code";
        }
    }
    ASSERT_FALSE(AudioOf(stMedia).empty());
    for (const TEST_PACKET_S &stPacket : AudioOf(stMedia))
    {
        ASSERT_GE(stPacket.vecBytes.size(), 7u);
        EXPECT_EQ(0xff, stPacket.vecBytes[0]);
        EXPECT_EQ(0xf0, stPacket.vecBytes[1] & 0xf6);
    }
}

TEST(RecordFile, TakesAudioAlone)
{
    const TEST_MEDIA_S stFrom = TEST_ReadMedia(RECORDINGS::Get().Media("tone.m4a"));
    const TEST_MEDIA_S stTo = TEST_ReadMedia(OneFile("tone"), true, true);
    ASSERT_EQ(1u, stTo.vecStreams.size());
    EXPECT_EQ(AV_CODEC_ID_AAC, stTo.vecStreams[0].s32CodecId);
    EXPECT_EQ(44100, stTo.vecStreams[0].s32SampleRate);
    EXPECT_EQ(0, stTo.vecStreams[0].s32DecodeErrors);
    ExpectSameFrames(stFrom, stTo, 1000);
}

TEST(RecordFile, WarnsWhenMp4WouldCountFramesOfARateThatIsNotWhole)
{
    OneFile("ntsc");
    const std::string strErr = RECORDINGS::Get().Of("ntsc").pTool->Err();
    EXPECT_NE(std::string::npos, strErr.find("quarrin: warning: mp4 counts frames, 30 to the second, and 29.970 is not "
                                             "whole; use mkv or ts to keep its time\n"))
        << strErr;
    EXPECT_EQ(std::string::npos, RECORDINGS::Get().Of("file.mp4").pTool->Err().find("warning"));
}

TEST(RecordFile, EncodesBFramesAgainWhenAskedTo)
{
    const std::string strPath = OneFile("transcode");
    ExpectPlayable(strPath, AV_CODEC_ID_H264);
    const TEST_MEDIA_S stFrom = TEST_ReadMedia(RECORDINGS::Get().Media("bframes.mp4"));
    const TEST_MEDIA_S stTo = TEST_ReadMedia(strPath);
    EXPECT_EQ(VideoOf(stFrom).size(), VideoOf(stTo).size());
    int64_t s64Last = -1;
    for (const TEST_PACKET_S &stPacket : VideoOf(stTo))
    {
        EXPECT_LT(s64Last, stPacket.s64Pts); // no reordering
        s64Last = stPacket.s64Pts;
    }
}

TEST(RecordFile, IsPacedByItsTimeStamps)
{
    const std::string strPath = OneFile("file.mkv");
    libquarrin::tagQN_FILE_INFO_S stInfo;
    ASSERT_EQ(0, libquarrin::QN_STORAGE_GetFileInfo(strPath.c_str(), &stInfo));
    EXPECT_GE(stInfo.tEnd - stInfo.tStart, 5); // six seconds of film take six seconds
}

TEST(RecordLive, TakesATransportStreamOverTcp)
{
    const std::string strPath = OneFile("live");
    ExpectPlayable(strPath, AV_CODEC_ID_H264);
    const TEST_MEDIA_S stMedia = TEST_ReadMedia(strPath);
    EXPECT_GT(VideoOf(stMedia).size(), 100u); // 7 s at 25 frames/s, some of which the joining took
    EXPECT_LT(VideoOf(stMedia).size(), 230u);
}

TEST(RecordTest, SplitsAtKeyFramesAndThrowsAShortRestAway)
{
    RECORDING_S &stRecording = RECORDINGS::Get().Of("split");
    ASSERT_EQ(0, stRecording.pTool->Wait()) << stRecording.pTool->Err();
    const std::vector<std::string> vecNames = stRecording.Names();
    ASSERT_EQ(2u, vecNames.size()) << stRecording.pTool->Err();
    EXPECT_EQ(stRecording.Path(0) + "\n" + stRecording.Path(1) + "\n", stRecording.pTool->Out());
    EXPECT_EQ(vecNames[0].substr(TIME_LEN + 4, TIME_LEN), vecNames[1].substr(0, TIME_LEN)) << "no gap between files";
    size_t pictures = 0;
    for (size_t u = 0; u < vecNames.size(); u++)
    {
        EXPECT_EQ(".[door].mkv", vecNames[u].substr(2 * TIME_LEN + 4));
        ExpectPlayable(stRecording.Path(u), AV_CODEC_ID_H264);
        libquarrin::tagQN_FILE_INFO_S stInfo;
        ASSERT_EQ(0, libquarrin::QN_STORAGE_GetFileInfo(stRecording.Path(u).c_str(), &stInfo));
        EXPECT_GE(stInfo.tEnd - stInfo.tStart, 5);
        pictures += VideoOf(TEST_ReadMedia(stRecording.Path(u))).size();
    }
    // Eleven seconds of film, a key frame more or less. On a busy machine pictures come late: they are in the second file
    // then, and the rest is shorter, or there is none.
    const bool bRest = stRecording.pTool->Err().find("was shorter than 5 s and was thrown away\n") != std::string::npos;
    EXPECT_LE(pictures, 300u);
    EXPECT_GE(pictures, bRest ? 150u : 250u);
}

TEST(RecordTest, MakesH265ForMatroska)
{
    ExpectPlayable(OneFile("test265"), AV_CODEC_ID_HEVC);
}

TEST(RecordTest, MakesH264ForMp4)
{
    ExpectPlayable(OneFile("testmp4"), AV_CODEC_ID_H264);
}

class RecordSignal : public ::testing::TestWithParam<std::pair<const char *, int32_t>>
{
};

TEST_P(RecordSignal, FinishesTheFile)
{
    RECORDING_S &stRecording = RECORDINGS::Get().Of(GetParam().first);
    ASSERT_TRUE(stRecording.pTool->WaitForProgress(6)) << stRecording.pTool->Err();
    ASSERT_TRUE(stRecording.pTool->IsRunning());
    stRecording.pTool->Signal(GetParam().second);
    ExpectPlayable(OneFile(GetParam().first), AV_CODEC_ID_H264);
}

INSTANTIATE_TEST_SUITE_P(Each, RecordSignal,
                         ::testing::Values(std::make_pair("int", SIGINT), std::make_pair("term", SIGTERM),
                                           std::make_pair("hup", SIGHUP)),
                         [](const auto &stInfo) { return std::string(stInfo.param.first); });

TEST(RecordStop, SaysThatAShortRecordingWasThrownAway)
{
    RECORDING_S &stRecording = RECORDINGS::Get().Of("early");
    EXPECT_EQ(0, stRecording.pTool->Wait());
    EXPECT_TRUE(stRecording.Names().empty());
    EXPECT_EQ("", stRecording.pTool->Out());
    EXPECT_NE(std::string::npos, stRecording.pTool->Err().find("was shorter than 5 s and was thrown away\n"));
}

TEST(RecordProgress, IsRewrittenInPlaceOnATerminal)
{
    OneFile("terminal");
    const std::string strErr = RECORDINGS::Get().Of("terminal").pTool->Err();
    EXPECT_NE(std::string::npos, strErr.find("\r00:00:01  ")) << strErr;
    EXPECT_NE(std::string::npos, strErr.find(".To.unknown.ts  storage normal")) << strErr;
}

TEST(RecordProgress, IsPlainLinesElsewhere)
{
    OneFile("file.mkv");
    const std::string strErr = RECORDINGS::Get().Of("file.mkv").pTool->Err();
    EXPECT_EQ(std::string::npos, strErr.find('\r'));
    std::map<std::string, int32_t> mapSeconds;
    for (const std::string &strLine : TOOL_Parts(strErr, '\n'))
    {
        EXPECT_NE(std::string::npos, strLine.find(" frames  ")) << strLine;
        EXPECT_NE(std::string::npos, strLine.find(".To.unknown.mkv  storage normal")) << strLine;
        mapSeconds[strLine.substr(0, 8)]++;
    }
    EXPECT_GE(mapSeconds.size(), 5u); // one a second, in real time
}

TEST(RecordStorage, TakesAPathThatAShellWouldTrip)
{
    RECORDINGS &recordings = RECORDINGS::Get();
    OneFile("odd $(touch pwned) 'place");
    EXPECT_FALSE(TEST_Exists("pwned"));
    EXPECT_FALSE(TEST_Exists(recordings.Media("odd")));
}

TEST(RecordStorage, NeedsNoPowersOfTheSuperUser)
{
    ExpectPlayable(OneFile("plain"), AV_CODEC_ID_H264);
}

TEST(RecordStorage, ShowsTheLibrarysChatterOnStandardErrorWhenAskedTo)
{
    OneFile("plain"); // standard output has the result alone
    EXPECT_NE(std::string::npos, RECORDINGS::Get().Of("plain").pTool->Err().find("QN_RecordClosePostProcess"));
    OneFile("file.ts");
    EXPECT_EQ(std::string::npos, RECORDINGS::Get().Of("file.ts").pTool->Err().find("QN_RecordClosePostProcess"));
}

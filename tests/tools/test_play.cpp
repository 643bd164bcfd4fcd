// The play command: what comes out is what was recorded.

#include <cstdint>
#include <cstdio>

extern "C"
{
#include <libavcodec/codec_id.h>
}

#include "recordings.h"

static const RECORDING_S &Finished(const std::string &strName)
{
    RECORDING_S &stRecording = RECORDINGS::Get().Of(strName);
    EXPECT_EQ(0, stRecording.pTool->Wait()) << stRecording.pTool->Err();
    return stRecording;
}

static TEST_MEDIA_S PlayInto(const RECORDING_S &stRecording, const std::string &strOutput)
{
    const TOOL_RESULT_S stResult =
        TOOL_Run({"play", stRecording.Path(), "--storage", stRecording.strStorage, "--output", strOutput});
    EXPECT_EQ(0, stResult.s32Status);
    EXPECT_EQ("", stResult.strErr);
    EXPECT_EQ("", stResult.strOut);
    return TEST_ReadMedia(strOutput, true, true);
}

static void ExpectGood(const TEST_MEDIA_S &stMedia)
{
    ASSERT_TRUE(stMedia.bOpened);
    for (const TEST_MEDIA_STREAM_S &stStream : stMedia.vecStreams)
    {
        EXPECT_GT(stStream.s32Decoded, 0);
        EXPECT_EQ(0, stStream.s32DecodeErrors);
    }
}

TEST(Play, GivesEveryFrameFromEveryContainerIntoEveryOther)
{
    const std::string strFolder = RECORDINGS::Get().NewFolder();
    for (const char *pszFrom : {"file.mkv", "file.ts", "file.mp4", "file.mov", "file265.mkv", "file265.ts"})
    {
        const RECORDING_S &stRecording = Finished(pszFrom);
        const TEST_MEDIA_S stFrom = TEST_ReadMedia(stRecording.Path());
        for (const char *pszTo : {".mkv", ".ts", ".mp4", ".mov"})
        {
            SCOPED_TRACE(std::string(pszFrom) + " to " + pszTo);
            const TEST_MEDIA_S stTo = PlayInto(stRecording, strFolder + "/" + pszFrom + pszTo);
            ExpectGood(stTo);
            ExpectSameFrames(stFrom, stTo, 2000);
        }
    }
}

TEST(Play, GivesMatroskaToAPipe)
{
    for (const char *pszFrom : {"file.mkv", "file.ts", "file265.ts", "file.mp4"})
    {
        SCOPED_TRACE(pszFrom);
        const RECORDING_S &stRecording = Finished(pszFrom);
        TOOL_START_S stPipe;
        const std::string strOutput = RECORDINGS::Get().NewFolder() + "/piped";
        stPipe.strProgram = "sh";
        stPipe.vecArgs = {"-c",
                          "\"$1\" play \"$2\" --storage \"$3\" --output - | cat >\"$4\"",
                          "sh",
                          QUARRIN_TOOL,
                          stRecording.Path(),
                          stRecording.strStorage,
                          strOutput};
        const TOOL_RESULT_S stResult = TOOL_Run(stPipe);
        EXPECT_EQ("", stResult.strErr);
        const TEST_MEDIA_S stMedia = TEST_ReadMedia(strOutput, true, true);
        EXPECT_NE(std::string::npos, stMedia.strFormat.find("matroska"));
        ExpectGood(stMedia);
        ExpectSameFrames(TEST_ReadMedia(stRecording.Path()), stMedia, 2000);
    }
}

TEST(Play, TakesABareNameOfTheStorage)
{
    const RECORDING_S &stRecording = Finished("file.mkv");
    const TOOL_RESULT_S stResult =
        TOOL_Run({"play", stRecording.Names()[0], "--storage", stRecording.strStorage, "--frames"});
    EXPECT_EQ(0, stResult.s32Status);
    EXPECT_FALSE(stResult.strOut.empty());
}

TEST(Play, PrintsALinePerFrame)
{
    const RECORDING_S &stRecording = Finished("file.ts");
    const TEST_MEDIA_S stMedia = TEST_ReadMedia(stRecording.Path());
    const TOOL_RESULT_S stResult =
        TOOL_Run({"play", stRecording.Path(), "--storage", stRecording.strStorage, "--frames"});
    const std::vector<std::string> vecLines = TOOL_Parts(stResult.strOut, '\n');
    ASSERT_EQ(stMedia.vecPackets.size(), vecLines.size());
    for (size_t u = 0; u < vecLines.size(); u++)
    {
        const TEST_PACKET_S &stPacket = stMedia.vecPackets[u];
        char acLine[256];
        snprintf(acLine, sizeof(acLine), "frame=%zu type=%s key=%d pts=%lld time=%.6f size=%d", u,
                 stPacket.s32Stream == stMedia.VideoStream() ? "video" : "audio", stPacket.bKey ? 1 : 0,
                 static_cast<long long>(stPacket.s64Pts), static_cast<double>(stPacket.s64Pts) / 90000.0,
                 stPacket.s32Size);
        EXPECT_EQ(acLine, vecLines[u]);
    }
}

TEST(Play, BeginsAtTheKeyFrameAtOrBeforeTheTime)
{
    for (const char *pszFrom : {"file.mkv", "file.mp4", "file.ts"})
    {
        SCOPED_TRACE(pszFrom);
        const RECORDING_S &stRecording = Finished(pszFrom);
        const std::string strOutput = RECORDINGS::Get().NewFolder() + "/sought.mkv";
        EXPECT_EQ(0, TOOL_Run({"play", stRecording.Path(), "--storage", stRecording.strStorage, "--seek", "3",
                               "--output", strOutput})
                         .s32Status);
        const TEST_MEDIA_S stMedia = TEST_ReadMedia(strOutput, true, true);
        ExpectGood(stMedia);
        ASSERT_FALSE(VideoOf(stMedia).empty());
        EXPECT_TRUE(VideoOf(stMedia).front().bKey);
        EXPECT_NEAR(0.0, static_cast<double>(VideoOf(stMedia).front().s64Pts), 50.0);
        EXPECT_GE(VideoOf(stMedia).size(), 75u); // three of six seconds, or the second before as well
        EXPECT_LE(VideoOf(stMedia).size(), 101u);
    }
}

TEST(Play, PlaysAudioAlone)
{
    const RECORDING_S &stRecording = Finished("tone");
    const TEST_MEDIA_S stMedia = PlayInto(stRecording, RECORDINGS::Get().NewFolder() + "/tone.mp4");
    ExpectGood(stMedia);
    EXPECT_EQ(TEST_ReadMedia(stRecording.Path()).vecPackets.size(), stMedia.vecPackets.size());
}

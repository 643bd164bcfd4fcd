// player on a plain folder.

#include <csignal>

extern "C"
{
#include <libavformat/avformat.h>
}

#include <sys/stat.h>
#include <unistd.h>

#include "examples_test.h"

using namespace libquarrin;

namespace
{

// The folder has two recordings, of a minute each in their names: a clip, 6 s of it, and an old one without content.
class Player : public ExampleTest
{
protected:
    void SetUp() override
    {
        ExampleTest::SetUp();
        m_strFolder = NewFolder("card");
        m_strRec = NewFolder("card/rec");
        TEST_Touch(m_strRec + "/" + EMPTY, "no media");
    }

    // Puts a clip among the recordings; its name there.
    std::string AddClip(QN_CODEC_TYPE_E enCodec, QN_FILE_FMT_E enFormat) const
    {
        const std::string strPath = MakeClip(enCodec, enFormat);
        const std::string strName = strPath.substr(strPath.rfind('/') + 1);
        EXPECT_EQ(0, rename(strPath.c_str(), (m_strRec + "/" + strName).c_str()));
        return strName;
    }

    // Puts a transport stream among the recordings whose clock begins in the middle of a second, as those of other
    // recorders do; its name.
    std::string AddLateClip() const
    {
        const std::vector<TEST_FRAME_S> &vecFrames = TEST_EncodeH264(64, 64, CLIP_FPS);
        const std::string strName = "2024-03-01-08-20-00.To.2024-03-01-08-20-06.ts";
        AVFormatContext *pContext = nullptr;
        EXPECT_GE(avformat_alloc_output_context2(&pContext, nullptr, "mpegts", nullptr), 0);
        AVStream *pStream = avformat_new_stream(pContext, nullptr);
        pStream->codecpar->codec_type = AVMEDIA_TYPE_VIDEO;
        pStream->codecpar->codec_id = AV_CODEC_ID_H264;
        EXPECT_GE(avio_open(&pContext->pb, (m_strRec + "/" + strName).c_str(), AVIO_FLAG_WRITE), 0);
        EXPECT_GE(avformat_write_header(pContext, nullptr), 0); // makes ticks of 1/90000 s
        AVPacket *pPacket = av_packet_alloc();
        for (uint32_t u = 0; u < CLIP_FRAMES; u++)
        {
            const TEST_FRAME_S &stFrame = vecFrames[u % vecFrames.size()];
            pPacket->data = const_cast<uint8_t *>(stFrame.vecData.data());
            pPacket->size = static_cast<int>(stFrame.vecData.size());
            pPacket->pts = 90000 * 20 + 45000 + int64_t{u} * 90000 / CLIP_FPS;
            pPacket->dts = pPacket->pts;
            pPacket->flags = stFrame.bKey ? AV_PKT_FLAG_KEY : 0;
            EXPECT_GE(av_write_frame(pContext, pPacket), 0);
        }
        EXPECT_GE(av_write_trailer(pContext), 0);
        av_packet_free(&pPacket);
        avio_closep(&pContext->pb);
        avformat_free_context(pContext);
        return strName;
    }

    TOOL_RESULT_S Play(const std::vector<std::string> &vecArgs) const
    {
        std::vector<std::string> vecAll = {"/dev/null", m_strFolder};
        vecAll.insert(vecAll.end(), vecArgs.begin(), vecArgs.end());
        return Run(EXAMPLE_PLAYER, vecAll);
    }

    void ExpectFails(const std::vector<std::string> &vecArgs, int32_t s32Status, const std::string &strSentence) const
    {
        const TOOL_RESULT_S stResult = Play(vecArgs);
        EXPECT_EQ(s32Status, stResult.s32Status) << strSentence;
        EXPECT_NE(std::string::npos, stResult.strErr.find(strSentence)) << strSentence << ": " << stResult.strErr;
        EXPECT_EQ("", stResult.strOut);
    }

    // Frames of an elementary stream that decode; -1 when one does not.
    int32_t Decoded(const std::string &strStream, bool bH265) const
    {
        const std::string strPath = TEST_Touch(m_dir.strPath + (bH265 ? "/out.h265" : "/out.h264"), strStream);
        const TEST_MEDIA_S stMedia = TEST_ReadMedia(strPath, true, true);
        if (!stMedia.bOpened || stMedia.vecStreams.size() != 1 || stMedia.vecStreams[0].s32DecodeErrors != 0 ||
            stMedia.vecStreams[0].s32Decoded != static_cast<int32_t>(stMedia.vecPackets.size()))
        {
            return -1;
        }
        return stMedia.vecStreams[0].s32Decoded;
    }

    static constexpr const char *EMPTY = "2024-03-01-08-13-00.To.2024-03-01-08-14-00.mkv";
    std::string m_strFolder;
    std::string m_strRec;
};

} // namespace

TEST_F(Player, ListsTheRecordingsOfASpan)
{
    const std::string strClip = AddClip(QN_CODEC_H264, QN_FILE_FMT_E_TS);
    TEST_Touch(m_strRec + "/2024-03-01-09-00-00.To.unknown.ts");
    TOOL_RESULT_S stResult = Play({"list"});
    EXPECT_EQ(0, stResult.s32Status) << stResult.strErr;
    EXPECT_EQ(0u, stResult.strOut.find("2024-03-01-08-13-00     60 s       8B  " + std::string(EMPTY) + "\n"))
        << stResult.strOut;
    EXPECT_NE(std::string::npos, stResult.strOut.find(strClip + "\n"));
    EXPECT_NE(std::string::npos, stResult.strOut.find("2024-03-01-09-00-00        ?       0B"));
    EXPECT_EQ(3, CountOf(stResult.strOut, "\n"));
    stResult = Play({"list", "2024-03-01-08-14-01", "2024-03-01-08-15-00"});
    EXPECT_EQ(0, stResult.s32Status);
    EXPECT_NE(std::string::npos, stResult.strOut.find(strClip));
    EXPECT_EQ(1, CountOf(stResult.strOut, "\n"));
    EXPECT_EQ(2, CountOf(Play({"list", "2024-03-01-08-14-01"}).strOut, "\n"));
    ExpectFails({"list", "2024-03-01-08-14-01", "2024-03-01-08-14-59"}, 1, "in that span of time");
}

TEST_F(Player, PlaysEveryFrameOfEveryContainer)
{
    for (const QN_CODEC_TYPE_E enCodec : {QN_CODEC_H264, QN_CODEC_H265})
    {
        for (const QN_FILE_FMT_E enFormat : {QN_FILE_FMT_E_MKV, QN_FILE_FMT_E_TS, QN_FILE_FMT_E_MP4, QN_FILE_FMT_E_MOV})
        {
            const std::string strName = AddClip(enCodec, enFormat);
            SCOPED_TRACE(strName);
            const TOOL_RESULT_S stResult = Play({"play", strName, "--fast"});
            EXPECT_EQ(0, stResult.s32Status) << stResult.strErr;
            EXPECT_NE(std::string::npos, stResult.strErr.find("64x64, 25 frames/s, no audio")) << stResult.strErr;
            EXPECT_NE(std::string::npos, stResult.strErr.find("150 frames played")) << stResult.strErr;
            EXPECT_EQ(CLIP_FRAMES, Decoded(stResult.strOut, enCodec == QN_CODEC_H265));
        }
    }
}

TEST_F(Player, PlaysAtItsOwnPace)
{
    const std::string strName = AddClip(QN_CODEC_H264, QN_FILE_FMT_E_MKV);
    const auto begin = std::chrono::steady_clock::now();
    const TOOL_RESULT_S stResult = Play({"play", strName, "--seek", "4"});
    EXPECT_GE(std::chrono::steady_clock::now() - begin,
              std::chrono::milliseconds(1900)); // the last frame is due at 1.96 s
    EXPECT_EQ(0, stResult.s32Status);
    EXPECT_EQ(2 * CLIP_FPS, Decoded(stResult.strOut, false));
}

TEST_F(Player, SeeksInSecondsFromTheFirstPicture)
{
    for (const std::string &strName :
         {AddClip(QN_CODEC_H264, QN_FILE_FMT_E_MKV), AddClip(QN_CODEC_H264, QN_FILE_FMT_E_TS),
          AddClip(QN_CODEC_H264, QN_FILE_FMT_E_MP4), AddLateClip()})
    {
        SCOPED_TRACE(strName);
        const TOOL_RESULT_S stResult = Play({"play", strName, "--fast", "--seek", "3"});
        EXPECT_EQ(0, stResult.s32Status) << stResult.strErr;
        // A key frame every fifth of a second, and a clock of the transport stream that begins between two seconds.
        EXPECT_GE(Decoded(stResult.strOut, false), 75);
        EXPECT_LE(Decoded(stResult.strOut, false), 75 + CLIP_FPS);
    }
}

TEST_F(Player, SkipsToKeyFrames)
{
    const std::string strName = AddClip(QN_CODEC_H264, QN_FILE_FMT_E_TS);
    const TOOL_RESULT_S stResult = Play({"play", strName, "--fast", "--keys"});
    EXPECT_EQ(0, stResult.s32Status);
    EXPECT_EQ(CLIP_FRAMES / 5, Decoded(stResult.strOut, false));
}

TEST_F(Player, WritesIntoANewFileOnly)
{
    const std::string strName = AddClip(QN_CODEC_H264, QN_FILE_FMT_E_TS);
    const std::string strOutput = m_dir.strPath + "/out";
    const TOOL_RESULT_S stResult = Play({"play", strName, "--fast", "--output", strOutput});
    EXPECT_EQ(0, stResult.s32Status);
    EXPECT_EQ("", stResult.strOut);
    EXPECT_EQ(CLIP_FRAMES, Decoded(TEST_ReadFile(strOutput), false));
    const std::string strBefore = TEST_ReadFile(m_strRec + "/" + strName);
    ExpectFails({"play", strName, "--output", m_strRec + "/" + strName}, 1, "File exists");
    EXPECT_EQ(strBefore, TEST_ReadFile(m_strRec + "/" + strName));
    ExpectFails({"play", strName, "--fast", "--output", "/dev/full"}, 1, "File exists");
}

TEST_F(Player, SaysWhatIsWrong)
{
    const std::string strName = AddClip(QN_CODEC_H264, QN_FILE_FMT_E_TS);
    ExpectFails({"play", "2024-03-01-08-15-00.ts"}, 1, "no recording 2024-03-01-08-15-00.ts");
    ExpectFails({"play", EMPTY}, 1, "cannot be played");
    ExpectFails({"play", strName, "--seek", "100"}, 1, "no key frame from second 100 on");
    ExpectFails({"list", "--volume", "1"}, 1, "volume 1 is not in use");
    const std::vector<std::vector<std::string>> vecUsages = {{},
                                                             {"play"},
                                                             {"play", strName, "more"},
                                                             {"play", "../" + strName},
                                                             {"play", strName, "--seek", "x"},
                                                             {"play", strName, "--seek"},
                                                             {"list", "yesterday"},
                                                             {"list", "--volume", "3"},
                                                             {"rewind"}};
    for (const std::vector<std::string> &vecArgs : vecUsages)
    {
        ExpectFails(vecArgs, 2, "usage: player");
    }
    m_strFolder = NewFolder("other");
    ExpectFails({"list"}, 1, "no recordings in " + m_strFolder + "/rec");
    m_strFolder += "/none";
    ExpectFails({"list"}, 1, "there is no folder");
    EXPECT_NE(std::string::npos,
              Run(EXAMPLE_PLAYER, {"/dev/quarrin-none", "/tmp/x", "list"}).strErr.find("no card in"));
}

TEST_F(Player, EndsWhenItsListenerGoesAndWhenASignalComes)
{
    const std::string strName = AddClip(QN_CODEC_H264, QN_FILE_FMT_E_TS);
    // The player starts when its listener has gone.
    const TOOL_RESULT_S stPiped = Run("sh", {"-c",
                                             "trap '' PIPE; { while echo; do :; done 2>/dev/null;"
                                             " \"$1\" /dev/null \"$2\" play \"$3\" --fast; } | true",
                                             "sh", EXAMPLE_PLAYER, m_strFolder, strName});
    EXPECT_NE(std::string::npos, stPiped.strErr.find("the output takes no more: Broken pipe")) << stPiped.strErr;
    const auto pPlayer = Start(EXAMPLE_PLAYER, {"/dev/null", m_strFolder, "play", strName});
    EXPECT_TRUE(TEST_WaitFor([&] { return pPlayer->Out().size() > 100; }, EXAMPLE_WAIT_MS));
    pPlayer->Signal(SIGINT);
    EXPECT_EQ(0, pPlayer->Wait());
    EXPECT_EQ(std::string::npos, pPlayer->Err().find("150 frames played"));
}

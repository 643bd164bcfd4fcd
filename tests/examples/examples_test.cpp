#include "examples_test.h"

#include <cstdlib>

#include <sys/stat.h>

extern "C"
{
#include <libavutil/log.h>
}

using namespace libquarrin;

void ExampleTest::SetUp()
{
    av_log_set_level(AV_LOG_QUIET);
}

std::string ExampleTest::MakeClip(QN_CODEC_TYPE_E enCodec, QN_FILE_FMT_E enFormat) const
{
    const std::vector<TEST_FRAME_S> &vecFrames =
        enCodec == QN_CODEC_H265 ? TEST_EncodeH265(64, 64, CLIP_FPS) : TEST_EncodeH264(64, 64, CLIP_FPS);
    const STDOUT_CAPTURE capture; // the library's words
    tagQN_RECORD_PARAM_S stParam = {};
    stParam.enFormat = enFormat;
    stParam.stVideo = TEST_VideoParam(enCodec, vecFrames, 64, 64, CLIP_FPS);
    const std::string strPath =
        m_dir.strPath + "/2024-03-01-08-15-00.To.2024-03-01-08-15-06." + QN_STORAGE_FmtType2FileExt(enFormat);
    void *pWriter = FFMUXER_WriteOpen(&stParam, strPath.c_str());
    EXPECT_NE(nullptr, pWriter);
    for (uint32_t u = 0; u < CLIP_FRAMES; u++)
    {
        const TEST_FRAME_S &stFrame = vecFrames[u % vecFrames.size()];
        FFMUXER_WriteFrame(pWriter, stFrame.vecData.data(), static_cast<uint32_t>(stFrame.vecData.size()),
                           1000 + uint64_t{u} * 1000 / CLIP_FPS, stFrame.bKey, true);
    }
    EXPECT_EQ(0, FFMUXER_WriteClose(pWriter));
    return strPath;
}

std::string ExampleTest::NewFolder(const std::string &strName) const
{
    const std::string strPath = m_dir.strPath + "/" + strName;
    EXPECT_EQ(0, mkdir(strPath.c_str(), 0755));
    return strPath;
}

static TOOL_START_S StartOf(const std::string &strProgram, const std::vector<std::string> &vecArgs)
{
    TOOL_START_S stStart;
    stStart.strProgram = strProgram;
    stStart.vecArgs = vecArgs;
    return stStart;
}

std::unique_ptr<TOOL_PROCESS> ExampleTest::Start(const std::string &strProgram, const std::vector<std::string> &vecArgs)
{
    return std::make_unique<TOOL_PROCESS>(StartOf(strProgram, vecArgs));
}

TOOL_RESULT_S ExampleTest::Run(const std::string &strProgram, const std::vector<std::string> &vecArgs)
{
    return TOOL_Run(StartOf(strProgram, vecArgs));
}

int32_t CountOf(const std::string &strText, const std::string &strPart)
{
    int32_t s32Count = 0;
    for (size_t uAt = strText.find(strPart); uAt != std::string::npos; uAt = strText.find(strPart, uAt + 1))
    {
        s32Count++;
    }
    return s32Count;
}

bool ExampleTest::WaitForLine(TOOL_PROCESS &process, const std::string &strLine, int32_t s32Times)
{
    const auto fnSaid = [&]
    {
        return CountOf("\n" + process.Out(), "\n" + strLine + "\n") >= s32Times;
    };
    const bool bDone = TEST_WaitFor([&] { return fnSaid() || !process.IsRunning(); }, EXAMPLE_WAIT_MS) && fnSaid();
    EXPECT_TRUE(bDone) << "not said: " << strLine << "\n" << process.Out() << process.Err();
    return bDone;
}

std::vector<std::string> ExampleTest::Finished(const std::string &strFolder, const std::string &strTag)
{
    std::vector<std::string> vecNames;
    for (const std::string &strName : TEST_List(strFolder))
    {
        if (strName.find(".To.unknown.") == std::string::npos && strName.find(strTag) != std::string::npos)
        {
            vecNames.push_back(strName);
        }
    }
    return vecNames;
}

int32_t ExampleTest::ExpectWhole(const std::string &strPath, bool bSomeLost)
{
    SCOPED_TRACE(strPath);
    const TEST_MEDIA_S stMedia = TEST_ReadMedia(strPath, true, true);
    const int32_t s32Video = stMedia.VideoStream();
    EXPECT_TRUE(stMedia.bOpened && s32Video >= 0);
    if (!stMedia.bOpened || s32Video < 0)
    {
        return 0;
    }
    const TEST_MEDIA_STREAM_S &stStream = stMedia.vecStreams[static_cast<size_t>(s32Video)];
    const std::vector<TEST_PACKET_S> vecPackets = stMedia.Of(s32Video);
    EXPECT_FALSE(vecPackets.empty());
    EXPECT_TRUE(!vecPackets.empty() && vecPackets[0].bKey);
    EXPECT_EQ(static_cast<int32_t>(vecPackets.size()), stStream.s32Decoded);
    EXPECT_EQ(0, stStream.s32DecodeErrors);
    const double dTick = static_cast<double>(stStream.s32TimeBaseNum) / stStream.s32TimeBaseDen;
    for (size_t u = 1; u < vecPackets.size(); u++)
    {
        const double dStep = static_cast<double>(vecPackets[u].s64Pts - vecPackets[u - 1].s64Pts) * dTick;
        EXPECT_GE(dStep, 1.0 / CLIP_FPS - 0.0011) << "behind frame " << u;
        EXPECT_TRUE(bSomeLost || dStep <= 1.0 / CLIP_FPS + 0.0011) << dStep << " s behind frame " << u;
    }
    return static_cast<int32_t>(vecPackets.size());
}

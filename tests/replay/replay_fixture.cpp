#include "replay_fixture.h"

extern "C"
{
#include <libavutil/log.h>
}

using namespace libquarrin;

void TEST_WriteClip(const std::string &strPath, QN_FILE_FMT_E enFormat, int32_t s32Frames)
{
    const std::vector<TEST_FRAME_S> &vecVideo = TEST_EncodeH264(64, 64, 25, 5, s32Frames);
    const std::vector<TEST_FRAME_S> &vecAudio = TEST_EncodeAac();
    tagQN_RECORD_PARAM_S stParam = {};
    stParam.enFormat = enFormat;
    stParam.stVideo = TEST_VideoParam(QN_CODEC_H264, vecVideo);
    stParam.stAudio = TEST_AudioParam();
    void *pWriter = FFMUXER_WriteOpen(&stParam, strPath.c_str());
    ASSERT_NE(nullptr, pWriter);
    uint64_t u64Pts = 1000;
    for (size_t i = 0; i < vecVideo.size(); ++i)
    {
        const TEST_FRAME_S &stFrame = vecVideo[i];
        FFMUXER_WriteFrame(pWriter, stFrame.vecData.data(), static_cast<uint32_t>(stFrame.vecData.size()), u64Pts,
                           stFrame.bKey, true);
        if (i < vecAudio.size())
        {
            FFMUXER_WriteFrame(pWriter, vecAudio[i].vecData.data(), static_cast<uint32_t>(vecAudio[i].vecData.size()),
                               u64Pts, true, false);
        }
        u64Pts += 40;
    }
    EXPECT_EQ(0, FFMUXER_WriteClose(pWriter));
}

void REPLAY_TEST::SetUp()
{
    CARD_TEST::SetUp();
    av_log_set_level(AV_LOG_QUIET);
    InitMounted();
}

std::string REPLAY_TEST::Clip(int32_t s32Volume, const std::string &strName)
{
    const std::string strPath = Folder(s32Volume) + "/" + strName;
    TEST_WriteClip(strPath);
    return strPath;
}

tagQN_FILE_INFO_S REPLAY_TEST::Info(const std::string &strPath)
{
    tagQN_FILE_INFO_S stInfo;
    EXPECT_EQ(0, QN_STORAGE_GetFileInfo(strPath.c_str(), &stInfo));
    return stInfo;
}

tagQN_REPLAY_HANDLER_S *REPLAY_TEST::Open(const std::string &strPath)
{
    tagQN_REPLAY_HANDLER_S *pReplay = nullptr;
    EXPECT_EQ(0u, QN_ReplayOpenByFilePath(m_pHandle, strPath, m_stReplayParam, pReplay));
    return pReplay;
}

static int32_t CountLogs(const std::string &strFunc)
{
    int32_t s32Count = 0;
    for (const FAKE_LOG_S &stLog : FAKE_PLATFORM_Logs())
    {
        s32Count += stLog.strPrefix.rfind(strFunc + "[", 0) == 0 ? 1 : 0;
    }
    return s32Count;
}

void REPLAY_TEST::ExpectRefused(uint32_t u32Result, const std::string &strFunc, const std::string &strText,
                                const std::function<uint32_t(tagQN_REPLAY_HANDLER_S *&)> &fn)
{
    const std::list<tagQN_REPLAY_HANDLER_S *> lstBefore = m_pHandle->lstReplay;
    const int32_t s32Before = CountLogs(strFunc);
    tagQN_REPLAY_HANDLER_S *pReplay = nullptr;
    uint32_t u32Got = 99;
    const std::string strPrinted = TEST_Printed([&] { u32Got = fn(pReplay); });
    EXPECT_EQ(u32Result, u32Got) << strText;
    EXPECT_EQ(nullptr, pReplay) << strText;
    EXPECT_EQ(lstBefore, m_pHandle->lstReplay) << strText;
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(3, strFunc, strText)) << strText;
    EXPECT_EQ(s32Before + 1, CountLogs(strFunc)) << strText;
    EXPECT_TRUE(TEST_HasLine(strPrinted, "\\[ERROR\\]\\[" + strFunc + ":\\d+\\] " + TEST_Plain(strText))) << strPrinted;
}

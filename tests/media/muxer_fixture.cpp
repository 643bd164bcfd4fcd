#include "muxer_fixture.h"

#include <algorithm>
#include <unistd.h>

extern "C"
{
#include <libavutil/log.h>
}

using namespace libquarrin;

void MUXER_TEST::SetUp()
{
    FAKE_PLATFORM_Reset();
    av_log_set_level(AV_LOG_QUIET);
}

void MUXER_TEST::TearDown()
{
    if (m_pWriter != nullptr)
    {
        FFMUXER_WriteClose(m_pWriter);
    }
    av_log_set_level(AV_LOG_INFO);
}

std::string MUXER_TEST::Path(const std::string &strName) const
{
    return m_dir.strPath + "/" + strName;
}

tagQN_RECORD_PARAM_S MUXER_TEST::H264(int32_t s32Format)
{
    tagQN_RECORD_PARAM_S stParam{};
    stParam.enFormat = static_cast<QN_FILE_FMT_E>(s32Format);
    stParam.stVideo = TEST_VideoParam(QN_CODEC_H264, TEST_EncodeH264());
    return stParam;
}

tagQN_RECORD_PARAM_S MUXER_TEST::H265(int32_t s32Format)
{
    tagQN_RECORD_PARAM_S stParam{};
    stParam.enFormat = static_cast<QN_FILE_FMT_E>(s32Format);
    stParam.stVideo = TEST_VideoParam(QN_CODEC_H265, TEST_EncodeH265());
    return stParam;
}

tagQN_RECORD_PARAM_S MUXER_TEST::Aac(int32_t s32Format)
{
    tagQN_RECORD_PARAM_S stParam{};
    stParam.enFormat = static_cast<QN_FILE_FMT_E>(s32Format);
    stParam.stAudio = TEST_AudioParam();
    return stParam;
}

tagQN_RECORD_PARAM_S MUXER_TEST::Both(int32_t s32Format)
{
    tagQN_RECORD_PARAM_S stParam = H264(s32Format);
    stParam.stAudio = TEST_AudioParam();
    return stParam;
}

void MUXER_TEST::Open(tagQN_RECORD_PARAM_S stParam)
{
    m_pWriter = FFMUXER_WriteOpen(&stParam, Path().c_str());
    ASSERT_NE(nullptr, m_pWriter);
}

void MUXER_TEST::ExpectRefused(tagQN_RECORD_PARAM_S stParam, const std::vector<std::string> &vecTexts,
                               const std::string &strFunc)
{
    TEST_Touch(Path(), "an older file");
    const std::vector<std::string> vecBefore = TEST_OpenFiles();
    STDOUT_CAPTURE capture;
    EXPECT_EQ(nullptr, FFMUXER_WriteOpen(&stParam, Path().c_str()));
    const std::string strPrinted = capture.Text();
    EXPECT_FALSE(TEST_Exists(Path()));

    const std::vector<FAKE_LOG_S> vecLogs = FAKE_PLATFORM_Logs();
    ASSERT_EQ(vecTexts.size(), vecLogs.size());
    std::string strExpected;
    for (size_t i = 0; i < vecTexts.size(); ++i)
    {
        // All but the last come from a step below the open.
        const std::string strOf = i + 1 < vecTexts.size() ? strFunc : "FFMUXER_WriteOpen";
        EXPECT_EQ(3, vecLogs[i].s32Level);
        EXPECT_EQ(vecTexts[i], vecLogs[i].strText);
        EXPECT_EQ(0u, vecLogs[i].strPrefix.find(strOf + "["));
        const size_t u32Open = vecLogs[i].strPrefix.find('[');
        const size_t u32Shut = vecLogs[i].strPrefix.find(']');
        const std::string strLine = vecLogs[i].strPrefix.substr(u32Open + 1, u32Shut - u32Open - 1);
        strExpected += "[ERROR][" + strOf + ":" + strLine + "] " + vecTexts[i] + "\n";
    }
    EXPECT_EQ(strExpected, strPrinted);
    std::vector<std::string> vecAfter = TEST_OpenFiles();
    EXPECT_EQ(0, std::count(vecAfter.begin(), vecAfter.end(), Path()));
    EXPECT_EQ(vecBefore.size() + 2, vecAfter.size()); // the capture has two
}

void MUXER_TEST::WriteOne(const TEST_FRAME_S &stFrame, bool bVideo, uint64_t u64Pts)
{
    EXPECT_EQ(0, FFMUXER_WriteFrame(m_pWriter, stFrame.vecData.data(), static_cast<uint32_t>(stFrame.vecData.size()),
                                    u64Pts, stFrame.bKey, bVideo));
}

void MUXER_TEST::Write(const std::vector<TEST_FRAME_S> &vecFrames, bool bVideo, uint64_t u64First, uint64_t u64Step)
{
    ASSERT_NE(nullptr, m_pWriter);
    uint64_t u64Pts = u64First;
    for (const TEST_FRAME_S &stFrame : vecFrames)
    {
        WriteOne(stFrame, bVideo, u64Pts);
        u64Pts += u64Step;
    }
}

void MUXER_TEST::WriteAt(const std::vector<TEST_FRAME_S> &vecFrames, bool bVideo, const std::vector<uint64_t> &vecPts)
{
    ASSERT_NE(nullptr, m_pWriter);
    for (size_t i = 0; i < vecPts.size(); ++i)
    {
        WriteOne(vecFrames[i], bVideo, vecPts[i]);
    }
}

TEST_MEDIA_S MUXER_TEST::Finish(bool bProbe, bool bDecode)
{
    EXPECT_EQ(0, FFMUXER_WriteClose(m_pWriter));
    m_pWriter = nullptr;
    return TEST_ReadMedia(Path(), bProbe, bDecode);
}

std::vector<int64_t> TEST_Stamps(const TEST_MEDIA_S &stMedia, int32_t s32Stream)
{
    std::vector<int64_t> vecStamps;
    for (const TEST_PACKET_S &stPacket : stMedia.Of(s32Stream))
    {
        vecStamps.push_back(stPacket.s64Pts);
    }
    return vecStamps;
}

std::vector<std::string> TEST_OpenFiles()
{
    std::vector<std::string> vecPaths;
    for (const std::string &strName : TEST_List("/proc/self/fd"))
    {
        char szTarget[4096];
        const ssize_t s32Len = readlink(("/proc/self/fd/" + strName).c_str(), szTarget, sizeof(szTarget));
        if (s32Len > 0)
        {
            vecPaths.emplace_back(szTarget, static_cast<size_t>(s32Len));
        }
    }
    return vecPaths;
}

bool TEST_Holds(const std::vector<uint8_t> &vecBytes, const std::vector<uint8_t> &vecPart)
{
    return std::search(vecBytes.begin(), vecBytes.end(), vecPart.begin(), vecPart.end()) != vecBytes.end();
}

std::vector<uint8_t> TEST_Payload(const tagQN_BYTES &stSet)
{
    return std::vector<uint8_t>(stSet.pu8Data + 4, stSet.pu8Data + stSet.u32Len);
}

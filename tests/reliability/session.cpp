#include "session.h"

extern "C"
{
#include <libavutil/log.h>
}

#include "virtual_clock.h"

using namespace libquarrin;

static constexpr uint32_t FRAME_MS = 40;

static const std::vector<TEST_FRAME_S> &Pictures()
{
    return TEST_EncodeH264(64, 64, 25, 5, 75);
}

void RELIABILITY_TEST::SetUp()
{
    CARD_TEST::SetUp();
    av_log_set_level(AV_LOG_QUIET);
    (void)Pictures(); // encoders have threads, which a test that counts threads would see
    m_pOut = new STDOUT_CAPTURE();
}

void RELIABILITY_TEST::TearDown()
{
    CARD_TEST::TearDown();
    delete m_pOut;
    CLOCK_Release();
}

FED_S RELIABILITY_TEST::Make(QN_FILE_FMT_E enFormat, uint32_t u32Split)
{
    tagQN_RECORD_PARAM_S stParam = {};
    stParam.enFormat = enFormat;
    stParam.stVideo = TEST_VideoParam(QN_CODEC_H264, Pictures());
    stParam.bAutoSplit = u32Split != 0 ? 1 : 0;
    stParam.u32SplitSeconds = u32Split;
    FED_S stFed;
    EXPECT_EQ(0u, QN_RecordInit(m_pHandle, &stParam, stFed.pSession));
    return stFed;
}

void RELIABILITY_TEST::Write(FED_S &stFed)
{
    const TEST_FRAME_S &stFrame = Pictures()[stFed.u32Pictures % Pictures().size()];
    std::vector<uint8_t> vecData = stFrame.vecData;
    EXPECT_EQ(0u, QN_RecordWriteFrame(stFed.pSession, vecData.data(), static_cast<uint32_t>(vecData.size()),
                                      1000 + uint64_t{stFed.u32Pictures} * FRAME_MS, stFrame.bKey ? 1 : 0, 1));
    stFed.u32Pictures++;
}

void RELIABILITY_TEST::WriteOnClock(FED_S &stFed, uint32_t u32Count)
{
    for (uint32_t i = 0; i < u32Count; i++)
    {
        Write(stFed);
        CLOCK_Step(FRAME_MS);
    }
}

void RELIABILITY_TEST::Stop(FED_S &stFed)
{
    EXPECT_EQ(0u, QN_RecordStop(stFed.pSession));
    EXPECT_EQ(0u, QN_RecordDestroy(stFed.pSession));
}

uint32_t RELIABILITY_TEST::Found() const
{
    uint32_t u32Found = 0;
    for (const std::string &strName : TEST_List(Folder(0)))
    {
        const TEST_MEDIA_S stMedia = TEST_ReadMedia(Folder(0) + "/" + strName, false);
        EXPECT_TRUE(stMedia.bOpened) << strName;
        u32Found += static_cast<uint32_t>(stMedia.vecPackets.size());
    }
    return u32Found;
}

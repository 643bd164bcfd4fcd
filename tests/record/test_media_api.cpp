// The tables of media back ends, and a session on one that writes nothing.

#include <cstdlib>

#include "support/card.h"

using namespace libquarrin;

TEST(MediaApi, TheFFmpegTableIsFull)
{
    const tagQN_MEDIA_API_S &st = qn_media_api_ffmpeg;
    EXPECT_EQ(&FFMUXER_WriteOpen, st.pfnWriteOpen);
    EXPECT_EQ(&FFMUXER_WriteFrame, st.pfnWriteFrame);
    EXPECT_EQ(&FFMUXER_WriteClose, st.pfnWriteClose);
    EXPECT_EQ(&FFMUXER_ReadOpen, st.pfnReadOpen);
    EXPECT_EQ(&FFMUXER_ReadMetadata, st.pfnReadMetadata);
    EXPECT_EQ(&FFMUXER_ReadGetFrame, st.pfnReadGetFrame);
    EXPECT_EQ(&FFMUXER_ReadReleaseFrame, st.pfnReadReleaseFrame);
    EXPECT_EQ(&FFMUXER_ReadSeek, st.pfnReadSeek);
    EXPECT_EQ(&FFMUXER_ReadClose, st.pfnReadClose);
    EXPECT_EQ(&FFMUXER_SaveYuvToJpeg, st.pfnSaveYuvToJpeg);
    EXPECT_EQ(&FFMUXER_GetWriteBytes, st.pfnGetWriteBytes);
}

TEST(MediaApi, TheTablesAreElevenSlotsAndNothingElse)
{
    EXPECT_EQ(11 * sizeof(void *), sizeof(tagQN_MEDIA_API_S));
}

static void ExpectNoSlotsBehindTheThird(const tagQN_MEDIA_API_S &st)
{
    EXPECT_EQ(&WAV_WriteFrame, st.pfnWriteFrame);
    EXPECT_EQ(&WAV_WriteClose, st.pfnWriteClose);
    EXPECT_EQ(nullptr, st.pfnReadOpen);
    EXPECT_EQ(nullptr, st.pfnReadMetadata);
    EXPECT_EQ(nullptr, st.pfnReadGetFrame);
    EXPECT_EQ(nullptr, st.pfnReadReleaseFrame);
    EXPECT_EQ(nullptr, st.pfnReadSeek);
    EXPECT_EQ(nullptr, st.pfnReadClose);
    EXPECT_EQ(nullptr, st.pfnSaveYuvToJpeg);
    EXPECT_EQ(nullptr, st.pfnGetWriteBytes);
}

TEST(MediaApi, TheWavTablesWriteOnly)
{
    EXPECT_EQ(&WAV_WriteOpen, qn_media_api_wav.pfnWriteOpen);
    ExpectNoSlotsBehindTheThird(qn_media_api_wav);
    EXPECT_EQ(&WAV_WriteOpenPreAlloc, qn_media_api_wav_prealloc.pfnWriteOpen);
    ExpectNoSlotsBehindTheThird(qn_media_api_wav_prealloc);
    EXPECT_NE(&qn_media_api_wav, &qn_media_api_wav_prealloc);
}

class MediaApiSession : public CARD_TEST
{
protected:
    void SetUp() override
    {
        CARD_TEST::SetUp();
        InitMounted();
    }

    // Runs a session on a table for the given number of seconds; every call succeeds.
    void Run(const tagQN_MEDIA_API_S &stApi, int64_t s64Seconds)
    {
        tagQN_RECORD_PARAM_S stParam{};
        stParam.stAudio.bEnable = 1;
        stParam.stAudio.enCodec = QN_CODEC_AAC;
        tagQN_RECORD_HANDLER_S *pSession = nullptr;
        ASSERT_EQ(0u, QN_RecordInit(m_pHandle, &stParam, pSession));
        ASSERT_NE(nullptr, pSession);
        EXPECT_EQ(&qn_media_api_ffmpeg, pSession->pstMediaApi); // whatever the format
        pSession->pstMediaApi = &stApi;
        EXPECT_EQ(0u, QN_RecordStart(pSession, "wav"));
        void *pWriter = pSession->pWriter;
        EXPECT_NE(nullptr, pWriter);
        unsigned char au8Frame[4] = {1, 2, 3, 4};
        EXPECT_EQ(0u, QN_RecordWriteFrame(pSession, au8Frame, sizeof(au8Frame), 1000, 1, 0));
        EXPECT_EQ(0u, QN_RecordWriteFrame(pSession, au8Frame, sizeof(au8Frame), 1021, 1, 0));
        EXPECT_EQ(-1, QN_REcordGetWriteBytes(pSession)); // slot 10 is empty
        pthread_mutex_lock(&pSession->stMutex);
        pSession->tFileStart -= s64Seconds;
        pthread_mutex_unlock(&pSession->stMutex);
        EXPECT_EQ(0u, QN_RecordStop(pSession));
        EXPECT_EQ(0u, QN_RecordDestroy(pSession));
        free(pWriter); // the placeholder's close leaves it
    }
};

TEST_F(MediaApiSession, OnAWavTableRunsThroughAndMakesNoFile)
{
    for (const tagQN_MEDIA_API_S *pstApi : {&qn_media_api_wav, &qn_media_api_wav_prealloc})
    {
        Run(*pstApi, 0);
        EXPECT_TRUE(TEST_List(Folder(0)).empty());
    }
}

TEST_F(MediaApiSession, OnAWavTableEndsWithARenameThatFailsWithoutAReport)
{
    STDOUT_CAPTURE capture;
    Run(qn_media_api_wav, 60);
    EXPECT_TRUE(capture.HasLine("\\[QN_RecordClosePostProcess:[0-9]+\\] rename .* -> .*"));
    EXPECT_EQ(0, capture.Count("[ERROR]"));
    EXPECT_TRUE(TEST_List(Folder(0)).empty());
}

#include "clips.h"

#include "fuzz.h"
#include "support/streams.h"

using namespace libquarrin;

void FUZZ_WriteClip(const std::string &strPath, QN_FILE_FMT_E enFormat, QN_CODEC_TYPE_E enCodec, int32_t s32Frames)
{
    const std::vector<TEST_FRAME_S> &vecVideo = enCodec == QN_CODEC_H265 ? TEST_EncodeH265(64, 64, 25, 3, s32Frames)
                                                                         : TEST_EncodeH264(64, 64, 25, 3, s32Frames);
    const std::vector<TEST_FRAME_S> &vecAudio = TEST_EncodeAac(48000, 2, s32Frames);
    tagQN_RECORD_PARAM_S stParam = {};
    stParam.enFormat = enFormat;
    stParam.stVideo = TEST_VideoParam(enCodec, vecVideo);
    stParam.stAudio = TEST_AudioParam();
    void *pWriter = FFMUXER_WriteOpen(&stParam, strPath.c_str());
    FUZZ_Check(pWriter != nullptr, "a clip can be written");
    for (size_t i = 0; i < vecVideo.size(); ++i)
    {
        const uint64_t u64Pts = 1000 + i * 400;
        (void)FFMUXER_WriteFrame(pWriter, vecVideo[i].vecData.data(), static_cast<uint32_t>(vecVideo[i].vecData.size()),
                                 u64Pts, vecVideo[i].bKey, true);
        if (i < vecAudio.size())
        {
            (void)FFMUXER_WriteFrame(pWriter, vecAudio[i].vecData.data(),
                                     static_cast<uint32_t>(vecAudio[i].vecData.size()), u64Pts, true, false);
        }
    }
    FUZZ_Check(FFMUXER_WriteClose(pWriter) == 0, "a clip can be ended");
}

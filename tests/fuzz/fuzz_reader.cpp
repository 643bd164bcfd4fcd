// The reader: files of the four containers, damaged in any way, opened, read, sought and closed in any order.
// The control bytes stand at the end of an input, so that its front stays a file.

#include "fuzz.h"

#include <cstring>

#include <sys/mman.h>
#include <unistd.h>

#include "frame_out.h"

using namespace libquarrin;

namespace
{

constexpr size_t CONTROL_BYTES = 16; // the container, then the calls

// A file in memory, the same one for every input; its path.
std::string PutFile(const uint8_t *pu8Data, size_t size)
{
    static const int32_t s32File = memfd_create("clip", MFD_CLOEXEC);
    FUZZ_Check(ftruncate(s32File, 0) == 0 && pwrite(s32File, pu8Data, size, 0) == static_cast<ssize_t>(size),
               "a file can be written");
    return "/proc/self/fd/" + std::to_string(s32File);
}

void CheckMetadata(void *pReader)
{
    constexpr uint8_t MARK = 0xa5;
    tagQN_METADATA_S stMetadata;
    memset(&stMetadata, MARK, sizeof(stMetadata));
    tagQN_METADATA_S stMarked = stMetadata;
    FUZZ_Check(FFMUXER_ReadMetadata(pReader, &stMetadata) == 0, "metadata can always be read");
    FUZZ_Check(stMetadata.bHasAudio <= 1, "there is audio or not");
    FUZZ_Check(
        memcmp(stMetadata.au32VideoReserved, stMarked.au32VideoReserved, sizeof(stMarked.au32VideoReserved)) == 0 &&
            memcmp(stMetadata.au32AudioReserved, stMarked.au32AudioReserved, sizeof(stMarked.au32AudioReserved)) == 0 &&
            stMetadata.u32AudioReserved == stMarked.u32AudioReserved,
        "reserved words keep the caller's contents");
    FUZZ_Check(stMetadata.bHasAudio == 1 || stMetadata.u32SampleRate == stMarked.u32SampleRate,
               "without audio its words keep the caller's contents");
}

void Get(void *pReader, FRAME_OUT_S &stFrame)
{
    uint8_t *pu8Data = nullptr;
    uint32_t u32Size = 0;
    uint64_t u64Pts = 0;
    bool bKey = false;
    bool bVideo = false;
    const int32_t s32Result = FFMUXER_ReadGetFrame(pReader, &pu8Data, &u32Size, &u64Pts, &bKey, &bVideo);
    stFrame.Got(s32Result, pu8Data, u32Size);
}

void Release(void *pReader, FRAME_OUT_S &stFrame, uint8_t *pu8Given)
{
    stFrame.Released(FFMUXER_ReadReleaseFrame(pReader, pu8Given), pu8Given);
}

// Frame by frame, as a host plays.
void Play(void *pReader, FRAME_OUT_S &stFrame, int32_t s32Frames)
{
    for (int32_t i = 0; i < s32Frames; ++i)
    {
        Get(pReader, stFrame);
        if (!stFrame.bOut)
        {
            return;
        }
        Release(pReader, stFrame, stFrame.pu8Data);
    }
}

void Call(void *pReader, FRAME_OUT_S &stFrame, uint8_t u8Call)
{
    uint8_t u8Other = 0;
    switch (u8Call % 8)
    {
    case 0:
    case 1:
        Play(pReader, stFrame, u8Call / 8);
        break;
    case 2:
        Get(pReader, stFrame);
        break;
    case 3:
        Release(pReader, stFrame, stFrame.pu8Data);
        break;
    case 4:
        Release(pReader, stFrame, &u8Other); // not the frame
        break;
    case 5:
        (void)FFMUXER_ReadSeek(pReader, u8Call / 8); // what it answers is the demuxer's
        stFrame.bOut = false;
        break;
    case 6:
        (void)FFMUXER_ReadSeek(pReader, UINT32_MAX / (u8Call | 1u));
        stFrame.bOut = false;
        break;
    default:
        CheckMetadata(pReader);
        break;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pu8Data, size_t size)
{
    const QN_FILE_FMT_E aenFormats[] = {QN_FILE_FMT_E_MKV, QN_FILE_FMT_E_TS, QN_FILE_FMT_E_MP4, QN_FILE_FMT_E_MOV};
    if (size < CONTROL_BYTES)
    {
        return 0;
    }
    FUZZ_ListenToFFmpeg();
    const uint8_t *pu8Control = pu8Data + size - CONTROL_BYTES;
    const std::string strPath = PutFile(pu8Data, size - CONTROL_BYTES);
    tagQN_REPLAY_PARAM_S stParam = {};
    void *pReader = FFMUXER_ReadOpen(&stParam, strPath.c_str(), aenFormats[pu8Control[0] % 4]);
    if (pReader == nullptr)
    {
        return 0;
    }
    CheckMetadata(pReader);
    FRAME_OUT_S stFrame;
    for (size_t i = 1; i < CONTROL_BYTES; ++i)
    {
        Call(pReader, stFrame, pu8Control[i]);
    }
    Play(pReader, stFrame, 200);
    FUZZ_Check(FFMUXER_ReadClose(pReader) == 0, "a reader can be closed");
    return 0;
}

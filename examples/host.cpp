#include <libquarrin.h>
#include <quarrin_platform.h>
#include <unistd.h>
extern "C" {
#include <libavutil/mem.h>
}
using namespace libquarrin;

// host DEVICE MOUNTPOINT CLIP.ts: records the video of a clip again; the clip stands for the camera.
int main(int argc, char **argv)
{
    av_max_alloc(256 << 20); // FFmpeg takes no more at once, whatever a file speaks of
    if (argc != 4 || QN_PLATFORM_RemoveLeftover(argv[1], argv[2]) != 0) return 2; // what a power cut left behind
    tagQN_STORAGE_PARAM_S storage = {argv[1], 1, argv[2], {{1, "rec", 1, 0, 90, 0, true, 0}, {}, {}}};
    tagQN_HANDLER_S *card = nullptr;
    tagQN_REPLAY_HANDLER_S *clip = nullptr;
    tagQN_RECORD_HANDLER_S *session = nullptr;
    QN_STATE_E state = QN_STATE_E_UNPLUGIN;
    for (QN_Init(&storage, card); state != QN_STATE_E_MOUNTED; usleep(100000)) QN_GetState(card, &state);

    tagQN_METADATA_S meta = {};
    if (QN_ReplayOpenByFilePath(card, argv[3], {}, clip) != 0) return 1;
    QN_ReplayReadMetadata(clip, &meta);
    tagQN_RECORD_PARAM_S param = {QN_FILE_FMT_E_TS, {}, {}, 1, 60}; // a new file every 60 seconds
    param.stVideo = {1, QN_CODEC_H264, meta.u32Width, meta.u32Height, 25, 0, {}, {}, 1, 90000};
    if (QN_RecordInit(card, &param, session) != 0 || session == nullptr) return 1;
    while (QN_RecordStart(session, "front") == 7) usleep(100000); // the folder is made just after the mount

    uint8_t *data; uint32_t size; uint64_t pts; bool key, video;
    for (; QN_ReplayReadFrame(clip, &data, &size, &pts, &key, &video) == 0; QN_ReplayFreeFrame(clip, data))
        if (video) { QN_RecordWriteFrame(session, data, size, pts + 1, key, video); usleep(40000); } // begins above 0
    QN_ReplayClose(clip);
    QN_RecordDestroy(session); // stops it and finishes the file
    return static_cast<int>(QN_Destroy(card)); // unmounts the card
}

// own_layer DEVICE MOUNTPOINT CLIP
//
// A host on a device with a utility layer of its own (layer.cpp): it links quarrin::quarrin and nothing else of this
// project. It waits for the card, records the clip once into a Matroska file, and unmounts the card.

#include <chrono>
#include <cstdio>

#include "../common/card.h"
#include "../common/clip.h"
#include "../common/process.h"
#include "layer.h"

using namespace libquarrin;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds POLL{100};
constexpr int START_TRIES = 50;
constexpr uint32_t RESULT_NO_FILE = 7;

// False: a signal ends the program.
static bool WaitForCard(tagQN_HANDLER_S *card)
{
    QN_STATE_E state = QN_STATE_E_UNPLUGIN;
    while (QN_GetState(card, &state) == 0 && state != QN_STATE_E_MOUNTED)
    {
        if (WaitForSignal(POLL) != 0)
        {
            return false;
        }
    }
    return true;
}

// The folder is made just after the mount: until then a start has no place for its file.
static uint32_t Start(tagQN_RECORD_HANDLER_S *session)
{
    uint32_t result = QN_RecordStart(session, "own");
    for (int i = 0; i < START_TRIES && result == RESULT_NO_FILE && WaitForSignal(POLL) == 0; i++)
    {
        result = QN_RecordStart(session, "own");
    }
    return result;
}

// One frame after the other, in real time. False: the card is gone, or a signal came.
static bool Feed(tagQN_HANDLER_S *card, tagQN_RECORD_HANDLER_S *session, Clip &clip)
{
    const steady_clock::time_point begin = steady_clock::now();
    QN_STATE_E state = QN_STATE_E_MOUNTED;
    uint64_t number = 1;
    for (Frame &frame : clip.frames)
    {
        const uint64_t pts = number * 90000 / clip.fps; // begins above 0: a first pts of 0 counts as not seen
        (void)QN_RecordWriteFrame(session, frame.data.data(), static_cast<uint32_t>(frame.data.size()), pts, frame.key,
                                  true); // 0 also for a frame that is lost: the state tells
        const steady_clock::time_point next = begin + milliseconds(number * 1000 / clip.fps);
        if (WaitForSignal(next - steady_clock::now()) != 0 || QN_GetState(card, &state) != 0 ||
            state != QN_STATE_E_MOUNTED)
        {
            return false;
        }
        number++;
    }
    return true;
}

static int Record(tagQN_HANDLER_S *card, Clip &clip)
{
    if (!WaitForCard(card))
    {
        return 1;
    }
    tagQN_RECORD_PARAM_S param = {};
    param.enFormat = QN_FILE_FMT_E_MKV;
    param.stVideo = clip.VideoParam();
    tagQN_RECORD_HANDLER_S *session = nullptr;
    const uint32_t made = QN_RecordInit(card, &param, session);
    if (made != 0 || session == nullptr) // two refusals come with result 0
    {
        fprintf(stderr, "own_layer: no session, result %u\n", made);
        return 1;
    }
    const uint32_t started = Start(session);
    bool good = started == 0;
    if (!good)
    {
        fprintf(stderr, "own_layer: no recording, result %u\n", started);
    }
    else if (!Feed(card, session, clip))
    {
        fputs("own_layer: broke off\n", stderr);
        good = false;
    }
    (void)QN_RecordStop(session);    // finishes the file; both refuse a null session only
    (void)QN_RecordDestroy(session); // an open session would keep the card from being unmounted
    return good ? 0 : 1;
}

int main(int argc, char **argv)
{
    LimitMemory();
    if (argc != 4)
    {
        fputs("usage: own_layer DEVICE MOUNTPOINT CLIP\n", stderr);
        return 2;
    }
    BlockSignals(); // before the first thread
    tagQN_STORAGE_PARAM_S storage = CardParam(argv[1], argv[2], true);
    Clip clip;
    LAYER_RemoveLeftover(storage);
    std::string wrong = WhyNotMountPoint(storage);
    wrong = wrong.empty() ? LoadClip(argv[3], clip) : wrong;
    if (!wrong.empty())
    {
        fprintf(stderr, "own_layer: %s\n", wrong.c_str());
        return 1;
    }
    LAYER_Begin(storage);
    tagQN_HANDLER_S *card = nullptr;
    if (TakeStandardOutput() < 0 || QN_Init(&storage, card) != 0)
    {
        fputs("own_layer: out of memory or descriptors\n", stderr);
        return 1;
    }
    const int status = Record(card, clip);
    (void)QN_Destroy(card); // unmounts the card
    return status;
}

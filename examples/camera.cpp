// camera DEVICE MOUNTPOINT CLIP [--split SECONDS] [--keep]
//
// A camera with two views that record side by side onto one card: "front" into Matroska, "rear" into MPEG-TS. It goes
// on through everything that a card does: it is plugged, pulled and plugged again, runs full, stalls. The clip stands
// for both sensors and encoders. Every change is said in one line; SIGTERM and SIGINT finish the files and unmount the
// card.
//
// Threads: per view an encoder, which must never wait, and a writer, which waits for the card; the main thread watches.

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <system_error>
#include <thread>

#include <sys/stat.h>

#include "common/card.h"
#include "common/clip.h"
#include "common/frame_queue.h"
#include "common/process.h"
#include "quarrin_platform.h"

using namespace libquarrin;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr milliseconds LOOK_EVERY{100};
constexpr seconds QUEUE_HOLDS{4};    // what a card may take for itself now and then
constexpr seconds GROWTH_WITHIN{10}; // Matroska reaches the file in clusters of up to five seconds
constexpr seconds FULL_CHECK_EVERY{5};
constexpr int REFUSALS_AT_ONCE = 50; // starts that are tried at every look; then it is not because the mount is young
constexpr seconds START_AGAIN_AFTER{5};

// Results of the library that are told apart here.
constexpr uint32_t RESULT_WRONG_STATE = 3;

/// One view: encoder, queue, writer, session.
struct View
{
    View(const char *viewName, QN_FILE_FMT_E fileFormat) : name(viewName), format(fileFormat)
    {
    }

    const char *name; ///< stands in the names of its files
    QN_FILE_FMT_E format;
    const Clip *clip = nullptr; ///< borrowed
    FrameQueue queue;
    std::atomic<bool> end{false}; ///< the encoder is to stop
    std::thread encoder;
    std::thread writer;

    // Main thread only, from here on
    tagQN_RECORD_HANDLER_S *session = nullptr;
    bool recording = false;
    bool dropping = false;              ///< as it was said last
    int refusals = 0;                   ///< starts in a row that were refused
    steady_clock::time_point nextStart; ///< no start before
    int64_t bytes = -1;                 ///< written into the current file, at the last growth
    off_t fileSize = -1;                ///< the same on the card
    steady_clock::time_point lastGrowth;
};

struct Camera
{
    tagQN_HANDLER_S *card = nullptr;
    tagQN_RECORD_PARAM_S recordParam = {};
    View views[2] = {{"front", QN_FILE_FMT_E_MKV}, {"rear", QN_FILE_FMT_E_TS}};
    QN_STATE_E state = static_cast<QN_STATE_E>(-1); ///< as it was said last: not yet
    QN_STORAGE_STATE_E storage = QN_STORAGE_STATE_E_NORMAL;
    steady_clock::time_point nextFullCheck;
};

// ---- the road of a frame

// Stands for the encoder: one frame after the other, in real time, whatever the card does.
static void Encode(View *view)
{
    const Clip &clip = *view->clip;
    const steady_clock::time_point begin = steady_clock::now();
    for (uint64_t number = 1; !view->end; number++)
    {
        Frame frame = clip.frames[static_cast<size_t>((number - 1) % clip.frames.size())];
        frame.pts = number * 90000 / clip.fps; // begins above 0: a first pts of 0 counts as not seen
        view->queue.Push(std::move(frame));
        std::this_thread::sleep_until(begin + milliseconds(number * 1000 / clip.fps));
    }
}

// Hands frames in, also while the session is stopped: the library drops them then. Its result says nothing about the
// card (see Reaches).
static void Write(View *view)
{
    Frame frame;
    while (view->queue.Pop(frame))
    {
        (void)QN_RecordWriteFrame(view->session, frame.data.data(), static_cast<uint32_t>(frame.data.size()), frame.pts,
                                  frame.key, true);
    }
}

// ---- one view, seen from the main thread

// Makes the session, which lives until the program ends, and starts the view's threads. False: there will never be one.
// A card that was pulled in this moment leaves the session null; the next look tries again.
static bool MakeSession(Camera &camera, View &view)
{
    tagQN_RECORD_PARAM_S param = camera.recordParam;
    param.enFormat = view.format;
    const uint32_t result = QN_RecordInit(camera.card, &param, view.session);
    if (result == RESULT_WRONG_STATE)
    {
        return true;
    }
    if (result != 0 || view.session == nullptr) // two refusals come with result 0
    {
        Say("%s: no session, result %u", view.name, result);
        return false;
    }
    try
    {
        view.writer = std::thread(Write, &view);
        view.encoder = std::thread(Encode, &view);
    }
    catch (const std::system_error &error)
    {
        Say("%s: no thread: %s", view.name, error.what());
        return false;
    }
    return true;
}

static void Start(View &view)
{
    if (view.session == nullptr || steady_clock::now() < view.nextStart)
    {
        return;
    }
    // A kernel may announce one pull twice, and the second time marks a session that was stopped after the first: only
    // a stop gets it out of QN_RECORD_STATE_STOPPING.
    (void)QN_RecordStop(view.session);
    const uint32_t result = QN_RecordStart(view.session, view.name);
    if (result == 0)
    {
        view.recording = true;
        view.refusals = 0;
        view.bytes = -1;
        view.fileSize = -1;
        view.lastGrowth = steady_clock::now();
        Say("%s: recording", view.name);
        return;
    }
    // 7 is usual just after the mount, when the folder is being made; 3 means pulled again, which the next look tells.
    view.refusals++;
    if (view.refusals == REFUSALS_AT_ONCE)
    {
        Say("%s: the card takes no file (result %u): write-protected or damaged?", view.name, result);
    }
    if (view.refusals >= REFUSALS_AT_ONCE)
    {
        view.nextStart = steady_clock::now() + START_AGAIN_AFTER;
    }
}

static void Stop(View &view, const char *why)
{
    (void)QN_RecordStop(view.session); // refuses a null session only
    view.recording = false;
    Say("%s: stopped, %s", view.name, why);
}

// What is handed in reaches the card. Neither the result of a frame nor one of the two figures alone shows that: frames
// that are dropped do not count as written, but bytes that the file system refuses do.
static bool Reaches(View &view)
{
    const int64_t bytes = QN_REcordGetWriteBytes(view.session); // -1: a split could not open the next file
    pthread_mutex_lock(&view.session->stMutex);
    const std::string path = view.session->strFilePath;
    pthread_mutex_unlock(&view.session->stMutex);
    struct stat file = {};
    const off_t fileSize = stat(path.c_str(), &file) == 0 ? file.st_size : -1;
    if (bytes >= 0 && fileSize >= 0 && bytes != view.bytes && fileSize != view.fileSize)
    {
        view.bytes = bytes;
        view.fileSize = fileSize;
        view.lastGrowth = steady_clock::now();
    }
    return steady_clock::now() - view.lastGrowth < GROWTH_WITHIN;
}

static void TellLost(View &view)
{
    bool dropping = false;
    const uint64_t lost = view.queue.Lost(dropping);
    if (dropping != view.dropping)
    {
        view.dropping = dropping;
        Say(dropping ? "%s: the card is too slow, frames are lost" : "%s: goes on, %llu frames were lost so far",
            view.name, static_cast<unsigned long long>(lost));
    }
}

// Brings a view to where the card allows it to be. False: the camera cannot go on.
static bool Tend(Camera &camera, View &view, bool usable)
{
    if (view.session == nullptr && usable && !MakeSession(camera, view))
    {
        return false;
    }
    TellLost(view);
    if (view.recording && !usable)
    {
        Stop(view, camera.state == QN_STATE_E_MOUNTED ? "storage full" : "card gone");
    }
    else if (view.recording && view.session->enRecordState == QN_RECORD_STATE_STOPPING)
    {
        Stop(view, "the card was pulled and is back"); // between two looks
    }
    else if (view.recording && !Reaches(view))
    {
        Stop(view, "nothing reaches the card any more");
    }
    if (usable && !view.recording)
    {
        Start(view);
    }
    return true;
}

// ---- the card

// Looks at the card and says what changed. True when files can be written.
static bool Look(Camera &camera)
{
    QN_STATE_E state = QN_STATE_E_UNPLUGIN;
    QN_STORAGE_STATE_E storage = QN_STORAGE_STATE_E_NORMAL;
    (void)QN_GetState(camera.card, &state); // both refuse a null handle only
    (void)QN_GetStorageState(camera.card, &storage);
    if (state != camera.state)
    {
        camera.state = state;
        Say("card: %s", StateText(state));
    }
    if (storage != camera.storage)
    {
        camera.storage = storage;
        Say("storage: %s", storage == QN_STORAGE_STATE_E_FULL ? "full" : "has room");
    }
    if (state != QN_STATE_E_MOUNTED)
    {
        return false;
    }
    // With --keep: nobody else looks whether there is room again while no frames are written.
    if (storage == QN_STORAGE_STATE_E_FULL && steady_clock::now() >= camera.nextFullCheck)
    {
        camera.nextFullCheck = steady_clock::now() + FULL_CHECK_EVERY;
        (void)QN_RecordStorageUpdate(camera.card, QN_VOLUME_ID_E_0, false); // the volume is there
    }
    return storage == QN_STORAGE_STATE_E_NORMAL;
}

// Until a signal ends it. False: it cannot go on.
static bool Run(Camera &camera)
{
    for (;;)
    {
        const int signal = WaitForSignal(LOOK_EVERY);
        if (signal == SIGUSR1)
        {
            // The user has allowed it: the oldest files go from now on.
            (void)QN_RecordStorageUpdate(camera.card, QN_VOLUME_ID_E_0, true); // the volume is there
            Say("storage: the oldest files are overwritten from now on");
        }
        else if (signal != 0)
        {
            Say("camera: ends, %s", strsignal(signal));
            return true; // the signals stay blocked: a second one cannot tear a file that is being finished
        }
        const bool usable = Look(camera);
        for (View &view : camera.views)
        {
            if (!Tend(camera, view, usable))
            {
                return false;
            }
        }
    }
}

// Encoder, queue, writer, session, card: in the order in which frames go. Nothing may call into a session that goes.
static void End(Camera &camera)
{
    for (View &view : camera.views)
    {
        view.end = true;
        if (view.encoder.joinable())
        {
            view.encoder.join();
        }
        view.queue.Close();
        if (view.writer.joinable())
        {
            view.writer.join(); // writes what is still queued
        }
        if (view.recording)
        {
            Stop(view, "camera ends");
        }
        (void)QN_RecordDestroy(view.session); // null does nothing
    }
    (void)QN_Destroy(camera.card); // unmounts the card
}

static int Usage()
{
    fputs("usage: camera DEVICE MOUNTPOINT CLIP [--split SECONDS] [--keep]\n"
          "  DEVICE      the card, /dev/mmcblk1; /dev/null: MOUNTPOINT is a plain folder that stands for one\n"
          "  CLIP        a recording whose video stands for the two sensors\n"
          "  --split     seconds after which a new file begins, 5 or more (60)\n"
          "  --keep      delete nothing: wait for room when the card is full; SIGUSR1 lifts that\n",
          stderr);
    return 2;
}

int main(int argc, char **argv)
{
    LimitMemory();
    uint32_t split = 60;
    bool keep = false;
    for (int i = 4; i < argc; i++)
    {
        if (strcmp(argv[i], "--split") == 0 && i + 1 < argc)
        {
            split = static_cast<uint32_t>(strtoul(argv[++i], nullptr, 10));
        }
        else if (strcmp(argv[i], "--keep") == 0)
        {
            keep = true;
        }
        else
        {
            return Usage();
        }
    }
    if (argc < 4 || split < 5) // files shorter than 5 s are removed
    {
        return Usage();
    }
    BlockSignals(); // before the first thread
    QN_PLATFORM_SetLogLevel(4);
    tagQN_STORAGE_PARAM_S storage = CardParam(argv[1], argv[2], !keep);
    Clip clip;
    (void)QN_PLATFORM_RemoveLeftover(argv[1], argv[2]); // what stays is told of by the next line
    std::string wrong = WhyNotMountPoint(storage);
    wrong = wrong.empty() ? LoadClip(argv[3], clip) : wrong;
    if (!wrong.empty())
    {
        fprintf(stderr, "camera: %s\n", wrong.c_str());
        return 1;
    }

    Camera camera;
    camera.recordParam.stVideo = clip.VideoParam();
    camera.recordParam.bAutoSplit = 1;
    camera.recordParam.u32SplitSeconds = split;
    for (View &view : camera.views)
    {
        view.clip = &clip;
        view.queue.SetSize(static_cast<size_t>(QUEUE_HOLDS.count()) * clip.fps);
    }
    if (TakeStandardOutput() < 0 || QN_Init(&storage, camera.card) != 0) // nothing is open yet
    {
        fputs("camera: out of memory or descriptors\n", stderr);
        return 1;
    }
    Say("camera: %ux%u, %u frames/s", clip.width, clip.height, clip.fps);
    const bool good = Run(camera);
    End(camera);
    const bool mounted = IsMountPoint(argv[2]);
    Say(mounted ? "card: is still in use, do not take it out" : "card: may be taken out");
    return good && !mounted ? 0 : 1;
}

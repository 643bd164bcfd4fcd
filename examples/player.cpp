// player DEVICE MOUNTPOINT list [FROM [TO]]
// player DEVICE MOUNTPOINT play NAME [--seek SECONDS] [--keys] [--fast] [--output FILE]
//
// Lists the recordings of a card, or plays one: its video goes to standard output, or into a file, as an elementary
// stream at its own pace, for a decoder behind a pipe. The card may be pulled at any moment.

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "common/card.h"
#include "common/clip.h"
#include "common/process.h"
#include "player_options.h"
#include "quarrin_platform.h"

using namespace libquarrin;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

// Results of the library that are told apart here.
constexpr uint32_t RESULT_WRONG_STATE = 3;
constexpr uint32_t RESULT_UNREADABLE = 8;
constexpr uint32_t RESULT_END = 9;

constexpr seconds CARD_WITHIN{15}; // a second for the node, and what a file system takes that was not unmounted
constexpr milliseconds POLL{50};

constexpr uint64_t NO_PTS = uint64_t{1} << 63; // the container has no time for this frame

__attribute__((format(printf, 1, 2))) static int Fail(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    fputs("player: ", stderr);
    vfprintf(stderr, format, args);
    fputs("\n", stderr);
    va_end(args);
    return EXIT_FAILED;
}

// ---- list

static int List(tagQN_HANDLER_S *card, const Options &options)
{
    std::vector<tagQN_FILE_INFO_S> files;
    const uint32_t result = QN_ReplayListFile(card, options.volume, &files);
    if (result != 0)
    {
        const bool inUse = card->astVolume[options.volume].bEnable != 0;
        return inUse ? Fail("the card is gone") : Fail("volume %d is not in use on this card", options.volume);
    }
    size_t count = 0;
    for (const tagQN_FILE_INFO_S &file : files) // earliest first
    {
        if (file.tEnd < options.from || file.tStart > options.to)
        {
            continue;
        }
        // Still being written, or cut off by a pulled card or a power cut: the end is not known.
        const size_t time = file.strName.find_first_not_of("0123456789-"); // a comment may hold the same words
        const bool unfinished = time != std::string::npos && file.strName.compare(time, 12, ".To.unknown.") == 0;
        const std::string length = unfinished ? "?" : std::to_string(file.tEnd - file.tStart) + " s";
        Say("%s %8s %8s  %s", QN_STORAGE_PrettierTime(file.tStart).c_str(), length.c_str(),
            QN_STORAGE_PrettierSize(file.u64Size).c_str(), file.strName.c_str());
        count++;
    }
    if (count == 0)
    {
        return Fail("no recordings in %s/%s%s", options.mountPoint.c_str(), RECORDINGS,
                    files.empty() ? "" : " in that span of time");
    }
    return EXIT_GOOD;
}

// ---- play

struct Playing
{
    tagQN_HANDLER_S *card = nullptr; ///< borrowed
    tagQN_REPLAY_HANDLER_S *replay = nullptr;
    tagQN_METADATA_S metadata = {};
    int output = -1;
    uint64_t written = 0;           ///< frames
    uint64_t firstPts = NO_PTS;     ///< of the frames that are written
    steady_clock::time_point begin; ///< when that one was due
    int status = EXIT_GOOD;
};

// Ticks of the video's time base, as the container gives them.
static std::chrono::nanoseconds TimeOf(const Playing &playing, uint64_t ticks)
{
    const tagQN_METADATA_S &metadata = playing.metadata;
    const double time = static_cast<double>(ticks) * metadata.u32VideoTimeBaseNum / metadata.u32VideoTimeBaseDen;
    return std::chrono::nanoseconds(static_cast<int64_t>(time * 1e9));
}

static bool ReadMetadata(Playing &playing, const Options &options)
{
    const tagQN_METADATA_S &metadata = playing.metadata;
    if (QN_ReplayReadMetadata(playing.replay, &playing.metadata) != 0 || metadata.u32Width == 0 ||
        metadata.u32VideoTimeBaseDen == 0)
    {
        Fail("%s has no video that could be played", options.name.c_str());
        return false;
    }
    fprintf(stderr, "%s: %s, %ux%u, %u frames/s, %s\n", options.name.c_str(),
            metadata.u32VideoCodec == 0 ? "H.264" : "H.265", metadata.u32Width, metadata.u32Height,
            metadata.u32FrameRate, metadata.bHasAudio != 0 ? "with audio" : "no audio");
    return true;
}

// Seeks count on the file's own clock, and that of a transport stream need not begin at 0: the second of the first
// picture is added. A frame that is out is given back by the seek itself.
static bool Seek(Playing &playing, const Options &options)
{
    uint8_t *data = nullptr;
    uint32_t size = 0;
    uint64_t pts = 0;
    bool key = false;
    bool video = false;
    while (QN_ReplayReadFrame(playing.replay, &data, &size, &pts, &key, &video) == 0 && (!video || pts == NO_PTS))
    {
        (void)QN_ReplayFreeFrame(playing.replay, data); // it is the frame that is out
    }
    const auto first = video && pts != NO_PTS ? TimeOf(playing, pts) / seconds(1) : 0;
    if (QN_ReplaySeekTime(playing.replay, static_cast<uint64_t>(first) + options.seek) != 0)
    {
        Fail("%s cannot be sought to second %u", options.name.c_str(), options.seek);
        return false;
    }
    return true;
}

// Waits until a frame is due. False: a signal came.
static bool WaitForTurn(Playing &playing, uint64_t pts)
{
    if (playing.firstPts == NO_PTS || pts < playing.firstPts)
    {
        playing.firstPts = pts;
        playing.begin = steady_clock::now();
    }
    const steady_clock::time_point due = playing.begin + TimeOf(playing, pts - playing.firstPts);
    while (steady_clock::now() < due)
    {
        if (WaitForSignal(due - steady_clock::now()) != 0)
        {
            return false;
        }
    }
    return true;
}

// False: there is to be no further frame.
static bool Give(Playing &playing, const Options &options, const std::vector<uint8_t> &frame, uint64_t pts)
{
    const bool noWait = options.fast || pts == NO_PTS;
    if (noWait ? WaitForSignal(milliseconds(0)) != 0 : !WaitForTurn(playing, pts))
    {
        return false;
    }
    if (!WriteAll(playing.output, frame.data(), frame.size()))
    {
        playing.status = Fail("the output takes no more: %s", strerror(errno));
        return false;
    }
    playing.written++;
    return true;
}

// A pulled card and a damaged file answer the same; the card's state tells them apart, a moment later.
static int SayWhyUnreadable(Playing &playing, const Options &options)
{
    QN_STATE_E state = QN_STATE_E_MOUNTED;
    const steady_clock::time_point limit = steady_clock::now() + seconds(2);
    while (QN_GetState(playing.card, &state) == 0 && state == QN_STATE_E_MOUNTED && steady_clock::now() < limit)
    {
        (void)WaitForSignal(POLL); // it ends anyway
    }
    return state != QN_STATE_E_MOUNTED ? Fail("the card was pulled") : Fail("%s is damaged here", options.name.c_str());
}

static void PlayFrames(Playing &playing, const Options &options)
{
    uint8_t *data = nullptr;
    uint32_t size = 0;
    uint64_t pts = 0;
    bool key = false;
    bool video = false;
    bool hasBegun = false; // a decoder can do nothing with what is before the first key frame
    bool goesOn = true;
    uint32_t result = 0;
    while (goesOn && (result = QN_ReplayReadFrame(playing.replay, &data, &size, &pts, &key, &video)) == 0)
    {
        hasBegun = hasBegun || (video && key);
        const bool isWanted = video && hasBegun && (key || !options.keys);
        // Decoders want start codes: Matroska and MP4 have lengths in their place. A frame that is out when the card is
        // pulled stays readable until the replay is closed.
        goesOn = !isWanted || Give(playing, options, ToAnnexB(data, size), pts);
        (void)QN_ReplayFreeFrame(playing.replay, data); // before the next one, whether it was wanted or not
    }
    if (result == RESULT_UNREADABLE)
    {
        playing.status = SayWhyUnreadable(playing, options);
    }
    else if (result != 0 && result != RESULT_END)
    {
        playing.status = Fail("reading broke off, result %u", result);
    }
    else if (result == RESULT_END && playing.written == 0)
    {
        playing.status = Fail("no key frame from second %u on", options.seek);
    }
}

// False: there is nothing to be played.
static bool Open(Playing &playing, const Options &options)
{
    const uint32_t result = QN_ReplayOpenByFileName(playing.card, options.name, {}, playing.replay);
    if (result == RESULT_WRONG_STATE)
    {
        Fail("the card is gone");
    }
    else if (result != 0)
    {
        const std::string path = options.mountPoint + "/" + RECORDINGS + "/" + options.name;
        Fail(access(path.c_str(), F_OK) != 0 ? "no recording %s (list shows what is there)"
                                             : "%s cannot be played: not finished, or no media file",
             options.name.c_str());
    }
    return result == 0;
}

static int Play(tagQN_HANDLER_S *card, const Options &options, int output)
{
    Playing playing;
    playing.card = card;
    playing.output = output;
    if (!Open(playing, options))
    {
        return EXIT_FAILED;
    }
    if (!ReadMetadata(playing, options) || (options.seek != 0 && !Seek(playing, options)))
    {
        playing.status = EXIT_FAILED;
    }
    else
    {
        PlayFrames(playing, options);
        fprintf(stderr, "%llu frames played\n", static_cast<unsigned long long>(playing.written));
    }
    (void)QN_ReplayClose(playing.replay); // also after the card was pulled: this frees it
    return playing.status;
}

// ---- the program

// The card is mounted: at once when a folder stands for it. False, with its sentence, when that does not come.
static bool WaitMounted(tagQN_HANDLER_S *card, const Options &options)
{
    const steady_clock::time_point limit = steady_clock::now() + CARD_WITHIN;
    QN_STATE_E state = QN_STATE_E_UNPLUGIN;
    while (QN_GetState(card, &state) == 0 && state == QN_STATE_E_UNPLUGIN && steady_clock::now() < limit)
    {
        if (WaitForSignal(POLL) != 0)
        {
            return false;
        }
    }
    if (state != QN_STATE_E_MOUNTED)
    {
        Fail("the card in %s is %s", options.device.c_str(), StateText(state));
    }
    return state == QN_STATE_E_MOUNTED;
}

// Descriptor for the frames; -1 with a sentence on failure.
static int OpenOutput(const Options &options, int standardOutput)
{
    if (options.output.empty())
    {
        if (isatty(standardOutput) == 0)
        {
            return standardOutput;
        }
        Fail("standard output is a terminal: send the stream into a decoder, or use --output");
        return -1;
    }
    // Not over a file that exists: it might be a recording.
    const int output = open(options.output.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (output < 0)
    {
        Fail("cannot make %s: %s", options.output.c_str(), strerror(errno));
    }
    return output;
}

static int RunCommand(tagQN_HANDLER_S *card, const Options &options, int standardOutput)
{
    if (!WaitMounted(card, options))
    {
        return EXIT_FAILED;
    }
    if (options.command == "list")
    {
        return List(card, options);
    }
    const int output = OpenOutput(options, standardOutput);
    if (output < 0)
    {
        return EXIT_FAILED;
    }
    int status = Play(card, options, output);
    if (output != standardOutput && close(output) != 0)
    {
        status = Fail("%s could not be written: %s", options.output.c_str(), strerror(errno));
    }
    return status;
}

int main(int argc, char **argv)
{
    LimitMemory();
    // The catalogue reads the UTC times of the names as local ones: local time is UTC here.
    setenv("TZ", "UTC0", 1);
    tzset();
    Options options;
    if (!ParseOptions(options, argc, argv))
    {
        fputs(USAGE, stderr);
        return EXIT_USAGE;
    }
    BlockSignals(); // before the first thread: an interrupted player unmounts the card, too
    QN_PLATFORM_SetLogLevel(0);
    tagQN_STORAGE_PARAM_S storage = CardParam(options.device, options.mountPoint, false);
    // What stays is told of by WhyNotMountPoint.
    (void)QN_PLATFORM_RemoveLeftover(options.device.c_str(), options.mountPoint.c_str());
    const std::string wrong =
        access(options.device.c_str(), F_OK) != 0 ? "there is no card in " + options.device : WhyNotMountPoint(storage);
    if (!wrong.empty())
    {
        return Fail("%s", wrong.c_str());
    }
    const int standardOutput = TakeStandardOutput();
    tagQN_HANDLER_S *card = nullptr;
    if (standardOutput < 0 || QN_Init(&storage, card) != 0)
    {
        return Fail("out of memory or descriptors");
    }
    const int status = RunCommand(card, options, standardOutput);
    (void)QN_Destroy(card); // unmounts the card
    return status;
}

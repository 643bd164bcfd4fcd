// quarrin: records real inputs through the library onto a plain folder, lists, plays back and takes stills.

#include <cstdlib>
#include <ctime>

#include <CLI/CLI.hpp>

extern "C"
{
#include <libavutil/mem.h>
}

#include "commands.h"
#include "output.h"

static constexpr size_t MAX_ALLOCATION = 256 << 20;

struct tagTOOL_OPTIONS_S
{
    bool bVerbose = false;
    tagTOOL_RECORD_OPTIONS_S stRecord;
    tagTOOL_LIST_OPTIONS_S stList;
    tagTOOL_PLAY_OPTIONS_S stPlay;
    tagTOOL_SNAPSHOT_OPTIONS_S stSnapshot;
};

static void AddCommon(CLI::App *pCommand, std::string &strStorage, bool &bVerbose)
{
    pCommand->add_option("--storage", strStorage, "the storage folder; recordings lie in rec below it")
        ->required()
        ->type_name("DIR");
    pCommand->add_flag("-v,--verbose", bVerbose, "show what the library and FFmpeg say, on standard error");
}

/// Refuses splits that would lose files. What is no number at all is refused by the parser itself.
static std::string CheckSplit(const std::string &strText)
{
    const bool bEnough = strtoull(strText.c_str(), nullptr, 10) >= TOOL_SPLIT_LEAST;
    return bEnough ? "" : "at least 5 seconds are needed, shorter files are thrown away";
}

static void AddRecord(CLI::App &stApp, tagTOOL_OPTIONS_S &stOptions)
{
    tagTOOL_RECORD_OPTIONS_S &stRecord = stOptions.stRecord;
    CLI::App *pCommand = stApp.add_subcommand("record", "record an input into the storage folder");
    pCommand
        ->add_option("INPUT", stRecord.stInput.strInput,
                     "a file or address with H.264/H.265 video and/or AAC audio, or test: a generated clip")
        ->required();
    AddCommon(pCommand, stRecord.strStorage, stOptions.bVerbose);
    pCommand->add_option("--format", stRecord.strFormat, "container of the files")
        ->check(CLI::IsMember({"mkv", "ts", "mp4", "mov"}))
        ->capture_default_str();
    pCommand->add_option("--split", stRecord.u32SplitSeconds, "begin a new file after so many seconds, 5 or more")
        ->check(CheckSplit)
        ->type_name("SECONDS");
    pCommand->add_option("--duration", stRecord.u32DurationSeconds, "stop after so many seconds")
        ->check(CLI::Range(1u, UINT32_MAX).description(""))
        ->type_name("SECONDS");
    pCommand
        ->add_option("--durable", stRecord.u32DurableSeconds,
                     "write what is recorded through to the card every so many seconds, against power cuts")
        ->check(CLI::Range(1u, 3600u).description(""))
        ->type_name("SECONDS");
    pCommand->add_option("--name", stRecord.strName, "comment in the names of the files")->type_name("TAG");
    pCommand
        ->add_option("--quota", stRecord.strQuota,
                     "what the recordings may take, 500M or 80%; the oldest are deleted to keep it")
        ->type_name("SIZE|PERCENT");
    pCommand->add_flag("--no-auto-delete", stRecord.bNoAutoDelete, "stop when the quota is reached, delete nothing");
    pCommand->add_flag("--transcode", stRecord.stInput.bTranscode, "encode the video again, without B-frames");
    pCommand->add_option("--codec", stRecord.strCodec, "video codec of the generated clip")
        ->check(CLI::IsMember({"h264", "h265"}))
        ->capture_default_str();
}

static void AddList(CLI::App &stApp, tagTOOL_OPTIONS_S &stOptions)
{
    CLI::App *pCommand = stApp.add_subcommand("list", "list the recordings");
    AddCommon(pCommand, stOptions.stList.strStorage, stOptions.bVerbose);
    pCommand->add_flag("--json", stOptions.stList.bJson, "as JSON");
}

static void AddPlay(CLI::App &stApp, tagTOOL_OPTIONS_S &stOptions)
{
    tagTOOL_PLAY_OPTIONS_S &stPlay = stOptions.stPlay;
    CLI::App *pCommand = stApp.add_subcommand("play", "play a recording back into a file, or frame by frame");
    pCommand->add_option("FILE", stPlay.strFile, "name of a recording, or its path")->required();
    AddCommon(pCommand, stPlay.strStorage, stOptions.bVerbose);
    pCommand
        ->add_option("--output", stPlay.strOutput,
                     "file to write, its extension chooses the container; - for Matroska to standard output")
        ->type_name("OUT");
    pCommand->add_option("--seek", stPlay.u32SeekSeconds, "begin at the key frame at or before that second")
        ->type_name("S");
    pCommand->add_flag("--frames", stPlay.bFrames, "print a line for every frame");
}

static void AddSnapshot(CLI::App &stApp, tagTOOL_OPTIONS_S &stOptions)
{
    tagTOOL_SNAPSHOT_OPTIONS_S &stSnapshot = stOptions.stSnapshot;
    CLI::App *pCommand = stApp.add_subcommand("snapshot", "save one picture of a recording as JPEG");
    pCommand->add_option("FILE", stSnapshot.strFile, "name of a recording, or its path")->required();
    pCommand->add_option("OUT", stSnapshot.strOutput, "the JPEG file to write")->required();
    AddCommon(pCommand, stSnapshot.strStorage, stOptions.bVerbose);
    pCommand->add_option("--at", stSnapshot.dAtSeconds, "time in the recording, in seconds")
        ->check(CLI::Range(0.0, 4294967295.0).description(""))
        ->type_name("S");
}

/// The first line of a text: an error is one line, whatever the parser has to say.
static std::string FirstLine(const std::string &strText)
{
    return strText.substr(0, strText.find('\n'));
}

static int32_t RunCommand(const CLI::App &stApp, tagTOOL_OPTIONS_S &stOptions)
{
    TOOL_OUTPUT_SetVerbose(stOptions.bVerbose);
    stOptions.stRecord.stInput.enTestCodec =
        stOptions.stRecord.strCodec == "h265" ? libquarrin::QN_CODEC_H265 : libquarrin::QN_CODEC_H264;
    if (stApp.got_subcommand("record"))
    {
        return TOOL_RecordCommand(stOptions.stRecord);
    }
    if (stApp.got_subcommand("list"))
    {
        return TOOL_ListCommand(stOptions.stList);
    }
    return stApp.got_subcommand("play") ? TOOL_PlayCommand(stOptions.stPlay)
                                        : TOOL_SnapshotCommand(stOptions.stSnapshot);
}

int main(int argc, char **argv)
{
    // FFmpeg takes no more at once, whatever a file on the card speaks of. A day of sound has an index of 100 MB.
    av_max_alloc(MAX_ALLOCATION);
    // The library reads the UTC times of file names as local ones, so local time is UTC here.
    setenv("TZ", "UTC0", 1);
    tzset();
    if (!TOOL_OUTPUT_Init())
    {
        return TOOL_EXIT_FAILED;
    }
    CLI::App stApp("Records encoded video and audio into a folder and plays it back.", "quarrin");
    tagTOOL_OPTIONS_S stOptions;
    stApp.require_subcommand(0, 1);
    stApp.set_version_flag("--version", libquarrin::QN_LibVersion());
    stApp.failure_message([](const CLI::App *, const CLI::Error &) { return std::string(); });
    AddRecord(stApp, stOptions);
    AddList(stApp, stOptions);
    AddPlay(stApp, stOptions);
    AddSnapshot(stApp, stOptions);
    try
    {
        stApp.parse(argc, argv);
    }
    catch (const CLI::ParseError &stError)
    {
        std::ostringstream stHelp;
        if (stApp.exit(stError, stHelp, stHelp) == 0)
        {
            return TOOL_OUTPUT_Write(stHelp.str()) ? TOOL_EXIT_GOOD : TOOL_EXIT_FAILED;
        }
        TOOL_OUTPUT_Say("%s (--help lists the options)", FirstLine(stError.what()).c_str());
        return TOOL_EXIT_BAD_INPUT;
    }
    if (stApp.get_subcommands().empty())
    {
        TOOL_OUTPUT_Say("a subcommand is required (--help lists them)");
        return TOOL_EXIT_BAD_INPUT;
    }
    return RunCommand(stApp, stOptions);
}

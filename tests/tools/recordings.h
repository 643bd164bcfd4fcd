// Recordings that the tests share. Recording takes its time, and files shorter than 5 s are thrown away, so all of them
// are begun at once, before the first test.
#ifndef QUARRIN_TESTS_RECORDINGS_H
#define QUARRIN_TESTS_RECORDINGS_H

#include <string>
#include <vector>

#include "support/card.h"
#include "support/streams.h"
#include "tool_process.h"

/// A recording that was begun.
struct RECORDING_S
{
    std::string strStorage; ///< its storage folder
    std::unique_ptr<TOOL_PROCESS> pTool;

    /// Names in the folder of recordings, sorted.
    std::vector<std::string> Names() const;
    /// Path of a recording by its place in the order of names.
    std::string Path(size_t uNo = 0) const;
};

/// Media files made by ffmpeg for the tests, and the recordings.
class RECORDINGS
{
public:
    /// The one set of this process.
    static RECORDINGS &Get();

    /// Path of a media file: "clip.mp4" H.264 and AAC, 6 s; "clip265.mkv"; "clip.ts"; "long.ts" 5 minutes;
    /// "bframes.mp4"; "ntsc.mp4" 30000/1001 frames/s; "tone.m4a" audio alone; "mpeg2.mpg" nothing that can be recorded.
    std::string Media(const std::string &strName) const;

    /// A recording by its name; begun on the first call, of which there is one per name in Begin.
    RECORDING_S &Of(const std::string &strName);

    /// A new folder for a test.
    std::string NewFolder();

    /// Makes the media files and begins the recordings.
    void Begin();
    /// Ends what still runs and removes the files.
    void End();

private:
    void MakeMedia();
    RECORDING_S &Start(const std::string &strName, const std::string &strInput, const std::string &strOptions,
                       TOOL_START_S stStart = TOOL_START_S());
    void StartTest(const std::string &strName, const std::string &strOptions);
    void StartLive();

    std::unique_ptr<TEMP_DIR> m_pDir;
    std::vector<std::pair<std::string, std::unique_ptr<RECORDING_S>>> m_vecRecordings;
    std::unique_ptr<TOOL_PROCESS> m_pSender;
    int32_t m_s32Folders = 0;
};

/// Compares counts, keys and times of two files, each time counted from its stream's first packet. Audio of the first
/// file that comes before its first picture is not expected in the second: a recording begins with a picture.
void ExpectSameFrames(const TEST_MEDIA_S &stFrom, const TEST_MEDIA_S &stTo, int64_t s64ToleranceUs);

/// The packets of a file's stream.
std::vector<TEST_PACKET_S> VideoOf(const TEST_MEDIA_S &stMedia);
std::vector<TEST_PACKET_S> AudioOf(const TEST_MEDIA_S &stMedia);

#endif

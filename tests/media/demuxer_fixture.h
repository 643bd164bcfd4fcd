// Readers under test: files with any order of streams, written with libavformat itself, and frames taken from readers.
#ifndef QUARRIN_TESTS_DEMUXER_FIXTURE_H
#define QUARRIN_TESTS_DEMUXER_FIXTURE_H

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "libquarrin.h"
#include "support/capture.h"
#include "support/card.h"
#include "support/fake_platform.h"
#include "support/ffmpeg_calls.h"
#include "support/streams.h"

/// One stream of a file to write.
struct SOURCE_S
{
    int32_t s32CodecId = 0; ///< AVCodecID
    std::vector<TEST_FRAME_S> vecFrames;
    std::vector<uint8_t> vecExtradata;
    int32_t s32FrameNum = 1; ///< length of a frame, in seconds
    int32_t s32FrameDen = 25;
    int32_t s32SampleRate = 0; ///< audio
    int32_t s32Channels = 0;
    int32_t s32BitRate = 0;
    bool bDeclareRate = true; ///< video: the file says its frame rate
};

SOURCE_S SOURCE_H264(int32_t s32Fps = 25, int32_t s32Gop = 5, int32_t s32Frames = 15);
SOURCE_S SOURCE_H265(int32_t s32Fps = 25, int32_t s32Gop = 5, int32_t s32Frames = 15);
SOURCE_S SOURCE_Aac(int32_t s32SampleRate = 48000, int32_t s32Channels = 2);
SOURCE_S SOURCE_Mp3(); ///< silence, 44100 Hz, two channels
SOURCE_S SOURCE_Pcm(); ///< a codec that the reader does not know: 8000 Hz, one channel

/// Containers that can be read, the value of each and the name of its muxer.
struct CONTAINER_S
{
    libquarrin::QN_FILE_FMT_E enFormat;
    const char *pszMuxer;
};
extern const std::vector<CONTAINER_S> TEST_CONTAINERS;

/// Writes a file with the streams in the given order. False when libavformat refuses.
bool TEST_WriteMedia(const std::string &strPath, const std::string &strMuxer, const std::vector<SOURCE_S> &vecSources);

/// Raw AAC: the frames one behind the other.
void TEST_WriteAac(const std::string &strPath);

/// What FFMUXER_ReadGetFrame left; what it did not write is as it is here.
struct GOT_S
{
    int32_t s32Ret = -999;
    uint8_t *pu8Data = reinterpret_cast<uint8_t *>(0x1234);
    uint32_t u32Size = 4321;
    uint64_t u64Pts = 987654321;
    bool bKey = true;
    bool bVideo = true;

    bool IsUntouched() const;
    std::vector<uint8_t> Bytes() const;
};
GOT_S TEST_Get(void *pReader);

/// Frames up to the first failure.
struct READ_S
{
    std::vector<TEST_PACKET_S> vecFrames; ///< s32Stream is 1 for a frame that was called video, 0 for others
    int32_t s32End = -999;                ///< what the failing get returned
};
READ_S TEST_ReadAll(void *pReader, size_t u32Most = 100000);

/// A folder of its own, a quiet FFmpeg, a reader that is closed at the end.
class DEMUXER_TEST : public ::testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;

    std::string Path(const std::string &strName = "clip") const;

    /// Writes a file; the test goes on only when it is there.
    void Make(const std::string &strMuxer, const std::vector<SOURCE_S> &vecSources);

    /// Opens Path() in m_pReader; the test goes on only when it is open.
    void Open(libquarrin::QN_FILE_FMT_E enFormat);

    /// Make and Open.
    void MakeAndOpen(const CONTAINER_S &stContainer, const std::vector<SOURCE_S> &vecSources);

    /// Closes m_pReader.
    void Close();

    /// The one log line so far is exactly this one, and strPrinted is the same line on standard output.
    static void ExpectOneLine(const std::string &strPrinted, int32_t s32Level, const std::string &strFunc,
                              const std::string &strText);

    TEMP_DIR m_dir;
    void *m_pReader = nullptr;

private:
    int32_t m_s32Level = 0;
};

#endif

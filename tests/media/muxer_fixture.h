// Writers under test: parameters, short scripts that write files, and descriptors counted.
#ifndef QUARRIN_TESTS_MUXER_FIXTURE_H
#define QUARRIN_TESTS_MUXER_FIXTURE_H

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "libquarrin.h"
#include "support/capture.h"
#include "support/card.h"
#include "support/fake_platform.h"
#include "support/streams.h"

/// A folder of its own, a quiet FFmpeg.
class MUXER_TEST : public ::testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override; // closes the writer

    /// Path of a file in the folder.
    std::string Path(const std::string &strName = "clip") const;

    /// Parameters of one container with an H.264 stream, with H.265, with AAC, or with H.264 and AAC.
    static libquarrin::tagQN_RECORD_PARAM_S H264(int32_t s32Format);
    static libquarrin::tagQN_RECORD_PARAM_S H265(int32_t s32Format);
    static libquarrin::tagQN_RECORD_PARAM_S Aac(int32_t s32Format);
    static libquarrin::tagQN_RECORD_PARAM_S Both(int32_t s32Format);

    /// Opens m_pWriter on Path(); the test goes on only when it is open.
    void Open(libquarrin::tagQN_RECORD_PARAM_S stParam);

    /// Opens on Path() and expects a refusal that leaves no file, no descriptor and exactly these messages.
    void ExpectRefused(libquarrin::tagQN_RECORD_PARAM_S stParam, const std::vector<std::string> &vecTexts,
                       const std::string &strFunc = "FFMUXER_WriteOpen");

    /// Writes frame after frame; the first pts, and what each next one adds.
    void Write(const std::vector<TEST_FRAME_S> &vecFrames, bool bVideo, uint64_t u64First, uint64_t u64Step);
    void WriteOne(const TEST_FRAME_S &stFrame, bool bVideo, uint64_t u64Pts);

    /// Writes frames at the given pts.
    void WriteAt(const std::vector<TEST_FRAME_S> &vecFrames, bool bVideo, const std::vector<uint64_t> &vecPts);

    /// Closes the writer and reads Path() back.
    TEST_MEDIA_S Finish(bool bProbe = false, bool bDecode = false);

    TEMP_DIR m_dir;
    void *m_pWriter = nullptr;
};

/// Time stamps of the packets of a stream.
std::vector<int64_t> TEST_Stamps(const TEST_MEDIA_S &stMedia, int32_t s32Stream = 0);

/// Descriptors that the process has open.
std::vector<std::string> TEST_OpenFiles();

/// The bytes hold these bytes.
bool TEST_Holds(const std::vector<uint8_t> &vecBytes, const std::vector<uint8_t> &vecPart);

/// A parameter set without its four-byte start code.
std::vector<uint8_t> TEST_Payload(const libquarrin::tagQN_BYTES &stSet);

#endif

// What the tests of the examples share: a clip, a folder that stands for a card, and the look at what was recorded.
#ifndef QUARRIN_TESTS_EXAMPLES_EXAMPLES_TEST_H
#define QUARRIN_TESTS_EXAMPLES_EXAMPLES_TEST_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "libquarrin.h"
#include "support/card.h"
#include "support/streams.h"
#include "support/wait.h"
#include "tools/tool_process.h"

/// Frames of the clip: six seconds. A recording below five is removed.
constexpr int32_t CLIP_FRAMES = 150;
constexpr int32_t CLIP_FPS = 25;

/// Files have to grow five seconds old, and the machine may be busy.
constexpr int32_t EXAMPLE_WAIT_MS = 60000;

class ExampleTest : public ::testing::Test
{
protected:
    void SetUp() override;

    /// Writes a clip with the library's writer; its path. Its name is a recording's.
    std::string MakeClip(libquarrin::QN_CODEC_TYPE_E enCodec, libquarrin::QN_FILE_FMT_E enFormat) const;

    /// Makes an empty folder in the test's own; its path.
    std::string NewFolder(const std::string &strName) const;

    /// Starts a program.
    static std::unique_ptr<TOOL_PROCESS> Start(const std::string &strProgram, const std::vector<std::string> &vecArgs);

    /// Runs a program to its end.
    static TOOL_RESULT_S Run(const std::string &strProgram, const std::vector<std::string> &vecArgs);

    /// Waits until standard output holds a line so many times.
    static bool WaitForLine(TOOL_PROCESS &process, const std::string &strLine, int32_t s32Times = 1);

    /// Names of a folder's finished recordings with a tag, sorted; all with an empty one.
    static std::vector<std::string> Finished(const std::string &strFolder, const std::string &strTag = "");

    /// A media file is whole: begins with a key frame, has one frame after the other without a gap (unless the recorder
    /// has said that it lost some), and all of them decode. The number of its frames.
    static int32_t ExpectWhole(const std::string &strPath, bool bSomeLost = false);

    TEMP_DIR m_dir;
};

/// How often a text holds another one.
int32_t CountOf(const std::string &strText, const std::string &strPart);

#endif

// host, camera and own_layer on a plain folder.

#include <algorithm>
#include <csignal>

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "examples_test.h"

using namespace libquarrin;

namespace
{

class Host : public ExampleTest
{
};

class Camera : public ExampleTest
{
protected:
    // Files that take no room, with names and sizes of old recordings that use up the quota.
    static std::vector<std::string> FillWithOldFiles(const std::string &strFolder)
    {
        constexpr uint64_t MOST = 0xf0000000u; // sizes count modulo 2^32
        struct statvfs stFs = {};
        EXPECT_EQ(0, statvfs(strFolder.c_str(), &stFs));
        std::vector<std::string> vecPaths;
        uint64_t u64Left = uint64_t{stFs.f_blocks} * stFs.f_frsize;
        for (int32_t i = 0; u64Left > 0; i++)
        {
            const uint64_t u64Size = std::min(u64Left, MOST);
            u64Left -= u64Size;
            const time_t tStart = 1000000000 + i * 60;
            vecPaths.push_back(QN_STORAGE_GenerateRecordFile(strFolder.c_str(), ".", tStart, tStart + 60, "old", "ts"));
            TEST_Touch(vecPaths.back());
            EXPECT_EQ(0, truncate(vecPaths.back().c_str(), static_cast<off_t>(u64Size))) << vecPaths.back();
        }
        return vecPaths;
    }

    static void ExpectUsage(const std::vector<std::string> &vecArgs)
    {
        const TOOL_RESULT_S stResult = Run(EXAMPLE_CAMERA, vecArgs);
        EXPECT_EQ(2, stResult.s32Status);
        EXPECT_EQ(0u, stResult.strErr.find("usage: camera"));
        EXPECT_EQ("", stResult.strOut);
    }
};

class OwnLayer : public ExampleTest
{
};

std::string CodeBlock(const std::string &strText)
{
    const std::string strBegin = "## A host in 25 lines\n\n```cpp\n";
    const size_t uBegin = strText.find(strBegin);
    const size_t uEnd = uBegin == std::string::npos ? uBegin : strText.find("```", uBegin + strBegin.size());
    return uEnd == std::string::npos ? "" : strText.substr(uBegin + strBegin.size(), uEnd - uBegin - strBegin.size());
}

} // namespace

TEST_F(Host, StandsInTheReadmeToTheLetter)
{
    const std::string strFile = TEST_ReadFile(QUARRIN_SOURCE "/examples/host.cpp");
    EXPECT_NE("", strFile);
    EXPECT_EQ(strFile, CodeBlock(TEST_ReadFile(QUARRIN_SOURCE "/README.md")));
}

TEST_F(Host, RecordsTheClipFrameForFrame)
{
    const std::string strClip = MakeClip(QN_CODEC_H264, QN_FILE_FMT_E_TS);
    const std::string strFolder = NewFolder("card");
    const TOOL_RESULT_S stResult = Run(EXAMPLE_HOST, {"/dev/null", strFolder, strClip});
    EXPECT_EQ(0, stResult.s32Status) << stResult.strErr;
    const std::vector<std::string> vecNames = TEST_List(strFolder + "/rec");
    ASSERT_EQ(1u, vecNames.size());
    EXPECT_NE(std::string::npos, vecNames[0].find(".[front].ts"));
    EXPECT_EQ(CLIP_FRAMES, ExpectWhole(strFolder + "/rec/" + vecNames[0]));
}

TEST_F(Host, EndsWithoutArgumentsAndWithoutAClip)
{
    EXPECT_EQ(2, Run(EXAMPLE_HOST, {}).s32Status);
    EXPECT_EQ(1, Run(EXAMPLE_HOST, {"/dev/null", NewFolder("card"), m_dir.strPath + "/none.ts"}).s32Status);
}

TEST_F(Camera, RecordsTwoViewsWithSplitsUntilASignal)
{
    const std::string strClip = MakeClip(QN_CODEC_H265, QN_FILE_FMT_E_MKV);
    const std::string strFolder = NewFolder("card");
    const auto pCamera = Start(EXAMPLE_CAMERA, {"/dev/null", strFolder, strClip, "--split", "5"});
    ASSERT_TRUE(WaitForLine(*pCamera, "card: mounted"));
    const std::string strRec = strFolder + "/rec";
    const auto fnSplit = [&]
    {
        return Finished(strRec, "[front].mkv").size() >= 2 && Finished(strRec, "[rear].ts").size() >= 2;
    };
    EXPECT_TRUE(TEST_WaitFor(fnSplit, EXAMPLE_WAIT_MS)) << pCamera->Out() << pCamera->Err();
    pCamera->Signal(SIGTERM);
    pCamera->Signal(SIGINT); // a second one changes nothing
    EXPECT_EQ(0, pCamera->Wait());
    const std::string strOut = pCamera->Out();
    for (const char *pszView : {"front", "rear"})
    {
        EXPECT_EQ(1, CountOf(strOut, std::string(pszView) + ": recording\n")) << strOut;
        EXPECT_EQ(1, CountOf(strOut, std::string(pszView) + ": stopped, camera ends\n")) << strOut;
    }
    // A machine that stands still for seconds makes the queue overflow, and the camera says so. A shorter standstill
    // puts the frames of one file into the next.
    const bool bSomeLost = strOut.find("frames are lost") != std::string::npos;
    int32_t s32Front = 0;
    int32_t s32Rear = 0;
    for (const std::string &strName : TEST_List(strRec))
    {
        EXPECT_EQ(std::string::npos, strName.find("unknown")) << strName;
        const int32_t s32Frames = ExpectWhole(strRec + "/" + strName, bSomeLost);
        EXPECT_GT(s32Frames, 0);
        (strName.find("[front]") != std::string::npos ? s32Front : s32Rear) += s32Frames;
    }
    EXPECT_GE(s32Front, bSomeLost ? 2 : 5 * CLIP_FPS);
    EXPECT_GE(s32Rear, bSomeLost ? 2 : 5 * CLIP_FPS);
}

TEST_F(Camera, WaitsForRoomOnAFullCardAndOverwritesWhenItMay)
{
    const std::string strClip = MakeClip(QN_CODEC_H264, QN_FILE_FMT_E_TS);
    const std::string strFolder = NewFolder("card");
    const std::string strRec = NewFolder("card/rec");
    const std::vector<std::string> vecOld = FillWithOldFiles(strRec);
    const auto pCamera = Start(EXAMPLE_CAMERA, {"/dev/null", strFolder, strClip, "--keep"});
    ASSERT_TRUE(WaitForLine(*pCamera, "storage: full"));
    ASSERT_TRUE(WaitForLine(*pCamera, "front: stopped, storage full"));
    ASSERT_TRUE(WaitForLine(*pCamera, "rear: stopped, storage full"));
    for (const std::string &strPath : vecOld)
    {
        EXPECT_EQ(0, unlink(strPath.c_str())); // nothing was deleted before
    }
    ASSERT_TRUE(WaitForLine(*pCamera, "storage: has room"));
    ASSERT_TRUE(WaitForLine(*pCamera, "front: recording", 2));

    FillWithOldFiles(strRec);
    ASSERT_TRUE(WaitForLine(*pCamera, "storage: full", 2));
    ASSERT_TRUE(WaitForLine(*pCamera, "rear: stopped, storage full", 2));
    pCamera->Signal(SIGUSR1);
    ASSERT_TRUE(WaitForLine(*pCamera, "storage: has room", 2));
    ASSERT_TRUE(WaitForLine(*pCamera, "rear: recording", 3));
    EXPECT_TRUE(TEST_WaitFor([&] { return !TEST_Exists(vecOld[0]); }, EXAMPLE_WAIT_MS));
    pCamera->Signal(SIGINT);
    EXPECT_EQ(0, pCamera->Wait());
}

TEST_F(Camera, BeginsANewFileWhenNothingReachesTheCardAnyMore)
{
    TOOL_START_S stStart;
    const std::string strFolder = NewFolder("card");
    stStart.strProgram = EXAMPLE_CAMERA;
    stStart.vecArgs = {"/dev/null", strFolder, MakeClip(QN_CODEC_H264, QN_FILE_FMT_E_TS)};
    stStart.u64LargestFile = 30000; // two to three seconds; what is behind it is refused, and still counted as written
    TOOL_PROCESS camera(stStart);
    ASSERT_TRUE(WaitForLine(camera, "rear: stopped, nothing reaches the card any more"));
    ASSERT_TRUE(WaitForLine(camera, "rear: recording", 2));
    camera.Signal(SIGTERM);
    EXPECT_EQ(0, camera.Wait());
}

TEST_F(Camera, RefusesWhatItCannotWorkWith)
{
    const std::string strClip = MakeClip(QN_CODEC_H264, QN_FILE_FMT_E_TS);
    const std::string strFolder = NewFolder("card");
    ExpectUsage({});
    ExpectUsage({"/dev/null", strFolder, strClip, "--split", "4"});
    ExpectUsage({"/dev/null", strFolder, strClip, "--unknown"});
    const std::vector<std::pair<std::vector<std::string>, std::string>> vecCases = {
        {{"/dev/null", strFolder + "/none", strClip}, "there is no folder"},
        {{"/dev/null", "card", strClip}, "absolute paths"},
        {{"/dev/null", "/tmp/a;b", strClip}, "absolute paths"},
        {{"/dev/null", "/proc", strClip}, "is a mount point"},
        {{"/dev/null", strClip, strClip}, "is no folder"},
        {{"/dev/quarrin-none", strFolder, strFolder + "/none.ts"}, "cannot be read as a .ts file"},
    };
    for (const auto &[vecArgs, strSentence] : vecCases)
    {
        const TOOL_RESULT_S stResult = Run(EXAMPLE_CAMERA, vecArgs);
        EXPECT_EQ(1, stResult.s32Status);
        EXPECT_NE(std::string::npos, stResult.strErr.find(strSentence)) << strSentence << ": " << stResult.strErr;
    }
    EXPECT_FALSE(TEST_Exists(strFolder)); // empty, and taken for what an earlier run left of a card that is not in
    NewFolder("card");
    TEST_Touch(strFolder + "/file");
    const TOOL_RESULT_S stResult = Run(EXAMPLE_CAMERA, {"/dev/quarrin-none", strFolder, strClip});
    EXPECT_EQ(1, stResult.s32Status);
    EXPECT_NE(std::string::npos, stResult.strErr.find("a mount point of its own")) << stResult.strErr;
    EXPECT_TRUE(TEST_Exists(strFolder + "/file"));
}

TEST_F(OwnLayer, RecordsTheClipIntoAPlainFolder)
{
    const std::string strClip = MakeClip(QN_CODEC_H264, QN_FILE_FMT_E_MP4);
    const std::string strFolder = NewFolder("card");
    const TOOL_RESULT_S stResult = Run(EXAMPLE_OWN_LAYER, {"/dev/null", strFolder, strClip});
    EXPECT_EQ(0, stResult.s32Status) << stResult.strErr;
    EXPECT_NE(std::string::npos, stResult.strErr.find("result 0 of: mkdir -p " + strFolder + "/rec\n"));
    EXPECT_NE(std::string::npos,
              stResult.strErr.find("result 1 of: umount " + strFolder + "; rm -rf")); // no mount point
    const std::vector<std::string> vecNames = TEST_List(strFolder + "/rec");
    ASSERT_EQ(1u, vecNames.size());
    EXPECT_EQ(CLIP_FRAMES, ExpectWhole(strFolder + "/rec/" + vecNames[0]));
}

TEST_F(OwnLayer, HasNothingOfThePlatformLayerInIt)
{
    // Names of functions, in the symbol table; messages would do for a stripped program.
    const std::string strOwn = TEST_ReadFile(EXAMPLE_OWN_LAYER_FILE);
    const std::string strCamera = TEST_ReadFile(EXAMPLE_CAMERA_FILE);
    for (const char *pszTrace : {"PLATFORM_Unmount", "PLATFORM_", "refused, since it removes something else"})
    {
        EXPECT_NE(std::string::npos, strCamera.find(pszTrace)) << pszTrace;
        EXPECT_NE("", strOwn);
        EXPECT_EQ(std::string::npos, strOwn.find(pszTrace)) << pszTrace;
    }
}

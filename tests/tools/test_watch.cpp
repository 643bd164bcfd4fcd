// The watch on a storage that counts as full: the quota is reached, or nobody knows how large the file system is.

#include "record_watch.h"

#include <atomic>
#include <cerrno>
#include <ctime>

#include <dlfcn.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "../support/wait.h"
#include "storage_handle.h"
#include "support/scratch.h"

static std::atomic<int32_t> s_s32StatvfsErrno{0};

// Stands before the C library's.
extern "C" int statvfs(const char *path, struct statvfs *result) noexcept
{
    using STATVFS = int (*)(const char *, struct statvfs *);
    static const auto s_pfnReal = reinterpret_cast<STATVFS>(dlsym(RTLD_NEXT, "statvfs64"));
    if (s_s32StatvfsErrno != 0)
    {
        errno = s_s32StatvfsErrno;
        return -1;
    }
    return s_pfnReal(path, result);
}

class Watch : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_strDir = TEST_MakeScratch("quarrin-watch");
        ASSERT_NE("", m_strDir);
    }

    void TearDown() override
    {
        s_s32StatvfsErrno = 0;
        if (m_stWatch.pSession != nullptr)
        {
            EXPECT_EQ(0u, libquarrin::QN_RecordDestroy(m_stWatch.pSession));
        }
        m_pStorage.reset();
        EXPECT_TRUE(TEST_RemoveScratch(m_strDir));
    }

    /// A recording that deletes nothing, with its watch.
    void Begin(uint32_t u32Bytes, uint32_t u32Percent)
    {
        std::string strError;
        const tagTOOL_QUOTA_S stQuota = {u32Bytes, u32Percent, true};
        ASSERT_TRUE(TOOL_STORAGE_Prepare(m_strDir, strError)) << strError;
        m_pStorage = TOOL_STORAGE_Open(m_strDir, stQuota, strError);
        ASSERT_NE(nullptr, m_pStorage) << strError;
        libquarrin::tagQN_RECORD_PARAM_S stParam = {};
        stParam.enFormat = libquarrin::QN_FILE_FMT_E_TS;
        stParam.stAudio.bEnable = 1;
        stParam.stAudio.enCodec = libquarrin::QN_CODEC_AAC;
        stParam.stAudio.u32Width = 48000;
        stParam.stAudio.u32Height = 2;
        libquarrin::tagQN_RECORD_HANDLER_S *pSession = nullptr;
        ASSERT_EQ(0u, libquarrin::QN_RecordInit(m_pStorage.get(), &stParam, pSession));
        ASSERT_EQ(0u, libquarrin::QN_RecordStart(pSession, nullptr));
        TOOL_WATCH_Begin(m_stWatch, m_pStorage.get(), pSession);
    }

    /// Lets the library check the quota.
    void Check()
    {
        EXPECT_EQ(0u, libquarrin::QN_RecordStorageUpdate(m_pStorage.get(), libquarrin::QN_VOLUME_ID_E_0, 0));
    }

    bool WaitForState(libquarrin::QN_STORAGE_STATE_E enState)
    {
        return TEST_WaitFor([this, enState] { return m_pStorage->enStorageState.load() == enState; });
    }

    /// What the watch says within s32Ms; empty when it says nothing.
    std::string Look(int32_t s32Ms)
    {
        std::string strText;
        (void)TEST_WaitFor(
            [this, &strText]
            {
                strText = TOOL_WATCH_Look(m_stWatch);
                return !strText.empty();
            },
            s32Ms);
        return strText;
    }

    std::string m_strDir;
    TOOL_STORAGE m_pStorage;
    tagTOOL_WATCH_S m_stWatch;
};

TEST_F(Watch, SaysOnceThatTheFileSystemDoesNotTellItsSizeAndGoesOn)
{
    ASSERT_NO_FATAL_FAILURE(Begin(0, 80));
    s_s32StatvfsErrno = EIO;
    Check();
    ASSERT_TRUE(WaitForState(libquarrin::QN_STORAGE_STATE_E_FULL));
    EXPECT_EQ("", Look(600));
    EXPECT_NE(std::string::npos, m_stWatch.strWarning.find("does not tell its size: Input/output error"))
        << m_stWatch.strWarning;
    m_stWatch.strWarning.clear();
    EXPECT_EQ("", Look(600));
    EXPECT_EQ("", m_stWatch.strWarning);
    s_s32StatvfsErrno = 0;
    EXPECT_TRUE(WaitForState(libquarrin::QN_STORAGE_STATE_E_NORMAL)) << "the library asks again";
    EXPECT_EQ("", Look(600));
    EXPECT_FALSE(m_stWatch.bFull);
}

TEST_F(Watch, EndsNoRecordingWhoseLibraryMissedOneAnswer)
{
    ASSERT_NO_FATAL_FAILURE(Begin(0, 80));
    s_s32StatvfsErrno = EIO;
    Check();
    ASSERT_TRUE(WaitForState(libquarrin::QN_STORAGE_STATE_E_FULL));
    s_s32StatvfsErrno = 0; // the watch itself gets its answer
    EXPECT_EQ("", Look(500));
    EXPECT_TRUE(WaitForState(libquarrin::QN_STORAGE_STATE_E_NORMAL));
    EXPECT_EQ("", Look(500));
    EXPECT_EQ("", m_stWatch.strWarning);
}

TEST_F(Watch, EndsARecordingWhosePartOfTheFileSystemIsTakenForGood)
{
    ASSERT_NO_FATAL_FAILURE(Begin(0, 80));
    m_pStorage->astVolume[0].u32ReserveBytes = 0xffffffffu;
    m_pStorage->astVolume[0].u32QuotaPercent = 0;
    Check();
    ASSERT_TRUE(WaitForState(libquarrin::QN_STORAGE_STATE_E_FULL));
    EXPECT_EQ("storage full", Look(7000));
}

TEST_F(Watch, EndsARecordingAtOnceWhoseBytesAreTaken)
{
    ASSERT_NO_FATAL_FAILURE(Begin(1, 0));
    m_pStorage->astVolume[0].u32ReserveBytes = 1;
    Check();
    ASSERT_TRUE(WaitForState(libquarrin::QN_STORAGE_STATE_E_FULL));
    EXPECT_EQ("storage full", Look(1000));
}

TEST_F(Watch, CallsAFileStuckThatTakesNoFrameOfAnyStream)
{
    using namespace std::chrono_literals;
    ASSERT_NO_FATAL_FAILURE(Begin(100000000, 0));
    const auto Look = [this]
    {
        m_stWatch.stLastLook = {}; // at once
        return TOOL_WATCH_Look(m_stWatch);
    };
    EXPECT_EQ("", Look()); // sees what the begin wrote
    m_stWatch.au64Fed[0] = 1;
    EXPECT_EQ("", Look()) << "the frame has just come, however long there was none";
    m_stWatch.stAllFed -= 9s;
    EXPECT_EQ("not growing: the file does not take the frames", Look());

    m_stWatch.pSession->stParam.stVideo.bEnable = 1; // sound may wait for the pictures of a slow encoder
    EXPECT_EQ("", Look());
    m_stWatch.stAnyFed -= 9s;
    EXPECT_EQ("", Look());
    m_stWatch.stAnyFed -= 10s;
    EXPECT_EQ("not growing: the file does not take the frames", Look()) << "not for good";
    m_stWatch.stAnyFed += 19s;
    m_stWatch.au64Fed[1] = 1;
    EXPECT_NE("", Look()) << "pictures came";
    m_stWatch.s64OnDisk = 12345; // another size than before: it grows
    EXPECT_EQ("", Look());
    m_stWatch.pSession->stParam.stVideo.bEnable = 0;
}

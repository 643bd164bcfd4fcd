// A card from a stranger whose volume folder is no folder of the card: a link out of it, a file, another file system.

#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "storage/failing_calls.h"
#include "storage/quota_test.h"

using namespace libquarrin;

namespace
{

using STRINGS = std::vector<std::string>;

class VolumeFolder : public QUOTA_TEST
{
protected:
    void SetUp() override
    {
        CARD_TEST::SetUp();
        InitMounted();
        FAKE_PLATFORM_Reset();
        m_strHost = m_dir.strPath + "/host";
        ASSERT_EQ(0, mkdir(m_strHost.c_str(), 0755));
        m_strHostFile = TEST_Touch(m_strHost + "/" + NAME, "the host's");
        SetQuota(1, 0, true); // whatever is there is too much
    }

    /// Puts a link to the host's folder in the place of a volume's.
    void LinkToHost(int32_t s32Volume = 0)
    {
        ASSERT_EQ(0, rmdir(Folder(s32Volume).c_str()));
        ASSERT_EQ(0, symlink(m_strHost.c_str(), Folder(s32Volume).c_str()));
    }

    /// Gives volume 0 the folder "a/rec" below a link, or below a real directory.
    void MoveBelow(bool bLink)
    {
        const std::string strAbove = m_strMount + "/a";
        ASSERT_EQ(0, mkdir((m_strHost + "/rec").c_str(), 0755));
        ASSERT_EQ(0, bLink ? symlink(m_strHost.c_str(), strAbove.c_str()) : mkdir(strAbove.c_str(), 0755));
        m_pHandle->astVolume[0].pszFolder = "a/rec";
        m_strHostFile = TEST_Touch(m_strHost + "/rec/" + NAME, "the host's");
    }

    /// Nothing of what stands in place of volume 0 is counted, deleted or listed, and one line says why.
    void ExpectRefused(const std::string &strWhy)
    {
        EXPECT_EQ(0, Check());
        EXPECT_EQ(0, Check());
        EXPECT_TRUE(FAKE_PLATFORM_Logged("Quota[0] quota:1 0B|1B|1B"));
        EXPECT_TRUE(FAKE_PLATFORM_Logged("Quota[0] remove finsih 0B|1B|1B"));
        EXPECT_EQ("the host's", TEST_ReadFile(m_strHostFile));
        tagQN_FILE_INFO_S stBefore;
        stBefore.strName = "before";
        std::vector<tagQN_FILE_INFO_S> vecFiles = {stBefore};
        EXPECT_EQ(7u, QN_ReplayListFile(m_pHandle, QN_VOLUME_ID_E_0, &vecFiles));
        EXPECT_EQ(1u, vecFiles.size());
        EXPECT_EQ(7u, OpenByName());
        EXPECT_EQ(1, Refusals());
        EXPECT_TRUE(FAKE_PLATFORM_Logged("folder " + m_strMount + "/" + m_pHandle->astVolume[0].pszFolder +
                                         " is refused: " + strWhy));
        EXPECT_EQ(STRINGS{}, TEST_OpenBelow(m_strMount));
    }

    uint32_t OpenByName()
    {
        tagQN_REPLAY_HANDLER_S *pReplay = nullptr;
        const uint32_t u32Result = QN_ReplayOpenByFileName(m_pHandle, NAME, tagQN_REPLAY_PARAM_S{}, pReplay);
        EXPECT_TRUE(
            FAKE_PLATFORM_LoggedExactly(3, "QN_ReplayOpenByFileName", std::string("file ") + NAME + " not exist"));
        EXPECT_EQ(nullptr, pReplay);
        return u32Result;
    }

    /// How often a folder was refused aloud.
    static int32_t Refusals()
    {
        int32_t s32Count = 0;
        for (const FAKE_LOG_S &stLog : FAKE_PLATFORM_Logs())
        {
            s32Count += stLog.s32Level == 3 && stLog.strText.find("is refused") != std::string::npos ? 1 : 0;
        }
        return s32Count;
    }

    static constexpr const char *NAME = "2024-01-01-00-00-00.To.2024-01-01-00-05-00.ts";
    std::string m_strHost;     ///< a folder that is none of the card's
    std::string m_strHostFile; ///< a recording in it
};

} // namespace

TEST_F(VolumeFolder, ThatIsALinkIsRefused)
{
    ASSERT_NO_FATAL_FAILURE(LinkToHost());
    ExpectRefused("its name goes through a symbolic link");
}

TEST_F(VolumeFolder, ThatIsALinkWithinTheCardIsRefusedToo)
{
    ASSERT_EQ(0, rmdir(Folder(0).c_str()));
    ASSERT_EQ(0, symlink("photo", Folder(0).c_str()));
    m_strHostFile = TEST_Touch(Folder(1) + "/" + NAME, "the host's");
    m_pHandle->astVolume[1].bEnable = 0;
    ExpectRefused("its name goes through a symbolic link");
}

TEST_F(VolumeFolder, ThatIsALinkToNothingIsRefused)
{
    ASSERT_EQ(0, rmdir(Folder(0).c_str()));
    ASSERT_EQ(0, symlink("/nowhere", Folder(0).c_str()));
    ExpectRefused("its name goes through a symbolic link");
}

TEST_F(VolumeFolder, BelowALinkIsRefused)
{
    ASSERT_NO_FATAL_FAILURE(MoveBelow(true));
    ExpectRefused("its name goes through a symbolic link");
}

TEST_F(VolumeFolder, ThatIsAFileOrAFifoIsRefused)
{
    ASSERT_EQ(0, rmdir(Folder(0).c_str()));
    TEST_Touch(Folder(0));
    ExpectRefused("it is no directory");
    QN_EVENT_PushEvent(m_pHandle, QN_EVENT_E_HOTPLUG_IN, nullptr); // the next mount
    ASSERT_TRUE(WaitForIdle() && WaitForIdle());
    FAKE_PLATFORM_Reset();
    ASSERT_EQ(0, unlink(Folder(0).c_str()));
    ASSERT_EQ(0, mkfifo(Folder(0).c_str(), 0600)); // nobody waits for its other end
    ExpectRefused("it is no directory");
}

TEST_F(VolumeFolder, OnAnotherFileSystemIsRefused)
{
    if (mount("tmpfs", Folder(0).c_str(), "tmpfs", 0, "size=64k") != 0)
    {
        ASSERT_EQ(EPERM, errno);
        GTEST_SKIP() << "mounting a file system takes root's rights";
    }
    m_strHostFile = TEST_Touch(Folder(0) + "/" + NAME, "the host's");
    ExpectRefused("it is on another file system than the mount point");
    EXPECT_EQ(0, umount(Folder(0).c_str()));
}

TEST_F(VolumeFolder, OfSeveralRealComponentsIsGood)
{
    ASSERT_NO_FATAL_FAILURE(MoveBelow(false));
    ASSERT_EQ(0, mkdir((m_strMount + "/a/rec").c_str(), 0755));
    const std::string strFile = TEST_Touch(m_strMount + "/a/rec/" + NAME, "xx");
    for (const char *pszFolder : {"a/rec", "/a//rec/", "./a/rec"})
    {
        m_pHandle->astVolume[0].pszFolder = pszFolder;
        std::vector<tagQN_FILE_INFO_S> vecFiles;
        EXPECT_EQ(0u, QN_ReplayListFile(m_pHandle, QN_VOLUME_ID_E_0, &vecFiles));
        EXPECT_EQ(1u, vecFiles.size()) << pszFolder;
    }
    EXPECT_EQ(0, Check());
    EXPECT_FALSE(TEST_Exists(strFile));
    EXPECT_EQ(0, Refusals());
}

TEST_F(VolumeFolder, OfAMountPointThatIsALinkIsGood)
{
    const std::string strReal = m_strMount + ".real";
    ASSERT_EQ(0, rename(m_strMount.c_str(), strReal.c_str()));
    ASSERT_EQ(0, symlink(strReal.c_str(), m_strMount.c_str()));
    const std::string strFile = AddFile(1, 100);
    std::vector<tagQN_FILE_INFO_S> vecFiles;
    EXPECT_EQ(0u, QN_ReplayListFile(m_pHandle, QN_VOLUME_ID_E_0, &vecFiles));
    EXPECT_EQ(1u, vecFiles.size());
    EXPECT_EQ(0, Check());
    EXPECT_FALSE(TEST_Exists(strFile));
    EXPECT_EQ(0, Refusals());
}

TEST_F(VolumeFolder, ThatIsMissingIsNoRefusal)
{
    ASSERT_EQ(0, rmdir(Folder(0).c_str()));
    EXPECT_EQ(0, Check());
    std::vector<tagQN_FILE_INFO_S> vecFiles(1);
    EXPECT_EQ(0u, QN_ReplayListFile(m_pHandle, QN_VOLUME_ID_E_0, &vecFiles));
    EXPECT_EQ(1u, vecFiles.size()); // as it was
    EXPECT_EQ(7u, OpenByName());
    EXPECT_EQ(0, Refusals());
}

TEST_F(VolumeFolder, ThatIsALinkHidesNoFileOfTheNextVolume)
{
    ASSERT_NO_FATAL_FAILURE(LinkToHost());
    const std::string strSecond = TEST_Touch(Folder(1) + "/" + NAME, "no media");
    tagQN_REPLAY_HANDLER_S *pReplay = nullptr;
    EXPECT_EQ(7u, QN_ReplayOpenByFileName(m_pHandle, NAME, tagQN_REPLAY_PARAM_S{}, pReplay));
    EXPECT_FALSE(FAKE_PLATFORM_Logged("not exist")); // it was found, and is no recording
}

TEST_F(VolumeFolder, IsRefusedAloudOnceAVolumeAndMount)
{
    ASSERT_NO_FATAL_FAILURE(LinkToHost(0));
    ASSERT_NO_FATAL_FAILURE(LinkToHost(1));
    EXPECT_EQ(0, Check(0));
    EXPECT_EQ(0, Check(1));
    EXPECT_EQ(0, Check(1));
    EXPECT_EQ(2, Refusals());
    for (const QN_EVENT_E enEvent : {QN_EVENT_E_HOTPLUG_OUT, QN_EVENT_E_HOTPLUG_IN})
    {
        QN_EVENT_PushEvent(m_pHandle, enEvent, nullptr);
    }
    ASSERT_TRUE(WaitForIdle() && WaitForIdle());
    EXPECT_EQ(0, Check(0));
    EXPECT_EQ(0, Check(0));
    EXPECT_EQ(3, Refusals());
    EXPECT_EQ(0u, QN_StorageUnMount(m_pHandle));
    EXPECT_EQ(0u, QN_StorageMount(m_pHandle));
    EXPECT_EQ(0, Check(0));
    EXPECT_EQ(4, Refusals());
}

TEST_F(VolumeFolder, IsMadeOnlyWhereNoLinkLeadsOutOfTheCard)
{
    ASSERT_NO_FATAL_FAILURE(MoveBelow(true));
    ASSERT_NO_FATAL_FAILURE(LinkToHost(2));
    QN_EVENT_PushEvent(m_pHandle, QN_EVENT_E_MOUNT_DONE, nullptr);
    ASSERT_TRUE(WaitForIdle());
    // Where the link stands in the very place nothing can come of the line.
    EXPECT_EQ((STRINGS{"mkdir -p " + Folder(1), "mkdir -p " + Folder(2)}), FAKE_PLATFORM_Commands());
    EXPECT_EQ(1, Refusals());
}

TEST_F(VolumeFolder, ThatIsExchangedWhileItsFilesAreDeletedEndsTheDeletion)
{
    const std::string strFirst = AddFile(1, 100);
    TEST_Touch(m_strHost + "/2024-01-02-00-00-00.To.2024-01-02-00-05-00.ts", "the host's");
    const std::string strSecond = AddFile(2, 100);
    const auto fnExchange = [this](const std::string & /*strPath*/)
    {
        if (rename(Folder(0).c_str(), (Folder(0) + ".away").c_str()) == 0)
        {
            EXPECT_EQ(0, symlink(m_strHost.c_str(), Folder(0).c_str()));
        }
    };
    // The first file is lost to the test: it is removed behind the exchange.
    TEST_BeforeRemove(fnExchange, [this] { EXPECT_EQ(0, Check()); });
    EXPECT_EQ((STRINGS{"2024-01-02-00-00-00.To.2024-01-02-00-05-00.ts"}), TEST_List(m_strHost));
    EXPECT_FALSE(LoggedInfo("Quota[0] remove " + strSecond));
    EXPECT_TRUE(LoggedInfo("Quota[0] remove " + strFirst));
    unlink(Folder(0).c_str());
}

TEST_F(VolumeFolder, OfAnotherCardInItsPlaceEndsTheDeletion)
{
    // Two cards made alike: their folders have one number, on file systems of their own.
    const auto fnPutIn = [this]
    {
        return mount("tmpfs", m_strMount.c_str(), "tmpfs", 0, "size=64k") == 0 && mkdir(Folder(0).c_str(), 0755) == 0;
    };
    if (!fnPutIn())
    {
        ASSERT_EQ(EPERM, errno);
        GTEST_SKIP() << "mounting a file system takes root's rights";
    }
    const std::string strFirst = AddFile(1, 100);
    const std::string strSecond = AddFile(2, 100);
    const int s32Keep =
        open(Folder(0).c_str(), O_RDONLY | O_CLOEXEC); // so that the other one gets no number of the first's
    bool bExchanged = false;
    const auto fnExchange = [&](const std::string & /*strPath*/)
    {
        if (!bExchanged)
        {
            bExchanged = true;
            EXPECT_EQ(0, umount2(m_strMount.c_str(), MNT_DETACH));
            EXPECT_TRUE(fnPutIn());
            TEST_Touch(strSecond, "the other card's");
        }
    };
    TEST_BeforeRemove(fnExchange, [this] { EXPECT_EQ(0, Check()); });
    EXPECT_EQ("the other card's", TEST_ReadFile(strSecond));
    EXPECT_TRUE(LoggedInfo("Quota[0] remove " + strFirst));
    EXPECT_FALSE(LoggedInfo("Quota[0] remove " + strSecond));
    close(s32Keep);
    EXPECT_EQ(0, umount2(m_strMount.c_str(), MNT_DETACH));
}

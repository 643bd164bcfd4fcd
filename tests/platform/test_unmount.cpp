// The unmount line: a card is taken off, and nobody's files are lost.

#include <fcntl.h>
#include <sys/mount.h>

#include "helpers.h"
#include "mount_table.h"
#include "quarrin_platform.h"
#include "unmount.h"

namespace
{

std::string UnmountLine(const std::string &strPath)
{
    return "umount " + strPath + "; rm -rf " + strPath;
}

int32_t RunUnmountLine(const std::string &strPath)
{
    return QN_PLATFORM_RunCommand(UnmountLine(strPath).c_str());
}

PLATFORM_LINE_E Classify(const std::string &strLine)
{
    std::string strPath;
    return PLATFORM_ClassifyLine(strLine, strPath);
}

} // namespace

TEST(UnmountLine, IsKnownByItsTwoEqualPaths)
{
    for (const std::string strWanted : {"/mnt", "/media/my card", "/a; rm -rf /a", "m", "/a;b $HOME `x`"})
    {
        std::string strPath;
        EXPECT_EQ(PLATFORM_LINE_UNMOUNT, PLATFORM_ClassifyLine(UnmountLine(strWanted), strPath)) << strWanted;
        EXPECT_EQ(strWanted, strPath);
    }
}

TEST(UnmountLine, IsDangerousInEveryOtherForm)
{
    for (const char *pszLine :
         {"umount /a; rm -rf /b", "umount /a; rm -rf /aa", "umount /aa; rm -rf /a", "umount /a; rm -rf /",
          "umount /a && rm -rf /a", " umount /a; rm -rf /a", "umount /a; rm -rf /a ", "umount  /a; rm -rf /a",
          "umount ; rm -rf ", "umount -l /a; rm -rf /a", "umount /a;/bin/rm -rf /a", "umount /a\nrm -r /a"})
    {
        EXPECT_EQ(PLATFORM_LINE_DANGEROUS, Classify(pszLine)) << pszLine;
    }
}

TEST(UnmountLine, LeavesOrdinaryLinesToTheShell)
{
    for (const char *pszLine : {"", "umount", "umount /mnt/storm", "umount /mnt/alarm x", "rm -rf /a", "rmdir /a",
                                "mv \"/a/umount x; rm -rf x\" /b", "mkdir -p /a; mount /dev/sda1 /a"})
    {
        EXPECT_EQ(PLATFORM_LINE_ORDINARY, Classify(pszLine)) << pszLine;
    }
}

TEST(MountTable, IsReadWithItsOctalEscapes)
{
    const std::string strTable = "22 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n"
                                 "40 22 0:36 /sub /media/my\\040card rw - tmpfs none rw\n"
                                 "41 22 0:37 / /media/tab\\011line\\012back\\134slash rw - tmpfs /wrong rw\n";
    EXPECT_TRUE(PLATFORM_TableHasMount(strTable, "/"));
    EXPECT_TRUE(PLATFORM_TableHasMount(strTable, "/media/my card"));
    EXPECT_TRUE(PLATFORM_TableHasMount(strTable, "/media/tab\tline\nback\\slash"));
    for (const char *pszPath : {"/media", "/media/my", "/sub", "/wrong", "/media/my\\040card", "/media/my card/", ""})
    {
        EXPECT_FALSE(PLATFORM_TableHasMount(strTable, pszPath)) << pszPath;
    }
    EXPECT_FALSE(PLATFORM_TableHasMount("short line\n\n", "line"));
}

class UnmountFolder : public DIR_TEST
{
};

TEST_F(UnmountFolder, LeavesAFolderAloneThatNeverWasAMountPoint)
{
    const std::string strFolder = MakeFolder("plain");
    const std::string strFile = MakeFile("plain/file");
    EXPECT_NE(0, RunUnmountLine(strFolder));
    EXPECT_EQ("kept", ReadFile(strFile));
}

TEST_F(UnmountFolder, LeavesAnEmptyFolderAloneThatNeverWasAMountPoint)
{
    const std::string strFolder = MakeFolder("plain");
    EXPECT_NE(0, RunUnmountLine(strFolder));
    EXPECT_NE(0, RunUnmountLine(strFolder + "/."));
    EXPECT_TRUE(Exists(strFolder));
}

TEST_F(UnmountFolder, FailsOnAPathThatDoesNotExist)
{
    EXPECT_NE(0, RunUnmountLine(m_strDir + "/missing"));
    EXPECT_NE(0, RunUnmountLine(m_strDir + "/missing/below"));
}

TEST_F(UnmountFolder, RefusesTwoDifferentPaths)
{
    const std::string strFirst = MakeFile("first");
    const std::string strSecond = MakeFile("second");
    EXPECT_NE(0, QN_PLATFORM_RunCommand(("umount " + strFirst + "; rm -rf " + strSecond).c_str()));
    EXPECT_TRUE(Exists(strFirst));
    EXPECT_TRUE(Exists(strSecond));
}

/// Mounts memory file systems on directories of its own.
class UnmountCard : public DIR_TEST
{
protected:
    void SetUp() override
    {
        DIR_TEST::SetUp();
        m_strMount = MakeFolder("card");
        if (geteuid() != 0 || !Mount(m_strMount))
        {
            GTEST_SKIP() << "needs root and the right to mount";
        }
    }

    void TearDown() override
    {
        for (const std::string &strPath : m_vecMounts)
        {
            (void)umount2(strPath.c_str(), MNT_DETACH); // most are gone already
        }
        DIR_TEST::TearDown();
    }

    bool Mount(const std::string &strPath)
    {
        const bool bDone = mount("none", strPath.c_str(), "tmpfs", 0, "size=64k") == 0;
        if (bDone)
        {
            m_vecMounts.push_back(strPath);
        }
        return bDone;
    }

    std::string m_strMount;
    std::vector<std::string> m_vecMounts;
};

TEST_F(UnmountCard, RemovesTheMountDirectoryAfterwards)
{
    EXPECT_EQ(0, RunUnmountLine(m_strMount));
    EXPECT_FALSE(Exists(m_strMount));
}

TEST_F(UnmountCard, TakesTrailingSlashesAndRelativePaths)
{
    EXPECT_EQ(0, RunUnmountLine(m_strMount + "//"));
    EXPECT_FALSE(Exists(m_strMount));

    const std::string strSecond = MakeFolder("second");
    ASSERT_TRUE(Mount(strSecond));
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(m_strDir);
    EXPECT_EQ(0, RunUnmountLine("second"));
    std::filesystem::current_path(before);
    EXPECT_FALSE(Exists(strSecond));
}

TEST_F(UnmountCard, TakesBlanksAndShellSignsInThePathAsTheyStand)
{
    const std::string strOdd = MakeFolder("my card; rm -rf $HOME `x` \"y\" \\1");
    ASSERT_TRUE(Mount(strOdd));
    EXPECT_EQ(0, RunUnmountLine(strOdd));
    EXPECT_FALSE(Exists(strOdd));
}

TEST_F(UnmountCard, KeepsTheFilesOfABusyCard)
{
    const std::string strFile = MakeFile("card/recording");
    const int s32Open = open(strFile.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(s32Open, 0);
    EXPECT_NE(0, RunUnmountLine(m_strMount));
    EXPECT_EQ("kept", ReadFile(strFile));
    close(s32Open);
    EXPECT_EQ(0, RunUnmountLine(m_strMount));
    EXPECT_FALSE(Exists(m_strMount));
}

TEST_F(UnmountCard, TakesOffOneOfTwoMountsAndLeavesTheRest)
{
    const std::string strLower = MakeFile("card/lower");
    ASSERT_TRUE(Mount(m_strMount));
    EXPECT_FALSE(Exists(strLower));
    EXPECT_NE(0, RunUnmountLine(m_strMount));
    EXPECT_EQ("kept", ReadFile(strLower));
    EXPECT_EQ(0, RunUnmountLine(m_strMount));
    EXPECT_FALSE(Exists(m_strMount));
}

TEST_F(UnmountCard, KeepsFilesThatLayBelowTheMount)
{
    const std::string strFolder = MakeFolder("used");
    const std::string strHidden = MakeFile("used/hidden");
    ASSERT_TRUE(Mount(strFolder));
    EXPECT_FALSE(Exists(strHidden));
    EXPECT_NE(0, RunUnmountLine(strFolder));
    EXPECT_EQ("kept", ReadFile(strHidden));
}

TEST_F(UnmountCard, TakesOffWhatALinkLeadsToAndRemovesBoth)
{
    const std::string strLink = m_strDir + "/link";
    std::filesystem::create_symlink(m_strMount, strLink);
    EXPECT_EQ(0, RunUnmountLine(strLink));
    EXPECT_FALSE(IsThere(strLink));
    EXPECT_FALSE(IsThere(m_strMount));
}

TEST_F(UnmountCard, FollowsALinkToARelativeLink)
{
    std::filesystem::create_symlink("card", m_strDir + "/second");
    std::filesystem::create_symlink("second", m_strDir + "/first");
    EXPECT_EQ(0, RunUnmountLine(m_strDir + "/first/"));
    EXPECT_FALSE(IsThere(m_strDir + "/first"));
    EXPECT_FALSE(IsThere(m_strMount));
    EXPECT_TRUE(IsThere(m_strDir + "/second")); // rm would leave it, too
}

TEST_F(UnmountCard, LeavesALinkAndItsBusyCardAlone)
{
    const std::string strFile = MakeFile("card/recording");
    const std::string strLink = m_strDir + "/link";
    std::filesystem::create_symlink(m_strMount, strLink);
    const int s32Open = open(strFile.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_NE(0, RunUnmountLine(strLink));
    EXPECT_TRUE(IsThere(strLink));
    EXPECT_EQ("kept", ReadFile(strFile));
    close(s32Open);
}

TEST_F(UnmountCard, RemovesTheLinkThoughFilesLayBelowTheMount)
{
    const std::string strFolder = MakeFolder("used");
    const std::string strHidden = MakeFile("used/hidden");
    const std::string strLink = m_strDir + "/link";
    ASSERT_TRUE(Mount(strFolder));
    std::filesystem::create_symlink(strFolder, strLink);
    EXPECT_EQ(0, RunUnmountLine(strLink));
    EXPECT_FALSE(IsThere(strLink));
    EXPECT_EQ("kept", ReadFile(strHidden));
}

TEST_F(UnmountCard, LeavesLinksAloneThatLeadToNoCardOrAreSomebodyElses)
{
    const std::string strFolder = MakeFolder("plain");
    const std::string strPlain = m_strDir + "/to-plain";
    const std::string strForeign = m_strDir + "/foreign";
    std::filesystem::create_symlink(strFolder, strPlain);
    std::filesystem::create_symlink(m_strMount, strForeign);
    ASSERT_EQ(0, lchown(strForeign.c_str(), 65534, 65534));
    EXPECT_NE(0, RunUnmountLine(strPlain));
    EXPECT_NE(0, RunUnmountLine(strForeign));
    for (const std::string &strPath : {strFolder, strPlain, strForeign, m_strMount})
    {
        EXPECT_TRUE(IsThere(strPath)) << strPath;
    }
    EXPECT_TRUE(PLATFORM_TableHasMount(PLATFORM_ReadMountTable(), m_strMount));
}

TEST_F(UnmountCard, FindsAMountPointBelowALinkedFolder)
{
    const std::string strLink = m_strDir + "/link";
    std::filesystem::create_symlink(m_strDir, strLink);
    EXPECT_EQ(0, RunUnmountLine(strLink + "/card"));
    EXPECT_FALSE(Exists(m_strMount));
}

// The mount line: a card that is mounted already counts as mounted.

#include "mount.h"

#include <filesystem>
#include <sstream>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "helpers.h"
#include "mount_table.h"
#include "quarrin_platform.h"
#include "support/loop_device.h"

namespace
{

class MountLine : public DIR_TEST
{
protected:
    static bool Is(const std::string &strLine)
    {
        return PLATFORM_IsMountLine(strLine, s_strDevice, s_strPath);
    }

    static std::string s_strDevice;
    static std::string s_strPath;
};

std::string MountLine::s_strDevice;
std::string MountLine::s_strPath;

/// A loop device with a file system on it and a directory to mount it on.
class MountedCard : public DIR_TEST
{
protected:
    void SetUp() override
    {
        DIR_TEST::SetUp();
        if (!LOOP_DEVICE::IsAvailable())
        {
            GTEST_SKIP() << "this user cannot make loop devices here";
        }
        const std::string strImage = MakeFile("image");
        std::filesystem::resize_file(strImage, 8 * 1024 * 1024);
        ASSERT_EQ(0, QN_PLATFORM_RunCommand(("mkfs.ext4 -q -F " + strImage).c_str()));
        ASSERT_TRUE(m_loop.Add());
        ASSERT_TRUE(m_loop.Attach(strImage, false));
        ASSERT_EQ(0, stat(m_loop.strDevice.c_str(), &m_stDevice));
        m_strMount = m_strDir + "/mnt";
    }

    void TearDown() override
    {
        while (umount2(m_strMount.c_str(), MNT_DETACH) == 0) // ours, or EINVAL at once
        {
        }
        DIR_TEST::TearDown();
    }

    static int32_t Mount(const std::string &strDevice, const std::string &strPath)
    {
        return QN_PLATFORM_RunCommand(("mkdir -p " + strPath + "; mount " + strDevice + " " + strPath).c_str());
    }

    // How many mounts lie on the directory.
    int32_t Mounts() const
    {
        std::istringstream table(PLATFORM_ReadMountTable());
        std::string strLine;
        int32_t s32Count = 0;
        while (std::getline(table, strLine))
        {
            s32Count += strLine.find(" " + m_strMount + " ") != std::string::npos ? 1 : 0;
        }
        return s32Count;
    }

    // The options of the mount on a path, between blanks, as the table has them.
    static std::string Options(const std::string &strPath)
    {
        const std::string strTable = PLATFORM_ReadMountTable();
        const size_t uAt = strTable.find(" " + strPath + " ");
        const size_t uBegin = uAt == std::string::npos ? uAt : uAt + strPath.size() + 2;
        return uAt == std::string::npos ? "" : "," + strTable.substr(uBegin, strTable.find(' ', uBegin) - uBegin) + ",";
    }

    LOOP_DEVICE m_loop;
    struct stat m_stDevice = {};
    std::string m_strMount;
};

} // namespace

TEST_F(MountLine, IsRecognisedWithBlanksAndItsOwnWordsInThePath)
{
    EXPECT_TRUE(Is("mkdir -p /mnt/card; mount /dev/mmcblk1p1 /mnt/card"));
    EXPECT_EQ("/dev/mmcblk1p1", s_strDevice);
    EXPECT_EQ("/mnt/card", s_strPath);
    EXPECT_TRUE(Is("mkdir -p /mnt/my card; mount /dev/sda1 /mnt/my card"));
    EXPECT_EQ("/dev/sda1", s_strDevice);
    EXPECT_EQ("/mnt/my card", s_strPath);
    EXPECT_TRUE(Is("mkdir -p /a; mount b; mount /dev/sda1 /a; mount b"));
    EXPECT_EQ("/a; mount b", s_strPath);
    s_strPath = "kept";
    for (const char *pszLine :
         {"", "mkdir -p /mnt", "mkdir -p /mnt; mount /dev/a /other", "mkdir -p /mnt; mount /mnt",
          "mkdir -p ; mount /dev/a ", "mkdir -p /mnt; mount  /mnt", "mkdir /mnt; mount /dev/a /mnt",
          "mkdir -p /mnt; mount /dev/a /mnt ", "mkdir -p /mnt; mount -o ro /dev/a /mnt", "mount /dev/a /mnt"})
    {
        EXPECT_FALSE(Is(pszLine)) << pszLine;
    }
    EXPECT_EQ("kept", s_strPath);
}

TEST_F(MountLine, DeviceIsTheOneOnTopInTheTable)
{
    const std::string strTable = "30 1 259:3 / /mnt/card rw - ext4 /dev/old rw\n"
                                 "31 1 259:4 / /mnt/my\\040card rw - ext4 /dev/other rw\n"
                                 "32 30 259:5 / /mnt/card rw - ext4 /dev/new rw\n"
                                 "33 1 259:6\n";
    EXPECT_TRUE(PLATFORM_TableShowsDevice(strTable, "/mnt/card", makedev(259, 5)));
    EXPECT_FALSE(PLATFORM_TableShowsDevice(strTable, "/mnt/card", makedev(259, 3))); // covered
    EXPECT_TRUE(PLATFORM_TableShowsDevice(strTable, "/mnt/my card", makedev(259, 4)));
    EXPECT_FALSE(PLATFORM_TableShowsDevice(strTable, "/mnt", makedev(259, 5)));
    EXPECT_FALSE(PLATFORM_TableShowsDevice("", "/mnt/card", makedev(259, 5)));
}

TEST_F(MountLine, SourceStandsBehindTheOptionalColumns)
{
    const std::string strTable = "30 1 259:3 / /mnt/a rw,noatime - ext4 /dev/plain rw\n"
                                 "31 1 259:4 / /mnt/b rw shared:1 master:2 - ext4 /dev/my\\040card rw\n"
                                 "32 1 259:5 / /mnt/c rw\n";
    EXPECT_EQ("/dev/plain", PLATFORM_TableSource(strTable, "/mnt/a"));
    EXPECT_EQ("/dev/my card", PLATFORM_TableSource(strTable, "/mnt/b"));
    EXPECT_EQ("", PLATFORM_TableSource(strTable, "/mnt/c"));
    EXPECT_EQ("", PLATFORM_TableSource(strTable, "/mnt/d"));
}

TEST_F(MountLine, PathsThatAreNoBlockDeviceAreNotMounted)
{
    EXPECT_FALSE(PLATFORM_IsMountedOn(MakeFile("file"), m_strDir));
    EXPECT_FALSE(PLATFORM_IsMountedOn(m_strDir + "/absent", m_strDir));
}

TEST_F(MountedCard, MountingItOnceMoreSucceedsAndChangesNothing)
{
    ASSERT_EQ(0, Mount(m_loop.strDevice, m_strMount));
    ASSERT_EQ(1, Mounts());
    const std::string strFile = MakeFile("mnt/recording");
    EXPECT_EQ(0, Mount(m_loop.strDevice, m_strMount));
    EXPECT_EQ(1, Mounts());
    EXPECT_EQ("kept", ReadFile(strFile));
}

TEST_F(MountedCard, GivesNothingOnItAnyPower)
{
    ASSERT_EQ(0, Mount(m_loop.strDevice, m_strMount));
    for (const char *pszOption : {",nosuid,", ",nodev,", ",noexec,", ",rw,"})
    {
        EXPECT_NE(std::string::npos, Options(m_strMount).find(pszOption))
            << pszOption << " not in " << Options(m_strMount);
    }
    EXPECT_EQ("kept", ReadFile(MakeFile("mnt/recording")));
}

TEST_F(MountedCard, IsMountedOnAPathWithBlanks)
{
    m_strMount = m_strDir + "/my card; echo";
    ASSERT_EQ(0, Mount(m_loop.strDevice, m_strMount));
    EXPECT_TRUE(PLATFORM_IsMountedOn(m_loop.strDevice, m_strMount));
}

TEST_F(MountedCard, IsMountedThroughALinkAndUnmountedAgain)
{
    const std::string strLink = m_strDir + "/link";
    std::filesystem::create_symlink(MakeFolder("mnt"), strLink);
    ASSERT_EQ(0, Mount(m_loop.strDevice, strLink));
    ASSERT_EQ(1, Mounts());
    EXPECT_EQ(0, QN_PLATFORM_RunCommand(("umount " + strLink + "; rm -rf " + strLink).c_str()));
    EXPECT_EQ(0, Mounts());
    EXPECT_FALSE(IsThere(strLink));
    EXPECT_FALSE(IsThere(m_strMount));
}

TEST_F(MountedCard, IsRecognisedThroughLinks)
{
    ASSERT_EQ(0, Mount(m_loop.strDevice, m_strMount));
    const std::string strDevice = m_strDir + "/by-id";
    const std::string strPath = m_strDir + "/link";
    std::filesystem::create_symlink(m_loop.strDevice, strDevice);
    std::filesystem::create_symlink(m_strMount, strPath);
    EXPECT_EQ(0, Mount(strDevice, m_strMount));
    EXPECT_EQ(0, Mount(m_loop.strDevice, strPath));
    EXPECT_EQ(0, Mount(m_loop.strDevice, m_strMount + "/"));
    EXPECT_EQ(1, Mounts());
}

TEST_F(MountedCard, IsMountedAgainAfterItWasUnmounted)
{
    ASSERT_EQ(0, Mount(m_loop.strDevice, m_strMount));
    ASSERT_EQ(0, QN_PLATFORM_RunCommand(("umount " + m_strMount + "; rm -rf " + m_strMount).c_str()));
    EXPECT_EQ(0, Mounts());
    EXPECT_EQ(0, Mount(m_loop.strDevice, m_strMount));
    EXPECT_EQ(1, Mounts());
}

TEST_F(MountedCard, MountThatFailsIsStillReported)
{
    EXPECT_NE(0, Mount(m_strDir + "/absent", m_strMount));
    ASSERT_EQ(0, Mount(m_loop.strDevice, m_strMount));
    // The card is mounted, but elsewhere than on this directory's own path: the line runs.
    const std::string strOther = m_strDir + "/other";
    const int32_t s32Other = Mount(m_loop.strDevice, strOther);
    EXPECT_EQ(0, s32Other); // one file system may be mounted in two places
    EXPECT_EQ(0, umount2(strOther.c_str(), 0));
}

TEST_F(MountedCard, BusyCardStaysAndAPulledOneIsDetached)
{
    const std::string strLine = "umount " + m_strMount + "; rm -rf " + m_strMount;
    ASSERT_EQ(0, Mount(m_loop.strDevice, m_strMount));
    const int s32Fd = open((m_strMount + "/open").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(s32Fd, 0);
    EXPECT_EQ(1, QN_PLATFORM_RunCommand(strLine.c_str()));
    EXPECT_EQ(1, Mounts());
    EXPECT_TRUE(Exists(m_strMount + "/open"));
    ASSERT_EQ(0, unlink(m_loop.strDevice.c_str())); // as when it is pulled
    EXPECT_EQ(0, QN_PLATFORM_RunCommand(strLine.c_str()));
    EXPECT_EQ(0, Mounts());
    EXPECT_FALSE(Exists(m_strMount));
    close(s32Fd);
    EXPECT_EQ(0, mknod(m_loop.strDevice.c_str(), S_IFBLK | 0600, m_stDevice.st_rdev)); // for its removal
}

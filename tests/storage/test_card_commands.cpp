// Device commands on a card that is a loop device of the test's own: what the kernel and the real tools answer.

#include <cstdint>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include "storage/storage_support.h"
#include "support/card.h"
#include "support/loop_device.h"

using namespace libquarrin;

namespace
{

class CardCommands : public ::testing::Test
{
protected:
    void SetUp() override
    {
        FAKE_PLATFORM_Reset();
        if (!LOOP_DEVICE::IsAvailable())
        {
            GTEST_SKIP() << "adding and removing loop devices needs root and a loop control device";
        }
        ASSERT_TRUE(m_loop.Add());
    }

    TEMP_DIR m_dir; // goes after the device
    LOOP_DEVICE m_loop;
};

/// Runs a command line for real.
int32_t RunShell(const std::string &strCommand)
{
    const int s32Status = std::system((strCommand + " >/dev/null 2>&1").c_str());
    return WIFEXITED(s32Status) ? WEXITSTATUS(s32Status) : -1;
}

bool IsMountPoint(const std::string &strDir)
{
    struct stat stDir = {};
    struct stat stParent = {};
    return stat(strDir.c_str(), &stDir) == 0 && stat((strDir + "/..").c_str(), &stParent) == 0 &&
           stDir.st_dev != stParent.st_dev;
}

} // namespace

TEST_F(CardCommands, KernelReadsTheTableOfACardThatItScans)
{
    ASSERT_TRUE(m_loop.Attach(TEST_CardImage(m_dir.strPath + "/image"), true));
    const int32_t s32Before = TEST_OpenDescriptors();
    STDOUT_CAPTURE out;
    EXPECT_EQ(1u, QN_STORAGE_DeviceReAddTable(m_loop.strDevice));
    EXPECT_EQ(0, QN_STORAGE_MakePartitionTable(m_loop.strDevice.c_str())); // the fake fdisk leaves the table
    EXPECT_EQ("", out.Text());
    EXPECT_EQ(s32Before + 2, TEST_OpenDescriptors()); // the capture's own two
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
}

TEST_F(CardCommands, KernelRefusesACardWithoutAMediumAndOneThatItDoesNotScan)
{
    STDOUT_CAPTURE out;
    EXPECT_EQ(0u, QN_STORAGE_DeviceReAddTable(m_loop.strDevice));
    EXPECT_EQ(1, out.Count("Failed to reread partition table"));
    ASSERT_TRUE(m_loop.Attach(TEST_CardImage(m_dir.strPath + "/image"), false));
    EXPECT_EQ(0u, QN_STORAGE_DeviceReAddTable(m_loop.strDevice));
    EXPECT_EQ(2, out.Count("Failed to reread partition table"));
}

TEST_F(CardCommands, RetryOfMkfsPrintsNothingWhenTheTableCanBeRead)
{
    ASSERT_TRUE(m_loop.Attach(TEST_CardImage(m_dir.strPath + "/image"), true));
    // A second name of the device, whose partition node does not come and go with the table.
    const std::string strDevice = m_dir.strPath + "/card";
    ASSERT_EQ(0, symlink(m_loop.strDevice.c_str(), strDevice.c_str()));
    TEST_Touch(strDevice + "p1");
    FAKE_PLATFORM_Answer("mkfs", 1);
    STDOUT_CAPTURE out;
    EXPECT_EQ(-4, QN_STORAGE_MakePartitionFs(strDevice.c_str(), 1, QN_FS_TYPE_E_VFAT));
    EXPECT_EQ(2, FAKE_PLATFORM_CommandCount("mkfs.vfat " + strDevice + "p1"));
    EXPECT_FALSE(out.Has("Failed to reread"));
    EXPECT_FALSE(out.Has("error!"));
}

TEST_F(CardCommands, CardIsFormattedMountedMeasuredAndUnmounted)
{
    if (RunShell("command -v mkfs.ext4") != 0)
    {
        GTEST_SKIP() << "mkfs.ext4 is not installed";
    }
    ASSERT_TRUE(m_loop.Attach(TEST_CardImage(m_dir.strPath + "/image"), true));
    ASSERT_TRUE(m_loop.AddFirstPartition());
    const std::string strMount = m_dir.strPath + "/mnt/sd"; // made with its parents
    FAKE_PLATFORM_OnCommand(RunShell);
    const STDOUT_CAPTURE out;
    EXPECT_EQ(0, QN_STORAGE_CheckPartitionExist(m_loop.strDevice.c_str(), 1));
    ASSERT_EQ(0, QN_STORAGE_MakePartitionFs(m_loop.strDevice.c_str(), 1, QN_FS_TYPE_E_EXT4));
    ASSERT_EQ(0, QN_STORAGE_PartitionMount(m_loop.strDevice.c_str(), 1, strMount.c_str()));
    ASSERT_TRUE(IsMountPoint(strMount));
    EXPECT_NE(0, QN_STORAGE_MakePartitionFs(m_loop.strDevice.c_str(), 1, QN_FS_TYPE_E_EXT4)); // in use

    TEST_Touch(strMount + "/file", std::string(100000, 'x'));
    struct statvfs stVfs = {};
    tagQN_STORAGE_INFO_S stInfo = {};
    ASSERT_EQ(0, statvfs(strMount.c_str(), &stVfs));
    ASSERT_EQ(0, QN_STORAGE_GetStorageInfo(strMount.c_str(), &stInfo));
    ASSERT_NE(stVfs.f_bfree, stVfs.f_bavail); // this file system keeps blocks for the super-user: they count as free
    EXPECT_EQ(static_cast<uint32_t>((stVfs.f_bfree * stVfs.f_bsize) >> 10), stInfo.u32FreeKB);
    EXPECT_EQ(static_cast<uint32_t>((stVfs.f_blocks * stVfs.f_bsize) >> 10), stInfo.u32TotalKB);
    EXPECT_GT(stInfo.u32TotalKB, 32u * 1024);
    EXPECT_LE(stInfo.u32TotalKB, 64u * 1024);
    EXPECT_EQ(static_cast<int64_t>(stVfs.f_blocks * stVfs.f_bsize), QN_STORAGE_GetMountedTotalSize(strMount.c_str()));
    EXPECT_GT(stInfo.dUsedPercent, 0.0);
    EXPECT_LT(stInfo.dUsedPercent, 100.0);

    EXPECT_EQ(0, QN_STORAGE_PartitionUnmount(strMount.c_str()));
    EXPECT_FALSE(TEST_Exists(strMount));
    ASSERT_EQ(0, QN_STORAGE_PartitionMount(m_loop.strDevice.c_str(), 1, strMount.c_str()));
    EXPECT_EQ(100000u, TEST_ReadFile(strMount + "/file").size()); // the files are on the card still
    EXPECT_EQ(0, QN_STORAGE_PartitionUnmount(strMount.c_str()));
}

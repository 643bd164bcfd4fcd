// Partitions of USB disks: the kernel puts no "p" behind a name that ends in a letter. The node that is there is used.

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "support/capture.h"
#include "support/card.h"
#include "support/fake_platform.h"

using namespace libquarrin;

namespace
{

class UsbNames : public ::testing::Test
{
protected:
    UsbNames()
    {
        FAKE_PLATFORM_Reset();
        m_strDisk = TEST_Touch(m_dir.strPath + "/sdq");
    }

    int32_t MakeFs(QN_FS_TYPE_E enFsType, int32_t s32PartitionNo = 1)
    {
        return QN_STORAGE_MakePartitionFs(m_strDisk.c_str(), s32PartitionNo, enFsType);
    }

    int32_t Mount()
    {
        return QN_STORAGE_PartitionMount(m_strDisk.c_str(), 1, "/mnt/usb");
    }

    TEMP_DIR m_dir;
    STDOUT_CAPTURE m_out;
    std::string m_strDisk; // exists
};

} // namespace

TEST_F(UsbNames, PartitionExistsUnderEitherName)
{
    EXPECT_EQ(-2, QN_STORAGE_CheckPartitionExist(m_strDisk.c_str(), 1));
    TEST_Touch(m_strDisk + "1");
    EXPECT_EQ(0, QN_STORAGE_CheckPartitionExist(m_strDisk.c_str(), 1));
    EXPECT_EQ(-2, QN_STORAGE_CheckPartitionExist(m_strDisk.c_str(), 2));
    TEST_Touch(m_strDisk + "p2");
    EXPECT_EQ(0, QN_STORAGE_CheckPartitionExist(m_strDisk.c_str(), 2));
    unlink(m_strDisk.c_str());
    EXPECT_EQ(-1, QN_STORAGE_CheckPartitionExist(m_strDisk.c_str(), 1));
}

TEST_F(UsbNames, NameThatEndsInADigitKeepsItsP)
{
    for (const char *pszName : {"mmcblk1", "nvme0n1", "loop77", "sd0"})
    {
        const std::string strDevice = TEST_Touch(m_dir.strPath + "/" + pszName);
        TEST_Touch(strDevice + "1"); // somebody else's
        EXPECT_EQ(-2, QN_STORAGE_CheckPartitionExist(strDevice.c_str(), 1)) << pszName;
        FAKE_PLATFORM_Reset();
        EXPECT_EQ(0, QN_STORAGE_PartitionMount(strDevice.c_str(), 1, "/mnt/usb"));
        EXPECT_EQ(std::vector<std::string>{"mkdir -p /mnt/usb; mount " + strDevice + "p1 /mnt/usb"},
                  FAKE_PLATFORM_Commands());
    }
}

TEST_F(UsbNames, NodeWithAPGoesFirstAndIsNamedWhenThereIsNone)
{
    EXPECT_EQ(0, Mount());
    TEST_Touch(m_strDisk + "1");
    EXPECT_EQ(0, Mount());
    TEST_Touch(m_strDisk + "p1");
    EXPECT_EQ(0, Mount());
    const std::vector<std::string> vecExpected = {"mkdir -p /mnt/usb; mount " + m_strDisk + "p1 /mnt/usb",
                                                  "mkdir -p /mnt/usb; mount " + m_strDisk + "1 /mnt/usb",
                                                  "mkdir -p /mnt/usb; mount " + m_strDisk + "p1 /mnt/usb"};
    EXPECT_EQ(vecExpected, FAKE_PLATFORM_Commands());
}

TEST_F(UsbNames, FileSystemIsMadeOnTheNodeThatIsThere)
{
    TEST_Touch(m_strDisk + "1");
    TEST_Touch(m_strDisk + "3");
    EXPECT_EQ(0, MakeFs(QN_FS_TYPE_E_EXT4));
    EXPECT_EQ(0, MakeFs(QN_FS_TYPE_E_VFAT, 3));
    const std::vector<std::string> vecExpected = {"mkfs.ext4 -F " + m_strDisk + "1", "mkfs.vfat " + m_strDisk + "3"};
    EXPECT_EQ(vecExpected, FAKE_PLATFORM_Commands());
    EXPECT_EQ(2, m_out.Count("] open failed\n"));
    EXPECT_FALSE(m_out.Has("not found after creation"));
}

TEST_F(UsbNames, NodeThatComesLateIsWaitedForUnderEitherName)
{
    std::thread kernel(
        [this]
        {
            TEST_SleepMs(150);
            TEST_Touch(m_strDisk + "1");
        });
    EXPECT_EQ(0, MakeFs(QN_FS_TYPE_E_EXT4));
    kernel.join();
    EXPECT_EQ(std::vector<std::string>{"mkfs.ext4 -F " + m_strDisk + "1"}, FAKE_PLATFORM_Commands());
    EXPECT_FALSE(m_out.Has("not found after creation"));
}

TEST_F(UsbNames, NodeThatNeverComesIsNamedWithItsP)
{
    EXPECT_EQ(0, MakeFs(QN_FS_TYPE_E_EXT4));
    EXPECT_EQ(1, m_out.Count("Partition device " + m_strDisk + "p1 not found after creation"));
    EXPECT_EQ(std::vector<std::string>{"mkfs.ext4 -F " + m_strDisk + "p1"}, FAKE_PLATFORM_Commands());
}

TEST_F(UsbNames, SecondMkfsTakesTheNodeThatHasComeMeanwhile)
{
    FAKE_PLATFORM_OnCommand(
        [this](const std::string &strCommand)
        {
            TEST_Touch(m_strDisk + "1"); // while the first one fails
            return strCommand == "mkfs.ext4 -F " + m_strDisk + "1" ? 0 : 1;
        });
    EXPECT_EQ(0, MakeFs(QN_FS_TYPE_E_EXT4));
    FAKE_PLATFORM_OnCommand(nullptr);
    const std::vector<std::string> vecExpected = {"mkfs.ext4 -F " + m_strDisk + "p1",
                                                  "mkfs.ext4 -F " + m_strDisk + "1"};
    EXPECT_EQ(vecExpected, FAKE_PLATFORM_Commands());
}

TEST_F(UsbNames, NodeOfAnotherDiskIsTakenAsItIsNamed)
{
    TEST_Touch(m_strDisk + "1");
    TEST_Touch(m_strDisk + "2");
    // Another disk's, of as long a name; no "p" behind the disk's; no number behind the "p"; more than a number.
    for (const std::string &strNode :
         {m_dir.strPath + "/sdrp1", m_strDisk + "x1", m_strDisk + "p", m_strDisk + "p1x", m_strDisk})
    {
        STDOUT_CAPTURE out;
        EXPECT_EQ(1u, QN_STORAGE_DeviceIsAccessible(m_strDisk, strNode));
        EXPECT_EQ(strNode != m_strDisk, out.Has("Partition device " + strNode + " not found after creation"));
    }
}

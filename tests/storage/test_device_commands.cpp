// Device commands: exact command lines, results, messages, and the waits around them. No real device is touched here.

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "storage/storage_support.h"
#include "support/card.h"

using namespace libquarrin;

namespace
{

const std::string REREAD_FAILED = "Failed to reread partition table";

class DeviceCommands : public ::testing::Test
{
protected:
    DeviceCommands()
    {
        FAKE_PLATFORM_Reset();
        m_strDevice = TEST_Touch(m_dir.strPath + "/mmcblk1");
        m_strPartition = TEST_Touch(m_strDevice + "p1");
    }

    int32_t MakeFs(int32_t s32FsType, int32_t s32PartitionNo = 1)
    {
        return QN_STORAGE_MakePartitionFs(m_strDevice.c_str(), s32PartitionNo, static_cast<QN_FS_TYPE_E>(s32FsType));
    }

    TEMP_DIR m_dir;
    std::string m_strDevice;    // exists
    std::string m_strPartition; // exists
};

/// Lets the first command that contains strPart fail, and those after it succeed.
void FailOnce(const std::string &strPart)
{
    auto spFirst = std::make_shared<std::atomic<bool>>(true);
    FAKE_PLATFORM_OnCommand(
        [spFirst, strPart](const std::string &strCommand)
        { return strCommand.find(strPart) != std::string::npos && spFirst->exchange(false) ? 1 : 0; });
}

} // namespace

TEST_F(DeviceCommands, DeviceExistsWhenItsPathDoes)
{
    EXPECT_EQ(0, QN_STORAGE_CheckBlockDevExist(m_strDevice.c_str()));
    EXPECT_EQ(0, QN_STORAGE_CheckBlockDevExist(m_dir.strPath.c_str())); // whatever it is
    EXPECT_EQ(-1, QN_STORAGE_CheckBlockDevExist((m_strDevice + "x").c_str()));
    EXPECT_EQ(-1, QN_STORAGE_CheckBlockDevExist(""));
    ASSERT_EQ(0, symlink("/nowhere/at/all", (m_dir.strPath + "/dangling").c_str()));
    EXPECT_EQ(-1, QN_STORAGE_CheckBlockDevExist((m_dir.strPath + "/dangling").c_str()));
}

TEST_F(DeviceCommands, PartitionNeedsItsDevice)
{
    EXPECT_EQ(0, QN_STORAGE_CheckPartitionExist(m_strDevice.c_str(), 1));
    EXPECT_EQ(-2, QN_STORAGE_CheckPartitionExist(m_strDevice.c_str(), 2));
    unlink(m_strDevice.c_str());
    EXPECT_EQ(-1, QN_STORAGE_CheckPartitionExist(m_strDevice.c_str(), 1)); // although the partition node is there
    unlink(m_strPartition.c_str());
    EXPECT_EQ(-1, QN_STORAGE_CheckPartitionExist(m_strDevice.c_str(), 1));
}

TEST_F(DeviceCommands, PartitionNameIsTheDeviceThenPThenTheNumber)
{
    const std::string strDisk = TEST_Touch(m_dir.strPath + "/mmcblk2");
    TEST_Touch(strDisk + "1"); // of another disk
    EXPECT_EQ(-2, QN_STORAGE_CheckPartitionExist(strDisk.c_str(), 1));
    TEST_Touch(strDisk + "p1");
    EXPECT_EQ(0, QN_STORAGE_CheckPartitionExist(strDisk.c_str(), 1));
    TEST_Touch(strDisk + "p12");
    EXPECT_EQ(0, QN_STORAGE_CheckPartitionExist(strDisk.c_str(), 12));
    TEST_Touch(strDisk + "p-3");
    EXPECT_EQ(0, QN_STORAGE_CheckPartitionExist(strDisk.c_str(), -3));
}

TEST_F(DeviceCommands, LongDeviceNamesAreNotCut)
{
    const std::string strLong = TEST_Touch(m_dir.strPath + "/" + std::string(200, 'd'));
    EXPECT_EQ(-2, QN_STORAGE_CheckPartitionExist(strLong.c_str(), 1));
    TEST_Touch(strLong + "p1");
    EXPECT_EQ(0, QN_STORAGE_CheckPartitionExist(strLong.c_str(), 1));
}

TEST_F(DeviceCommands, AnyMountDirectoryCountsAsMounted)
{
    EXPECT_EQ(0, QN_STORAGE_CheckPartitionMounted(m_dir.strPath.c_str()));
    EXPECT_EQ(0, QN_STORAGE_CheckPartitionMounted(m_strDevice.c_str()));
    EXPECT_EQ(-1, QN_STORAGE_CheckPartitionMounted((m_dir.strPath + "/mnt").c_str()));
}

TEST_F(DeviceCommands, RefusedRereadIsPrintedWithoutANewline)
{
    for (const std::string &strDevice : {m_strDevice, m_dir.strPath + "/missing", m_dir.strPath})
    {
        const int32_t s32Before = TEST_OpenDescriptors();
        STDOUT_CAPTURE out;
        EXPECT_EQ(0u, QN_STORAGE_DeviceReAddTable(strDevice));
        EXPECT_EQ(REREAD_FAILED, out.Text());
        EXPECT_EQ(s32Before + 2, TEST_OpenDescriptors()); // the capture's own two
    }
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
}

TEST_F(DeviceCommands, PartitionThatCanBeOpenedIsWarnedAboutAsOpenFailed)
{
    const int32_t s32Before = TEST_OpenDescriptors();
    {
        STDOUT_CAPTURE out;
        EXPECT_EQ(1u, QN_STORAGE_DeviceIsAccessible(m_strDevice, m_strPartition));
        EXPECT_TRUE(out.HasLine(R"(\[WARN\]\[QN_STORAGE_DeviceIsAccessible:\d+\] open failed)")) << out.Text();
        EXPECT_EQ(1, out.Count("\n"));
    }
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(4, "QN_STORAGE_DeviceIsAccessible", "open failed"));
    EXPECT_EQ(1u, FAKE_PLATFORM_Logs().size());
    EXPECT_EQ(s32Before, TEST_OpenDescriptors());
}

TEST_F(DeviceCommands, PartitionThatNeverComesIsPrintedAfterASecondAndStillCountsAsAccessible)
{
    const std::string strFolder = m_dir.strPath + "/folder"; // exists, but cannot be opened for writing
    mkdir(strFolder.c_str(), 0755);
    const std::string strMissing = m_strDevice + "%s%np7"; // a text, not a format
    const std::string strNoDevice = m_dir.strPath + "/none";
    STDOUT_CAPTURE out;
    const auto fnTry = [](const std::string &strDevice, const std::string &strPartition)
    {
        const double dBegin = TEST_Seconds();
        EXPECT_EQ(1u, QN_STORAGE_DeviceIsAccessible(strDevice, strPartition));
        EXPECT_GE(TEST_Seconds() - dBegin, 1.0) << strPartition; // ten sleeps of 100 ms
    };
    std::thread missing(fnTry, m_strDevice, strMissing);
    std::thread folder(fnTry, m_strDevice, strFolder);
    std::thread noDevice(fnTry, strNoDevice, m_strPartition);
    missing.join();
    folder.join();
    noDevice.join();
    for (const std::string &strPartition : {strMissing, strFolder, m_strPartition})
    {
        EXPECT_EQ(1, out.Count("Partition device " + strPartition + " not found after creation")) << strPartition;
    }
    EXPECT_FALSE(out.Has("\n"));
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
}

TEST_F(DeviceCommands, PartitionThatComesLateIsFound)
{
    const std::string strLate = m_strDevice + "p7";
    std::thread kernel(
        [&strLate]
        {
            TEST_SleepMs(150);
            TEST_Touch(strLate);
        });
    STDOUT_CAPTURE out;
    EXPECT_EQ(1u, QN_STORAGE_DeviceIsAccessible(m_strDevice, strLate));
    kernel.join();
    EXPECT_FALSE(out.Has("not found after creation"));
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(4, "QN_STORAGE_DeviceIsAccessible", "open failed"));
}

TEST_F(DeviceCommands, PartitionTableIsWrittenByAnsweringFdisk)
{
    STDOUT_CAPTURE out;
    EXPECT_EQ(-1, QN_STORAGE_MakePartitionTable(m_strDevice.c_str()));
    const std::vector<std::string> vecExpected = {R"(echo -e "o\nn\np\n1\n\n\nw" | fdisk )" + m_strDevice +
                                                  " > /dev/console"};
    EXPECT_EQ(vecExpected, FAKE_PLATFORM_Commands());
}

TEST_F(DeviceCommands, TableThatTheKernelRefusesToReadIsWarnedAbout)
{
    STDOUT_CAPTURE out;
    EXPECT_EQ(-1, QN_STORAGE_MakePartitionTable(m_strDevice.c_str())); // a plain file has no table to read
    EXPECT_TRUE(
        FAKE_PLATFORM_LoggedExactly(4, "QN_STORAGE_MakePartitionTable", "QN_STORAGE_DeviceReAddTable error!\n"));
    EXPECT_EQ(1u, FAKE_PLATFORM_Logs().size());
    EXPECT_TRUE(out.HasLine(REREAD_FAILED +
                            R"(\[WARN\]\[QN_STORAGE_MakePartitionTable:\d+\] QN_STORAGE_DeviceReAddTable error!)"))
        << out.Text();
    EXPECT_TRUE(out.Has("] QN_STORAGE_DeviceReAddTable error!\n\n"));
}

TEST_F(DeviceCommands, FailingFdiskEndsAtOnce)
{
    for (const int32_t s32Result : {1, 256, -1})
    {
        FAKE_PLATFORM_Reset();
        FAKE_PLATFORM_Answer("fdisk", s32Result);
        STDOUT_CAPTURE out;
        EXPECT_EQ(-1, QN_STORAGE_MakePartitionTable(m_strDevice.c_str()));
        EXPECT_EQ("", out.Text()); // the table is not read again
        EXPECT_EQ(1u, FAKE_PLATFORM_Commands().size());
        EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
    }
}

TEST_F(DeviceCommands, FileSystemIsMadeByItsOwnCommand)
{
    TEST_Touch(m_strDevice + "p3");
    const STDOUT_CAPTURE out;
    EXPECT_EQ(0, MakeFs(1));
    EXPECT_EQ(0, MakeFs(2, 3));
    const std::vector<std::string> vecExpected = {"mkfs.ext4 -F " + m_strDevice + "p1",
                                                  "mkfs.vfat " + m_strDevice + "p3"};
    EXPECT_EQ(vecExpected, FAKE_PLATFORM_Commands());
}

TEST_F(DeviceCommands, UnknownFileSystemRunsNothingButLooksForThePartitionFirst)
{
    for (const int32_t s32FsType : {0, 3, -1, 1000})
    {
        FAKE_PLATFORM_Reset();
        const STDOUT_CAPTURE out;
        EXPECT_EQ(-3, MakeFs(s32FsType)) << s32FsType;
        EXPECT_TRUE(FAKE_PLATFORM_Commands().empty());
        EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(4, "QN_STORAGE_DeviceIsAccessible", "open failed"));
    }
}

TEST_F(DeviceCommands, PartitionThatNeverComesDoesNotStopAnUnknownFileSystemOrAMkfs)
{
    STDOUT_CAPTURE out;
    std::thread unknown([this] { EXPECT_EQ(-3, MakeFs(3, 8)); });
    EXPECT_EQ(0, MakeFs(1, 9)); // -2 is never given: the node counts as accessible
    unknown.join();
    EXPECT_EQ(1, out.Count("p8 not found after creation"));
    EXPECT_EQ(1, out.Count("p9 not found after creation"));
    EXPECT_EQ(std::vector<std::string>{"mkfs.ext4 -F " + m_strDevice + "p9"}, FAKE_PLATFORM_Commands());
}

TEST_F(DeviceCommands, FailingMkfsIsTriedOnceMoreWithTheSameLine)
{
    FailOnce("mkfs");
    STDOUT_CAPTURE out;
    const double dBegin = TEST_Seconds();
    EXPECT_EQ(0, MakeFs(2));
    EXPECT_GE(TEST_Seconds() - dBegin, 0.5); // the pause before the second try
    EXPECT_EQ(std::vector<std::string>(2, "mkfs.vfat " + m_strPartition), FAKE_PLATFORM_Commands());
    EXPECT_EQ(2u, FAKE_PLATFORM_Logs().size()); // the node was looked for twice
    EXPECT_EQ(2, out.Count("] open failed\n"));
    EXPECT_EQ(1, out.Count("\n" + REREAD_FAILED + "QN_STORAGE_MakePartitionFs:361 error!\n"));
}

TEST_F(DeviceCommands, MkfsThatFailsTwiceGivesMinusFour)
{
    FAKE_PLATFORM_Answer("mkfs.ext4", 1);
    const STDOUT_CAPTURE out;
    EXPECT_EQ(-4, MakeFs(1));
    EXPECT_EQ(std::vector<std::string>(2, "mkfs.ext4 -F " + m_strPartition), FAKE_PLATFORM_Commands());
}

TEST_F(DeviceCommands, MountMakesTheDirectoryFirst)
{
    EXPECT_EQ(0, QN_STORAGE_PartitionMount("/dev/qnsda", 1, "/mnt/sd"));
    EXPECT_EQ(0, QN_STORAGE_PartitionMount("/dev/mmcblk1", 12, "/mnt/a b"));
    const std::vector<std::string> vecExpected = {"mkdir -p /mnt/sd; mount /dev/qnsdap1 /mnt/sd",
                                                  "mkdir -p /mnt/a b; mount /dev/mmcblk1p12 /mnt/a b"};
    EXPECT_EQ(vecExpected, FAKE_PLATFORM_Commands());
}

TEST_F(DeviceCommands, UnmountRemovesTheDirectoryWithEverythingBelow)
{
    EXPECT_EQ(0, QN_STORAGE_PartitionUnmount("/mnt/sd"));
    EXPECT_EQ(std::vector<std::string>{"umount /mnt/sd; rm -rf /mnt/sd"}, FAKE_PLATFORM_Commands());
}

TEST_F(DeviceCommands, AnyFailureOfMountAndUnmountIsMinusOne)
{
    for (const int32_t s32Result : {1, 32, 127, -1})
    {
        FAKE_PLATFORM_Reset();
        FAKE_PLATFORM_Answer("mount", s32Result);
        EXPECT_EQ(-1, QN_STORAGE_PartitionMount("/dev/x", 1, "/mnt/x")) << s32Result;
        EXPECT_EQ(-1, QN_STORAGE_PartitionUnmount("/mnt/x")) << s32Result;
        EXPECT_EQ(2u, FAKE_PLATFORM_Commands().size()); // nothing is tried again
        EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
    }
}

TEST_F(DeviceCommands, LongPathsGiveWholeCommandLines)
{
    const std::string strDevice = "/dev/" + std::string(700, 'd');
    const std::string strMount = "/mnt/" + std::string(3000, 'm');
    const STDOUT_CAPTURE out;
    FAKE_PLATFORM_Answer("fdisk", 1);
    EXPECT_EQ(-1, QN_STORAGE_MakePartitionTable(strDevice.c_str()));
    EXPECT_EQ(0, QN_STORAGE_PartitionMount(strDevice.c_str(), 1, strMount.c_str()));
    EXPECT_EQ(0, QN_STORAGE_PartitionUnmount(strMount.c_str()));
    const std::vector<std::string> vecExpected = {
        R"(echo -e "o\nn\np\n1\n\n\nw" | fdisk )" + strDevice + " > /dev/console",
        "mkdir -p " + strMount + "; mount " + strDevice + "p1 " + strMount,
        "umount " + strMount + "; rm -rf " + strMount,
    };
    EXPECT_EQ(vecExpected, FAKE_PLATFORM_Commands());
}

TEST_F(DeviceCommands, PathsAreTextsAndNotFormats)
{
    const std::string strDevice = TEST_Touch(m_dir.strPath + "/%s%n%d");
    TEST_Touch(strDevice + "p1");
    const STDOUT_CAPTURE out;
    EXPECT_EQ(0, QN_STORAGE_MakePartitionFs(strDevice.c_str(), 1, QN_FS_TYPE_E_EXT4));
    EXPECT_EQ(0, QN_STORAGE_PartitionMount(strDevice.c_str(), 1, "/m/%s%n"));
    const std::vector<std::string> vecExpected = {"mkfs.ext4 -F " + strDevice + "p1",
                                                  "mkdir -p /m/%s%n; mount " + strDevice + "p1 /m/%s%n"};
    EXPECT_EQ(vecExpected, FAKE_PLATFORM_Commands());
}

// A USB disk: its partitions are called sdq1, not sdqp1. A card of the simulator stands for it, under other names.

#include <atomic>
#include <cstring>
#include <thread>

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "pump.h"
#include "rig.h"
#include "storage/uevent.h"
#include "support/card.h"

using namespace libquarrin;

namespace
{

/// The device nodes of a card under a disk's names, in a folder of the card's own: they come and go with the card's.
class DISK_NODES
{
public:
    DISK_NODES(const CARD &card, const std::string &strName)
        : m_strFolder(card.Dir() + "/dev"), m_strDisk(m_strFolder + "/" + strName)
    {
        // A file system on which nodes are devices, whatever the folder's own is mounted with. The card takes it off.
        m_bReady = mkdir(m_strFolder.c_str(), 0700) == 0 &&
                   mount("tmpfs", m_strFolder.c_str(), "tmpfs", MS_NOSUID | MS_NOEXEC, "size=64k") == 0;
        const std::string strDevice = card.Device();
        const std::string strPartition = card.Partition();
        m_thread = std::thread(
            [this, strDevice, strPartition]
            {
                while (m_bRun)
                {
                    Mirror(strPartition, m_strDisk + "1");
                    Mirror(strDevice, m_strDisk);
                    TEST_SleepMs(2);
                }
            });
    }
    ~DISK_NODES()
    {
        m_bRun = false;
        m_thread.join();
    }
    DISK_NODES(const DISK_NODES &) = delete;
    DISK_NODES &operator=(const DISK_NODES &) = delete;

    bool IsReady() const
    {
        return m_bReady;
    }
    const std::string &Disk() const
    {
        return m_strDisk;
    }

private:
    static void Mirror(const std::string &strFrom, const std::string &strTo)
    {
        struct stat stFrom = {};
        struct stat stTo = {};
        const bool bFrom = stat(strFrom.c_str(), &stFrom) == 0 && S_ISBLK(stFrom.st_mode);
        const bool bTo = lstat(strTo.c_str(), &stTo) == 0;
        if (bTo && (!bFrom || stTo.st_rdev != stFrom.st_rdev))
        {
            (void)unlink(strTo.c_str()); // seen again in the next round, otherwise
        }
        else if (bFrom && !bTo)
        {
            (void)mknod(strTo.c_str(), S_IFBLK | 0600, stFrom.st_rdev);
        }
    }

    std::string m_strFolder;
    std::string m_strDisk;
    bool m_bReady = false;
    std::atomic<bool> m_bRun{true};
    std::thread m_thread;
};

class UsbDisk : public CARD_REAL
{
protected:
    // Puts the disk in, or pulls it, and tells it as the kernel does.
    static bool In(CARD_RIG &rig)
    {
        return rig.card.In() && TEST_WaitFor([&rig] { return TEST_Exists(rig.stParam.strDevice); }, RIG_WAIT_MS) &&
               Tell("add");
    }

    static bool Out(CARD_RIG &rig)
    {
        return rig.card.Out(CARD_PULL_WRITTEN) &&
               TEST_WaitFor([&rig] { return !TEST_Exists(rig.stParam.strDevice); }, RIG_WAIT_MS) && Tell("remove");
    }

    static bool Tell(const std::string &strAction)
    {
        const std::string strHost = "@/devices/pci0000:00/0000:00:14.0/usb1/1-1/1-1:1.0/host0/target0:0:0/0:0:0:0";
        return TEST_SendUevent(strAction + strHost + "/block/sdq");
    }

    static void WholeLife(CARD_RIG &rig)
    {
        DISK_NODES nodes(rig.card, "sdq");
        ASSERT_TRUE(nodes.IsReady());
        rig.stParam.strDevice = nodes.Disk();
        rig.Init();
        ASSERT_TRUE(rig.WaitListening());
        ASSERT_TRUE(In(rig));
        ASSERT_TRUE(rig.WaitFor(QN_STATE_E_PLUGIN));

        ASSERT_EQ(0u, QN_StorageFormat(rig.pHandle, QN_FS_TYPE_E_EXT4));
        ASSERT_TRUE(rig.WaitFor(QN_STATE_E_MOUNTED));
        ASSERT_TRUE(rig.WaitIdle());
        EXPECT_EQ(1, FAKE_PLATFORM_CommandCount("mkfs.ext4 -F " + nodes.Disk() + "1"));
        EXPECT_EQ(1, FAKE_PLATFORM_CommandCount("; mount " + nodes.Disk() + "1 "));
        EXPECT_EQ(1, rig.Mounts());
        {
            PUMP pump(rig.pHandle, QN_FILE_FMT_E_MKV, true, "usb");
            ASSERT_EQ(0u, pump.Start());
            ASSERT_TRUE(pump.WaitWritten(60));
            ASSERT_FALSE(pump.Split().empty());
            ASSERT_TRUE(TEST_WaitFor([&rig] { return rig.Finished().size() == 1; }, RIG_WAIT_MS));
            ASSERT_TRUE(Out(rig)); // while it records
            ASSERT_TRUE(rig.WaitFor(QN_STATE_E_UNPLUGIN));
            EXPECT_EQ(QN_RECORD_STATE_STOPPING, pump.pSession->enRecordState.load());
            pump.Stop();
        }
        EXPECT_EQ(0, rig.Mounts());

        ASSERT_TRUE(In(rig));
        ASSERT_TRUE(rig.WaitFor(QN_STATE_E_MOUNTED));
        ASSERT_TRUE(rig.WaitIdle());
        ASSERT_EQ(1u, rig.Finished().size());
        EXPECT_EQ("", PUMP::WhatIsWrong(rig.Finished()[0]));
        rig.Destroy();
        EXPECT_EQ(0, rig.Mounts());
    }
};

} // namespace

TEST_F(UsbDisk, IsPluggedFormattedRecordedOnAndPulled)
{
    // In a network namespace of its own: nobody else hears of this disk, and the kernel's events still come in.
    std::thread thread(
        []
        {
            ASSERT_EQ(0, unshare(CLONE_NEWNET)) << strerror(errno);
            CARD_PARAM_S stBlank;
            stBlank.enContent = CARD_CONTENT_BLANK;
            CARD_RIG rig(stBlank);
            WholeLife(rig);
        });
    thread.join();
}

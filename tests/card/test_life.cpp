// A card's whole life with the library on it: every state that it can be in, reached by real commands and real events.

#include <fstream>
#include <thread>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include "pump.h"
#include "rig.h"
#include "support/card.h"

using namespace libquarrin;

namespace
{

class CardLife : public CARD_REAL
{
protected:
    static CARD_PARAM_S With(CARD_CONTENT_E enContent)
    {
        CARD_PARAM_S stParam;
        stParam.enContent = enContent;
        return stParam;
    }

    static bool KernelHasVfat()
    {
        std::ifstream file("/proc/filesystems");
        std::string strWord;
        while (file >> strWord)
        {
            if (strWord == "vfat")
            {
                return true;
            }
        }
        return false;
    }

    // Records with a split in between; both files, whole.
    static void RecordTwoFiles(CARD_RIG &rig)
    {
        PUMP pump(rig.pHandle, QN_FILE_FMT_E_MKV, true, "life");
        EXPECT_EQ(3u, QN_StorageUnMount(rig.pHandle)); // a session is open
        ASSERT_EQ(0u, pump.Start());
        ASSERT_TRUE(pump.WaitWritten(30));
        const std::string strFirst = pump.Split();
        ASSERT_FALSE(strFirst.empty());
        ASSERT_TRUE(TEST_WaitFor([&rig] { return rig.Finished().size() == 1; }, RIG_WAIT_MS));
        ASSERT_TRUE(pump.WaitWritten(30));
        pump.Stop();
        ASSERT_TRUE(rig.WaitIdle());
        ASSERT_EQ(2u, rig.Finished().size());
        for (const std::string &strPath : rig.Finished())
        {
            EXPECT_EQ("", PUMP::WhatIsWrong(strPath));
        }
    }

    static void ListAndReplay(CARD_RIG &rig)
    {
        std::vector<tagQN_FILE_INFO_S> vecFiles;
        ASSERT_EQ(0u, QN_ReplayListFile(rig.pHandle, QN_VOLUME_ID_E_0, &vecFiles));
        ASSERT_EQ(2u, vecFiles.size());
        tagQN_REPLAY_HANDLER_S *pReplay = nullptr;
        ASSERT_EQ(0u, QN_ReplayOpen(rig.pHandle, vecFiles[0], tagQN_REPLAY_PARAM_S(), pReplay));
        EXPECT_EQ(3u, QN_StorageUnMount(rig.pHandle)); // a replay is open
        int32_t s32Frames = 0;
        uint8_t *pu8Data = nullptr;
        uint32_t u32Size = 0;
        uint64_t u64Pts = 0;
        bool bKey = false;
        bool bVideo = false;
        while (QN_ReplayReadFrame(pReplay, &pu8Data, &u32Size, &u64Pts, &bKey, &bVideo) == 0)
        {
            s32Frames += bVideo ? 1 : 0;
            EXPECT_EQ(0u, QN_ReplayFreeFrame(pReplay, pu8Data));
        }
        EXPECT_GE(s32Frames, 30);
        EXPECT_EQ(0, QN_ReplayClose(pReplay));
    }
};

} // namespace

TEST_F(CardLife, FromAnEmptySlotToTheSecondInsertion)
{
    CARD_RIG rig(With(CARD_CONTENT_BLANK));
    rig.Init();
    EXPECT_EQ(QN_STATE_E_UNPLUGIN, rig.State());
    EXPECT_EQ(3u, QN_StorageFormat(rig.pHandle, QN_FS_TYPE_E_EXT4)); // nothing there
    EXPECT_EQ(3u, QN_StorageMount(rig.pHandle));
    EXPECT_EQ(3u, QN_StorageUnMount(rig.pHandle));
    ASSERT_TRUE(rig.WaitListening());

    ASSERT_TRUE(rig.card.In());
    ASSERT_TRUE(rig.WaitFor(QN_STATE_E_PLUGIN));
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(3, "QN_EVENT_HandleHotplugIn", "partition not found!"));
    EXPECT_EQ(3u, QN_StorageMount(rig.pHandle));

    ASSERT_EQ(0u, QN_StorageFormat(rig.pHandle, QN_FS_TYPE_E_EXT4));
    EXPECT_EQ(3u, QN_StorageFormat(rig.pHandle, QN_FS_TYPE_E_EXT4)); // being formatted
    ASSERT_TRUE(rig.WaitFor(QN_STATE_E_MOUNTED));
    ASSERT_TRUE(rig.WaitIdle());
    EXPECT_EQ(1, rig.Mounts());
    EXPECT_EQ(3u, QN_StorageFormat(rig.pHandle, QN_FS_TYPE_E_EXT4)); // mounted
    EXPECT_EQ(0u, QN_StorageMount(rig.pHandle));                     // already

    ASSERT_NO_FATAL_FAILURE(RecordTwoFiles(rig));
    ASSERT_NO_FATAL_FAILURE(ListAndReplay(rig));

    ASSERT_EQ(0u, QN_StorageUnMount(rig.pHandle));
    EXPECT_EQ(QN_STATE_E_UNMOUNTED, rig.State());
    EXPECT_EQ(0, rig.Mounts());
    EXPECT_FALSE(TEST_Exists(rig.card.MountDir()));
    ASSERT_EQ(0u, QN_StorageMount(rig.pHandle));
    EXPECT_EQ(2u, rig.Finished().size());

    ASSERT_TRUE(rig.card.Out(CARD_PULL_WRITTEN));
    ASSERT_TRUE(rig.WaitFor(QN_STATE_E_UNPLUGIN));
    EXPECT_EQ(0, rig.Mounts());
    ASSERT_TRUE(rig.InMounted());
    for (const std::string &strPath : rig.Finished())
    {
        EXPECT_EQ("", PUMP::WhatIsWrong(strPath));
    }
    EXPECT_EQ(2u, rig.Finished().size());
}

TEST_F(CardLife, CardThatIsInBeforeTheStartIsMounted)
{
    CARD_RIG rig;
    ASSERT_TRUE(rig.card.In());
    ASSERT_TRUE(TEST_WaitFor([&rig] { return TEST_Exists(rig.card.Partition()); }, RIG_WAIT_MS));
    rig.Init();
    EXPECT_TRUE(rig.WaitFor(QN_STATE_E_MOUNTED));
}

TEST_F(CardLife, CardThatIsMountedBeforeTheStartStaysMounted)
{
    CARD_RIG rig;
    ASSERT_TRUE(rig.card.In());
    ASSERT_TRUE(TEST_WaitFor([&rig] { return TEST_Exists(rig.card.Partition()); }, RIG_WAIT_MS));
    rig.Init();
    ASSERT_TRUE(rig.WaitFor(QN_STATE_E_MOUNTED));
    tagQN_HANDLER_S *pSecond = nullptr; // as of a program that was started again
    ASSERT_EQ(0u, QN_Init(&rig.stParam, pSecond));
    EXPECT_EQ(QN_STATE_E_MOUNTED, pSecond->enState.load());
    EXPECT_EQ(1, rig.Mounts());
    EXPECT_EQ(0u, QN_Destroy(pSecond));
}

TEST_F(CardLife, MountDirectoryWithoutACardEndsUnplugged)
{
    CARD_RIG rig;
    mkdir(rig.card.MountDir().c_str(), 0755);
    rig.Init();
    EXPECT_TRUE(rig.WaitFor(QN_STATE_E_UNPLUGIN));
    EXPECT_TRUE(rig.WaitIdle());
    EXPECT_EQ(QN_STATE_E_UNPLUGIN, rig.State());
}

TEST_F(CardLife, SessionThatIsNotIdleForbidsTheMount)
{
    CARD_RIG rig;
    rig.Init();
    ASSERT_TRUE(rig.WaitListening());
    ASSERT_TRUE(rig.InMounted());
    ASSERT_EQ(0u, QN_StorageUnMount(rig.pHandle));
    ASSERT_EQ(0u, QN_StorageMount(rig.pHandle));
    PUMP pump(rig.pHandle, QN_FILE_FMT_E_TS, false, "busy");
    ASSERT_EQ(0u, pump.Start());
    rig.pHandle->enState = QN_STATE_E_UNMOUNTED; // no call leads here with a session open
    EXPECT_EQ(3u, QN_StorageMount(rig.pHandle));
    rig.pHandle->enState = QN_STATE_E_MOUNTED;
    pump.Stop();
}

TEST_F(CardLife, UnmountedCardIsFormattedAnew)
{
    CARD_RIG rig;
    rig.Init();
    ASSERT_TRUE(rig.WaitListening());
    ASSERT_TRUE(rig.InMounted());
    TEST_Touch(rig.Folder() + "/old");
    ASSERT_EQ(0u, QN_StorageUnMount(rig.pHandle));
    ASSERT_EQ(0u, QN_StorageFormat(rig.pHandle, QN_FS_TYPE_E_EXT4));
    ASSERT_TRUE(rig.WaitFor(QN_STATE_E_MOUNTED));
    EXPECT_FALSE(TEST_Exists(rig.Folder() + "/old"));
}

TEST_F(CardLife, VfatIsMadeAndMountedAsFarAsTheKernelCan)
{
    CARD_RIG rig(With(CARD_CONTENT_BLANK));
    rig.Init();
    ASSERT_TRUE(rig.WaitListening());
    ASSERT_TRUE(rig.card.In());
    ASSERT_TRUE(rig.WaitFor(QN_STATE_E_PLUGIN));
    ASSERT_EQ(0u, QN_StorageFormat(rig.pHandle, QN_FS_TYPE_E_VFAT));
    ASSERT_TRUE(rig.WaitFor(KernelHasVfat() ? QN_STATE_E_MOUNTED : QN_STATE_E_PLUGIN));
    EXPECT_TRUE(FAKE_PLATFORM_Logged("make partition fs success"));
    EXPECT_EQ(!KernelHasVfat(), FAKE_PLATFORM_Logged("Mount " + rig.card.MountDir() + " failed!"));
    EXPECT_EQ(KernelHasVfat() ? 1 : 0, rig.Mounts());
}

TEST_F(CardLife, UnknownFileSystemFailsAfterTheTableWasWritten)
{
    CARD_RIG rig;
    rig.Init();
    ASSERT_TRUE(rig.WaitListening());
    ASSERT_TRUE(rig.InMounted());
    ASSERT_EQ(0u, QN_StorageUnMount(rig.pHandle));
    ASSERT_EQ(0u, QN_StorageFormat(rig.pHandle, static_cast<QN_FS_TYPE_E>(3)));
    ASSERT_TRUE(rig.WaitFor(QN_STATE_E_PLUGIN));
    EXPECT_TRUE(FAKE_PLATFORM_Logged("make partition table success"));
    EXPECT_TRUE(FAKE_PLATFORM_Logged("make partition fs failed: -3"));
}

TEST_F(CardLife, TablesOfOthersAreReplacedByAFormat)
{
    std::vector<std::thread> vecThreads;
    for (const CARD_CONTENT_E enContent :
         {CARD_CONTENT_FOREIGN, CARD_CONTENT_GPT, CARD_CONTENT_NO_TABLE_EXT4, CARD_CONTENT_TABLE})
    {
        vecThreads.emplace_back(
            [enContent]
            {
                CARD_RIG rig(With(enContent));
                rig.Init();
                ASSERT_TRUE(rig.WaitListening());
                ASSERT_TRUE(rig.card.In());
                ASSERT_TRUE(rig.WaitFor(QN_STATE_E_PLUGIN)) << enContent;
                ASSERT_EQ(0u, QN_StorageFormat(rig.pHandle, QN_FS_TYPE_E_EXT4));
                EXPECT_TRUE(rig.WaitFor(QN_STATE_E_MOUNTED)) << enContent;
            });
    }
    for (std::thread &thread : vecThreads)
    {
        thread.join();
    }
}

TEST_F(CardLife, CardWithAnotherFileSystemOfTheKernelsIsMounted)
{
    CARD_RIG rig(With(CARD_CONTENT_EXT2));
    rig.Init();
    ASSERT_TRUE(rig.WaitListening());
    EXPECT_TRUE(rig.InMounted());
}

TEST_F(CardLife, ReadOnlyCardIsMountedAndTakesNoRecording)
{
    CARD_PARAM_S stCard;
    stCard.bReadOnly = true;
    CARD_RIG rig(stCard);
    rig.Init();
    ASSERT_TRUE(rig.WaitListening());
    ASSERT_TRUE(rig.card.In());
    ASSERT_TRUE(rig.WaitFor(QN_STATE_E_MOUNTED)); // mount falls back to reading
    ASSERT_TRUE(rig.WaitIdle());
    PUMP pump(rig.pHandle, QN_FILE_FMT_E_MKV, false, "ro");
    EXPECT_EQ(7u, pump.Start());
}

TEST_F(CardLife, ReadOnlyCardCannotBeFormatted)
{
    CARD_PARAM_S stCard;
    stCard.bReadOnly = true;
    stCard.enContent = CARD_CONTENT_BLANK;
    CARD_RIG rig(stCard);
    rig.Init();
    ASSERT_TRUE(rig.WaitListening());
    ASSERT_TRUE(rig.card.In());
    ASSERT_TRUE(rig.WaitFor(QN_STATE_E_PLUGIN));
    ASSERT_EQ(0u, QN_StorageFormat(rig.pHandle, QN_FS_TYPE_E_EXT4));
    ASSERT_TRUE(rig.WaitFor(QN_STATE_E_PLUGIN));
    EXPECT_TRUE(FAKE_PLATFORM_WaitLogged("make partition table failed: -1", RIG_WAIT_MS));
}

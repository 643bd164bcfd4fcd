// Unmounting while something is open: the unmount line comes when no descriptor of the process is below the mount
// point, since the line deletes what it could not unmount.

#include <sys/stat.h>
#include <unistd.h>

#include "core/core_test.h"

using namespace libquarrin;

using Unmount = CORE_TEST;

namespace
{

std::shared_ptr<void> Volume(QN_VOLUME_ID_E enVolume)
{
    return std::make_shared<QN_VOLUME_ID_E>(enVolume);
}

} // namespace

TEST_F(Unmount, WaitsForAQuotaCheckThatListsAFolder)
{
    InitMounted();
    SYSTEM_CALLS_HoldListing(Folder(0));
    Push(QN_EVENT_E_QUOTA_UPDATE, Volume(QN_VOLUME_ID_E_0));
    ASSERT_TRUE(SYSTEM_CALLS_WaitListingHeld());
    EXPECT_EQ(std::vector<std::string>{Folder(0)}, PROCESS_DescriptorsBelow(m_strMount));
    BACKGROUND unmount([this] { EXPECT_EQ(0u, QN_StorageUnMount(m_pHandle)); });
    EXPECT_TRUE(unmount.StaysBusy());
    EXPECT_EQ(0, FAKE_PLATFORM_CommandCount("umount"));
    SYSTEM_CALLS_ReleaseListing();
    EXPECT_TRUE(unmount.WaitDone());
    EXPECT_EQ(1, FAKE_PLATFORM_CommandCount(UnmountLine()));
    EXPECT_EQ(std::vector<std::string>{}, OpenAtUnmount());
}

TEST_F(Unmount, WaitsForTheFoldersThatAreBeingMade)
{
    InitMounted();
    FAKE_PLATFORM_Stall("mkdir -p " + Folder(0));
    Push(QN_EVENT_E_MOUNT_DONE);
    ASSERT_TRUE(FAKE_PLATFORM_WaitStalled());
    BACKGROUND unmount([this] { EXPECT_EQ(0u, QN_StorageUnMount(m_pHandle)); });
    EXPECT_TRUE(unmount.StaysBusy());
    EXPECT_EQ(0, FAKE_PLATFORM_CommandCount("umount"));
    FAKE_PLATFORM_Release();
    EXPECT_TRUE(unmount.WaitDone());
}

TEST_F(Unmount, RefusesAtOnceWhileASessionIsOpenAndAFolderCommandHangs)
{
    InitMounted();
    tagQN_RECORD_HANDLER_S *pSession = MakeSession();
    ASSERT_TRUE(Settle());
    FAKE_PLATFORM_Stall("mkdir -p " + Folder(0));
    Push(QN_EVENT_E_MOUNT_DONE);
    ASSERT_TRUE(FAKE_PLATFORM_WaitStalled());
    EXPECT_EQ(3u, QN_StorageUnMount(m_pHandle));
    std::vector<tagQN_FILE_INFO_S> vecFiles;
    EXPECT_EQ(0u, QN_ReplayListFile(m_pHandle, QN_VOLUME_ID_E_0, &vecFiles));
    FAKE_PLATFORM_Release();
    EXPECT_EQ(0u, QN_RecordDestroy(pSession));
}

TEST_F(Unmount, RefusesAtOnceWhileASessionIsOpenAndAFolderIsListed)
{
    InitMounted();
    tagQN_RECORD_HANDLER_S *pSession = MakeSession();
    SYSTEM_CALLS_HoldListing(Folder(0));
    Push(QN_EVENT_E_QUOTA_UPDATE, Volume(QN_VOLUME_ID_E_0));
    ASSERT_TRUE(SYSTEM_CALLS_WaitListingHeld());
    EXPECT_EQ(3u, QN_StorageUnMount(m_pHandle)); // on this thread: nobody ends the listing meanwhile
    SYSTEM_CALLS_ReleaseListing();
    EXPECT_EQ(0u, QN_RecordDestroy(pSession));
}

TEST_F(Unmount, WaitsForAHostThatListsAFolder)
{
    InitMounted();
    SYSTEM_CALLS_HoldListing(Folder(1));
    std::vector<tagQN_FILE_INFO_S> vecFiles;
    BACKGROUND list([&] { EXPECT_EQ(0u, QN_ReplayListFile(m_pHandle, QN_VOLUME_ID_E_1, &vecFiles)); });
    ASSERT_TRUE(SYSTEM_CALLS_WaitListingHeld());
    BACKGROUND unmount([this] { EXPECT_EQ(0u, QN_StorageUnMount(m_pHandle)); });
    EXPECT_TRUE(unmount.StaysBusy());
    SYSTEM_CALLS_ReleaseListing();
    EXPECT_TRUE(unmount.WaitDone());
    EXPECT_TRUE(list.WaitDone());
    EXPECT_EQ(std::vector<std::string>{}, OpenAtUnmount());
}

TEST_F(Unmount, OfAPulledCardWaitsForAHostThatListsAFolder)
{
    InitMounted();
    SYSTEM_CALLS_HoldListing(Folder(1));
    std::vector<tagQN_FILE_INFO_S> vecFiles;
    BACKGROUND list([&] { EXPECT_EQ(0u, QN_ReplayListFile(m_pHandle, QN_VOLUME_ID_E_1, &vecFiles)); });
    ASSERT_TRUE(SYSTEM_CALLS_WaitListingHeld());
    Push(QN_EVENT_E_HOTPLUG_OUT);
    EXPECT_FALSE(TEST_WaitFor([] { return FAKE_PLATFORM_CommandCount("umount") > 0; }, 50));
    SYSTEM_CALLS_ReleaseListing();
    EXPECT_TRUE(list.WaitDone());
    EXPECT_TRUE(WaitForState(QN_STATE_E_UNPLUGIN));
    EXPECT_EQ(std::vector<std::string>{}, OpenAtUnmount());
}

TEST_F(Unmount, OfAPulledCardWaitsForAFileThatIsMovedAside)
{
    InitMounted();
    FAKE_PLATFORM_Stall("mv ");
    BACKGROUND host([this] { EXPECT_EQ(0u, QN_RecordErrorFileClear(m_pHandle, QN_VOLUME_ID_E_0, "a.ts")); });
    ASSERT_TRUE(FAKE_PLATFORM_WaitStalled());
    Push(QN_EVENT_E_HOTPLUG_OUT);
    EXPECT_FALSE(TEST_WaitFor([] { return FAKE_PLATFORM_CommandCount("umount") > 0; }, 300)); // two seconds at most
    FAKE_PLATFORM_Release();
    EXPECT_TRUE(host.WaitDone());
    EXPECT_TRUE(WaitForState(QN_STATE_E_UNPLUGIN));
    EXPECT_EQ(UnmountLine(), FAKE_PLATFORM_Commands().back());
}

TEST_F(Unmount, OfAPulledCardStopsSessionsAndReplaysWhileAFolderIsListed)
{
    InitMounted();
    tagQN_RECORD_HANDLER_S *pSession = MakeRunningSession("a");
    tagQN_REPLAY_HANDLER_S *pReplay = MakeReplay();
    SYSTEM_CALLS_HoldListing(Folder(1));
    std::vector<tagQN_FILE_INFO_S> vecFiles;
    BACKGROUND list([&] { EXPECT_EQ(0u, QN_ReplayListFile(m_pHandle, QN_VOLUME_ID_E_1, &vecFiles)); });
    ASSERT_TRUE(SYSTEM_CALLS_WaitListingHeld());
    Push(QN_EVENT_E_HOTPLUG_OUT);
    EXPECT_TRUE(TEST_WaitFor([&] { return pSession->enRecordState.load() == QN_RECORD_STATE_STOPPING; }));
    const int32_t s32Frames = FAKE_BACKEND_Frames();
    EXPECT_EQ(0u, WriteKeyFrame(pSession));
    EXPECT_EQ(s32Frames, FAKE_BACKEND_Frames()); // dropped
    EXPECT_TRUE(TEST_WaitFor([] { return FAKE_BACKEND_ReadCloses() == 1; }));
    uint8_t *pu8Data = nullptr;
    EXPECT_EQ(8u, QN_ReplayFreeFrame(pReplay, pu8Data));
    // What the host does meanwhile, told by the session: it is marked again, and so is a session that comes.
    EXPECT_EQ(0u, QN_RecordStop(pSession));
    tagQN_RECORD_HANDLER_S *pLater = MakeSession();
    EXPECT_EQ(0, FAKE_PLATFORM_CommandCount("umount"));
    SYSTEM_CALLS_ReleaseListing();
    EXPECT_TRUE(list.WaitDone());
    ASSERT_TRUE(WaitForState(QN_STATE_E_UNPLUGIN));
    EXPECT_EQ(QN_RECORD_STATE_STOPPING, pSession->enRecordState.load());
    EXPECT_EQ(QN_RECORD_STATE_STOPPING, pLater->enRecordState.load());
    EXPECT_EQ(std::vector<std::string>{}, OpenAtUnmount());
    EXPECT_EQ(0u, QN_RecordDestroy(pSession));
    EXPECT_EQ(0u, QN_RecordDestroy(pLater));
    EXPECT_EQ(0, QN_ReplayClose(pReplay));
}

TEST_F(Unmount, AtTheEndOfTheHandleWaitsForAQuotaCheck)
{
    InitMounted();
    SYSTEM_CALLS_HoldListing(Folder(0));
    Push(QN_EVENT_E_QUOTA_UPDATE, Volume(QN_VOLUME_ID_E_0));
    ASSERT_TRUE(SYSTEM_CALLS_WaitListingHeld());
    BACKGROUND destroy([this] { EXPECT_EQ(0u, QN_Destroy(m_pHandle)); });
    EXPECT_TRUE(destroy.StaysBusy());
    EXPECT_EQ(0, FAKE_PLATFORM_CommandCount("umount"));
    SYSTEM_CALLS_ReleaseListing();
    EXPECT_TRUE(destroy.WaitDone());
    EXPECT_EQ(1, FAKE_PLATFORM_CommandCount(UnmountLine()));
    EXPECT_EQ(std::vector<std::string>{}, OpenAtUnmount());
}

TEST_F(Unmount, RightAfterASessionWithQueuedSplitsWasDestroyedFindsNothingOpen)
{
    InitMounted();
    tagQN_RECORD_HANDLER_S *pSession = MakeRunningSession("a", true);
    ASSERT_NO_FATAL_FAILURE(StallDispatcher());
    Age(pSession, 4000);
    WriteKeyFrame(pSession); // splits: the old writer is queued
    EXPECT_EQ(3, FAKE_BACKEND_OpenNow());
    {
        // Only the stalled file stays held: the session's own are closed by the destroy.
        BACKGROUND destroy([&] { EXPECT_EQ(0u, QN_RecordDestroy(pSession)); });
        ReleaseDispatcher();
        EXPECT_TRUE(destroy.WaitDone());
    }
    EXPECT_EQ(0u, QN_StorageUnMount(m_pHandle));
    EXPECT_EQ(std::vector<std::string>{}, OpenAtUnmount());
    ASSERT_TRUE(Settle()); // the stalled file is closed by the event thread
    EXPECT_EQ(FAKE_BACKEND_Opens(), FAKE_BACKEND_Closes());
}

TEST_F(Unmount, RightAfterASessionWhoseSplitIsBeingClosedFindsNothingOpen)
{
    InitMounted();
    tagQN_RECORD_HANDLER_S *pSession = MakeRunningSession("a", true);
    Age(pSession, 4000);
    FAKE_BACKEND_HoldClose();
    WriteKeyFrame(pSession); // the event thread is closing the old file
    ASSERT_TRUE(FAKE_BACKEND_WaitHeld());
    BACKGROUND host(
        [&]
        {
            EXPECT_EQ(0u, QN_RecordDestroy(pSession));
            EXPECT_EQ(0u, QN_StorageUnMount(m_pHandle));
        });
    EXPECT_TRUE(host.StaysBusy());
    EXPECT_EQ(0, FAKE_PLATFORM_CommandCount("umount"));
    FAKE_BACKEND_ReleaseClose();
    EXPECT_TRUE(host.WaitDone());
    EXPECT_EQ(std::vector<std::string>{}, OpenAtUnmount());
    EXPECT_EQ(2, FAKE_BACKEND_Closes());
}

TEST_F(Unmount, RightAfterDestroyedSessionsNeverMeetsTheirQuotaChecks)
{
    for (int32_t i = 0; i < 200; ++i)
    {
        const std::string strNumber = std::to_string(1000 + i);
        const std::string strName = "2024-03-01-08-" + strNumber.substr(0, 2) + "-" + strNumber.substr(2, 2);
        mkdir(m_strMount.c_str(), 0755);
        mkdir(Folder(0).c_str(), 0755);
        TEST_Touch(Folder(0) + "/" + strName + ".To." + strName + ".mkv", "x");
    }
    InitMounted();
    for (int32_t i = 0; i < 20; ++i)
    {
        tagQN_RECORD_HANDLER_S *pSession = MakeRunningSession("a");
        EXPECT_EQ(0u, QN_RecordDestroy(pSession));
        EXPECT_EQ(0u, QN_RecordStorageUpdate(m_pHandle, QN_VOLUME_ID_E_0, 1)); // an unthrottled one
        EXPECT_EQ(0u, QN_StorageUnMount(m_pHandle));
        EXPECT_EQ(0u, QN_StorageMount(m_pHandle));
    }
    EXPECT_EQ(20, FAKE_PLATFORM_CommandCount(UnmountLine()));
    EXPECT_EQ(std::vector<std::string>{}, OpenAtUnmount());
}

TEST_F(Unmount, IsNotOvertakenByAReplayOrAStart)
{
    InitMounted();
    FAKE_PLATFORM_Stall("umount");
    BACKGROUND unmount([this] { EXPECT_EQ(0u, QN_StorageUnMount(m_pHandle)); });
    ASSERT_TRUE(FAKE_PLATFORM_WaitStalled());
    std::vector<tagQN_FILE_INFO_S> vecFiles;
    tagQN_REPLAY_HANDLER_S *pReplay = nullptr;
    BACKGROUND list([&] { EXPECT_EQ(3u, QN_ReplayListFile(m_pHandle, QN_VOLUME_ID_E_0, &vecFiles)); });
    BACKGROUND open([&] { EXPECT_EQ(3u, QN_ReplayOpenByFilePath(m_pHandle, Folder(0) + "/x", {}, pReplay)); });
    EXPECT_TRUE(list.StaysBusy()); // until the command has ended
    EXPECT_TRUE(open.StaysBusy());
    EXPECT_TRUE(PROCESS_DescriptorsBelow(m_strMount).empty());
    FAKE_PLATFORM_Release();
    EXPECT_TRUE(unmount.WaitDone());
    EXPECT_TRUE(list.WaitDone());
    EXPECT_TRUE(open.WaitDone());
    EXPECT_EQ(nullptr, pReplay);
}

TEST_F(Unmount, RefusesASessionThatCameWhileItWaited)
{
    InitMounted();
    SYSTEM_CALLS_HoldListing(Folder(1));
    std::vector<tagQN_FILE_INFO_S> vecFiles;
    BACKGROUND list([&] { EXPECT_EQ(0u, QN_ReplayListFile(m_pHandle, QN_VOLUME_ID_E_1, &vecFiles)); });
    ASSERT_TRUE(SYSTEM_CALLS_WaitListingHeld());
    BACKGROUND unmount([this] { EXPECT_EQ(3u, QN_StorageUnMount(m_pHandle)); });
    EXPECT_TRUE(unmount.StaysBusy());
    EXPECT_FALSE(FAKE_PLATFORM_Logged("handler is not idle"));
    tagQN_RECORD_HANDLER_S *pSession = MakeSession();
    SYSTEM_CALLS_ReleaseListing();
    EXPECT_TRUE(unmount.WaitDone());
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(3, "QN_StorageUnMount", "handler is not idle"));
    EXPECT_EQ(QN_STATE_E_MOUNTED, State());
    EXPECT_EQ(0, FAKE_PLATFORM_CommandCount("umount"));
    EXPECT_EQ(0u, QN_RecordDestroy(pSession));
}

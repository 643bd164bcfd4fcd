// Storage states: the first look at the storage, and what hotplug, mount and format events do in every state.

#include <sys/stat.h>
#include <unistd.h>

#include "core/core_test.h"

using namespace libquarrin;

using StorageStates = CORE_TEST;

namespace
{

const QN_STATE_E ALL_STATES[] = {QN_STATE_E_UNPLUGIN, QN_STATE_E_PLUGIN, QN_STATE_E_FORMATING, QN_STATE_E_UNMOUNTED,
                                 QN_STATE_E_MOUNTED};

std::string Line(const std::string &strFunc, const std::string &strText)
{
    return "\\[ERROR\\]\\[" + strFunc + ":[0-9]+\\] " + strText;
}

} // namespace

TEST_F(StorageStates, BeginUnpluggedWithoutDeviceAndMountDirectory)
{
    InitUnplugged();
    ASSERT_TRUE(Settle());
    EXPECT_EQ(QN_STATE_E_UNPLUGIN, State());
    EXPECT_TRUE(FAKE_PLATFORM_Commands().empty());
    EXPECT_FALSE(FAKE_PLATFORM_Logged("QN_EVENT_E_"));
}

TEST_F(StorageStates, BeginWithAHotplugInForADeviceThatIsNotMounted)
{
    FAKE_PLATFORM_Stall("; mount ");
    Init();
    ASSERT_TRUE(FAKE_PLATFORM_WaitStalled());
    EXPECT_EQ(QN_STATE_E_UNPLUGIN, State()); // unchanged by the first look
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(6, "QN_EVENT_ProcessThread", "QN_EVENT_E_HOTPLUG_IN"));
    FAKE_PLATFORM_Release();
    ASSERT_TRUE(WaitForState(QN_STATE_E_MOUNTED));
    ASSERT_TRUE(Settle());
    EXPECT_TRUE(FAKE_PLATFORM_Logged("QN_EVENT_E_MOUNT_DONE"));
    const std::vector<std::string> vecExpected = {MountLine(), "mkdir -p " + m_strMount + "/rec",
                                                  "mkdir -p " + m_strMount + "/photo",
                                                  "mkdir -p " + m_strMount + "/event"};
    EXPECT_EQ(vecExpected, FAKE_PLATFORM_Commands());
}

TEST_F(StorageStates, BeginMountedWithDeviceAndMountDirectory)
{
    mkdir(m_strMount.c_str(), 0755);
    Init();
    EXPECT_EQ(QN_STATE_E_MOUNTED, State()); // at once
    ASSERT_TRUE(Settle());
    EXPECT_EQ(QN_STATE_E_MOUNTED, State());
    EXPECT_EQ(0, FAKE_PLATFORM_CommandCount("; mount "));
    EXPECT_EQ(3, FAKE_PLATFORM_CommandCount("mkdir -p " + m_strMount + "/"));
    EXPECT_TRUE(FAKE_PLATFORM_Logged("QN_EVENT_E_MOUNT_DONE"));
    EXPECT_FALSE(FAKE_PLATFORM_Logged("QN_EVENT_E_HOTPLUG"));
}

TEST_F(StorageStates, BeginMountedAndEndUnpluggedWithAMountDirectoryButNoDevice)
{
    mkdir(m_strMount.c_str(), 0755);
    FAKE_PLATFORM_Stall("umount");
    InitUnplugged();
    ASSERT_TRUE(FAKE_PLATFORM_WaitStalled());
    EXPECT_EQ(QN_STATE_E_MOUNTED, State()); // until the hot-unplug is done
    FAKE_PLATFORM_Release();
    ASSERT_TRUE(WaitForState(QN_STATE_E_UNPLUGIN));
    ASSERT_TRUE(Settle());
    EXPECT_EQ(std::vector<std::string>{UnmountLine()}, FAKE_PLATFORM_Commands());
    EXPECT_FALSE(FAKE_PLATFORM_Logged("QN_EVENT_E_MOUNT_DONE"));
}

TEST_F(StorageStates, EndUnpluggedWhenTheDeviceOfAHotplugInIsMissing)
{
    STDOUT_CAPTURE capture;
    InitUnplugged();
    const std::string strText = "OOPs, trigger hotplug-in event but device " + m_strDevice + " not found!";
    for (const QN_STATE_E enState : ALL_STATES)
    {
        SetState(enState);
        Push(QN_EVENT_E_HOTPLUG_IN);
        ASSERT_TRUE(Settle());
        EXPECT_EQ(QN_STATE_E_UNPLUGIN, State()) << enState;
    }
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(3, "QN_EVENT_HandleHotplugIn", strText));
    EXPECT_TRUE(capture.HasLine(Line("QN_EVENT_HandleHotplugIn", strText)));
    EXPECT_EQ(5, capture.Count(strText));
    EXPECT_TRUE(FAKE_PLATFORM_Commands().empty());
}

TEST_F(StorageStates, EndPluggedWhenThePartitionIsMissing)
{
    STDOUT_CAPTURE capture;
    InitUnplugged();
    TEST_Touch(m_strDevice);
    for (const QN_STATE_E enState : ALL_STATES)
    {
        SetState(enState);
        Push(QN_EVENT_E_HOTPLUG_IN);
        ASSERT_TRUE(Settle());
        EXPECT_EQ(QN_STATE_E_PLUGIN, State()) << enState;
    }
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(3, "QN_EVENT_HandleHotplugIn", "partition not found!"));
    EXPECT_TRUE(capture.HasLine(Line("QN_EVENT_HandleHotplugIn", "partition not found!")));
    EXPECT_EQ(5, capture.Count("partition not found!"));
    EXPECT_TRUE(FAKE_PLATFORM_Commands().empty());
}

TEST_F(StorageStates, EndPluggedWhenTheMountOfAHotplugInFails)
{
    STDOUT_CAPTURE capture;
    FAKE_PLATFORM_Answer("; mount ", 32);
    InitUnplugged();
    TEST_Touch(m_strDevice);
    TEST_Touch(m_strPartition);
    const std::string strText = "Mount " + m_strMount + " failed!";
    for (const QN_STATE_E enState : ALL_STATES)
    {
        SetState(enState);
        Push(QN_EVENT_E_HOTPLUG_IN);
        ASSERT_TRUE(Settle());
        EXPECT_EQ(QN_STATE_E_PLUGIN, State()) << enState;
    }
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(3, "QN_EVENT_HandleHotplugIn", strText));
    EXPECT_TRUE(capture.HasLine(Line("QN_EVENT_HandleHotplugIn", strText)));
    EXPECT_EQ(std::vector<std::string>(5, MountLine()), FAKE_PLATFORM_Commands()); // nothing is tried twice
    EXPECT_FALSE(FAKE_PLATFORM_Logged("QN_EVENT_E_MOUNT_DONE"));
}

TEST_F(StorageStates, EndMountedAfterAHotplugInAlsoWhenMountedAlready)
{
    InitUnplugged();
    TEST_Touch(m_strDevice);
    TEST_Touch(m_strPartition);
    int32_t s32Round = 0;
    for (const QN_STATE_E enState : ALL_STATES)
    {
        SetState(enState);
        Push(QN_EVENT_E_HOTPLUG_IN);
        ASSERT_TRUE(Settle());
        EXPECT_EQ(QN_STATE_E_MOUNTED, State()) << enState;
        ++s32Round;
        EXPECT_EQ(s32Round, FAKE_PLATFORM_CommandCount(MountLine()));
        EXPECT_EQ(s32Round, FAKE_PLATFORM_CommandCount("mkdir -p " + m_strMount + "/rec"));
    }
    for (const FAKE_LOG_S &stLog : FAKE_PLATFORM_Logs())
    {
        EXPECT_NE(3, stLog.s32Level) << stLog.strText;
    }
}

TEST_F(StorageStates, EndUnpluggedAfterAHotplugOutWhateverUmountSays)
{
    InitUnplugged();
    for (const int32_t s32Result : {0, 1})
    {
        FAKE_PLATFORM_Answer("umount", s32Result);
        for (const QN_STATE_E enState : ALL_STATES)
        {
            SetState(enState);
            Push(QN_EVENT_E_HOTPLUG_OUT);
            ASSERT_TRUE(Settle());
            EXPECT_EQ(QN_STATE_E_UNPLUGIN, State()) << enState;
        }
    }
    EXPECT_EQ(std::vector<std::string>(10, UnmountLine()), FAKE_PLATFORM_Commands());
    for (const FAKE_LOG_S &stLog : FAKE_PLATFORM_Logs()) // no line of its own but the event's
    {
        EXPECT_EQ(6, stLog.s32Level) << stLog.strText;
        EXPECT_NE(0u, stLog.strPrefix.rfind("QN_EVENT_HandleHotplugOut", 0));
    }
}

TEST_F(StorageStates, StayAsTheyAreAfterADoneMount)
{
    InitUnplugged();
    m_pHandle->as32QuotaCountdown[0] = 17;
    for (const QN_STATE_E enState : ALL_STATES)
    {
        m_pHandle->astQuotaLastCheck[0].tv_sec = 5;
        SetState(enState);
        Push(QN_EVENT_E_MOUNT_DONE);
        ASSERT_TRUE(Settle());
        EXPECT_EQ(enState, State());
        EXPECT_EQ(0, m_pHandle->astQuotaLastCheck[0].tv_sec);
        EXPECT_EQ(17, m_pHandle->as32QuotaCountdown[0]);
    }
    SetState(QN_STATE_E_UNPLUGIN);
    EXPECT_EQ(5, FAKE_PLATFORM_CommandCount("mkdir -p " + m_strMount + "/rec"));
}

TEST_F(StorageStates, EndMountedAfterASuccessfulFormat)
{
    InitUnplugged();
    SetState(QN_STATE_E_FORMATING);
    Push(QN_EVENT_E_FORMAT_SUCCESS);
    ASSERT_TRUE(Settle());
    EXPECT_EQ(QN_STATE_E_MOUNTED, State());
    EXPECT_EQ(MountLine(), FAKE_PLATFORM_Commands().front());
    EXPECT_TRUE(FAKE_PLATFORM_Logged("QN_EVENT_E_MOUNT_DONE"));
    EXPECT_EQ(4u, FAKE_PLATFORM_Commands().size());
}

TEST_F(StorageStates, EndPluggedWhenTheMountAfterAFormatFails)
{
    STDOUT_CAPTURE capture;
    FAKE_PLATFORM_Answer("; mount ", 1);
    InitUnplugged();
    SetState(QN_STATE_E_FORMATING);
    Push(QN_EVENT_E_FORMAT_SUCCESS);
    ASSERT_TRUE(Settle());
    EXPECT_EQ(QN_STATE_E_PLUGIN, State());
    const std::string strText = "Mount " + m_strMount + " failed!";
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(3, "QN_EVENT_HandleFormatSuccess", strText));
    EXPECT_TRUE(capture.HasLine(Line("QN_EVENT_HandleFormatSuccess", strText)));
    EXPECT_FALSE(FAKE_PLATFORM_Logged("QN_EVENT_E_MOUNT_DONE"));
}

TEST_F(StorageStates, EndPluggedAfterAFailedFormat)
{
    InitUnplugged();
    SetState(QN_STATE_E_FORMATING);
    Push(QN_EVENT_E_FORMAT_FAILED);
    ASSERT_TRUE(Settle());
    EXPECT_EQ(QN_STATE_E_PLUGIN, State());
    EXPECT_TRUE(FAKE_PLATFORM_Commands().empty());
    EXPECT_FALSE(FAKE_PLATFORM_Logged("OOPs"));
}

TEST_F(StorageStates, IgnoreTheEndOfAFormatThatDoesNotRun)
{
    STDOUT_CAPTURE capture;
    InitUnplugged();
    int32_t s32Round = 0;
    for (const QN_STATE_E enState : ALL_STATES)
    {
        if (enState == QN_STATE_E_FORMATING)
        {
            continue;
        }
        SetState(enState);
        Push(QN_EVENT_E_FORMAT_SUCCESS);
        Push(QN_EVENT_E_FORMAT_FAILED);
        ASSERT_TRUE(Settle());
        EXPECT_EQ(enState, State());
        ++s32Round;
    }
    SetState(QN_STATE_E_UNPLUGIN);
    const std::string strSuccess = "OOPs, trigger format-success event but not in FORMATING!";
    const std::string strFailed = "OOPs, trigger format-failed event but not in FORMATING!";
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(3, "QN_EVENT_HandleFormatSuccess", strSuccess));
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(3, "QN_EVENT_HandleFormatFailed", strFailed));
    EXPECT_TRUE(capture.HasLine(Line("QN_EVENT_HandleFormatSuccess", strSuccess)));
    EXPECT_TRUE(capture.HasLine(Line("QN_EVENT_HandleFormatFailed", strFailed)));
    EXPECT_EQ(s32Round, capture.Count(strSuccess));
    EXPECT_EQ(s32Round, capture.Count(strFailed));
    EXPECT_TRUE(FAKE_PLATFORM_Commands().empty());
}

TEST_F(StorageStates, AreNoMatterOfAHandlersResult)
{
    ASSERT_NO_FATAL_FAILURE(InitWithoutEventThread()); // the test is what dispatches
    unlink(m_strPartition.c_str());
    unlink(m_strDevice.c_str());
    EXPECT_EQ(0, QN_EVENT_HandleHotplugIn(m_pHandle)); // no device
    TEST_Touch(m_strDevice);
    EXPECT_EQ(0, QN_EVENT_HandleHotplugIn(m_pHandle)); // no partition
    EXPECT_EQ(QN_STATE_E_PLUGIN, State());
    TEST_Touch(m_strPartition);
    for (const int32_t s32Mount : {1, 0})
    {
        FAKE_PLATFORM_Answer("; mount ", s32Mount);
        EXPECT_EQ(0, QN_EVENT_HandleHotplugIn(m_pHandle));
        EXPECT_EQ(s32Mount == 0 ? QN_STATE_E_MOUNTED : QN_STATE_E_PLUGIN, State());
        SetState(QN_STATE_E_FORMATING);
        EXPECT_EQ(0, QN_EVENT_HandleFormatSuccess(m_pHandle));
        EXPECT_EQ(s32Mount == 0 ? QN_STATE_E_MOUNTED : QN_STATE_E_PLUGIN, State());
    }
    EXPECT_EQ(0, QN_EVENT_HandleFormatSuccess(m_pHandle)); // no format
    EXPECT_EQ(0, QN_EVENT_HandleFormatFailed(m_pHandle));
    EXPECT_EQ(QN_STATE_E_MOUNTED, State());
    EXPECT_EQ(0, QN_EVENT_HandleMountDone(m_pHandle));
    EXPECT_EQ(0, QN_EVENT_HandleHotplugOut(m_pHandle));
    SetState(QN_STATE_E_FORMATING);
    EXPECT_EQ(0, QN_EVENT_HandleFormatFailed(m_pHandle));
    EXPECT_EQ(QN_STATE_E_PLUGIN, State());
    SetState(QN_STATE_E_UNPLUGIN);
}

TEST_F(StorageStates, StopSessionsAndCloseReadersWhenTheCardIsPulled)
{
    InitMounted();
    tagQN_RECORD_HANDLER_S *pRunning = MakeRunningSession("a");
    tagQN_RECORD_HANDLER_S *pIdle = MakeSession();
    tagQN_REPLAY_HANDLER_S *pReplay = MakeReplay();
    std::atomic<int32_t> s32StateAtUmount{-1};
    std::atomic<int32_t> s32ReadersClosedAtUmount{-1};
    FAKE_PLATFORM_OnCommand(
        [&](const std::string &strCommand)
        {
            if (strCommand == UnmountLine())
            {
                s32StateAtUmount = pRunning->enRecordState.load();
                s32ReadersClosedAtUmount = FAKE_BACKEND_ReadCloses();
            }
            return 0;
        });
    Push(QN_EVENT_E_HOTPLUG_OUT);
    ASSERT_TRUE(Settle());
    EXPECT_EQ(QN_STATE_E_UNPLUGIN, State());
    EXPECT_EQ(QN_RECORD_STATE_STOPPING, s32StateAtUmount); // before umount looks at the card
    EXPECT_EQ(1, s32ReadersClosedAtUmount);
    EXPECT_EQ(QN_RECORD_STATE_STOPPING, pRunning->enRecordState.load());
    EXPECT_EQ(QN_RECORD_STATE_STOPPING, pIdle->enRecordState.load());
    EXPECT_EQ(1, FAKE_BACKEND_OpenNow()); // the session keeps its writer
    EXPECT_EQ(nullptr, pReplay->pReader);

    const int32_t s32Frames = FAKE_BACKEND_Frames();
    EXPECT_EQ(0u, WriteKeyFrame(pRunning)); // dropped
    EXPECT_EQ(s32Frames, FAKE_BACKEND_Frames());
    uint8_t *pu8Data = nullptr;
    EXPECT_EQ(8u, QN_ReplayFreeFrame(pReplay, pu8Data));

    // Back again: mounted anew, and the sessions can be started again after a stop.
    Push(QN_EVENT_E_HOTPLUG_IN);
    ASSERT_TRUE(Settle());
    EXPECT_EQ(QN_STATE_E_MOUNTED, State());
    EXPECT_EQ(2, FAKE_PLATFORM_CommandCount("mkdir -p " + m_strMount + "/rec"));
    EXPECT_EQ(3u, QN_RecordStart(pRunning, "a")); // still stopping
    EXPECT_EQ(0u, QN_RecordStop(pRunning));
    EXPECT_EQ(0u, QN_RecordStart(pRunning, "b"));
    EXPECT_EQ(0u, QN_RecordDestroy(pRunning));
    EXPECT_EQ(0u, QN_RecordDestroy(pIdle));
    EXPECT_EQ(0, QN_ReplayClose(pReplay));
    EXPECT_EQ(1, FAKE_BACKEND_ReadCloses()); // not once more
}

TEST_F(StorageStates, SurviveAPulledCardWithAReaderThatCannotBeClosed)
{
    InitMounted();
    tagQN_REPLAY_HANDLER_S *pReplay = MakeReplay(&g_stFakeBackendWithoutReadClose);
    void *pReader = pReplay->pReader;
    Push(QN_EVENT_E_HOTPLUG_OUT);
    ASSERT_TRUE(Settle());
    EXPECT_EQ(QN_STATE_E_UNPLUGIN, State());
    EXPECT_EQ(nullptr, pReplay->pReader);
    EXPECT_EQ(0, QN_ReplayClose(pReplay));
    EXPECT_EQ(0, g_stFakeBackend.pfnReadClose(pReader));
}

TEST_F(StorageStates, FinishSplitOffFilesBeforeThePulledCardIsUnmounted)
{
    InitMounted();
    tagQN_RECORD_HANDLER_S *pSession = MakeRunningSession("a", true);
    ASSERT_NO_FATAL_FAILURE(StallDispatcher());
    Push(QN_EVENT_E_HOTPLUG_OUT); // before the split event
    Age(pSession, 4000);
    WriteKeyFrame(pSession);
    EXPECT_EQ(3, FAKE_BACKEND_Opens()); // the stall's, the first and the second file
    std::atomic<int32_t> s32ClosesAtUmount{-1};
    std::atomic<int32_t> s32OpenAtUmount{-1};
    FAKE_PLATFORM_OnCommand(
        [&](const std::string &strCommand)
        {
            if (strCommand == UnmountLine())
            {
                s32ClosesAtUmount = FAKE_BACKEND_Closes();
                s32OpenAtUmount = static_cast<int32_t>(PROCESS_DescriptorsBelow(m_strMount).size());
            }
            return 0;
        });
    ReleaseDispatcher();
    ASSERT_TRUE(Settle());
    EXPECT_EQ(2, s32ClosesAtUmount);     // the stall's and the split-off file
    EXPECT_EQ(1, s32OpenAtUmount);       // the running session keeps its writer
    EXPECT_EQ(2, FAKE_BACKEND_Closes()); // the event that came later found it done
    EXPECT_EQ(0u, QN_RecordDestroy(pSession));
    EXPECT_EQ(3, FAKE_BACKEND_Closes());
}

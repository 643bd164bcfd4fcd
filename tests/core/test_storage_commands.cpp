// Storage commands of the host: mount, unmount and format in every state.

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

#include "core/core_test.h"

using namespace libquarrin;

namespace
{

std::string Line(const std::string &strFunc, const std::string &strText)
{
    return "\\[ERROR\\]\\[" + strFunc + ":[0-9]+\\] " + strText;
}

} // namespace

class StorageCommands : public CORE_TEST
{
protected:
    // Refused with a message: state and command lines stay.
    void ExpectRefused(uint32_t u32Expected, uint32_t u32Result, QN_STATE_E enState, const std::string &strFunc,
                       const std::string &strText)
    {
        EXPECT_EQ(u32Expected, u32Result);
        EXPECT_EQ(enState, State());
        EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(3, strFunc, strText)) << strText;
        EXPECT_TRUE(m_capture.HasLine(Line(strFunc, strText))) << strText;
        EXPECT_TRUE(FAKE_PLATFORM_Commands().empty());
        EXPECT_EQ(0u, Queued());
    }

    std::string FdiskLine() const
    {
        return "echo -e \"o\\nn\\np\\n1\\n\\n\\nw\" | fdisk " + m_strDevice + " > /dev/console";
    }

    // A plugged card, formatted as told; waits until the outcome was handled.
    void Format(int32_t s32FsType, QN_STATE_E enEnd)
    {
        InitUnplugged();
        TEST_Touch(m_strDevice);
        TEST_Touch(m_strPartition);
        SetState(QN_STATE_E_PLUGIN);
        EXPECT_EQ(0u, QN_StorageFormat(m_pHandle, static_cast<QN_FS_TYPE_E>(s32FsType)));
        ASSERT_TRUE(FAKE_PLATFORM_WaitLogged("QN_EVENT_E_FORMAT_", 60000));
        ASSERT_TRUE(WaitForState(enEnd, 60000));
        ASSERT_TRUE(Settle());
        EXPECT_EQ(s32FsType, m_pHandle->enFormatFsType);
    }

    void ExpectWorkerLine(const std::string &strText)
    {
        EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(6, "operator()", strText)) << strText;
        EXPECT_TRUE(m_capture.HasLine("\\[INFO\\]\\[operator\\(\\):[0-9]+\\] " + strText)) << strText;
    }

    STDOUT_CAPTURE m_capture;
};

TEST_F(StorageCommands, RefuseANullHandle)
{
    EXPECT_EQ(1u, QN_StorageMount(nullptr));
    EXPECT_EQ(1u, QN_StorageUnMount(nullptr));
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
}

TEST_F(StorageCommands, MountRefusesEveryStateButUnmountedAndMounted)
{
    InitUnplugged();
    for (const QN_STATE_E enState : {QN_STATE_E_UNPLUGIN, QN_STATE_E_PLUGIN, QN_STATE_E_FORMATING})
    {
        SetState(enState);
        ExpectRefused(3, QN_StorageMount(m_pHandle), enState, "QN_StorageMount",
                      "invalid state " + std::to_string(enState));
    }
}

TEST_F(StorageCommands, MountSucceedsWithAMessageWhenMountedAlready)
{
    InitUnplugged();
    SetState(QN_STATE_E_MOUNTED);
    ExpectRefused(0, QN_StorageMount(m_pHandle), QN_STATE_E_MOUNTED, "QN_StorageMount", "already mounted");
    SetState(QN_STATE_E_UNPLUGIN);
}

TEST_F(StorageCommands, MountMountsWhatTheHostUnmounted)
{
    InitMounted();
    EXPECT_EQ(0u, QN_StorageUnMount(m_pHandle));
    EXPECT_EQ(QN_STATE_E_UNMOUNTED, State());
    EXPECT_EQ(UnmountLine(), FAKE_PLATFORM_Commands().back());
    const size_t u64Commands = FAKE_PLATFORM_Commands().size();

    EXPECT_EQ(0u, QN_StorageMount(m_pHandle));
    EXPECT_EQ(QN_STATE_E_MOUNTED, State());
    ASSERT_TRUE(Settle());
    const std::vector<std::string> vecCommands = FAKE_PLATFORM_Commands();
    ASSERT_EQ(u64Commands + 4, vecCommands.size());
    EXPECT_EQ(MountLine(), vecCommands[u64Commands]);
    EXPECT_EQ("mkdir -p " + m_strMount + "/rec", vecCommands[u64Commands + 1]); // quota is set up again
    for (const FAKE_LOG_S &stLog : FAKE_PLATFORM_Logs())
    {
        EXPECT_NE(3, stLog.s32Level) << stLog.strText;
    }
}

TEST_F(StorageCommands, MountTellsAFailedCommandAndGivesUpTheCard)
{
    FAKE_PLATFORM_Answer("; mount ", 32);
    InitUnplugged();
    SetState(QN_STATE_E_UNMOUNTED);
    EXPECT_EQ(0xffffffffu, QN_StorageMount(m_pHandle));
    EXPECT_EQ(QN_STATE_E_PLUGIN, State());
    const std::string strText = "Mount " + m_strMount + " failed!";
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(3, "QN_StorageMount", strText));
    EXPECT_TRUE(m_capture.HasLine(Line("QN_StorageMount", strText)));
    EXPECT_EQ(std::vector<std::string>{MountLine()}, FAKE_PLATFORM_Commands());
    ASSERT_TRUE(Settle());
    EXPECT_FALSE(FAKE_PLATFORM_Logged("QN_EVENT_E_MOUNT_DONE"));
    EXPECT_EQ(3u, QN_StorageMount(m_pHandle)); // there is no way back by another mount
}

TEST_F(StorageCommands, MountRefusesWhileARecordSessionIsBusyAndProceedsWithAnIdleOne)
{
    InitMounted();
    FAKE_PLATFORM_Reset();
    tagQN_RECORD_HANDLER_S *pIdle = MakeSession();
    tagQN_RECORD_HANDLER_S *pBusy = MakeSession();
    tagQN_REPLAY_HANDLER_S *pReplay = MakeReplay(); // replays are not looked at
    SetState(QN_STATE_E_UNMOUNTED);
    for (int32_t i = QN_RECORD_STATE_WAIT_KEY; i <= QN_RECORD_STATE_STOPPING; ++i)
    {
        pBusy->enRecordState = static_cast<QN_RECORD_STATE_E>(i);
        ExpectRefused(3, QN_StorageMount(m_pHandle), QN_STATE_E_UNMOUNTED, "QN_StorageMount",
                      "record handler is not idle");
    }
    pBusy->enRecordState = QN_RECORD_STATE_IDLE;
    EXPECT_EQ(0u, QN_StorageMount(m_pHandle));
    EXPECT_EQ(QN_STATE_E_MOUNTED, State());
    EXPECT_EQ(1, FAKE_PLATFORM_CommandCount(MountLine()));
    QN_RecordDestroy(pIdle);
    QN_RecordDestroy(pBusy);
    QN_ReplayClose(pReplay);
}

TEST_F(StorageCommands, UnmountRefusesEveryStateButMounted)
{
    InitUnplugged();
    for (const QN_STATE_E enState :
         {QN_STATE_E_UNPLUGIN, QN_STATE_E_PLUGIN, QN_STATE_E_FORMATING, QN_STATE_E_UNMOUNTED})
    {
        SetState(enState);
        ExpectRefused(3, QN_StorageUnMount(m_pHandle), enState, "QN_StorageUnMount", "try unmount but not mounted");
    }
}

TEST_F(StorageCommands, UnmountRefusesWhileAnySessionOrReplayExists)
{
    InitMounted();
    FAKE_PLATFORM_Reset();
    tagQN_RECORD_HANDLER_S *pSession = MakeSession(); // an idle one too
    ExpectRefused(3, QN_StorageUnMount(m_pHandle), QN_STATE_E_MOUNTED, "QN_StorageUnMount", "handler is not idle");
    QN_RecordDestroy(pSession);
    ASSERT_TRUE(Settle());

    FAKE_PLATFORM_Reset();
    tagQN_REPLAY_HANDLER_S *pReplay = MakeReplay();
    ExpectRefused(3, QN_StorageUnMount(m_pHandle), QN_STATE_E_MOUNTED, "QN_StorageUnMount", "handler is not idle");
    EXPECT_EQ(0, QN_ReplayClose(pReplay));

    FAKE_PLATFORM_Answer("umount", 1);
    EXPECT_EQ(0u, QN_StorageUnMount(m_pHandle)); // whatever the command says
    EXPECT_EQ(QN_STATE_E_UNMOUNTED, State());
    EXPECT_EQ(std::vector<std::string>{UnmountLine()}, FAKE_PLATFORM_Commands());
}

TEST_F(StorageCommands, FormatIsRefusedWithoutCardWhileFormattingAndWhileMounted)
{
    InitUnplugged();
    const std::pair<QN_STATE_E, std::string> aCases[] = {
        {QN_STATE_E_UNPLUGIN, "OOPs, trigger format event but in UNPLUGIN state!"},
        {QN_STATE_E_FORMATING, "OOPs, trigger format event but already formating!"},
        {QN_STATE_E_MOUNTED, "OOPs, trigger format event but already mounted!"},
    };
    for (const auto &stCase : aCases)
    {
        SetState(stCase.first);
        ExpectRefused(3, QN_StorageFormat(m_pHandle, QN_FS_TYPE_E_VFAT), stCase.first, "QN_StorageFormat",
                      stCase.second);
        EXPECT_EQ(QN_FS_TYPE_E{}, m_pHandle->enFormatFsType);
    }
    SetState(QN_STATE_E_UNPLUGIN);
    EXPECT_FALSE(m_capture.Has("88888888888888888888888888888888")); // no worker
}

TEST_F(StorageCommands, FormatRunsInTheBackgroundAndASecondOneIsRefused)
{
    InitUnplugged();
    TEST_Touch(m_strDevice);
    TEST_Touch(m_strPartition);
    SetState(QN_STATE_E_PLUGIN);
    FAKE_PLATFORM_Stall("fdisk");
    EXPECT_EQ(0u, QN_StorageFormat(m_pHandle, QN_FS_TYPE_E_EXT4));
    EXPECT_TRUE(m_capture.Has("88888888888888888888888888888888\n65666666666666666666666666666\n"
                              "777777777777777777777777777777\n"));
    ASSERT_TRUE(FAKE_PLATFORM_WaitStalled());
    QN_STATE_E enState = QN_STATE_E_MOUNTED;
    EXPECT_EQ(0u, QN_GetState(m_pHandle, &enState)); // the worker holds no lock
    EXPECT_EQ(QN_STATE_E_FORMATING, enState);
    EXPECT_EQ(3u, QN_StorageFormat(m_pHandle, QN_FS_TYPE_E_VFAT));
    EXPECT_TRUE(
        FAKE_PLATFORM_LoggedExactly(3, "QN_StorageFormat", "OOPs, trigger format event but already formating!"));
    EXPECT_EQ(QN_FS_TYPE_E_EXT4, m_pHandle->enFormatFsType);
    FAKE_PLATFORM_Release();
    EXPECT_TRUE(WaitForState(QN_STATE_E_MOUNTED));
    ASSERT_TRUE(Settle());
    EXPECT_EQ(1, FAKE_PLATFORM_CommandCount("fdisk"));
}

TEST_F(StorageCommands, FormatWritesTableAndFileSystemThenMountsPartitionOne)
{
    for (const int32_t s32FsType : {QN_FS_TYPE_E_EXT4, QN_FS_TYPE_E_VFAT})
    {
        FAKE_PLATFORM_Reset();
        m_stParam.s32PartitionNo = 5; // there is none
        ASSERT_NO_FATAL_FAILURE(Format(s32FsType, QN_STATE_E_MOUNTED));
        EXPECT_EQ(1, m_pHandle->s32PartitionNo);
        const std::string strMkfs = s32FsType == QN_FS_TYPE_E_EXT4 ? "mkfs.ext4 -F " : "mkfs.vfat ";
        const std::vector<std::string> vecExpected = {FdiskLine(),
                                                      strMkfs + m_strPartition,
                                                      MountLine(),
                                                      "mkdir -p " + m_strMount + "/rec",
                                                      "mkdir -p " + m_strMount + "/photo",
                                                      "mkdir -p " + m_strMount + "/event"};
        EXPECT_EQ(vecExpected, FAKE_PLATFORM_Commands());
        ExpectWorkerLine("make partition table success");
        ExpectWorkerLine("make partition fs success");
        EXPECT_TRUE(FAKE_PLATFORM_Logged("QN_EVENT_E_FORMAT_SUCCESS"));
        EXPECT_FALSE(FAKE_PLATFORM_Logged("QN_EVENT_E_FORMAT_FAILED"));
        QN_Destroy(m_pHandle);
    }
}

TEST_F(StorageCommands, FormatWorksOnAnUnmountedCardToo)
{
    InitMounted();
    EXPECT_EQ(0u, QN_StorageUnMount(m_pHandle));
    EXPECT_EQ(0u, QN_StorageFormat(m_pHandle, QN_FS_TYPE_E_VFAT));
    ASSERT_TRUE(FAKE_PLATFORM_WaitLogged("QN_EVENT_E_FORMAT_SUCCESS", 30000));
    EXPECT_TRUE(WaitForState(QN_STATE_E_MOUNTED, 30000));
    EXPECT_EQ(1, FAKE_PLATFORM_CommandCount("umount")); // the worker unmounts nothing
}

TEST_F(StorageCommands, FormatFailsWhenFdiskFails)
{
    FAKE_PLATFORM_Answer("fdisk", 1);
    ASSERT_NO_FATAL_FAILURE(Format(QN_FS_TYPE_E_EXT4, QN_STATE_E_PLUGIN));
    ExpectWorkerLine("make partition table failed: -1"); // information, although it is a failure
    EXPECT_EQ(std::vector<std::string>{FdiskLine()}, FAKE_PLATFORM_Commands());
    EXPECT_TRUE(FAKE_PLATFORM_Logged("QN_EVENT_E_FORMAT_FAILED"));
}

TEST_F(StorageCommands, FormatFailsWhenTheKernelRefusesTheNewTable)
{
    SYSTEM_CALLS_AnswerReread(-1);
    m_stParam.s32PartitionNo = 5;
    ASSERT_NO_FATAL_FAILURE(Format(QN_FS_TYPE_E_EXT4, QN_STATE_E_PLUGIN));
    ExpectWorkerLine("make partition table failed: -1");
    EXPECT_EQ(5, m_pHandle->s32PartitionNo);
    EXPECT_EQ(0, FAKE_PLATFORM_CommandCount("mkfs"));
}

TEST_F(StorageCommands, FormatWithAnUnknownFileSystemRewritesTheTableAndFails)
{
    for (const int32_t s32FsType : {0, 3, -1})
    {
        FAKE_PLATFORM_Reset();
        m_stParam.s32PartitionNo = 5;
        ASSERT_NO_FATAL_FAILURE(Format(s32FsType, QN_STATE_E_PLUGIN));
        ExpectWorkerLine("make partition table success");
        ExpectWorkerLine("make partition fs failed: -3");
        EXPECT_EQ(std::vector<std::string>{FdiskLine()}, FAKE_PLATFORM_Commands());
        EXPECT_TRUE(FAKE_PLATFORM_Logged("QN_EVENT_E_FORMAT_FAILED"));
        EXPECT_EQ(1, m_pHandle->s32PartitionNo); // of the new table
        QN_Destroy(m_pHandle);
    }
}

TEST_F(StorageCommands, FormatFailsWhenMkfsFailsTwice)
{
    FAKE_PLATFORM_Answer("mkfs.ext4", 1);
    ASSERT_NO_FATAL_FAILURE(Format(QN_FS_TYPE_E_EXT4, QN_STATE_E_PLUGIN));
    ExpectWorkerLine("make partition fs failed: -4");
    EXPECT_EQ(2, FAKE_PLATFORM_CommandCount("mkfs.ext4 -F " + m_strPartition));
}

TEST_F(StorageCommands, FormatWithoutAWorkerStaysUntilTheCardIsPulled)
{
    InitUnplugged();
    SetState(QN_STATE_E_PLUGIN);
    THREAD_CREATION_Fail(EAGAIN);
    EXPECT_EQ(0u, QN_StorageFormat(m_pHandle, QN_FS_TYPE_E_EXT4)); // not noticed
    EXPECT_EQ(QN_STATE_E_FORMATING, State());
    EXPECT_TRUE(FAKE_PLATFORM_Logged("Create thread failed\n"));
    ASSERT_TRUE(Settle());
    EXPECT_EQ(QN_STATE_E_FORMATING, State());
    Push(QN_EVENT_E_HOTPLUG_OUT);
    ASSERT_TRUE(Settle());
    EXPECT_EQ(QN_STATE_E_UNPLUGIN, State());
}

TEST_F(StorageCommands, FormatOfAPulledCardEndsInNothing)
{
    InitUnplugged();
    TEST_Touch(m_strDevice);
    TEST_Touch(m_strPartition);
    SetState(QN_STATE_E_PLUGIN);
    FAKE_PLATFORM_Stall("mkfs");
    EXPECT_EQ(0u, QN_StorageFormat(m_pHandle, QN_FS_TYPE_E_EXT4));
    ASSERT_TRUE(FAKE_PLATFORM_WaitStalled());
    Push(QN_EVENT_E_HOTPLUG_OUT);
    ASSERT_TRUE(WaitForState(QN_STATE_E_UNPLUGIN));
    FAKE_PLATFORM_Release();
    ASSERT_TRUE(FAKE_PLATFORM_WaitLogged("OOPs, trigger format-success event but not in FORMATING!", 30000));
    ASSERT_TRUE(Settle());
    EXPECT_EQ(QN_STATE_E_UNPLUGIN, State());
    EXPECT_EQ(0, FAKE_PLATFORM_CommandCount("; mount "));
}

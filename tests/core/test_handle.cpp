// The handle: version, byte buffers, making, state queries. Its end is in test_teardown.cpp.

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <type_traits>
#include <unistd.h>

#include "core/core_test.h"

using namespace libquarrin;

using Handle = CORE_TEST;

TEST(Version, IsOneStaticText)
{
    EXPECT_STREQ("1.0.0", QN_LibVersion());
    EXPECT_EQ(QN_LibVersion(), QN_LibVersion());
}

TEST(Bytes, AreCopiedOnlyWhenThereAreSome)
{
    uint8_t au8Data[] = {1, 2, 3};
    for (const tagQN_BYTES stSource : {tagQN_BYTES{au8Data, 0}, tagQN_BYTES{nullptr, 5}, tagQN_BYTES{nullptr, 0}})
    {
        const tagQN_BYTES stCopy = QN_BYTES_dup(stSource);
        EXPECT_EQ(nullptr, stCopy.pu8Data);
        EXPECT_EQ(0u, stCopy.u32Len);
    }
    tagQN_BYTES stCopy = QN_BYTES_dup({au8Data, 3});
    ASSERT_NE(nullptr, stCopy.pu8Data);
    EXPECT_NE(au8Data, stCopy.pu8Data);
    EXPECT_EQ(3u, stCopy.u32Len);
    EXPECT_EQ(0, memcmp(au8Data, stCopy.pu8Data, 3));
    au8Data[0] = 9;
    EXPECT_EQ(1, stCopy.pu8Data[0]);
    QN_BYTES_free(stCopy);
}

TEST(Bytes, AreFreedOnceAndKeepTheLengthOfANullBuffer)
{
    uint8_t au8Data[] = {1, 2, 3};
    tagQN_BYTES stCopy = QN_BYTES_dup({au8Data, 3});
    for (int32_t i = 0; i < 2; ++i)
    {
        QN_BYTES_free(stCopy);
        EXPECT_EQ(nullptr, stCopy.pu8Data);
        EXPECT_EQ(0u, stCopy.u32Len);
    }
    tagQN_BYTES stNull = {nullptr, 7};
    QN_BYTES_free(stNull);
    EXPECT_EQ(nullptr, stNull.pu8Data);
    EXPECT_EQ(7u, stNull.u32Len);
}

TEST_F(Handle, CopiesAllParameters)
{
    m_stParam.s32PartitionNo = 7;
    for (int32_t i = 0; i < QN_VOLUME_COUNT; ++i)
    {
        const uint32_t u32Base = static_cast<uint32_t>(i) * 100;
        m_stParam.astVolume[i] = {
            i - 1,      "folder" + std::to_string(i), u32Base + 1, u32Base + 2, u32Base + 3, u32Base + 4, i == 1,
            u32Base + 5};
    }
    const tagQN_STORAGE_PARAM_S stBefore = m_stParam;
    InitUnplugged();
    m_stParam = tagQN_STORAGE_PARAM_S(); // the handle keeps nothing of the caller's

    EXPECT_EQ(stBefore.strDevice, m_pHandle->strDevice);
    EXPECT_EQ(7, m_pHandle->s32PartitionNo);
    EXPECT_EQ(stBefore.pszMountPoint, m_pHandle->pszMountPoint);
    for (int32_t i = 0; i < QN_VOLUME_COUNT; ++i)
    {
        const tagQN_VOLUME_PARAM_S &stExpected = stBefore.astVolume[i];
        const tagQN_VOLUME_PARAM_S &stVolume = m_pHandle->astVolume[i];
        EXPECT_EQ(stExpected.bEnable, stVolume.bEnable);
        EXPECT_EQ(stExpected.pszFolder, stVolume.pszFolder);
        EXPECT_EQ(stExpected.u32QuotaType, stVolume.u32QuotaType);
        EXPECT_EQ(stExpected.u32QuotaBytes, stVolume.u32QuotaBytes);
        EXPECT_EQ(stExpected.u32QuotaPercent, stVolume.u32QuotaPercent);
        EXPECT_EQ(stExpected.u32ReserveBytes, stVolume.u32ReserveBytes);
        EXPECT_EQ(stExpected.bAutoDelete, stVolume.bAutoDelete);
        EXPECT_EQ(stExpected.u32Reserved, stVolume.u32Reserved);
    }
}

TEST_F(Handle, StartsEmpty)
{
    InitUnplugged();
    EXPECT_EQ(QN_STATE_E_UNPLUGIN, State());
    EXPECT_EQ(QN_STORAGE_STATE_E_NORMAL, m_pHandle->enStorageState.load());
    EXPECT_EQ(0u, Queued());
    EXPECT_EQ(0u, m_pHandle->u32EventHead);
    EXPECT_EQ(0u, m_pHandle->u32EventTail);
    EXPECT_FALSE(m_pHandle->bEventExit);
    EXPECT_TRUE(m_pHandle->lstRecord.empty());
    EXPECT_TRUE(m_pHandle->lstReplay.empty());
    for (int32_t i = 0; i < QN_VOLUME_COUNT; ++i)
    {
        EXPECT_EQ(0, m_pHandle->astQuotaLastCheck[i].tv_sec);
        EXPECT_EQ(0, m_pHandle->as32QuotaCountdown[i]);
    }
}

TEST_F(Handle, IsRefusedWhenThereIsOneAlready)
{
    InitUnplugged();
    tagQN_HANDLER_S *pBefore = m_pHandle;
    const int32_t s32Threads = THREAD_CREATION_Count();
    tagQN_STORAGE_PARAM_S stOther;
    EXPECT_EQ(1u, QN_Init(&stOther, m_pHandle));
    EXPECT_EQ(pBefore, m_pHandle);
    EXPECT_EQ(m_strDevice, m_pHandle->strDevice);
    EXPECT_EQ(s32Threads, THREAD_CREATION_Count()); // no second set of threads
    EXPECT_EQ(1u, QN_Init(nullptr, m_pHandle));
}

TEST_F(Handle, IsNotMadeWithoutMemory)
{
    for (int32_t i = 0; i < 2; ++i) // the record itself, and what it owns
    {
        SYSTEM_CALLS_FailAllocation(i);
        EXPECT_EQ(6u, QN_Init(&m_stParam, m_pHandle)) << i;
        EXPECT_EQ(nullptr, m_pHandle);
    }
    SYSTEM_CALLS_FailAllocation(-1);
    EXPECT_EQ(0, THREAD_CREATION_Count());
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty()); // no message
}

TEST_F(Handle, RunsTwoThreadsNamedAfterTheDevice)
{
    STDOUT_CAPTURE capture;
    InitUnplugged();
    const std::string strName = m_strDevice.substr(m_strDevice.rfind('/') + 1);
    EXPECT_TRUE(TEST_WaitFor([&] { return PROCESS_HasThread(strName + ":event"); })); // cut to 15 characters
    EXPECT_EQ(2, THREAD_CREATION_Count());
    EXPECT_EQ(strName + ":event", m_pHandle->stEventThread.szName);
    EXPECT_EQ(strName + ":hotplug", m_pHandle->stHotplugThread.szName);
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(6, "QN_EVENT_Init", "Thread " + strName + ":event start"));
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(6, "QN_STORAGE_HotplugInit", "Thread " + strName + ":hotplug start"));
    EXPECT_TRUE(capture.HasLine("\\[INFO\\]\\[QN_EVENT_Init:[0-9]+\\] Thread " + strName + ":event start"));
    EXPECT_TRUE(capture.HasLine("\\[INFO\\]\\[QN_STORAGE_HotplugInit:[0-9]+\\] Thread " + strName + ":hotplug start"));
}

TEST_F(Handle, ShowsBothThreadsUnderShortNames)
{
    m_stParam.strDevice = m_dir.strPath + "/dev/sdq";
    Init();
    EXPECT_TRUE(TEST_WaitFor([] { return PROCESS_HasThread("sdq:event") && PROCESS_HasThread("sdq:hotplug"); }));
}

TEST_F(Handle, NamesItsThreadsByTheWholeDeviceWithoutASlash)
{
    m_stParam.strDevice = "qnnoslash";
    Init();
    EXPECT_TRUE(TEST_WaitFor([] { return PROCESS_HasThread("qnnoslash:event"); }));
    EXPECT_EQ("qnnoslash", m_pHandle->strDevName);
    EXPECT_EQ(QN_STATE_E_UNPLUGIN, State());
}

TEST_F(Handle, CutsTheThreadNamesOfALongDevice)
{
    m_stParam.strDevice = m_dir.strPath + "/dev/" + std::string(80, 'd');
    Init();
    EXPECT_EQ(std::string(31, 'd'), m_pHandle->stEventThread.szName);
    EXPECT_EQ(std::string(80, 'd'), m_pHandle->strDevName);
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(6, "QN_EVENT_Init", "Thread " + std::string(80, 'd') + ":event start"));
}

TEST_F(Handle, WorksWithALongMountPath)
{
    m_strMount = m_dir.strPath;
    for (int32_t i = 0; i < 8; ++i)
    {
        m_strMount += "/" + std::string(100, static_cast<char>('a' + i));
    }
    m_stParam.pszMountPoint = m_strMount;
    Init();
    ASSERT_TRUE(WaitForState(QN_STATE_E_MOUNTED));
    ASSERT_TRUE(Settle());
    const std::vector<std::string> vecExpected = {MountLine(), "mkdir -p " + m_strMount + "/rec",
                                                  "mkdir -p " + m_strMount + "/photo",
                                                  "mkdir -p " + m_strMount + "/event"};
    EXPECT_EQ(vecExpected, FAKE_PLATFORM_Commands());
    EXPECT_EQ(0u, QN_StorageUnMount(m_pHandle));
    EXPECT_EQ(UnmountLine(), FAKE_PLATFORM_Commands().back());
}

TEST_F(Handle, IsMadeAlsoWhenNoThreadCanBeStarted)
{
    for (int32_t i = 0; i < 2; ++i) // the event thread, then the hotplug thread
    {
        THREAD_CREATION_Fail(EAGAIN, i);
        Init();
        EXPECT_EQ(0u, QN_Destroy(m_pHandle)); // waits for no thread that never was
        EXPECT_EQ(nullptr, m_pHandle);
    }
    THREAD_CREATION_Fail(-1, 0, 2);
    Init();
    EXPECT_EQ(6, THREAD_CREATION_Count()); // two for each of the three handles
    EXPECT_EQ(0u, QN_Destroy(m_pHandle));
    int32_t s32Messages = 0;
    for (const FAKE_LOG_S &stLog : FAKE_PLATFORM_Logs())
    {
        s32Messages += stLog.s32Level == 3 && stLog.strText == "Create thread failed\n" ? 1 : 0;
    }
    EXPECT_EQ(2, s32Messages);
}

TEST_F(Handle, TwoHandlesLiveSideBySide)
{
    InitUnplugged();
    tagQN_HANDLER_S *pOther = nullptr;
    tagQN_STORAGE_PARAM_S stOther = m_stParam;
    stOther.strDevice = m_strDevice + "b";
    EXPECT_EQ(0u, QN_Init(&stOther, pOther));
    EXPECT_NE(m_pHandle, pOther);
    EXPECT_EQ(4, THREAD_CREATION_Count());
    EXPECT_EQ(0u, QN_Destroy(pOther));
    EXPECT_TRUE(Settle()); // the first one still works
}

TEST_F(Handle, TellsItsStates)
{
    QN_STATE_E enState = QN_STATE_E_FORMATING;
    QN_STORAGE_STATE_E enStorage = QN_STORAGE_STATE_E_FULL;
    EXPECT_EQ(1u, QN_GetState(nullptr, &enState));
    EXPECT_EQ(1u, QN_GetStorageState(nullptr, &enStorage));
    EXPECT_EQ(QN_STATE_E_FORMATING, enState); // untouched
    EXPECT_EQ(QN_STORAGE_STATE_E_FULL, enStorage);

    InitUnplugged();
    for (int32_t i = 0; i <= 4; ++i)
    {
        SetState(static_cast<QN_STATE_E>(i));
        EXPECT_EQ(0u, QN_GetState(m_pHandle, &enState));
        EXPECT_EQ(i, enState);
    }
    SetState(QN_STATE_E_UNPLUGIN);
    EXPECT_EQ(0u, QN_GetStorageState(m_pHandle, &enStorage));
    EXPECT_EQ(QN_STORAGE_STATE_E_NORMAL, enStorage);
    m_pHandle->enStorageState = QN_STORAGE_STATE_E_FULL;
    EXPECT_EQ(0u, QN_GetStorageState(m_pHandle, &enStorage));
    EXPECT_EQ(QN_STORAGE_STATE_E_FULL, enStorage);
}

TEST_F(Handle, TellsItsStatesUnderTheStateMutex)
{
    InitUnplugged();
    QN_STATE_E enState = QN_STATE_E_FORMATING;
    QN_STORAGE_STATE_E enStorage = QN_STORAGE_STATE_E_FULL;
    pthread_mutex_lock(&m_pHandle->mutexState);
    {
        BACKGROUND state([&] { QN_GetState(m_pHandle, &enState); });
        BACKGROUND storage([&] { QN_GetStorageState(m_pHandle, &enStorage); });
        EXPECT_TRUE(state.StaysBusy());
        EXPECT_TRUE(storage.StaysBusy());
        pthread_mutex_unlock(&m_pHandle->mutexState);
    }
    EXPECT_EQ(QN_STATE_E_UNPLUGIN, enState);
    EXPECT_EQ(QN_STORAGE_STATE_E_NORMAL, enStorage);
}

TEST_F(Handle, WaitsForTheMountCommandWhenAskedForItsState)
{
    FAKE_PLATFORM_Stall("; mount ");
    Init();
    ASSERT_TRUE(FAKE_PLATFORM_WaitStalled());
    QN_STATE_E enState = QN_STATE_E_FORMATING;
    {
        BACKGROUND state([&] { QN_GetState(m_pHandle, &enState); });
        EXPECT_TRUE(state.StaysBusy());
        EXPECT_EQ(QN_STATE_E_UNPLUGIN, State()); // readers without the lock see the state before the mount
        FAKE_PLATFORM_Release();
    }
    EXPECT_EQ(QN_STATE_E_MOUNTED, enState);
}

TEST(StorageStart, AndEndAnswerAsTheOtherInnerStorageCallsDo)
{
    EXPECT_TRUE((std::is_same<int32_t (*)(tagQN_HANDLER_S *), decltype(&QN_STORAGE_Init)>::value));
    EXPECT_TRUE((std::is_same<int32_t (*)(tagQN_HANDLER_S *), decltype(&QN_STORAGE_Destroy)>::value));
}

// When an unmount line is issued, the library has nothing open below the mount point that it could have closed.

#include "session_fixture.h"

#include <mutex>

#include "support/process.h"

using namespace libquarrin;

class TrapsUnmount : public SESSION_TEST
{
protected:
    void SetUp() override
    {
        SESSION_TEST::SetUp();
        FAKE_PLATFORM_OnCommand(
            [this](const std::string &strCommand)
            {
                if (strCommand.find("umount") == 0)
                {
                    const std::lock_guard<std::mutex> lock(m_mutex);
                    m_s32Unmounts += 1;
                    for (const std::string &strPath : PROCESS_DescriptorsBelow(m_strMount))
                    {
                        m_vecOpen.push_back(strPath);
                    }
                }
                return 0;
            });
    }

    void TearDown() override
    {
        SESSION_TEST::TearDown();
        FAKE_PLATFORM_OnCommand(nullptr);
    }

    // What was open at the unmount lines so far.
    std::vector<std::string> Open()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_vecOpen;
    }

    int32_t Unmounts()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_s32Unmounts;
    }

    std::mutex m_mutex;
    std::vector<std::string> m_vecOpen;
    int32_t m_s32Unmounts = 0;
    PROCESS_LIMIT m_limit{120};
};

using STRINGS = std::vector<std::string>;

TEST_F(TrapsUnmount, AnUnplugFinishesQueuedFilesAndLeavesTheRunningOneOnly)
{
    tagQN_RECORD_HANDLER_S *pSession = Run(60, "t");
    StallDispatcher();
    QN_EVENT_PushEvent(m_pHandle, QN_EVENT_E_HOTPLUG_OUT, nullptr);
    const std::string strFinal = SplitOff(pSession); // its event is behind the unplug
    const std::string strRunning = pSession->strFilePath;
    FAKE_PLATFORM_Release();
    ASSERT_TRUE(WaitForState(QN_STATE_E_UNPLUGIN));
    EXPECT_EQ(1, Unmounts());
    EXPECT_EQ(STRINGS{strRunning}, Open()) << "running sessions keep their writers";
    EXPECT_EQ("begin\nfirst", TEST_ReadFile(strFinal));
    EXPECT_TRUE(FAKE_PLATFORM_WaitLogged("QN_EVENT_E_RECORD_AUTO_SPLIT")) << "the event comes later";
    EXPECT_EQ(QN_RECORD_STATE_STOPPING, pSession->enRecordState.load());
    EXPECT_EQ(0u, QN_RecordStop(pSession));
}

TEST_F(TrapsUnmount, AnUnplugWithNoSessionRunningFindsNothingOpen)
{
    tagQN_RECORD_HANDLER_S *pSession = Run(60);
    StallDispatcher();
    QN_EVENT_PushEvent(m_pHandle, QN_EVENT_E_HOTPLUG_OUT, nullptr);
    SplitOff(pSession);
    EXPECT_EQ(0u, QN_RecordStop(pSession));
    FAKE_PLATFORM_Release();
    ASSERT_TRUE(WaitForState(QN_STATE_E_UNPLUGIN));
    EXPECT_EQ(STRINGS{}, Open());
}

TEST_F(TrapsUnmount, RightAfterADestroyFindsNothingOpen)
{
    for (int32_t i = 0; i < 300; ++i) // enough for a listing to take a while
    {
        TEST_Touch(FinalPath(1000 + i, 1100 + i), "x");
    }
    for (int32_t i = 0; i < 20; ++i)
    {
        tagQN_RECORD_HANDLER_S *pSession = Run(60, std::to_string(i).c_str());
        SplitOff(pSession);
        EXPECT_EQ(0u, QN_RecordDestroy(pSession));
        QN_RecordStorageUpdate(m_pHandle, QN_VOLUME_ID_E_0, 1); // a check that walks the folder
        EXPECT_EQ(0u, QN_StorageUnMount(m_pHandle));
        EXPECT_EQ(0u, QN_StorageMount(m_pHandle));
    }
    EXPECT_EQ(20, Unmounts());
    EXPECT_EQ(STRINGS{}, Open());
}

TEST_F(TrapsUnmount, AtTheEndOfTheHandleFindsNothingOpen)
{
    for (const char *pszTag : {"a", "b"})
    {
        tagQN_RECORD_HANDLER_S *pSession = Run(60, pszTag);
        SplitOff(pSession);
    }
    EXPECT_EQ(0u, QN_Destroy(m_pHandle));
    EXPECT_EQ(1, Unmounts());
    EXPECT_EQ(STRINGS{}, Open());
}

TEST_F(TrapsUnmount, AtTheEndOfTheHandleWithAStalledEventThreadFindsNothingOpen)
{
    tagQN_RECORD_HANDLER_S *pSession = Run(60);
    StallDispatcher();
    SplitOff(pSession);
    std::thread destroyer([this] { EXPECT_EQ(0u, QN_Destroy(m_pHandle)); });
    EXPECT_TRUE(TEST_WaitFor([] { return FAKE_MEDIA_OpenWriters() == 0; }));
    FAKE_PLATFORM_Release();
    destroyer.join();
    EXPECT_EQ(1, Unmounts());
    EXPECT_EQ(STRINGS{}, Open());
}

TEST_F(TrapsUnmount, ALineOfTheHostKeepsTheUnmountWaiting)
{
    FAKE_PLATFORM_Stall("mv ");
    std::thread mover([this] { EXPECT_EQ(0u, QN_RecordErrorFileClear(m_pHandle, QN_VOLUME_ID_E_0, "a.mkv")); });
    ASSERT_TRUE(FAKE_PLATFORM_WaitStalled());
    std::thread unmounter([this] { EXPECT_EQ(0u, QN_StorageUnMount(m_pHandle)); });
    TEST_SleepMs(20);
    EXPECT_EQ(0, Unmounts());
    FAKE_PLATFORM_Release();
    mover.join();
    unmounter.join();
    EXPECT_EQ(1, Unmounts());
}

TEST_F(TrapsUnmount, AStartWaitsForTheUnmountOfAPulledCard)
{
    tagQN_RECORD_HANDLER_S *pSession = Make();
    FAKE_PLATFORM_Stall("umount");
    QN_EVENT_PushEvent(m_pHandle, QN_EVENT_E_HOTPLUG_OUT, nullptr);
    ASSERT_TRUE(FAKE_PLATFORM_WaitStalled());
    EXPECT_EQ(0u, QN_RecordStop(pSession)); // the unplug has marked it
    std::atomic<bool> bReturned{false};
    std::thread starter(
        [&]
        {
            EXPECT_EQ(3u, QN_RecordStart(pSession, nullptr));
            bReturned = true;
        });
    EXPECT_FALSE(TEST_WaitFor([&] { return bReturned.load(); }, 50));
    EXPECT_EQ(0, FAKE_MEDIA_Opens());
    FAKE_PLATFORM_Release();
    starter.join();
    EXPECT_EQ(0, FAKE_MEDIA_Opens());
    EXPECT_EQ(QN_RECORD_STATE_IDLE, pSession->enRecordState.load());
}

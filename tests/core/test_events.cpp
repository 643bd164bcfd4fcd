// The event queue and its dispatcher while there is room. A full ring is in test_ring_room.cpp.

#include <unistd.h>

#include "core/core_test.h"

using namespace libquarrin;

using Events = CORE_TEST;

namespace
{

/// Counts the steps of a dispatcher that the test runs itself.
struct STEPPER_S
{
    tagQN_HANDLER_S *pHandle;
    std::atomic<int32_t> s32Steps{0};
};

void Step(void *pArg)
{
    STEPPER_S *pStepper = static_cast<STEPPER_S *>(pArg);
    QN_EVENT_ProcessThread(pStepper->pHandle);
    pStepper->s32Steps += 1;
}

// The names of the events that were dispatched, in order.
std::vector<std::string> Dispatched()
{
    std::vector<std::string> vecNames;
    for (const FAKE_LOG_S &stLog : FAKE_PLATFORM_Logs())
    {
        if (stLog.strPrefix.rfind("QN_EVENT_ProcessThread[", 0) == 0)
        {
            EXPECT_EQ(6, stLog.s32Level);
            vecNames.push_back(stLog.strText);
        }
    }
    return vecNames;
}

std::shared_ptr<void> Volume(QN_VOLUME_ID_E enVolume)
{
    return std::make_shared<QN_VOLUME_ID_E>(enVolume);
}

} // namespace

TEST_F(Events, AreLoggedByTheirNamesButForTheThrottledCheck)
{
    STDOUT_CAPTURE capture;
    InitUnplugged();
    for (const int32_t s32Event : {0, 1, 2, 3, 4})
    {
        EXPECT_EQ(0, Push(s32Event));
        ASSERT_TRUE(Settle());
    }
    const auto spSplit = std::make_shared<tagQN_AUTO_SPLIT_EVENT_S>();
    EXPECT_EQ(0, Push(QN_EVENT_E_RECORD_AUTO_SPLIT, spSplit)); // without a writer: nothing to be closed
    EXPECT_EQ(0, Push(QN_EVENT_E_QUOTA_THROTTLE, Volume(QN_VOLUME_ID_E_0)));
    EXPECT_EQ(0, Push(QN_EVENT_E_QUOTA_UPDATE, Volume(QN_VOLUME_ID_E_1)));
    ASSERT_TRUE(Settle());
    const std::vector<std::string> vecExpected = {
        "QN_EVENT_E_HOTPLUG_IN",    "QN_EVENT_E_HOTPLUG_OUT", "QN_EVENT_E_FORMAT_SUCCESS",
        "QN_EVENT_E_FORMAT_FAILED", "QN_EVENT_E_MOUNT_DONE",  "QN_EVENT_E_RECORD_AUTO_SPLIT",
        "QN_EVENT_E_QUOTA_UPDATE",
    };
    EXPECT_EQ(vecExpected, Dispatched());
    for (const std::string &strName : vecExpected)
    {
        EXPECT_TRUE(capture.HasLine("\\[INFO\\]\\[QN_EVENT_ProcessThread:[0-9]+\\] " + strName)) << strName;
    }
    EXPECT_FALSE(capture.Has("QN_EVENT_E_QUOTA_THROTTLE"));
}

TEST_F(Events, OfUnknownValuesAreTakenOutAndIgnored)
{
    InitUnplugged();
    const size_t u64Logs = FAKE_PLATFORM_Logs().size();
    for (const int32_t s32Event : {5, 9, 10, 1000, -1})
    {
        EXPECT_EQ(0, Push(s32Event, std::make_shared<int>(1)));
    }
    ASSERT_TRUE(Settle());
    EXPECT_EQ(0u, Queued());
    EXPECT_EQ(u64Logs, FAKE_PLATFORM_Logs().size());
    EXPECT_TRUE(FAKE_PLATFORM_Commands().empty());
}

TEST_F(Events, OfTheQuotaCheckTheVolumeOfTheirPayload)
{
    InitMounted();
    Push(QN_EVENT_E_QUOTA_UPDATE, Volume(QN_VOLUME_ID_E_2));
    Push(QN_EVENT_E_QUOTA_THROTTLE, Volume(QN_VOLUME_ID_E_1));
    ASSERT_TRUE(Settle());
    EXPECT_TRUE(FAKE_PLATFORM_Logged("Quota[2] quota:1 0B|"));
    EXPECT_TRUE(FAKE_PLATFORM_Logged("Quota[1] quota:1 0B|"));
    EXPECT_FALSE(FAKE_PLATFORM_Logged("Quota[0]"));

    const int32_t s32Countdown = m_pHandle->as32QuotaCountdown[1];
    Push(QN_EVENT_E_QUOTA_UPDATE, Volume(QN_VOLUME_ID_E_1)); // not throttled
    ASSERT_TRUE(Settle());
    EXPECT_EQ(s32Countdown, m_pHandle->as32QuotaCountdown[1]);
    Push(QN_EVENT_E_QUOTA_THROTTLE, Volume(QN_VOLUME_ID_E_1));
    ASSERT_TRUE(Settle());
    EXPECT_EQ(s32Countdown - 1, m_pHandle->as32QuotaCountdown[1]);
}

TEST_F(Events, OfADoneMountMakeTheFoldersOfTheEnabledVolumes)
{
    m_stParam.astVolume[1].bEnable = 0;
    InitUnplugged();
    Push(QN_EVENT_E_MOUNT_DONE);
    ASSERT_TRUE(Settle());
    const std::vector<std::string> vecExpected = {"mkdir -p " + m_strMount + "/rec",
                                                  "mkdir -p " + m_strMount + "/event"};
    EXPECT_EQ(vecExpected, FAKE_PLATFORM_Commands());
    EXPECT_EQ(QN_STATE_E_UNPLUGIN, State()); // unchanged
}

TEST_F(Events, OfASplitCloseTheWriterOfTheirPayload)
{
    InitUnplugged();
    ASSERT_NO_FATAL_FAILURE(StallDispatcher());
    EXPECT_EQ(0, FAKE_BACKEND_Closes());
    ReleaseDispatcher();
    ASSERT_TRUE(Settle());
    EXPECT_EQ(1, FAKE_BACKEND_Closes());
    EXPECT_FALSE(TEST_Exists(m_dir.strPath + "/stall")); // shorter than 5 seconds
}

TEST_F(Events, AreHandledInTheOrderInWhichTheyEnteredTheRing)
{
    InitUnplugged();
    ASSERT_NO_FATAL_FAILURE(StallDispatcher());
    const std::vector<std::string> vecBefore = Dispatched();
    Push(QN_EVENT_E_FORMAT_FAILED);
    {
        BACKGROUND other([this] { Push(QN_EVENT_E_FORMAT_SUCCESS); });
    }
    Push(QN_EVENT_E_HOTPLUG_OUT);
    {
        BACKGROUND other([this] { Push(QN_EVENT_E_MOUNT_DONE); });
    }
    EXPECT_EQ(vecBefore, Dispatched()); // nothing is handled while a handler runs
    ReleaseDispatcher();
    ASSERT_TRUE(Settle());
    const std::vector<std::string> vecExpected = {"QN_EVENT_E_RECORD_AUTO_SPLIT", "QN_EVENT_E_FORMAT_FAILED",
                                                  "QN_EVENT_E_FORMAT_SUCCESS", "QN_EVENT_E_HOTPLUG_OUT",
                                                  "QN_EVENT_E_MOUNT_DONE"};
    EXPECT_EQ(vecExpected, Dispatched());
}

TEST_F(Events, OfTwoThreadsAreAllHandledOneAtATimeAndEachThreadsInOrder)
{
    InitUnplugged();
    std::atomic<int32_t> s32Running{0};
    std::atomic<int32_t> s32Most{0};
    FAKE_PLATFORM_OnCommand(
        [&](const std::string &)
        {
            s32Most = std::max(s32Most.load(), ++s32Running);
            TEST_SleepMs(1);
            --s32Running;
            return 0;
        });
    {
        BACKGROUND first(
            [this]
            {
                for (int32_t i = 0; i < 20; ++i)
                {
                    Push(QN_EVENT_E_MOUNT_DONE);
                    Push(QN_EVENT_E_FORMAT_FAILED);
                }
            });
        BACKGROUND second(
            [this]
            {
                for (int32_t i = 0; i < 20; ++i)
                {
                    Push(QN_EVENT_E_HOTPLUG_OUT);
                }
            });
    }
    ASSERT_TRUE(Settle());
    const std::vector<std::string> vecNames = Dispatched();
    EXPECT_EQ(60u, vecNames.size());
    EXPECT_EQ(20, std::count(vecNames.begin(), vecNames.end(), "QN_EVENT_E_HOTPLUG_OUT"));
    std::vector<std::string> vecFirst;
    for (const std::string &strName : vecNames)
    {
        if (strName != "QN_EVENT_E_HOTPLUG_OUT")
        {
            EXPECT_EQ(vecFirst.size() % 2 == 0 ? "QN_EVENT_E_MOUNT_DONE" : "QN_EVENT_E_FORMAT_FAILED", strName);
            vecFirst.push_back(strName);
        }
    }
    EXPECT_EQ(1, s32Most);
}

TEST_F(Events, AdvanceHeadAndTailModuloFour)
{
    ASSERT_NO_FATAL_FAILURE(InitWithoutEventThread());
    for (uint32_t i = 0; i < 10; ++i)
    {
        EXPECT_EQ(i % 4, m_pHandle->u32EventTail);
        Push(5);
        Push(9);
        EXPECT_EQ(2u, Queued());
        EXPECT_EQ((i + 2) % 4, m_pHandle->u32EventTail);
        EXPECT_EQ(5, m_pHandle->astEventQueue[i % 4].enEvent);
        EXPECT_EQ(9, m_pHandle->astEventQueue[(i + 1) % 4].enEvent);
        QN_EVENT_ProcessThread(m_pHandle); // one event a step
        EXPECT_EQ(1u, Queued());
        EXPECT_EQ((i + 1) % 4, m_pHandle->u32EventHead);
        QN_EVENT_ProcessThread(m_pHandle);
        // Bring head and tail to the next slot but one.
        for (int32_t j = 0; j < 3; ++j)
        {
            Push(5);
            QN_EVENT_ProcessThread(m_pHandle);
        }
        EXPECT_EQ(0u, Queued());
    }
}

TEST_F(Events, KeepTheirPayloadInTheSlotUntilALaterEventTakesIt)
{
    InitUnplugged();
    auto spPayload = std::make_shared<int>(1);
    const std::weak_ptr<int> wpPayload = spPayload;
    Push(5, std::move(spPayload));
    for (int32_t i = 0; i < 3; ++i)
    {
        Push(5);
        ASSERT_TRUE(TEST_WaitFor([this] { return Queued() == 0; }));
        EXPECT_FALSE(wpPayload.expired()) << i;
    }
    Push(5);
    EXPECT_TRUE(wpPayload.expired());
}

TEST_F(Events, GiveTheirPayloadsBackWithTheHandle)
{
    InitUnplugged();
    auto spPayload = std::make_shared<int>(1);
    const std::weak_ptr<int> wpPayload = spPayload;
    Push(5, std::move(spPayload));
    ASSERT_TRUE(TEST_WaitFor([this] { return Queued() == 0; }));
    EXPECT_FALSE(wpPayload.expired());
    QN_Destroy(m_pHandle);
    EXPECT_TRUE(wpPayload.expired());
}

TEST_F(Events, LetTheDispatcherReturnAboutOnceASecondWhenThereAreNone)
{
    ASSERT_NO_FATAL_FAILURE(InitWithoutEventThread());
    STEPPER_S stStepper;
    stStepper.pHandle = m_pHandle;
    tagPTHREAD_DATA_S stThread;
    const auto begin = std::chrono::steady_clock::now();
    UTIL_THREAD_InitData(&stThread, "stepper", Step, &stStepper);
    UTIL_THREAD_Create(&stThread, nullptr);
    EXPECT_TRUE(TEST_WaitFor([&] { return stStepper.s32Steps == 1; }, 10000));
    const auto first = std::chrono::steady_clock::now();
    EXPECT_GE(first - begin, std::chrono::milliseconds(900));
    EXPECT_TRUE(TEST_WaitFor([&] { return stStepper.s32Steps == 2; }, 10000)); // and it is called again
    EXPECT_GE(std::chrono::steady_clock::now() - first, std::chrono::milliseconds(900));
    UTIL_THREAD_Destory(&stThread, 1);
}

TEST_F(Events, WakeADispatcherThatWaits)
{
    ASSERT_NO_FATAL_FAILURE(InitWithoutEventThread());
    const auto begin = std::chrono::steady_clock::now();
    for (int32_t i = 0; i < 20; ++i) // twenty seconds, if each of them waited for the deadline
    {
        BACKGROUND dispatcher([this] { QN_EVENT_ProcessThread(m_pHandle); });
        Push(QN_EVENT_E_FORMAT_FAILED);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
    EXPECT_EQ(20u, Dispatched().size());
}

TEST_F(Events, AreDroppedAfterTheQueueWasShutDown)
{
    STDOUT_CAPTURE capture;
    InitUnplugged();
    EXPECT_EQ(0, QN_EVENT_Destroy(m_pHandle));
    EXPECT_TRUE(m_pHandle->bEventExit);
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(6, "QN_EVENT_Destroy", "exit"));
    EXPECT_TRUE(capture.HasLine("\\[INFO\\]\\[QN_EVENT_Destroy:[0-9]+\\] exit"));
    const size_t u64Logs = FAKE_PLATFORM_Logs().size();

    auto spPayload = std::make_shared<int>(1);
    const std::weak_ptr<int> wpPayload = spPayload;
    EXPECT_EQ(0, Push(QN_EVENT_E_HOTPLUG_IN, std::move(spPayload)));
    EXPECT_TRUE(wpPayload.expired()); // dropped at once
    EXPECT_EQ(0u, Queued());
    QN_EVENT_ProcessThread(m_pHandle); // returns at once
    EXPECT_EQ(u64Logs, FAKE_PLATFORM_Logs().size());
}

TEST_F(Events, StillQueuedAtTheShutDownAreNotHandled)
{
    InitUnplugged();
    ASSERT_NO_FATAL_FAILURE(StallDispatcher());
    const auto spPayload = std::make_shared<int>(1);
    Push(QN_EVENT_E_HOTPLUG_IN, spPayload);
    Push(QN_EVENT_E_MOUNT_DONE, spPayload);
    {
        BACKGROUND shutDown([this] { QN_EVENT_Destroy(m_pHandle); });
        EXPECT_TRUE(shutDown.StaysBusy()); // the handler that runs is finished first
        EXPECT_TRUE(TEST_WaitFor([this] { return m_pHandle->bEventExit.load(); }));
        ReleaseDispatcher();
    }
    EXPECT_EQ(std::vector<std::string>{"QN_EVENT_E_RECORD_AUTO_SPLIT"}, Dispatched());
    EXPECT_TRUE(FAKE_PLATFORM_Commands().empty());
    EXPECT_EQ(1, FAKE_BACKEND_Closes());
    EXPECT_EQ(3, spPayload.use_count()); // kept by their slots
    QN_Destroy(m_pHandle);
    EXPECT_EQ(1, spPayload.use_count());
}

TEST_F(Events, FlowAgainWhenTheQueueIsOpenedAgain)
{
    ASSERT_NO_FATAL_FAILURE(InitWithoutEventThread());
    const auto spPayload = std::make_shared<int>(1);
    Push(QN_EVENT_E_FORMAT_SUCCESS, spPayload);
    QN_EVENT_ProcessThread(m_pHandle);
    Push(QN_EVENT_E_FORMAT_SUCCESS, spPayload);
    QN_EVENT_Destroy(m_pHandle);

    EXPECT_EQ(0, QN_EVENT_Init(m_pHandle)); // this time the thread starts
    EXPECT_EQ(1, spPayload.use_count());    // the slots were emptied
    EXPECT_FALSE(m_pHandle->bEventExit);
    EXPECT_EQ(0u, Queued());
    EXPECT_EQ(0u, m_pHandle->u32EventHead);
    Push(QN_EVENT_E_FORMAT_FAILED);
    ASSERT_TRUE(Settle());
    const std::vector<std::string> vecExpected = {"QN_EVENT_E_FORMAT_SUCCESS", "QN_EVENT_E_FORMAT_FAILED"};
    EXPECT_EQ(vecExpected, Dispatched());
}

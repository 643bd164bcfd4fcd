// mutexState around every change of the state: what decides and what acts waits for it, and then goes by the state that
// it finds.

#include <unistd.h>

#include "core/core_test.h"

using namespace libquarrin;

namespace
{

class StateLock : public CORE_TEST
{
protected:
    void SetUp() override
    {
        CORE_TEST::SetUp();
        InitUnplugged();
    }

    void PutIn()
    {
        TEST_Touch(m_strDevice);
        TEST_Touch(m_strPartition);
    }

    /// Holds the lock while something begins that would refuse enBefore; then lets go with enAfter.
    void Hold(QN_STATE_E enBefore, QN_STATE_E enAfter, const std::function<void()> &fnBegin)
    {
        pthread_mutex_lock(&m_pHandle->mutexState);
        m_pHandle->enState = enBefore;
        fnBegin();
        EXPECT_FALSE(TEST_WaitFor([&] { return State() != enBefore || !FAKE_PLATFORM_Commands().empty(); }, 50));
        m_pHandle->enState = enAfter;
        pthread_mutex_unlock(&m_pHandle->mutexState);
    }

    /// What a host's call returns that began under another state than the one it finds behind the lock.
    uint32_t Call(QN_STATE_E enBefore, QN_STATE_E enAfter, const std::function<uint32_t()> &fnCall)
    {
        uint32_t u32Result = 0;
        std::unique_ptr<BACKGROUND> spHost;
        Hold(enBefore, enAfter,
             [&]
             {
                 spHost.reset(new BACKGROUND([&] { u32Result = fnCall(); }));
                 EXPECT_TRUE(spHost->StaysBusy());
             });
        EXPECT_TRUE(spHost->WaitDone());
        spHost.reset();
        return u32Result;
    }
};

} // namespace

TEST_F(StateLock, IsTakenBeforeAHostsCallLooksAtTheState)
{
    PutIn();
    EXPECT_EQ(0u, Call(QN_STATE_E_PLUGIN, QN_STATE_E_UNMOUNTED, [this] { return QN_StorageMount(m_pHandle); }));
    EXPECT_EQ(QN_STATE_E_MOUNTED, State());
    ASSERT_TRUE(Settle());
    FAKE_PLATFORM_Reset();
    EXPECT_EQ(0u, Call(QN_STATE_E_UNMOUNTED, QN_STATE_E_MOUNTED, [this] { return QN_StorageUnMount(m_pHandle); }));
    EXPECT_EQ(QN_STATE_E_UNMOUNTED, State());
    FAKE_PLATFORM_Reset();
    EXPECT_EQ(0u, Call(QN_STATE_E_MOUNTED, QN_STATE_E_UNMOUNTED,
                       [this] { return QN_StorageFormat(m_pHandle, QN_FS_TYPE_E_EXT4); }));
    EXPECT_TRUE(FAKE_PLATFORM_WaitLogged("make partition", 30000));
}

TEST_F(StateLock, IsTakenBeforeAHostIsToldTheStates)
{
    QN_STATE_E enState = QN_STATE_E_FORMATING;
    EXPECT_EQ(0u, Call(QN_STATE_E_PLUGIN, QN_STATE_E_UNMOUNTED, [&] { return QN_GetState(m_pHandle, &enState); }));
    EXPECT_EQ(QN_STATE_E_UNMOUNTED, enState);
    QN_STORAGE_STATE_E enStorage = QN_STORAGE_STATE_E_FULL;
    EXPECT_EQ(0u,
              Call(QN_STATE_E_PLUGIN, QN_STATE_E_PLUGIN, [&] { return QN_GetStorageState(m_pHandle, &enStorage); }));
    EXPECT_EQ(QN_STORAGE_STATE_E_NORMAL, enStorage);
}

TEST_F(StateLock, IsTakenBeforeTheEndOfAHandleDecidesWhetherToUnmount)
{
    Call(QN_STATE_E_UNMOUNTED, QN_STATE_E_MOUNTED, [this] { return QN_Destroy(m_pHandle); });
    EXPECT_EQ(1, FAKE_PLATFORM_CommandCount(UnmountLine()));
}

TEST_F(StateLock, IsTakenBeforeAHandlerLooksAtTheDevice)
{
    Hold(QN_STATE_E_UNPLUGIN, QN_STATE_E_UNPLUGIN,
         [this]
         {
             Push(QN_EVENT_E_HOTPLUG_IN);
             ASSERT_TRUE(FAKE_PLATFORM_WaitLogged("QN_EVENT_E_HOTPLUG_IN"));
             EXPECT_FALSE(FAKE_PLATFORM_WaitLogged("OOPs", 50));
             PutIn();
         });
    EXPECT_TRUE(WaitForState(QN_STATE_E_MOUNTED));
}

TEST_F(StateLock, IsTakenBeforeAPulledCardIsUnmounted)
{
    Hold(QN_STATE_E_MOUNTED, QN_STATE_E_MOUNTED,
         [this]
         {
             Push(QN_EVENT_E_HOTPLUG_OUT);
             ASSERT_TRUE(FAKE_PLATFORM_WaitLogged("QN_EVENT_E_HOTPLUG_OUT"));
         });
    EXPECT_TRUE(WaitForState(QN_STATE_E_UNPLUGIN));
    EXPECT_EQ(1, FAKE_PLATFORM_CommandCount(UnmountLine()));
}

TEST_F(StateLock, IsTakenBeforeTheEndOfAFormatLooksWhetherOneRuns)
{
    PutIn();
    for (const QN_EVENT_E enEvent : {QN_EVENT_E_FORMAT_FAILED, QN_EVENT_E_FORMAT_SUCCESS})
    {
        const bool bFailed = enEvent == QN_EVENT_E_FORMAT_FAILED;
        FAKE_PLATFORM_Reset();
        Hold(QN_STATE_E_UNMOUNTED, QN_STATE_E_FORMATING,
             [this, enEvent, bFailed]
             {
                 Push(enEvent);
                 ASSERT_TRUE(
                     FAKE_PLATFORM_WaitLogged(bFailed ? "QN_EVENT_E_FORMAT_FAILED" : "QN_EVENT_E_FORMAT_SUCCESS"));
             });
        EXPECT_TRUE(WaitForState(bFailed ? QN_STATE_E_PLUGIN : QN_STATE_E_MOUNTED));
        EXPECT_FALSE(FAKE_PLATFORM_Logged("OOPs"));
    }
}

// Quota in per cent when the file system does not tell its size: nothing is deleted, and the question is asked again.

#include <cerrno>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "storage/failing_calls.h"
#include "storage/quota_test.h"

using namespace libquarrin;

namespace
{

using STRINGS = std::vector<std::string>;

constexpr int32_t QUIET_MS = 1500; // the pause between two questions, and half as much again

class QuotaQuery : public QUOTA_TEST
{
protected:
    void SetUp() override
    {
        CARD_TEST::SetUp();
        InitMounted();
        FAKE_PLATFORM_Reset();
        m_strFirst = AddFile(1, 100);
        m_strSecond = AddFile(2, 100);
        SetPercent(true);
    }

    void SetPercent(bool bAutoDelete, int32_t s32Volume = 0)
    {
        SetQuota(1, 0, bAutoDelete, s32Volume);
        m_pHandle->astVolume[s32Volume].u32QuotaType = 1;
        m_pHandle->astVolume[s32Volume].u32QuotaPercent = 90;
    }

    void ExpectNothingDeleted()
    {
        EXPECT_EQ((STRINGS{"Quota[0] quota:1 200B|0B|0B", "Quota[0] remove finsih 200B|0B|0B"}), LogTexts());
        EXPECT_TRUE(TEST_Exists(m_strFirst));
        EXPECT_TRUE(TEST_Exists(m_strSecond));
        EXPECT_FALSE(IsFull());
    }

    /// A check on the event thread while no file system can be asked, with deletion off; what fnBody sees then.
    void WhileUnknown(const std::function<void()> &fnBody, int32_t s32Volume = 0)
    {
        SetPercent(false, s32Volume);
        TEST_WithFailingCall(TEST_CALL_STATVFS, EIO,
                             [&]
                             {
                                 const auto enVolume = static_cast<QN_VOLUME_ID_E>(s32Volume);
                                 QN_EVENT_PushEvent(m_pHandle, QN_EVENT_E_QUOTA_UPDATE,
                                                    std::make_shared<QN_VOLUME_ID_E>(enVolume));
                                 EXPECT_TRUE(WaitForIdle());
                                 EXPECT_TRUE(IsFull());
                                 fnBody();
                             });
    }

    /// Events that do nothing keep the event thread awake; false when a condition came true within s32Ms.
    bool NeverComesTrue(const std::function<bool()> &fnCondition, int32_t s32Ms)
    {
        return !TEST_WaitFor(
            [&]
            {
                QN_EVENT_PushEvent(m_pHandle, static_cast<QN_EVENT_E>(5), nullptr);
                return fnCondition();
            },
            s32Ms);
    }

    std::string m_strFirst;
    std::string m_strSecond;
};

} // namespace

TEST_F(QuotaQuery, ThatFailsDeletesNothing)
{
    TEST_WithFailingCall(TEST_CALL_STATVFS, EIO, [this] { EXPECT_EQ(0, Check()); });
    EXPECT_TRUE(NeverComesTrue([this] { return Checks() > 1; }, QUIET_MS)) << "nothing depends on another answer";
    ExpectNothingDeleted();
    EXPECT_EQ(0, Check()); // with an answer there is room
    EXPECT_TRUE(TEST_Exists(m_strFirst));
}

TEST_F(QuotaQuery, ThatTellsOfNoBlocksDeletesNothing)
{
    TEST_WithEmptyTotals([this] { EXPECT_EQ(0, Check()); });
    ExpectNothingDeleted();
}

TEST_F(QuotaQuery, ThatFailsIsNothingToAQuotaInBytes)
{
    SetQuota(150, 0, true);
    EXPECT_EQ(0, Check());
    EXPECT_FALSE(TEST_Exists(m_strFirst));
    TEST_Touch(m_strFirst, std::string(100, 'x'));
    TEST_WithFailingCall(TEST_CALL_STATVFS, EIO, [this] { EXPECT_EQ(0, Check()); });
    EXPECT_FALSE(TEST_Exists(m_strFirst));
    EXPECT_TRUE(TEST_Exists(m_strSecond));
}

TEST_F(QuotaQuery, WithoutDeletionIsFullUntilTheAnswerComes)
{
    WhileUnknown([] {});
    EXPECT_TRUE(LoggedInfo("Quota[0] quota:0 200B|0B|0B"));
    EXPECT_TRUE(TEST_WaitFor([this] { return !IsFull(); })) << "nobody asked again";
    EXPECT_EQ(2, Checks());
    EXPECT_TRUE(NeverComesTrue([this] { return Checks() > 2; }, QUIET_MS)) << "there was an answer";
}

TEST_F(QuotaQuery, IsAskedAgainAtMostOnceASecondHoweverBusyTheEventThreadIs)
{
    WhileUnknown(
        [this]
        {
            const double dBegin = TEST_Seconds();
            EXPECT_FALSE(NeverComesTrue([this] { return Checks() >= 4; }, 10000)) << "events kept it from being asked";
            EXPECT_GE(TEST_Seconds() - dBegin, 2.9); // three more, a second apart, the first a second behind the check
            EXPECT_TRUE(IsFull());
        });
    EXPECT_TRUE(TEST_WaitFor([this] { return !IsFull(); }));
}

TEST_F(QuotaQuery, IsAskedForEachVolumeThatWaits)
{
    WhileUnknown([this] { WhileUnknown([] {}, 2); });
    EXPECT_TRUE(TEST_WaitFor([this] { return Checks() == 4; }));
    EXPECT_FALSE(IsFull());
    EXPECT_FALSE(FAKE_PLATFORM_Logged("Quota[1]"));
}

TEST_F(QuotaQuery, IsNotAskedAgainOnceTheCardIsUnmounted)
{
    WhileUnknown([this] { EXPECT_EQ(0u, QN_StorageUnMount(m_pHandle)); });
    EXPECT_TRUE(NeverComesTrue([this] { return Checks() > 1; }, QUIET_MS));
    EXPECT_TRUE(IsFull());
    EXPECT_EQ(0u, QN_StorageMount(m_pHandle)); // brings its own
    EXPECT_TRUE(TEST_WaitFor([this] { return Checks() == 4 && !IsFull(); }));
}

TEST_F(QuotaQuery, IsNotAskedAgainOnceTheCardIsPulled)
{
    WhileUnknown([this] { QN_EVENT_PushEvent(m_pHandle, QN_EVENT_E_HOTPLUG_OUT, nullptr); });
    ASSERT_TRUE(WaitForState(QN_STATE_E_UNPLUGIN));
    EXPECT_TRUE(NeverComesTrue([this] { return Checks() > 1; }, QUIET_MS));
}

TEST_F(QuotaQuery, IsNotAskedAgainBehindTheUnmountOfTheEnd)
{
    WhileUnknown([] {});
    FAKE_PLATFORM_Stall("umount ");
    std::thread end([this] { EXPECT_EQ(0u, QN_Destroy(m_pHandle)); });
    EXPECT_TRUE(FAKE_PLATFORM_WaitStalled());
    EXPECT_FALSE(TEST_WaitFor([this] { return Checks() > 1; }, QUIET_MS)) << "beside the unmount";
    FAKE_PLATFORM_Release(); // the question is long due
    end.join();
    EXPECT_EQ(1, Checks());
}

TEST_F(QuotaQuery, IsAskedAgainWithoutDeletingWhenDeletionWasSwitchedOnMeanwhile)
{
    WhileUnknown(
        [this]
        {
            EXPECT_EQ(0u, QN_RecordStorageUpdate(m_pHandle, QN_VOLUME_ID_E_0, 1));
            EXPECT_FALSE(IsFull());
            EXPECT_TRUE(TEST_WaitFor([this] { return Checks() == 2; }));
        });
    EXPECT_TRUE(TEST_Exists(m_strFirst));
    EXPECT_FALSE(IsFull());
}

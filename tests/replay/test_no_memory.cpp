// Memory that runs out in a host's call on replays: the call says so, and nothing of it is left.

#include "replay_fixture.h"

#include "support/failing_new.h"
#include "support/process.h"

using namespace libquarrin;

namespace
{

class ReplayNoMemory : public REPLAY_TEST
{
protected:
    void SetUp() override
    {
        REPLAY_TEST::SetUp();
        m_strPath = Clip();
    }

    /// Every open with too little memory says so and leaves nothing; the one with enough makes the replay.
    template <typename OPEN> void ExpectTold(const OPEN &fnOpen)
    {
        const size_t open = PROCESS_DescriptorsBelow(m_strMount).size();
        tagQN_REPLAY_HANDLER_S *pReplay = nullptr;
        const std::vector<uint32_t> vecResults = TEST_FailEachNew(
            [&]
            {
                EXPECT_EQ(nullptr, pReplay);
                EXPECT_TRUE(m_pHandle->lstReplay.empty());
                {
                    const FAKES_OWN_NEW own;
                    EXPECT_EQ(open, PROCESS_DescriptorsBelow(m_strMount).size());
                }
                return fnOpen(pReplay);
            });
        ASSERT_LE(5u, vecResults.size());
        for (size_t i = 0; i + 1 < vecResults.size(); ++i)
        {
            EXPECT_TRUE(vecResults[i] == 6 || vecResults[i] == 7) << vecResults[i]; // 7 is the reader's
        }
        EXPECT_EQ(6u, vecResults.front());
        EXPECT_EQ(0u, vecResults.back());
        ASSERT_NE(nullptr, pReplay);
        EXPECT_EQ(0, QN_ReplayClose(pReplay));
    }

    /// A copy that the host makes.
    template <typename VALUE> static VALUE Copy(const VALUE &value)
    {
        const FAKES_OWN_NEW own;
        return value;
    }

    std::string m_strPath;
};

} // namespace

TEST_F(ReplayNoMemory, ForAListGivesNone)
{
    std::vector<tagQN_FILE_INFO_S> vecFiles;
    const std::vector<uint32_t> vecResults = TEST_FailEachNew(
        [&]
        {
            EXPECT_TRUE(vecFiles.empty());
            return QN_ReplayListFile(m_pHandle, QN_VOLUME_ID_E_0, &vecFiles);
        });
    ASSERT_LE(5u, vecResults.size());
    EXPECT_EQ(std::vector<uint32_t>(vecResults.size() - 1, 6),
              std::vector<uint32_t>(vecResults.begin(), vecResults.end() - 1));
    EXPECT_EQ(0u, vecResults.back());
    EXPECT_EQ(1u, vecFiles.size());
}

TEST_F(ReplayNoMemory, ForAnOpenMakesNoReplay)
{
    const tagQN_FILE_INFO_S stInfo = Info(m_strPath);
    ExpectTold([&](tagQN_REPLAY_HANDLER_S *&pReplay)
               { return QN_ReplayOpen(m_pHandle, Copy(stInfo), m_stReplayParam, pReplay); });
    ExpectTold([&](tagQN_REPLAY_HANDLER_S *&pReplay)
               { return QN_ReplayOpenByFilePath(m_pHandle, Copy(m_strPath), m_stReplayParam, pReplay); });
    ExpectTold([&](tagQN_REPLAY_HANDLER_S *&pReplay)
               { return QN_ReplayOpenByFileName(m_pHandle, Copy(stInfo.strName), m_stReplayParam, pReplay); });
}

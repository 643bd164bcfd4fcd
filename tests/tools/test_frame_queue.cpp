#include "frame_queue.h"

#include <gtest/gtest.h>

struct SCRIPT_S
{
    std::deque<tagTOOL_FRAME_S> dqFrames; ///< one comes with every read
    TOOL_READ_E enEnd = TOOL_READ_E_END;
    uint32_t u32Reads = 0;
};

static TOOL_READ_E ReadScript(tagTOOL_INPUT_S &stInput, std::deque<tagTOOL_FRAME_S> &dqFrames)
{
    SCRIPT_S &stScript = *static_cast<SCRIPT_S *>(stInput.spState.get());
    stScript.u32Reads++;
    if (stScript.dqFrames.empty())
    {
        return stScript.enEnd;
    }
    dqFrames.push_back(stScript.dqFrames.front());
    stScript.dqFrames.pop_front();
    return TOOL_READ_E_GOOD;
}

class FrameQueue : public ::testing::Test
{
protected:
    FrameQueue()
    {
        m_spScript = std::make_shared<SCRIPT_S>();
        m_stInput.spState = m_spScript;
        m_stInput.pfnRead = ReadScript;
        m_stInput.stVideo.bPresent = true;
        m_stInput.stAudio.bPresent = true;
        m_stQueue.pInput = &m_stInput;
    }

    void Add(char cKind, int64_t s64Time, bool bKey)
    {
        tagTOOL_FRAME_S stFrame;
        stFrame.bVideo = cKind == 'v';
        stFrame.bKey = bKey;
        stFrame.s64Time = s64Time;
        m_spScript->dqFrames.push_back(stFrame);
    }

    /// The next frames, as "v0 a10 ".
    std::string Order()
    {
        std::string strOrder;
        tagTOOL_FRAME_S stFrame;
        while (TOOL_QUEUE_Next(m_stQueue, stFrame) == TOOL_READ_E_GOOD)
        {
            strOrder += (stFrame.bVideo ? "v" : "a") + std::to_string(stFrame.s64Time) + " ";
        }
        return strOrder;
    }

    std::shared_ptr<SCRIPT_S> m_spScript;
    tagTOOL_INPUT_S m_stInput;
    tagTOOL_QUEUE_S m_stQueue;
};

TEST_F(FrameQueue, PutsTheStreamsIntoTheOrderOfTheirTimes)
{
    Add('v', 0, true);
    Add('v', 40, false);
    Add('v', 80, false);
    Add('a', 0, true);
    Add('a', 21, true);
    Add('a', 42, true);
    EXPECT_EQ("v0 a0 a21 v40 a42 v80 ", Order());
}

TEST_F(FrameQueue, BeginsWithTheFirstKeyFrameAndDropsWhatIsBefore)
{
    Add('a', 0, true);
    Add('v', 10, false);
    Add('v', 50, true);
    Add('a', 40, true);
    Add('a', 60, true);
    tagTOOL_LOOK_S stLook;
    ASSERT_TRUE(TOOL_QUEUE_Begin(m_stQueue, stLook));
    EXPECT_FALSE(stLook.bReordered);
    EXPECT_EQ("v50 a60 ", Order());
}

TEST_F(FrameQueue, SeesThatTimeGoesBack)
{
    Add('v', 0, true);
    Add('v', 120, false);
    Add('v', 40, false);
    tagTOOL_LOOK_S stLook;
    ASSERT_TRUE(TOOL_QUEUE_Begin(m_stQueue, stLook));
    EXPECT_TRUE(stLook.bReordered);
}

TEST_F(FrameQueue, SeesAnUnevenRateButForgivesRounding)
{
    for (int64_t s64Time : {0, 33000, 67000, 100000, 133000})
    {
        Add('v', s64Time, s64Time == 0);
    }
    tagTOOL_LOOK_S stLook;
    ASSERT_TRUE(TOOL_QUEUE_Begin(m_stQueue, stLook));
    EXPECT_FALSE(stLook.bUneven);
    tagTOOL_QUEUE_S stOther;
    stOther.pInput = &m_stInput;
    for (int64_t s64Time : {0, 40000, 80000, 160000})
    {
        Add('v', s64Time, s64Time == 0);
    }
    ASSERT_TRUE(TOOL_QUEUE_Begin(stOther, stLook));
    EXPECT_TRUE(stLook.bUneven);
}

TEST_F(FrameQueue, DoesNotWaitForeverForAStreamThatSendsNothing)
{
    for (int64_t s64No = 0; s64No < 100; s64No++)
    {
        Add('v', s64No * 40000, s64No == 0);
    }
    tagTOOL_FRAME_S stFrame;
    ASSERT_EQ(TOOL_READ_E_GOOD, TOOL_QUEUE_Next(m_stQueue, stFrame));
    EXPECT_LT(m_spScript->u32Reads, 30u); // a second and a frame
}

TEST_F(FrameQueue, SaysWhenThereIsNoKeyFrame)
{
    Add('v', 0, false);
    Add('a', 0, true);
    tagTOOL_LOOK_S stLook;
    EXPECT_FALSE(TOOL_QUEUE_Begin(m_stQueue, stLook));
    EXPECT_EQ("no key frame in it", m_stInput.strError);
}

TEST_F(FrameQueue, GivesUpOnAnEndlessStreamWithoutAKeyFrame)
{
    m_spScript->enEnd = TOOL_READ_E_GOOD;
    tagTOOL_LOOK_S stLook;
    EXPECT_FALSE(TOOL_QUEUE_Begin(m_stQueue, stLook));
}

TEST_F(FrameQueue, HandsOutWhatIsLeftBeforeItTellsOfABrokenInput)
{
    Add('v', 0, true);
    Add('a', 5, true);
    m_spScript->enEnd = TOOL_READ_E_FAILED;
    EXPECT_EQ("v0 a5 ", Order());
    tagTOOL_FRAME_S stFrame;
    EXPECT_EQ(TOOL_READ_E_FAILED, TOOL_QUEUE_Next(m_stQueue, stFrame));
}

TEST_F(FrameQueue, EndsWhenItIsInterrupted)
{
    m_spScript->enEnd = TOOL_READ_E_GOOD;
    uint32_t u32Asked = 0;
    m_stInput.fnInterrupted = [&u32Asked]
    {
        return ++u32Asked > 3;
    };
    tagTOOL_FRAME_S stFrame;
    EXPECT_EQ(TOOL_READ_E_END, TOOL_QUEUE_Next(m_stQueue, stFrame));
}

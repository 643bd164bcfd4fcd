#include "timeline.h"

#include <gtest/gtest.h>

TEST(Timeline, BeginsAtZeroWhateverTheInputsClockSays)
{
    tagTOOL_TIMELINE_S stLine;
    EXPECT_EQ(0, TOOL_TIMELINE_At(stLine, 95443717000));
    EXPECT_EQ(40000, TOOL_TIMELINE_At(stLine, 95443757000));
    EXPECT_EQ(30000, TOOL_TIMELINE_At(stLine, 95443747000)); // the other stream may be a little behind
}

TEST(Timeline, GoesOnWhenTheClockJumpsBack)
{
    tagTOOL_TIMELINE_S stLine;
    TOOL_TIMELINE_At(stLine, 90000000);
    TOOL_TIMELINE_At(stLine, 100000000);
    EXPECT_EQ(10040000, TOOL_TIMELINE_At(stLine, 5000000));
    EXPECT_EQ(10080000, TOOL_TIMELINE_At(stLine, 5040000));
}

TEST(Timeline, GoesOnWhenTheClockJumpsFarAhead)
{
    tagTOOL_TIMELINE_S stLine;
    TOOL_TIMELINE_At(stLine, 0);
    EXPECT_EQ(40000, TOOL_TIMELINE_At(stLine, 3600000000));
    EXPECT_EQ(80000, TOOL_TIMELINE_At(stLine, 3600040000));
}

TEST(Timeline, KeepsTheSlowStepsOfACameraThatTakesAPictureNowAndThen)
{
    tagTOOL_TIMELINE_S stLine;
    TOOL_TIMELINE_At(stLine, 0);
    EXPECT_EQ(30000000, TOOL_TIMELINE_At(stLine, 30000000));
}

// Automatic split: when a new file begins, what the event carries, and what becomes of the old file.

#include "session_fixture.h"

using namespace libquarrin;

class Split : public SESSION_TEST
{
protected:
    static std::shared_ptr<tagQN_AUTO_SPLIT_EVENT_S> Payload(const tagQN_EVENT_SLOT_S &stSlot)
    {
        return std::static_pointer_cast<tagQN_AUTO_SPLIT_EVENT_S>(stSlot.spPayload);
    }

    static std::string Frames(size_t writer)
    {
        std::string strAll;
        const std::vector<FAKE_WRITER_S> vecWriters = FAKE_MEDIA_Writers();
        for (const FAKE_FRAME_S &stFrame : vecWriters.at(writer).vecFrames)
        {
            strAll += stFrame.strBytes + " ";
        }
        return strAll;
    }
};

TEST_F(Split, ComesWithTheFirstVideoKeyFrameAtOrAfterTheDuration)
{
    tagQN_RECORD_HANDLER_S *pSession = Run(60);
    Age(pSession, 50);
    Video(pSession, "early", true);
    EXPECT_EQ(1u, FAKE_MEDIA_Writers().size());
    Age(pSession, 10);
    Video(pSession, "no-key", false);
    Audio(pSession, "audio", true);
    EXPECT_EQ(1u, FAKE_MEDIA_Writers().size());
    Video(pSession, "key", true);
    Audio(pSession, "after", true);
    ASSERT_EQ(2u, FAKE_MEDIA_Writers().size());
    EXPECT_EQ("first early no-key audio ", Frames(0));
    EXPECT_EQ("key after ", Frames(1));
    EXPECT_EQ(QN_RECORD_STATE_RUNNING, pSession->enRecordState.load());
}

TEST_F(Split, NeverComesWithoutTheSwitch)
{
    tagQN_RECORD_HANDLER_S *pSession = Run(-1);
    pSession->stParam.u32SplitSeconds = 1;
    Age(pSession, 100000);
    Video(pSession, "key", true);
    EXPECT_EQ(1u, FAKE_MEDIA_Writers().size());
}

TEST_F(Split, ComesWithAMarkedAudioFrameWithoutVideo)
{
    tagQN_RECORD_PARAM_S stParam = Param();
    stParam.stVideo.bEnable = 0;
    stParam.bAutoSplit = 1;
    stParam.u32SplitSeconds = 60;
    tagQN_RECORD_HANDLER_S *pSession = Make(stParam);
    EXPECT_EQ(0u, QN_RecordStart(pSession, nullptr));
    Audio(pSession, "first", true);
    Age(pSession, 60);
    Audio(pSession, "unmarked", false);
    EXPECT_EQ(1u, FAKE_MEDIA_Writers().size());
    Audio(pSession, "marked", true);
    ASSERT_EQ(2u, FAKE_MEDIA_Writers().size());
    EXPECT_EQ("first unmarked ", Frames(0));
    EXPECT_EQ("marked ", Frames(1));
}

TEST_F(Split, SaysSoOnStandardOutputAlone)
{
    tagQN_RECORD_HANDLER_S *pSession = Run(60);
    Age(pSession, 60);
    const std::string strPrinted = TEST_Printed([&] { Video(pSession, "key", true, 0xffffffffffffffffu); });
    EXPECT_TRUE(TEST_HasLine(strPrinted, "\\[QN_RecordWriteFrame:\\d+\\] split before pts=-1 len=3 bVideo=1"))
        << strPrinted;
    EXPECT_FALSE(FAKE_PLATFORM_Logged("split before"));

    Age(pSession, 60);
    TEST_WaitForNextSecond();
    const std::string strAgain = TEST_Printed([&] { Video(pSession, "longer", true, 123456789012u); });
    EXPECT_TRUE(TEST_HasLine(strAgain, "\\[QN_RecordWriteFrame:\\d+\\] split before pts=123456789012 len=6 bVideo=1"))
        << strAgain;
}

TEST_F(Split, PrintsZeroForAnAudioFrame)
{
    tagQN_RECORD_PARAM_S stParam = Param();
    stParam.stVideo.bEnable = 0;
    stParam.bAutoSplit = 1;
    stParam.u32SplitSeconds = 60;
    tagQN_RECORD_HANDLER_S *pSession = Make(stParam);
    EXPECT_EQ(0u, QN_RecordStart(pSession, nullptr));
    Audio(pSession, "first", true);
    Age(pSession, 60);
    const std::string strPrinted = TEST_Printed([&] { Audio(pSession, "a", true, 5); });
    EXPECT_TRUE(TEST_HasLine(strPrinted, "\\[QN_RecordWriteFrame:\\d+\\] split before pts=5 len=1 bVideo=0"))
        << strPrinted;
}

TEST_F(Split, PrintsTheVideoMarkAsItWasGiven)
{
    tagQN_RECORD_HANDLER_S *pSession = Run(60);
    Age(pSession, 60);
    unsigned char u8Data = 'k';
    const std::string strPrinted =
        TEST_Printed([&] { EXPECT_EQ(0u, QN_RecordWriteFrame(pSession, &u8Data, 1, 7, 4, 2)); });
    EXPECT_TRUE(TEST_HasLine(strPrinted, "\\[QN_RecordWriteFrame:\\d+\\] split before pts=7 len=1 bVideo=2"))
        << strPrinted;
    ASSERT_EQ(1u, FAKE_MEDIA_Writers().at(1).vecFrames.size());
    EXPECT_TRUE(FAKE_MEDIA_Writers()[1].vecFrames[0].bKey);
    EXPECT_TRUE(FAKE_MEDIA_Writers()[1].vecFrames[0].bVideo);
}

TEST_F(Split, HandsTheOldFileToTheEventAndGoesOnWithTheNext)
{
    tagQN_RECORD_HANDLER_S *pSession = Run(60, "tag");
    Age(pSession, 61);
    const time_t tOldStart = pSession->tFileStart;
    const std::string strOldPath = pSession->strFilePath;
    void *const pOldWriter = pSession->pWriter;
    pSession->u32RunSeconds = 3;
    TEST_WaitForNextSecond();
    StallDispatcher();
    const time_t tBefore = time(nullptr);
    Video(pSession, "key", true);

    const std::vector<tagQN_EVENT_SLOT_S> vecRing = Ring();
    ASSERT_EQ(2u, vecRing.size());
    EXPECT_EQ(QN_EVENT_E_RECORD_AUTO_SPLIT, vecRing[0].enEvent);
    EXPECT_EQ(QN_EVENT_E_QUOTA_THROTTLE, vecRing[1].enEvent);
    const std::shared_ptr<tagQN_AUTO_SPLIT_EVENT_S> spEvent = Payload(vecRing[0]);
    ASSERT_NE(nullptr, spEvent);
    EXPECT_EQ(pSession, spEvent->pstRecord);
    EXPECT_EQ(pOldWriter, spEvent->pWriter);
    EXPECT_EQ(strOldPath, spEvent->strFilePath);
    EXPECT_EQ(tOldStart, spEvent->tStart);
    EXPECT_LE(tBefore, spEvent->tEnd);

    EXPECT_EQ(spEvent->tEnd, pSession->tFileStart);
    EXPECT_EQ(spEvent->tEnd, pSession->tRunStart);
    EXPECT_EQ(0u, pSession->u32RunSeconds);
    EXPECT_EQ(QN_STORAGE_GenerateRecordingFile(m_strMount.c_str(), "rec", spEvent->tEnd, "tag", "mkv"),
              pSession->strFilePath);
    EXPECT_NE(pOldWriter, pSession->pWriter);
    EXPECT_EQ("tag", pSession->strNameTag);
    EXPECT_EQ(&pSession->stParam, FAKE_MEDIA_Writers().at(1).pstParam);
    EXPECT_EQ(2, FAKE_MEDIA_OpenWriters()) << "the caller does not close the old file";
    EXPECT_TRUE(TEST_Exists(strOldPath));

    const time_t tSplit = spEvent->tEnd;
    FAKE_PLATFORM_Release();
    const std::string strFinal = FinalPath(tOldStart, tSplit, "tag");
    EXPECT_TRUE(TEST_WaitFor([&] { return TEST_Exists(strFinal); }));
    EXPECT_FALSE(TEST_Exists(strOldPath));
    EXPECT_EQ("begin\nfirst", TEST_ReadFile(strFinal));
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(6, "QN_EVENT_ProcessThread", "QN_EVENT_E_RECORD_AUTO_SPLIT"));
}

TEST_F(Split, MakesAChainOfFiles)
{
    tagQN_RECORD_HANDLER_S *pSession = Run(60);
    std::vector<std::string> vecFinals;
    for (int32_t i = 0; i < 3; ++i)
    {
        Age(pSession, 60 + 10 * i); // no two of one name, whenever the clock steps
        const time_t tStart = pSession->tFileStart;
        Video(pSession, "key" + std::to_string(i), true);
        vecFinals.push_back(FinalPath(tStart, pSession->tFileStart));
    }
    ASSERT_TRUE(WaitForIdle());
    EXPECT_TRUE(TEST_WaitFor([] { return FAKE_MEDIA_OpenWriters() == 1; }));
    EXPECT_EQ("begin\nfirst", TEST_ReadFile(vecFinals[0]));
    EXPECT_EQ("begin\nkey0", TEST_ReadFile(vecFinals[1]));
    EXPECT_EQ("begin\nkey1", TEST_ReadFile(vecFinals[2]));
    EXPECT_EQ(4u, Names().size());
}

// Old and new file have one in-progress name when both begin in one second.
TEST_F(Split, UnderOneNameKeepsBothFiles)
{
    tagQN_RECORD_HANDLER_S *pSession = Run(60, "one-name");
    std::string strOldPath;
    std::string strFinal;
    for (int32_t i = 0; i < 10 && strOldPath != pSession->strFilePath; ++i) // until the clock does not step between
    {
        Video(pSession, "old", false);
        Age(pSession, 60 + i);
        const time_t tStart = pSession->tFileStart;
        strOldPath = pSession->strFilePath;
        Video(pSession, "new", true);
        strFinal = FinalPath(tStart, pSession->tFileStart, "one-name");
    }
    ASSERT_EQ(strOldPath, pSession->strFilePath);
    EXPECT_TRUE(TEST_WaitFor([] { return FAKE_MEDIA_OpenWriters() == 1; }));
    ASSERT_TRUE(WaitForIdle());
    const std::string strOld = TEST_ReadFile(strFinal);
    EXPECT_EQ("old", strOld.substr(strOld.size() - 3)) << strOld;
    EXPECT_EQ("begin\nnew", TEST_ReadFile(pSession->strFilePath));
}

TEST_F(Split, CountsRunningTimeOnly)
{
    tagQN_RECORD_HANDLER_S *pSession = Run(60);
    Age(pSession, 40);
    EXPECT_EQ(0u, QN_RecordPause(pSession));
    Age(pSession, 30); // the pause
    EXPECT_EQ(0u, QN_RecordResume(pSession));
    Video(pSession, "resumed", true);
    EXPECT_EQ(1u, FAKE_MEDIA_Writers().size()) << "40 seconds of 60, whatever the clock says";
    Age(pSession, 10);
    Video(pSession, "50", true);
    EXPECT_EQ(1u, FAKE_MEDIA_Writers().size());
    Age(pSession, 10);
    Video(pSession, "60", true);
    EXPECT_EQ(2u, FAKE_MEDIA_Writers().size());
    EXPECT_EQ(0u, pSession->u32RunSeconds);
}

TEST_F(Split, ComparesUnsignedSoThatAClockSetBackSplits)
{
    tagQN_RECORD_HANDLER_S *pSession = Run(60);
    pthread_mutex_lock(&pSession->stMutex);
    pSession->tRunStart += 1000;
    pthread_mutex_unlock(&pSession->stMutex);
    Video(pSession, "key", true);
    EXPECT_EQ(2u, FAKE_MEDIA_Writers().size());
}

// Promised: the pause adds the time since 1970 when no key frame has come yet.
TEST_F(Split, ComesBeforeTheFirstKeyFrameAfterAPauseRightAfterTheStart)
{
    tagQN_RECORD_HANDLER_S *pSession = Start(60);
    EXPECT_EQ(0u, QN_RecordPause(pSession));
    EXPECT_EQ(0u, QN_RecordResume(pSession));
    const std::string strOldPath = pSession->strFilePath;
    const std::string strPrinted = TEST_Printed(
        [&]
        {
            Video(pSession, "key", true);
            EXPECT_TRUE(TEST_WaitFor([] { return FAKE_MEDIA_OpenWriters() == 1; }));
            EXPECT_TRUE(WaitForIdle());
        });
    ASSERT_EQ(2u, FAKE_MEDIA_Writers().size());
    EXPECT_EQ("", Frames(0));
    EXPECT_EQ("key ", Frames(1));
    EXPECT_TRUE(TEST_HasLine(strPrinted, "\\[QN_RecordWriteFrame:\\d+\\] split before pts=1000 len=3 bVideo=1"));
    EXPECT_TRUE(TEST_HasLine(strPrinted, "\\[QN_RecordClosePostProcess:\\d+\\] remove " + TEST_Plain(strOldPath) +
                                             " ,time is less 5s"))
        << strPrinted;
    EXPECT_EQ("begin\nkey", TEST_ReadFile(pSession->strFilePath)) << "the new file survives";
}

TEST_F(Split, RemovesAFileOfTwoSeconds)
{
    tagQN_RECORD_HANDLER_S *pSession = Run(60);
    const std::string strOldPath = pSession->strFilePath;
    TEST_WaitForNextSecond();
    pthread_mutex_lock(&pSession->stMutex);
    pSession->tFileStart = time(nullptr) - 2;
    pSession->u32RunSeconds = 100;
    pthread_mutex_unlock(&pSession->stMutex);
    Video(pSession, "key", true);
    EXPECT_TRUE(TEST_WaitFor([&] { return !TEST_Exists(strOldPath); }));
    ASSERT_TRUE(WaitForIdle());
    EXPECT_TRUE(TEST_WaitFor([] { return FAKE_MEDIA_OpenWriters() == 1; }));
    EXPECT_EQ(1u, Names().size());
}

TEST_F(Split, OfDurationZeroComesWithEveryKeyFrame)
{
    tagQN_RECORD_HANDLER_S *pSession = Start(0);
    for (int32_t i = 0; i < 3; ++i)
    {
        Video(pSession, "key", true);
        Video(pSession, "other", false);
        EXPECT_EQ(static_cast<size_t>(i) + 2, FAKE_MEDIA_Writers().size()) << "the first key frame splits, too";
    }
    EXPECT_TRUE(TEST_WaitFor([] { return FAKE_MEDIA_OpenWriters() == 1; }));
    EXPECT_EQ("begin\nkeyother", TEST_ReadFile(pSession->strFilePath));
    EXPECT_EQ(0u, QN_RecordStop(pSession));
    EXPECT_TRUE(Names().empty()) << "each of them was shorter than 5 seconds";
}

TEST_F(Split, ThatCannotOpenItsFileLosesTheFramesUntilTheNext)
{
    tagQN_RECORD_HANDLER_S *pSession = Run(60);
    Age(pSession, 60);
    TEST_WaitForNextSecond();
    StallDispatcher();
    FAKE_MEDIA_FailOpens(1);
    EXPECT_EQ(0u, Video(pSession, "key", true));
    EXPECT_EQ(nullptr, pSession->pWriter);
    EXPECT_EQ(QN_RECORD_STATE_RUNNING, pSession->enRecordState.load());
    EXPECT_EQ(0u, Video(pSession, "lost", false));
    EXPECT_EQ(2, FAKE_MEDIA_NullWrites()) << "the back end is called and ignores them";
    EXPECT_EQ(-1, QN_REcordGetWriteBytes(pSession));
    FAKE_PLATFORM_Release();
    ASSERT_TRUE(WaitForIdle());
    for (const FAKE_LOG_S &stLog : FAKE_PLATFORM_Logs())
    {
        EXPECT_EQ(6, stLog.s32Level) << "nothing is reported, but: " << stLog.strText;
    }

    Age(pSession, 60);
    TEST_WaitForNextSecond();
    EXPECT_EQ(0u, Video(pSession, "again", true));
    EXPECT_NE(nullptr, pSession->pWriter);
    ASSERT_EQ(2u, FAKE_MEDIA_Writers().size());
    EXPECT_EQ("again ", Frames(1));
}

TEST_F(Split, ThatCannotOpenItsFileLeavesNothingToStop)
{
    tagQN_RECORD_HANDLER_S *pSession = Run(60);
    Age(pSession, 60);
    TEST_WaitForNextSecond();
    FAKE_MEDIA_FailOpens(1);
    EXPECT_EQ(0u, Video(pSession, "key", true));
    EXPECT_EQ(0u, QN_RecordStop(pSession));
    EXPECT_EQ(QN_RECORD_STATE_IDLE, pSession->enRecordState.load());
    EXPECT_EQ(0u, QN_RecordStart(pSession, nullptr)) << "and the session can start again";
}

class SplitPayload : public SESSION_TEST
{
protected:
    // A payload as a host or a test makes it: the listed fields only, of a file of its own.
    static std::shared_ptr<tagQN_AUTO_SPLIT_EVENT_S> Make5(tagQN_RECORD_HANDLER_S *pSession, const std::string &strPath,
                                                           time_t tStart, time_t tEnd)
    {
        auto spEvent = std::make_shared<tagQN_AUTO_SPLIT_EVENT_S>();
        spEvent->pstRecord = pSession;
        spEvent->pWriter = FAKE_MEDIA_Api()->pfnWriteOpen(&pSession->stParam, strPath.c_str());
        spEvent->strFilePath = strPath;
        spEvent->tStart = tStart;
        spEvent->tEnd = tEnd;
        return spEvent;
    }
};

TEST_F(SplitPayload, OfTheTestIsFinishedByTheHandler)
{
    tagQN_RECORD_HANDLER_S *pSession = Make();
    pSession->strNameTag = "own";
    const std::string strPath = Folder(0) + "/somewhere.mkv";
    const auto spEvent = Make5(pSession, strPath, 100000, 100005);
    EXPECT_EQ(0, QN_EVENT_HandleRecordAutoSplit(m_pHandle, spEvent));
    EXPECT_FALSE(TEST_Exists(strPath));
    EXPECT_TRUE(TEST_Exists(FinalPath(100000, 100005, "own")));
    EXPECT_EQ(0, FAKE_MEDIA_OpenWriters());
}

TEST_F(SplitPayload, OfTheTestIsFinishedByTheEventThread)
{
    tagQN_RECORD_HANDLER_S *pSession = Make();
    const std::string strKept = Folder(0) + "/kept.mkv";
    const std::string strShort = Folder(0) + "/short.mkv";
    QN_EVENT_PushEvent(m_pHandle, QN_EVENT_E_RECORD_AUTO_SPLIT, Make5(pSession, strKept, 100000, 100060));
    QN_EVENT_PushEvent(m_pHandle, QN_EVENT_E_RECORD_AUTO_SPLIT, Make5(pSession, strShort, 100000, 100004));
    EXPECT_TRUE(TEST_WaitFor([&] { return !TEST_Exists(strShort); }));
    EXPECT_EQ(std::vector<std::string>{FinalPath(100000, 100060).substr(Folder(0).size() + 1)}, Names());
    EXPECT_TRUE(WaitForIdle());
}

TEST_F(SplitPayload, WithoutAWriterGivesOneAndLeavesTheFile)
{
    tagQN_RECORD_HANDLER_S *pSession = Make();
    auto spEvent = std::make_shared<tagQN_AUTO_SPLIT_EVENT_S>();
    spEvent->pstRecord = pSession;
    spEvent->strFilePath = TEST_Touch(Folder(0) + "/left.mkv", "x");
    EXPECT_EQ(1, QN_EVENT_HandleRecordAutoSplit(m_pHandle, spEvent));
    EXPECT_TRUE(TEST_Exists(spEvent->strFilePath));
}

TEST_F(SplitPayload, MayBeMissing)
{
    EXPECT_EQ(1, QN_EVENT_HandleRecordAutoSplit(m_pHandle, nullptr));
    EXPECT_EQ(0, QN_EVENT_PushEvent(m_pHandle, QN_EVENT_E_RECORD_AUTO_SPLIT, nullptr));
    EXPECT_TRUE(WaitForIdle());
    EXPECT_TRUE(FAKE_PLATFORM_Logged("QN_EVENT_E_RECORD_AUTO_SPLIT"));
}

TEST_F(SplitPayload, TakesNoSessionLock)
{
    tagQN_RECORD_HANDLER_S *pSession = Make();
    const auto spEvent = Make5(pSession, Folder(0) + "/x.mkv", 100000, 100005);
    pthread_mutex_lock(&pSession->stMutex);
    QN_EVENT_PushEvent(m_pHandle, QN_EVENT_E_RECORD_AUTO_SPLIT, spEvent);
    EXPECT_TRUE(TEST_WaitFor([&] { return TEST_Exists(FinalPath(100000, 100005)); }));
    pthread_mutex_unlock(&pSession->stMutex);
}

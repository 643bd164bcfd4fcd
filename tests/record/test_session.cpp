// The life of a record session: start, pause, resume, stop, bytes, destroy.

#include "session_fixture.h"

using namespace libquarrin;

class SessionStart : public SESSION_TEST
{
};
class SessionPause : public SESSION_TEST
{
};
class SessionStop : public SESSION_TEST
{
};
class SessionBytes : public SESSION_TEST
{
};
class SessionDestroy : public SESSION_TEST
{
};

static int32_t CountLogs(const std::string &strText)
{
    int32_t s32Count = 0;
    for (const FAKE_LOG_S &stLog : FAKE_PLATFORM_Logs())
    {
        s32Count += stLog.strText == strText ? 1 : 0;
    }
    return s32Count;
}

TEST_F(SessionStart, RefusesNull)
{
    EXPECT_EQ(1u, QN_RecordStart(nullptr, "tag"));
}

TEST_F(SessionStart, NeedsAMountedCardAndSaysSo)
{
    tagQN_RECORD_HANDLER_S *pSession = Make();
    for (int32_t s32State = 0; s32State < 4; ++s32State)
    {
        FAKE_PLATFORM_Reset();
        m_pHandle->enState = static_cast<QN_STATE_E>(s32State);
        const std::string strPrinted = TEST_Printed([&] { EXPECT_EQ(3u, QN_RecordStart(pSession, "tag")); });
        EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(3, "QN_RecordStart", "Cannot start record, storage is not mounted"));
        EXPECT_TRUE(TEST_HasLine(strPrinted,
                                 "\\[ERROR\\]\\[QN_RecordStart:\\d+\\] Cannot start record, storage is not mounted"))
            << strPrinted;
        EXPECT_EQ(1u, FAKE_PLATFORM_Logs().size());
    }
    EXPECT_EQ(QN_RECORD_STATE_IDLE, pSession->enRecordState.load());
    EXPECT_TRUE(FAKE_MEDIA_Writers().empty());
}

TEST_F(SessionStart, OpensTheInProgressFileOfThisSecond)
{
    tagQN_RECORD_HANDLER_S *pSession = Make();
    pSession->tRunStart = 5;
    pSession->u32RunSeconds = 6;
    const time_t tBefore = time(nullptr);
    const std::string strPrinted = TEST_Printed([&] { EXPECT_EQ(0u, QN_RecordStart(pSession, "door")); });
    EXPECT_LE(tBefore, pSession->tFileStart);
    EXPECT_GE(time(nullptr), pSession->tFileStart);
    EXPECT_EQ(0, pSession->tRunStart);
    EXPECT_EQ(0u, pSession->u32RunSeconds);
    EXPECT_EQ("door", pSession->strNameTag);
    const std::string strPath =
        Folder(0) + "/" + QN_STORAGE_PrettierTime(pSession->tFileStart) + ".To.unknown.[door].mkv";
    EXPECT_EQ(strPath, pSession->strFilePath);
    EXPECT_TRUE(TEST_Exists(strPath));
    EXPECT_EQ(QN_RECORD_STATE_WAIT_KEY, pSession->enRecordState.load());

    const std::vector<FAKE_WRITER_S> vecWriters = FAKE_MEDIA_Writers();
    ASSERT_EQ(1u, vecWriters.size());
    EXPECT_EQ(strPath, vecWriters[0].strPath);
    EXPECT_EQ(&pSession->stParam, vecWriters[0].pstParam);
    EXPECT_EQ(vecWriters[0].pWriter, pSession->pWriter);

    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(6, "QN_RecordStart", "record opening..."));
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(6, "QN_RecordStart", "record start"));
    EXPECT_TRUE(TEST_HasLine(strPrinted, "\\[INFO\\]\\[QN_RecordStart:\\d+\\] record opening\\.\\.\\."));
    EXPECT_TRUE(TEST_HasLine(strPrinted, "\\[INFO\\]\\[QN_RecordStart:\\d+\\] record start"));
    EXPECT_LT(strPrinted.find("record opening..."), strPrinted.find("record start"));
}

TEST_F(SessionStart, NamesFilesByTagAndContainer)
{
    const char *apszExt[] = {"mkv", "ts", "mp4", "mov"};
    for (int32_t s32Format = 0; s32Format < 4; ++s32Format)
    {
        tagQN_RECORD_PARAM_S stParam = Param();
        stParam.enFormat = static_cast<QN_FILE_FMT_E>(s32Format);
        tagQN_RECORD_HANDLER_S *pSession = Make(stParam);
        EXPECT_EQ(0u, QN_RecordStart(pSession, nullptr));
        EXPECT_EQ("", pSession->strNameTag);
        EXPECT_EQ(Folder(0) + "/" + QN_STORAGE_PrettierTime(pSession->tFileStart) + ".To.unknown." + apszExt[s32Format],
                  pSession->strFilePath);
    }
}

TEST_F(SessionStart, RefusesASecondStartWithoutAWord)
{
    tagQN_RECORD_HANDLER_S *pSession = Start();
    const size_t logs = FAKE_PLATFORM_Logs().size();
    for (int32_t s32State = 1; s32State <= 5; ++s32State)
    {
        SetState(pSession, s32State);
        EXPECT_EQ(3u, QN_RecordStart(pSession, "other")) << s32State;
        EXPECT_EQ(s32State, pSession->enRecordState.load());
    }
    EXPECT_EQ(logs, FAKE_PLATFORM_Logs().size());
    EXPECT_EQ("", pSession->strNameTag);
    EXPECT_EQ(1u, FAKE_MEDIA_Writers().size());
}

TEST_F(SessionStart, StaysIdleWhenTheFileCannotBeOpened)
{
    tagQN_RECORD_HANDLER_S *pSession = Make();
    FAKE_MEDIA_FailOpens(1);
    EXPECT_EQ(7u, QN_RecordStart(pSession, nullptr));
    EXPECT_EQ(QN_RECORD_STATE_IDLE, pSession->enRecordState.load());
    EXPECT_EQ(nullptr, pSession->pWriter);
    EXPECT_TRUE(FAKE_PLATFORM_Logged("record opening..."));
    EXPECT_FALSE(FAKE_PLATFORM_Logged("record start"));
    EXPECT_TRUE(Names().empty());
    EXPECT_EQ(-1, QN_REcordGetWriteBytes(pSession));

    EXPECT_EQ(0u, QN_RecordStop(pSession));
    EXPECT_EQ(QN_RECORD_STATE_IDLE, pSession->enRecordState.load());
    EXPECT_EQ(0u, QN_RecordStart(pSession, nullptr)) << "the name of the failed start is free again";
}

TEST_F(SessionStart, LeavesNoFileWhenTheRealWriterFails)
{
    tagQN_RECORD_PARAM_S stParam = Param(); // width, rate and time base are missing: no container takes that
    stParam.stVideo.enCodec = static_cast<QN_CODEC_TYPE_E>(2);
    tagQN_RECORD_HANDLER_S *pSession = nullptr;
    ASSERT_EQ(0u, QN_RecordInit(m_pHandle, &stParam, pSession));
    EXPECT_EQ(7u, QN_RecordStart(pSession, "x"));
    EXPECT_EQ(QN_RECORD_STATE_IDLE, pSession->enRecordState.load());
    EXPECT_TRUE(Names().empty());
}

TEST_F(SessionStart, WorksAgainAfterAStop)
{
    tagQN_RECORD_HANDLER_S *pSession = Start(-1, "one");
    EXPECT_EQ(0u, QN_RecordStop(pSession));
    EXPECT_EQ(0u, QN_RecordStart(pSession, "two"));
    EXPECT_EQ("two", pSession->strNameTag);
    EXPECT_EQ(2u, FAKE_MEDIA_Writers().size());
    EXPECT_EQ(QN_RECORD_STATE_WAIT_KEY, pSession->enRecordState.load());
}

TEST_F(SessionPause, RefusesNullAndOtherStates)
{
    EXPECT_EQ(1u, QN_RecordPause(nullptr));
    tagQN_RECORD_HANDLER_S *pSession = Make();
    for (const int32_t s32State : {0, 3, 4, 5})
    {
        SetState(pSession, s32State);
        EXPECT_EQ(3u, QN_RecordPause(pSession)) << s32State;
        EXPECT_EQ(s32State, pSession->enRecordState.load());
        EXPECT_EQ(0u, pSession->u32RunSeconds);
    }
    SetState(pSession, 0);
}

TEST_F(SessionPause, SumsTheSecondsOfTheRuns)
{
    tagQN_RECORD_HANDLER_S *pSession = Run();
    Age(pSession, 20);
    EXPECT_EQ(0u, QN_RecordPause(pSession));
    EXPECT_EQ(QN_RECORD_STATE_PAUSED, pSession->enRecordState.load());
    EXPECT_NEAR(20.0, pSession->u32RunSeconds, 3.0);

    EXPECT_EQ(0u, QN_RecordResume(pSession));
    Video(pSession, "key", true);
    Age(pSession, 100);
    EXPECT_EQ(0u, QN_RecordPause(pSession));
    EXPECT_NEAR(120.0, pSession->u32RunSeconds, 6.0);
}

// Promised: the whole time since 1970 counts when no key frame has come yet.
TEST_F(SessionPause, CountsTheEpochBeforeTheFirstKeyFrame)
{
    tagQN_RECORD_HANDLER_S *pSession = Start();
    const uint32_t u32Before = static_cast<uint32_t>(time(nullptr));
    EXPECT_EQ(0u, QN_RecordPause(pSession));
    EXPECT_LE(u32Before, pSession->u32RunSeconds);
    EXPECT_GE(static_cast<uint32_t>(time(nullptr)), pSession->u32RunSeconds);
}

TEST_F(SessionPause, ResumeWaitsForAKeyFrameAndChangesNothingElse)
{
    EXPECT_EQ(1u, QN_RecordResume(nullptr));
    tagQN_RECORD_HANDLER_S *pSession = Run();
    for (const int32_t s32State : {0, 1, 2, 4, 5})
    {
        SetState(pSession, s32State);
        EXPECT_EQ(3u, QN_RecordResume(pSession)) << s32State;
        EXPECT_EQ(s32State, pSession->enRecordState.load());
    }
    SetState(pSession, 2);
    EXPECT_EQ(0u, QN_RecordPause(pSession));
    pSession->u32RunSeconds = 9;
    const time_t tFileStart = pSession->tFileStart;
    const time_t tRunStart = pSession->tRunStart;
    void *const pWriter = pSession->pWriter;
    EXPECT_EQ(0u, QN_RecordResume(pSession));
    EXPECT_EQ(QN_RECORD_STATE_RESUMED, pSession->enRecordState.load());
    EXPECT_EQ(9u, pSession->u32RunSeconds);
    EXPECT_EQ(tFileStart, pSession->tFileStart);
    EXPECT_EQ(tRunStart, pSession->tRunStart);
    EXPECT_EQ(pWriter, pSession->pWriter);
}

TEST_F(SessionStop, RefusesNullAndTakesAnIdleSession)
{
    EXPECT_EQ(1u, QN_RecordStop(nullptr));
    EXPECT_EQ(1u, QN_RecordStopNoLock(nullptr, 1));
    EXPECT_EQ(1u, QN_RecordStopNoLock(nullptr, 0));
    tagQN_RECORD_HANDLER_S *pSession = Make();
    EXPECT_EQ(0u, QN_RecordStop(pSession));
    EXPECT_EQ(QN_RECORD_STATE_IDLE, pSession->enRecordState.load());
}

TEST_F(SessionStop, FinishesTheFileFromEveryState)
{
    for (int32_t s32State = 1; s32State <= 5; ++s32State)
    {
        tagQN_RECORD_HANDLER_S *pSession = Run(-1, ("s" + std::to_string(s32State)).c_str());
        SetState(pSession, s32State);
        EXPECT_EQ(0u, QN_RecordStop(pSession));
        EXPECT_EQ(QN_RECORD_STATE_IDLE, pSession->enRecordState.load());
        EXPECT_EQ(nullptr, pSession->pWriter);
        EXPECT_EQ(0, FAKE_MEDIA_OpenWriters()) << s32State;
    }
}

TEST_F(SessionStop, WithoutTheLockWorksForACallerThatHoldsIt)
{
    tagQN_RECORD_HANDLER_S *pSession = Run();
    pthread_mutex_lock(&pSession->stMutex);
    EXPECT_EQ(0u, QN_RecordStopNoLock(pSession, 0));
    EXPECT_NE(0, pthread_mutex_trylock(&pSession->stMutex)) << "still the caller's";
    pthread_mutex_unlock(&pSession->stMutex);
    EXPECT_EQ(0, FAKE_MEDIA_OpenWriters());
    EXPECT_EQ(0u, QN_RecordStopNoLock(pSession, 2)) << "anything but 0 takes the lock";
    ASSERT_EQ(0, pthread_mutex_trylock(&pSession->stMutex));
    pthread_mutex_unlock(&pSession->stMutex);
}

TEST_F(SessionStop, ClosesOnceWhenCalledTwice)
{
    tagQN_RECORD_HANDLER_S *pSession = Run();
    EXPECT_EQ(0u, QN_RecordStop(pSession));
    EXPECT_EQ(0u, QN_RecordStop(pSession));
    EXPECT_EQ(1, FAKE_MEDIA_Writers()[0].s32Closes);
}

TEST_F(SessionBytes, AreCountedWhileAFileIsOpenOnly)
{
    EXPECT_EQ(-1, QN_REcordGetWriteBytes(nullptr));
    tagQN_RECORD_HANDLER_S *pSession = Make();
    EXPECT_EQ(-1, QN_REcordGetWriteBytes(pSession));
    EXPECT_EQ(0u, QN_RecordStart(pSession, nullptr));
    EXPECT_EQ(6, QN_REcordGetWriteBytes(pSession)); // the header of the fake file
    Video(pSession, "0123456789", true);
    EXPECT_EQ(16, QN_REcordGetWriteBytes(pSession));
    EXPECT_EQ(0u, QN_RecordStop(pSession));
    EXPECT_EQ(-1, QN_REcordGetWriteBytes(pSession));
}

TEST_F(SessionBytes, AreUnknownOfATableWithoutTheSlot)
{
    const tagQN_MEDIA_API_S stApi = {FAKE_MEDIA_Api()->pfnWriteOpen,
                                     FAKE_MEDIA_Api()->pfnWriteFrame,
                                     FAKE_MEDIA_Api()->pfnWriteClose,
                                     nullptr,
                                     nullptr,
                                     nullptr,
                                     nullptr,
                                     nullptr,
                                     nullptr,
                                     nullptr,
                                     nullptr};
    tagQN_RECORD_HANDLER_S *pSession = Make();
    pSession->pstMediaApi = &stApi;
    EXPECT_EQ(0u, QN_RecordStart(pSession, nullptr));
    EXPECT_EQ(-1, QN_REcordGetWriteBytes(pSession));
    EXPECT_EQ(0u, QN_RecordDestroy(pSession));
}

TEST_F(SessionDestroy, TakesANullReference)
{
    tagQN_RECORD_HANDLER_S *pSession = nullptr;
    EXPECT_EQ(0u, QN_RecordDestroy(pSession));
    EXPECT_EQ(0u, QN_RecordDestroy(pSession, 0));
    EXPECT_EQ(0u, QN_RecordDestroy(pSession, 1));
}

TEST_F(SessionDestroy, UnlinksAnIdleSessionAndPostsAQuotaCheck)
{
    tagQN_RECORD_HANDLER_S *pSession = Make();
    tagQN_RECORD_HANDLER_S *pOther = Make();
    StallDispatcher();
    EXPECT_EQ(0u, QN_RecordDestroy(pSession));
    EXPECT_EQ(nullptr, pSession);
    EXPECT_EQ((std::list<tagQN_RECORD_HANDLER_S *>{pOther}), m_pHandle->lstRecord);
    EXPECT_FALSE(FAKE_PLATFORM_Logged("destroy but still recording"));
    const std::vector<tagQN_EVENT_SLOT_S> vecRing = Ring();
    ASSERT_EQ(1u, vecRing.size());
    EXPECT_EQ(QN_EVENT_E_QUOTA_THROTTLE, vecRing[0].enEvent);
    ASSERT_NE(nullptr, vecRing[0].spPayload);
    EXPECT_EQ(QN_VOLUME_ID_E_0, *static_cast<QN_VOLUME_ID_E *>(vecRing[0].spPayload.get()));
}

TEST_F(SessionDestroy, StopsARunningSessionAndWarns)
{
    tagQN_RECORD_HANDLER_S *pSession = Run(-1, "tag");
    Age(pSession, 30);
    const time_t tStart = pSession->tFileStart;
    StallDispatcher();
    const std::string strPrinted = TEST_Printed([&] { EXPECT_EQ(0u, QN_RecordDestroy(pSession)); });
    EXPECT_EQ(nullptr, pSession);
    const std::string strText = "destroy but still recording state=2, stop it first";
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(4, "QN_RecordDestroy", strText));
    EXPECT_TRUE(TEST_HasLine(strPrinted, "\\[WARN\\]\\[QN_RecordDestroy:\\d+\\] " + strText)) << strPrinted;
    const std::vector<std::string> vecNames = Names();
    ASSERT_EQ(1u, vecNames.size());
    EXPECT_EQ(0u, vecNames[0].find(QN_STORAGE_PrettierTime(tStart) + ".To.2")) << vecNames[0];
    ASSERT_FALSE(Ring().empty());
    EXPECT_EQ(QN_EVENT_E_QUOTA_THROTTLE, Ring().back().enEvent);
    EXPECT_TRUE(m_pHandle->lstRecord.empty());
}

TEST_F(SessionDestroy, WarnsWithTheStateThatItMeets)
{
    for (int32_t s32State = 1; s32State <= 5; ++s32State)
    {
        tagQN_RECORD_HANDLER_S *pSession = Start(-1, ("s" + std::to_string(s32State)).c_str());
        SetState(pSession, s32State);
        EXPECT_EQ(0u, QN_RecordDestroy(pSession, 1));
        EXPECT_EQ(1, CountLogs("destroy but still recording state=" + std::to_string(s32State) + ", stop it first"));
    }
    EXPECT_EQ(0, FAKE_MEDIA_OpenWriters());
}

TEST_F(SessionDestroy, LeavesTheListAloneWhenToldSo)
{
    tagQN_RECORD_HANDLER_S *pSession = Run();
    EXPECT_EQ(0u, QN_RecordDestroy(pSession, 0));
    EXPECT_EQ(nullptr, pSession);
    EXPECT_EQ(1u, m_pHandle->lstRecord.size()) << "the caller empties the list";
    m_pHandle->lstRecord.clear();
}

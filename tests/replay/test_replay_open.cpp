// Listing files and opening them, and every way in which that fails.

#include "replay_fixture.h"

#include <climits>
#include <sys/stat.h>

using namespace libquarrin;

class ReplayList : public REPLAY_TEST
{
};
class ReplayOpen : public REPLAY_TEST
{
};

TEST_F(ReplayList, RefusesANullHandle)
{
    std::vector<tagQN_FILE_INFO_S> vecFiles;
    EXPECT_EQ(1u, QN_ReplayListFile(nullptr, QN_VOLUME_ID_E_0, &vecFiles));
}

TEST_F(ReplayList, NeedsAMountedCard)
{
    std::vector<tagQN_FILE_INFO_S> vecFiles;
    for (int32_t s32State = 0; s32State < 4; ++s32State)
    {
        m_pHandle->enState = static_cast<QN_STATE_E>(s32State);
        ExpectRefused(3, "QN_ReplayListFile", "storage not mounted, state=" + std::to_string(s32State),
                      [&](auto &) { return QN_ReplayListFile(m_pHandle, QN_VOLUME_ID_E_0, &vecFiles); });
    }
}

TEST_F(ReplayList, NeedsAnEnabledVolume)
{
    std::vector<tagQN_FILE_INFO_S> vecFiles;
    m_pHandle->astVolume[1].bEnable = 0;
    for (const int32_t s32Volume : {1, -1, 3, INT_MIN, INT_MAX})
    {
        ExpectRefused(3, "QN_ReplayListFile", "volume " + std::to_string(s32Volume) + " not enabled",
                      [&](auto &)
                      { return QN_ReplayListFile(m_pHandle, static_cast<QN_VOLUME_ID_E>(s32Volume), &vecFiles); });
    }
}

TEST_F(ReplayList, GivesTheFilesOfOneVolumeEarliestFirst)
{
    TEST_Touch(Folder(1) + "/2024-03-01-10-00-00.To.2024-03-01-10-05-00.[b].mp4", "12");
    TEST_Touch(Folder(1) + "/2024-03-01-09-00-00.To.2024-03-01-09-05-00.[a].mkv", "1");
    TEST_Touch(Folder(1) + "/2024-03-01-11-00-00.To.unknown.ts", "123");
    TEST_Touch(Folder(0) + "/2024-03-01-08-00-00.To.2024-03-01-08-05-00.mkv");
    std::vector<tagQN_FILE_INFO_S> vecFiles;
    EXPECT_EQ(0u, QN_ReplayListFile(m_pHandle, QN_VOLUME_ID_E_1, &vecFiles));
    ASSERT_EQ(3u, vecFiles.size());
    EXPECT_EQ("a", vecFiles[0].strComment);
    EXPECT_EQ("mkv", vecFiles[0].strExt);
    EXPECT_EQ(1u, vecFiles[0].u64Size);
    EXPECT_EQ("b", vecFiles[1].strComment);
    EXPECT_EQ(300, vecFiles[1].tEnd - vecFiles[1].tStart);
    EXPECT_EQ(Folder(1) + "/2024-03-01-11-00-00.To.unknown.ts", vecFiles[2].strPath);
    EXPECT_EQ("2024-03-01-11-00-00.To.unknown.ts", vecFiles[2].strName);
}

TEST_F(ReplayList, OfAMissingFolderLeavesTheVectorAlone)
{
    rmdir(Folder(2).c_str());
    std::vector<tagQN_FILE_INFO_S> vecFiles(2);
    EXPECT_EQ(0u, QN_ReplayListFile(m_pHandle, QN_VOLUME_ID_E_2, &vecFiles));
    EXPECT_EQ(2u, vecFiles.size());
}

// A host's variable may hold anything before.
TEST_F(ReplayOpen, LeavesNullWhenItRefuses)
{
    const tagQN_FILE_INFO_S stInfo = Info(Clip());
    tagQN_FILE_INFO_S stAbsent = stInfo;
    stAbsent.strPath += ".gone";
    tagQN_FILE_INFO_S stOdd = stInfo;
    stOdd.strExt = "odd";
    const auto fnExpect = [](uint32_t u32Result, const std::function<uint32_t(tagQN_REPLAY_HANDLER_S *&)> &fn)
    {
        int32_t s32Something = 0;
        tagQN_REPLAY_HANDLER_S *pReplay = reinterpret_cast<tagQN_REPLAY_HANDLER_S *>(&s32Something);
        EXPECT_EQ(u32Result, fn(pReplay));
        EXPECT_EQ(nullptr, pReplay);
    };
    fnExpect(1, [&](auto *&p) { return QN_ReplayOpen(nullptr, stInfo, m_stReplayParam, p); });
    fnExpect(1, [&](auto *&p) { return QN_ReplayOpenByFileName(nullptr, "a", m_stReplayParam, p); });
    fnExpect(1, [&](auto *&p) { return QN_ReplayOpenByFilePath(nullptr, "a", m_stReplayParam, p); });
    fnExpect(7, [&](auto *&p) { return QN_ReplayOpen(m_pHandle, stAbsent, m_stReplayParam, p); });
    fnExpect(7, [&](auto *&p) { return QN_ReplayOpen(m_pHandle, stOdd, m_stReplayParam, p); });
    fnExpect(7, [&](auto *&p) { return QN_ReplayOpenByFileName(m_pHandle, "a.ts", m_stReplayParam, p); });
    fnExpect(7, [&](auto *&p) { return QN_ReplayOpenByFilePath(m_pHandle, "a.ts", m_stReplayParam, p); });
    fnExpect(7, [&](auto *&p) { return QN_ReplayOpenByFilePath(m_pHandle, m_strDevice, m_stReplayParam, p); });
    m_pHandle->enState = QN_STATE_E_UNMOUNTED;
    fnExpect(3, [&](auto *&p) { return QN_ReplayOpen(m_pHandle, stInfo, m_stReplayParam, p); });
    fnExpect(3, [&](auto *&p) { return QN_ReplayOpenByFileName(m_pHandle, "a", m_stReplayParam, p); });
    fnExpect(3, [&](auto *&p) { return QN_ReplayOpenByFilePath(m_pHandle, "a", m_stReplayParam, p); });
    m_pHandle->enState = QN_STATE_E_MOUNTED;
}

TEST_F(ReplayOpen, RefusesANullHandle)
{
    tagQN_REPLAY_HANDLER_S *pReplay = nullptr;
    EXPECT_EQ(1u, QN_ReplayOpen(nullptr, tagQN_FILE_INFO_S(), m_stReplayParam, pReplay));
    EXPECT_EQ(1u, QN_ReplayOpenByFileName(nullptr, "x", m_stReplayParam, pReplay));
    EXPECT_EQ(1u, QN_ReplayOpenByFilePath(nullptr, "x", m_stReplayParam, pReplay));
    EXPECT_EQ(nullptr, pReplay);
}

TEST_F(ReplayOpen, NeedsAMountedCard)
{
    const std::string strPath = Clip();
    const tagQN_FILE_INFO_S stInfo = Info(strPath);
    for (int32_t s32State = 0; s32State < 4; ++s32State)
    {
        m_pHandle->enState = static_cast<QN_STATE_E>(s32State);
        const std::string strText = "storage not mounted, state=" + std::to_string(s32State);
        ExpectRefused(3, "QN_ReplayOpen", strText,
                      [&](auto &pReplay) { return QN_ReplayOpen(m_pHandle, stInfo, m_stReplayParam, pReplay); });
        ExpectRefused(3, "QN_ReplayOpenByFileName", strText,
                      [&](auto &pReplay)
                      { return QN_ReplayOpenByFileName(m_pHandle, stInfo.strName, m_stReplayParam, pReplay); });
        ExpectRefused(3, "QN_ReplayOpenByFilePath", strText,
                      [&](auto &pReplay)
                      { return QN_ReplayOpenByFilePath(m_pHandle, strPath, m_stReplayParam, pReplay); });
    }
}

TEST_F(ReplayOpen, NeedsTheFile)
{
    tagQN_FILE_INFO_S stInfo;
    stInfo.strPath = Folder(0) + "/absent.ts";
    stInfo.strExt = "nothing that is known"; // looked at later
    ExpectRefused(7, "QN_ReplayOpen", "file " + stInfo.strPath + " not exist",
                  [&](auto &pReplay) { return QN_ReplayOpen(m_pHandle, stInfo, m_stReplayParam, pReplay); });
    ExpectRefused(7, "QN_ReplayOpenByFileName", "file absent.ts not exist",
                  [&](auto &pReplay)
                  { return QN_ReplayOpenByFileName(m_pHandle, "absent.ts", m_stReplayParam, pReplay); });
    ExpectRefused(7, "QN_ReplayOpenByFilePath", "file " + stInfo.strPath + " not exist",
                  [&](auto &pReplay)
                  { return QN_ReplayOpenByFilePath(m_pHandle, stInfo.strPath, m_stReplayParam, pReplay); });
}

TEST_F(ReplayOpen, NeedsAKnownExtension)
{
    tagQN_FILE_INFO_S stInfo;
    stInfo.strPath = TEST_Touch(Folder(0) + "/x");
    for (const char *pszExt : {"avi", "", "MKV", "ts ", "jpeg"})
    {
        stInfo.strExt = pszExt;
        ExpectRefused(7, "QN_ReplayOpen", std::string("invalid format ") + pszExt,
                      [&](auto &pReplay) { return QN_ReplayOpen(m_pHandle, stInfo, m_stReplayParam, pReplay); });
    }
}

TEST_F(ReplayOpen, DoesNotPlayPictures)
{
    tagQN_FILE_INFO_S stInfo;
    stInfo.strPath = TEST_Touch(Folder(0) + "/2024-03-01-08-15-00.jpg");
    stInfo.strExt = "jpg";
    ExpectRefused(7, "QN_ReplayOpen", "file " + stInfo.strPath + " format not supported",
                  [&](auto &pReplay) { return QN_ReplayOpen(m_pHandle, stInfo, m_stReplayParam, pReplay); });
    // By name and by path the message is the same.
    ExpectRefused(7, "QN_ReplayOpen", "file " + stInfo.strPath + " format not supported",
                  [&](auto &pReplay)
                  { return QN_ReplayOpenByFileName(m_pHandle, "2024-03-01-08-15-00.jpg", m_stReplayParam, pReplay); });
}

// The table for "wav" has no read slots.
TEST_F(ReplayOpen, OfAWavFileGivesSevenAndLeavesNothing)
{
    tagQN_FILE_INFO_S stInfo;
    stInfo.strPath = TEST_Touch(Folder(0) + "/2024-03-01-08-15-00.To.2024-03-01-08-15-10.wav", "RIFF");
    stInfo.strExt = "wav";
    tagQN_REPLAY_HANDLER_S *pReplay = nullptr;
    EXPECT_EQ(7u, QN_ReplayOpen(m_pHandle, stInfo, m_stReplayParam, pReplay));
    EXPECT_EQ(nullptr, pReplay);
    EXPECT_EQ(7u, QN_ReplayOpenByFilePath(m_pHandle, stInfo.strPath, m_stReplayParam, pReplay));
    EXPECT_EQ(nullptr, pReplay);
    EXPECT_TRUE(m_pHandle->lstReplay.empty());
    EXPECT_EQ(0u, QN_StorageUnMount(m_pHandle)) << "nothing is open";
}

TEST_F(ReplayOpen, OfAFileThatIsNoMediaFileGivesSevenAndTheReadersMessage)
{
    for (const char *pszExt : {"mkv", "ts", "mp4", "mov", "aac"})
    {
        const std::string strPath = TEST_Touch(Folder(0) + "/2024-03-01-08-15-00." + pszExt, "no media at all");
        tagQN_REPLAY_HANDLER_S *pReplay = nullptr;
        EXPECT_EQ(7u, QN_ReplayOpen(m_pHandle, Info(strPath), m_stReplayParam, pReplay)) << pszExt;
        EXPECT_EQ(nullptr, pReplay);
    }
    EXPECT_TRUE(FAKE_PLATFORM_Logged("avformat_open_input failed: "));
    EXPECT_TRUE(m_pHandle->lstReplay.empty());
}

TEST_F(ReplayOpen, FillsTheReplayAndLinksItAtTheEnd)
{
    const tagQN_FILE_INFO_S stInfo = Info(Clip(0, "2024-03-01-08-15-00.To.2024-03-01-08-15-10.[door].ts"));
    for (uint32_t i = 0; i < 24; ++i)
    {
        m_stReplayParam.au32Reserved[i] = i * 3;
    }
    tagQN_REPLAY_HANDLER_S *pReplay = nullptr;
    const size_t logs = FAKE_PLATFORM_Logs().size();
    ASSERT_EQ(0u, QN_ReplayOpen(m_pHandle, stInfo, m_stReplayParam, pReplay));
    ASSERT_NE(nullptr, pReplay);
    EXPECT_EQ(logs, FAKE_PLATFORM_Logs().size());
    EXPECT_EQ(m_pHandle, pReplay->pHandle);
    EXPECT_EQ(stInfo.strName, pReplay->stFileInfo.strName);
    EXPECT_EQ(stInfo.strPath, pReplay->stFileInfo.strPath);
    EXPECT_EQ("door", pReplay->stFileInfo.strComment);
    EXPECT_EQ("ts", pReplay->stFileInfo.strExt);
    EXPECT_EQ(stInfo.u64Size, pReplay->stFileInfo.u64Size);
    EXPECT_EQ(stInfo.tStart, pReplay->stFileInfo.tStart);
    EXPECT_EQ(stInfo.tEnd, pReplay->stFileInfo.tEnd);
    EXPECT_EQ(69u, pReplay->stParam.au32Reserved[23]);
    EXPECT_EQ(&qn_media_api_ffmpeg, pReplay->pstMediaApi);
    EXPECT_NE(nullptr, pReplay->pReader);
    ASSERT_EQ(0, pthread_mutex_trylock(&pReplay->mutexReplay));
    pthread_mutex_unlock(&pReplay->mutexReplay);

    tagQN_REPLAY_HANDLER_S *pSecond = Open(stInfo.strPath);
    EXPECT_EQ((std::list<tagQN_REPLAY_HANDLER_S *>{pReplay, pSecond}), m_pHandle->lstReplay);
}

TEST_F(ReplayOpen, ByNameTakesTheFirstVolumeThatHasIt)
{
    const std::string strName = "2024-03-01-08-15-00.To.2024-03-01-08-15-10.ts";
    Clip(1, strName);
    Clip(2, strName);
    tagQN_REPLAY_HANDLER_S *pReplay = nullptr;
    ASSERT_EQ(0u, QN_ReplayOpenByFileName(m_pHandle, strName, m_stReplayParam, pReplay));
    EXPECT_EQ(Folder(1) + "/" + strName, pReplay->stFileInfo.strPath);
    QN_ReplayClose(pReplay);

    m_pHandle->astVolume[1].bEnable = 0;
    ASSERT_EQ(0u, QN_ReplayOpenByFileName(m_pHandle, strName, m_stReplayParam, pReplay));
    EXPECT_EQ(Folder(2) + "/" + strName, pReplay->stFileInfo.strPath);
    QN_ReplayClose(pReplay);

    m_pHandle->astVolume[2].bEnable = 0;
    ExpectRefused(7, "QN_ReplayOpenByFileName", "file " + strName + " not exist",
                  [&](auto &pNone) { return QN_ReplayOpenByFileName(m_pHandle, strName, m_stReplayParam, pNone); });
}

TEST_F(ReplayOpen, NeedsANameThatFollowsTheScheme)
{
    const std::string strPath = TEST_Touch(Folder(0) + "/holiday.ts", "x");
    ExpectRefused(7, "QN_ReplayOpenByFilePath", "cannot parse file name of " + strPath,
                  [&](auto &pReplay) { return QN_ReplayOpenByFilePath(m_pHandle, strPath, m_stReplayParam, pReplay); });
    ExpectRefused(7, "QN_ReplayOpenByFileName", "cannot parse file name of " + strPath,
                  [&](auto &pReplay)
                  { return QN_ReplayOpenByFileName(m_pHandle, "holiday.ts", m_stReplayParam, pReplay); });
}

// The catalogue answers a folder with success and an empty record, which names no file.
TEST_F(ReplayOpen, OfAFolderFindsNoFile)
{
    const std::string strPath = Folder(0) + "/2024-03-01-08-15-00.ts";
    mkdir(strPath.c_str(), 0755);
    ExpectRefused(7, "QN_ReplayOpen", "file  not exist",
                  [&](auto &pReplay) { return QN_ReplayOpenByFilePath(m_pHandle, strPath, m_stReplayParam, pReplay); });
}

TEST_F(ReplayOpen, ByPathPlaysAFileOutsideTheVolumes)
{
    const std::string strPath = m_dir.strPath + "/2024-03-01-08-15-00.ts";
    TEST_WriteClip(strPath);
    tagQN_REPLAY_HANDLER_S *pReplay = Open(strPath);
    ASSERT_NE(nullptr, pReplay);
    EXPECT_EQ(strPath, pReplay->stFileInfo.strPath);
}

TEST_F(ReplayOpen, PlaysEveryContainer)
{
    const struct
    {
        QN_FILE_FMT_E enFormat;
        const char *pszExt;
    } astCases[] = {
        {QN_FILE_FMT_E_MKV, "mkv"}, {QN_FILE_FMT_E_TS, "ts"}, {QN_FILE_FMT_E_MP4, "mp4"}, {QN_FILE_FMT_E_MOV, "mov"}};
    for (const auto &stCase : astCases)
    {
        const std::string strPath = Folder(0) + "/2024-03-01-08-15-00." + stCase.pszExt;
        TEST_WriteClip(strPath, stCase.enFormat);
        EXPECT_NE(nullptr, Open(strPath)) << stCase.pszExt;
    }
    EXPECT_EQ(4u, m_pHandle->lstReplay.size());
}

TEST_F(ReplayOpen, PlaysRawAac)
{
    std::string strBytes;
    for (const TEST_FRAME_S &stFrame : TEST_EncodeAac())
    {
        strBytes.append(stFrame.vecData.begin(), stFrame.vecData.end());
    }
    tagQN_REPLAY_HANDLER_S *pReplay = Open(TEST_Touch(Folder(0) + "/2024-03-01-08-15-00.aac", strBytes));
    ASSERT_NE(nullptr, pReplay);
    tagQN_METADATA_S stMetadata = {};
    EXPECT_EQ(0u, QN_ReplayReadMetadata(pReplay, &stMetadata));
    EXPECT_EQ(0u, stMetadata.bHasAudio) << "audio at stream 0 counts as none";
    uint8_t *pu8Data = nullptr;
    uint32_t u32Size = 0;
    uint64_t u64Pts = 0;
    bool bKey = false;
    bool bVideo = true;
    EXPECT_EQ(0u, QN_ReplayReadFrame(pReplay, &pu8Data, &u32Size, &u64Pts, &bKey, &bVideo));
    EXPECT_FALSE(bVideo);
    EXPECT_GT(u32Size, 0u);
}

#include "pump.h"

#include <cstdlib>
#include <map>
#include <mutex>

#include <gtest/gtest.h>
#include <unistd.h>

#include "rig.h"

using namespace libquarrin;

/// What a file must hold.
struct PUMP_FILE_S
{
    int32_t s32Frames = 0;
    bool bExact = false; ///< ended by a split; a stop may come between a frame and its count
};

struct PUMP_FILES_S
{
    std::mutex mutex;
    time_t tNext = 1000000000;
    std::map<std::string, PUMP_FILE_S> mapFiles; ///< by the begin of the name
};

constexpr uint64_t AUDIO_SAMPLES = 1024;
constexpr uint64_t AUDIO_PER_MS = 48;
constexpr time_t SECONDS_APART = 100;
constexpr size_t TIME_CHARS = 19; // "YYYY-MM-DD-hh-mm-ss"

static PUMP_FILES_S &Files()
{
    static PUMP_FILES_S *s_pFiles = new PUMP_FILES_S(); // outlives every thread
    return *s_pFiles;
}

static tagQN_RECORD_PARAM_S Param(QN_FILE_FMT_E enFormat, bool bAudio, const std::vector<TEST_FRAME_S> &vecVideo)
{
    tagQN_RECORD_PARAM_S stParam = {};
    stParam.enFormat = enFormat;
    stParam.stVideo = TEST_VideoParam(QN_CODEC_H264, vecVideo);
    if (bAudio)
    {
        stParam.stAudio = TEST_AudioParam();
    }
    stParam.bAutoSplit = 1;
    stParam.u32SplitSeconds = 1000000; // only when Split says so
    return stParam;
}

PUMP::PUMP(tagQN_HANDLER_S *pHandle, QN_FILE_FMT_E enFormat, bool bAudio, const char *pszTag, int32_t s32PauseUs)
    : m_pHandle(pHandle), m_vecVideo(TEST_EncodeH264()), m_vecAudio(TEST_EncodeAac()), m_bAudio(bAudio),
      m_strTag(pszTag), m_s32PauseUs(s32PauseUs)
{
    tagQN_RECORD_PARAM_S stParam = Param(enFormat, bAudio, m_vecVideo);
    EXPECT_EQ(0u, QN_RecordInit(m_pHandle, &stParam, pSession));
    if (pSession != nullptr)
    {
        m_thread = std::thread([this] { Feed(); });
    }
}

PUMP::~PUMP()
{
    m_bRun = false;
    if (m_thread.joinable())
    {
        m_thread.join();
    }
    RIG_Timed("QN_RecordDestroy", [this] { QN_RecordDestroy(pSession); });
}

uint32_t PUMP::Start()
{
    uint32_t u32Result = 0;
    RIG_Timed("QN_RecordStart", [&] { u32Result = QN_RecordStart(pSession, m_strTag.c_str()); });
    return u32Result;
}

void PUMP::Stop()
{
    RIG_Timed("QN_RecordStop", [this] { EXPECT_EQ(0u, QN_RecordStop(pSession)); });
}

std::string PUMP::Split()
{
    std::string strKey;
    pthread_mutex_lock(&pSession->stMutex);
    if (pSession->enRecordState.load() == QN_RECORD_STATE_RUNNING && pSession->tFileStart == m_tFile)
    {
        pSession->tRunStart = 0;
        strKey = QN_STORAGE_PrettierTime(m_tFile);
    }
    pthread_mutex_unlock(&pSession->stMutex);
    return strKey;
}

bool PUMP::WaitWritten(int64_t s64More) const
{
    const int64_t s64Goal = Written() + s64More;
    return TEST_WaitFor([this, s64Goal] { return Written() >= s64Goal; }, RIG_WAIT_MS);
}

void PUMP::Feed()
{
    while (m_bRun)
    {
        WriteVideo();
        while (m_bAudio && m_u64AudioPts <= m_u64Pts)
        {
            WriteAudio();
        }
        m_u64Pts += PUMP_FRAME_MS;
        usleep(static_cast<useconds_t>(m_s32PauseUs));
    }
}

void PUMP::WriteVideo()
{
    const TEST_FRAME_S &stFrame = m_vecVideo[m_uVideo % m_vecVideo.size()];
    ++m_uVideo;
    uint8_t *pu8Data = const_cast<uint8_t *>(stFrame.vecData.data());
    const uint32_t u32Len = static_cast<uint32_t>(stFrame.vecData.size());
    RIG_Timed("QN_RecordWriteFrame", [&]
              { EXPECT_EQ(0u, QN_RecordWriteFrame(pSession, pu8Data, u32Len, m_u64Pts, stFrame.bKey ? 1 : 0, 1)); });
    Note();
}

void PUMP::WriteAudio()
{
    const TEST_FRAME_S &stFrame = m_vecAudio[m_uAudio % m_vecAudio.size()];
    ++m_uAudio;
    uint8_t *pu8Data = const_cast<uint8_t *>(stFrame.vecData.data());
    const uint32_t u32Len = static_cast<uint32_t>(stFrame.vecData.size());
    RIG_Timed("QN_RecordWriteFrame",
              [&] { EXPECT_EQ(0u, QN_RecordWriteFrame(pSession, pu8Data, u32Len, m_u64AudioPts, 1, 0)); });
    m_u64AudioPts = PUMP_FRAME_MS + m_uAudio * AUDIO_SAMPLES / AUDIO_PER_MS;
}

// Notes where the latest video frame went. A session that does not run any more may have written it or not.
void PUMP::Note()
{
    pthread_mutex_lock(&pSession->stMutex);
    if (pSession->enRecordState.load() == QN_RECORD_STATE_RUNNING &&
        m_pHandle->enStorageState.load() != QN_STORAGE_STATE_E_FULL)
    {
        const std::lock_guard<std::mutex> lock(Files().mutex);
        if (pSession->tFileStart != m_tFile)
        {
            // A new file. When the session was running all the time, the old one was ended by this very frame.
            if (m_bRuns)
            {
                Files().mapFiles[QN_STORAGE_PrettierTime(m_tFile)].bExact = true;
            }
            m_tFile = Files().tNext;
            Files().tNext += SECONDS_APART;
            pSession->tFileStart = m_tFile;
        }
        Files().mapFiles[QN_STORAGE_PrettierTime(m_tFile)].s32Frames += 1;
        m_bRuns = true;
        m_s64Written += 1;
    }
    else
    {
        m_bRuns = false;
    }
    pthread_mutex_unlock(&pSession->stMutex);
}

static bool Expected(const std::string &strPath, PUMP_FILE_S &stFile)
{
    const std::string strName = strPath.substr(strPath.rfind('/') + 1);
    const std::lock_guard<std::mutex> lock(Files().mutex);
    const auto it = Files().mapFiles.find(strName.substr(0, TIME_CHARS));
    if (it == Files().mapFiles.end())
    {
        return false;
    }
    stFile = it->second;
    return true;
}

std::string PUMP::WhatIsWrong(const std::string &strPath)
{
    PUMP_FILE_S stFile;
    if (!Expected(strPath, stFile))
    {
        return strPath + " is nobody's file";
    }
    const TEST_MEDIA_S stMedia = TEST_ReadMedia(strPath);
    const std::vector<TEST_PACKET_S> vecPackets = stMedia.bOpened && stMedia.VideoStream() >= 0
                                                      ? stMedia.Of(stMedia.VideoStream())
                                                      : std::vector<TEST_PACKET_S>();
    const int32_t s32Packets = static_cast<int32_t>(vecPackets.size());
    const int32_t s32Most = stFile.s32Frames + (stFile.bExact ? 0 : 1);
    if (s32Packets < stFile.s32Frames || s32Packets > s32Most)
    {
        return strPath + " holds " + std::to_string(s32Packets) + " video frames instead of " +
               std::to_string(stFile.s32Frames);
    }
    if (vecPackets.empty() || !vecPackets[0].bKey)
    {
        return strPath + " does not begin with a key frame";
    }
    const TEST_MEDIA_STREAM_S &stStream = stMedia.vecStreams[static_cast<size_t>(stMedia.VideoStream())];
    for (size_t i = 1; i < vecPackets.size(); ++i)
    {
        const int64_t s64Ms = (vecPackets[i].s64Pts - vecPackets[i - 1].s64Pts) * 1000 * stStream.s32TimeBaseNum /
                              stStream.s32TimeBaseDen;
        if (std::llabs(s64Ms - static_cast<int64_t>(PUMP_FRAME_MS)) > 1)
        {
            return strPath + " has a gap of " + std::to_string(s64Ms) + " ms before frame " + std::to_string(i);
        }
    }
    return "";
}

#include "block_judge.h"

#include <cerrno>
#include <cstring>
#include <iterator>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace libquarrin;

static constexpr size_t COPY_BYTES = 4096;
static constexpr uint32_t HELD_BACK = 3; // frames that FFmpeg holds back to bring two streams in order
static constexpr uint32_t TS_LOST_MOST = 3;
static constexpr int64_t FRAME_REAL_MS = 10; // from one picture to the next

void BLOCK_FIGURES_S::Add(const BLOCK_FIGURES_S &stOther)
{
    for (size_t i = 0; i < std::size(stLostMs); i++)
    {
        stLostMs[i].Add(stOther.stLostMs[i]);
    }
    stPassMs.Add(stOther.stPassMs);
    stLateMs.Add(stOther.stLateMs);
    s64Whole += stOther.s64Whole;
    s64Damaged += stOther.s64Damaged;
    s64Empty += stOther.s64Empty;
    s64Gone += stOther.s64Gone;
}

// In memory: the kernel flushes it at every mount.
static CARD_PARAM_S CardParam(const BLOCK_RUN &run)
{
    struct stat stStat = {};
    (void)stat(run.Base().c_str(), &stStat); // a missing base shows in the card
    CARD_PARAM_S stCard;
    stCard.strFrom = run.Base();
    stCard.bWhole = true;
    stCard.s64ThinBytes = stStat.st_size + (1 << 20);
    return stCard;
}

BLOCK_JUDGE::BLOCK_JUDGE(BLOCK_RUN &run) : m_run(run), m_card(CardParam(run))
{
    struct stat stStat = {};
    const int s32Image = open(m_card.Image().c_str(), O_RDWR | O_CLOEXEC);
    if (s32Image < 0 || fstat(s32Image, &stStat) != 0 || !m_card.In() || mkdir(m_card.MountDir().c_str(), 0700) != 0)
    {
        return;
    }
    m_vecState.resize(static_cast<size_t>(stStat.st_size));
    void *pImage = mmap(nullptr, m_vecState.size(), PROT_READ | PROT_WRITE, MAP_SHARED, s32Image, 0);
    m_pu8Image = pImage == MAP_FAILED ? nullptr : static_cast<uint8_t *>(pImage);
    close(s32Image);
}

BLOCK_JUDGE::~BLOCK_JUDGE()
{
    if (m_pu8Image != nullptr)
    {
        munmap(m_pu8Image, m_vecState.size());
    }
}

// What is the same already stays untouched, which is nearly all.
void BLOCK_JUDGE::PutIn()
{
    for (size_t u = 0; u < m_vecState.size(); u += COPY_BYTES)
    {
        if (memcmp(m_pu8Image + u, m_vecState.data() + u, COPY_BYTES) != 0)
        {
            memcpy(m_pu8Image + u, m_vecState.data() + u, COPY_BYTES);
        }
    }
}

// Behind the device's back: what the kernel still has of the state before must go.
bool BLOCK_JUDGE::Mount() const
{
    const int s32Device = open(m_card.Device().c_str(), O_RDONLY | O_CLOEXEC);
    const bool bFlushed = s32Device >= 0 && ioctl(s32Device, BLKFLSBUF, 0) == 0;
    close(s32Device);
    return bFlushed && mount(m_card.Device().c_str(), m_card.MountDir().c_str(), "ext4", MS_NOSUID | MS_NODEV, "") == 0;
}

std::vector<std::string> BLOCK_JUDGE::WhatIsWrong(const WRITE_LOG_CUT_S &stCut, BLOCK_FIGURES_S &stFigures)
{
    m_run.log.Build(stCut, m_vecState);
    PutIn();
    m_vecWrong.clear();
    m_pFigures = &stFigures;
    m_s64Logged = static_cast<int64_t>(stCut.uEntries);
    m_s64CutMs = stCut.uEntries < m_run.stParam.u64Last ? m_run.log.Ms(stCut.uEntries) : m_run.stParam.s64EndMs;
    m_stPasses = BLOCK_Passes(m_run.Notes(), m_run.stParam.u32Durable, m_s64Logged, m_s64CutMs);
    if (!Mount())
    {
        return {"the file system does not mount: " + std::string(strerror(errno))};
    }
    stFigures.stPassMs.Add(m_stPasses.s64LongestMs);
    stFigures.stLateMs.Add(m_stPasses.s64LateMs);
    LookAtFiles();
    // A program that another thread starts has a copy of this one's descriptors for a moment.
    if (!TEST_WaitFor([this] { return umount2(m_card.MountDir().c_str(), 0) == 0 || errno != EBUSY; }))
    {
        m_vecWrong.push_back("it cannot be unmounted: " + std::string(strerror(errno)));
    }
    const int32_t s32Check = IMAGE_Run({"e2fsck", "-f", "-n", m_card.Image()});
    if (s32Check != 0)
    {
        m_vecWrong.push_back("e2fsck finds faults behind the recovery: " + std::to_string(s32Check));
    }
    return m_vecWrong;
}

void BLOCK_JUDGE::LookAtFiles()
{
    if (!BLOCK_RUN::IsOldFileWhole(m_card.MountDir()))
    {
        m_vecWrong.push_back("the older file is not as it was");
    }
    std::vector<tagQN_FILE_INFO_S> vecInfos;
    QN_STORAGE_ScanFolder((m_card.MountDir() + "/rec").c_str(), vecInfos);
    std::vector<VERDICT_FILE_S> vecFiles;
    for (const tagQN_FILE_INFO_S &stInfo : vecInfos)
    {
        vecFiles.push_back(LookOnce(stInfo));
    }
    for (uint32_t i = 0; i < m_run.Notes().u32Files; i++)
    {
        LookAtFile(i, vecFiles);
    }
}

VERDICT_FILE_S BLOCK_JUDGE::LookOnce(const tagQN_FILE_INFO_S &stInfo)
{
    const std::string strBytes = TEST_ReadFile(stInfo.strPath);
    const std::string strKey = stInfo.strName + "/" + std::to_string(strBytes.size()) + "/" +
                               std::to_string(std::hash<std::string>()(strBytes));
    const auto it = m_mapSeen.find(strKey);
    return it != m_mapSeen.end() ? it->second : m_mapSeen[strKey] = VERDICT_LookAt(stInfo, m_run.Notes());
}

void BLOCK_JUDGE::LookAtFile(uint32_t u32File, const std::vector<VERDICT_FILE_S> &vecFiles)
{
    const BLOCK_DUE_S stDue = BLOCK_Due(m_run.Notes(), u32File, m_s64Logged);
    uint32_t u32Found = 0;
    for (const VERDICT_FILE_S &stFile : vecFiles)
    {
        if (stFile.bNoted && stFile.u32No == u32File)
        {
            u32Found++;
            Count(stFile);
            LookAtFound(stDue, stFile);
            LookAtBound(stDue, stFile);
        }
    }
    m_pFigures->s64Gone += u32Found == 0 && stDue.bThere ? 1 : 0;
    if (u32Found > 1 || (u32Found == 0 && stDue.bThere && !stDue.bMayGo))
    {
        m_vecWrong.push_back("file number " + std::to_string(u32File) + " is there " + std::to_string(u32Found) +
                             " times");
    }
}

void BLOCK_JUDGE::LookAtFound(const BLOCK_DUE_S &stDue, const VERDICT_FILE_S &stFile)
{
    const bool bEmpty = stFile.bFinal && stFile.s64Bytes == 0;
    m_pFigures->s64Empty += bEmpty ? 1 : 0;
    if (bEmpty && stDue.bThere)
    {
        Wrong(stFile, "a finished name over an empty file, which was not empty when it was synced");
    }
    if (stDue.bFinal && !stFile.bFinal)
    {
        Wrong(stFile, "lacks its final name, though the folder was synced behind the rename");
    }
    if (stDue.bWhole)
    {
        LookWhole(stFile, "was synced behind its end");
    }
    else
    {
        LookAtPictures(stDue.u32Video, stFile, "before the sync");
    }
}

// What --durable promises: its seconds, one pass, and what the container itself holds back.
void BLOCK_JUDGE::LookAtBound(const BLOCK_DUE_S &stDue, const VERDICT_FILE_S &stFile)
{
    const RECORDER_LOG_S &stLog = m_run.Notes();
    const int64_t s64Safe = m_s64CutMs - 1000 * int64_t{m_run.stParam.u32Durable} - m_stPasses.s64LongestMs -
                            m_stPasses.s64LateMs - 2 * FRAME_REAL_MS;
    if (stDue.s64FinalMs != 0 && stDue.s64FinalMs <= s64Safe)
    {
        LookWhole(stFile, "was finished longer ago than the bound");
        if (!stFile.bFinal)
        {
            Wrong(stFile, "got its final name longer ago than the bound");
        }
        return;
    }
    const uint32_t u32First = stLog.astFiles[stFile.u32No].u32First;
    uint32_t u32Due = 0;
    while (u32Due < stFile.u32GivenVideo && stLog.as64VideoMs[u32First + u32Due] <= s64Safe)
    {
        u32Due++;
    }
    LookAtPictures(u32Due, stFile, "longer ago than the bound");
}

void BLOCK_JUDGE::LookAtPictures(uint32_t u32Due, const VERDICT_FILE_S &stFile, const char *pszWhy)
{
    const uint32_t u32Held = m_run.stParam.bAudio ? HELD_BACK : 0;
    const bool bMatroska = m_run.stParam.enFormat == QN_FILE_FMT_E_MKV;
    const bool bStream = m_run.stParam.enFormat == QN_FILE_FMT_E_TS;
    const uint32_t u32Kept = bMatroska ? RECORDER_GOP + u32Held : TS_LOST_MOST;
    if ((bMatroska || bStream) && stFile.u32SameVideo + u32Kept < u32Due) // others cannot be read before their trailer
    {
        Wrong(stFile, std::to_string(u32Due) + " pictures were handed in " + pszWhy);
    }
}

void BLOCK_JUDGE::LookWhole(const VERDICT_FILE_S &stFile, const char *pszWhy)
{
    const bool bVideo = stFile.u32SameVideo == stFile.u32GivenVideo && stFile.u32FoundVideo == stFile.u32GivenVideo;
    const bool bAudio = stFile.u32SameAudio == stFile.u32GivenAudio && stFile.u32FoundAudio == stFile.u32GivenAudio;
    if (!bVideo || !bAudio)
    {
        Wrong(stFile, std::string("is not whole, though it ") + pszWhy);
    }
}

void BLOCK_JUDGE::Count(const VERDICT_FILE_S &stFile)
{
    const uint32_t u32First = m_run.Notes().astFiles[stFile.u32No].u32First;
    const bool bWhole =
        stFile.LostVideo() == 0 && stFile.LostAudio() == 0 && stFile.u32SameVideo == stFile.u32FoundVideo;
    if (stFile.bFinal)
    {
        m_pFigures->s64Whole += bWhole ? 1 : 0;
        m_pFigures->s64Damaged += bWhole ? 0 : 1;
        return;
    }
    uint32_t u32Given = 0; // those that the cut came too early for are not lost
    while (u32Given < stFile.u32GivenVideo && m_run.Notes().as64VideoMs[u32First + u32Given] <= m_s64CutMs)
    {
        u32Given++;
    }
    const bool bLost = stFile.u32SameVideo < u32Given;
    m_pFigures->stLostMs[m_run.stParam.enFormat].Add(
        bLost ? m_s64CutMs - m_run.Notes().as64VideoMs[u32First + stFile.u32SameVideo] : 0);
}

void BLOCK_JUDGE::Wrong(const VERDICT_FILE_S &stFile, const std::string &strWhat)
{
    const std::string strName = stFile.strPath.substr(stFile.strPath.rfind('/') + 1);
    m_vecWrong.push_back(strName + " " + strWhat + ": " + std::to_string(stFile.s64Bytes) + " bytes, " +
                         std::to_string(stFile.u32FoundVideo) + " pictures (" + std::to_string(stFile.u32SameVideo) +
                         " as handed in) of " + std::to_string(stFile.u32GivenVideo) + ", " +
                         std::to_string(stFile.u32FoundAudio) + " audio frames (" +
                         std::to_string(stFile.u32SameAudio) + ") of " + std::to_string(stFile.u32GivenAudio));
}

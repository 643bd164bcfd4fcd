#include "block_run.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/scratch.h"
#include "virtual_clock.h"

static constexpr int64_t CARD_BYTES = 48 * 1024 * 1024;
static constexpr const char *OLD_NAME = "/kept/2020-01-01-00-00-00.To.2020-01-01-00-01-00.mkv";
static constexpr uint32_t FRAMES = 550;
static constexpr uint32_t PAUSE_US = 8000; // five seconds in all, so that --durable 1 has several passes
static constexpr int64_t WRITE_BACK_MS = 150;

static std::string OldBytes()
{
    std::string strBytes(200000, '\0');
    for (size_t u = 0; u < strBytes.size(); u++)
    {
        strBytes[u] = static_cast<char>(u * 11 / 7);
    }
    return strBytes;
}

BLOCK_RUN::BLOCK_RUN(const BLOCK_RUN_PARAM_S &stParamIn)
    : stParam(stParamIn), m_strFrom(m_dir.strPath), m_strBase(m_strFrom + "/base"),
      m_random(stParamIn.u32Seed + stParamIn.u32Run)
{
    m_stRecorder.enFormat = stParam.enFormat;
    m_stRecorder.bAudio = stParam.bAudio;
    m_stRecorder.u32Durable = stParam.u32Durable;
    m_stRecorder.u32QuotaBytes = stParam.u32QuotaBytes;
    m_stRecorder.u32SplitSeconds = 5;
    m_stRecorder.u32PauseUs = PAUSE_US;
    m_stRecorder.u32Frames = FRAMES;
}

BLOCK_RUN::BLOCK_RUN(const std::string &strDir) : m_strFrom(strDir), m_strBase(strDir + "/base")
{
}

BLOCK_RUN::~BLOCK_RUN()
{
    m_upRecorder.reset(); // its open files would keep the card
}

static bool MakeBase(const std::string &strBase, uint32_t u32BlockBytes)
{
    return IMAGE_Make(strBase, CARD_BYTES, CARD_CONTENT_BLANK) &&
           IMAGE_Run({"mkfs.ext4", "-q", "-F", "-b", std::to_string(u32BlockBytes), strBase}) == 0;
}

static bool PutOldFile(const std::string &strMount)
{
    const bool bMade = mkdir((strMount + "/rec").c_str(), 0700) == 0 && mkdir((strMount + "/kept").c_str(), 0700) == 0;
    TEST_Touch(strMount + OLD_NAME, OldBytes());
    const int s32Root = open(strMount.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool bSynced = s32Root >= 0 && syncfs(s32Root) == 0;
    close(s32Root);
    return bMade && bSynced;
}

bool BLOCK_RUN::Begin()
{
    if (!MakeBase(m_strBase, stParam.u32BlockBytes))
    {
        return false;
    }
    CARD_PARAM_S stCard;
    stCard.strFrom = m_strBase;
    stCard.bServed = true;
    stCard.bWhole = true;
    stCard.strLog = m_strFrom + "/log";
    m_upCard = std::make_unique<CARD>(stCard);
    const std::string &strMount = m_upCard->MountDir();
    if (!m_upCard->In() || mkdir(strMount.c_str(), 0700) != 0 ||
        mount(m_upCard->Device().c_str(), strMount.c_str(), "ext4", MS_NOSUID | MS_NODEV, "") != 0 ||
        !PutOldFile(strMount))
    {
        return false;
    }
    const std::atomic<int64_t> &s64Logged = m_upCard->Server()->Control().s64Logged;
    stParam.u64First = static_cast<uint64_t>(s64Logged.load());
    m_stRecorder.strMount = strMount;
    m_stRecorder.pLogged = &s64Logged;
    m_upRecorder = std::make_unique<RECORDER>(m_stRecorder);
    m_pNotes = &m_upRecorder->Log();
    return true;
}

// As the kernel does after a while, at a moment of its own: data alone, without names, sizes or a flush.
void BLOCK_RUN::WriteBackSomething()
{
    const std::string strFolder = m_upCard->MountDir() + "/rec/";
    const std::vector<std::string> vecNames = TEST_List(strFolder);
    if (vecNames.empty())
    {
        return;
    }
    const int s32File = open((strFolder + vecNames[m_random() % vecNames.size()]).c_str(), O_RDONLY | O_CLOEXEC);
    if (s32File >= 0) // its name may have changed meanwhile
    {
        (void)sync_file_range(s32File, 0, 0, SYNC_FILE_RANGE_WRITE); // an attempt
        close(s32File);
    }
}

bool BLOCK_RUN::Poll()
{
    if (m_upRecorder->HasEnded())
    {
        return true;
    }
    if (CLOCK_RealMs() >= m_s64NextMs)
    {
        m_s64NextMs = CLOCK_RealMs() + static_cast<int64_t>(m_random() % (2 * WRITE_BACK_MS));
        WriteBackSomething();
    }
    return false;
}

static bool WriteNotes(const std::string &strPath, const BLOCK_RUN_PARAM_S &stParam, const RECORDER_LOG_S &stLog)
{
    const int s32File = open(strPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const bool bDone = write(s32File, &stParam, sizeof(stParam)) == static_cast<ssize_t>(sizeof(stParam)) &&
                       write(s32File, &stLog, sizeof(stLog)) == static_cast<ssize_t>(sizeof(stLog));
    close(s32File);
    return bDone;
}

bool BLOCK_RUN::End()
{
    stParam.u64Last = static_cast<uint64_t>(m_upCard->Server()->Control().s64Logged.load());
    stParam.s64EndMs = CLOCK_RealMs();
    m_upCard.reset();
    return !Notes().bFailed && Notes().u32Calls <= RECORDER_CALLS &&
           WriteNotes(m_strFrom + "/notes", stParam, Notes()) && log.Load(m_strFrom + "/log", m_strBase);
}

bool BLOCK_RUN::Load()
{
    m_upLoaded = std::make_unique<RECORDER_LOG_S>();
    m_pNotes = m_upLoaded.get();
    const int s32File = open((m_strFrom + "/notes").c_str(), O_RDONLY | O_CLOEXEC);
    const bool bDone =
        read(s32File, &stParam, sizeof(stParam)) == static_cast<ssize_t>(sizeof(stParam)) &&
        read(s32File, m_upLoaded.get(), sizeof(RECORDER_LOG_S)) == static_cast<ssize_t>(sizeof(RECORDER_LOG_S));
    close(s32File);
    return bDone && log.Load(m_strFrom + "/log", m_strBase);
}

std::string BLOCK_RUN::Keep() const
{
    if (m_upLoaded != nullptr)
    {
        return m_strFrom;
    }
    const std::string strDir = TEST_MakeScratch("cut");
    if (strDir.empty() ||
        IMAGE_Run({"cp", "--sparse=always", m_strBase, m_strFrom + "/log", m_strFrom + "/notes", strDir}) != 0)
    {
        return "(could not be kept)";
    }
    return strDir;
}

bool BLOCK_RUN::IsOldFileWhole(const std::string &strMount)
{
    return TEST_ReadFile(strMount + OLD_NAME) == OldBytes();
}

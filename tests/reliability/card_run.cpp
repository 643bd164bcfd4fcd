#include "card_run.h"

#include <algorithm>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/card.h"
#include "virtual_clock.h"

static constexpr int64_t CARD_BYTES = 48 * 1024 * 1024;
static constexpr const char *OLD_NAME = "/rec/2020-01-01-00-00-00.To.2020-01-01-00-01-00.mkv";

static CARD_PARAM_S CardParam()
{
    CARD_PARAM_S stCard;
    stCard.s64Bytes = CARD_BYTES;
    stCard.enContent = CARD_CONTENT_NO_TABLE_EXT4;
    return stCard;
}

static std::string OldBytes()
{
    std::string strBytes(200000, '\0');
    for (size_t u = 0; u < strBytes.size(); u++)
    {
        strBytes[u] = static_cast<char>(u * 7 / 5);
    }
    return strBytes;
}

CARD_RUN::CARD_RUN(const CARD_RUN_PARAM_S &stParamIn) : stParam(stParamIn), m_card(CardParam())
{
    m_stRecorder.strMount = m_card.MountDir();
    m_stRecorder.enFormat = stParam.enFormat;
    m_stRecorder.bAudio = stParam.bAudio;
    m_stRecorder.u32Durable = stParam.u32Durable;
    m_stRecorder.u32SplitSeconds = 10; // five real seconds, which is the tool's shortest
    m_stRecorder.u32PauseUs = 20000;
}

CARD_RUN::~CARD_RUN()
{
    m_upRecorder.reset(); // its open files would keep the card
}

bool CARD_RUN::Mount() const
{
    return mount(m_card.Device().c_str(), m_card.MountDir().c_str(), "ext4", MS_NOSUID | MS_NODEV, "") == 0;
}

bool CARD_RUN::Begin()
{
    if (!m_card.In() || mkdir(m_card.MountDir().c_str(), 0700) != 0 || !Mount() ||
        mkdir((m_card.MountDir() + "/rec").c_str(), 0700) != 0)
    {
        return false;
    }
    TEST_Touch(m_card.MountDir() + OLD_NAME, OldBytes());
    const int s32Root = open(m_card.MountDir().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool bSynced = s32Root >= 0 && syncfs(s32Root) == 0;
    close(s32Root);
    m_upRecorder = std::make_unique<RECORDER>(m_stRecorder);
    m_s64BeginMs = CLOCK_RealMs();
    return bSynced;
}

bool CARD_RUN::Poll()
{
    if (m_s64CutMs == 0 && CLOCK_RealMs() - m_s64BeginMs >= stParam.s64CutAfterMs)
    {
        m_s64CutMs = CLOCK_RealMs();
        EXPECT_TRUE(m_card.CutPower());
        m_upRecorder->Kill(); // its notes stay
    }
    return m_s64CutMs != 0;
}

bool CARD_RUN::MountAgain()
{
    m_card.Unmount();
    return Mount();
}

bool CARD_RUN::IsOldFileWhole() const
{
    return TEST_ReadFile(m_card.MountDir() + OLD_NAME) == OldBytes();
}

std::vector<VERDICT_FILE_S> CARD_RUN::Look() const
{
    std::vector<VERDICT_FILE_S> vecFiles = VERDICT_Look(m_card.MountDir() + "/rec", Log());
    vecFiles.erase(std::remove_if(vecFiles.begin(), vecFiles.end(),
                                  [this](const VERDICT_FILE_S &stFile)
                                  { return stFile.strPath == m_card.MountDir() + OLD_NAME; }),
                   vecFiles.end());
    return vecFiles;
}

uint32_t CARD_RUN::GivenBefore(const VERDICT_FILE_S &stFile, int64_t s64Ms) const
{
    const uint32_t u32First = Log().astFiles[stFile.u32No].u32First;
    uint32_t u32Count = 0;
    while (u32Count < stFile.u32GivenVideo && Log().as64VideoMs[u32First + u32Count] <= m_s64CutMs - s64Ms)
    {
        u32Count++;
    }
    return u32Count;
}

int64_t CARD_RUN::AgeOf(const VERDICT_FILE_S &stFile, uint32_t u32Picture) const
{
    return m_s64CutMs - Log().as64VideoMs[Log().astFiles[stFile.u32No].u32First + u32Picture];
}

int64_t CARD_RUN::SplitBefore(const VERDICT_FILE_S &stFile) const
{
    const int64_t s64SplitMs = stFile.bNoted ? Log().astFiles[stFile.u32No].s64SplitMs.load() : 0;
    return s64SplitMs == 0 ? -1 : m_s64CutMs - s64SplitMs;
}

int64_t CARD_RUN::LongestPassMs() const
{
    const int64_t s64Begin = Log().s64PassBeginMs;
    return std::max(Log().s64LongestPassMs.load(), s64Begin == 0 ? 0 : m_s64CutMs - s64Begin);
}

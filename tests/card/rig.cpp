#include "rig.h"

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>

#include "quarrin_platform.h"
#include "support/card.h"

using namespace libquarrin;

/// What the test program knows of its cards and calls.
struct RIG_STATE_S
{
    std::mutex mutex;
    std::map<const CARD_RIG *, std::vector<std::string>> mapLines; ///< the lines that each card allows
    std::vector<std::string> vecRefused;
    std::map<std::string, int64_t> mapLongestMs;
};

static RIG_STATE_S &Program()
{
    static RIG_STATE_S *s_pState = new RIG_STATE_S(); // outlives every thread
    return *s_pState;
}

// Every line that the library may run for this card, to the letter.
static std::vector<std::string> LinesOf(const CARD_RIG &rig)
{
    // A card under a USB disk's names: its partition is called as the kernel calls it.
    const std::string &strDevice = rig.stParam.strDevice;
    const std::string strPartition = strDevice == rig.card.Device() ? rig.card.Partition() : strDevice + "1";
    const std::string &strMount = rig.card.MountDir();
    std::vector<std::string> vecLines = {
        "echo -e \"o\\nn\\np\\n1\\n\\n\\nw\" | fdisk " + strDevice + " > /dev/console",
        "mkfs.ext4 -F " + strPartition,
        "mkfs.vfat " + strPartition,
        "mkdir -p " + strMount + "; mount " + strPartition + " " + strMount,
        "umount " + strMount + "; rm -rf " + strMount,
    };
    for (const tagQN_VOLUME_PARAM_S &stVolume : rig.stParam.astVolume)
    {
        vecLines.push_back("mkdir -p " + strMount + "/" + stVolume.pszFolder);
    }
    return vecLines;
}

static int32_t RunChecked(const std::string &strLine)
{
    {
        const std::lock_guard<std::mutex> lock(Program().mutex);
        bool bAllowed = false;
        for (const auto &entry : Program().mapLines)
        {
            bAllowed = bAllowed || std::find(entry.second.begin(), entry.second.end(), strLine) != entry.second.end();
        }
        if (!bAllowed)
        {
            Program().vecRefused.push_back(strLine);
            return 1;
        }
    }
    return QN_PLATFORM_RunCommand(strLine.c_str());
}

void CARD_REAL::SetUp()
{
    const std::string strWhyNot = CARD::WhyNot();
    if (!strWhyNot.empty())
    {
        GTEST_SKIP() << strWhyNot;
    }
    FAKE_PLATFORM_Reset();
    FAKE_PLATFORM_OnCommand(RunChecked);
    QN_PLATFORM_SetLogLevel(0);
    RIG_ResetTimes();
    m_upOut = std::make_unique<STDOUT_CAPTURE>();
}

void CARD_REAL::TearDown()
{
    m_upOut.reset();
    const std::lock_guard<std::mutex> lock(Program().mutex);
    for (const std::string &strLine : Program().vecRefused)
    {
        ADD_FAILURE() << "refused, since it names something else than the test's card: " << strLine;
    }
    Program().vecRefused.clear();
}

CARD_RIG::CARD_RIG(const CARD_PARAM_S &stCard) : card(stCard)
{
    EXPECT_TRUE(card.IsReady()) << "no card could be made";
    stParam.strDevice = card.Device();
    stParam.s32PartitionNo = 1;
    stParam.pszMountPoint = card.MountDir();
    const char *const apszFolders[QN_VOLUME_COUNT] = {"rec", "photo", "event"};
    for (int32_t i = 0; i < QN_VOLUME_COUNT; ++i)
    {
        stParam.astVolume[i].bEnable = 1;
        stParam.astVolume[i].pszFolder = apszFolders[i];
        stParam.astVolume[i].u32QuotaType = 1;
        stParam.astVolume[i].u32QuotaPercent = 95;
        stParam.astVolume[i].bAutoDelete = true;
    }
}

CARD_RIG::~CARD_RIG()
{
    Destroy();
    const std::lock_guard<std::mutex> lock(Program().mutex);
    Program().mapLines.erase(this);
}

void CARD_RIG::Init()
{
    {
        const std::lock_guard<std::mutex> lock(Program().mutex);
        Program().mapLines[this] = LinesOf(*this);
    }
    ASSERT_EQ(0u, QN_Init(&stParam, pHandle));
}

void CARD_RIG::Destroy()
{
    if (pHandle != nullptr)
    {
        RIG_Timed("QN_Destroy", [this] { EXPECT_EQ(0u, QN_Destroy(pHandle)); });
    }
}

bool CARD_RIG::InMounted()
{
    return card.In() && WaitFor(QN_STATE_E_MOUNTED) &&
           TEST_WaitFor([this] { return TEST_Exists(card.MountDir() + "/event"); }, RIG_WAIT_MS); // made last
}

QN_STATE_E CARD_RIG::State() const
{
    return pHandle->enState.load();
}

bool CARD_RIG::WaitFor(QN_STATE_E enState, int32_t s32Ms) const
{
    return TEST_WaitFor([this, enState] { return State() == enState; }, s32Ms);
}

bool CARD_RIG::WaitListening() const
{
    // The word is the monitor's; a test's look at it is no synchronisation, and needs none.
    return TEST_WaitFor([this] { return __atomic_load_n(&pHandle->s32NetlinkFd, __ATOMIC_SEQ_CST) >= 0; }, RIG_WAIT_MS);
}

// Events are handled in order: once the second of two that do nothing is taken, all before them are done.
static bool WaitForEvents(tagQN_HANDLER_S *pHandle)
{
    constexpr QN_EVENT_E NOTHING = static_cast<QN_EVENT_E>(5);
    QN_EVENT_PushEvent(pHandle, NOTHING, nullptr);
    QN_EVENT_PushEvent(pHandle, NOTHING, nullptr);
    return TEST_WaitFor(
        [pHandle]
        {
            pthread_mutex_lock(&pHandle->mutexEvent);
            const bool bEmpty = pHandle->u32EventCount == 0;
            pthread_mutex_unlock(&pHandle->mutexEvent);
            return bEmpty;
        },
        RIG_WAIT_MS);
}

bool CARD_RIG::WaitIdle() const
{
    // A handler sets the state before it posts that the mount is done: that event may stand behind the first two. The
    // second round stands behind it, and the folders are there at its end.
    return WaitForEvents(pHandle) && WaitForEvents(pHandle);
}

std::string CARD_RIG::Folder() const
{
    return card.MountDir() + "/" + stParam.astVolume[0].pszFolder;
}

std::vector<std::string> CARD_RIG::Finished() const
{
    std::vector<std::string> vecPaths;
    for (const std::string &strName : TEST_List(Folder()))
    {
        if (strName.find(".To.") != std::string::npos && strName.find(".To.unknown") == std::string::npos)
        {
            vecPaths.push_back(Folder() + "/" + strName);
        }
    }
    return vecPaths;
}

int32_t CARD_RIG::Mounts() const
{
    std::ifstream table("/proc/self/mounts");
    std::string strLine;
    int32_t s32Count = 0;
    while (std::getline(table, strLine))
    {
        s32Count += strLine.find(" " + card.MountDir() + " ") != std::string::npos ? 1 : 0;
    }
    return s32Count;
}

void RIG_Timed(const char *pszName, const std::function<void()> &fnCall)
{
    const auto begin = std::chrono::steady_clock::now();
    fnCall();
    const auto end = std::chrono::steady_clock::now();
    const int64_t s64Ms = std::chrono::duration_cast<std::chrono::milliseconds>(end - begin).count();
    const std::lock_guard<std::mutex> lock(Program().mutex);
    int64_t &s64Longest = Program().mapLongestMs[pszName];
    s64Longest = std::max(s64Longest, s64Ms);
}

std::string RIG_TimesText()
{
    const std::lock_guard<std::mutex> lock(Program().mutex);
    std::string strText;
    for (const auto &entry : Program().mapLongestMs)
    {
        strText += (strText.empty() ? "" : ", ") + entry.first + " " + std::to_string(entry.second) + " ms";
    }
    return strText;
}

int64_t RIG_LongestMs()
{
    const std::lock_guard<std::mutex> lock(Program().mutex);
    int64_t s64Longest = 0;
    for (const auto &entry : Program().mapLongestMs)
    {
        s64Longest = std::max(s64Longest, entry.second);
    }
    return s64Longest;
}

void RIG_ResetTimes()
{
    const std::lock_guard<std::mutex> lock(Program().mutex);
    Program().mapLongestMs.clear();
}

int32_t RIG_Number(const char *pszName, int32_t s32Default)
{
    const char *pszValue = getenv(pszName);
    return pszValue == nullptr ? s32Default : static_cast<int32_t>(strtol(pszValue, nullptr, 10));
}

void RIG_Say(const char *pszFormat, ...)
{
    va_list args;
    va_start(args, pszFormat);
    fputs("[  figures ] ", stderr);
    vfprintf(stderr, pszFormat, args);
    fputs("\n", stderr);
    va_end(args);
}

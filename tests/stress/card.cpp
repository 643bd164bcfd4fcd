#include "card.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "bu_platform.h"
#include "chance.h"
#include "slots.h"
#include "support/process.h"
#include "support/scratch.h"
#include "support/wait.h"
#include "util/pause.h"
#include "watch.h"

using namespace libquarrin;
namespace fs = std::filesystem;

static constexpr int32_t COMMAND_DELAY_MS = 300;
static constexpr int64_t PULL_WAITS_US = 1500000; // less than the library's two seconds

static std::vector<STRESS_CARD *> g_vecCards; // constant while handles exist

static void Touch(const std::string &strPath)
{
    std::ofstream(strPath, std::ios::binary | std::ios::app);
}

static bool Exists(const std::string &strPath)
{
    return access(strPath.c_str(), F_OK) == 0;
}

static void RemoveAll(const std::string &strPath)
{
    std::error_code error;
    fs::remove_all(strPath, error); // of this run's own folders alone
}

// The path behind a word of a line.
static bool StartsWith(const std::string &strLine, const std::string &strBegin)
{
    return strLine.rfind(strBegin, 0) == 0;
}

STRESS_CARD::STRESS_CARD(int32_t s32TheNumber) : s32Number(s32TheNumber)
{
    m_strDir = TEST_MakeScratch("stress");
    if (m_strDir.empty())
    {
        throw std::runtime_error("no folder can be made for a card");
    }
    m_strStore = m_strDir + "/card";
    strMount = m_strDir + "/mnt";
    fs::create_directory(m_strDir + "/dev");
    fs::create_directory(m_strStore);
    strDevice = m_strDir + "/dev/c" + std::to_string(s32Number);
    strPartition = strDevice + "p1";
}

STRESS_CARD::~STRESS_CARD()
{
    (void)TEST_RemoveScratch(m_strDir); // what stays is of no harm
}

void STRESS_CARD::In()
{
    Touch(strDevice);
    CHANCE_Delay(5);
    Touch(strPartition);
    WATCH_Log("%s is in", strDevice.c_str());
}

void STRESS_CARD::Out()
{
    WATCH_Log("%s goes", strDevice.c_str());
    unlink(strPartition.c_str());
    CHANCE_Delay(5);
    unlink(strDevice.c_str());
}

bool STRESS_CARD::IsIn() const
{
    return Exists(strPartition);
}

bool STRESS_CARD::IsMounted()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_bMounted;
}

void STRESS_CARD::CleanUp()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_bMounted && rename(strMount.c_str(), m_strStore.c_str()) != 0)
    {
        WATCH_Violation("the card cannot be taken from %s", strMount.c_str());
    }
    m_bMounted = false;
    CheckNothingBelow("before the next handle");
    RemoveAll(strMount);
}

bool STRESS_CARD::IsMine(const std::string &strLine) const
{
    return strLine.find(m_strDir + "/") != std::string::npos;
}

// Whatever lies below the mount directory while no card is mounted lies on the device's own flash.
void STRESS_CARD::CheckNothingBelow(const char *pszWhen) const
{
    std::error_code error;
    for (const fs::directory_entry &entry : fs::recursive_directory_iterator(strMount, error))
    {
        if (entry.is_regular_file(error))
        {
            WATCH_Violation("%s: %s was written while no card was mounted", pszWhen, entry.path().c_str());
        }
    }
}

// The paths of the files that the sessions of a handle have open at a pull: all are marked by then. Locks: the lists',
// as a pull takes them.
static std::vector<std::string> SessionFiles(tagQN_HANDLER_S *pHandle)
{
    std::vector<std::string> vecPaths;
    pthread_mutex_lock(&pHandle->mutexRecordList);
    for (tagQN_RECORD_HANDLER_S *pSession : pHandle->lstRecord)
    {
        pthread_mutex_lock(&pSession->stMutex); // a stop that has begun ends first: its file is closed then
        if (pSession->pWriter != nullptr && pSession->enRecordState.load() == QN_RECORD_STATE_STOPPING)
        {
            vecPaths.push_back(SLOTS_PathOf(pSession->pWriter));
        }
        pthread_mutex_unlock(&pSession->stMutex);
    }
    pthread_mutex_unlock(&pHandle->mutexRecordList);
    return vecPaths;
}

// The unmount line is issued with nothing open below the mount point, but for the writers of sessions at a pull.
void STRESS_CARD::CheckDescriptors() const
{
    const std::vector<std::string> vecBefore = PROCESS_DescriptorsBelow(strMount);
    if (vecBefore.empty())
    {
        return;
    }
    char szName[16] = {};
    prctl(PR_GET_NAME, szName);
    std::vector<std::string> vecAllowed;
    if (strstr(szName, ":event") != nullptr)
    {
        vecAllowed = SessionFiles(pHandle);
    }
    const std::vector<std::string> vecAfter = PROCESS_DescriptorsBelow(strMount);
    for (const std::string &strPath : vecBefore)
    {
        const std::string strFile = strPath.substr(0, strPath.find(" (deleted)"));
        if (std::find(vecAfter.begin(), vecAfter.end(), strPath) != vecAfter.end() &&
            std::find(vecAllowed.begin(), vecAllowed.end(), strFile) == vecAllowed.end())
        {
            WATCH_Violation("open at an unmount line of thread %s: %s", szName, strPath.c_str());
        }
    }
}

// Nor do commands of the library run there, but for one that takes longer than a pull waits.
void STRESS_CARD::CheckCommands() const
{
    if (m_s32Below > 0 && UTIL_NowUs() - m_s64BelowSinceUs < PULL_WAITS_US)
    {
        WATCH_Violation("a command runs on the card at its unmount line");
    }
}

int32_t STRESS_CARD::Mount()
{
    const bool bFails = CHANCE_In100(10);
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_bMounted)
    {
        return 0; // as a runner that looks into the mount table
    }
    CheckNothingBelow("at a mount");
    RemoveAll(strMount); // a real mount would cover what lies there
    if (bFails || !IsIn() || rename(m_strStore.c_str(), strMount.c_str()) != 0)
    {
        mkdir(strMount.c_str(), 0755);
        return 32;
    }
    m_bMounted = true;
    WATCH_Count(WATCH_E_MOUNTS);
    return 0;
}

int32_t STRESS_CARD::Unmount()
{
    CheckDescriptors();
    CheckCommands();
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_bMounted && rename(strMount.c_str(), m_strStore.c_str()) != 0)
    {
        WATCH_Violation("the card cannot be taken from %s", strMount.c_str());
    }
    if (m_bMounted && !IsIn())
    {
        WATCH_Count(WATCH_E_PULLS);
    }
    m_bMounted = false;
    CheckNothingBelow("at an unmount");
    RemoveAll(strMount);
    return CHANCE_In100(5) ? 1 : 0;
}

int32_t STRESS_CARD::MakeFileSystem()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_bMounted || !IsIn() || CHANCE_In100(20))
    {
        return 1;
    }
    RemoveAll(m_strStore);
    mkdir(m_strStore.c_str(), 0755);
    WATCH_Count(WATCH_E_FORMATS);
    return 0;
}

// mv "FROM" "TO"
int32_t STRESS_CARD::Move(const std::string &strLine) const
{
    std::vector<std::string> vecNames;
    for (size_t at = strLine.find('"'); at != std::string::npos; at = strLine.find('"', at + 1))
    {
        const size_t end = strLine.find('"', at + 1);
        vecNames.push_back(strLine.substr(at + 1, end - at - 1));
        at = end;
    }
    if (vecNames.size() != 2 || rename(vecNames[0].c_str(), vecNames[1].c_str()) != 0)
    {
        return 1;
    }
    WATCH_Count(WATCH_E_MOVES);
    return 0;
}

// What makes a folder or moves a file on the card.
int32_t STRESS_CARD::RunBelow(const std::string &strLine)
{
    if (StartsWith(strLine, "mv "))
    {
        return Move(strLine);
    }
    std::error_code error;
    fs::create_directories(strLine.substr(strlen("mkdir -p ")), error);
    return error ? 1 : 0;
}

int32_t STRESS_CARD::RunKnown(const std::string &strLine)
{
    if (strLine == "mkdir -p " + strMount + "; mount " + strPartition + " " + strMount)
    {
        return Mount();
    }
    if (strLine == "umount " + strMount + "; rm -rf " + strMount)
    {
        return Unmount();
    }
    if (StartsWith(strLine, "echo -e ") && strLine.find("| fdisk " + strDevice + " >") != std::string::npos)
    {
        return IsIn() && !CHANCE_In100(10) ? 0 : 1;
    }
    if (strLine == "mkfs.ext4 -F " + strPartition || strLine == "mkfs.vfat " + strPartition)
    {
        return MakeFileSystem();
    }
    WATCH_Violation("a line that nobody knows: %s", strLine.c_str());
    return 1;
}

int32_t STRESS_CARD::Run(const std::string &strLine)
{
    const WATCHED watched("a command");
    const bool bBelow =
        StartsWith(strLine, "mkdir -p " + strMount + "/") || StartsWith(strLine, "mv \"" + strMount + "/");
    m_s32Running += 1;
    if (bBelow)
    {
        m_s64BelowSinceUs = UTIL_NowUs();
        m_s32Below += 1;
    }
    CHANCE_Delay(COMMAND_DELAY_MS);
    if (CHANCE_In100(15))
    {
        TEST_SleepMs(static_cast<int32_t>(CHANCE_Below(80))); // as commands take in truth
    }
    const int32_t s32Result = bBelow ? RunBelow(strLine) : RunKnown(strLine);
    WATCH_Log("%d from %s", s32Result, strLine.c_str());
    CHANCE_Delay(COMMAND_DELAY_MS);
    m_s32Below -= bBelow ? 1 : 0;
    m_s32Running -= 1;
    return s32Result;
}

void STRESS_CARD_Known(const std::vector<STRESS_CARD *> &vecCards)
{
    g_vecCards = vecCards;
}

extern "C" int BU_RunCmd(const char *pszLine)
{
    for (STRESS_CARD *pCard : g_vecCards)
    {
        if (pCard->IsMine(pszLine))
        {
            return pCard->Run(pszLine);
        }
    }
    WATCH_Violation("a line of no card: %s", pszLine);
    return 1;
}

extern "C" int UTIL_LOG_Print(int, const char *pszPrefix, const char *pszFormat, ...)
{
    char acText[400];
    va_list args;
    va_start(args, pszFormat);
    vsnprintf(acText, sizeof(acText), pszFormat, args);
    va_end(args);
    WATCH_Log("%s%s", pszPrefix, acText);
    return 0;
}

extern "C" int BSP_PrintLog(int, const char *pszFormat, ...)
{
    char acText[400];
    va_list args;
    va_start(args, pszFormat);
    vsnprintf(acText, sizeof(acText), pszFormat, args);
    va_end(args);
    WATCH_Log("%s", acText);
    return 0;
}

#include "support/card.h"

#include <algorithm>
#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <iterator>
#include <sys/stat.h>
#include <unistd.h>

#include "support/scratch.h"

using namespace libquarrin;

TEMP_DIR::TEMP_DIR()
{
    strPath = TEST_MakeScratch("test");
    EXPECT_NE("", strPath) << "no folder could be made";
}

TEMP_DIR::~TEMP_DIR()
{
    (void)TEST_RemoveScratch(strPath); // what somebody still has mounted stays
}

std::string TEST_Touch(const std::string &strPath, const std::string &strBytes)
{
    std::ofstream(strPath, std::ios::binary) << strBytes;
    return strPath;
}

std::string TEST_ReadFile(const std::string &strPath)
{
    std::ifstream file(strPath, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

bool TEST_Exists(const std::string &strPath)
{
    return access(strPath.c_str(), F_OK) == 0;
}

std::vector<std::string> TEST_List(const std::string &strFolder)
{
    std::vector<std::string> vecNames;
    DIR *pDir = opendir(strFolder.c_str());
    if (pDir != nullptr)
    {
        while (const dirent *pEntry = readdir(pDir))
        {
            const std::string strName = pEntry->d_name;
            if (strName != "." && strName != "..")
            {
                vecNames.push_back(strName);
            }
        }
        closedir(pDir);
    }
    std::sort(vecNames.begin(), vecNames.end());
    return vecNames;
}

void CARD_TEST::SetUp()
{
    FAKE_PLATFORM_Reset();
    const std::string strDev = m_dir.strPath + "/dev";
    mkdir(strDev.c_str(), 0755);
    // A name of this process's own, so that the machine's uevents cannot name it.
    m_strDevice = TEST_Touch(strDev + "/qncard" + std::to_string(getpid()));
    m_strPartition = TEST_Touch(m_strDevice + "p1");
    m_strMount = m_dir.strPath + "/mnt";
    m_stParam.strDevice = m_strDevice;
    m_stParam.s32PartitionNo = 1;
    m_stParam.pszMountPoint = m_strMount;
    const char *apszFolders[QN_VOLUME_COUNT] = {"rec", "photo", "event"};
    for (int32_t i = 0; i < QN_VOLUME_COUNT; ++i)
    {
        m_stParam.astVolume[i].bEnable = 1;
        m_stParam.astVolume[i].pszFolder = apszFolders[i];
        m_stParam.astVolume[i].u32QuotaBytes = 0xffffffffu;
        m_stParam.astVolume[i].bAutoDelete = true;
    }
}

void CARD_TEST::TearDown()
{
    FAKE_PLATFORM_Release();
    if (m_pHandle != nullptr)
    {
        QN_Destroy(m_pHandle);
    }
}

void CARD_TEST::Init()
{
    ASSERT_EQ(0u, QN_Init(&m_stParam, m_pHandle));
}

void CARD_TEST::InitMounted()
{
    mkdir(m_strMount.c_str(), 0755);
    for (int32_t i = 0; i < QN_VOLUME_COUNT; ++i)
    {
        mkdir(Folder(i).c_str(), 0755);
    }
    Init();
    ASSERT_TRUE(WaitForState(QN_STATE_E_MOUNTED));
    ASSERT_TRUE(WaitForIdle());
}

std::string CARD_TEST::Folder(int32_t s32Volume) const
{
    return m_strMount + "/" + m_stParam.astVolume[s32Volume].pszFolder;
}

bool CARD_TEST::WaitForState(QN_STATE_E enState, int32_t s32Ms)
{
    return TEST_WaitFor([this, enState] { return m_pHandle->enState.load() == enState; }, s32Ms);
}

// Events are handled in order: once an event that does nothing has been taken, all before it are done.
static bool WaitForEvents(tagQN_HANDLER_S *pHandle, int32_t s32Ms)
{
    auto spMark = std::make_shared<int>(0);
    QN_EVENT_PushEvent(pHandle, static_cast<QN_EVENT_E>(5), spMark);
    QN_EVENT_PushEvent(pHandle, static_cast<QN_EVENT_E>(5), nullptr);
    return TEST_WaitFor(
        [pHandle]
        {
            pthread_mutex_lock(&pHandle->mutexEvent);
            const bool bEmpty = pHandle->u32EventCount == 0;
            pthread_mutex_unlock(&pHandle->mutexEvent);
            return bEmpty;
        },
        s32Ms);
}

bool CARD_TEST::WaitForIdle(int32_t s32Ms)
{
    // What a handler posts may stand behind the first round; the second stands behind that.
    return WaitForEvents(m_pHandle, s32Ms) && WaitForEvents(m_pHandle, s32Ms);
}

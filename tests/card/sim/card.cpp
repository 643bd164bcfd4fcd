// The card. See the header.

#include "card.h"

#include <cerrno>
#include <chrono>
#include <random>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ext4_shutdown.h"
#include "guard.h"
#include "loop.h"

// The wide range keeps programs that run side by side apart; smaller numbers belong to other tests.
constexpr int32_t FIRST_NUMBER = 5000;
constexpr int32_t NUMBERS = 60000;
static_assert(FIRST_NUMBER >= LOOP_FIRST, "smaller numbers are not ours");

constexpr auto WATCH_PAUSE = std::chrono::milliseconds(20);
constexpr useconds_t RELEASE_PAUSE_US = 10000;
constexpr int32_t REMOVE_TRIES = 5;

static int32_t PickNumber()
{
    std::random_device random;
    int32_t s32Number = 0;
    do
    {
        s32Number = FIRST_NUMBER + static_cast<int32_t>(random() % NUMBERS);
    } while (access(LOOP_Device(s32Number).c_str(), F_OK) == 0);
    return s32Number;
}

std::string CARD::WhyNot()
{
    if (geteuid() != 0)
    {
        return "cards need root, who alone may make loop devices and mount them";
    }
    const int s32Control = open("/dev/loop-control", O_RDWR | O_CLOEXEC);
    if (s32Control < 0)
    {
        return "this machine has no loop devices (/dev/loop-control cannot be opened)";
    }
    close(s32Control);
    for (const char *pszProgram : {"fdisk", "mkfs.ext4", "mkfs.vfat", "mount"})
    {
        if (!IMAGE_HasProgram(pszProgram))
        {
            return std::string(pszProgram) + " is not installed";
        }
    }
    return "";
}

CARD::CARD(const CARD_PARAM_S &stParam)
    : m_bReadOnly(stParam.bReadOnly), m_bServed(stParam.bServed), m_bThin(stParam.s64ThinBytes > 0),
      m_bWhole(stParam.bWhole)
{
    GUARD_Start();
    m_s32Number = PickNumber();
    m_strDevice = LOOP_Device(m_s32Number);
    m_strPartition = m_strDevice + "p1";
    m_s32Note = GUARD_MakeDir(m_strDir);
    m_bReady = m_s32Note >= 0 && GUARD_WriteNumber(m_s32Note, m_s32Number) && Prepare(stParam);
}

CARD::~CARD()
{
    StopWatch();
    if (!m_strDir.empty())
    {
        LOOP_Unmount(m_s32Number, m_strMount);
        if (m_bDevice)
        {
            LOOP_Detach(m_s32Number);
        }
        m_upServer.reset();
        // What is still in use stays for the guard.
        (void)GUARD_Discard(m_strDir, m_bDevice ? m_s32Number : -1);
    }
    if (m_s32Note >= 0)
    {
        close(m_s32Note);
    }
}

bool CARD::Prepare(const CARD_PARAM_S &stParam)
{
    m_strMount = m_strDir + "/mnt";
    std::string strFolder = m_strDir;
    if (m_bThin)
    {
        strFolder += "/thin";
        const std::string strOptions = "size=" + std::to_string(stParam.s64ThinBytes);
        if (mkdir(strFolder.c_str(), 0700) != 0 ||
            mount("tmpfs", strFolder.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, strOptions.c_str()) != 0)
        {
            return false;
        }
    }
    m_strImage = strFolder + "/image";
    if (m_bServed)
    {
        m_upServer = std::make_unique<FUSE_IMAGE>(m_strImage, m_strDir + "/served", stParam.strLog);
    }
    if (!stParam.strFrom.empty())
    {
        return IMAGE_Run({"cp", "--sparse=always", stParam.strFrom, m_strImage}) == 0;
    }
    return IMAGE_Make(m_strImage, stParam.s64Bytes, stParam.enContent);
}

bool CARD::Grow(int64_t s64Bytes)
{
    const std::string strOptions = "size=" + std::to_string(s64Bytes);
    return m_bThin && mount("tmpfs", (m_strDir + "/thin").c_str(), "tmpfs", MS_REMOUNT | MS_NOSUID | MS_NODEV,
                            strOptions.c_str()) == 0;
}

void CARD::StartWatch()
{
    m_bWatch = true;
    m_watcher = std::thread(
        [this]
        {
            while (m_bWatch)
            {
                LOOP_AddPartition(m_s32Number);
                std::this_thread::sleep_for(WATCH_PAUSE);
            }
        });
}

void CARD::StopWatch()
{
    m_bWatch = false;
    if (m_watcher.joinable())
    {
        m_watcher.join();
    }
}

bool CARD::In()
{
    if (!m_bReady || m_bIn || !Gone() || (m_bServed && !m_upServer->Start()))
    {
        return false;
    }
    m_bDevice = LOOP_Add(m_s32Number);
    m_bIn = m_bDevice && LOOP_Attach(m_s32Number, m_bServed ? m_upServer->Path() : m_strImage, m_bReadOnly);
    if (m_bIn && !m_bWhole)
    {
        StartWatch();
    }
    return m_bIn;
}

bool CARD::Out(CARD_PULL_E enPull)
{
    if (!m_bIn)
    {
        return false;
    }
    StopWatch();
    m_bIn = false;
    if (enPull != CARD_PULL_WRITTEN)
    {
        (void)CutPower(); // a card that is not mounted has nothing to lose
    }
    if (enPull != CARD_PULL_BARE)
    {
        Unmount();
    }
    LOOP_Detach(m_s32Number);
    for (int32_t i = 0; i < REMOVE_TRIES && m_bDevice; ++i)
    {
        m_bDevice = !LOOP_Remove(m_s32Number);
        usleep(m_bDevice ? RELEASE_PAUSE_US : 0);
    }
    if (m_bDevice)
    {
        // Somebody still has files open. A card is gone nevertheless: its nodes go, and the kernel says so.
        (void)unlink(m_strPartition.c_str());
        (void)unlink(m_strDevice.c_str());
        return Announce("remove");
    }
    return true;
}

bool CARD::Gone(int32_t s32Ms)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(s32Ms);
    while (m_bDevice && !m_bIn)
    {
        m_bDevice = !LOOP_Remove(m_s32Number);
        if (m_bDevice && std::chrono::steady_clock::now() >= deadline)
        {
            return false;
        }
        usleep(m_bDevice ? RELEASE_PAUSE_US : 0);
    }
    return !m_bDevice;
}

bool CARD::Announce(const char *pszAction)
{
    return m_bDevice && LOOP_Announce(m_s32Number, pszAction);
}

static bool ShutDown(const std::string &strWhere)
{
#ifdef QUARRIN_POWER_CUT
    return IMAGE_Run({QUARRIN_POWER_CUT, strWhere}) == 0;
#else
    const int s32Dir = open(strWhere.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (s32Dir < 0)
    {
        return false;
    }
    uint32_t u32How = EXT4_NO_LOG_FLUSH;
    const bool bDone = ioctl(s32Dir, EXT4_SHUTDOWN, &u32How) == 0;
    close(s32Dir);
    return bDone;
#endif
}

bool CARD::CutPower()
{
    if (m_bServed)
    {
        m_upServer->Kill();
        return true;
    }
    std::string strWhere;
    return LOOP_IsMounted(m_s32Number, strWhere) && ShutDown(strWhere);
}

void CARD::Unmount()
{
    LOOP_Unmount(m_s32Number, m_strMount);
}

bool CARD::Copy(const std::string &strPath) const
{
    return IMAGE_Run({"cp", "--sparse=always", m_strImage, strPath}) == 0;
}

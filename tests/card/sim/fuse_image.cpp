// The exported image. See the header.

#include "fuse_image.h"

#include <cerrno>
#include <csignal>
#include <new>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "fuse_server.h"

FUSE_IMAGE::FUSE_IMAGE(const std::string &strImage, const std::string &strDir, const std::string &strLog)
    : m_strImage(strImage), m_strDir(strDir), m_strPath(strDir + "/card"), m_strLog(strLog)
{
    void *pShared = mmap(nullptr, sizeof(FUSE_CONTROL_S), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    m_pControl = new (pShared) FUSE_CONTROL_S();
}

FUSE_IMAGE::~FUSE_IMAGE()
{
    Stop();
    munmap(m_pControl, sizeof(FUSE_CONTROL_S));
}

bool FUSE_IMAGE::IsAvailable()
{
    return access("/dev/fuse", R_OK | W_OK) == 0;
}

bool FUSE_IMAGE::Start()
{
    if (m_pid > 0)
    {
        return true;
    }
    Stop(); // the mount of a server that was killed
    mkdir(m_strDir.c_str(), 0700);
    const int s32Image = open(m_strImage.c_str(), O_RDWR | O_CLOEXEC);
    const int s32Fuse = open("/dev/fuse", O_RDWR | O_CLOEXEC);
    const int s32Log = m_strLog.empty() ? -1 : open(m_strLog.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    const std::string strOptions = "fd=" + std::to_string(s32Fuse) + ",rootmode=40000,user_id=0,group_id=0";
    m_bMounted = s32Image >= 0 && s32Fuse >= 0 && (s32Log >= 0 || m_strLog.empty()) &&
                 mount("quarrin-card", m_strDir.c_str(), "fuse", MS_NOSUID | MS_NODEV, strOptions.c_str()) == 0;
    if (m_bMounted)
    {
        m_pid = fork();
        if (m_pid == 0)
        {
            FUSE_Serve(s32Fuse, s32Image, s32Log, m_pControl);
        }
    }
    for (const int s32Fd : {s32Image, s32Fuse, s32Log})
    {
        if (s32Fd >= 0)
        {
            close(s32Fd);
        }
    }
    return m_pid > 0;
}

void FUSE_IMAGE::Kill()
{
    if (m_pid > 0)
    {
        kill(m_pid, SIGKILL);
        while (waitpid(m_pid, nullptr, 0) < 0 && errno == EINTR)
        {
        }
    }
    m_pid = -1;
}

void FUSE_IMAGE::Stop()
{
    Kill();
    if (m_bMounted)
    {
        (void)umount2(m_strDir.c_str(), MNT_DETACH); // ours
        m_bMounted = false;
    }
}

void FUSE_IMAGE::FailWritesAfter(int64_t s64Count, int32_t s32Errno)
{
    m_pControl->s32WriteErrno = s32Errno;
    m_pControl->s64WritesLeft = s64Count;
}

void FUSE_IMAGE::Heal()
{
    m_pControl->s32DelayMs = 0;
    m_pControl->s32ReadErrno = 0;
    m_pControl->s64WritesLeft = -1;
    m_pControl->s32WriteErrno = 0;
}

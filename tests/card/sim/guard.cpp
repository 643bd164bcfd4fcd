// Notes, locks and the guard process. See the header.

#include "guard.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <vector>

#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "loop.h"
#include "support/scratch.h"

static constexpr const char *PREFIX = "card-";
static const std::string NOTE = "/number";
constexpr int32_t REMOVE_TRIES = 200;
constexpr useconds_t REMOVE_PAUSE_US = 10000;

// In a folder of this user's alone: a neighbour's note would name a device that is taken off, and his links would be
// followed.
static std::string Cards()
{
    return TEST_ScratchBase() + "/" + PREFIX;
}

// What is mounted here is seen here alone. Whoever makes a mount namespace, as every container does, takes a copy of
// all mounts that he sees; a file system lives as long as one of its mounts, and a card that was cut and is mounted
// again would be the dead one still. Copies that came along of other programs' cards are taken off for the same reason.
__attribute__((constructor)) static void HideMounts()
{
    if (geteuid() == 0 && unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0)
    {
        LOOP_UnmountAll(Cards().c_str());
    }
}

int GUARD_MakeDir(std::string &strDir)
{
    // Under another name until the note is locked: a note without a lock would be taken for a dead program's.
    const std::string strNew = TEST_MakeScratch("newcard");
    if (strNew.empty())
    {
        return -1;
    }
    const int s32Note = open((strNew + NOTE).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (s32Note < 0 || flock(s32Note, LOCK_EX | LOCK_NB) != 0)
    {
        return -1;
    }
    strDir = Cards() + strNew.substr(strNew.size() - 6);
    return rename(strNew.c_str(), strDir.c_str()) == 0 ? s32Note : -1;
}

bool GUARD_WriteNumber(int s32Note, int32_t s32Number)
{
    const std::string strNumber = std::to_string(s32Number);
    return ftruncate(s32Note, 0) == 0 &&
           pwrite(s32Note, strNumber.data(), strNumber.size(), 0) == static_cast<ssize_t>(strNumber.size());
}

bool GUARD_Discard(const std::string &strDir, int32_t s32Number)
{
    LOOP_Unmount(s32Number, strDir);
    const std::string strImage = LOOP_Image(s32Number);
    bool bGone = true;
    // A number that somebody else uses by now is left alone.
    if (s32Number >= LOOP_FIRST && (strImage.empty() || strImage.rfind(strDir + "/", 0) == 0))
    {
        LOOP_Detach(s32Number);
        bGone = LOOP_Remove(s32Number);
        for (int32_t i = 0; i < REMOVE_TRIES && !bGone && errno == EBUSY; ++i)
        {
            usleep(REMOVE_PAUSE_US);
            bGone = LOOP_Remove(s32Number);
        }
    }
    LOOP_Unmount(-1, strDir); // a served image, which the device has held
    return bGone && !LOOP_HasMountBelow(strDir) && TEST_RemoveScratch(strDir);
}

static bool CleanOne(const std::string &strDir)
{
    const int s32Note = open((strDir + NOTE).c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC);
    if (s32Note < 0)
    {
        return false;
    }
    bool bDone = false;
    if (flock(s32Note, LOCK_EX | LOCK_NB) == 0)
    {
        char szNumber[16] = {};
        const ssize_t sRead = pread(s32Note, szNumber, sizeof(szNumber) - 1, 0);
        bDone = GUARD_Discard(strDir, sRead > 0 ? static_cast<int32_t>(strtol(szNumber, nullptr, 10)) : -1);
    }
    close(s32Note);
    return bDone;
}

int32_t GUARD_CleanStale()
{
    std::error_code error;
    std::vector<std::string> vecDirs;
    for (const auto &entry : std::filesystem::directory_iterator(TEST_ScratchBase(), error))
    {
        if (entry.path().filename().string().rfind(PREFIX, 0) == 0)
        {
            vecDirs.push_back(entry.path().string());
        }
    }
    int32_t s32Count = 0;
    for (const std::string &strDir : vecDirs)
    {
        s32Count += CleanOne(strDir) ? 1 : 0;
    }
    return s32Count;
}

// The guard: waits until every descriptor at the other end of the pipe is closed, that is until the program has ended.
[[noreturn]] static void Guard(int s32Pipe)
{
    (void)setsid();
    for (const int s32Signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE})
    {
        signal(s32Signal, SIG_IGN);
    }
    alarm(0);
    prctl(PR_SET_NAME, "card-guard");
    const int s32Null = open("/dev/null", O_RDWR);
    for (const int s32Fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
    {
        dup2(s32Null, s32Fd);
    }
    const int s32Kept = dup2(s32Pipe, 3);
    syscall(SYS_close_range, 4u, ~0u, 0u); // the notes too: their locks end with the program
    char cByte = 0;
    while (read(s32Kept, &cByte, 1) < 0 && errno == EINTR)
    {
    }
    (void)GUARD_CleanStale(); // nobody is left to be told
    _exit(0);
}

static void StartOnce()
{
    (void)GUARD_CleanStale(); // what is still in use is tried again by the next program
    int as32Pipe[2];
    if (pipe2(as32Pipe, O_CLOEXEC) != 0)
    {
        return;
    }
    const pid_t pid = fork();
    if (pid == 0)
    {
        Guard(as32Pipe[0]);
    }
    close(as32Pipe[0]); // the other end stays open as long as the program lives
}

void GUARD_Start()
{
    static std::once_flag s_flag;
    std::call_once(s_flag, StartOnce);
}

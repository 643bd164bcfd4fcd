// The utility layer of a device: runs the library's command lines and takes its messages to syslog.
//
// Threads: any, at the same time. Nothing here changes once LAYER_Begin was called.

#include "layer.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr int FORMAT_FACTOR = 15; // mkfs on a large, slow card
constexpr seconds KILL_LIMIT{5};
constexpr useconds_t POLL_US = 10000;
constexpr int NOT_STARTED = 127; // the shells' own numbers
constexpr int TIMED_OUT = 124;

static std::string g_partition;   // "/dev/mmcblk1p1", or
static std::string g_usbName;     // "/dev/sda1", as the kernel calls it where the disk's name ends in a letter
static std::string g_mountPoint;  // "/mnt/card"
static std::string g_unmountLine; // as it stands, it would delete the card's files whenever umount fails
static seconds g_limit;

void LAYER_Begin(const libquarrin::tagQN_STORAGE_PARAM_S &param, seconds limit)
{
    g_limit = limit;
    openlog("own_layer", LOG_PERROR, LOG_USER); // LOG_PERROR: on standard error too, since this is an example
    g_mountPoint = param.pszMountPoint;
    g_partition = param.strDevice + "p" + std::to_string(param.s32PartitionNo);
    g_usbName = param.strDevice + std::to_string(param.s32PartitionNo);
    g_unmountLine = "umount " + g_mountPoint + "; rm -rf " + g_mountPoint;
}

// The library's line for this card, to the letter when there are no options.
static std::string MountLine(const std::string &options, const std::string &node)
{
    return "mkdir -p " + g_mountPoint + "; mount " + options + node + " " + g_mountPoint;
}

// The line names the node that is there; it is the card's from now on.
static bool IsMountLine(const std::string &line)
{
    if (line == MountLine("", g_usbName))
    {
        g_partition.swap(g_usbName);
    }
    return line == MountLine("", g_partition);
}

void LAYER_RemoveLeftover(const libquarrin::tagQN_STORAGE_PARAM_S &param)
{
    struct stat node = {};
    if (stat(param.strDevice.c_str(), &node) == 0 && !S_ISBLK(node.st_mode))
    {
        return;
    }
    // rmdir takes what is empty and nothing else: a mounted card stays, and so does a folder with files.
    struct stat inside = {};
    struct stat above = {};
    const bool isMounted = stat(param.pszMountPoint.c_str(), &inside) == 0 &&
                           stat((param.pszMountPoint + "/..").c_str(), &above) == 0 && inside.st_dev != above.st_dev;
    for (const libquarrin::tagQN_VOLUME_PARAM_S &volume : param.astVolume)
    {
        if (volume.bEnable != 0 && !isMounted) // the empty folders of a card are the card's
        {
            (void)rmdir((param.pszMountPoint + "/" + volume.pszFolder).c_str()); // may be missing
        }
    }
    (void)rmdir(param.pszMountPoint.c_str()); // WhyNotMountPoint of common/card.h tells what stays
}

// ---- mount and unmount

// The kernel may announce a card twice, and a program that was started again finds its card mounted: to mount it once
// more would fail, and the library would take the card for an unusable one.
static bool IsMounted()
{
    struct stat node = {};
    struct stat folder = {};
    return stat(g_partition.c_str(), &node) == 0 && S_ISBLK(node.st_mode) && stat(g_mountPoint.c_str(), &folder) == 0 &&
           folder.st_dev == node.st_rdev;
}

// Takes the card off, and then the directory: rmdir removes an empty one and nothing else. A directory that is no mount
// point, or still is one because the card is busy, stays with all that is in it.
static int Unmount()
{
    int result = umount2(g_mountPoint.c_str(), 0);
    if (result != 0 && errno == EBUSY && access(g_partition.c_str(), F_OK) != 0)
    {
        // Pulled, with files open: they are lost anyway, and the next card needs the directory.
        result = umount2(g_mountPoint.c_str(), MNT_DETACH);
    }
    if (result != 0)
    {
        syslog(LOG_ERR, "%s is not unmounted: %s", g_mountPoint.c_str(), strerror(errno));
        return 1;
    }
    if (rmdir(g_mountPoint.c_str()) != 0)
    {
        syslog(LOG_ERR, "%s is unmounted and stays: %s", g_mountPoint.c_str(), strerror(errno));
        return 1;
    }
    return 0;
}

// ---- everything else, in a shell

// `echo -e` is in the library's lines, so not every /bin/sh will do.
static std::vector<std::string> Shell()
{
    if (access("/bin/bash", X_OK) == 0)
    {
        return {"/bin/bash", "-c"};
    }
    return {"/bin/busybox", "sh", "-c"};
}

// Starts the program with empty standard input, no signal blocked or ignored, and in a process group of its own: a
// Ctrl-C does not tear a mkfs, and the time limit ends the shell with all that it has started. It gets nothing of the
// host's but standard output and error: an open recording would keep the card busy, and of the environment a shell
// takes settings and functions that change what a line does. 0 or an errno.
static int Spawn(std::vector<std::string> words, pid_t &pid)
{
    std::vector<char *> arguments;
    for (std::string &word : words)
    {
        arguments.push_back(&word[0]);
    }
    arguments.push_back(nullptr);
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_t actions;
    posix_spawnattr_init(&attributes);
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
#if defined(__GLIBC__) && __GLIBC__ * 1000 + __GLIBC_MINOR__ >= 2034 // elsewhere: open everything with O_CLOEXEC
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
#endif
    char path[] = "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
    char *variables[] = {path, nullptr};
    const int error = posix_spawn(&pid, arguments[0], &actions, &attributes, arguments.data(), variables);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    return error;
}

// Waits for a child. False: the time is over. This program leaves SIGCHLD alone; one that ignores it, or collects every
// child in a handler, would lose the exit status here.
static bool WaitFor(pid_t pid, seconds limit, int &result)
{
    const steady_clock::time_point end = steady_clock::now() + limit;
    for (;;)
    {
        int status = 0;
        const pid_t child = waitpid(pid, &status, WNOHANG);
        if (child == pid)
        {
            result = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            return true;
        }
        if (child < 0 && errno != EINTR)
        {
            result = NOT_STARTED;
            return true;
        }
        if (steady_clock::now() >= end)
        {
            return false;
        }
        usleep(POLL_US);
    }
}

static int RunInShell(const std::string &line, seconds limit)
{
    std::vector<std::string> words = Shell();
    words.push_back(line);
    pid_t pid = -1;
    const int error = Spawn(words, pid);
    if (error != 0)
    {
        syslog(LOG_ERR, "cannot start %s: %s", words[0].c_str(), strerror(error));
        return NOT_STARTED;
    }
    int result = 0;
    if (WaitFor(pid, limit, result))
    {
        return result;
    }
    syslog(LOG_ERR, "takes more than %d s and is killed: %s", static_cast<int>(limit.count()), line.c_str());
    (void)kill(-pid, SIGKILL); // it may just have ended
    if (!WaitFor(pid, KILL_LIMIT, result))
    {
        // Stuck in the kernel, on a card that does not answer. The card counts as failed; the host goes on.
        syslog(LOG_ERR, "process %d cannot be killed and is left behind", static_cast<int>(pid));
    }
    return TIMED_OUT;
}

// ---- the three functions of bu_platform.h

extern "C" int BU_RunCmd(const char *cmd)
{
    const std::string line = cmd;
    int result = 1;
    if (line == g_unmountLine)
    {
        result = Unmount();
    }
    else if (IsMountLine(line))
    {
        // A card comes from strangers: nothing on it is run, is a device or gives root's rights away.
        result = IsMounted() ? 0 : RunInShell(MountLine("-o nosuid,nodev,noexec ", g_partition), g_limit);
    }
    else if (line.find("rm -rf") != std::string::npos || g_partition.empty())
    {
        syslog(LOG_ERR, "refused: the line removes files, or LAYER_Begin was not called");
    }
    else
    {
        const bool formats = line.compare(0, 4, "mkfs") == 0 || line.find("fdisk") != std::string::npos;
        result = RunInShell(line, formats ? FORMAT_FACTOR * g_limit : g_limit);
    }
    syslog(result == 0 ? LOG_INFO : LOG_ERR, "result %d of: %s", result, cmd);
    return result;
}

// The library's levels 3, 4 and 6 are syslog's error, warning and information.
static_assert(LOG_ERR == 3 && LOG_WARNING == 4 && LOG_INFO == 6, "levels are handed on as they are");

extern "C" int UTIL_LOG_Print(int level, const char *prefix, const char *format, ...)
{
    const std::string whole = std::string(prefix) + format; // function names and numbers: no % in the prefix
    va_list args;
    va_start(args, format);
    vsyslog(level, whole.c_str(), args);
    va_end(args);
    return 0;
}

extern "C" int BSP_PrintLog(int level, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    vsyslog(level, format, args);
    va_end(args);
    return 0;
}

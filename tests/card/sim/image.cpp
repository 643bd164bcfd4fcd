// Contents of cards. See the header.

#include "image.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

constexpr int64_t START_SECTOR = 2048;
constexpr int64_t SECTOR_BYTES = 512;
constexpr int64_t KIB = 1024;
// fdisk and mkfs stand in folders that not every user's PATH has.
static const char *const FOLDERS[] = {"/usr/sbin/", "/sbin/", "/usr/bin/", "/bin/", "/usr/local/sbin/"};

static std::string FindProgram(const std::string &strName)
{
    if (strName[0] == '/')
    {
        return strName;
    }
    for (const char *pszFolder : FOLDERS)
    {
        if (access((pszFolder + strName).c_str(), X_OK) == 0)
        {
            return pszFolder + strName;
        }
    }
    return "";
}

bool IMAGE_HasProgram(const std::string &strName)
{
    return !FindProgram(strName).empty();
}

static int32_t Collect(pid_t pid)
{
    int s32Status = 0;
    while (waitpid(pid, &s32Status, 0) < 0)
    {
        if (errno != EINTR)
        {
            return -1;
        }
    }
    return WIFEXITED(s32Status) ? WEXITSTATUS(s32Status) : -1;
}

int32_t IMAGE_Run(const std::vector<std::string> &vecArgs, const std::string &strInput)
{
    std::vector<std::string> vecCopy = vecArgs;
    vecCopy[0] = FindProgram(vecArgs[0]);
    std::vector<char *> vecPointers;
    for (std::string &strArg : vecCopy)
    {
        vecPointers.push_back(&strArg[0]);
    }
    vecPointers.push_back(nullptr);
    int as32Pipe[2];
    if (pipe2(as32Pipe, O_CLOEXEC) != 0)
    {
        return -1;
    }
    posix_spawn_file_actions_t stActions;
    posix_spawn_file_actions_init(&stActions);
    posix_spawn_file_actions_adddup2(&stActions, as32Pipe[0], STDIN_FILENO);
    posix_spawn_file_actions_addopen(&stActions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&stActions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    const int s32Error = posix_spawn(&pid, vecPointers[0], &stActions, nullptr, vecPointers.data(), environ);
    posix_spawn_file_actions_destroy(&stActions);
    close(as32Pipe[0]);
    // Inputs are a few lines: the pipe takes them whole.
    const ssize_t sWritten = s32Error == 0 ? write(as32Pipe[1], strInput.data(), strInput.size()) : -1;
    close(as32Pipe[1]);
    if (s32Error != 0)
    {
        return -1;
    }
    const int32_t s32Result = Collect(pid);
    return sWritten == static_cast<ssize_t>(strInput.size()) ? s32Result : -1;
}

// A DOS table with one entry, in place s32Entry from 0.
static bool WriteTable(const std::string &strPath, int64_t s64Bytes, int32_t s32Entry)
{
    unsigned char au8Sector[SECTOR_BYTES] = {};
    unsigned char *pu8Entry = au8Sector + 446 + 16 * s32Entry;
    const uint32_t u32Start = START_SECTOR;
    const uint32_t u32Sectors = static_cast<uint32_t>(s64Bytes / SECTOR_BYTES - START_SECTOR);
    pu8Entry[4] = 0x83; // the type: Linux
    memcpy(pu8Entry + 8, &u32Start, sizeof(u32Start));
    memcpy(pu8Entry + 12, &u32Sectors, sizeof(u32Sectors));
    au8Sector[510] = 0x55;
    au8Sector[511] = 0xaa;
    const int s32Fd = open(strPath.c_str(), O_WRONLY | O_CLOEXEC);
    if (s32Fd < 0)
    {
        return false;
    }
    const bool bDone = pwrite(s32Fd, au8Sector, sizeof(au8Sector), 0) == static_cast<ssize_t>(sizeof(au8Sector));
    close(s32Fd);
    return bDone;
}

static bool MakeExt(const std::string &strPath, int64_t s64Bytes, const char *pszProgram, int64_t s64Offset)
{
    return IMAGE_Run({pszProgram, "-q", "-F", "-E", "offset=" + std::to_string(s64Offset), strPath,
                      std::to_string((s64Bytes - s64Offset) / KIB) + "k"}) == 0;
}

static bool MakeVfat(const std::string &strPath, int64_t s64Bytes)
{
    return IMAGE_Run({"mkfs.vfat", "--offset", std::to_string(START_SECTOR), strPath,
                      std::to_string((s64Bytes - START_SECTOR * SECTOR_BYTES) / KIB)}) == 0;
}

static bool MakeGpt(const std::string &strPath)
{
    return IMAGE_Run({"fdisk", strPath}, "g\nn\n1\n\n\nw\n") == 0;
}

bool IMAGE_Make(const std::string &strPath, int64_t s64Bytes, CARD_CONTENT_E enContent)
{
    const int s32Fd = open(strPath.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const bool bMade = s32Fd >= 0 && ftruncate(s32Fd, s64Bytes) == 0;
    if (s32Fd >= 0)
    {
        close(s32Fd);
    }
    constexpr int64_t OFFSET = START_SECTOR * SECTOR_BYTES;
    switch (enContent)
    {
    case CARD_CONTENT_BLANK:
        return bMade;
    case CARD_CONTENT_TABLE:
        return bMade && WriteTable(strPath, s64Bytes, 0);
    case CARD_CONTENT_EXT4:
        return bMade && WriteTable(strPath, s64Bytes, 0) && MakeExt(strPath, s64Bytes, "mkfs.ext4", OFFSET);
    case CARD_CONTENT_EXT2:
        return bMade && WriteTable(strPath, s64Bytes, 0) && MakeExt(strPath, s64Bytes, "mkfs.ext2", OFFSET);
    case CARD_CONTENT_VFAT:
        return bMade && WriteTable(strPath, s64Bytes, 0) && MakeVfat(strPath, s64Bytes);
    case CARD_CONTENT_FOREIGN:
        return bMade && WriteTable(strPath, s64Bytes, 2);
    case CARD_CONTENT_GPT:
        return bMade && MakeGpt(strPath);
    case CARD_CONTENT_NO_TABLE_EXT4:
        return bMade && MakeExt(strPath, s64Bytes, "mkfs.ext4", 0);
    }
    return false;
}

// Folder scan: a real folder with names of any bytes, files of any size, and things that are no files.

#include "fuzz.h"

#include <algorithm>
#include <ctime>
#include <map>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace libquarrin;

namespace
{

enum KIND_E : uint32_t
{
    KIND_E_FILE,
    KIND_E_FOLDER,
    KIND_E_LINK,
    KIND_E_FIFO,
    KIND_E_COUNT,
};

// What was made, by name: its kind and size.
using ENTRIES = std::map<std::string, std::pair<KIND_E, int64_t>>;

bool Make(int32_t s32Folder, const char *pszName, KIND_E enKind, int64_t s64Size)
{
    switch (enKind)
    {
    case KIND_E_FOLDER:
        return mkdirat(s32Folder, pszName, 0700) == 0;
    case KIND_E_LINK:
        return symlinkat("/proc/self/exe", s32Folder, pszName) == 0; // a file, and always there
    case KIND_E_FIFO:
        return mkfifoat(s32Folder, pszName, 0600) == 0;
    default:
        break;
    }
    const int32_t s32File = openat(s32Folder, pszName, O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600);
    if (s32File < 0)
    {
        return false;
    }
    FUZZ_Check(ftruncate(s32File, s64Size) == 0, "a file can have a size");
    close(s32File);
    return true;
}

ENTRIES MakeAll(int32_t s32Folder, FUZZ_INPUT &input)
{
    ENTRIES entries;
    for (int32_t i = 0; i < 12 && !input.IsEmpty(); ++i)
    {
        const uint32_t u32Flags = input.U8();
        const KIND_E enKind = u32Flags & 8 ? static_cast<KIND_E>(u32Flags % KIND_E_COUNT) : KIND_E_FILE;
        const int64_t s64Size = u32Flags & 4 ? 0x100000000 + u32Flags : u32Flags;
        std::string strName = u32Flags & 16 ? "2024-03-01-08-15-0" + std::to_string(i % 10) : "";
        strName += input.Text();
        std::replace(strName.begin(), strName.end(), '/', '|');
        if (strName.empty() || strName == "." || strName == ".." || strName.size() > 255)
        {
            continue;
        }
        if (Make(s32Folder, strName.c_str(), enKind, s64Size)) // a name may come twice
        {
            entries[strName] = {enKind, s64Size};
        }
    }
    return entries;
}

// The record of one file is what its name says.
void CheckRecord(const tagQN_FILE_INFO_S &stInfo, const std::string &strFolder, const std::string &strName,
                 int64_t s64Size)
{
    tm stStart = {};
    tm stEnd = {};
    std::string strExt;
    FUZZ_Check(QN_STORAGE_GetFilenameInfo(strName.c_str(), stStart, stEnd, strExt) == 0, "a listed name can be read");
    FUZZ_Check(stInfo.strName == strName && stInfo.strPath == strFolder + "/" + strName,
               "name and path are the file's");
    FUZZ_Check(stInfo.strExt == strExt && stInfo.strComment == QN_STORAGE_GetFilenameComment(strName.c_str()),
               "extension and comment are the name's");
    FUZZ_Check(stInfo.u64Size == (static_cast<uint64_t>(s64Size) & 0xffffffff), "the size counts modulo 2^32");
    FUZZ_Check(stInfo.tStart == timegm(&stStart) && stInfo.tEnd == timegm(&stEnd), "the times are the name's");
}

bool IsReadable(const std::string &strName)
{
    tm stStart = {};
    tm stEnd = {};
    std::string strExt;
    return QN_STORAGE_GetFilenameInfo(strName.c_str(), stStart, stEnd, strExt) == 0;
}

void CheckScan(const std::string &strFolder, const ENTRIES &entries)
{
    constexpr int32_t WARN = 4;
    const uint32_t u32Warned = FUZZ_Logs(WARN);
    std::vector<tagQN_FILE_INFO_S> vecFiles(3);
    FUZZ_Check(QN_STORAGE_ScanFolder(strFolder.c_str(), vecFiles) == 0, "a scan always comes back with 0");
    size_t readable = 0;
    uint32_t u32Unreadable = 0;
    for (const auto &entry : entries)
    {
        const bool bFile = entry.second.first == KIND_E_FILE;
        readable += bFile && IsReadable(entry.first) ? 1 : 0;
        u32Unreadable += bFile && !IsReadable(entry.first) ? 1 : 0;
    }
    FUZZ_Check(vecFiles.size() == readable, "every file with a time in its name is listed");
    FUZZ_Check(FUZZ_Logs(WARN) - u32Warned == u32Unreadable, "every other file has its warning");
    for (size_t i = 0; i < vecFiles.size(); ++i)
    {
        const auto itEntry = entries.find(vecFiles[i].strName);
        FUZZ_Check(itEntry != entries.end(), "a listed file is there");
        CheckRecord(vecFiles[i], strFolder, itEntry->first, itEntry->second.second);
        FUZZ_Check(i == 0 || vecFiles[i - 1].tStart <= vecFiles[i].tStart, "the earliest stands first");
    }
}

void CheckOne(const std::string &strFolder, const std::string &strName, KIND_E enKind, int64_t s64Size)
{
    tagQN_FILE_INFO_S stInfo;
    stInfo.strName = "before";
    const int32_t s32Got = QN_STORAGE_GetFileInfo((strFolder + "/" + strName).c_str(), &stInfo);
    const bool bDescribed = enKind == KIND_E_FILE && IsReadable(strName);
    FUZZ_Check(s32Got == (enKind != KIND_E_FILE || bDescribed ? 0 : -1), "a file is described, what is none is passed");
    if (bDescribed)
    {
        CheckRecord(stInfo, strFolder, strName, s64Size);
    }
    else
    {
        FUZZ_Check(stInfo.strName == "before" && stInfo.strPath.empty(),
                   "what is not described leaves the record alone");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pu8Data, size_t size)
{
    static const std::string strFolder = FUZZ_Scratch();
    static const int32_t s32Folder = open(strFolder.c_str(), O_DIRECTORY | O_RDONLY | O_CLOEXEC);
    FUZZ_INPUT input(pu8Data, size);
    const ENTRIES entries = MakeAll(s32Folder, input);
    CheckScan(strFolder, entries);
    for (const auto &entry : entries)
    {
        CheckOne(strFolder, entry.first, entry.second.first, entry.second.second);
        FUZZ_Check(unlinkat(s32Folder, entry.first.c_str(), entry.second.first == KIND_E_FOLDER ? AT_REMOVEDIR : 0) ==
                       0,
                   "what was made is still there");
    }
    return 0;
}

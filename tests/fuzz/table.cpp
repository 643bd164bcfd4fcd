#include "table.h"

#include <memory>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "fuzz.h"

using namespace libquarrin;

static std::vector<std::unique_ptr<WRITER_S>> s_vecWriters;
static WRITER_S *s_pLast = nullptr;
static int32_t s_s32Opens = 0;
static int32_t s_s32FailOpens = 0;
static int32_t s_s32NullWrites = 0;
static bool s_bEmpty = false;

static void Append(WRITER_S *pWriter, const void *pData, size_t size)
{
    FUZZ_Check(write(pWriter->s32File, pData, size) == static_cast<ssize_t>(size), "a file takes its bytes");
    pWriter->s64Bytes += static_cast<int64_t>(size);
}

static WRITER_S *OpenOne(void *pWriter)
{
    WRITER_S *pOpen = static_cast<WRITER_S *>(pWriter);
    FUZZ_Check(pOpen->s32Closes == 0, "nobody calls on a writer that is closed");
    return pOpen;
}

static void *WriteOpen(tagQN_RECORD_PARAM_S *, const char *pszPath)
{
    s_s32Opens += 1;
    s_pLast = nullptr;
    if (s_s32FailOpens > 0)
    {
        s_s32FailOpens -= 1;
        return nullptr;
    }
    for (const auto &spWriter : s_vecWriters)
    {
        // A path whose file was taken away first may be used again.
        FUZZ_Check(spWriter->strPath != pszPath || spWriter->s32Closes > 0 || access(pszPath, F_OK) != 0,
                   "no two open writers have one path");
    }
    const int32_t s32File = open(pszPath, O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0600);
    if (s32File < 0)
    {
        return nullptr;
    }
    s_vecWriters.push_back(std::make_unique<WRITER_S>());
    s_pLast = s_vecWriters.back().get();
    s_pLast->strPath = pszPath;
    s_pLast->s32File = s32File;
    Append(s_pLast, "h", s_bEmpty ? 0 : 1);
    return s_pLast;
}

static int32_t WriteFrame(void *pWriter, const unsigned char *pu8Data, uint32_t u32Len, uint64_t, bool, bool)
{
    if (pWriter == nullptr)
    {
        s_s32NullWrites += 1;
        return -1;
    }
    WRITER_S *pOpen = OpenOne(pWriter);
    pOpen->s32Frames += 1;
    Append(pOpen, pu8Data, u32Len);
    return 0;
}

static int32_t WriteClose(void *pWriter)
{
    WRITER_S *pOpen = OpenOne(pWriter);
    pOpen->s32Closes += 1;
    close(pOpen->s32File);
    return 0;
}

static int64_t GetWriteBytes(void *pWriter)
{
    return OpenOne(pWriter)->s64Bytes;
}

static const tagQN_MEDIA_API_S s_stApi = {WriteOpen, WriteFrame, WriteClose, nullptr, nullptr,      nullptr,
                                          nullptr,   nullptr,    nullptr,    nullptr, GetWriteBytes};

const tagQN_MEDIA_API_S *TABLE_Api()
{
    return &s_stApi;
}

void TABLE_Reset()
{
    for (const auto &spWriter : s_vecWriters)
    {
        FUZZ_Check(spWriter->s32Closes == 1, "every writer is closed once");
    }
    s_vecWriters.clear();
    s_pLast = nullptr;
    s_s32Opens = 0;
    s_s32FailOpens = 0;
    s_s32NullWrites = 0;
    s_bEmpty = false;
}

void TABLE_FailOpens(int32_t s32Count)
{
    s_s32FailOpens = s32Count;
}

void TABLE_SetEmpty(bool bEmpty)
{
    s_bEmpty = bEmpty;
}

int32_t TABLE_Opens()
{
    return s_s32Opens;
}

WRITER_S *TABLE_LastOpened()
{
    return s_pLast;
}

int32_t TABLE_NullWrites()
{
    return s_s32NullWrites;
}

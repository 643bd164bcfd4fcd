#include "support/fake_media.h"

#include <fcntl.h>
#include <memory>
#include <mutex>
#include <unistd.h>

#include "support/failing_new.h"
#include "support/wait.h"

using namespace libquarrin;

namespace
{

// Stays after its close, so that a late call is seen instead of reading freed memory.
struct FAKE_FILE_S
{
    FAKE_WRITER_S stRecord;
    int s32File;
    int64_t s64Bytes;
    int32_t s32Inside; ///< calls that are running
};

struct FAKE_MEDIA_STATE_S
{
    std::mutex mutex;
    std::vector<std::unique_ptr<FAKE_FILE_S>> vecFiles;
    std::vector<std::string> vecViolations;
    std::string strHeader = "begin\n";
    FAKE_CALL_E enStall = FAKE_CALL_E_NONE;
    int32_t s32StallCount = 0; ///< calls that are still to be held up
    int32_t s32Stalled = 0;
    int32_t s32FailOpens = 0;
    int32_t s32NullWrites = 0;
    bool bFailWrites = false;
};

FAKE_MEDIA_STATE_S &State()
{
    static FAKE_MEDIA_STATE_S *pState = new FAKE_MEDIA_STATE_S(); // outlives every thread of the process
    return *pState;
}

bool IsReleased(FAKE_CALL_E enCall)
{
    std::lock_guard<std::mutex> lock(State().mutex);
    return State().enStall != enCall;
}

void Hold(FAKE_CALL_E enCall)
{
    {
        std::lock_guard<std::mutex> lock(State().mutex);
        if (State().enStall != enCall || State().s32StallCount == 0)
        {
            return;
        }
        State().s32StallCount -= 1;
        State().s32Stalled += 1;
    }
    while (!IsReleased(enCall))
    {
        TEST_SleepMs(1);
    }
    std::lock_guard<std::mutex> lock(State().mutex);
    State().s32Stalled -= 1;
}

void NoteLocked(const std::string &strWhat, const FAKE_FILE_S &stFile)
{
    State().vecViolations.push_back(strWhat + ": " + stFile.stRecord.strPath);
}

// One call on a writer, from its begin to its end.
class CALL
{
public:
    CALL(void *pWriter, const char *pszName) : m_pFile(static_cast<FAKE_FILE_S *>(pWriter))
    {
        std::lock_guard<std::mutex> lock(State().mutex);
        if (m_pFile->stRecord.s32Closes > 0)
        {
            NoteLocked(std::string(pszName) + " after the close", *m_pFile);
        }
        if (m_pFile->s32Inside > 0)
        {
            NoteLocked(std::string(pszName) + " during another call", *m_pFile);
        }
        m_pFile->s32Inside += 1;
    }
    ~CALL()
    {
        std::lock_guard<std::mutex> lock(State().mutex);
        m_pFile->s32Inside -= 1;
    }
    CALL(const CALL &) = delete;
    CALL &operator=(const CALL &) = delete;

private:
    FAKE_FILE_S *m_pFile;
};

void Append(FAKE_FILE_S *pFile, const void *pData, size_t size)
{
    if (pFile->s32File >= 0 && write(pFile->s32File, pData, size) == static_cast<ssize_t>(size))
    {
        pFile->s64Bytes += static_cast<int64_t>(size);
    }
}

void *WriteOpen(tagQN_RECORD_PARAM_S *pstParam, const char *pszPath)
{
    const FAKES_OWN_NEW own;
    Hold(FAKE_CALL_E_OPEN);
    std::lock_guard<std::mutex> lock(State().mutex);
    if (State().s32FailOpens > 0)
    {
        State().s32FailOpens -= 1;
        return nullptr;
    }
    for (const std::unique_ptr<FAKE_FILE_S> &spFile : State().vecFiles)
    {
        // A path whose file was taken away first may be used again.
        if (spFile->stRecord.strPath == pszPath && spFile->stRecord.s32Closes == 0 && access(pszPath, F_OK) == 0)
        {
            NoteLocked("opened while another writer has it", *spFile);
        }
    }
    const int s32File = open(pszPath, O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0644);
    if (s32File < 0)
    {
        return nullptr;
    }
    State().vecFiles.push_back(std::make_unique<FAKE_FILE_S>());
    FAKE_FILE_S *pFile = State().vecFiles.back().get();
    pFile->stRecord = {pFile, pstParam, pszPath, {}, 0};
    pFile->s32File = s32File;
    Append(pFile, State().strHeader.data(), State().strHeader.size());
    return pFile;
}

int32_t WriteFrame(void *pWriter, const unsigned char *pu8Data, uint32_t u32Len, uint64_t u64Pts, bool bKey,
                   bool bVideo)
{
    const FAKES_OWN_NEW own;
    if (pWriter == nullptr)
    {
        std::lock_guard<std::mutex> lock(State().mutex);
        State().s32NullWrites += 1;
        return -1;
    }
    const CALL call(pWriter, "write");
    Hold(FAKE_CALL_E_WRITE);
    FAKE_FILE_S *pFile = static_cast<FAKE_FILE_S *>(pWriter);
    std::lock_guard<std::mutex> lock(State().mutex);
    const std::string strBytes(reinterpret_cast<const char *>(pu8Data), u32Len);
    pFile->stRecord.vecFrames.push_back({strBytes, u64Pts, bKey, bVideo});
    if (State().bFailWrites)
    {
        return -5;
    }
    Append(pFile, pu8Data, u32Len);
    return 0;
}

int32_t WriteClose(void *pWriter)
{
    const FAKES_OWN_NEW own;
    if (pWriter == nullptr)
    {
        return -1;
    }
    const CALL call(pWriter, "close");
    Hold(FAKE_CALL_E_CLOSE);
    FAKE_FILE_S *pFile = static_cast<FAKE_FILE_S *>(pWriter);
    std::lock_guard<std::mutex> lock(State().mutex);
    pFile->stRecord.s32Closes += 1;
    if (pFile->s32File >= 0)
    {
        close(pFile->s32File);
        pFile->s32File = -1;
    }
    return 0;
}

int64_t GetWriteBytes(void *pWriter)
{
    const FAKES_OWN_NEW own;
    if (pWriter == nullptr)
    {
        return -1;
    }
    const CALL call(pWriter, "byte count");
    std::lock_guard<std::mutex> lock(State().mutex);
    return static_cast<FAKE_FILE_S *>(pWriter)->s64Bytes;
}

const tagQN_MEDIA_API_S FAKE_API = {WriteOpen, WriteFrame, WriteClose, nullptr, nullptr,      nullptr,
                                    nullptr,   nullptr,    nullptr,    nullptr, GetWriteBytes};

} // namespace

void FAKE_MEDIA_Reset()
{
    std::lock_guard<std::mutex> lock(State().mutex);
    for (const std::unique_ptr<FAKE_FILE_S> &spFile : State().vecFiles)
    {
        if (spFile->s32File >= 0)
        {
            close(spFile->s32File);
        }
    }
    State().vecFiles.clear();
    State().vecViolations.clear();
    State().strHeader = "begin\n";
    State().enStall = FAKE_CALL_E_NONE;
    State().s32FailOpens = 0;
    State().s32NullWrites = 0;
    State().bFailWrites = false;
}

const tagQN_MEDIA_API_S *FAKE_MEDIA_Api()
{
    return &FAKE_API;
}

void FAKE_MEDIA_FailOpens(int32_t s32Count)
{
    std::lock_guard<std::mutex> lock(State().mutex);
    State().s32FailOpens = s32Count;
}

void FAKE_MEDIA_FailWrites()
{
    std::lock_guard<std::mutex> lock(State().mutex);
    State().bFailWrites = true;
}

void FAKE_MEDIA_SetHeader(const std::string &strHeader)
{
    std::lock_guard<std::mutex> lock(State().mutex);
    State().strHeader = strHeader;
}

void FAKE_MEDIA_Stall(FAKE_CALL_E enCall, int32_t s32Count)
{
    std::lock_guard<std::mutex> lock(State().mutex);
    State().enStall = enCall;
    State().s32StallCount = s32Count;
}

bool FAKE_MEDIA_WaitStalled(int32_t s32Ms)
{
    return TEST_WaitFor(
        []
        {
            std::lock_guard<std::mutex> lock(State().mutex);
            return State().s32Stalled > 0;
        },
        s32Ms);
}

void FAKE_MEDIA_Release()
{
    FAKE_MEDIA_Stall(FAKE_CALL_E_NONE, 0);
}

std::vector<FAKE_WRITER_S> FAKE_MEDIA_Writers()
{
    std::lock_guard<std::mutex> lock(State().mutex);
    std::vector<FAKE_WRITER_S> vecWriters;
    for (const std::unique_ptr<FAKE_FILE_S> &spFile : State().vecFiles)
    {
        vecWriters.push_back(spFile->stRecord);
    }
    return vecWriters;
}

int32_t FAKE_MEDIA_Opens()
{
    std::lock_guard<std::mutex> lock(State().mutex);
    return static_cast<int32_t>(State().vecFiles.size());
}

int32_t FAKE_MEDIA_OpenWriters()
{
    std::lock_guard<std::mutex> lock(State().mutex);
    int32_t s32Open = 0;
    for (const std::unique_ptr<FAKE_FILE_S> &spFile : State().vecFiles)
    {
        s32Open += spFile->stRecord.s32Closes == 0 ? 1 : 0;
    }
    return s32Open;
}

int32_t FAKE_MEDIA_NullWrites()
{
    std::lock_guard<std::mutex> lock(State().mutex);
    return State().s32NullWrites;
}

std::vector<std::string> FAKE_MEDIA_Violations()
{
    std::lock_guard<std::mutex> lock(State().mutex);
    return State().vecViolations;
}

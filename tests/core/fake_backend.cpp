#include "core/fake_backend.h"

#include <atomic>
#include <fcntl.h>
#include <mutex>
#include <set>
#include <unistd.h>

#include "support/wait.h"

using namespace libquarrin;

namespace
{

struct WRITER_S
{
    int32_t s32Fd = -1;
    std::atomic<int64_t> s64Bytes{0};
};

struct BACKEND_STATE_S
{
    std::mutex mutex;
    std::set<void *> setWriters;
    std::set<void *> setReaders;
    int32_t s32Opens = 0;
    int32_t s32Closes = 0;
    int32_t s32Frames = 0;
    int32_t s32ReadCloses = 0;
    int32_t s32Strangers = 0;
    std::atomic<bool> bHold{false};
    std::atomic<void *> pHeldWriter{nullptr};
    std::atomic<int32_t> s32Held{0};
};

BACKEND_STATE_S &State()
{
    static BACKEND_STATE_S *pState = new BACKEND_STATE_S(); // outlives every thread of the process
    return *pState;
}

void *WriteOpen(tagQN_RECORD_PARAM_S *, const char *pszPath)
{
    const int32_t s32Fd = open(pszPath, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (s32Fd < 0)
    {
        return nullptr;
    }
    WRITER_S *pWriter = new WRITER_S();
    pWriter->s32Fd = s32Fd;
    const std::lock_guard<std::mutex> lock(State().mutex);
    State().setWriters.insert(pWriter);
    State().s32Opens += 1;
    return pWriter;
}

int32_t WriteFrame(void *pWriter, const unsigned char *pu8Data, uint32_t u32Len, uint64_t, bool, bool)
{
    if (pWriter == nullptr)
    {
        return -1;
    }
    const std::lock_guard<std::mutex> lock(State().mutex);
    if (State().setWriters.count(pWriter) == 0)
    {
        State().s32Strangers += 1;
        return -1;
    }
    State().s32Frames += 1;
    WRITER_S *pOwn = static_cast<WRITER_S *>(pWriter);
    const ssize_t s64Written = write(pOwn->s32Fd, pu8Data, u32Len);
    pOwn->s64Bytes += s64Written > 0 ? s64Written : 0;
    return 0;
}

int32_t WriteClose(void *pWriter)
{
    if (pWriter == nullptr)
    {
        return -1;
    }
    void *pHeldWriter = State().pHeldWriter;
    if (State().bHold && (pHeldWriter == nullptr || pHeldWriter == pWriter))
    {
        State().s32Held += 1;
        (void)TEST_WaitFor([] { return !State().bHold; }, 600000);
        State().s32Held -= 1;
    }
    const std::lock_guard<std::mutex> lock(State().mutex);
    if (State().setWriters.erase(pWriter) == 0)
    {
        State().s32Strangers += 1;
        return -1;
    }
    State().s32Closes += 1;
    WRITER_S *pOwn = static_cast<WRITER_S *>(pWriter);
    close(pOwn->s32Fd);
    delete pOwn;
    return 0;
}

int64_t GetWriteBytes(void *pWriter)
{
    const std::lock_guard<std::mutex> lock(State().mutex);
    if (State().setWriters.count(pWriter) == 0)
    {
        State().s32Strangers += pWriter != nullptr ? 1 : 0;
        return -1;
    }
    return static_cast<WRITER_S *>(pWriter)->s64Bytes;
}

int32_t ReadClose(void *pReader)
{
    const std::lock_guard<std::mutex> lock(State().mutex);
    if (State().setReaders.erase(pReader) == 0)
    {
        State().s32Strangers += 1;
        return -1;
    }
    State().s32ReadCloses += 1;
    delete static_cast<int32_t *>(pReader);
    return 0;
}

int32_t Read(int32_t BACKEND_STATE_S::*ps32Count)
{
    const std::lock_guard<std::mutex> lock(State().mutex);
    return State().*ps32Count;
}

} // namespace

const tagQN_MEDIA_API_S g_stFakeBackend = {WriteOpen, WriteFrame, WriteClose, nullptr, nullptr,      nullptr,
                                           nullptr,   nullptr,    ReadClose,  nullptr, GetWriteBytes};

const tagQN_MEDIA_API_S g_stFakeBackendWithoutReadClose = {
    WriteOpen, WriteFrame, WriteClose, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, GetWriteBytes};

void FAKE_BACKEND_Reset()
{
    FAKE_BACKEND_ReleaseClose();
    const std::lock_guard<std::mutex> lock(State().mutex);
    State().s32Opens = 0;
    State().s32Closes = 0;
    State().s32Frames = 0;
    State().s32ReadCloses = 0;
    State().s32Strangers = 0;
}

int32_t FAKE_BACKEND_Opens()
{
    return Read(&BACKEND_STATE_S::s32Opens);
}

int32_t FAKE_BACKEND_Closes()
{
    return Read(&BACKEND_STATE_S::s32Closes);
}

int32_t FAKE_BACKEND_Frames()
{
    return Read(&BACKEND_STATE_S::s32Frames);
}

int32_t FAKE_BACKEND_OpenNow()
{
    const std::lock_guard<std::mutex> lock(State().mutex);
    return static_cast<int32_t>(State().setWriters.size());
}

int32_t FAKE_BACKEND_Strangers()
{
    return Read(&BACKEND_STATE_S::s32Strangers);
}

int32_t FAKE_BACKEND_ReadCloses()
{
    return Read(&BACKEND_STATE_S::s32ReadCloses);
}

void *FAKE_BACKEND_MakeReader()
{
    int32_t *pReader = new int32_t(0);
    const std::lock_guard<std::mutex> lock(State().mutex);
    State().setReaders.insert(pReader);
    return pReader;
}

void FAKE_BACKEND_HoldClose(void *pWriter)
{
    State().pHeldWriter = pWriter;
    State().bHold = true;
}

bool FAKE_BACKEND_WaitHeld(int32_t s32Ms)
{
    return TEST_WaitFor([] { return State().s32Held > 0; }, s32Ms);
}

void FAKE_BACKEND_ReleaseClose()
{
    State().bHold = false;
}

#include "slots.h"

#include <atomic>

#include "chance.h"
#include "guarded.h"
#include "watch.h"

using namespace libquarrin;

namespace
{

constexpr int32_t SLOT_DELAY_MS = 60;
constexpr int32_t FRAME_DELAY_MS = 4;

// Stays after its close, so that a late call is seen instead of reading freed memory.
struct WRITER_S
{
    void *pInner = nullptr;
    std::string strPath;
    WRITER_S *pNext = nullptr;
    std::atomic<int32_t> s32Inside{0};
    std::atomic<bool> bClosed{false};
    uint64_t u64Calls = 0; ///< plain: two calls without an order between them are a race for the sanitizer
};

std::atomic<WRITER_S *> g_pWriters{nullptr};
std::atomic<int32_t> g_s32OpenWriters{0};
std::atomic<int32_t> g_s32OpenReaders{0};

constexpr std::memory_order RELAXED = std::memory_order_relaxed;

// One call on a writer.
class CALL
{
public:
    CALL(void *pWriter, const char *pszName) : m_pWriter(static_cast<WRITER_S *>(pWriter))
    {
        if (m_pWriter->bClosed.load(RELAXED))
        {
            WATCH_Violation("%s on a closed writer: %s", pszName, m_pWriter->strPath.c_str());
        }
        if (m_pWriter->s32Inside.fetch_add(1, RELAXED) != 0)
        {
            WATCH_Violation("%s during another call: %s", pszName, m_pWriter->strPath.c_str());
        }
        m_pWriter->u64Calls += 1;
        GUARDED_NoteBegun();
    }
    ~CALL()
    {
        m_pWriter->s32Inside.fetch_sub(1, RELAXED);
    }
    CALL(const CALL &) = delete;
    CALL &operator=(const CALL &) = delete;

private:
    WRITER_S *m_pWriter;
};

void *WriteOpen(tagQN_RECORD_PARAM_S *pstParam, const char *pszPath)
{
    CHANCE_Delay(SLOT_DELAY_MS);
    void *pInner = CHANCE_In100(3) ? nullptr : FFMUXER_WriteOpen(pstParam, pszPath);
    WATCH_Log("open %s: %s", pszPath, pInner != nullptr ? "done" : "failed");
    if (pInner == nullptr)
    {
        return nullptr;
    }
    WRITER_S *pWriter = new WRITER_S();
    pWriter->pInner = pInner;
    pWriter->strPath = pszPath;
    pWriter->pNext = g_pWriters.load(RELAXED);
    while (!g_pWriters.compare_exchange_weak(pWriter->pNext, pWriter, RELAXED))
    {
    }
    g_s32OpenWriters.fetch_add(1, RELAXED);
    WATCH_Count(WATCH_E_FILES);
    CHANCE_Delay(SLOT_DELAY_MS);
    return pWriter;
}

int32_t WriteFrame(void *pWriter, const unsigned char *pu8Data, uint32_t u32Len, uint64_t u64Pts, bool bKey,
                   bool bVideo)
{
    if (pWriter == nullptr)
    {
        return -1;
    }
    const CALL call(pWriter, "a frame");
    CHANCE_Delay(FRAME_DELAY_MS);
    if (CHANCE_In100(2))
    {
        return -5;
    }
    WATCH_Count(WATCH_E_FRAMES);
    return FFMUXER_WriteFrame(static_cast<WRITER_S *>(pWriter)->pInner, pu8Data, u32Len, u64Pts, bKey, bVideo);
}

int32_t WriteClose(void *pWriter)
{
    if (pWriter == nullptr)
    {
        return -1;
    }
    const CALL call(pWriter, "a close");
    WRITER_S *pOwn = static_cast<WRITER_S *>(pWriter);
    CHANCE_Delay(SLOT_DELAY_MS);
    if (pOwn->bClosed.exchange(true, RELAXED))
    {
        return -1;
    }
    const int32_t s32Result = FFMUXER_WriteClose(pOwn->pInner);
    WATCH_Log("closed %s", pOwn->strPath.c_str());
    g_s32OpenWriters.fetch_sub(1, RELAXED);
    CHANCE_Delay(SLOT_DELAY_MS);
    return s32Result;
}

int64_t GetWriteBytes(void *pWriter)
{
    if (pWriter == nullptr)
    {
        return -1;
    }
    const CALL call(pWriter, "a byte count");
    CHANCE_Delay(FRAME_DELAY_MS);
    return FFMUXER_GetWriteBytes(static_cast<WRITER_S *>(pWriter)->pInner);
}

void *ReadOpen(tagQN_REPLAY_PARAM_S *, const char *, QN_FILE_FMT_E)
{
    WATCH_Violation("a replay's open reader is opened again");
    return nullptr;
}

int32_t ReadMetadata(void *pReader, tagQN_METADATA_S *pstMetadata)
{
    GUARDED_NoteBegun();
    CHANCE_Delay(FRAME_DELAY_MS);
    return FFMUXER_ReadMetadata(pReader, pstMetadata);
}

int32_t ReadGetFrame(void *pReader, uint8_t **ppu8Data, uint32_t *pu32Size, uint64_t *pu64Pts, bool *pbKey,
                     bool *pbVideo)
{
    GUARDED_NoteBegun();
    CHANCE_Delay(FRAME_DELAY_MS);
    return FFMUXER_ReadGetFrame(pReader, ppu8Data, pu32Size, pu64Pts, pbKey, pbVideo);
}

int32_t ReadReleaseFrame(void *pReader, uint8_t *pu8Data)
{
    GUARDED_NoteBegun();
    CHANCE_Delay(FRAME_DELAY_MS);
    return FFMUXER_ReadReleaseFrame(pReader, pu8Data);
}

int32_t ReadSeek(void *pReader, uint32_t u32Seconds)
{
    GUARDED_NoteBegun();
    CHANCE_Delay(FRAME_DELAY_MS);
    return FFMUXER_ReadSeek(pReader, u32Seconds);
}

int32_t ReadClose(void *pReader)
{
    CHANCE_Delay(SLOT_DELAY_MS);
    g_s32OpenReaders.fetch_sub(1, RELAXED);
    return FFMUXER_ReadClose(pReader);
}

} // namespace

const tagQN_MEDIA_API_S g_stStressApi = {WriteOpen,        WriteFrame, WriteClose, ReadOpen, ReadMetadata, ReadGetFrame,
                                         ReadReleaseFrame, ReadSeek,   ReadClose,  nullptr,  GetWriteBytes};

int32_t SLOTS_OpenWriters()
{
    return g_s32OpenWriters.load(RELAXED);
}

int32_t SLOTS_OpenReaders()
{
    return g_s32OpenReaders.load(RELAXED);
}

void SLOTS_NoteReader()
{
    g_s32OpenReaders.fetch_add(1, RELAXED);
}

const std::string &SLOTS_PathOf(void *pWriter)
{
    return static_cast<WRITER_S *>(pWriter)->strPath;
}

void SLOTS_Forget()
{
    WRITER_S *pWriter = g_pWriters.exchange(nullptr);
    while (pWriter != nullptr)
    {
        WRITER_S *pNext = pWriter->pNext;
        if (!pWriter->bClosed)
        {
            WATCH_Violation("never closed: %s", pWriter->strPath.c_str());
        }
        delete pWriter;
        pWriter = pNext;
    }
}

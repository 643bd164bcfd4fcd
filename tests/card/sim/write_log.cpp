// The log. See the header.

#include "write_log.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>

constexpr size_t BLOCK_BYTES = 4096;
constexpr size_t SECTOR_BYTES = 512;
constexpr uint32_t TORN_ONE_IN = 8;
constexpr size_t LIE_ENTRIES = 64; // as much as a card that lies keeps to itself

/// A part of a write that lies in one block.
struct PIECE_S
{
    size_t uOffset;
    size_t uBytes;
    const uint8_t *pu8Data;
};

static bool ReadAll(const std::string &strPath, std::vector<uint8_t> &vecBytes)
{
    std::ifstream file(strPath, std::ios::binary | std::ios::ate);
    const std::streamoff sBytes = file.tellg();
    if (sBytes < 0)
    {
        return false;
    }
    vecBytes.resize(static_cast<size_t>(sBytes));
    file.seekg(0);
    file.read(reinterpret_cast<char *>(vecBytes.data()), static_cast<std::streamsize>(sBytes));
    return file.good();
}

bool WRITE_LOG::Load(const std::string &strLog, const std::string &strBase)
{
    m_vecEntries.clear();
    m_uSettled = 0;
    if (!ReadAll(strLog, m_vecBytes) || !ReadAll(strBase, m_vecBase))
    {
        return false;
    }
    m_vecSettled = m_vecBase;
    size_t uAt = 0;
    while (uAt + sizeof(WRITE_LOG_ENTRY_S) <= m_vecBytes.size())
    {
        m_vecEntries.push_back(uAt);
        const WRITE_LOG_ENTRY_S stHead = Head(m_vecEntries.size() - 1);
        uAt += sizeof(stHead) + stHead.u32Bytes;
        if (uAt > m_vecBytes.size() || (stHead.s64Offset != WRITE_LOG_FLUSH &&
                                        static_cast<size_t>(stHead.s64Offset) + stHead.u32Bytes > m_vecBase.size()))
        {
            return false;
        }
    }
    return uAt == m_vecBytes.size();
}

WRITE_LOG_ENTRY_S WRITE_LOG::Head(size_t uEntry) const
{
    WRITE_LOG_ENTRY_S stHead; // the data before it has any length
    memcpy(&stHead, m_vecBytes.data() + m_vecEntries[uEntry], sizeof(stHead));
    return stHead;
}

const uint8_t *WRITE_LOG::Data(size_t uEntry) const
{
    return m_vecBytes.data() + m_vecEntries[uEntry] + sizeof(WRITE_LOG_ENTRY_S);
}

void WRITE_LOG::Apply(size_t uEntry, std::vector<uint8_t> &vecImage) const
{
    if (!IsFlush(uEntry))
    {
        const WRITE_LOG_ENTRY_S stHead = Head(uEntry);
        memcpy(vecImage.data() + stHead.s64Offset, Data(uEntry), stHead.u32Bytes);
    }
}

void WRITE_LOG::Settle(size_t uEntries)
{
    if (uEntries < m_uSettled)
    {
        m_vecSettled = m_vecBase;
        m_uSettled = 0;
    }
    for (; m_uSettled < uEntries; m_uSettled++)
    {
        Apply(m_uSettled, m_vecSettled);
    }
}

static void CutUp(const WRITE_LOG_ENTRY_S &stHead, const uint8_t *pu8Data, std::vector<PIECE_S> &vecPieces)
{
    size_t uDone = 0;
    while (uDone < stHead.u32Bytes)
    {
        const size_t uOffset = static_cast<size_t>(stHead.s64Offset) + uDone;
        const size_t uBytes = std::min(BLOCK_BYTES - uOffset % BLOCK_BYTES, stHead.u32Bytes - uDone);
        vecPieces.push_back({uOffset, uBytes, pu8Data + uDone});
        uDone += uBytes;
    }
}

static void Put(const PIECE_S &stPiece, size_t uFrom, size_t uTo, std::vector<uint8_t> &vecImage)
{
    memcpy(vecImage.data() + stPiece.uOffset + uFrom, stPiece.pu8Data + uFrom, uTo - uFrom);
}

// Some of its sectors: those before a point, as when the power goes, or any, as when flash is written in parallel.
static void PutTorn(const PIECE_S &stPiece, std::mt19937 &random, std::vector<uint8_t> &vecImage)
{
    const size_t uSectors = stPiece.uBytes / SECTOR_BYTES;
    const size_t uEnd = random() % (uSectors + 1);
    const bool bAny = random() % 2 == 0;
    for (size_t i = 0; i < uSectors; i++)
    {
        if (bAny ? random() % 2 == 0 : i < uEnd)
        {
            Put(stPiece, i * SECTOR_BYTES, (i + 1) * SECTOR_BYTES, vecImage);
        }
    }
}

static void PutSome(std::vector<PIECE_S> &vecPieces, std::mt19937 &random, std::vector<uint8_t> &vecImage)
{
    const size_t uPercent = 1 + random() % 99;
    std::shuffle(vecPieces.begin(), vecPieces.end(), random);
    for (const PIECE_S &stPiece : vecPieces)
    {
        if (random() % 100 >= uPercent)
        {
            continue;
        }
        if (random() % TORN_ONE_IN == 0)
        {
            PutTorn(stPiece, random, vecImage);
        }
        else
        {
            Put(stPiece, 0, stPiece.uBytes, vecImage);
        }
    }
}

// In order up to a block that is torn.
static void PutUpTo(const std::vector<PIECE_S> &vecPieces, std::mt19937 &random, std::vector<uint8_t> &vecImage)
{
    const size_t uTorn = vecPieces.empty() ? 0 : random() % vecPieces.size();
    for (size_t i = 0; i < uTorn; i++)
    {
        Put(vecPieces[i], 0, vecPieces[i].uBytes, vecImage);
    }
    if (!vecPieces.empty())
    {
        PutTorn(vecPieces[uTorn], random, vecImage);
    }
}

size_t WRITE_LOG::BehindFlush(size_t uEntries) const
{
    while (uEntries > 0 && !IsFlush(uEntries - 1))
    {
        uEntries--;
    }
    return uEntries;
}

void WRITE_LOG::Build(const WRITE_LOG_CUT_S &stCut, std::vector<uint8_t> &vecImage)
{
    const bool bLies = stCut.enLoss == WRITE_LOG_LOSS_LIES;
    const size_t uFlush = bLies ? stCut.uEntries - std::min(stCut.uEntries, LIE_ENTRIES) : BehindFlush(stCut.uEntries);
    Settle(uFlush);
    vecImage = m_vecSettled;
    std::mt19937 random(stCut.u32Seed);
    std::vector<PIECE_S> vecPieces;
    for (size_t i = uFlush; i < stCut.uEntries; i++)
    {
        const bool bLast = i + 1 == stCut.uEntries;
        if (bLies || stCut.enLoss == WRITE_LOG_LOSS_BLOCKS || (stCut.enLoss == WRITE_LOG_LOSS_TORN && bLast))
        {
            CutUp(Head(i), Data(i), vecPieces);
        }
        else if (stCut.enLoss != WRITE_LOG_LOSS_WRITES || random() % 2 == 0)
        {
            Apply(i, vecImage);
        }
    }
    if (stCut.enLoss == WRITE_LOG_LOSS_TORN)
    {
        PutUpTo(vecPieces, random, vecImage);
    }
    else
    {
        PutSome(vecPieces, random, vecImage);
    }
}

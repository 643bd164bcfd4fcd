// The boxes of an MP4 or MOV file. See the header.

#include "boxes.h"

#include <cstdint>
#include <cstring>
#include <fstream>

static constexpr uint64_t HEADER_BYTES = 8;
static constexpr uint64_t SIZE_TO_THE_END = 0;
static constexpr uint64_t SIZE_BEHIND_THE_TYPE = 1; // in eight bytes

static uint64_t BigEndian(const unsigned char *pu8Bytes, int32_t s32Count)
{
    uint64_t u64Value = 0;
    for (int32_t i = 0; i < s32Count; ++i)
    {
        u64Value = u64Value << 8 | pu8Bytes[i];
    }
    return u64Value;
}

bool TOOL_BOXES_AreWhole(const std::string &strPath)
{
    std::ifstream file(strPath, std::ios::binary | std::ios::ate);
    const auto u64Size = file ? static_cast<uint64_t>(file.tellg()) : 0;
    uint64_t u64Pos = 0;
    bool bMovie = false;
    while (u64Pos < u64Size)
    {
        unsigned char au8Header[2 * HEADER_BYTES] = {};
        file.clear();
        file.seekg(static_cast<std::streamoff>(u64Pos));
        file.read(reinterpret_cast<char *>(au8Header), sizeof(au8Header)); // less at the end: zeros
        bMovie = bMovie || memcmp(au8Header + 4, "moov", 4) == 0;
        uint64_t u64Box = BigEndian(au8Header, 4);
        if (u64Box == SIZE_TO_THE_END)
        {
            u64Box = u64Size - u64Pos;
        }
        else if (u64Box == SIZE_BEHIND_THE_TYPE)
        {
            u64Box = BigEndian(au8Header + HEADER_BYTES, 8);
        }
        if (u64Box < HEADER_BYTES || u64Box > u64Size - u64Pos)
        {
            return false;
        }
        u64Pos += u64Box;
    }
    return bMovie;
}

// AAC: the AudioSpecificConfig that an ADTS header stands for.
// Threads: any. Locks: none.

#include "libquarrin/stream.h"

#include "util/log.h"

uint16_t AAC_GET_AUDIO_SPECIFIC_CONFIG(unsigned char *pu8Adts)
{
    QN_TRACE("Get ADTS: %02x %02x %02x %02x %02x %02x %02x \n", pu8Adts[0], pu8Adts[1], pu8Adts[2], pu8Adts[3],
             pu8Adts[4], pu8Adts[5], pu8Adts[6]);
    // ISO/IEC 14496-3, 1.A.3.2: the fixed header.
    const uint32_t u32ObjectType = (pu8Adts[2] >> 6) + 1u;
    const uint32_t u32Index = (pu8Adts[2] >> 2) & 15u;
    const uint32_t u32Channels = (pu8Adts[2] & 1u) << 2 | pu8Adts[3] >> 6;
    QN_TRACE("Parse ADTS: t:%d s:%d c:%d\n", static_cast<int>(u32ObjectType), static_cast<int>(u32Index),
             static_cast<int>(u32Channels));
    const uint32_t u32Byte0 = u32ObjectType << 3 | u32Index >> 1;
    const uint32_t u32Byte1 = (u32Index << 7 | u32Channels << 3) & 0xffu;
    return static_cast<uint16_t>(u32Byte0 | u32Byte1 << 8);
}

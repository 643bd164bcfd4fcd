// One reader's frame as a host holds it, and what a get, a release or a seek may answer.
#ifndef QUARRIN_TESTS_FUZZ_FRAME_OUT_H
#define QUARRIN_TESTS_FUZZ_FRAME_OUT_H

#include <cstdint>

#include "fuzz.h"

/// The frame that is out, if any.
struct FRAME_OUT_S
{
    bool bOut = false;
    uint8_t *pu8Data = nullptr;
    uint32_t u32Size = 0;

    /// Reads the frame to its last byte.
    void Read() const
    {
        volatile uint8_t u8Sum = 0;
        for (uint32_t i = 0; bOut && i < u32Size; ++i)
        {
            u8Sum = static_cast<uint8_t>(u8Sum + pu8Data[i]);
        }
    }

    /// A get has answered.
    void Got(int32_t s32Result, uint8_t *pu8NewData, uint32_t u32NewSize)
    {
        if (bOut)
        {
            FUZZ_Check(s32Result == 1, "a second frame is refused while one is out");
            Read(); // and the first one is still valid
            return;
        }
        FUZZ_Check(s32Result == 0 || s32Result == 8 || s32Result == 9 || s32Result == 10, "a get has known answers");
        if (s32Result == 0)
        {
            bOut = true;
            pu8Data = pu8NewData;
            u32Size = u32NewSize;
            Read();
        }
    }

    /// A release of pu8Given has answered.
    void Released(int32_t s32Result, const uint8_t *pu8Given)
    {
        FUZZ_Check(s32Result == (bOut ? 0 : -1), "a release says whether a frame was out");
        bOut = bOut && pu8Given != pu8Data;
        Read();
    }
};

#endif

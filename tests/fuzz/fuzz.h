// What the fuzz targets share: a quiet utility layer, a scratch folder, a reader of inputs, a handle that is stepped.
#ifndef QUARRIN_TESTS_FUZZ_H
#define QUARRIN_TESTS_FUZZ_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "libquarrin.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pu8Data, size_t size);

/// Ends the process with a sentence when something that always holds does not; the fuzzer keeps the input.
void FUZZ_Check(bool bHolds, const char *pszWhat);

/// Takes values from the front of an input. Behind its end everything is zero.
class FUZZ_INPUT
{
public:
    FUZZ_INPUT(const uint8_t *pu8Data, size_t size) : m_pu8Data(pu8Data), m_size(size)
    {
    }

    bool IsEmpty() const
    {
        return m_size == 0;
    }
    uint8_t U8();
    uint32_t U32();
    int64_t S64();
    /// A length byte, and so many bytes, without those that are zero.
    std::string Text();
    /// All that is left.
    std::string Rest();

private:
    const uint8_t *m_pu8Data;
    size_t m_size;
};

/// A folder of this process in $TMPDIR, or else in /tmp; it is removed when the process ends by itself.
const std::string &FUZZ_Scratch();

/// From now on what FFmpeg says counts as coverage.
void FUZZ_ListenToFFmpeg();

/// Log lines of one level that the library has written so far.
uint32_t FUZZ_Logs(int32_t s32Level);

/// A mounted handle without threads, made at the first call: its monitor and its dispatcher are stepped by the target.
/// The mount directory is FUZZ_Scratch()/mnt; volume 0 "rec" and volume 1 "event" are enabled, their folders are there.
libquarrin::tagQN_HANDLER_S *FUZZ_Handle();

/// Empties the event ring of the handle.
void FUZZ_ClearRing(libquarrin::tagQN_HANDLER_S *pHandle);

/// Writes a file.
void FUZZ_WriteFile(const std::string &strPath, const std::string &strBytes);

#endif

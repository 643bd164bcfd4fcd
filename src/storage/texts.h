// Short texts that need no memory. QN_STORAGE_PrettierSize and QN_STORAGE_PrettierTime give the same as strings.
// Threads: any. Locks: none.
#ifndef QUARRIN_STORAGE_TEXTS_H
#define QUARRIN_STORAGE_TEXTS_H

#include <cstdint>
#include <ctime>

namespace libquarrin
{

/// Room for one of the texts.
struct tagQN_TEXT_S
{
    char szText[96]; // six ints of any value fit
};

/// As QN_STORAGE_PrettierSize.
tagQN_TEXT_S QN_TEXT_Size(uint64_t u64Bytes);

/// As QN_STORAGE_PrettierTime.
tagQN_TEXT_S QN_TEXT_Time(time_t tTime);

} // namespace libquarrin

#endif

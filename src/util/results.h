// Names of the public status codes.
#ifndef QUARRIN_UTIL_RESULTS_H
#define QUARRIN_UTIL_RESULTS_H

#include <cstdint>

namespace libquarrin
{

constexpr uint32_t QN_RET_OK = 0;
constexpr uint32_t QN_RET_NULL_HANDLE = 1; ///< null handle or session; for the init calls: an output that is set
constexpr uint32_t QN_RET_NULL_PARAM = 2;  ///< null parameter or data
constexpr uint32_t QN_RET_STATE = 3;       ///< wrong state or busy
constexpr uint32_t QN_RET_NO_MEMORY = 6;
constexpr uint32_t QN_RET_OPEN = 7;      ///< a writer or reader could not be opened; a file is missing or unusable
constexpr uint32_t QN_RET_NO_READER = 8; ///< a replay handler has no open reader

} // namespace libquarrin

#endif

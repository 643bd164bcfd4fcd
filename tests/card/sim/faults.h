// System calls that fail or are slow, in this process or, as LD_PRELOAD, in another program.
//
// The library stands before the C library in the search order of names. It takes the calls open, write, rename, unlink
// (remove too), statfs (statvfs), mkdir, sync (fsync) and socket; the first six count only below a path.
// In another program it reads QN_FAULT_CALL, QN_FAULT_PATH, QN_FAULT_NTH, QN_FAULT_TIMES, QN_FAULT_ERRNO (a number) and
// QN_FAULT_DELAY_MS once, at the start.
// Threads: any.
#ifndef QUARRIN_TESTS_CARD_SIM_FAULTS_H
#define QUARRIN_TESTS_CARD_SIM_FAULTS_H

#include <cstdint>

enum FAULT_CALL_E : int32_t
{
    FAULT_CALL_OPEN,
    FAULT_CALL_WRITE,
    FAULT_CALL_RENAME,
    FAULT_CALL_UNLINK,
    FAULT_CALL_STATFS,
    FAULT_CALL_MKDIR,
    FAULT_CALL_SYNC,
    FAULT_CALL_SOCKET, ///< netlink sockets
    FAULT_CALL_COUNT
};

/// What happens to the calls of one kind.
struct FAULT_S
{
    int32_t s32Nth = 0;     ///< the first call that is touched, from 1; 0 touches none
    int32_t s32Times = 1;   ///< how many from then on; negative: all
    int32_t s32Errno = 0;   ///< fails with this, without being made; 0: it is made
    int32_t s32DelayMs = 0; ///< takes so much longer
};

/// Hears of a rename (by its old name), unlink or sync: before it is made, and behind it when it succeeded. Runs in the
/// thread of the call.
typedef void (*FAULT_WATCH)(FAULT_CALL_E enCall, const char *pszPath, bool bAfter);

extern "C"
{
    /// Calls count below this path from now on; all counts begin anew and no fault is set. Null or empty: none counts.
    void FAULTS_Begin(const char *pszPath);

    /// Sets the fault of one kind of call; its count goes on.
    void FAULTS_Set(FAULT_CALL_E enCall, const FAULT_S *pstFault);

    /// Calls of one kind since FAULTS_Begin.
    int32_t FAULTS_Count(FAULT_CALL_E enCall);

    /// Calls of one kind that were touched since FAULTS_Begin.
    int32_t FAULTS_Touched(FAULT_CALL_E enCall);

    /// Tells a function of every rename, unlink and sync below the path from now on; null: none. Stays over
    /// FAULTS_Begin.
    void FAULTS_Watch(FAULT_WATCH pfnWatch);
}

#endif

// Thread utility: named long-lived worker threads with a run flag, and detached one-shot jobs.
#ifndef UTIL_THREAD_H
#define UTIL_THREAD_H

#include <atomic>
#include <cstdint>
#include <pthread.h>

#include "bu_platform.h"

/// One long-lived worker, embedded in its owner's record, or one one-shot job.
struct tagPTHREAD_DATA_S
{
    pthread_t tid = 0;                 ///< the thread, once created; written by the owner
    std::atomic<int32_t> s32Run{0};    ///< 1: keep calling the step; 0: stop. Written by the owner, read by the worker
    char szName[32] = {};              ///< name of the thread, zero-filled; the kernel shows 15 characters of it
    void (*pfnFunc)(void *) = nullptr; ///< step of a long-lived worker, or the job of a one-shot thread
    void *pArg = nullptr;              ///< argument of pfnFunc; borrowed
    bool bNoThread = false;            ///< tid is no thread: its start failed, or it was joined or detached; owner only
};

/// Fills a record for a long-lived worker; starts nothing.
///
/// \param pData    the record; the caller's.
/// \param pszName  name, copied; at most 31 bytes are kept. Null is refused.
/// \param pfnFunc  step function; it returns regularly, since the run flag is looked at only between two steps.
/// \param pArg     its argument; must stay valid until the thread has ended.
///
/// \return 0 done; -1 pszName is null (printed through BSP_PrintLog at level 3; the record is untouched).
///
/// Threads: the owner's, before UTIL_THREAD_Create.
QN_API int32_t UTIL_THREAD_InitData(tagPTHREAD_DATA_S *pData, const char *pszName, void (*pfnFunc)(void *), void *pArg);

/// Starts the worker of a record: it takes its name, then calls the step until the run flag is not 1.
///
/// A positive error number of pthread_create is reported as success, as it always was; the record remembers that no
/// thread exists, so that UTIL_THREAD_Destory does not wait for one.
///
/// \param pData  a record filled by UTIL_THREAD_InitData; must stay valid until the thread has ended.
/// \param pAttr  thread attributes, or null for the default ones; borrowed for the call.
///
/// \return 0; -1 when pthread_create gave a negative result (printed at level 3).
///
/// Threads: the owner's.
QN_API int32_t UTIL_THREAD_Create(tagPTHREAD_DATA_S *pData, pthread_attr_t *pAttr);

/// Stops a worker. The spelling of the name is the promised one.
///
/// \param pData  the record.
/// \param bJoin  true: wait for the end of the step that is running; false: detach, the thread ends on its own.
///
/// \return 0.
///
/// Threads: the owner's; with bJoin never the worker itself.
/// Blocks:  with bJoin for the rest of the running step.
QN_API int32_t UTIL_THREAD_Destory(tagPTHREAD_DATA_S *pData, tagBU_BOOL bJoin);

/// Calls a function once on a detached thread of its own.
///
/// Writes three marker lines to standard output first; hosts look for them in their boot logs.
///
/// \param pfnFunc  the job; may be null (nothing is called then).
/// \param pArg     its argument.
///
/// \return 0; -1 when the thread could not be created (printed at level 3; the job does not run).
///
/// Threads: any.
QN_API int32_t UTIL_THREAD_RunFuncAsync(void (*pfnFunc)(void *), void *pArg);

#endif

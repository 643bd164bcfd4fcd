// The event queue of a handle, its dispatcher, and the handlers that the dispatcher calls.
#ifndef LIBQUARRIN_EVENTS_H
#define LIBQUARRIN_EVENTS_H

#include "libquarrin/handle.h"

namespace libquarrin
{

/// Empties the queue, opens it and starts the event thread; QN_Init calls it. Returns 0.
///
/// A thread that cannot be started is logged as an error, and the queue counts as shut down: events are dropped, nobody
/// waits. A split then finishes its old file in the frame call.
QN_API int32_t QN_EVENT_Init(tagQN_HANDLER_S *pHandle);

/// Shuts the queue down and joins the event thread; QN_Destroy calls it. Returns 0.
///
/// Events that are still queued are not handled; producers that wait for room return.
///
/// Blocks: for the handler that is running.
QN_API int32_t QN_EVENT_Destroy(tagQN_HANDLER_S *pHandle);

/// Queues an event for the event thread.
///
/// The queue holds four; a producer waits for room without a time limit. A push by a handler, on the event thread
/// itself, does not wait: the event takes the next slot that becomes free, before any other producer's. After the
/// queue was shut down the event is dropped without a message.
///
/// \param pHandle    the handle.
/// \param enEvent    the event.
/// \param spPayload  shared with the queue; what each event needs is said at QN_EVENT_E.
///
/// \return 0, also for a dropped event.
///
/// Threads: any.
/// Locks:   mutexEvent. Call it holding no lock that a handler takes (mutexState, a list's, a session's).
/// Blocks:  while the queue is full.
QN_API int32_t QN_EVENT_PushEvent(tagQN_HANDLER_S *pHandle, QN_EVENT_E enEvent, std::shared_ptr<void> spPayload);

/// One step of the dispatcher: waits at most one second for an event and handles it.
///
/// \param pHandle  the tagQN_HANDLER_S.
///
/// Threads: the event thread.
QN_API void QN_EVENT_ProcessThread(void *pHandle);

/// The device appeared: mounts its partition. Event thread; takes mutexState and runs the mount command under it.
QN_API int32_t QN_EVENT_HandleHotplugIn(tagQN_HANDLER_S *pHandle);

/// The device went away: record sessions go to QN_RECORD_STATE_STOPPING, replays lose their readers, files that were
/// split off are finished, and the unmount command runs. Event thread; takes mutexState, the lists' mutexes and the
/// sessions'.
QN_API int32_t QN_EVENT_HandleHotplugOut(tagQN_HANDLER_S *pHandle);

/// The partition was mounted: makes the volume folders, unless it was unmounted by the library meanwhile. Event thread.
QN_API int32_t QN_EVENT_HandleMountDone(tagQN_HANDLER_S *pHandle);

/// A format ended well: mounts the new partition. Event thread; takes mutexState.
QN_API int32_t QN_EVENT_HandleFormatSuccess(tagQN_HANDLER_S *pHandle);

/// A format failed. Event thread; takes mutexState.
QN_API int32_t QN_EVENT_HandleFormatFailed(tagQN_HANDLER_S *pHandle);

/// A file was split off: closes its writer and gives the file its final name, unless that has been done already.
///
/// \param spPayload  a tagQN_AUTO_SPLIT_EVENT_S; shared.
///
/// \return 0 done, or done before; 1 the event carries no writer.
///
/// Threads: the event thread.
/// Locks:   none of a session's.
QN_API int32_t QN_EVENT_HandleRecordAutoSplit(tagQN_HANDLER_S *pHandle, std::shared_ptr<void> spPayload);

} // namespace libquarrin

#endif

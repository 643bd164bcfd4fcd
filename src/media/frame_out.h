// The frame that a reader has handed out, apart from its reader.
// Threads: any; each settles it for itself. Locks: none.
#ifndef QUARRIN_MEDIA_FRAME_OUT_H
#define QUARRIN_MEDIA_FRAME_OUT_H

namespace libquarrin
{

/// From now on FFMUXER_ReadClose, on this thread, hands over the frame that is out instead of freeing it. It is called
/// through a table, which may be a host's with the library's function behind it, or without.
///
/// \param ppFrame  [out] the frame, until it is told otherwise; to be freed by FFREAD_FreeFrameOut. Null: frames are
///                 freed again.
void FFREAD_KeepFrameOut(void **ppFrame);

/// Frees a frame that was handed over, with its bytes. Null is none.
void FFREAD_FreeFrameOut(void *pFrame);

} // namespace libquarrin

#endif

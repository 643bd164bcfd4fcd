// The frame that a reader has handed out, apart from its reader.
// Threads: any; each settles it for itself. Locks: none.
#ifndef QUARRIN_MEDIA_FRAME_OUT_H
#define QUARRIN_MEDIA_FRAME_OUT_H

#include <memory>

namespace libquarrin
{

/// From now on FFMUXER_ReadClose, on this thread, hands over the frame that is out instead of freeing it. It is called
/// through a table, which may be a host's with the library's function behind it, or without.
///
/// \param pspFrame  [out] owns the frame's bytes, until it is told otherwise; null: frames are freed again.
void FFREAD_KeepFrameOut(std::shared_ptr<void> *pspFrame);

} // namespace libquarrin

#endif

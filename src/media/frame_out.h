// The frame that a reader has handed out, apart from its reader.
// Threads: any, serialised by the caller. Locks: none.
#ifndef QUARRIN_MEDIA_FRAME_OUT_H
#define QUARRIN_MEDIA_FRAME_OUT_H

#include <memory>

namespace libquarrin
{

/// Takes the frame that is out away from a reader of FFMUXER_ReadOpen, so that closing the reader leaves it alone.
///
/// \return owns the frame's bytes; null when no frame is out.
std::shared_ptr<void> FFREAD_TakeFrame(void *pReader);

} // namespace libquarrin

#endif

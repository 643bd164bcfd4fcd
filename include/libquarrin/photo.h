// Still pictures from packed RGB. (For I420 see FFMUXER_SaveYuvToJpeg.)
#ifndef LIBQUARRIN_PHOTO_H
#define LIBQUARRIN_PHOTO_H

#include "libquarrin/handle.h"
#include "libquarrin/params.h"

namespace libquarrin
{

/// Still-picture back end.
struct tagQN_PHOTO_API_S
{
    /// Writes one picture. 0.
    uint32_t (*pfnWrite)(const char *pszPath, const uint8_t *pu8Pixels, uint32_t u32Len, tagQN_PHOTO_PARAM_S stParam);
};

/// JPEG through SDL2_image.
extern QN_API const tagQN_PHOTO_API_S qn_photo_api_jpeg;

/// Saves packed 24-bit RGB rows as a JPEG file; prints the parameters and SDL's result.
///
/// A null picture, an empty one, one with a side above 65500, or a pitch too small for the width writes nothing. A
/// link, a FIFO or a device node at the path is taken away first, outside /dev; a folder stays, and the save fails.
///
/// \param pu8Pixels  u32Height rows of u32Pitch bytes; borrowed for the call.
/// \param u32Len     not used.
///
/// \return 0, whether or not a picture was written.
///
/// Threads: any, at the same time on different paths.
QN_API uint32_t JPEG_Write(const char *pszPath, const uint8_t *pu8Pixels, uint32_t u32Len, tagQN_PHOTO_PARAM_S stParam);

/// Saves packed RGB as "/tmp/web_cache/TIME.[COMMENT].jpg". The folder is the host's to make; the storage is not used.
///
/// The save fails unless the folder is a real one that belongs to the caller's effective user and that nobody else may
/// write to (mode 0755 or less).
///
/// \param pHandle     not used; may be null.
/// \param pu8Rgb      as of JPEG_Write.
/// \param u32Len      not used.
/// \param stParam     size and quality.
/// \param pszComment  comment of the name; null for none.
/// \param pszOutPath  [out] the path with its NUL, also when nothing was written; the caller's buffer must hold it (39
///                    bytes and the comment with three more).
///
/// \return 0.
///
/// Threads: any.
QN_API int32_t QN_RecordSaveRGBAsJpeg(tagQN_HANDLER_S *pHandle, const uint8_t *pu8Rgb, uint32_t u32Len,
                                      tagQN_PHOTO_PARAM_S stParam, const char *pszComment, char *pszOutPath);

} // namespace libquarrin

#endif

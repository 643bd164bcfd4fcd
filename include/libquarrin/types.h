// Enumerations and the owned byte buffer that every other header uses.
#ifndef LIBQUARRIN_TYPES_H
#define LIBQUARRIN_TYPES_H

#include <cstdint>

#include "bu_platform.h"
#include "libquarrin/export.h"

namespace libquarrin
{

/// Life of the storage device, held in tagQN_HANDLER_S::enState.
enum QN_STATE_E : int32_t
{
    QN_STATE_E_UNPLUGIN = 0,  ///< no device present; the state of a new handle
    QN_STATE_E_PLUGIN = 1,    ///< device present but not mounted: no partition, mount failed or format failed
    QN_STATE_E_FORMATING = 2, ///< a format is running
    QN_STATE_E_UNMOUNTED = 3, ///< unmounted at the host's request; QN_StorageMount may mount it again
    QN_STATE_E_MOUNTED = 4,   ///< mounted and usable
};

/// Fullness of the storage, held in tagQN_HANDLER_S::enStorageState.
enum QN_STORAGE_STATE_E : int32_t
{
    QN_STORAGE_STATE_E_NORMAL = 0, ///< there is room, or old files are deleted to make it
    QN_STORAGE_STATE_E_FULL = 1,   ///< a volume without automatic deletion reached its quota: frames are dropped
};

/// A volume: one folder of media files with a quota of its own. Index of astVolume and of the quota data.
enum QN_VOLUME_ID_E : int32_t
{
    QN_VOLUME_ID_E_0 = 0, ///< record sessions write here
    QN_VOLUME_ID_E_1 = 1,
    QN_VOLUME_ID_E_2 = 2,
};

/// File system that a format makes.
enum QN_FS_TYPE_E : int32_t
{
    QN_FS_TYPE_E_EXT4 = 1,
    QN_FS_TYPE_E_VFAT = 2,
};

/// Container of a media file. The values 4, 8 and 10 are kept free.
enum QN_FILE_FMT_E : int32_t
{
    QN_FILE_FMT_E_MKV = 0,          ///< Matroska
    QN_FILE_FMT_E_TS = 1,           ///< MPEG-2 transport stream, ISO/IEC 13818-1
    QN_FILE_FMT_E_MP4 = 2,          ///< ISO/IEC 14496-14
    QN_FILE_FMT_E_MOV = 3,          ///< QuickTime
    QN_FILE_FMT_E_WAV = 5,          ///< placeholder
    QN_FILE_FMT_E_WAV_PREALLOC = 6, ///< placeholder
    QN_FILE_FMT_E_AAC = 7,          ///< raw ADTS, ISO/IEC 14496-3
    QN_FILE_FMT_E_JPG = 9,          ///< still picture
    QN_FILE_FMT_E_UNKNOWN = 11,     ///< any other extension
};

/// Internal events of a handle's queue, handled one at a time on its event thread.
enum QN_EVENT_E : int32_t
{
    QN_EVENT_E_HOTPLUG_IN = 0,        ///< the device appeared; no payload
    QN_EVENT_E_HOTPLUG_OUT = 1,       ///< the device went away; no payload
    QN_EVENT_E_FORMAT_SUCCESS = 2,    ///< the format worker is done; no payload
    QN_EVENT_E_FORMAT_FAILED = 3,     ///< the format worker gave up; no payload
    QN_EVENT_E_MOUNT_DONE = 4,        ///< the partition was mounted; no payload
    QN_EVENT_E_RECORD_AUTO_SPLIT = 6, ///< a file was split off; payload tagQN_AUTO_SPLIT_EVENT_S
    QN_EVENT_E_QUOTA_THROTTLE = 7,    ///< a volume has grown; payload QN_VOLUME_ID_E, never null
    QN_EVENT_E_QUOTA_UPDATE = 8,      ///< check a volume now; payload QN_VOLUME_ID_E, never null
};

/// Elementary-stream codec. Values 2 and 3 are refused by the writer.
enum QN_CODEC_TYPE_E : int32_t
{
    QN_CODEC_H264 = 0, ///< ISO/IEC 14496-10, Annex B byte stream
    QN_CODEC_H265 = 1, ///< ISO/IEC 23008-2, Annex B byte stream
    QN_CODEC_AAC = 4,  ///< ISO/IEC 14496-3, with ADTS headers
};

/// Owned byte buffer, passed by value; whoever holds a duplicate frees it with QN_BYTES_free.
struct tagQN_BYTES
{
    uint8_t *pu8Data; ///< bytes from malloc, or null
    uint32_t u32Len;  ///< number of bytes
};

/// Copies a byte buffer.
///
/// \param stSrc  the bytes; borrowed.
///
/// \return a malloc'ed copy that the caller frees with QN_BYTES_free; {null, 0} when the data is null or the length 0.
///
/// Threads: any.
QN_API tagQN_BYTES QN_BYTES_dup(tagQN_BYTES stSrc);

/// Frees a byte buffer and empties it. A null buffer is left as it is, its length too.
///
/// Threads: any; the buffer is the caller's.
QN_API void QN_BYTES_free(tagQN_BYTES &stBytes);

} // namespace libquarrin

#endif

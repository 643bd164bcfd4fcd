// What a handle holds beyond its public fields: a record for each part that has something of its own. Each is made,
// freed and looked into in the folder that it belongs to.
#ifndef QUARRIN_RING_HANDLE_PRIVATE_H
#define QUARRIN_RING_HANDLE_PRIVATE_H

namespace libquarrin
{

struct tagQN_HANDLER_PRIVATE_S
{
    struct tagQN_RING_S *pRing = nullptr;            ///< ring/ring.h
    struct tagQN_PRESENCE_S *pPresence = nullptr;    ///< storage/presence.h
    struct tagQN_CARD_S *pCard = nullptr;            ///< storage/card.h
    struct tagQN_QUOTA_S *pQuota = nullptr;          ///< storage/quota.h
    struct tagQN_SPLITS_S *pSplits = nullptr;        ///< record/split_files.h
    struct tagQN_FRAMES_OUT_S *pFramesOut = nullptr; ///< replay/frames_out.h
    struct tagQN_FORMATS_S *pFormats = nullptr;      ///< core/format.h
    struct UTIL_CALLS_S *pEnds = nullptr; ///< destroys of sessions and closes of replays; QN_Destroy waits for them
};

} // namespace libquarrin

#endif

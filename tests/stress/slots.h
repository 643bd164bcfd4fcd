// The FFmpeg back end with delays and failures in every slot, and an eye on who calls what. It takes no lock.
#ifndef QUARRIN_TESTS_SLOTS_H
#define QUARRIN_TESTS_SLOTS_H

#include <cstdint>
#include <string>

#include "libquarrin.h"

/// The table, for sessions, and for replays that QN_ReplayOpen… has opened with the library's own.
extern const libquarrin::tagQN_MEDIA_API_S g_stStressApi;

/// Writers and readers that are open. A reader counts from SLOTS_NoteReader on.
int32_t SLOTS_OpenWriters();
int32_t SLOTS_OpenReaders();
void SLOTS_NoteReader();

/// Path of an open writer.
const std::string &SLOTS_PathOf(void *pWriter);

/// Frees what is kept of closed writers. No call on one may still come.
void SLOTS_Forget();

#endif

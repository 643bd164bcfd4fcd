// A media back end of the tests' own: real files, counted writers, and writers and readers that can be held up.
#ifndef QUARRIN_TESTS_FAKE_BACKEND_H
#define QUARRIN_TESTS_FAKE_BACKEND_H

#include <cstdint>
#include <string>
#include <vector>

#include "libquarrin.h"

/// The table. Its writers are open files, so that whoever looks at the descriptors of the process sees them.
extern const libquarrin::tagQN_MEDIA_API_S g_stFakeBackend;

/// The same without a slot for closing a reader.
extern const libquarrin::tagQN_MEDIA_API_S g_stFakeBackendWithoutReadClose;

/// Forgets all counts. No writer may be open.
void FAKE_BACKEND_Reset();

int32_t FAKE_BACKEND_Opens();
int32_t FAKE_BACKEND_Closes();
int32_t FAKE_BACKEND_Frames();

/// Writers that are open now.
int32_t FAKE_BACKEND_OpenNow();

/// Calls with a writer or reader that was closed before or never was one. Always to be 0.
int32_t FAKE_BACKEND_Strangers();

/// Readers that were made by FAKE_BACKEND_MakeReader and closed since.
int32_t FAKE_BACKEND_ReadCloses();

/// A reader to be put into a replay handler.
void *FAKE_BACKEND_MakeReader();

/// Holds up the closing of one writer, or of every writer when it is null, until FAKE_BACKEND_ReleaseClose.
void FAKE_BACKEND_HoldClose(void *pWriter = nullptr);
bool FAKE_BACKEND_WaitHeld(int32_t s32Ms = 5000);
void FAKE_BACKEND_ReleaseClose();

#endif

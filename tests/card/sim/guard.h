// Whose a card is, and what becomes of it when its program is killed.
//
// Every card has a directory with a note of its loop device's number, locked by its program. A note without a lock
// means a card without a program: the guard process, which outlives its program for a moment, or the next program takes
// it away.
// Threads: any.
#ifndef QUARRIN_TESTS_CARD_SIM_GUARD_H
#define QUARRIN_TESTS_CARD_SIM_GUARD_H

#include <cstdint>
#include <string>

/// Takes away the cards whose programs have ended, and starts this program's guard. Once per program, at its first
/// card.
void GUARD_Start();

/// Makes a card's directory with an empty, locked note. The note's descriptor; -1 on failure.
int GUARD_MakeDir(std::string &strDir);

/// Writes the number of the card's device into its note.
bool GUARD_WriteNumber(int s32Note, int32_t s32Number);

/// Takes a card away: mounts, device, directory. False when something is still in use.
bool GUARD_Discard(const std::string &strDir, int32_t s32Number);

/// Takes away the cards whose programs have ended; how many.
int32_t GUARD_CleanStale();

#endif

// Watches a stress run: every call of the library has a limit, and what may never be is told at once. Threads are not
// synchronised by it.
#ifndef QUARRIN_TESTS_WATCH_H
#define QUARRIN_TESTS_WATCH_H

#include <cstdint>
#include <string>

/// One call of the library, from its begin to its end. A call that takes too long ends the program, with every running
/// call, the stacks of all threads and the end of the log.
class WATCHED
{
public:
    explicit WATCHED(const char *pszCall);
    ~WATCHED();
    WATCHED(const WATCHED &) = delete;
    WATCHED &operator=(const WATCHED &) = delete;

private:
    const char *m_pszOuter; ///< the call around this one, on the same thread
};

/// Starts and ends the thread that looks at the calls.
void WATCH_Begin();
void WATCH_End();

/// What a run has done.
enum WATCH_E : int32_t
{
    WATCH_E_CALLS, ///< calls that have ended; counted by WATCHED
    WATCH_E_FILES,
    WATCH_E_FRAMES,
    WATCH_E_REPLAYED, ///< frames of replays
    WATCH_E_MOUNTS,
    WATCH_E_PULLS, ///< unmount lines for a card that is mounted and gone
    WATCH_E_FORMATS,
    WATCH_E_MOVES,
    WATCH_E_COUNT,
};

void WATCH_Count(WATCH_E enWhat);
int64_t WATCH_Counted(WATCH_E enWhat);

/// The counts, as "12 calls, 3 files, …".
std::string WATCH_CountsText();

/// Tells of something that may never be; the run ends soon and fails.
void WATCH_Violation(const char *pszFormat, ...) __attribute__((format(printf, 1, 2)));

/// How many there were.
int32_t WATCH_Violations();

/// A line for the log that a failure shows the end of.
void WATCH_Log(const char *pszFormat, ...) __attribute__((format(printf, 1, 2)));

/// Begins the log anew, lest it grow for hours.
void WATCH_ForgetLog();

/// The end of the log, on standard error.
void WATCH_ShowLog();

#endif

// A limit on the time that one call of FFmpeg may take: what spins there cannot be stopped from within.
#ifndef QUARRIN_TESTS_CALL_LIMIT_H
#define QUARRIN_TESTS_CALL_LIMIT_H

/// While it lives, a call runs on this thread; after half a minute (times TEST_SLOW) the whole process ends with a
/// message that names the call. One within another counts as a part of that.
class CALL_LIMIT
{
public:
    /// \param pszCall  name of the call; a text that stays.
    explicit CALL_LIMIT(const char *pszCall);
    ~CALL_LIMIT();
    CALL_LIMIT(const CALL_LIMIT &) = delete;
    CALL_LIMIT &operator=(const CALL_LIMIT &) = delete;
};

#endif

// Catches what the process writes to standard output, on all threads, until it is told to give it back.
#ifndef QUARRIN_TESTS_CAPTURE_H
#define QUARRIN_TESTS_CAPTURE_H

#include <string>

/// Redirects descriptor 1 to a file for its own lifetime.
class STDOUT_CAPTURE
{
public:
    STDOUT_CAPTURE();
    ~STDOUT_CAPTURE();
    STDOUT_CAPTURE(const STDOUT_CAPTURE &) = delete;
    STDOUT_CAPTURE &operator=(const STDOUT_CAPTURE &) = delete;

    /// Everything written so far.
    std::string Text();

    /// How often strPart stands in it.
    int Count(const std::string &strPart);

    /// strPart stands in it.
    bool Has(const std::string &strPart);

    /// A whole line fits an ECMAScript regular expression; for lines that carry a source line number.
    bool HasLine(const std::string &strPattern);

private:
    int m_s32Saved;
    int m_s32File;
};

#endif

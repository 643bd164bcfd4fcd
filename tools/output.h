// Where the tool writes: results to the standard output that it was started with, messages to standard error.
#ifndef QUARRIN_TOOLS_OUTPUT_H
#define QUARRIN_TOOLS_OUTPUT_H

#include <cstddef>
#include <cstdint>
#include <string>

/// Exit statuses of the tool.
constexpr int32_t TOOL_EXIT_GOOD = 0;
constexpr int32_t TOOL_EXIT_FAILED = 1;    ///< the work broke off
constexpr int32_t TOOL_EXIT_BAD_INPUT = 2; ///< nothing was begun

/// Keeps standard output for results and moves descriptor 1 to standard error.
///
/// The library prints on standard output, so this comes before the first call of it.
///
/// \return false when the descriptors cannot be had.
bool TOOL_OUTPUT_Init();

/// Without this the chatter of library and FFmpeg is dropped; with it, it goes to standard error.
void TOOL_OUTPUT_SetVerbose(bool bVerbose);

/// The kept descriptor of standard output.
int32_t TOOL_OUTPUT_Fd();

/// Writes a result. False when nobody takes it any more.
bool TOOL_OUTPUT_Write(const std::string &strText);

/// Writes one line about the work on standard error, behind a progress line if there is one.
void TOOL_OUTPUT_Say(const char *pszFormat, ...) __attribute__((format(printf, 1, 2)));

/// Shows how the work goes: rewritten in place on a terminal, a plain line elsewhere.
void TOOL_OUTPUT_Progress(const std::string &strText);

/// Text with control characters escaped, safe for a terminal.
std::string TOOL_OUTPUT_Printable(const std::string &strText);

#endif

// What became of the files of a recording.
#ifndef QUARRIN_TOOLS_RECORD_RESULT_H
#define QUARRIN_TOOLS_RECORD_RESULT_H

#include <ctime>
#include <string>
#include <vector>

/// Prints the path of every finished file as a result, and says which files were thrown away, could not be finished or
/// removed, or cannot be read again: each one is opened before it is a result.
///
/// \param vecPaths  in-progress paths of the files, in their order; the session that wrote them is destroyed.
/// \param tEnd      when the recording was stopped.
///
/// \return false when a file is left that is no whole recording.
bool TOOL_RECORD_Report(const std::vector<std::string> &vecPaths, time_t tEnd);

#endif

// What became of the files of a recording.
#ifndef QUARRIN_TOOLS_RECORD_RESULT_H
#define QUARRIN_TOOLS_RECORD_RESULT_H

#include <ctime>
#include <string>
#include <vector>

/// Prints the path of every finished file as a result, and says which files were thrown away or could not be finished.
///
/// \param vecPaths  in-progress paths of the files, in their order; the session that wrote them is destroyed.
/// \param tEnd      when the recording was stopped.
void TOOL_RECORD_Report(const std::vector<std::string> &vecPaths, time_t tEnd);

#endif

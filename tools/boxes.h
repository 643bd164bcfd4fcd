// The boxes of an MP4 or MOV file (ISO/IEC 14496-12, 4.2).
#ifndef QUARRIN_TOOLS_BOXES_H
#define QUARRIN_TOOLS_BOXES_H

#include <string>

/// The outermost boxes cover the file to its last byte, and one of them is the movie box. A file whose trailer found no room
/// may lack its last tables alone, and opens all the same.
///
/// \param strPath  path of a file; false when it cannot be read.
bool TOOL_BOXES_AreWhole(const std::string &strPath);

#endif

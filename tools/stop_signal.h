// Ctrl-C, SIGTERM and SIGHUP: asked for, not obeyed at once, so that the file can be finished.
#ifndef QUARRIN_TOOLS_STOP_SIGNAL_H
#define QUARRIN_TOOLS_STOP_SIGNAL_H

/// Catches the three signals and ignores SIGPIPE, so that a reader that goes away does not take a recording with it.
void TOOL_STOP_Catch();

/// True once one of them came.
bool TOOL_STOP_Asked();

#endif

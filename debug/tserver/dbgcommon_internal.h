// Shared by the files of the accessor unit alone.

#ifndef OPTMONITORING_DBGCOMMON_INTERNAL_H
#define OPTMONITORING_DBGCOMMON_INTERNAL_H

#include "dbgcommon.h"
#include "dprintf.h"

// Logs TEXT and the pending exception in the failures domain of the process-wide log when it is open, then clears the
// exception: accessors leave none pending.
void log_and_clear(const char* text);

#endif

// Shared by the files of the file-identity unit alone.

#ifndef OPTMONITORING_FILEOPS_INTERNAL_H
#define OPTMONITORING_FILEOPS_INTERNAL_H

#include "fileops.h"

// The filenames channel when it writes to a Python file, else null.
static inline tSingleDPData* filenames_channel(const tFileOpsData* data)
{
    tSingleDPData* channel = data->dp ? XPy_Load(&data->dp->filenames) : nullptr;
    return channel && valid_single_dp_py_file(channel) ? channel : nullptr;
}

// Logs in the filenames domain; arguments are evaluated only when it writes to a Python file.
#define DO_FILENAMES(data, ...)                                             \
    do {                                                                    \
        if (tSingleDPData* filenames_channel_ptr = filenames_channel(data)) \
            do_dp(filenames_channel_ptr, __VA_ARGS__);                      \
    } while (0)

// Frees TEXT, which the record has handed out, as soon as no operation uses the record: at once, or later.
void free_when_unused(tFileOpsData* data, void* text);

#endif

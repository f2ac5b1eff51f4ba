// Shared by the files of the log alone.

#ifndef OPTMONITORING_DPRINTF_INTERNAL_H
#define OPTMONITORING_DPRINTF_INTERNAL_H

#include "dprintf.h"

// Whether a message or an exception is being produced on the channel.
static inline bool is_producing(const tSingleDPData* channel)
{
    return XPy_Load(&channel->in_dprint_count) != 0;
}

// Takes the channel for one message or one exception: false when one is being produced already, by whatever thread.
static inline bool begin_message(tSingleDPData* channel)
{
    if (gIsLockOff) {
        int idle = 0;
        return __atomic_compare_exchange_n(&channel->in_dprint_count, &idle, 1, false, __ATOMIC_ACQUIRE,
                                           __ATOMIC_RELAXED);
    }
    channel->in_dprint_count = 1;
    return true;
}

static inline void end_message(tSingleDPData* channel)
{
    __atomic_store_n(&channel->in_dprint_count, XPy_Load(&channel->in_dprint_count) - 1, __ATOMIC_RELEASE);
}

#endif

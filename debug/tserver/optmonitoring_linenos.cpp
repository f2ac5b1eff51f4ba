// A look into the set of breakpoint lines that settles most LINE events without a call.
//
// A line number's hash is the number itself, and the look-up of a set begins at the entry that the hash's low bits
// name: when that entry has never been used, the line is surely absent. No code of the program can run on the way, so
// nothing needs to be held. Every other case, a collision included, is left to the interpreter's own look-up.

#include "optmonitoring_fastpath_internal.h"

tLinenoPeek gLinenoPeek;

// PYVERSIONS: the versions whose sets and ints have the layout of the tables.
static constexpr int kFirstMinor = 12;
static constexpr int kLastMinor = 15;

void init_lineno_peek(void)
{
    // Without a known place of the count the build is free-threaded: its sets change under their readers.
    bool is_known = api.major_version == 3 && api.minor_version >= kFirstMinor && api.minor_version <= kLastMinor &&
                    api.pyobject_offsets.refcnt != -1;
    if (!is_known)
        return;
    gLinenoPeek.set_mask = FindFieldOffset("mask", py3d12_set_fields);
    gLinenoPeek.set_table = FindFieldOffset("table", py3d12_set_fields);
    gLinenoPeek.int_tag = FindFieldOffset("lv_tag", py3d12_int_fields);
    gLinenoPeek.int_digit = FindFieldOffset("ob_digit", py3d12_int_fields);
    gLinenoPeek.set_type = api.PySet_Type_ptr;
}

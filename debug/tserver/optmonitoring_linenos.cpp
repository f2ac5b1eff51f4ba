// A look into the set of breakpoint lines that settles LINE events without a call.
//
// A line number's hash is the number itself, and the look-up of a set begins at the entry that the hash's low bits
// name: when that entry has never been used, the line is no member. Where another line is there, the look goes on:
// over the whole of a small table, for the hash alone; in a larger one along the entries that the interpreter would
// visit. No code of the program can run meanwhile, so with the interpreter lock nothing needs to be held; without it
// only frozensets are looked into, which somebody holds. A key of another type with the hash of the line is left to
// the interpreter's own look-up, which compares.

#include "optmonitoring_fastpath_internal.h"

tLinenoPeek gLinenoPeek;

void init_lineno_peek(void)
{
    const XPy_ShortcutOffsets& offsets = gIsLockOff ? gSharedShortcutOffsets : gShortcutOffsets;
    if (offsets.set_table == -1 || offsets.int_tag == -1)
        return;
    gLinenoPeek.set_mask = offsets.set_mask;
    gLinenoPeek.set_table = offsets.set_table;
    gLinenoPeek.int_tag = offsets.int_tag;
    gLinenoPeek.int_digit = offsets.int_digit;
    // Without the interpreter lock a set may change while it is being looked into.
    gLinenoPeek.set_type =
        gIsLockOff ? static_cast<PyTypeObject*>(XPy_LookupPythonFunction("PyFrozenSet_Type")) : api.PySet_Type_ptr;
}

// PYVERSIONS: how set_lookkey() of Objects/setobject.c goes on after an entry that is taken.
static constexpr size_t kLinearProbes = 9;
static constexpr int kPerturbShift = 5;

static constexpr size_t kScannedMask = 31;  // tables of up to 32 entries are scanned
static constexpr size_t kUnrolled = 8;      // no table is smaller

// The verdict over an entry whose hash is that of the line.
static inline tLinenoFound judge_key(const tSetEntry* entry, size_t hash)
{
    return get_plain_lineno(entry->key) == hash ? kLinenoPresent : kLinenoOpen;
}

// In what order the interpreter visits the entries does not matter, unless two have the hash.
static tLinenoFound scan(const tSetEntry* table, size_t mask, size_t hash)
{
    tLinenoFound found = kLinenoAbsent;
    for (const tSetEntry* entry = table; entry <= table + mask; entry += kUnrolled) {
#pragma GCC unroll 8
        for (size_t k = 0; k < kUnrolled; k++) {
            if (XPY_UNLIKELY(entry[k].hash == static_cast<Py_ssize_t>(hash))) {
                if (found != kLinenoAbsent)
                    return kLinenoOpen;
                found = judge_key(entry + k, hash);
            }
        }
    }
    return found;
}

// Whether the interpreter's look-up ends at this entry, or compares the key before it goes on.
static inline bool is_end(const tSetEntry* entry, size_t hash)
{
    return entry->hash == static_cast<Py_ssize_t>(hash) || !entry->key;
}

static tLinenoFound judge_end(const tSetEntry* entry, size_t hash)
{
    return entry->key ? judge_key(entry, hash) : kLinenoAbsent;
}

static tLinenoFound probe(const tSetEntry* table, size_t mask, size_t hash)
{
    size_t perturb = hash;
    for (size_t i = hash & mask;; i = (i * 5 + 1 + perturb) & mask) {
        const tSetEntry* entry = table + i;
        if (i + kLinearProbes <= mask) {
#pragma GCC unroll 9
            for (size_t k = 0; k < kLinearProbes; k++, entry++) {
                if (is_end(entry, hash))
                    return judge_end(entry, hash);
            }
        }
        if (is_end(entry, hash))
            return judge_end(entry, hash);
        perturb >>= kPerturbShift;
    }
}

tLinenoFound find_lineno_behind(const tSetEntry* table, size_t mask, size_t hash)
{
    const tSetEntry* first = table + (hash & mask);
    if (first->hash == static_cast<Py_ssize_t>(hash))
        return judge_key(first, hash);
    return mask <= kScannedMask ? scan(table, mask, hash) : probe(table, mask, hash);
}

/* One symbol for each name that the binding table may look up, second names and Unicode variants included. They are
   weak: what stub_python.c defines stands. Nothing calls or reads them; an exception's variable points at an object
   of its own. */

#define STUB_SYMBOL(name) __attribute__((weak)) char name[16];

#define LISTED_FN(entry, presence) STUB_SYMBOL(entry)
#define LISTED_EXC(exception)          \
    static char exception##_object[8]; \
    __attribute__((weak)) void* exception = exception##_object;
#define LISTED_TYPE(entry, symbol, presence) STUB_SYMBOL(symbol)
#include "xpy_c_api_entry_list.inc"

STUB_SYMBOL(Py_IsFinalizing)
STUB_SYMBOL(PyUnstable_Code_GetExtra)
STUB_SYMBOL(PyUnstable_Code_SetExtra)
STUB_SYMBOL(PyUnstable_Eval_RequestCodeExtraIndex)

STUB_SYMBOL(_PyUnicodeUCS2_AsString)
STUB_SYMBOL(_PyUnicodeUCS4_AsString)
#define STUB_VARIANTS(suffix) STUB_SYMBOL(PyUnicodeUCS2##suffix) STUB_SYMBOL(PyUnicodeUCS4##suffix)
STUB_VARIANTS(_Contains)
STUB_VARIANTS(_AsEncodedString)
STUB_VARIANTS(_AsUTF8)
STUB_VARIANTS(_AsUTF8AndSize)
STUB_VARIANTS(_FromEncodedObject)
STUB_VARIANTS(_FromFormatV)
STUB_VARIANTS(_FromFormat)
STUB_VARIANTS(_FromString)
STUB_VARIANTS(_FromStringAndSize)
STUB_VARIANTS(_FromWideChar)
STUB_SYMBOL(PyUnicode_AsUTF8)

// Number built-ins beside the integer family: powermod, sign, int2text, text2int, max
// and min. They hold no state: each body reads its evaluated arguments (borrowed),
// works on PARI values between the stack mark and the top, resets the stack to the mark
// and gives a new cell, or its own call when an argument is symbolic (category 7 and
// above). The table is installed by the session with the other built-in tables.
#pragma once

#include "MFN_table.h"

extern const MFN_builtin_table MAR_number_builtins;

// Names of the error and warning numbers.
//
// The enum MER_code holds every number of MER_codes.def under its name, plus the request
// MER_REPEAT_LAST, which has no text of its own. The underlying type is long, the type
// of an error number everywhere else, so a name passes wherever a number is taken.
// Positive numbers are errors, negative ones warnings; syntax errors of the reader are
// numbered from MER_FIRST_SYNTAX on.
#pragma once

enum MER_code : long {
#define MER_CODE(name, number, text) name = number,
#include "MER_codes.def"
#undef MER_CODE
    // Reports the last error again and leaves with its number.
    MER_REPEAT_LAST = 1400,
};

constexpr long MER_FIRST_SYNTAX = MER_UNEXPECTED_END;

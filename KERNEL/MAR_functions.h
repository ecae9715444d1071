// The one-argument number functions (abs, ceil, floor, frac, isprime, nextprime, fact,
// round, trunc): one shared front (code 1000) and a numeric back end for each.
#pragma once

#include "MFN_table.h"

extern const MFN_builtin_table MAR_function_builtins;

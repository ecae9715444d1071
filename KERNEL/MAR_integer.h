// The integer built-ins over PARI: the gcd family (igcd, ilcm, igcdex), factoring and
// primes (ifactor, ithprime, phi, isqrt). Each takes its evaluated arguments; a symbolic
// argument (category 7 and above) leaves the call as it is, and numbers are read through
// MAR_get, so special floats are refused. Results are new cells; nothing is kept between
// calls.
#pragma once

#include "MFN_table.h"

extern const MFN_builtin_table MAR_integer_builtins;

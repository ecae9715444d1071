// The residue built-ins: `_mod` (the operator `mod`), `modp`, `mods` and `_div` (the
// operator `div`). They hold no state: each body reads its two evaluated operands and
// gives a new number through MAR_binop, or its own call when an operand is symbolic.
#pragma once

#include "MFN_table.h"

extern const MFN_builtin_table MAR_modular_builtins;

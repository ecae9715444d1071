// The residue built-ins. Operands are integers or rationals; the modulus (divisor) is an
// integer. A rational dividend is taken modulo m through its modular inverse (1/3 mod 5
// is 2); `div` gives the floor of the quotient. `_mod` and `modp` give the residue in
// 0 .. |m| - 1, `mods` the symmetric one in -|m|/2 .. |m|/2. Any other operand that is
// not a number leaves the call as it is; another number is refused.
#include "MAR_modular.h"

#include <string>

#include "MAR_numbers.h"
#include "MAR_pari.h"
#include "MER_error.h"
#include "MMM_ident.h"
#include "MMM_values.h"

namespace {

bool is_integer(Cell c) { return MMM_category(c) == DOM_INT || MMM_category(c) == CAT_BIG_INT; }
bool is_rational(Cell c) { return is_integer(c) || MMM_category(c) == DOM_RAT; }

// The common body: two evaluated operands (the front checked the count).
Cell residue(Cell e, int op) {
    Cell a = MMM_child(e, 1);
    Cell b = MMM_child(e, 2);
    if (!MAR_is_number(a) || !MAR_is_number(b)) return MMM_retained(e);
    if (!is_rational(a) || !is_rational(b)) {
        const std::string name(MMM_ident_text(MMM_child(e, 0)));
        MER_raise(MER_ILLEGAL_ARGUMENT, name.c_str());
    }
    // PARI would take a rational modulus as a real one; a residue class needs an integer.
    if (!is_integer(b)) MAR_pari_error(315);
    return MAR_binop(a, b, nullptr, op);
}

Cell builtin_mod(Cell e, int, unsigned, Cell) { return residue(e, MAR_MOD); }
Cell builtin_modp(Cell e, int, unsigned, Cell) { return residue(e, MAR_MOD); }
Cell builtin_mods(Cell e, int, unsigned, Cell) { return residue(e, MAR_MODS); }
Cell builtin_div(Cell e, int, unsigned, Cell) { return residue(e, MAR_DIV); }

const MFN_builtin builtins[] = {
    {.name = "_mod", .routine = builtin_mod, .args = {2, 2}},
    {.name = "modp", .routine = builtin_modp, .args = {2, 2}},
    {.name = "mods", .routine = builtin_mods, .args = {2, 2}},
    {.name = "_div", .routine = builtin_div, .args = {2, 2}},
};

}  // namespace

const MFN_builtin_table MAR_modular_builtins = builtins;

// The one-argument number functions of code 1000: abs, ceil, floor, frac, isprime,
// nextprime, fact, round, trunc. A shared front takes the call; each function's numeric
// back end works on a number.
#include <pari/pari.h>

#include <string>

#include "MAR_numbers.h"
#include "MAR_pari.h"
#include "MER_error.h"
#include "MAR_functions.h"
#include "MFN_layout.h"
#include "MFN_table.h"
#include "MMM_ident.h"
#include "MMM_values.h"

namespace {

std::string name_of(Cell e) { return std::string(MMM_ident_text(MMM_child(e, 0))); }

bool is_integer(Cell c) { return MMM_category(c) == DOM_INT || MMM_category(c) == CAT_BIG_INT; }

// The front of code 1000 (one argument, declared in the table below): numbers go to the
// function's numeric back end, anything else stays as the call. (ceil, floor, frac, round
// and trunc will look for a number inside a symbolic argument once floats of expressions
// exist.)
Cell front_1000(Cell e, int context, unsigned flags, Cell exec) {
    Cell x = MMM_child(e, 1);
    if (!MAR_is_number(x)) return MMM_retained(e);
    Cell numeric = MMM_child(exec, MFN_EXEC_NUMERIC);
    if (numeric == MMM_NIL || !MMM_code_routine(numeric)) return MMM_retained(e);
    return MMM_code_routine(numeric)(e, context, flags, exec);
}

Cell with_pari(Cell x, GEN (*fn)(GEN)) {
    GEN v = fn(MAR_at_precision(MAR_get(x)));
    return MAR_from_pari(v, true);
}

GEN abs_at_precision(GEN x) { return gabs(x, MAR_pari_precision); }

Cell numeric_abs(Cell e, int, unsigned, Cell) { return with_pari(MMM_child(e, 1), abs_at_precision); }
Cell numeric_ceil(Cell e, int, unsigned, Cell) { return with_pari(MMM_child(e, 1), gceil); }
Cell numeric_floor(Cell e, int, unsigned, Cell) { return with_pari(MMM_child(e, 1), gfloor); }
Cell numeric_frac(Cell e, int, unsigned, Cell) { return with_pari(MMM_child(e, 1), gfrac); }
Cell numeric_round(Cell e, int, unsigned, Cell) { return with_pari(MMM_child(e, 1), ground); }
Cell numeric_trunc(Cell e, int, unsigned, Cell) { return with_pari(MMM_child(e, 1), gtrunc); }

void need_integer(Cell e) {
    if (!is_integer(MMM_child(e, 1))) MER_raise(MER_INTEGER_EXPECTED, name_of(e).c_str());
}

Cell numeric_isprime(Cell e, int, unsigned, Cell) {
    need_integer(e);
    Cell x = MMM_child(e, 1);
    if (MAR_compare(x, MAR_ZERO) <= 0) return MMM_retained(MMM_FALSE);
    const bool prime = isprime(MAR_get(x));
    MAR_reset_to_mark();
    return MMM_retained(prime ? MMM_TRUE : MMM_FALSE);
}

Cell numeric_nextprime(Cell e, int, unsigned, Cell) {
    need_integer(e);
    return MAR_from_pari(nextprime(MAR_get(MMM_child(e, 1))), true);
}

Cell numeric_fact(Cell e, int, unsigned, Cell) {
    Cell x = MMM_child(e, 1);
    if (MMM_category(x) == CAT_BIG_INT) {
        if (MAR_compare(x, MAR_ZERO) < 0) MER_raise(MER_NONNEGATIVE_INTEGER_EXPECTED, "specfunc::fact");
        MER_raise(MER_INTEGER_TOO_LARGE, "specfunc::fact");
    }
    if (MMM_category(x) != DOM_INT || MAR_small_int(x) < 0) MER_raise(MER_NONNEGATIVE_INTEGER_EXPECTED, "specfunc::fact");
    return MAR_from_pari(mpfact(MAR_small_int(x)), true);
}

}  // namespace

const MFN_builtin function_builtins[] = {
    {.name = "abs", .routine = front_1000, .numeric = numeric_abs, .args = {1, 1}},
    {.name = "ceil", .routine = front_1000, .numeric = numeric_ceil, .args = {1, 1}},
    {.name = "floor", .routine = front_1000, .numeric = numeric_floor, .args = {1, 1}},
    {.name = "frac", .routine = front_1000, .numeric = numeric_frac, .args = {1, 1}},
    {.name = "round", .routine = front_1000, .numeric = numeric_round, .args = {1, 1}},
    {.name = "trunc", .routine = front_1000, .numeric = numeric_trunc, .args = {1, 1}},
    {.name = "isprime", .routine = front_1000, .numeric = numeric_isprime, .args = {1, 1}},
    {.name = "nextprime", .routine = front_1000, .numeric = numeric_nextprime, .args = {1, 1}},
    {.name = "fact", .routine = front_1000, .numeric = numeric_fact, .args = {1, 1}},
};
const MFN_builtin_table MAR_function_builtins = function_builtins;

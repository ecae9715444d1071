// Relations and truth values. An equation stays an equation as a value (equations are
// data: table entries, substitutions); an order relation of two numbers or two strings
// becomes its truth value at once. Where a truth value is needed, MEV_truth decides
// what is left.
#include "MEV_relations.h"

#include <string_view>

#include "MAR_numbers.h"
#include "MCM_equal.h"
#include "MER_error.h"
#include "MEV_builtins.h"
#include "MEV_eval.h"
#include "MMM_ident.h"
#include "MMM_values.h"

namespace {

bool is_real(Cell v) {
    const int c = MMM_category(v);
    return c == CAT_BIG_INT || c == DOM_INT || c == DOM_RAT || c == DOM_FLOAT;
}

Cell bool_cell(bool b) { return MMM_retained(b ? MMM_TRUE : MMM_FALSE); }

// The order of a and b: -1, 0 or 1 for two real numbers or two strings (byte by byte,
// a prefix first), 2 when they have none.
int order_of(Cell a, Cell b) {
    if (is_real(a) && is_real(b)) return MAR_order(a, b);
    if (MMM_category(a) == DOM_STRING && MMM_category(b) == DOM_STRING) {
        const int r = MMM_string_view(MMM_child(a, 0)).compare(MMM_string_view(MMM_child(b, 0)));
        return r < 0 ? -1 : r > 0 ? 1 : 0;
    }
    return 2;
}

int from_bool(bool b) { return b ? MMM_BOOL_TRUE : MMM_BOOL_FALSE; }

// and/or over the truth values of the operands: a deciding operand (FALSE for and, TRUE
// for or) decides whatever the others are; else one without a truth value leaves none,
// else UNKNOWN makes UNKNOWN.
int connective(Cell v, bool is_and) {
    const int stop = is_and ? MMM_BOOL_FALSE : MMM_BOOL_TRUE;
    bool undecided = false, unknown = false;
    for (long i = 1; i <= MEV_nargs(v); ++i) {
        const int t = MEV_truth(MEV_arg(v, i));
        if (t == stop) return stop;
        undecided |= t == 0;
        unknown |= t == MMM_BOOL_UNKNOWN;
    }
    if (undecided) return 0;
    return unknown ? MMM_BOOL_UNKNOWN : is_and ? MMM_BOOL_TRUE : MMM_BOOL_FALSE;
}

Cell builtin_equation(Cell e, int, unsigned, Cell) { return MMM_retained(e); }

Cell builtin_order(Cell e, int, unsigned, Cell) {
    if (MEV_nargs(e) != 2) return MMM_retained(e);
    const int r = order_of(MEV_arg(e, 1), MEV_arg(e, 2));
    if (r == 2) return MMM_retained(e);
    return bool_cell(MMM_is_call_of(e, MFN_ID_LESS) ? r < 0 : r <= 0);
}

Cell builtin_bool(Cell e, int, unsigned, Cell) {
    const int t = MEV_truth(MEV_arg(e, 1));
    if (!t) MER_raise(MER_NOT_BOOLEAN, "bool");
    return MMM_retained(t == MMM_BOOL_TRUE ? MMM_TRUE : t == MMM_BOOL_FALSE ? MMM_FALSE : MMM_UNKNOWN);
}

const MFN_builtin builtins[] = {
    {.name = "_equal", .routine = builtin_equation},
    {.name = "_unequal", .routine = builtin_equation},
    {.name = "_less", .routine = builtin_order},
    {.name = "_leequal", .routine = builtin_order},
    {.name = "bool", .routine = builtin_bool, .args = {1, 1}},
};

}  // namespace

const MFN_builtin_table MEV_relation_builtins = builtins;

int MEV_truth(Cell v) {
    if (v == MMM_TRUE) return MMM_BOOL_TRUE;
    if (v == MMM_FALSE) return MMM_BOOL_FALSE;
    if (v == MMM_UNKNOWN) return MMM_BOOL_UNKNOWN;
    if (MMM_category(v) != DOM_EXPR || MMM_child_count(v) < 1) return 0;
    if (MMM_is_call_of(v, MFN_ID_NOT) && MEV_nargs(v) == 1) {
        const int t = MEV_truth(MEV_arg(v, 1));
        return t == MMM_BOOL_TRUE ? MMM_BOOL_FALSE : t == MMM_BOOL_FALSE ? MMM_BOOL_TRUE : t;
    }
    for (int id : {MFN_ID_AND, MFN_ID_LAZY_AND, MFN_ID_OR, MFN_ID_LAZY_OR})
        if (MMM_is_call_of(v, id)) return connective(v, id == MFN_ID_AND || id == MFN_ID_LAZY_AND);
    if (MEV_nargs(v) != 2) return 0;
    Cell a = MEV_arg(v, 1), b = MEV_arg(v, 2);
    if (MMM_is_call_of(v, MFN_ID_EQUAL)) return from_bool(MCM_equal(a, b));
    if (MMM_is_call_of(v, MFN_ID_UNEQUAL)) return from_bool(!MCM_equal(a, b));
    const bool lt = MMM_is_call_of(v, MFN_ID_LESS);
    if (!lt && !MMM_is_call_of(v, MFN_ID_LEEQUAL)) return 0;
    const int r = order_of(a, b);
    return r == 2 ? 0 : from_bool(lt ? r < 0 : r <= 0);
}

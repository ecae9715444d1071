// Canonical arithmetic, the part sums, products and powers share (see MAR_canonical.h
// for the forms): the tests and makers of cells, the folding of numbers, the sign
// convention, float values, the companions _negate, _invert, _subtract and _divide with
// the expression routines they install, the property and float hooks, and the table of
// the seven built-ins with the start of the module. Sums are in MAR_sum.cpp, products in
// MAR_product.cpp, powers in MAR_power.cpp.
#include "MAR_canonical.h"

#include <pari/pari.h>

#include <initializer_list>
#include <utility>
#include <vector>

#include "MAR_canonical_internal.h"
#include "MAR_numbers.h"
#include "MCM_equal.h"
#include "MER_error.h"
#include "MFN_table.h"
#include "MMM_heap.h"
#include "MMM_ident.h"
#include "MMM_ref.h"
#include "MMM_table.h"
#include "MMM_values.h"

namespace MAR_canon {

namespace {

// ---- module state ----

Cell ident_pi = nullptr;
Cell ident_euler = nullptr;
Cell ident_catalan = nullptr;
MAR_property_fn property_reader = nullptr;
MAR_float_fn float_routine = nullptr;

}  // namespace

// ---- reading cells ----

bool holds_float(Cell c) {
    if (!is_number(c)) return false;
    if (MMM_category(c) == DOM_FLOAT) return true;
    if (MMM_category(c) != DOM_COMPLEX) return false;
    return with_value(c, [](GEN v) { return typ(gel(v, 1)) == t_REAL || typ(gel(v, 2)) == t_REAL; });
}

// 0 or 0.0 (a special float is no zero).
bool is_zero(Cell c) {
    if (!is_number(c) || MAR_special(c)) return false;
    if (MMM_category(c) == DOM_INT) return MAR_small_int(c) == 0;
    return with_value(c, [](GEN v) { return bool(gequal0(v)); });
}

bool is_float_zero(Cell c) { return is_number(c) && MMM_category(c) == DOM_FLOAT && is_zero(c); }

bool is_odd(Cell c) {
    if (!is_integer(c)) return false;
    if (MMM_category(c) == DOM_INT) return MAR_small_int(c) & 1;
    return with_value(c, [](GEN v) { return bool(mpodd(v)); });
}

// A real number (not complex, not special) and its sign.
int real_sign(Cell c) {
    if (!is_number(c) || MMM_category(c) == DOM_COMPLEX) return 0;
    if (const int s = MAR_special(c)) return s == MAR_SIGN_NAN ? 0 : s > 0 ? 1 : -1;
    return with_value(c, [](GEN v) { return int(gsigne(v)); });
}

bool is_constant_ident(Cell c) { return c && (c == ident_pi || c == ident_euler || c == ident_catalan); }

// Operators whose expressions stand for sets or truth values.
bool is_set_expression(Cell c) {
    for (int id : {MFN_ID_LESS, MFN_ID_LEEQUAL, MFN_ID_EQUAL, MFN_ID_UNEQUAL, MFN_ID_UNION, MFN_ID_MINUS,
                   MFN_ID_INTERSECT, MFN_ID_AND, MFN_ID_OR, MFN_ID_NOT})
        if (is_op(c, id)) return true;
    return false;
}

// ---- making cells ----

MMM_ref build(int id, std::initializer_list<Cell> ops) {
    Cell e = MMM_make_expr(long(ops.size()) + 1);
    Cell* s = MMM_children(e);
    s[0] = MMM_ident_by_id(id);
    MMM_retain(s[0]);
    long i = 1;
    for (Cell c : ops) {
        MMM_retain(c);
        s[i++] = c;
    }
    MMM_sign(e);
    return MMM_ref(e);
}

MMM_ref build(int id, const Refs& ops) {
    Cell e = MMM_make_expr(long(ops.size()) + 1);
    Cell* s = MMM_children(e);
    s[0] = MMM_ident_by_id(id);
    MMM_retain(s[0]);
    for (size_t i = 0; i < ops.size(); ++i) {
        MMM_retain(ops[i].get());
        s[i + 1] = ops[i].get();
    }
    MMM_sign(e);
    return MMM_ref(e);
}

MMM_ref float_one() {
    const pari_sp av = avma;
    Cell c = MAR_from_pari(real_1(MAR_pari_precision), false);
    set_avma(av);
    return MMM_ref(c);
}
MMM_ref float_zero() {
    const pari_sp av = avma;
    Cell c = MAR_from_pari(real_0(MAR_pari_precision), false);
    set_avma(av);
    return MMM_ref(c);
}

MMM_ref sum(std::initializer_list<Cell> ops) {
    MMM_ref e = build(MFN_ID_PLUS, ops);
    return MMM_ref(MAR_plus(e.get()));
}
MMM_ref product(std::initializer_list<Cell> ops) {
    MMM_ref e = build(MFN_ID_MULT, ops);
    return MMM_ref(MAR_mult(e.get()));
}
MMM_ref product(const Refs& ops) {
    MMM_ref e = build(MFN_ID_MULT, ops);
    return MMM_ref(MAR_mult(e.get()));
}

// The operands of `expr`, with operands of the same operator spliced in.
void flatten_into(Cell expr, int id, Refs& out) {
    for (long i = 1; i <= operand_count(expr); ++i) {
        Cell c = operand(expr, i);
        if (is_op(c, id)) flatten_into(c, id, out);
        else out.push_back(borrowed(c));
    }
}

// ---- folding numbers ----

Folded fold_numbers(const Refs& ops, bool product) {
    Folded f;
    for (const MMM_ref& r : ops)
        if (tag(r.get()) == DOM_INTERVAL || tag(r.get()) == DOM_SET || is_set_expression(r.get())) {
            f.kept = true;
            return f;
        }
    Tournament t(product ? MAR_MULTIPLY : MAR_ADD);
    for (const MMM_ref& r : ops) {
        Cell c = r.get();
        if (tag(c) == DOM_NULL) continue;
        if (is_ident(c)) {
            const unsigned p = MAR_properties(c);
            if (p & MAR_PROP_ZERO) {
                t.add(number(0));
                continue;
            }
            if (p & MAR_PROP_ONE) {
                t.add(number(1));
                continue;
            }
        }
        if (is_number(c)) t.add(borrowed(c));
        else f.others.push_back(borrowed(c));
    }
    f.number = t.finish();
    if (f.number && !f.others.empty()) {
        // A zero factor wins over everything; a unit factor and a zero term go.
        if (product && is_zero(f.number.get())) f.others.clear();
        else if (product ? is_exact_one(f.number.get()) : is_zero(f.number.get())) f.number = MMM_ref();
    }
    return f;
}

// ---- the sign convention ----

bool looks_negative(Cell x, bool deep) {
    if (is_number(x)) return MAR_looks_negative(x);
    if (is_op(x, MFN_ID_NEGATE)) return true;
    if (is_op(x, MFN_ID_MULT) && operand_count(x) >= 1) {
        if (is_number(last_operand(x))) return MAR_looks_negative(last_operand(x));
        if (is_number(operand(x, 1))) return MAR_looks_negative(operand(x, 1));
        return false;
    }
    if (!is_op(x, MFN_ID_PLUS)) return false;  // polynomials have no leading coefficient yet
    const long n = operand_count(x);
    if (!deep) {
        for (long i = 1; i <= n; ++i)
            if (looks_negative(operand(x, i), false)) return true;
        return false;
    }
    long negative = 0;
    std::vector<std::pair<MMM_ref, bool>> items;  // (operand made positive, was negated)
    items.reserve(size_t(n));
    for (long i = 1; i <= n; ++i) {
        const bool ng = looks_negative(operand(x, i), false);
        negative += ng;
        items.emplace_back(ng ? neg(operand(x, i)) : borrowed(operand(x, i)), ng);
    }
    if (2 * negative != n) return 2 * negative > n;
    // A tie: the first operand in the system order decides, numbers and the constants
    // PI, EULER, CATALAN passed over, so that exactly one of s and -s looks negative.
    sort_if_needed(items, [](const auto& a, const auto& b) { return MCM_compare(a.first.get(), b.first.get()) < 0; });
    for (const auto& [c, was_negated] : items)
        if (!is_number(c.get()) && !is_constant_ident(c.get())) return was_negated;
    return false;
}

// ---- the companions ----

MMM_ref negate(Cell x, bool evaluate) {
    if (is_number(x)) return neg(x);
    if (is_poly(x)) return build(MFN_ID_MULT, {x, MAR_MINUS_ONE});
    if (is_op(x, MFN_ID_NEGATE) && operand_count(x) == 1) return borrowed(operand(x, 1));
    if (is_op(x, MFN_ID_MULT) && operand_count(x) >= 1) {
        Refs ops;
        for (long i = 1; i <= operand_count(x); ++i) ops.push_back(borrowed(operand(x, i)));
        if (is_number(ops.back().get())) {
            MMM_ref c = neg(ops.back().get());
            ops.pop_back();
            if (!is_exact_one(c.get())) ops.push_back(std::move(c));
        } else {
            ops.push_back(number(-1));
        }
        if (ops.size() == 1) return std::move(ops[0]);
        return ops.empty() ? number(1) : build(MFN_ID_MULT, ops);
    }
    if (is_op(x, MFN_ID_PLUS)) {
        Refs ops;
        for (long i = 1; i <= operand_count(x); ++i) ops.push_back(MMM_ref(MAR_negate(operand(x, i), evaluate)));
        return build(MFN_ID_PLUS, ops);
    }
    if (is_ident(x) || !evaluate) return build(MFN_ID_MULT, {x, MAR_MINUS_ONE});
    return product({x, MAR_MINUS_ONE});
}

namespace {

MMM_ref invert(Cell x) {
    if (is_number(x)) return MMM_ref(MAR_invert(x));
    if (tag(x) == DOM_INTERVAL || is_ident(x)) return build(MFN_ID_POWER, {x, MAR_MINUS_ONE});
    return power(x, MAR_MINUS_ONE, nullptr);
}

bool expr_looks_negative(Cell x, bool deep) { return looks_negative(x, deep); }
Cell expr_negate(Cell x, bool evaluate) {
    Cell r = negate(x, evaluate).take();
    MAR_CHECK_CANONICAL("_negate", r, {x});
    return r;
}
Cell expr_invert(Cell x) {
    Cell r = invert(x).take();
    MAR_CHECK_CANONICAL("_invert", r, {x});
    return r;
}
Cell expr_subtract(Cell a, Cell b) {
    MMM_ref nb = negate(b, true);
    return sum({a, nb.get()}).take();
}
Cell expr_divide(Cell a, Cell b) {
    MMM_ref ib = invert(b);
    return product({a, ib.get()}).take();
}

}  // namespace

// ---- float values ----

// Numbers, and sums, products and powers of numbers, as float numbers.
MMM_ref float_value(Cell x) {
    if (float_routine) return MMM_ref(float_routine(x));
    if (is_number(x)) {
        if (MAR_special(x)) return borrowed(x);
        const pari_sp av = avma;
        Cell c = MAR_from_pari(MAR_float_parts(MAR_at_precision(MAR_get_raw(x))), false);
        set_avma(av);
        return MMM_ref(c);
    }
    int op = -1;
    if (is_op(x, MFN_ID_PLUS)) op = MAR_ADD;
    else if (is_op(x, MFN_ID_MULT)) op = MAR_MULTIPLY;
    else if (is_op(x, MFN_ID_POWER) && operand_count(x) == 2) op = MAR_POWER;
    if (op < 0 || operand_count(x) < 1) return MMM_ref();
    MMM_ref acc = float_value(operand(x, 1));
    for (long i = 2; acc && i <= operand_count(x); ++i) {
        MMM_ref v = float_value(operand(x, i));
        if (!v) return MMM_ref();
        acc = binop(acc.get(), v.get(), op);
    }
    return acc;
}

// ---- bodies ----

void check_count(Cell expr, long n, const char* name) {
    if (operand_count(expr) != n) MER_raise(MER_WRONG_ARG_COUNT, name);
}

namespace {

// An exact zero divisor of an exact or symbolic dividend.
void check_divisor(Cell dividend, Cell divisor, const char* name) {
    if (is_small(divisor, 0) && !holds_float(dividend)) MER_raise(MER_DIVISION_BY_ZERO, name);
}

Cell body_plus(Cell expr, int, unsigned, Cell) { return MAR_plus(expr); }
Cell body_mult(Cell expr, int, unsigned, Cell) { return MAR_mult(expr); }
Cell body_power(Cell expr, int, unsigned, Cell) { return MAR_power(expr); }
Cell body_negate(Cell expr, int, unsigned, Cell) {
    check_count(expr, 1, "_negate");
    return MAR_negate(operand(expr, 1), true);
}
Cell body_invert(Cell expr, int, unsigned, Cell) {
    check_count(expr, 1, "_invert");
    check_divisor(MAR_ONE, operand(expr, 1), "_invert");
    return MAR_invert(operand(expr, 1));
}
Cell body_subtract(Cell expr, int, unsigned, Cell) {
    check_count(expr, 2, "_subtract");
    return MAR_subtract(operand(expr, 1), operand(expr, 2));
}
Cell body_divide(Cell expr, int, unsigned, Cell) {
    check_count(expr, 2, "_divide");
    check_divisor(operand(expr, 1), operand(expr, 2), "_divide");
    return MAR_divide(operand(expr, 1), operand(expr, 2));
}

}  // namespace

}  // namespace MAR_canon

using namespace MAR_canon;

// ---- entry points ----

void MAR_set_property_reader(MAR_property_fn fn) { property_reader = fn; }

unsigned MAR_properties(Cell x) { return property_reader && is_ident(x) ? property_reader(x) : 0; }

void MAR_set_float_routine(MAR_float_fn fn) { float_routine = fn; }

const MFN_builtin canonical_builtins[] = {
    {.name = "_plus", .routine = body_plus},
    {.name = "_mult", .routine = body_mult},
    {.name = "_power", .routine = body_power},
    {.name = "_negate", .routine = body_negate},
    {.name = "_invert", .routine = body_invert},
    {.name = "_subtract", .routine = body_subtract},
    {.name = "_divide", .routine = body_divide},
};
const MFN_builtin_table MAR_canonical_builtins = canonical_builtins;

void MAR_canonical_start() {
    root_cache = MMM_table_new(0);
    ident_pi = MMM_ident_named("PI");
    ident_euler = MMM_ident_named("EULER");
    ident_catalan = MMM_ident_named("CATALAN");
    for (Cell* root : {&root_cache, &ident_pi, &ident_euler, &ident_catalan}) MMM_add_root(root);
    MAR_expression.looks_negative = expr_looks_negative;
    MAR_expression.negate = expr_negate;
    MAR_expression.invert = expr_invert;
    MAR_expression.divide = expr_divide;
    MAR_expression.subtract = expr_subtract;
}

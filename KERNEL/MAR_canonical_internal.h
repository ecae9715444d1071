// The shared internals of canonical arithmetic: what the sums (MAR_sum.cpp), products
// (MAR_product.cpp), powers (MAR_power.cpp) and the common part (MAR_canonical.cpp) call
// in one another. Not for other modules, which use MAR_canonical.h.
//
// Everything lives in namespace MAR_canon. Cells passed in are borrowed; an MMM_ref that
// comes back owns its reference, and a Refs list owns its cells. Operands are 1-based, as
// child 0 of an expression is its operator. The readers of cells are inline, since the
// routines call them on every operand.
#pragma once

#include <pari/pari.h>

#include <algorithm>
#include <initializer_list>
#include <span>
#include <utility>
#include <vector>

#include "MAR_canonical.h"
#include "MAR_numbers.h"
#include "MCM_equal.h"
#include "MFN_table.h"
#include "MMM_heap.h"
#include "MMM_ident.h"
#include "MMM_ref.h"
#include "MMM_values.h"

namespace MAR_canon {

// ---- owned references ----

// A new count of a borrowed cell, owned.
inline MMM_ref borrowed(Cell c) { return MMM_ref(MMM_retained(c)); }
using Refs = std::vector<MMM_ref>;

// ---- module state ----

constexpr int LEVELS = 19;  // rows of the number tournament

// MMM_HASH: DOM_LIST(base, exponent) to the exact root. Made by MAR_canonical_start, a
// root of the heap; MAR_power.cpp fills and empties it.
extern Cell root_cache;

// ---- reading cells ----

inline int tag(Cell c) { return c && MMM_kind_of(c) == MMM_NODE && c->size >= MMM_NODE_BYTES ? MMM_category(c) : 0x7fff; }

inline bool is_op(Cell c, int id) {
    return c && MMM_is_node(c, DOM_EXPR) && MMM_child_count(c) >= 1 && MMM_child(c, 0) == MMM_ident_by_id(id);
}
inline long operand_count(Cell e) { return MMM_child_count(e) - 1; }
inline Cell operand(Cell e, long i) { return MMM_child(e, i); }  // 1-based
inline Cell last_operand(Cell e) { return MMM_child(e, MMM_child_count(e) - 1); }

inline bool is_number(Cell c) { return MAR_is_number(c); }
inline bool is_integer(Cell c) { return is_number(c) && (MMM_category(c) == DOM_INT || MMM_category(c) == CAT_BIG_INT); }
inline bool is_ident(Cell c) { return c && MMM_is_node(c, DOM_IDENT); }
inline bool is_poly(Cell c) { return tag(c) == DOM_POLY || tag(c) == DOM_RPOLY; }

inline bool has_prop(Cell c, unsigned bits) { return (MAR_properties(c) & bits) != 0; }

// Reads the PARI value of a number for a test and leaves the stack as it was.
template <typename F>
auto with_value(Cell c, F f) {
    const pari_sp av = avma;
    auto r = f(MAR_get_raw(c));
    set_avma(av);
    return r;
}

// The order of factors in a product, for any factor record with the fields `free` (the
// base without its sign, owned), `term`, `integer_exponent` and `number_exponent`: by
// sign-free base, integer exponents first, then number exponents, then by the factor
// itself. The products are sorted by it and the checker tests their order with it.
template <typename Factor>
bool factor_before(const Factor& a, const Factor& b) {
    if (const int r = MCM_compare(a.free.get(), b.free.get())) return r < 0;
    if (a.integer_exponent != b.integer_exponent) return a.integer_exponent;
    if (a.number_exponent != b.number_exponent) return a.number_exponent;
    return MCM_compare(a.term, b.term) < 0;
}

inline bool is_small(Cell c, long v) { return is_number(c) && MMM_category(c) == DOM_INT && MAR_small_int(c) == v; }
inline bool is_exact_one(Cell c) { return is_small(c, 1); }

bool holds_float(Cell c);
// 0 or 0.0 (a special float is no zero).
bool is_zero(Cell c);
bool is_float_zero(Cell c);
bool is_odd(Cell c);
// A real number (not complex, not special) and its sign.
int real_sign(Cell c);
// PI, EULER or CATALAN.
bool is_constant_ident(Cell c);
// Operators whose expressions stand for sets or truth values.
bool is_set_expression(Cell c);

// ---- making cells ----

MMM_ref build(int id, std::initializer_list<Cell> ops);
MMM_ref build(int id, const Refs& ops);
inline MMM_ref number(long n) { return MMM_ref(MAR_from_long(n)); }
inline MMM_ref binop(Cell a, Cell b, int op) { return MMM_ref(MAR_binop(a, b, nullptr, op)); }
MMM_ref float_one();
MMM_ref float_zero();

// ---- the routines ----

MMM_ref plus(Cell expr, const Refs& ops, int round);  // MAR_sum.cpp
MMM_ref mult(Cell expr, const Refs& ops, int round);  // MAR_product.cpp
MMM_ref power(Cell x, Cell y, Cell expr);             // MAR_power.cpp
MMM_ref negate(Cell x, bool evaluate);
bool looks_negative(Cell x, bool deep);
// Numbers, and sums, products and powers of numbers, as float numbers.
MMM_ref float_value(Cell x);

inline MMM_ref neg(Cell x) { return MMM_ref(MAR_negate(x, true)); }
MMM_ref sum(std::initializer_list<Cell> ops);
MMM_ref product(std::initializer_list<Cell> ops);
MMM_ref product(const Refs& ops);

// The operands of `expr`, with operands of the same operator spliced in.
void flatten_into(Cell expr, int id, Refs& out);

// ---- folding numbers ----

struct Folded {
    Refs others;       // the operands that are no numbers, in their order
    MMM_ref number;    // all numbers folded into one, or null
    bool kept = false; // an operand this module does not combine: the expression stays
};

// Numbers pair off as a binary counter does, so that big operands meet operands of like
// size: a new number folds with the one waiting, the result goes into level 0 and
// carries upward while a level is occupied.
class Tournament {
public:
    explicit Tournament(int op) : op_(op) {}
    void add(MMM_ref n) {
        if (!waiting_) {
            waiting_ = std::move(n);
            return;
        }
        MMM_ref c = binop(waiting_.get(), n.get(), op_);
        waiting_ = MMM_ref();
        int i = 0;
        for (; i < LEVELS - 1 && levels_[i]; ++i) {
            c = binop(levels_[i].get(), c.get(), op_);
            levels_[i] = MMM_ref();
        }
        if (levels_[i]) c = binop(levels_[i].get(), c.get(), op_);
        levels_[i] = std::move(c);
    }
    // The remaining levels fold from the lowest upward.
    MMM_ref finish() {
        MMM_ref acc = std::move(waiting_);
        for (auto& level : levels_) {
            if (!level) continue;
            acc = acc ? binop(acc.get(), level.get(), op_) : std::move(level);
        }
        return acc;
    }

private:
    int op_;
    MMM_ref waiting_;
    MMM_ref levels_[LEVELS];
};

// The numbers of a sum (product false) or a product folded into one; sets, intervals and
// set expressions keep the expression.
Folded fold_numbers(const Refs& ops, bool product);

// Sorts by `before` unless the items are in order already, which is the common case.
template <typename T, typename Less>
void sort_if_needed(std::vector<T>& v, Less before) {
    if (!std::is_sorted(v.begin(), v.end(), before)) std::sort(v.begin(), v.end(), before);
}

// Error 1004 with `name` unless `expr` has n operands.
void check_count(Cell expr, long n, const char* name);

// The operands of an expression, for the checks of results.
inline std::span<const Cell> operands_of(Cell expr) {
    return {MMM_children(expr) + 1, size_t(MMM_child_count(expr) - 1)};
}

// Two numbers need no term collection: the number tower adds them directly.
inline bool two_numbers(Cell expr) {
    return MMM_child_count(expr) == 3 && MAR_is_number(MMM_child(expr, 1)) && MAR_is_number(MMM_child(expr, 2));
}

}  // namespace MAR_canon

// Canonical powers: powers of numbers (exact roots through a cache, integer and
// fractional parts split off, (-1)^(p/q), 0^y), powers of symbols, of products and of
// powers, the sign of even powers, and the entry points MAR_power, MAR_power_of and
// MAR_is_even.
#include <pari/pari.h>

#include <utility>

#include "MAR_canonical.h"
#include "MAR_canonical_internal.h"
#include "MAR_numbers.h"
#include "MCM_equal.h"
#include "MER_error.h"
#include "MFN_table.h"
#include "MMM_ref.h"
#include "MMM_table.h"
#include "MMM_values.h"

namespace MAR_canon {

Cell root_cache = nullptr;  // MMM_HASH: DOM_LIST(base, exponent) to the exact root

namespace {

constexpr long ROOT_CACHE_LIMIT = 10000;  // entries before the cache of roots is emptied

bool numeric(Cell c) { return tag(c) < 7 || (is_ident(c) && has_prop(c, MAR_PROP_NUMBER)); }

MMM_ref keep(Cell x, Cell y, Cell expr) { return expr ? borrowed(expr) : build(MFN_ID_POWER, {x, y}); }

// 0^y for a symbolic y, decided by the float value of y.
MMM_ref zero_power(Cell x, Cell y, Cell expr) {
    MMM_ref v = float_value(y);
    if (!v || !is_number(v.get())) return keep(x, y, expr);
    int s;
    if (MMM_category(v.get()) == DOM_COMPLEX) {
        s = with_value(v.get(), [](GEN g) { return int(gsigne(gel(g, 1))); });
        if (s < 0) MER_raise(MER_DIVISION_BY_ZERO, "_power");
        s = 1;
    } else {
        s = real_sign(v.get());
        if (MAR_special(v.get()) == MAR_SIGN_NAN) return keep(x, y, expr);
        if (s < 0) MER_raise(MER_DIVISION_BY_ZERO, "_power");
    }
    const bool fl = holds_float(x);
    if (s == 0) return fl ? float_one() : number(1);
    return fl ? float_zero() : number(0);
}

// The exact root of an integer or a fraction x to the power p/q, or null.
MMM_ref exact_root(Cell x, Cell y) {
    const pari_sp av = avma;
    GEN e = MAR_get_raw(y);
    GEN p = gel(e, 1), q = gel(e, 2);
    GEN v = MAR_get_raw(x);
    GEN parts[2] = {typ(v) == t_FRAC ? gel(v, 1) : v, typ(v) == t_FRAC ? gel(v, 2) : gen_1};
    GEN roots[2];
    bool imaginary = false;
    for (int i = 0; i < 2; ++i) {
        GEN a = parts[i];
        if (equali1(a)) {
            roots[i] = gen_1;
            continue;
        }
        GEN r = nullptr;
        if (equaliu(q, 2)) {
            if (signe(a) < 0) imaginary = true;
            if (!Z_issquareall(absi(a), &r)) r = nullptr;
        } else if (signe(a) > 0 && lgefint(q) == 3) {
            if (!Z_ispowerall(a, itou(q), &r)) r = nullptr;
        }
        if (!r) {
            set_avma(av);
            return MMM_ref();
        }
        roots[i] = r;
    }
    Cell root = MAR_from_pari(gdiv(roots[0], roots[1]), false);
    set_avma(av);
    MMM_ref base(root);
    if (imaginary) base = binop(base.get(), MAR_I, MAR_MULTIPLY);
    MMM_ref exponent(MAR_from_pari(p, false));
    set_avma(av);
    return binop(base.get(), exponent.get(), MAR_POWER);
}

// The exact root of an integer or a fraction, through the cache, which is emptied when
// it has grown beyond its limit.
MMM_ref cached_root(Cell x, Cell y) {
    MMM_ref key = build(MFN_ID_EXPRSEQ, {x, y});
    Cell found = nullptr;
    if (MMM_table_find(root_cache, key.get(), &found) && found) return borrowed(found);
    MMM_ref r = exact_root(x, y);
    if (r) {
        if (MMM_table_count(root_cache) > ROOT_CACHE_LIMIT) {
            MMM_release(root_cache);
            root_cache = MMM_table_new(0);
        }
        MMM_table_set(&root_cache, key.get(), r.get());
    }
    return r;
}

// x^y for an integer x and a rational y: the exact root if there is one, else
// x^f * x^k with k = floor(y), or null when that changes nothing.
MMM_ref integer_power(Cell x, Cell y) {
    if (is_exact_one(x)) return number(1);
    if (MMM_ref r = cached_root(x, y)) return r;
    const pari_sp av = avma;
    GEN e = MAR_get_raw(y);
    GEN k = gfloor(e);
    Cell kc = MAR_from_pari(k, false);
    Cell fc = MAR_from_pari(gsub(e, k), false);
    set_avma(av);
    MMM_ref kr(kc), f(fc);
    MMM_ref coeff = binop(x, kr.get(), MAR_POWER);
    MMM_ref base = borrowed(x);
    if (real_sign(x) < 0 && MCM_equal(f.get(), MAR_HALF)) {
        // sqrt(-n) = I*sqrt(n)
        coeff = binop(coeff.get(), MAR_I, MAR_MULTIPLY);
        base = neg(x);
    }
    if (is_exact_one(coeff.get())) return MMM_ref();
    return build(MFN_ID_MULT, {build(MFN_ID_POWER, {base.get(), f.get()}).get(), coeff.get()});
}

// x^y for a fraction x = a/b and a rational y: the exact root, else a^y * b^(-y) with
// each part as for integers; a numerator 1 leaves the denominator's part alone.
MMM_ref fraction_power(Cell x, Cell y) {
    if (MMM_ref r = cached_root(x, y)) return r;
    const pari_sp av = avma;
    GEN v = MAR_get_raw(x);
    Cell a = MAR_from_pari(gel(v, 1), false);
    Cell b = MAR_from_pari(gel(v, 2), false);
    set_avma(av);
    MMM_ref num(a), den(b);
    MMM_ref minus_y = neg(y);
    const bool unit = is_exact_one(num.get());
    MMM_ref top = unit ? MMM_ref() : integer_power(num.get(), y);
    MMM_ref bottom = integer_power(den.get(), minus_y.get());
    // With a numerator 1 the denominator's power is the result: b^(-y) also when no root
    // or integer part came out of it.
    if (!top && !bottom && !unit) return MMM_ref();
    if (!bottom) bottom = build(MFN_ID_POWER, {den.get(), minus_y.get()});
    if (unit) return bottom;
    if (!top) top = build(MFN_ID_POWER, {num.get(), y});
    return product({top.get(), bottom.get()});
}

// Both operands numeric: numbers, or identifiers that stand for numbers.
MMM_ref number_power(Cell x, Cell y, Cell expr) {
    const unsigned px = MAR_properties(x), py = MAR_properties(y);
    if (is_float_zero(y)) return float_one();
    if (is_small(y, 0) || (py & MAR_PROP_ZERO)) return holds_float(x) ? float_one() : number(1);
    if (is_ident(x) && (is_exact_one(y) || (py & MAR_PROP_ONE))) return borrowed(x);
    if (is_exact_one(x) || (px & MAR_PROP_ONE)) return holds_float(y) ? float_one() : number(1);
    if (is_zero(x) || (px & MAR_PROP_ZERO)) {
        const bool exact = !holds_float(x) && !holds_float(y);
        if (is_ident(y)) {
            if (py & MAR_PROP_NEGATIVE) MER_raise(MER_DIVISION_BY_ZERO, "_power");
            if (!(py & MAR_PROP_POSITIVE)) return keep(x, y, expr);
        } else if (MMM_category(y) == DOM_COMPLEX || real_sign(y) < 0) {
            MER_raise(MER_DIVISION_BY_ZERO, "_power");
        }
        return exact ? number(0) : float_zero();
    }
    if (is_small(x, -1) && tag(y) == DOM_RAT) {
        // (-1)^(p/q): whole turns out of p when |p| >= q, an odd number of them a sign.
        MMM_ref reduced = borrowed(y);
        bool odd = false;
        const pari_sp av = avma;
        GEN e = MAR_get_raw(y);
        if (abscmpii(gel(e, 1), gel(e, 2)) >= 0) {
            GEN r;
            odd = mpodd(dvmdii(gel(e, 1), gel(e, 2), &r));
            reduced = MMM_ref(MAR_from_pari(gdiv(r, gel(e, 2)), false));
        }
        set_avma(av);
        MMM_ref result;
        if (MCM_equal(reduced.get(), MAR_HALF)) result = borrowed(MAR_I);
        else if (MCM_equal(reduced.get(), MAR_MINUS_HALF)) result = neg(MAR_I);
        else if (!odd && reduced.get() == y) return keep(x, y, expr);
        else result = build(MFN_ID_POWER, {x, reduced.get()});
        return odd ? neg(result.get()) : std::move(result);
    }
    const bool idents = is_ident(x) || is_ident(y);
    if (idents || (!is_integer(y) && !holds_float(x) && !holds_float(y))) {
        if (tag(y) != DOM_RAT) return keep(x, y, expr);
        MMM_ref r = is_integer(x) ? integer_power(x, y) : tag(x) == DOM_RAT ? fraction_power(x, y) : MMM_ref();
        return r ? std::move(r) : keep(x, y, expr);
    }
    if (MCM_equal(y, MAR_HALF)) {
        const pari_sp av = avma;
        Cell c = MAR_from_pari(gsqrt(MAR_at_precision(MAR_get(x)), MAR_pari_precision), false);
        set_avma(av);
        return MMM_ref(c);
    }
    return binop(x, y, MAR_POWER);
}

// x symbolic, y numeric.
MMM_ref symbol_power(Cell x, Cell y, Cell expr) {
    const unsigned py = MAR_properties(y);
    if (is_float_zero(y)) return float_one();
    if (is_small(y, 0) || (py & MAR_PROP_ZERO)) return number(1);
    if (is_exact_one(y) || (py & MAR_PROP_ONE)) return borrowed(x);
    if (is_integer(y) && looks_negative(x, true)) {
        MMM_ref nx = negate(x, true);
        MMM_ref r = power(nx.get(), y, nullptr);
        return is_odd(y) ? negate(r.get(), true) : std::move(r);
    }
    if (is_op(x, MFN_ID_POWER) && operand_count(x) == 2) {
        Cell b = operand(x, 1), e = operand(x, 2);
        const bool e_ident = is_ident(e) && has_prop(e, MAR_PROP_REAL);
        if (tag(e) < 5 || e_ident) {
            bool merge = is_integer(y) || has_prop(y, MAR_PROP_INTEGER) || real_sign(b) > 0 ||
                         has_prop(b, MAR_PROP_POSITIVE) || is_constant_ident(b);
            if (!merge && !e_ident) {
                // -1 < e <= 1
                merge = with_value(e, [](GEN g) { return gcmpsg(-1, g) < 0 && gcmpsg(1, g) >= 0; });
            }
            if (merge) {
                MMM_ref ne = !e_ident && !is_ident(y) ? binop(e, y, MAR_MULTIPLY) : product({e, y});
                if (is_exact_one(ne.get())) return borrowed(b);
                return power(b, ne.get(), nullptr);
            }
        }
    }
    return keep(x, y, expr);
}

}  // namespace

MMM_ref power(Cell x, Cell y, Cell expr) {
    if (is_poly(x)) {
        if (tag(y) != DOM_INT) MER_raise(MER_INTEGER_EXPECTED, "_power");
        return keep(x, y, expr);
    }
    if (is_set_expression(x) || tag(x) == DOM_SET || tag(y) == DOM_SET) return keep(x, y, expr);
    for (Cell c : {x, y}) {
        const int t = tag(c);
        if (t == DOM_NULL || t == DOM_NIL || t == DOM_BOOL || t == DOM_FAIL) MER_raise(MER_ILLEGAL_OPERAND, "_power");
    }
    if (tag(x) == DOM_INTERVAL || tag(y) == DOM_INTERVAL) return keep(x, y, expr);
    if (is_integer(y) || (is_ident(y) && has_prop(y, MAR_PROP_INTEGER))) {
        if (is_op(x, MFN_ID_MULT)) {
            Refs factors;
            for (long i = 1; i <= operand_count(x); ++i) factors.push_back(power(operand(x, i), y, nullptr));
            return product(factors);
        }
        if (is_op(x, MFN_ID_POWER) && operand_count(x) == 2) {
            MMM_ref e = product({operand(x, 2), y});
            return power(operand(x, 1), e.get(), nullptr);
        }
    }
    const bool nx = numeric(x), ny = numeric(y);
    if (nx && ny) return number_power(x, y, expr);
    if (nx) {
        const unsigned px = MAR_properties(x);
        if (is_exact_one(x) || (px & MAR_PROP_ONE)) return borrowed(x);
        if (is_zero(x) || (px & MAR_PROP_ZERO)) return zero_power(x, y, expr);
        if (is_small(x, -1)) return MAR_is_even(y) ? number(1) : keep(x, y, expr);
        if (MAR_is_even(y) && looks_negative(x, true)) return build(MFN_ID_POWER, {neg(x).get(), y});
        return keep(x, y, expr);
    }
    if (ny) return symbol_power(x, y, expr);
    if (MAR_is_even(y) && looks_negative(x, true)) return build(MFN_ID_POWER, {negate(x, true).get(), y});
    return keep(x, y, expr);
}

}  // namespace MAR_canon

using namespace MAR_canon;

// ---- entry points ----

Cell MAR_power(Cell expr) {
    check_count(expr, 2, "_power");
    Cell r = power(operand(expr, 1), operand(expr, 2), expr).take();
    MAR_CHECK_CANONICAL("_power", r, operands_of(expr));
    return r;
}

Cell MAR_power_of(Cell x, Cell y) {
    Cell r = power(x, y, nullptr).take();
    MAR_CHECK_CANONICAL("_power", r, {x, y});
    return r;
}

bool MAR_is_even(Cell y) {
    if (is_integer(y)) return !is_odd(y);
    if (!is_op(y, MFN_ID_MULT) || operand_count(y) != 2) return false;
    Cell n = operand(y, 1), k = operand(y, 2);
    return is_integer(k) && !is_odd(k) && (is_integer(n) || (is_ident(n) && has_prop(n, MAR_PROP_INTEGER)));
}

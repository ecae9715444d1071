// Canonical products: the factors of a product as base and exponent, the collection of
// like factors on their sign-free bases (exponents added, signs moved to the
// coefficient), their order, the distribution of a coefficient over a single sum, and the
// entry points MAR_mult and MAR_product_of. Powers of numbers that collection produces are
// computed in MAR_power.cpp.
#include <algorithm>
#include <utility>
#include <vector>

#include "MAR_canonical.h"
#include "MAR_canonical_internal.h"
#include "MAR_numbers.h"
#include "MCM_equal.h"
#include "MFN_table.h"
#include "MMM_ref.h"
#include "MMM_values.h"

namespace MAR_canon {

namespace {

struct Factor {
    Cell term;      // borrowed from the list of factors
    Cell base;      // borrowed: the base of a power, or the term
    Cell exponent;  // borrowed: the exponent of a power, or the shared 1
    MMM_ref free;   // the base without its sign
    bool negated = false;
    bool integer_exponent = true;
    bool number_exponent = true;
};

Factor make_factor(Cell t) {
    Factor f;
    f.term = t;
    if (is_op(t, MFN_ID_POWER) && operand_count(t) == 2) {
        f.base = operand(t, 1);
        f.exponent = operand(t, 2);
        f.number_exponent = is_number(f.exponent);
        f.integer_exponent = is_integer(f.exponent);
    } else {
        f.base = t;
        f.exponent = MAR_ONE;
    }
    f.negated = !is_poly(f.base) && looks_negative(f.base, true);
    f.free = f.negated ? neg(f.base) : borrowed(f.base);
    return f;
}

// The factors and the numeric coefficient of a product under construction.
struct ProductParts {
    Refs factors;
    MMM_ref coeff;     // null for 1
    bool odd = false;  // the sign still owed to the coefficient
    bool split = false;  // a power gave a product, whose factors may meet others

    void multiply(Cell n) { coeff = coeff ? binop(coeff.get(), n, MAR_MULTIPLY) : borrowed(n); }
    // A result that comes back from a power: a number joins the coefficient, a product
    // gives its factors and its coefficient, anything else is a factor.
    void absorb(MMM_ref r) {
        Cell c = r.get();
        if (is_number(c)) {
            multiply(c);
        } else if (is_op(c, MFN_ID_MULT)) {
            split = true;
            for (long i = 1; i <= operand_count(c); ++i) {
                Cell x = operand(c, i);
                if (is_number(x)) multiply(x);
                else factors.push_back(borrowed(x));
            }
        } else {
            factors.push_back(std::move(r));
        }
    }
    // base^e for an exponent sum e: nothing for 0 or 0.0; a number base is evaluated.
    void emit_power(Cell base, Cell e) {
        if (is_zero(e)) return;
        if (is_number(base)) {
            absorb(power(base, e, nullptr));
        } else if (is_exact_one(e)) {
            factors.push_back(borrowed(base));
        } else {
            factors.push_back(build(MFN_ID_POWER, {base, e}));
        }
    }
};

MMM_ref add_or_take(MMM_ref a, Cell b) { return a ? binop(a.get(), b, MAR_ADD) : borrowed(b); }

// One run of factors on the same sign-free base.
void collect_run(std::vector<Factor>& fs, size_t i, size_t j, ProductParts& p) {
    if (is_poly(fs[i].free.get())) {
        for (size_t k = i; k < j; ++k) p.factors.push_back(borrowed(fs[k].term));
        return;
    }
    // Number exponents: one sum on the sign-free base, one on its negation.
    size_t k = i;
    MMM_ref up, down;
    Cell negated_base = nullptr;
    size_t count = 0;
    for (; k < j && fs[k].number_exponent; ++k, ++count) {
        if (fs[k].negated) {
            down = add_or_take(std::move(down), fs[k].exponent);
            negated_base = fs[k].base;
        } else {
            up = add_or_take(std::move(up), fs[k].exponent);
        }
    }
    if (count == 1 && !fs[i].negated) {
        p.factors.push_back(borrowed(fs[i].term));
    } else if (count) {
        Cell free = fs[i].free.get();
        if (down && is_zero(down.get())) down = MMM_ref();
        if (down && is_integer(down.get())) {
            // (-b)^n = (-1)^n * b^n
            if (is_odd(down.get())) p.odd = !p.odd;
            up = add_or_take(std::move(up), down.get());
            down = MMM_ref();
        } else if (down && (!up || is_integer(up.get()))) {
            // b^m = (-1)^m * (-b)^m: all on the negated base
            if (up && is_odd(up.get())) p.odd = !p.odd;
            MMM_ref e = up ? binop(up.get(), down.get(), MAR_ADD) : std::move(down);
            p.emit_power(negated_base, e.get());
            up = MMM_ref();
            down = MMM_ref();
        }
        const size_t mark = p.factors.size();
        if (down) p.emit_power(negated_base, down.get());
        if (up) p.emit_power(free, up.get());
        if (p.factors.size() == mark + 2) {
            // b^u and (-b)^d side by side take the order of factors, like any others.
            Factor a = make_factor(p.factors[mark].get()), b = make_factor(p.factors[mark + 1].get());
            if (factor_before(b, a)) std::swap(p.factors[mark], p.factors[mark + 1]);
        }
    }
    // Other exponents: k identical factors b^e become b^(k*e).
    while (k < j) {
        size_t m = k + 1;
        while (m < j && MCM_equal(fs[k].term, fs[m].term)) ++m;
        if (m - k == 1) {
            p.factors.push_back(borrowed(fs[k].term));
        } else {
            MMM_ref times = number(long(m - k));
            MMM_ref e = product({fs[k].exponent, times.get()});
            p.absorb(power(fs[k].base, e.get(), nullptr));
            // b^(k*e) has its own place among the other powers of b: once more over
            // the whole, which sorts.
            p.split = true;
        }
        k = m;
    }
}

void collect_factors(ProductParts& p) {
    if (p.coeff && MAR_looks_negative(p.coeff.get())) {
        p.coeff = neg(p.coeff.get());
        p.odd = !p.odd;
    }
    if (p.coeff && is_exact_one(p.coeff.get())) p.coeff = MMM_ref();
    Refs input = std::move(p.factors);
    p.factors.clear();
    std::vector<Factor> fs;
    fs.reserve(input.size());
    for (const MMM_ref& r : input) fs.push_back(make_factor(r.get()));
    sort_if_needed(fs, factor_before<Factor>);
    for (size_t i = 0; i < fs.size();) {
        size_t j = i + 1;
        while (j < fs.size() && MCM_equal(fs[i].free.get(), fs[j].free.get())) ++j;
        collect_run(fs, i, j, p);
        i = j;
    }
}

// Puts factors that came out of a product result in their places.
void sort_factors(Refs& factors) {
    std::vector<Factor> fs;
    fs.reserve(factors.size());
    for (const MMM_ref& r : factors) fs.push_back(make_factor(r.get()));
    if (std::is_sorted(fs.begin(), fs.end(), factor_before<Factor>)) return;
    std::sort(fs.begin(), fs.end(), factor_before<Factor>);
    Refs sorted;
    for (const Factor& f : fs) sorted.push_back(borrowed(f.term));
    factors = std::move(sorted);
}

// c*(t1 + ... + tn) as c*t1 + ... + c*tn.
MMM_ref distribute(Cell sum_expr, Cell c) {
    Refs terms;
    for (long i = 1; i <= operand_count(sum_expr); ++i) {
        Cell t = operand(sum_expr, i);
        terms.push_back(is_number(t) ? binop(t, c, MAR_MULTIPLY) : product({t, c}));
    }
    return build(MFN_ID_PLUS, terms);
}

}  // namespace

MMM_ref mult(Cell expr, const Refs& ops, int round) {
    if (ops.empty()) return number(1);
    if (ops.size() == 1) return borrowed(ops[0].get());
    Folded f = fold_numbers(ops, true);
    if (f.kept) return expr ? borrowed(expr) : build(MFN_ID_MULT, ops);
    if (f.others.empty()) return f.number ? std::move(f.number) : number(1);
    if (tag(f.others[0].get()) == DOM_FAIL) return borrowed(MMM_FAIL);
    ProductParts p;
    p.coeff = std::move(f.number);
    for (MMM_ref& r : f.others) {
        if (looks_negative(r.get(), true)) {
            p.odd = !p.odd;
            p.absorb(neg(r.get()));
        } else {
            p.factors.push_back(std::move(r));
        }
    }
    collect_factors(p);
    if (p.odd) p.coeff = p.coeff ? neg(p.coeff.get()) : number(-1);
    if (p.coeff && is_exact_one(p.coeff.get())) p.coeff = MMM_ref();
    if (p.coeff && is_zero(p.coeff.get())) return std::move(p.coeff);
    Refs& ops_out = p.factors;
    if (p.split) {
        // A power of a number gave a product (2^(3/2) is 2*2^(1/2)): once more over the
        // whole, so that its factors merge with the others; a second time only sorts.
        if (round == 0) {
            if (p.coeff) ops_out.push_back(std::move(p.coeff));
            return mult(nullptr, ops_out, 1);
        }
        sort_factors(ops_out);
    }
    if (p.coeff) {
        if (ops_out.size() == 1 && is_op(ops_out[0].get(), MFN_ID_PLUS)) return distribute(ops_out[0].get(), p.coeff.get());
        ops_out.push_back(std::move(p.coeff));
    }
    if (ops_out.empty()) return number(1);
    if (ops_out.size() == 1) return std::move(ops_out[0]);
    MMM_ref result = build(MFN_ID_MULT, ops_out);
    if (expr && MCM_equal(result.get(), expr)) return borrowed(expr);
    return result;
}

}  // namespace MAR_canon

using namespace MAR_canon;

// ---- entry points ----

Cell MAR_mult(Cell expr) {
    if (two_numbers(expr)) return MAR_binop(MMM_child(expr, 1), MMM_child(expr, 2), nullptr, MAR_MULTIPLY);
    Refs ops;
    flatten_into(expr, MFN_ID_MULT, ops);
    Cell r = mult(expr, ops, 0).take();
    MAR_CHECK_CANONICAL("_mult", r, operands_of(expr));
    return r;
}

Cell MAR_product_of(Cell a, Cell b) { return product({a, b}).take(); }


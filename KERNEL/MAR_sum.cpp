// Canonical sums: the terms of a sum with their numeric coefficients, the collection of
// like terms on their sign-free bases and their order, and the entry points MAR_plus and
// MAR_sum_of. Numbers are folded in MAR_canonical.cpp; a collected term with its
// coefficient is made as a product.
#include <utility>
#include <vector>

#include "MAR_canonical.h"
#include "MAR_canonical_internal.h"
#include "MCM_equal.h"
#include "MFN_table.h"
#include "MMM_ref.h"
#include "MMM_values.h"

namespace MAR_canon {

namespace {

struct Term {
    Cell operand;          // borrowed from the list of operands
    MMM_ref base;          // the operand without its numeric coefficient
    MMM_ref free;          // the base without its sign
    MMM_ref coeff;         // the numeric coefficient; null for 1
    bool negated = false;  // free is the negated base
};

Term make_term(Cell t) {
    Term r;
    r.operand = t;
    if (is_op(t, MFN_ID_MULT) && operand_count(t) >= 2 && is_number(last_operand(t))) {
        r.coeff = borrowed(last_operand(t));
        if (operand_count(t) == 2) {
            r.base = borrowed(operand(t, 1));
        } else {
            Refs rest;
            for (long i = 1; i < operand_count(t); ++i) rest.push_back(borrowed(operand(t, i)));
            r.base = build(MFN_ID_MULT, rest);
        }
    } else {
        r.base = borrowed(t);
    }
    r.negated = looks_negative(r.base.get(), true);
    r.free = r.negated ? neg(r.base.get()) : borrowed(r.base.get());
    return r;
}

// Collects like terms. Terms come out in the order of their sign-free bases; numbers
// that collection produces go to `numbers`.
Refs collect_terms(const Refs& ops, Tournament& numbers, bool& irregular) {
    std::vector<Term> terms;
    terms.reserve(ops.size());
    for (const MMM_ref& r : ops) terms.push_back(make_term(r.get()));
    sort_if_needed(terms, [](const Term& a, const Term& b) { return MCM_compare(a.free.get(), b.free.get()) < 0; });
    Refs out;
    auto emit = [&](MMM_ref r) {
        if (is_number(r.get())) {
            numbers.add(std::move(r));
            irregular = true;
        } else {
            if (is_op(r.get(), MFN_ID_PLUS)) irregular = true;
            out.push_back(std::move(r));
        }
    };
    for (size_t i = 0; i < terms.size();) {
        size_t j = i + 1;
        while (j < terms.size() && MCM_equal(terms[i].free.get(), terms[j].free.get())) ++j;
        if (j - i == 1 || is_poly(terms[i].base.get())) {
            // A term alone keeps its own sign; polynomials are never merged here.
            for (size_t k = i; k < j; ++k) out.push_back(borrowed(terms[k].operand));
            i = j;
            continue;
        }
        MMM_ref total;
        for (size_t k = i; k < j; ++k) {
            MMM_ref c = terms[k].coeff ? borrowed(terms[k].coeff.get()) : number(1);
            if (terms[k].negated) c = neg(c.get());
            total = total ? binop(total.get(), c.get(), MAR_ADD) : std::move(c);
        }
        Cell free = terms[i].free.get();
        if (is_zero(total.get())) {
            // A run that cancels leaves nothing, not even a float zero.
        } else if (is_exact_one(total.get())) {
            emit(borrowed(free));
        } else {
            emit(product({free, total.get()}));
        }
        i = j;
    }
    return out;
}

}  // namespace

MMM_ref plus(Cell expr, const Refs& ops, int round) {
    if (ops.empty()) return number(0);
    if (ops.size() == 1) return tag(ops[0].get()) == DOM_NULL ? number(0) : borrowed(ops[0].get());
    Folded f = fold_numbers(ops, false);
    if (f.kept) {
        // A set or a relation plus nothing but zeros is itself.
        Cell alone = nullptr;
        long sets = 0;
        for (const MMM_ref& r : ops) {
            Cell c = r.get();
            if (tag(c) == DOM_SET || is_set_expression(c)) alone = c, ++sets;
            else if (tag(c) != DOM_NULL && !(is_number(c) && is_zero(c))) sets = 2;
        }
        if (sets == 1) return borrowed(alone);
        return expr ? borrowed(expr) : build(MFN_ID_PLUS, ops);
    }
    if (f.others.empty()) return f.number ? std::move(f.number) : number(0);
    if (tag(f.others[0].get()) == DOM_FAIL) return borrowed(MMM_FAIL);
    Refs terms;
    if (f.others.size() == 1) {
        terms.push_back(std::move(f.others[0]));
    } else {
        Tournament numbers(MAR_ADD);
        if (f.number) numbers.add(std::move(f.number));
        bool irregular = false;
        terms = collect_terms(f.others, numbers, irregular);
        f.number = numbers.finish();
        if (irregular && round == 0) {
            // Collection made a number or a sum out of like terms: once more over the
            // whole, which splices and folds them.
            if (f.number) terms.push_back(std::move(f.number));
            Refs flat;
            for (const MMM_ref& t : terms) {
                if (is_op(t.get(), MFN_ID_PLUS)) flatten_into(t.get(), MFN_ID_PLUS, flat);
                else flat.push_back(borrowed(t.get()));
            }
            return plus(nullptr, flat, 1);
        }
        if (f.number && !terms.empty() && is_zero(f.number.get())) f.number = MMM_ref();
    }
    if (f.number) terms.push_back(std::move(f.number));
    if (terms.empty()) return number(0);
    if (terms.size() == 1) return std::move(terms[0]);
    MMM_ref result = build(MFN_ID_PLUS, terms);
    if (expr && MCM_equal(result.get(), expr)) return borrowed(expr);
    return result;
}

}  // namespace MAR_canon

using namespace MAR_canon;

// ---- entry points ----

Cell MAR_plus(Cell expr) {
    if (two_numbers(expr)) return MAR_binop(MMM_child(expr, 1), MMM_child(expr, 2), nullptr, MAR_ADD);
    Refs ops;
    flatten_into(expr, MFN_ID_PLUS, ops);
    Cell r = plus(expr, ops, 0).take();
    MAR_CHECK_CANONICAL("_plus", r, operands_of(expr));
    return r;
}

Cell MAR_sum_of(Cell a, Cell b) { return sum({a, b}).take(); }


// Canonical sums, products and powers (see MAR_canonical.h for the forms).
#include "MAR_canonical.h"

#include <pari/pari.h>

#include <algorithm>
#include <initializer_list>
#include <utility>
#include <vector>

#include "MAR_numbers.h"
#include "MCM_equal.h"
#include "MER_error.h"
#include "MFN_table.h"
#include "MMM_heap.h"
#include "MMM_ident.h"
#include "MMM_ref.h"
#include "MMM_table.h"
#include "MMM_values.h"

namespace {

// ---- owned references ----

// A new count of a borrowed cell, owned.
MMM_ref borrowed(Cell c) { return MMM_ref(MMM_retained(c)); }
using Refs = std::vector<MMM_ref>;

// ---- module state ----

constexpr int LEVELS = 19;              // rows of the number tournament
constexpr long ROOT_CACHE_LIMIT = 10000;  // entries before the cache of roots is emptied

Cell root_cache = nullptr;  // MMM_HASH: DOM_LIST(base, exponent) to the exact root
Cell ident_pi = nullptr;
Cell ident_euler = nullptr;
Cell ident_catalan = nullptr;
MAR_property_fn property_reader = nullptr;
MAR_float_fn float_routine = nullptr;

// ---- reading cells ----

int tag(Cell c) { return c && MMM_kind_of(c) == MMM_NODE && c->size >= MMM_NODE_BYTES ? MMM_category(c) : 0x7fff; }

bool is_op(Cell c, int id) {
    return c && MMM_is_node(c, DOM_EXPR) && MMM_child_count(c) >= 1 && MMM_child(c, 0) == MMM_ident_by_id(id);
}
long operand_count(Cell e) { return MMM_child_count(e) - 1; }
Cell operand(Cell e, long i) { return MMM_child(e, i); }  // 1-based
Cell last_operand(Cell e) { return MMM_child(e, MMM_child_count(e) - 1); }

bool is_number(Cell c) { return MAR_is_number(c); }
bool is_integer(Cell c) { return is_number(c) && (MMM_category(c) == DOM_INT || MMM_category(c) == CAT_BIG_INT); }
bool is_ident(Cell c) { return c && MMM_is_node(c, DOM_IDENT); }
bool is_poly(Cell c) { return tag(c) == DOM_POLY || tag(c) == DOM_RPOLY; }

bool has_prop(Cell c, unsigned bits) { return (MAR_properties(c) & bits) != 0; }

// Reads the PARI value of a number for a test and leaves the stack as it was.
template <typename F>
auto with_value(Cell c, F f) {
    const pari_sp av = avma;
    auto r = f(MAR_get_raw(c));
    set_avma(av);
    return r;
}

bool is_small(Cell c, long v) { return is_number(c) && MMM_category(c) == DOM_INT && MAR_small_int(c) == v; }
bool is_exact_one(Cell c) { return is_small(c, 1); }

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

MMM_ref number(long n) { return MMM_ref(MAR_from_long(n)); }
MMM_ref binop(Cell a, Cell b, int op) { return MMM_ref(MAR_binop(a, b, nullptr, op)); }

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

// ---- forward ----

MMM_ref plus(Cell expr, const Refs& ops, int round);
MMM_ref mult(Cell expr, const Refs& ops, int round);
MMM_ref power(Cell x, Cell y, Cell expr);
MMM_ref negate(Cell x, bool evaluate);
bool looks_negative(Cell x, bool deep);

MMM_ref neg(Cell x) { return MMM_ref(MAR_negate(x, true)); }
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

// ---- sums ----

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

// Sorts by `before` unless the items are in order already, which is the common case.
template <typename T, typename Less>
void sort_if_needed(std::vector<T>& v, Less before) {
    if (!std::is_sorted(v.begin(), v.end(), before)) std::sort(v.begin(), v.end(), before);
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

MMM_ref plus(Cell expr, const Refs& ops, int round) {
    if (ops.empty()) return number(0);
    if (ops.size() == 1) return tag(ops[0].get()) == DOM_NULL ? number(0) : borrowed(ops[0].get());
    Folded f = fold_numbers(ops, false);
    if (f.kept) return expr ? borrowed(expr) : build(MFN_ID_PLUS, ops);
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

// ---- products ----

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

bool factor_before(const Factor& a, const Factor& b) {
    if (const int r = MCM_compare(a.free.get(), b.free.get())) return r < 0;
    if (a.integer_exponent != b.integer_exponent) return a.integer_exponent;
    if (a.number_exponent != b.number_exponent) return a.number_exponent;
    return MCM_compare(a.term, b.term) < 0;
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
    sort_if_needed(fs, factor_before);
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
    if (std::is_sorted(fs.begin(), fs.end(), factor_before)) return;
    std::sort(fs.begin(), fs.end(), factor_before);
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

// ---- powers ----

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

// ---- bodies ----

void check_count(Cell expr, long n, const char* name) {
    if (operand_count(expr) != n) MER_raise(MER_WRONG_ARG_COUNT, name);
}

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

// ---- entry points ----

// The operands of an expression, for the checks of results.
[[maybe_unused]] static std::span<const Cell> operands_of(Cell expr) {
    return {MMM_children(expr) + 1, size_t(MMM_child_count(expr) - 1)};
}

// Two numbers need no term collection: the number tower adds them directly.
bool two_numbers(Cell expr) {
    return MMM_child_count(expr) == 3 && MAR_is_number(MMM_child(expr, 1)) && MAR_is_number(MMM_child(expr, 2));
}

Cell MAR_plus(Cell expr) {
    if (two_numbers(expr)) return MAR_binop(MMM_child(expr, 1), MMM_child(expr, 2), nullptr, MAR_ADD);
    Refs ops;
    flatten_into(expr, MFN_ID_PLUS, ops);
    Cell r = plus(expr, ops, 0).take();
    MAR_CHECK_CANONICAL("_plus", r, operands_of(expr));
    return r;
}

Cell MAR_mult(Cell expr) {
    if (two_numbers(expr)) return MAR_binop(MMM_child(expr, 1), MMM_child(expr, 2), nullptr, MAR_MULTIPLY);
    Refs ops;
    flatten_into(expr, MFN_ID_MULT, ops);
    Cell r = mult(expr, ops, 0).take();
    MAR_CHECK_CANONICAL("_mult", r, operands_of(expr));
    return r;
}

Cell MAR_power(Cell expr) {
    check_count(expr, 2, "_power");
    Cell r = power(operand(expr, 1), operand(expr, 2), expr).take();
    MAR_CHECK_CANONICAL("_power", r, operands_of(expr));
    return r;
}

Cell MAR_sum_of(Cell a, Cell b) { return sum({a, b}).take(); }
Cell MAR_product_of(Cell a, Cell b) { return product({a, b}).take(); }
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

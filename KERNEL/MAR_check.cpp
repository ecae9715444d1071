// The checker of canonical sums, products and powers (see MAR_canonical.h for the forms
// and the list of faults). Each rule mirrors what the routines in MAR_canonical.cpp do
// to their results; a value they would change again is at fault.
#include <pari/pari.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "MAR_canonical.h"
#include "MAR_canonical_internal.h"
#include "MAR_numbers.h"
#include "MCM_equal.h"
#include "MFN_table.h"
#include "MMM_heap.h"
#include "MMM_ident.h"
#include "MMM_ref.h"
#include "MMM_values.h"

namespace {

using namespace MAR_canon;

bool busy = false;  // a check runs: the routines it calls do not check their results

struct Busy {
    bool saved = busy;
    Busy() { busy = true; }
    ~Busy() { busy = saved; }
};


// ---- reading cells (the readers are canonical arithmetic's own, MAR_canon) ----

// `_negate`, `_subtract`, `_divide` and `_invert` leave no trace in results.
bool is_companion(Cell c) {
    return is_op(c, MFN_ID_NEGATE) || is_op(c, MFN_ID_SUBTRACT) || is_op(c, MFN_ID_DIVIDE) || is_op(c, MFN_ID_INVERT);
}

// An operand the routines do not combine: the expression around it stays as it came.
bool is_kept_operand(Cell c) { return tag(c) == DOM_INTERVAL || tag(c) == DOM_SET || is_set_expression(c); }

Cell make_expr(int id, const std::vector<Cell>& ops) {
    Cell e = MMM_make_expr(long(ops.size()) + 1);
    Cell* s = MMM_children(e);
    s[0] = MMM_ident_by_id(id);
    MMM_retain(s[0]);
    for (size_t i = 0; i < ops.size(); ++i) {
        MMM_retain(ops[i]);
        s[i + 1] = ops[i];
    }
    MMM_sign(e);
    return e;
}

// The form without its sign, as collection compares it (new reference).
MMM_ref sign_free(Cell base, bool* negated) {
    *negated = !is_poly(base) && MAR_looks_negative(base, true);
    if (*negated) return MMM_ref(MAR_negate(base, true));
    MMM_retain(base);
    return MMM_ref(base);
}

// A term of a sum: its base without the numeric coefficient, and that base sign-free.
struct Term {
    MMM_ref base;
    MMM_ref free;
};

Term make_term(Cell t) {
    Term r;
    const long n = is_op(t, MFN_ID_MULT) ? operand_count(t) : 0;
    if (n >= 2 && is_number(operand(t, n))) {
        if (n == 2) {
            MMM_retain(operand(t, 1));
            r.base = MMM_ref(operand(t, 1));
        } else {
            std::vector<Cell> rest;
            for (long i = 1; i < n; ++i) rest.push_back(operand(t, i));
            r.base = MMM_ref(make_expr(MFN_ID_MULT, rest));
        }
    } else {
        MMM_retain(t);
        r.base = MMM_ref(t);
    }
    bool negated;
    r.free = sign_free(r.base.get(), &negated);
    return r;
}

// A factor of a product: base and exponent of a power, or the factor to the power 1.
struct Factor {
    Cell term;
    Cell base;
    MMM_ref free;
    bool negated = false;
    bool integer_exponent = true;
    bool number_exponent = true;
};

Factor make_factor(Cell t) {
    Factor f;
    f.term = t;
    if (is_op(t, MFN_ID_POWER) && operand_count(t) == 2) {
        f.base = operand(t, 1);
        f.number_exponent = is_number(operand(t, 2));
        f.integer_exponent = is_integer(operand(t, 2));
    } else {
        f.base = t;
    }
    f.free = sign_free(f.base, &f.negated);
    return f;
}

// ---- the rules of one node ----

class Checker {
public:
    // Cells the walk does not enter.
    void trust(Cell c) { seen_.insert(c); }

    MAR_fault walk(Cell root, Cell* where) {
        std::vector<Cell> stack;
        if (seen_.insert(root).second) stack.push_back(root);
        while (!stack.empty()) {
            Cell c = stack.back();
            stack.pop_back();
            const int t = tag(c);
            if (t != DOM_EXPR && t != DOM_LIST) continue;
            if (t == DOM_EXPR) {
                MAR_fault f = MAR_fault::none;
                if (is_op(c, MFN_ID_PLUS)) f = sum(c);
                else if (is_op(c, MFN_ID_MULT)) f = product(c);
                else if (is_op(c, MFN_ID_POWER)) f = power(c);
                if (f != MAR_fault::none) {
                    if (where) *where = c;
                    return f;
                }
            }
            for (long i = MMM_child_count(c) - 1; i >= 0; --i) {
                Cell k = MMM_child(c, i);
                const int kt = tag(k);
                if ((kt == DOM_EXPR || kt == DOM_LIST) && seen_.insert(k).second) stack.push_back(k);
            }
        }
        return MAR_fault::none;
    }

private:
    std::unordered_set<Cell> seen_;
    std::unordered_map<Cell, bool> kept_;

    // Whether a kept operand lies among the operands of c, through nested sums, products
    // and powers (a coefficient distributed over a kept sum makes such products).
    bool holds_kept(Cell c) {
        if (is_kept_operand(c)) return true;
        if (!is_op(c, MFN_ID_PLUS) && !is_op(c, MFN_ID_MULT) && !is_op(c, MFN_ID_POWER)) return false;
        if (auto it = kept_.find(c); it != kept_.end()) return it->second;
        // Iteratively over the nest of sums, products and powers below c.
        std::vector<Cell> todo{c};
        std::unordered_set<Cell> local{c};
        bool found = false;
        while (!todo.empty() && !found) {
            Cell e = todo.back();
            todo.pop_back();
            if (auto it = kept_.find(e); it != kept_.end()) {
                found = it->second;
                continue;
            }
            for (long i = 1; i <= operand_count(e) && !found; ++i) {
                Cell k = operand(e, i);
                if (is_kept_operand(k)) found = true;
                else if ((is_op(k, MFN_ID_PLUS) || is_op(k, MFN_ID_MULT) || is_op(k, MFN_ID_POWER)) &&
                         local.insert(k).second)
                    todo.push_back(k);
            }
        }
        // Without a find, nothing below any visited node holds one either.
        if (!found)
            for (Cell e : local) kept_[e] = false;
        kept_[c] = found;
        return found;
    }

    bool keeps_operands(Cell e) {
        for (long i = 1; i <= operand_count(e); ++i)
            if (holds_kept(operand(e, i))) return true;
        return false;
    }

    // Count, NULL, nesting and the place of the number; shared by sums and products.
    MAR_fault shape(Cell e, int id) {
        const long n = operand_count(e);
        if (n < 2) return MAR_fault::operand_count;
        for (long i = 1; i <= n; ++i) {
            Cell c = operand(e, i);
            if (tag(c) == DOM_NULL) return MAR_fault::illegal_operand;
            if (is_companion(c)) return MAR_fault::companion;
            if (is_op(c, id)) return MAR_fault::nested;
            if (i < n && is_number(c)) return MAR_fault::number_place;
        }
        return MAR_fault::none;
    }

    MAR_fault sum(Cell e) {
        if (keeps_operands(e)) return MAR_fault::none;
        if (MAR_fault f = shape(e, MFN_ID_PLUS); f != MAR_fault::none) return f;
        long n = operand_count(e);
        if (is_number(operand(e, n))) {
            if (is_zero(operand(e, n))) return MAR_fault::zero_term;
            --n;
        }
        Term prev = make_term(operand(e, 1));
        for (long i = 2; i <= n; ++i) {
            Term cur = make_term(operand(e, i));
            const int r = MCM_compare(prev.free.get(), cur.free.get());
            if (r > 0) return MAR_fault::order;
            // Polynomials are never merged.
            if (r == 0 && !(is_poly(prev.base.get()) && is_poly(cur.base.get()))) return MAR_fault::uncollected;
            prev = std::move(cur);
        }
        return MAR_fault::none;
    }

    MAR_fault product(Cell e) {
        if (keeps_operands(e)) return MAR_fault::none;
        if (MAR_fault f = shape(e, MFN_ID_MULT); f != MAR_fault::none) return f;
        long n = operand_count(e);
        if (Cell c = operand(e, n); is_number(c)) {
            if (is_exact_one(c)) return MAR_fault::unit_factor;
            if (is_zero(c)) return MAR_fault::zero_factor;
            if (n == 2 && is_op(operand(e, 1), MFN_ID_PLUS)) return MAR_fault::undistributed;
            --n;
        }
        std::vector<Factor> fs;
        fs.reserve(size_t(n));
        for (long i = 1; i <= n; ++i) {
            Cell c = operand(e, i);
            if (!is_op(c, MFN_ID_POWER) && MAR_looks_negative(c, true)) return MAR_fault::negative_factor;
            fs.push_back(make_factor(c));
        }
        for (size_t i = 1; i < fs.size(); ++i) {
            if (factor_before(fs[i - 1], fs[i])) continue;
            return factor_before(fs[i], fs[i - 1]) ? MAR_fault::order : MAR_fault::uncollected;
        }
        // On one sign-free base, number exponents leave at most one factor on the base and
        // one on its negation, and the two only when neither exponent is an integer.
        for (size_t i = 0; i < fs.size();) {
            size_t j = i + 1;
            while (j < fs.size() && MCM_equal(fs[i].free.get(), fs[j].free.get())) ++j;
            if (!is_poly(fs[i].free.get())) {
                int up = 0, down = 0;
                bool integer = false;
                for (size_t k = i; k < j && fs[k].number_exponent; ++k) {
                    (fs[k].negated ? down : up) += 1;
                    integer = integer || fs[k].integer_exponent;
                }
                if (up > 1 || down > 1 || (up && down && integer)) return MAR_fault::uncollected;
            }
            i = j;
        }
        return MAR_fault::none;
    }

    MAR_fault power(Cell e) {
        if (operand_count(e) != 2) return MAR_fault::operand_count;
        Cell x = operand(e, 1), y = operand(e, 2);
        if (is_poly(x) || is_set_expression(x) || tag(x) == DOM_SET || tag(y) == DOM_SET) return MAR_fault::none;
        for (Cell c : {x, y}) {
            const int t = tag(c);
            if (t == DOM_NULL || t == DOM_NIL || t == DOM_BOOL || t == DOM_FAIL) return MAR_fault::illegal_operand;
        }
        if (tag(x) == DOM_INTERVAL || tag(y) == DOM_INTERVAL) return MAR_fault::none;
        if (is_companion(x) || is_companion(y)) return MAR_fault::companion;
        if (is_zero(y)) return MAR_fault::zero_exponent;
        if (is_exact_one(y)) return MAR_fault::unit_exponent;
        if (is_exact_one(x)) return MAR_fault::unit_base;
        if (is_number(x) && is_number(y)) return number_power(x, y);
        if (is_integer(y)) {
            if (is_op(x, MFN_ID_MULT)) return MAR_fault::power_of_product;
            if (is_op(x, MFN_ID_POWER)) return MAR_fault::power_of_power;
        }
        if ((is_integer(y) || MAR_is_even(y)) && MAR_looks_negative(x, true)) return MAR_fault::negative_base;
        if (is_number(y) && is_op(x, MFN_ID_POWER) && operand_count(x) == 2) {
            // Exponents multiply over a positive number, the constants, or an inner
            // exponent e with -1 < e <= 1.
            Cell b = operand(x, 1), inner = operand(x, 2);
            if (tag(inner) < 5) {
                const bool merge = real_sign(b) > 0 || is_constant(b) ||
                                   with_value(inner, [](GEN g) { return gcmpsg(-1, g) < 0 && gcmpsg(1, g) >= 0; });
                if (merge) return MAR_fault::power_of_power;
            }
        }
        return MAR_fault::none;
    }

    static bool is_constant(Cell c) {
        if (tag(c) != DOM_IDENT) return false;
        for (const char* name : {"PI", "EULER", "CATALAN"})
            if (c == MMM_ident_named(name)) return true;
        return false;
    }

    // Both operands numbers: what stays is an exact power with a non-integer exponent.
    static MAR_fault number_power(Cell x, Cell y) {
        if (is_zero(x)) return MAR_fault::zero_base;
        if (holds_float(x) || holds_float(y) || is_integer(y)) return MAR_fault::number_power;
        if (tag(y) != DOM_RAT) return MAR_fault::none;  // a complex exponent stays
        if (tag(x) == DOM_RAT) return MAR_fault::number_power;  // a fraction splits
        if (!is_integer(x)) return MAR_fault::none;  // a complex base stays
        const pari_sp av = avma;
        GEN v = MAR_get_raw(x), p = gel(MAR_get_raw(y), 1), q = gel(MAR_get_raw(y), 2);
        MAR_fault f = MAR_fault::none;
        if (is_small(x, -1)) {
            // (-1)^(p/q) keeps |p| < q, and 1/2 and -1/2 give I and -I.
            if (abscmpii(p, q) >= 0 || equaliu(q, 2)) f = MAR_fault::number_power;
        } else if (signe(p) < 0 || cmpii(p, q) >= 0) {
            f = MAR_fault::number_power;  // the integer part of the exponent goes out
        } else if (equaliu(q, 2)) {
            // A square root of a negative integer takes I out; a square comes out whole.
            if (signe(v) < 0) f = MAR_fault::number_power;
            else if (Z_issquare(v)) f = MAR_fault::exact_root;
        } else if (signe(v) > 0 && lgefint(q) == 3 && Z_ispower(v, itou(q))) {
            f = MAR_fault::exact_root;
        }
        set_avma(av);
        return f;
    }
};

// The flat text of a value in functional notation, as far as this module can write it
// (the printer lies above it): operators by name, numbers in PARI's form, other values
// by their category. Bounded in depth and length.
void write_tree(std::string& out, Cell c, int depth) {
    constexpr size_t LIMIT = 2000;
    if (out.size() > LIMIT || depth > 60) {
        out += "...";
        return;
    }
    const int t = tag(c);
    if (t == DOM_IDENT) {
        out += MMM_ident_text(c);
    } else if (is_number(c) && !MAR_special(c)) {
        const pari_sp av = avma;
        char* text = GENtostr(MAR_get_raw(c));
        out += text;
        pari_free(text);
        set_avma(av);
    } else if (t == DOM_EXPR || t == DOM_LIST) {
        const long n = MMM_child_count(c);
        long i = 0;
        if (t == DOM_EXPR && n > 0) write_tree(out, MMM_child(c, i++), depth + 1);
        out += t == DOM_LIST ? "[" : "(";
        for (const long first = i; i < n && out.size() <= LIMIT; ++i) {
            if (i > first) out += ", ";
            write_tree(out, MMM_child(c, i), depth + 1);
        }
        out += t == DOM_LIST ? "]" : ")";
    } else {
        out += "<";
        out += t == 0x7fff ? "cell" : MMM_category_name(t);
        out += ">";
    }
}

std::string tree_text(Cell c) {
    std::string out;
    write_tree(out, c, 0);
    return out;
}

}  // namespace

MAR_fault MAR_find_fault(Cell c, Cell* where) {
    const Busy guard;
    Checker checker;
    return checker.walk(c, where);
}

const char* MAR_fault_text(MAR_fault f) {
    switch (f) {
        case MAR_fault::none: return "canonical";
        case MAR_fault::operand_count: return "wrong number of operands";
        case MAR_fault::illegal_operand: return "illegal operand";
        case MAR_fault::nested: return "nested sum or product";
        case MAR_fault::companion: return "_negate, _subtract, _divide or _invert left in";
        case MAR_fault::number_place: return "number not in last place";
        case MAR_fault::zero_term: return "zero term beside other terms";
        case MAR_fault::zero_factor: return "zero coefficient beside other factors";
        case MAR_fault::unit_factor: return "coefficient 1";
        case MAR_fault::order: return "operands out of system order";
        case MAR_fault::uncollected: return "like terms or factors not collected";
        case MAR_fault::undistributed: return "coefficient not distributed over a sum";
        case MAR_fault::negative_factor: return "factor looks negative";
        case MAR_fault::negative_base: return "integer or even power of a negative-looking base";
        case MAR_fault::zero_exponent: return "exponent 0";
        case MAR_fault::unit_exponent: return "exponent 1";
        case MAR_fault::unit_base: return "power of 1";
        case MAR_fault::zero_base: return "power of 0 with a number exponent";
        case MAR_fault::power_of_product: return "integer power of a product";
        case MAR_fault::power_of_power: return "power of a power not merged";
        case MAR_fault::number_power: return "power of numbers not computed";
        case MAR_fault::exact_root: return "exact root not taken";
    }
    return "unknown fault";
}

const char* MAR_canonical_fault(Cell c) {
    const MAR_fault f = MAR_find_fault(c);
    return f == MAR_fault::none ? nullptr : MAR_fault_text(f);
}

bool MAR_is_canonical(Cell c) { return MAR_find_fault(c) == MAR_fault::none; }

void MAR_check_result(const char* routine, Cell result, std::span<const Cell> operands) {
    if (busy || !result) return;
    const Busy guard;
    Checker checker;
    // The operands are the caller's, and so are the operands of sums and products among
    // them, which the routines splice.
    std::vector<Cell> todo(operands.begin(), operands.end());
    while (!todo.empty()) {
        Cell c = todo.back();
        todo.pop_back();
        checker.trust(c);
        if (is_op(c, MFN_ID_PLUS) || is_op(c, MFN_ID_MULT))
            for (long i = 1; i <= operand_count(c); ++i) todo.push_back(operand(c, i));
    }
    Cell where = nullptr;
    const MAR_fault f = checker.walk(result, &where);
    if (f == MAR_fault::none) return;
    // Canonical results are owed for canonical operands only: an operand that is not
    // (a held expression) may pass its fault on.
    for (Cell c : operands)
        if (Checker().walk(c, nullptr) != MAR_fault::none) return;
    std::fprintf(stderr, "Internal error [%s]: result not canonical: %s\n  at: %s\n  in: %s\n", routine,
                 MAR_fault_text(f), tree_text(where).c_str(), tree_text(result).c_str());
    std::fflush(stderr);
    std::abort();
}

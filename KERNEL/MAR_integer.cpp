// The integer built-ins: igcd, ilcm, igcdex, ifactor, ithprime, phi, isqrt. The number
// theory is PARI's; this file checks the arguments, sets PARI's stack back to the mark
// when a result has been copied into cells, and shapes the results.
#include "MAR_integer.h"

#include <pari/pari.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "MAR_numbers.h"
#include "MAR_pari.h"
#include "MER_error.h"
#include "MMM_ident.h"
#include "MMM_ref.h"
#include "MMM_values.h"

namespace {

// PARI's random seed for its factoring methods, set before each factorisation so that
// the methods, and with them the time taken, repeat from call to call.
constexpr ulong FACTOR_SEED = 0x1234567;

long arg_count(Cell e) { return MMM_child_count(e) - 1; }

bool is_integer(Cell c) { return MMM_category(c) == DOM_INT || MMM_category(c) == CAT_BIG_INT; }

// Values of category 7 and above are symbolic: the built-ins leave their call as it is.
bool is_symbolic(Cell c) { return MMM_category(c) >= 7; }

bool is_ident_named(Cell c, std::string_view name) {
    return MMM_is_node(c, DOM_IDENT) && MMM_ident_text(c) == name;
}

bool is_small(Cell c, int32_t value) { return MMM_category(c) == DOM_INT && MAR_small_int(c) == value; }

// A number argument that must be an integer: a special float is refused by MAR_get
// ("non-rd-function"), another non-integer with `error` and the built-in's `name`.
void need_integer(Cell x, long error, const char* name) {
    if (MAR_special(x)) MAR_get(x);
    if (!is_integer(x)) MER_raise(error, name);
}

// The cells of `items` (owned) as a list, or as an expression sequence when `sequence`.
Cell make_list(std::vector<MMM_ref>& items, bool sequence) {
    const long n = long(items.size());
    Cell c = sequence ? MMM_make_expr(n + 1) : MMM_make_list(n);
    Cell* children = MMM_children(c);
    if (sequence) *children++ = MMM_retained(MMM_ident_by_id(MFN_ID_EXPRSEQ));
    for (long i = 0; i < n; ++i) children[i] = items[size_t(i)].take();
    MMM_sign(c);
    return c;
}

// The gcd of three or more integers: taken in ascending order of absolute value, so that
// the running gcd is small from the start, and ended as soon as it is 1.
GEN gcd_of_many(std::vector<GEN>& values) {
    std::sort(values.begin(), values.end(), [](GEN a, GEN b) { return abscmpii(a, b) < 0; });
    const pari_sp av = avma;
    GEN g = absi(values[0]);
    for (size_t i = 1; i < values.size() && !equali1(g); ++i) {
        g = gerepileuptoint(av, gcdii(g, values[i]));
        MAR_count_poll();
    }
    return g;
}

// igcd and ilcm. With a symbolic argument, a unit decides igcd and a zero decides ilcm;
// otherwise the call stays.
Cell gcd_family(Cell e, bool gcd) {
    const char* name = gcd ? "igcd" : "ilcm";
    const long n = arg_count(e);
    bool symbolic = false;
    for (long i = 1; i <= n; ++i) {
        Cell x = MMM_child(e, i);
        if (is_symbolic(x))
            symbolic = true;
        else
            need_integer(x, MER_INTEGER_EXPECTED, name);
    }
    if (symbolic) {
        for (long i = 1; i <= n; ++i) {
            Cell x = MMM_child(e, i);
            if (gcd && (is_small(x, 1) || is_small(x, -1))) return MMM_retained(MAR_ONE);
            if (!gcd && is_small(x, 0)) return MMM_retained(MAR_ZERO);
        }
        return MMM_retained(e);
    }
    if (n == 0) return MMM_retained(gcd ? MAR_ZERO : MAR_ONE);
    std::vector<GEN> values;
    for (long i = 1; i <= n; ++i) values.push_back(MAR_get(MMM_child(e, i)));
    GEN r = values.back();
    if (gcd && n == 2) {
        r = gcdii(values[0], values[1]);
    } else if (gcd && n > 2) {
        r = gcd_of_many(values);
    } else if (!gcd) {
        const pari_sp av = avma;
        for (long i = n - 2; i >= 0; --i) {
            r = gerepileuptoint(av, lcmii(r, values[size_t(i)]));
            MAR_count_poll();
        }
    }
    return MAR_from_pari(absi(r), true);
}

Cell builtin_igcd(Cell e, int, unsigned, Cell) { return gcd_family(e, true); }
Cell builtin_ilcm(Cell e, int, unsigned, Cell) { return gcd_family(e, false); }

// igcdex(a, b): g, u, v with u*a + v*b = g and g >= 0.
Cell builtin_igcdex(Cell e, int, unsigned, Cell) {
    Cell a = MMM_child(e, 1), b = MMM_child(e, 2);
    if (is_symbolic(a) || is_symbolic(b)) return MMM_retained(e);
    need_integer(a, MER_INTEGER_EXPECTED, "igcdex");
    need_integer(b, MER_INTEGER_EXPECTED, "igcdex");
    GEN u, v;
    GEN g = gbezout(MAR_get(a), MAR_get(b), &u, &v);
    if (signe(g) < 0) {
        g = negi(g);
        u = negi(u);
        v = negi(v);
    }
    std::vector<MMM_ref> items;
    for (GEN part : {g, u, v}) items.emplace_back(MAR_from_pari(part, false));
    MAR_reset_to_mark();
    return make_list(items, true);
}

// ifactor(n [, UsePrimeTab]): [sign, p1, e1, p2, e2, ...] with the primes ascending; [0]
// for 0. With UsePrimeTab only the primes of the table are tried, and what is left over
// is given as one factor whether prime or not.
Cell builtin_ifactor(Cell e, int, unsigned, Cell) {
    const bool table_only = arg_count(e) == 2;
    if (table_only && !is_ident_named(MMM_child(e, 2), "UsePrimeTab")) MER_raise(MER_ILLEGAL_ARGUMENT, "ifactor");
    Cell x = MMM_child(e, 1);
    if (is_ident_named(x, "PrimeLimit")) return MAR_from_long(MAR_prime_limit());
    if (is_symbolic(x)) return MMM_retained(e);
    need_integer(x, MER_ILLEGAL_ARGUMENT, "ifactor");
    std::vector<MMM_ref> items;
    if (is_small(x, 0)) {
        items.emplace_back(MMM_retained(MAR_ZERO));
        return make_list(items, false);
    }
    GEN n = MAR_get(x);
    items.emplace_back(MMM_retained(signe(n) < 0 ? MAR_MINUS_ONE : MAR_ONE));
    GEN a = absi(n);
    // The test PARI's own factoring makes (BPSW, no proof): a proof of a 300-digit prime
    // would take seconds.
    if (BPSW_psp(a)) {
        items.emplace_back(MAR_from_pari(a, false));
        items.emplace_back(MMM_retained(MAR_ONE));
    } else {
        setrand(utoi(FACTOR_SEED));
        GEN f = table_only ? Z_factor_limit(a, maxprime()) : Z_factor(a);
        GEN primes = gel(f, 1), exponents = gel(f, 2);
        for (long i = 1; i < lg(primes); ++i) {
            items.emplace_back(MAR_from_pari(gel(primes, i), false));
            items.emplace_back(MAR_from_pari(gel(exponents, i), false));
        }
    }
    MAR_reset_to_mark();
    return make_list(items, false);
}

// ithprime(i): the i-th prime of PARI's table; ithprime(PrimeLimit) the number of primes
// in it. PARI would compute primes past the table, the kernel refuses them.
Cell builtin_ithprime(Cell e, int, unsigned, Cell) {
    Cell x = MMM_child(e, 1);
    if (is_ident_named(x, "PrimeLimit")) return MAR_from_long(long(maxprimeN()));
    if (is_symbolic(x)) return MMM_retained(e);
    need_integer(x, MER_POSITIVE_INTEGER_EXPECTED, "stdlib::ithprime");
    if (MAR_compare(x, MAR_ZERO) <= 0) MER_raise(MER_POSITIVE_INTEGER_EXPECTED, "stdlib::ithprime");
    if (MMM_category(x) != DOM_INT || ulong(MAR_small_int(x)) > maxprimeN()) MAR_pari_error(118);
    return MAR_from_pari(prime(MAR_small_int(x)), true);
}

// phi(n): Euler's totient, of |n| for a negative n.
Cell builtin_phi(Cell e, int, unsigned, Cell) {
    Cell x = MMM_child(e, 1);
    if (is_symbolic(x)) return MMM_retained(e);
    need_integer(x, MER_ILLEGAL_ARGUMENT, "phi");
    if (is_small(x, 0)) MER_raise(MER_ILLEGAL_ARGUMENT, "phi");
    return MAR_from_pari(eulerphi(MAR_get(x)), true);
}

// isqrt(n): the integer part of the square root; a negative n has none.
Cell builtin_isqrt(Cell e, int, unsigned, Cell) {
    Cell x = MMM_child(e, 1);
    if (is_symbolic(x)) return MMM_retained(e);
    need_integer(x, MER_INTEGER_EXPECTED, "isqrt");
    if (MAR_compare(x, MAR_ZERO) < 0) MER_raise(MER_NONNEGATIVE_INTEGER_EXPECTED, "isqrt");
    return MAR_from_pari(sqrtint(MAR_get(x)), true);
}

const MFN_builtin builtins[] = {
    {.name = "igcd", .routine = builtin_igcd, .args = {0, -1}},
    {.name = "ilcm", .routine = builtin_ilcm, .args = {0, -1}},
    {.name = "igcdex", .routine = builtin_igcdex, .args = {2, 2}},
    {.name = "ifactor", .routine = builtin_ifactor, .args = {1, 2}},
    {.name = "ithprime", .routine = builtin_ithprime, .args = {1, 1}},
    {.name = "phi", .routine = builtin_phi, .args = {1, 1}},
    {.name = "isqrt", .routine = builtin_isqrt, .args = {1, 1}},
};

}  // namespace

const MFN_builtin_table MAR_integer_builtins = builtins;

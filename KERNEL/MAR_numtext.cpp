// Number built-ins beside the integer family: powermod, sign, int2text, text2int, max
// and min. Every body gets its arguments evaluated, with overloading by domain
// elements already tried by the front; a symbolic argument (category 7 and above) leaves
// the call as it is where the built-in allows one.
#include "MAR_numtext.h"

#include <pari/pari.h>

#include <algorithm>
#include <string>
#include <vector>

#include "MAR_numbers.h"
#include "MAR_pari.h"
#include "MCM_equal.h"
#include "MER_error.h"
#include "MMM_table.h"
#include "MFN_layout.h"
#include "MMM_ident.h"
#include "MMM_ref.h"
#include "MMM_values.h"

namespace {

constexpr int SYMBOLIC_CATEGORY = 7;

bool is_integer(Cell c) { return MMM_category(c) == DOM_INT || MMM_category(c) == CAT_BIG_INT; }
bool is_rational(Cell c) { return is_integer(c) || MMM_category(c) == DOM_RAT; }
bool is_symbolic(Cell c) { return MMM_category(c) >= SYMBOLIC_CATEGORY; }
long nargs(Cell e) { return MMM_child_count(e) - 1; }
Cell arg(Cell e, long i) { return MMM_child(e, i); }

// ---- powermod ----

// The kernel code of the routine that the identifier `_mod` stands for now: 800 (`_mod`),
// 801 (`modp`), 802 (`mods`), or 0 when its value is no function environment of a kernel
// routine.
int residue_code() {
    MMM_ref value(MMM_value(MMM_ident_by_id(MFN_ID_MOD)));
    Cell env = value.get();
    if (!env || MMM_category(env) != DOM_FUNC_ENV || MMM_child_count(env) < MFN_ENV_COUNT) return 0;
    Cell exec = MMM_child(env, MFN_ENV_EVALUATOR);
    if (MMM_category(exec) != DOM_EXEC || MMM_child_count(exec) < MFN_EXEC_COUNT) return 0;
    Cell code = MMM_child(exec, MFN_EXEC_CODE);
    if (MMM_kind_of(code) != MMM_CODE) return 0;
    return MMM_code_of(code).code;
}

constexpr int CODE_MOD = 800;
constexpr int CODE_MODS = 802;

// powermod(x, n, m): x^n mod m under the residue `_mod` stands for. n = 0 gives 1 before
// any reduction; a negative n, a zero modulus and an x without inverse are refused.
Cell builtin_powermod(Cell e, int, unsigned, Cell) {
    Cell x = arg(e, 1), n = arg(e, 2), m = arg(e, 3);
    if (is_symbolic(x) || is_symbolic(n) || is_symbolic(m)) return MMM_retained(e);
    const int code = residue_code();
    if (code < CODE_MOD || code > CODE_MODS) MER_raise(MER_ILLEGAL_ARGUMENT, "powermod");
    if (!is_integer(m) || MAR_compare(m, MAR_ZERO) < 0 || !is_rational(x) || !is_integer(n) ||
        MAR_compare(n, MAR_ZERO) < 0)
        MER_raise(MER_ILLEGAL_ARGUMENT, "powermod");
    if (MAR_compare(m, MAR_ZERO) == 0) MER_raise(MER_DIVISION_BY_ZERO, "powermod");
    GEN mod = MAR_get(m);
    GEN r = signe(MAR_get(n)) == 0 ? gen_1 : Fp_pow(Rg_to_Fp(MAR_get(x), mod), MAR_get(n), mod);
    if (code == CODE_MODS && cmpii(r, shifti(mod, -1)) > 0) r = subii(r, mod);
    return MAR_from_pari(r, true);
}

// ---- sign ----

// -1, 0 or 1 for a real number, x/abs(x) for a complex one. Counts are checked here: the
// error carries the library's name of the function.
Cell builtin_sign(Cell e, int, unsigned, Cell) {
    if (nargs(e) != 1) MER_raise(MER_WRONG_ARG_COUNT, "specfunc::sign");
    Cell x = arg(e, 1);
    if (!MAR_is_number(x)) return MMM_retained(e);
    GEN v = MAR_at_precision(MAR_get(x));
    if (typ(v) == t_COMPLEX) return MAR_from_pari(gdiv(v, gabs(v, MAR_pari_precision)), true);
    const long s = gsigne(v);
    MAR_reset_to_mark();
    return MAR_from_long(s);
}

// ---- int2text, text2int ----

constexpr char DIGITS[] = "0123456789abcdefghijklmnopqrstuvwxyz";

// The base: the optional second argument, an integer from 2 to 36; 10 without one.
long base_of(Cell e, const char* name) {
    if (nargs(e) < 2) return 10;
    Cell b = arg(e, 2);
    if (MMM_category(b) != DOM_INT || MAR_small_int(b) < 2 || MAR_small_int(b) > 36)
        MER_raise(MER_ARG_OUT_OF_RANGE, name);
    return MAR_small_int(b);
}

Cell builtin_int2text(Cell e, int, unsigned, Cell) {
    Cell n = arg(e, 1);
    if (!is_integer(n)) MER_raise(MER_INTEGER_EXPECTED, "int2text");
    const long base = base_of(e, "int2text");
    GEN v = MAR_get(n);
    std::string text;
    if (signe(v) == 0) {
        text = "0";
    } else {
        GEN d = digits(absi(v), utoipos(base));
        const long count = lg(d) - 1;
        text.reserve(count + 1);
        if (signe(v) < 0) text += '-';
        for (long i = 1; i <= count; ++i) text += DIGITS[itou(gel(d, i))];
    }
    MAR_reset_to_mark();
    return MMM_make_string(text);
}

// The value of one digit character in either case, or 36 for a character that is none.
long digit_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'z') return c - 'a' + 10;
    if (c >= 'A' && c <= 'Z') return c - 'A' + 10;
    return 36;
}

Cell builtin_text2int(Cell e, int, unsigned, Cell) {
    Cell s = arg(e, 1);
    if (MMM_category(s) != DOM_STRING) MER_raise(MER_ILLEGAL_ARGUMENT, "text2int");
    const long base = base_of(e, "text2int");
    const std::string_view text = MMM_string_view(MMM_child(s, 0));
    size_t start = 0;
    const bool negative = !text.empty() && text[0] == '-';
    if (!text.empty() && (text[0] == '-' || text[0] == '+')) start = 1;
    if (start == text.size()) MER_raise(MER_ILLEGAL_ARGUMENT, "text2int");
    for (size_t i = start; i < text.size(); ++i)
        if (digit_value(text[i]) >= base) MER_raise(MER_ILLEGAL_ARGUMENT, "text2int");
    GEN d = cgetg(text.size() - start + 1, t_VEC);
    for (size_t i = start; i < text.size(); ++i) gel(d, i - start + 1) = utoi(digit_value(text[i]));
    GEN v = fromdigits(d, utoipos(base));
    return MAR_from_pari(negative ? negi(v) : v, true);
}

// ---- max, min ----

// The operands of max(...) and min(...): one list or set argument stands for its
// elements. New references.
std::vector<MMM_ref> extreme_operands(Cell e) {
    std::vector<MMM_ref> ops;
    Cell only = nargs(e) == 1 ? arg(e, 1) : nullptr;
    if (only && (MMM_category(only) == DOM_LIST || MMM_category(only) == DOM_SET)) {
        if (MMM_category(only) == DOM_LIST) {
            for (long i = 0; i < MMM_child_count(only); ++i) ops.emplace_back(MMM_retained(MMM_child(only, i)));
        } else {
            // The entries come in the reverse order of the set's walk.
            MMM_ref chain(MMM_table_list(MMM_child(only, 0)));
            for (Cell t = chain.get(); t; t = MMM_child(t, 2)) ops.emplace_back(MMM_retained(MMM_child(t, 0)));
            std::reverse(ops.begin(), ops.end());
        }
    } else {
        for (long i = 1; i <= nargs(e); ++i) ops.emplace_back(MMM_retained(arg(e, i)));
    }
    return ops;
}

// The numbers fold to one (the first of equal ones), compared as the comparison
// operators do, so RD_INF and RD_NINF take part and RD_NAN and complex numbers are
// refused. Other operands stay beside it in the order met, each once; the call with the
// number first is the result, or the one operand left.
Cell extreme(Cell e, int direction, const char* name) {
    std::vector<MMM_ref> ops = extreme_operands(e);
    if (ops.empty()) MER_raise(MER_WRONG_ARG_COUNT, name);
    Cell best = nullptr;
    std::vector<Cell> others;
    for (const MMM_ref& r : ops) {
        Cell c = r.get();
        if (MAR_is_number(c)) {
            if (!best) {
                MAR_order(c, c);
                best = c;
            } else if (direction * MAR_order(c, best) > 0) {
                best = c;
            }
            continue;
        }
        bool seen = false;
        for (Cell o : others) seen = seen || MCM_equal(o, c);
        if (!seen) others.push_back(c);
    }
    if (others.empty()) return MMM_retained(best);
    if (!best && others.size() == 1) return MMM_retained(others[0]);
    const long count = long(others.size()) + (best ? 1 : 0);
    Cell call = MMM_make_expr(count + 1);
    Cell* child = MMM_children(call);
    *child++ = MMM_retained(MMM_child(e, 0));
    if (best) *child++ = MMM_retained(best);
    for (Cell o : others) *child++ = MMM_retained(o);
    MMM_sign(call);
    return call;
}

Cell builtin_max(Cell e, int, unsigned, Cell) { return extreme(e, 1, "max"); }
Cell builtin_min(Cell e, int, unsigned, Cell) { return extreme(e, -1, "min"); }

const MFN_builtin builtins[] = {
    {.name = "powermod", .routine = builtin_powermod, .args = {3, 3}},
    {.name = "sign", .routine = builtin_sign},
    {.name = "int2text", .routine = builtin_int2text, .args = {1, 2}},
    {.name = "text2int", .routine = builtin_text2int, .args = {1, 2}},
    {.name = "max", .routine = builtin_max, .args = {1, -1}},
    {.name = "min", .routine = builtin_min, .args = {1, -1}},
};

}  // namespace

const MFN_builtin_table MAR_number_builtins = builtins;

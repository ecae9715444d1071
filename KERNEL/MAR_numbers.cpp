// Numbers as cells over PARI values. The block layout is described in MAR_numbers.h.
#include "MAR_numbers.h"

#include <pari/pari.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include "MCM_equal.h"
#include "MER_error.h"
#include "MMM_heap.h"
#include "MMM_values.h"

Cell MAR_ZERO = nullptr;
Cell MAR_ONE = nullptr;
Cell MAR_TWO = nullptr;
Cell MAR_MINUS_ONE = nullptr;
Cell MAR_MINUS_TWO = nullptr;
Cell MAR_HALF = nullptr;
Cell MAR_MINUS_HALF = nullptr;
Cell MAR_FLOAT_ZERO = nullptr;
Cell MAR_FLOAT_ONE = nullptr;
Cell MAR_I = nullptr;
Cell RD_INF = nullptr;
Cell RD_NINF = nullptr;
Cell RD_NAN = nullptr;

int32_t MAR_digits = 10;
int32_t MAR_precision_words = 4;
long MAR_pari_precision = 3;

MAR_expression_routines MAR_expression;

namespace {

// ---- the block ----

constexpr long ROOT = 1;  // word index of the PARI value in a block

// The exponent of a real on a machine with 32-bit words: 23 bits and a sign.
constexpr long EXPONENT_MAX = (1L << 23) - 1;
constexpr long EXPONENT_MIN = -(1L << 23);

long* words_of(Cell block) { return reinterpret_cast<long*>(block->data); }
Cell block_of(Cell number) { return MMM_child(number, 0); }

bool is_exact(GEN x) {
    if (typ(x) == t_COMPLEX) return typ(gel(x, 1)) != t_REAL && typ(gel(x, 2)) != t_REAL;
    return typ(x) != t_REAL;
}

// The types a number cell can hold: an integer, a real, a fraction of two integers, and
// a complex number of two such non-complex parts.
bool storable(GEN x, bool inner) {
    switch (typ(x)) {
    case t_INT:
    case t_REAL: return true;
    case t_FRAC: return typ(gel(x, 1)) == t_INT && typ(gel(x, 2)) == t_INT;
    case t_COMPLEX: return !inner && storable(gel(x, 1), true) && storable(gel(x, 2), true);
    default: return false;
    }
}

// A float beyond the exponent range of 32-bit words is an overflow, not a silent value.
void check_range(GEN x) {
    if (typ(x) == t_COMPLEX) {
        check_range(gel(x, 1));
        check_range(gel(x, 2));
    } else if (typ(x) == t_REAL && signe(x) && (expo(x) > EXPONENT_MAX || expo(x) < EXPONENT_MIN)) {
        MAR_pari_error(8);
    }
}

long stored_length(GEN x) {
    switch (typ(x)) {
    case t_INT: return lgefint(x);
    case t_REAL: return lg(x);
    default: return 3 + stored_length(gel(x, 1)) + stored_length(gel(x, 2));
    }
}

// Lays x out at word `at` of the block; gives the index behind it.
long store(GEN x, long* w, long at) {
    const long t = typ(x);
    if (t == t_INT || t == t_REAL) {
        const long n = t == t_INT ? lgefint(x) : lg(x);
        w[at] = evaltyp(t) | evallg(n);  // a fresh code word: no clone bit
        std::memcpy(w + at + 1, x + 1, size_t(n - 1) * sizeof(long));
        return at + n;
    }
    w[at] = evaltyp(t) | evallg(3);
    long next = at + 3;
    w[at + 1] = next;
    next = store(gel(x, 1), w, next);
    w[at + 2] = next;
    return store(gel(x, 2), w, next);
}

GEN load(long* w, long at) {
    GEN x = w + at;
    const long t = typ(x);
    if (t == t_INT || t == t_REAL) return x;
    GEN a = load(w, w[at + 1]);
    GEN b = load(w, w[at + 2]);
    return t == t_FRAC ? mkfrac(a, b) : mkcomplex(a, b);
}

// ---- signatures over 32-bit halves ----

uint32_t halves(ulong w) { return uint32_t(w) ^ uint32_t(w >> 32); }

uint32_t sign_value(const long* w, long at) {
    const long* x = w + at;
    switch (typ(const_cast<long*>(x))) {
    case t_INT: {
        // The exclusive-or of the magnitude words; a zero high half adds nothing, so this
        // is the value a 32-bit machine computes over its own words.
        uint32_t h = 0;
        for (long i = 2; i < lgefint(const_cast<long*>(x)); ++i) h ^= halves(ulong(x[i]));
        return h;
    }
    case t_REAL:
        // The first 32-bit word of the normalised mantissa.
        return signe(const_cast<long*>(x)) ? uint32_t(ulong(x[2]) >> 32) : 0u;
    case t_FRAC: return sign_value(w, w[at + 1]) + sign_value(w, w[at + 2]) + 0x04000000u;
    case t_COMPLEX: return sign_value(w, w[at + 1]) + sign_value(w, w[at + 2]) + 0x06000000u;
    default: return 0;
    }
}

uint32_t sign_block(Cell block) {
    if (block->size < long(2 * sizeof(long))) return 0;
    const long* w = words_of(block);
    switch (w[0]) {
    case MAR_SIGN_INF: return 1;
    case MAR_SIGN_NINF: return 2;
    case MAR_SIGN_NAN: return 3;
    default: return sign_value(w, ROOT);
    }
}

// ---- equality of blocks ----

// Same PARI type, part by part. A block never equals one of another type, even when PARI
// finds the values equal (2^31 and 2147483648.0 sign alike): the share pass merges by
// this equality, and a real must not end up under an integer's node.
bool same_shape(const long* a, long ia, const long* b, long ib) {
    const long t = typ(const_cast<long*>(a + ia));
    if (t != typ(const_cast<long*>(b + ib))) return false;
    if (t == t_INT || t == t_REAL) return true;
    return same_shape(a, a[ia + 1], b, b[ib + 1]) && same_shape(a, a[ia + 2], b, b[ib + 2]);
}

bool equal_blocks(Cell a, Cell b) {
    long* x = words_of(a);
    long* y = words_of(b);
    if (x[0] != y[0]) return false;
    if (x[0]) return true;  // the same special float
    if (!same_shape(x, ROOT, y, ROOT)) return false;
    const pari_sp av = avma;
    // gequal is what older PARI called gegal.
    const bool equal = gequal(load(x, ROOT), load(y, ROOT));
    set_avma(av);
    return equal;
}

// ---- order of blocks ----
// Real parts first, then imaginary parts (0 for a value that is not complex); a special
// float by its sign field. Values that PARI finds equal but whose types differ part by
// part order by those types, so that only equal blocks compare 0. Nothing polls here:
// the order runs inside sorts that must not stop half done.

GEN real_part(GEN x) { return typ(x) == t_COMPLEX ? gel(x, 1) : x; }
GEN imaginary_part(GEN x) { return typ(x) == t_COMPLEX ? gel(x, 2) : gen_0; }

int compare_shapes(const long* a, long ia, const long* b, long ib) {
    const long t = typ(const_cast<long*>(a + ia)), u = typ(const_cast<long*>(b + ib));
    if (t != u) return t < u ? -1 : 1;
    if (t == t_INT || t == t_REAL) return 0;
    if (const int r = compare_shapes(a, a[ia + 1], b, b[ib + 1])) return r;
    return compare_shapes(a, a[ia + 2], b, b[ib + 2]);
}

int compare_blocks(Cell a, Cell b) {
    long* x = words_of(a);
    long* y = words_of(b);
    const pari_sp av = avma;
    int r;
    if (x[0] || y[0]) {
        auto field = [](long* w) { return w[0] ? int(w[0]) : gsigne(real_part(load(w, ROOT))); };
        r = field(x) - field(y);
    } else {
        GEN u = load(x, ROOT);
        GEN v = load(y, ROOT);
        r = gcmp(real_part(u), real_part(v));
        if (!r) r = gcmp(imaginary_part(u), imaginary_part(v));
        if (!r) r = compare_shapes(x, ROOT, y, ROOT);
    }
    set_avma(av);
    return r < 0 ? -1 : r > 0 ? 1 : 0;
}

// ---- making cells ----

int16_t category_of(GEN x) {
    switch (typ(x)) {
    case t_INT: {
        if (!signe(x)) return DOM_INT;
        if (lgefint(x) == 3) {
            const ulong m = ulong(x[2]);
            if (m < 0x80000000ul || (m == 0x80000000ul && signe(x) < 0)) return DOM_INT;
        }
        return CAT_BIG_INT;
    }
    case t_REAL: return DOM_FLOAT;
    case t_FRAC: return DOM_RAT;
    default: return DOM_COMPLEX;
    }
}

Cell node_for(int category, Cell block) {
    MMM_sign(block);
    Cell c = MMM_new_node(category, 1);
    MMM_children(c)[0] = block;
    MMM_sign(c);
    return c;
}

Cell make_special(int sign_field) {
    const long n = MAR_pari_precision;
    Cell block = MMM_new_zeroed(MMM_NUMBER, long(sizeof(long)) * (ROOT + n), 0);
    long* w = words_of(block);
    w[0] = sign_field;
    w[ROOT] = evaltyp(t_REAL) | evallg(n);
    w[ROOT + 1] = evalsigne(0) | evalexpo(-prec2nbits(n));
    return node_for(DOM_FLOAT, block);
}

Cell shared(Cell c, bool reset) {
    MMM_retain(c);
    if (reset) MAR_reset_to_mark();
    return c;
}

Cell check_number(Cell c) {
    if (!MAR_is_number(c)) MER_raise(MER_ILLEGAL_ARGUMENT, nullptr);
    return c;
}

// ---- special floats in the four operations ----

Cell special_cell(int sign_field) {
    Cell c = sign_field == MAR_SIGN_INF ? RD_INF : sign_field == MAR_SIGN_NINF ? RD_NINF : RD_NAN;
    MMM_retain(c);
    return c;
}

// The sign field of a real number cell: its special value, else -1, 0 or 1.
int sign_field(Cell c) {
    if (const int s = MAR_special(c)) return s;
    const pari_sp av = avma;
    const int s = gsigne(MAR_get_raw(c));
    set_avma(av);
    return s;
}

int sign_of(int field) { return field > 0 ? 1 : field < 0 ? -1 : 0; }
bool infinite(int field) { return field == MAR_SIGN_INF || field == MAR_SIGN_NINF; }
int infinity(int sign) { return sign > 0 ? MAR_SIGN_INF : MAR_SIGN_NINF; }

// Addition, subtraction, multiplication and division where one operand is a special
// float. Complex numbers have no infinities: with one of them, and in all other
// operations, a special float is refused.
Cell special_binop(Cell a, Cell b, int op) {
    if (op != MAR_ADD && op != MAR_SUBTRACT && op != MAR_MULTIPLY && op != MAR_DIVIDE)
        MER_raise(MER_ILLEGAL_ARGUMENT, "non-rd-function");
    if (MMM_category(a) == DOM_COMPLEX || MMM_category(b) == DOM_COMPLEX) MER_raise(MER_ILLEGAL_ARGUMENT, "non-rd-function");
    const int x = sign_field(a);
    int y = sign_field(b);
    switch (op) {
    case MAR_SUBTRACT:
        if (y != MAR_SIGN_NAN) y = -y;
        [[fallthrough]];
    case MAR_ADD:
        if (x == MAR_SIGN_NAN || y == MAR_SIGN_NAN) return special_cell(MAR_SIGN_NAN);
        if ((x == MAR_SIGN_INF && y == MAR_SIGN_NINF) || (x == MAR_SIGN_NINF && y == MAR_SIGN_INF))
            return special_cell(MAR_SIGN_NAN);
        return special_cell(x == MAR_SIGN_INF || y == MAR_SIGN_INF ? MAR_SIGN_INF : MAR_SIGN_NINF);
    case MAR_MULTIPLY:
        if (x == MAR_SIGN_NAN || y == MAR_SIGN_NAN || x == 0 || y == 0) return special_cell(MAR_SIGN_NAN);
        return special_cell(infinity(sign_of(x) * sign_of(y)));
    default:  // division
        if (y == 0) MAR_pari_error(31);
        if (x == 0) {
            // A zero numerator gives a zero of its own length.
            if (MMM_category(a) == DOM_FLOAT) return shared(a, false);
            const pari_sp av = avma;
            Cell z = MAR_make_number(real_0(MAR_pari_precision), false);
            set_avma(av);
            return z;
        }
        if (x == MAR_SIGN_NAN || y == MAR_SIGN_NAN) return special_cell(MAR_SIGN_NAN);
        if (infinite(x) && infinite(y)) return special_cell(MAR_SIGN_NAN);
        // An infinite numerator, or a finite one over an infinite denominator (so that
        // 1.0/RD_INF is RD_INF): the infinity of the sign product.
        return special_cell(infinity(sign_of(x) * sign_of(y)));
    }
}

// ---- PARI arithmetic ----
// The tests against 0, 1 and -1 are gequal0, gequal1 and gequalm1, the names PARI gave
// its former gcmp0, gcmp1 and gcmp_1.

bool integral_real(GEN y) {
    return typ(y) == t_REAL && gequal0(gfrac(y));
}

GEN power(GEN x, GEN y) {
    const long prec = MAR_pari_precision;
    if (gequalm1(y)) {
        // A float exponent -1.0 makes the result a float, an integer -1 does not.
        if (typ(y) == t_REAL) return gdiv(gabs(y, prec), x);
        if (is_exact(x) && gequal0(x)) MER_raise(MER_DIVISION_BY_ZERO, nullptr);
        return ginv(x);
    }
    if (typ(x) != t_COMPLEX && integral_real(y)) {
        // An integral float exponent: a real power of a real base, also for a negative
        // base, and never an exact result.
        GEN r = gpow(gtofp(x, prec), truncr(y), prec);
        return typ(r) == t_REAL ? r : gtofp(r, prec);
    }
    if (is_exact(x) && gequal0(x) && typ(y) != t_COMPLEX && is_exact(y) && gsigne(y) < 0)
        MER_raise(MER_DIVISION_BY_ZERO, nullptr);
    return gpow(x, y, prec);
}

GEN arithmetic(GEN x, GEN y, int op) {
    switch (op) {
    case MAR_ADD: return gadd(x, y);
    case MAR_SUBTRACT: return gsub(x, y);
    case MAR_MULTIPLY: return gmul(x, y);
    case MAR_DIVIDE:
        if (gequal0(y)) {
            if (is_exact(x) && is_exact(y)) MER_raise(MER_DIVISION_BY_ZERO, nullptr);
            MAR_pari_error(31);
        }
        return gdiv(x, y);
    case MAR_MOD:
    case MAR_DIV:
    case MAR_MODS: {
        if (gequal0(y)) MAR_pari_error(36);
        if (op == MAR_DIV) return gdivent(x, y);
        GEN r = gmod(x, y);
        if (op == MAR_MOD) return r;
        // The symmetric residue: above half the modulus, step down by the modulus.
        GEN m = gabs(y, MAR_pari_precision);
        return gcmp(r, gdiv(m, gen_2)) > 0 ? gsub(r, m) : r;
    }
    default: return power(x, y);
    }
}

bool known_operation(int op) {
    switch (op) {
    case MAR_SUBTRACT:
    case MAR_DIVIDE:
    case MAR_MOD:
    case MAR_DIV:
    case MAR_ADD:
    case MAR_MULTIPLY:
    case MAR_POWER:
    case MAR_MODS: return true;
    default: return false;
    }
}

// ---- text ----

std::string pari_text(GEN x) {
    char* s = typ(x) == t_REAL ? pari_sprintf("%.*Pg", int(MAR_digits > 0 ? MAR_digits : 1), x) : GENtostr(x);
    std::string text(s);
    pari_free(s);
    return text;
}

std::string value_text(GEN x) {
    if (typ(x) != t_COMPLEX) return pari_text(x);
    GEN re = gel(x, 1);
    GEN im = gel(x, 2);
    const bool negative = gsigne(im) < 0;
    GEN magnitude = negative ? gneg(im) : im;
    std::string imaginary = is_exact(magnitude) && gequal1(magnitude) ? "I" : pari_text(magnitude) + "*I";
    if (is_exact(re) && gequal0(re)) return (negative ? "-" : "") + imaginary;
    return pari_text(re) + (negative ? " - " : " + ") + imaginary;
}

const unsigned long powers_of_ten[10] = {1ul,      10ul,      100ul,      1000ul,      10000ul,
                                         100000ul, 1000000ul, 10000000ul, 100000000ul, 1000000000ul};

bool is_digit(char c) { return c >= '0' && c <= '9'; }

// DIGITS and the working precision, put back after a trap or a report.
struct SavedPrecision {
    int32_t digits, words;
    long pari_precision;
};
void save_precision(void* room) { *static_cast<SavedPrecision*>(room) = {MAR_digits, MAR_precision_words, MAR_pari_precision}; }
void restore_precision(const void* room) {
    const auto& r = *static_cast<const SavedPrecision*>(room);
    if (MAR_digits != r.digits) MAR_set_digits(r.digits);
    MAR_precision_words = r.words;
    MAR_pari_precision = r.pari_precision;
}

}  // namespace

// ---- start ----

void MAR_init_numbers() {
    MER_add_state({sizeof(SavedPrecision), save_precision, restore_precision, nullptr});
    MMM_integer_maker = MAR_from_long;
    MMM_set_sign_routine(MMM_NUMBER, sign_block);
    MCM_set_equal_routine(MMM_NUMBER, equal_blocks);
    MCM_set_compare_routine(MMM_NUMBER, compare_blocks);
    MAR_set_digits(10);
    MAR_poll_countdown = 1023;
    const pari_sp av = avma;
    // MAR_make_number, not MAR_from_pari: the shared integers are what the latter gives.
    MAR_ZERO = MAR_make_number(gen_0, false);
    MAR_ONE = MAR_make_number(gen_1, false);
    MAR_TWO = MAR_make_number(gen_2, false);
    MAR_MINUS_ONE = MAR_make_number(gen_m1, false);
    MAR_MINUS_TWO = MAR_make_number(gen_m2, false);
    MAR_HALF = MAR_make_number(ghalf, false);
    MAR_MINUS_HALF = MAR_make_number(mkfrac(gen_m1, gen_2), false);
    MAR_FLOAT_ZERO = MAR_make_number(real_0(MAR_pari_precision), false);
    MAR_FLOAT_ONE = MAR_make_number(real_1(MAR_pari_precision), false);
    MAR_I = MAR_make_number(mkcomplex(gen_0, gen_1), false);
    RD_INF = make_special(MAR_SIGN_INF);
    RD_NINF = make_special(MAR_SIGN_NINF);
    RD_NAN = make_special(MAR_SIGN_NAN);
    set_avma(av);
    for (Cell* root : {&MAR_ZERO, &MAR_ONE, &MAR_TWO, &MAR_MINUS_ONE, &MAR_MINUS_TWO, &MAR_HALF,
                       &MAR_MINUS_HALF, &MAR_FLOAT_ZERO, &MAR_FLOAT_ONE, &MAR_I, &RD_INF, &RD_NINF, &RD_NAN})
        MMM_add_root(root);
}

// ---- DIGITS ----

void MAR_set_digits(long n) {
    if (n < 0 || n > INT32_MAX) MER_raise(MER_ARG_OUT_OF_RANGE, nullptr);
    MAR_digits = int32_t(n);
    // log2(10)/32 to nine digits turns decimal digits into 32-bit words; two more words
    // are the header. PARI's words hold two of ours: an odd count of mantissa words
    // rounds up to the next whole PARI word.
    MAR_precision_words = int32_t((double(n) + 2.0) * 0.103810253 + 3.0);
    MAR_pari_precision = 2 + (long(MAR_precision_words) - 2 + 1) / 2;
}

// ---- cells ----

bool MAR_is_number(Cell c) {
    if (!c || MMM_kind_of(c) != MMM_NODE || c->size < MMM_NODE_BYTES) return false;
    switch (MMM_category(c)) {
    case CAT_BIG_INT:
    case DOM_FLOAT:
    case DOM_INT:
    case DOM_RAT:
    case DOM_COMPLEX: break;
    default: return false;
    }
    return MMM_child_count(c) == 1 && block_of(c) && MMM_kind_of(block_of(c)) == MMM_NUMBER;
}

int MAR_special(Cell c) {
    if (!MAR_is_number(c) || MMM_category(c) != DOM_FLOAT) return 0;
    return int(words_of(block_of(c))[0]);
}

int32_t MAR_small_int(Cell c) {
    if (!MAR_is_number(c) || MMM_category(c) != DOM_INT) MER_raise(MER_INTEGER_EXPECTED, nullptr);
    GEN x = words_of(block_of(c)) + ROOT;
    if (!signe(x)) return 0;
    const long m = long(ulong(x[2]));
    return int32_t(signe(x) > 0 ? m : -m);
}

Cell MAR_from_long(long n) {
    // A one-word integer laid out as PARI lays it out, without touching the stack.
    long x[3];
    x[0] = evaltyp(t_INT) | evallg(3);
    if (n == 0) {
        x[1] = evalsigne(0) | evallgefint(2);
    } else {
        x[1] = evalsigne(n > 0 ? 1 : -1) | evallgefint(3);
        x[2] = long(n > 0 ? ulong(n) : 0ul - ulong(n));
    }
    return MAR_from_pari(x, false);
}

Cell MAR_make_number(GEN value, bool reset) {
    if (!storable(value, false)) MER_raise(MER_INTERNAL, "number type");
    check_range(value);
    const long n = stored_length(value);
    Cell block = MMM_new(MMM_NUMBER, long(sizeof(long)) * (ROOT + n), 0);
    long* w = words_of(block);
    w[0] = 0;
    store(value, w, ROOT);
    Cell c = node_for(category_of(value), block);
    if (reset) MAR_reset_to_mark();
    return c;
}

Cell MAR_from_pari(GEN x, bool reset) {
    if (typ(x) == t_INT && lgefint(x) <= 3) {
        if (!signe(x)) return shared(MAR_ZERO, reset);
        const ulong m = ulong(x[2]);
        if (m == 1) return shared(signe(x) > 0 ? MAR_ONE : MAR_MINUS_ONE, reset);
        if (m == 2 && signe(x) > 0) return shared(MAR_TWO, reset);
    }
    if (typ(x) == t_COMPLEX) {
        GEN im = gel(x, 2);
        if (typ(im) != t_REAL && gequal0(im)) return MAR_from_pari(gel(x, 1), reset);
        if (typ(gel(x, 1)) == t_REAL || typ(im) == t_REAL) {
            x = MAR_float_parts(x);
            if (!signe(gel(x, 2))) {
                x = gel(x, 1);
                if (!signe(x)) x = real_0(MAR_pari_precision);
            }
        }
    }
    return MAR_make_number(x, reset);
}

GEN MAR_get_raw(Cell c) { return load(words_of(block_of(check_number(c))), ROOT); }

GEN MAR_get(Cell c) {
    if (MAR_special(c)) MER_raise(MER_ILLEGAL_ARGUMENT, "non-rd-function");
    return MAR_get_raw(c);
}

GEN MAR_get_ordered(Cell c) {
    switch (MAR_special(c)) {
    case MAR_SIGN_NAN: MER_raise(MER_ILLEGAL_ARGUMENT, "comparison operator");
    case MAR_SIGN_INF: return mkoo();
    case MAR_SIGN_NINF: return mkmoo();
    default: return MAR_get_raw(c);
    }
}

GEN MAR_at_precision(GEN x) {
    const long n = MAR_pari_precision;
    switch (typ(x)) {
    case t_REAL: {
        const long have = lg(x);
        if (have == n) return x;
        GEN y = cgetr(n);
        if (!signe(x)) {
            // A zero keeps the finer of its own accuracy and that of the new length.
            y[1] = evalsigne(0) | evalexpo(minss(expo(x), -prec2nbits(n)));
            return y;
        }
        y[1] = x[1];
        const long keep = have < n ? have : n;
        for (long i = 2; i < keep; ++i) y[i] = x[i];
        for (long i = keep; i < n; ++i) y[i] = 0;
        return y;
    }
    case t_COMPLEX: {
        GEN a = MAR_at_precision(gel(x, 1));
        GEN b = MAR_at_precision(gel(x, 2));
        return a == gel(x, 1) && b == gel(x, 2) ? x : mkcomplex(a, b);
    }
    default: return x;
    }
}

GEN MAR_float_parts(GEN x) {
    switch (typ(x)) {
    case t_INT:
    case t_FRAC: return gtofp(x, MAR_pari_precision);
    case t_COMPLEX: {
        GEN a = MAR_float_parts(gel(x, 1));
        GEN b = MAR_float_parts(gel(x, 2));
        return a == gel(x, 1) && b == gel(x, 2) ? x : mkcomplex(a, b);
    }
    default: return x;
    }
}

void MAR_assign(GEN value, GEN target) {
    if (is_universal_constant(target) && target != value) {
        switch (typ(target)) {
        case t_INT: MER_raise(MER_INTERNAL, "trying to overwrite a universal integer, please report!");
        case t_REAL: MER_raise(MER_INTERNAL, "trying to overwrite a universal real, please report!");
        case t_FRAC: MER_raise(MER_INTERNAL, "trying to overwrite a universal fraction, please report!");
        default: MER_raise(MER_INTERNAL, "trying to overwrite the universal i, please report!");
        }
    }
    gaffect(value, target);
}

// ---- the literal reader ----

Cell MAR_read_number(std::string_view s) {
    const size_t len = s.size();
    size_t i = 0;
    const pari_sp av = avma;
    // Half of the free stack may go to the running value before it is compacted.
    const pari_sp compact_below = av - (av - pari_mainstack->bot) / 2;
    GEN n = gen_0;
    long digits = 0;
    long fraction_digits = 0;
    // Groups of at most nine digits: the value so far times ten to the group's length,
    // plus the group.
    auto read_digits = [&](bool fraction) {
        while (i < len && is_digit(s[i])) {
            ulong group = 0;
            int k = 0;
            for (; i < len && k < 9 && is_digit(s[i]); ++i, ++k) group = group * 10 + ulong(s[i] - '0');
            n = addui(group, mului(powers_of_ten[k], n));
            digits += k;
            if (fraction) fraction_digits += k;
            if (avma < compact_below) n = gerepileuptoint(av, n);
        }
    };
    read_digits(false);
    if (!digits) MER_raise(MER_ILLEGAL_ARGUMENT, nullptr);
    if (i == len) return MAR_from_pari(n, true);
    if (s[i] == '.') {
        ++i;
        read_digits(true);
    }
    long exponent = 0;
    if (i < len && (s[i] == 'e' || s[i] == 'E')) {
        ++i;
        bool negative = false;
        if (i < len && (s[i] == '+' || s[i] == '-')) negative = s[i++] == '-';
        int k = 0;
        for (; i < len && k < 9 && is_digit(s[i]); ++i, ++k) exponent = exponent * 10 + (s[i] - '0');
        if (!k) MER_raise(MER_ILLEGAL_ARGUMENT, nullptr);
        if (i < len && is_digit(s[i])) MAR_pari_error(98);
        if (negative) exponent = -exponent;
    }
    if (i != len) MER_raise(MER_ILLEGAL_ARGUMENT, nullptr);
    // A float as long as the working precision or the digits written, whichever is longer.
    const long length = lgefint(n) > MAR_pari_precision ? lgefint(n) : MAR_pari_precision;
    GEN x = cgetr(length);
    affir(n, x);
    if (const long decimal = exponent - fraction_digits) {
        GEN scale = gpowgs(stor(10, length), decimal > 0 ? decimal : -decimal);
        x = decimal > 0 ? mulrr(x, scale) : divrr(x, scale);
    }
    return MAR_from_pari(x, true);
}

std::string MAR_debug_text(Cell c) {
    if (!MAR_is_number(c)) return "<no number>";
    switch (MAR_special(c)) {
    case MAR_SIGN_INF: return "RD_INF";
    case MAR_SIGN_NINF: return "RD_NINF";
    case MAR_SIGN_NAN: return "RD_NAN";
    default: break;
    }
    const pari_sp av = avma;
    std::string text = value_text(MAR_get_raw(c));
    set_avma(av);
    return text;
}

// ---- arithmetic ----

Cell MAR_binop(Cell a, Cell b, Cell* slot, int op) {
    MAR_count_poll();
    if (!known_operation(op)) MER_raise(MER_UNKNOWN_OPERATOR, nullptr);
    if (!MAR_is_number(a) || !MAR_is_number(b)) MER_raise(MER_ILLEGAL_OPERAND, nullptr);
    Cell result;
    if (MAR_special(a) || MAR_special(b)) {
        result = special_binop(a, b, op);
    } else if (MMM_category(a) == DOM_INT && MMM_category(b) == DOM_INT &&
               (op == MAR_ADD || op == MAR_SUBTRACT || op == MAR_MULTIPLY)) {
        // Two machine integers: no PARI, and no overflow in 64 bits.
        const long x = MAR_small_int(a), y = MAR_small_int(b);
        result = MAR_from_long(op == MAR_ADD ? x + y : op == MAR_SUBTRACT ? x - y : x * y);
    } else {
        GEN x = MAR_at_precision(MAR_get_raw(a));
        GEN y = MAR_at_precision(MAR_get_raw(b));
        result = MAR_from_pari(arithmetic(x, y, op), true);
    }
    if (slot) {
        MMM_release(*slot);
        *slot = result;
    }
    return result;
}

namespace {

// The sign of a real number; a real zero is zero whatever its accuracy.
int sign_of(GEN x) { return typ(x) == t_FRAC ? signe(gel(x, 1)) : signe(x); }

// An integer as a real with no rounding: at least `words` long, longer when it needs it.
GEN exact_real(GEN n, long words) { return itor(n, std::max(words, lgefint(n))); }

// Exact order of two non-zero reals of one sign, where at least one is a float. A real
// compares with an integer at a length that holds both exactly, and with a fraction p/q
// as q times the real against p, the product made at a length that holds it exactly.
int compare_with_real(GEN x, GEN y) {
    if (typ(x) == t_REAL && typ(y) == t_REAL) return cmprr(x, y);
    if (typ(x) != t_REAL) return -compare_with_real(y, x);
    if (typ(y) == t_INT) return cmprr(x, exact_real(y, lg(x)));
    GEN p = gel(y, 1), q = gel(y, 2);
    GEN qx = mulir(q, rtor(x, lg(x) + lgefint(q)));
    return cmprr(qx, exact_real(p, lg(qx)));
}

}  // namespace

namespace {

// The order of two real numbers; with `refuse_nan`, RD_NAN is an error instead of the
// lowest value (the comparison operators).
int compare_numbers(Cell a, Cell b, bool refuse_nan) {
    MAR_count_poll();
    check_number(a);
    check_number(b);
    if (MMM_category(a) == DOM_COMPLEX || MMM_category(b) == DOM_COMPLEX) MAR_pari_error(282);
    const int special_a = MAR_special(a), special_b = MAR_special(b);
    if (special_a || special_b) {
        if (refuse_nan && (special_a == MAR_SIGN_NAN || special_b == MAR_SIGN_NAN))
            MER_raise(MER_ILLEGAL_ARGUMENT, "comparison operator");
        const int x = sign_field(a), y = sign_field(b);
        return x < y ? -1 : x > y ? 1 : 0;
    }
    const pari_sp av = avma;
    GEN x = MAR_get_raw(a);
    GEN y = MAR_get_raw(b);
    int r;
    if (typ(x) == t_INT && typ(y) == t_INT) {
        r = cmpii(x, y);
    } else if (typ(x) != t_REAL && typ(y) != t_REAL) {
        r = gsigne(gsub(x, y));  // integers and fractions: exact
    } else {
        // With a float the signs decide first, so that no zero swallows a small value.
        const int sx = sign_of(x), sy = sign_of(y);
        r = sx != sy ? (sx < sy ? -1 : 1) : sx == 0 ? 0 : compare_with_real(x, y);
    }
    set_avma(av);
    return r < 0 ? -1 : r > 0 ? 1 : 0;
}

}  // namespace

int MAR_compare(Cell a, Cell b) { return compare_numbers(a, b, false); }

int MAR_order(Cell a, Cell b) { return compare_numbers(a, b, true); }

// ---- the companions ----

bool MAR_looks_negative(Cell x, bool deep) {
    if (!MAR_is_number(x)) return MAR_expression.looks_negative ? MAR_expression.looks_negative(x, deep) : false;
    switch (MAR_special(x)) {
    case MAR_SIGN_INF:
    case MAR_SIGN_NAN: return false;  // RD_NAN has no sign to show
    case MAR_SIGN_NINF: return true;
    default: break;
    }
    if (MMM_category(x) == DOM_INT) return MAR_small_int(x) < 0;
    const pari_sp av = avma;
    GEN v = MAR_get_raw(x);
    int s;
    if (typ(v) == t_COMPLEX) {
        s = gsigne(gel(v, 1));
        if (!s) s = gsigne(gel(v, 2));
    } else {
        s = gsigne(v);
    }
    set_avma(av);
    return s < 0;
}

Cell MAR_negate(Cell x, bool evaluate) {
    if (!MAR_is_number(x)) {
        if (MAR_expression.negate) return MAR_expression.negate(x, evaluate);
        MER_raise(MER_NOT_IMPLEMENTED, "_negate");
    }
    switch (MAR_special(x)) {
    case MAR_SIGN_INF: return special_cell(MAR_SIGN_NINF);
    case MAR_SIGN_NINF: return special_cell(MAR_SIGN_INF);
    case MAR_SIGN_NAN: return special_cell(MAR_SIGN_NAN);
    default: break;
    }
    if (MMM_category(x) == DOM_INT) return MAR_from_long(-long(MAR_small_int(x)));
    return MAR_from_pari(gneg(MAR_get_raw(x)), true);
}

Cell MAR_invert(Cell x) {
    if (!MAR_is_number(x)) {
        if (MAR_expression.invert) return MAR_expression.invert(x);
        MER_raise(MER_NOT_IMPLEMENTED, "_invert");
    }
    if (MAR_special(x)) return special_binop(MAR_ONE, x, MAR_DIVIDE);
    GEN v = MAR_at_precision(MAR_get_raw(x));
    if (gequal0(v)) {
        if (is_exact(v)) MER_raise(MER_DIVISION_BY_ZERO, nullptr);
        MAR_pari_error(31);
    }
    return MAR_from_pari(ginv(v), true);
}

Cell MAR_divide(Cell a, Cell b) {
    if (MAR_is_number(a) && MAR_is_number(b)) return MAR_binop(a, b, nullptr, MAR_DIVIDE);
    if (MAR_expression.divide) return MAR_expression.divide(a, b);
    MER_raise(MER_NOT_IMPLEMENTED, "_divide");
}

Cell MAR_subtract(Cell a, Cell b) {
    if (MAR_is_number(a) && MAR_is_number(b)) return MAR_binop(a, b, nullptr, MAR_SUBTRACT);
    if (MAR_expression.subtract) return MAR_expression.subtract(a, b);
    MER_raise(MER_NOT_IMPLEMENTED, "_subtract");
}

// The texts of numbers: integers and fractions exactly, floats with DIGITS significant
// digits, complex numbers as sums of their parts.
#include <pari/pari.h>

#include <algorithm>
#include <cmath>
#include <string>

#include "MAR_numbers.h"
#include "MMM_values.h"
#include "MOU_internal.h"

namespace {

// Decimal digits that `bits` binary digits carry.
long digits_carried(long bits) { return std::max(1L, long(std::floor(double(bits) * 0.30102999566398119521))); }

// The first n significant decimal digits of |x| (x a non-zero real), rounded, and the
// decimal exponent of the first.
std::string significant_digits(GEN x, long n, long* exponent) {
    const long prec = lg(x) + 1;  // a word more than the value, for the scaling
    GEN magnitude = rtor(mpabs(x), prec);
    GEN ten = stor(10, prec);
    GEN upper = powuu(10, ulong(n));
    GEN lower = powuu(10, ulong(n - 1));
    long e = long(std::floor(double(expo(x)) * 0.30102999566398119521));
    GEN m = gen_0;
    // The estimate of the exponent is off by at most one; each step mends it.
    for (int step = 0; step < 4; ++step) {
        const long k = n - 1 - e;
        GEN scaled = k >= 0 ? mulrr(magnitude, powrs(ten, k)) : divrr(magnitude, powrs(ten, -k));
        m = roundr(scaled);
        if (cmpii(m, upper) >= 0) {
            ++e;
        } else if (cmpii(m, lower) < 0) {
            --e;
        } else {
            break;
        }
    }
    *exponent = e;
    return itostr(m);
}

// "1.2300" -> "1.23", "5.000" -> "5.0": zeroes at the end of a fraction go, one digit
// stays behind the point.
void cut_zeroes(std::string& fraction) {
    if (MOU_trailing_zeroes) return;
    while (fraction.size() > 1 && fraction.back() == '0') fraction.pop_back();
}

std::string real_text(GEN x) {
    if (!signe(x)) return "0.0";
    const long n = std::min(long(std::max(MAR_digits, 1)), digits_carried(prec2nbits(lg(x))));
    long e = 0;
    const std::string d = significant_digits(x, n, &e);
    std::string text = signe(x) < 0 ? "-" : "";
    if (e >= -4 && e < n) {
        std::string whole, fraction;
        if (e >= 0) {
            whole = d.substr(0, size_t(e) + 1);
            fraction = d.substr(size_t(e) + 1);
        } else {
            whole = "0";
            fraction = std::string(size_t(-e - 1), '0') + d;
        }
        if (fraction.empty()) fraction = "0";
        cut_zeroes(fraction);
        return text + whole + "." + fraction;
    }
    std::string fraction = d.size() > 1 ? d.substr(1) : "0";
    cut_zeroes(fraction);
    return text + d.substr(0, 1) + "." + fraction + "e" + std::to_string(e);
}

std::string part_text(GEN x) {
    switch (typ(x)) {
    case t_INT: return itostr(x);
    case t_FRAC: return std::string(itostr(gel(x, 1))) + "/" + itostr(gel(x, 2));
    case t_REAL: return real_text(x);
    default: return "?";
    }
}

bool exact_one(GEN x) { return typ(x) == t_INT && is_pm1(x); }

std::string complex_text(GEN z) {
    GEN re = gel(z, 1);
    GEN im = gel(z, 2);
    const bool negative = gsigne(im) < 0;
    GEN magnitude = negative ? gneg(im) : im;
    const std::string imaginary = exact_one(magnitude) ? "I" : part_text(magnitude) + "*I";
    if (gequal0(re)) return (negative ? "-" : "") + imaginary;
    return part_text(re) + (negative ? " - " : " + ") + imaginary;
}

}  // namespace

std::string MOU_number_text(Cell number) {
    switch (MAR_special(number)) {
    case MAR_SIGN_INF: return "RD_INF";
    case MAR_SIGN_NINF: return "RD_NINF";
    case MAR_SIGN_NAN: return "RD_NAN";
    default: break;
    }
    if (MMM_category(number) == DOM_INT) return std::to_string(MAR_small_int(number));
    const pari_sp av = avma;
    GEN x = MAR_get_raw(number);
    std::string text = typ(x) == t_COMPLEX ? complex_text(x) : part_text(x);
    set_avma(av);
    return text;
}

bool MOU_number_negative(Cell number) { return MAR_looks_negative(number); }

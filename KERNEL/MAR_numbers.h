// Numbers: the language's integers, rationals, floats and complex numbers as cells over
// PARI values, the shared number cells, DIGITS, the number literal reader and the
// arithmetic of two numbers.
//
// A number is a value node (category DOM_INT, CAT_BIG_INT, DOM_RAT, DOM_FLOAT or
// DOM_COMPLEX, flags 0) with exactly one child, its block: a leaf cell of kind MMM_NUMBER
// that holds a frozen copy of the PARI value and carries the number's signature.
//
// Block layout, in 64-bit words:
//   word 0   0 for an ordinary number, else the sign field of a special float:
//            2 RD_INF, -2 RD_NINF, -128 RD_NAN (PARI's own sign field has no room for
//            these, so they live beside the PARI value)
//   word 1.. the PARI value, laid out root first, each part following its parent
// A fraction or complex number refers to its parts by word index in the block, not by
// address. The block is thus valid wherever it lies: the heap may copy it byte for byte
// (clone, resize) and nothing needs fixing, and reading never writes to a cell that may
// be shared. An integer or a real is handed to PARI in place; a fraction or complex
// number gets a three-word head on the PARI stack that refers to its parts in place.
// A special float stores a real zero of the working length as its PARI value.
//
// Signatures are computed over 32-bit halves of PARI's 64-bit words, so that they, and
// with them the system order, are those of a machine with 32-bit words.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "MAR_pari.h"
#include "MMM_cell.h"

// ---- shared number cells: permanent roots, made by MAR_init_numbers ----
extern Cell MAR_ZERO;
extern Cell MAR_ONE;
extern Cell MAR_TWO;
extern Cell MAR_MINUS_ONE;
extern Cell MAR_MINUS_TWO;
extern Cell MAR_HALF;
extern Cell MAR_MINUS_HALF;
extern Cell MAR_FLOAT_ZERO;  // 0.0 at DIGITS 10
extern Cell MAR_FLOAT_ONE;   // 1.0 at DIGITS 10
extern Cell MAR_I;
extern Cell RD_INF;
extern Cell RD_NINF;
extern Cell RD_NAN;

// Installs the signature, equality and order of number blocks, sets DIGITS to 10 and
// makes the shared cells. Runs after MMM_values_start and MAR_start, at every start of
// the heap.
void MAR_init_numbers();

// ---- DIGITS and precision ----
extern int32_t MAR_digits;           // DIGITS, 10 at start
extern int32_t MAR_precision_words;  // length of a new float in 32-bit words, header included
extern long MAR_pari_precision;      // the same length as PARI counts it: 64-bit words
// Sets DIGITS: a negative n, or one beyond 32 bits, is error 1012.
void MAR_set_digits(long n);

// ---- number cells ----
constexpr int MAR_SIGN_INF = 2;
constexpr int MAR_SIGN_NINF = -2;
constexpr int MAR_SIGN_NAN = -128;

bool MAR_is_number(Cell c);
// The sign field of a special float (MAR_SIGN_*), 0 for every other cell.
int MAR_special(Cell c);
// The value of a number of category DOM_INT, read without PARI.
int32_t MAR_small_int(Cell c);
// An integer cell; 0, 1, 2 and -1 give the shared cells.
Cell MAR_from_long(long n);

// PARI value to cell, without normalisation. With `reset`, the PARI stack goes back to
// MAR_stack_mark afterwards. A real whose exponent leaves 23 bits plus sign raises 8.
Cell MAR_make_number(GEN value, bool reset);
// The only road from a PARI result to a cell: integers 0, 1, 2, -1 give the shared cells,
// a complex number with an exact zero imaginary part becomes its real part, a complex
// number with a float part gets two float parts and loses a zero imaginary part.
Cell MAR_from_pari(GEN value, bool reset);

// Cell to PARI value, for a number cell that outlives the use of the value. MAR_get
// refuses a special float (1005 "non-rd-function"); MAR_get_ordered refuses only RD_NAN
// (1005 "comparison operator") and gives PARI's infinities for RD_INF and RD_NINF;
// MAR_get_raw refuses nothing. A cell that is no number is error 1005.
GEN MAR_get(Cell c);
GEN MAR_get_ordered(Cell c);
GEN MAR_get_raw(Cell c);

// Every float in the value brought to the working length: longer ones cut (truncating
// the surplus words), shorter ones extended with zero words. Exact values unchanged.
GEN MAR_at_precision(GEN value);
// Exact values, or the exact parts of a complex number, as floats of the working length.
GEN MAR_float_parts(GEN value);

// Assigns `value` onto `target` (PARI's gaffect). PARI's universal constants are
// read-only: overwriting one with another value is error 1103.
void MAR_assign(GEN value, GEN target);

// The text of a number literal (digits, an optional point and digits, an optional
// exponent "e" or "E" with a sign) to a number cell. Integers are exact; a float keeps
// every digit written, and at least the working precision. Another text is error 1005; an
// exponent beyond nine digits is error 98.
Cell MAR_read_number(std::string_view text);

// A short text of a number for traces and dumps: exact values exactly, floats with
// DIGITS significant digits, special floats by name.
std::string MAR_debug_text(Cell c);

// ---- arithmetic ----
enum MAR_operation {
    MAR_SUBTRACT = 0,
    MAR_DIVIDE = 1,
    MAR_MOD = 10,
    MAR_DIV = 11,
    MAR_ADD = 15,
    MAR_MULTIPLY = 16,
    MAR_POWER = 17,
    MAR_MODS = 175,
};

// `op` on two number cells (borrowed). Floats are first brought to the working precision,
// so a float result has the precision of the moment of the operation. Without `slot` the
// result is a new reference for the caller; with `slot`, its old content is released
// after the operation and the slot takes the result, which is also returned (borrowed).
// An unknown `op` is error 1101; exact division by zero 1025; a zero modulus 36.
Cell MAR_binop(Cell a, Cell b, Cell* slot, int op);

// Order of real numbers: -1, 0 or 1, exact at every magnitude (a float is compared with
// an integer or fraction by its exact value). A special float orders by its sign field
// (RD_NAN lowest, then RD_NINF, the finite numbers, RD_INF); a complex operand is
// error 282.
int MAR_compare(Cell a, Cell b);
// The order a comparison operator asks for: as MAR_compare, but RD_NAN has none and is
// error 1005 with "comparison operator".
int MAR_order(Cell a, Cell b);

// ---- the four companions of the arithmetic operators ----
// Numbers are handled here. Other operands go to the expression layer through
// MAR_expression; until that layer installs its routines they are error 1035
// "Not yet implemented" (MAR_looks_negative answers false).
bool MAR_looks_negative(Cell x, bool deep = false);
Cell MAR_negate(Cell x, bool evaluate = true);
Cell MAR_invert(Cell x);
Cell MAR_divide(Cell a, Cell b);
Cell MAR_subtract(Cell a, Cell b);

struct MAR_expression_routines {
    bool (*looks_negative)(Cell x, bool deep) = nullptr;
    Cell (*negate)(Cell x, bool evaluate) = nullptr;
    Cell (*invert)(Cell x) = nullptr;
    Cell (*divide)(Cell a, Cell b) = nullptr;
    Cell (*subtract)(Cell a, Cell b) = nullptr;
};
extern MAR_expression_routines MAR_expression;

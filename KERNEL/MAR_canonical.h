// Canonical sums, products and powers: the bodies of `_plus`, `_mult`, `_power` and of
// their companions `_negate`, `_invert`, `_subtract`, `_divide`.
//
// Every evaluated sum and product of the system has passed through here. A canonical
// sum `_plus(t1, ..., tn)` has at least two operands, no operand that is itself a sum,
// its non-number terms in the system order of their sign-free forms (MCM_compare) and at
// most one number, last, never 0 or 0.0 beside other terms. A canonical product is the
// same with `_mult`, ordered by the sign-free bases of its factors, with at most one
// number (the coefficient), last, never the exact 1. `x - y` is `_plus(x, _mult(y, -1))`:
// `_subtract`, `_negate`, `_divide` and `_invert` leave no trace in results.
//
// Expressions have the operator's identifier as child 0 and their operands after it.
// All entry points take their operands evaluated; arguments are borrowed, results are
// new references. A result equal to the input is the input cell itself.
//
// Not combined yet, and left as the expression they came in: sums, products and powers
// with an interval, a set or a set expression (`_union`, `_equal`, `_and`, ...) among
// their operands, and polynomial powers; polynomials are neither merged nor negated
// (a negated polynomial is the unevaluated `_mult(p, -1)`). Domain elements take part as
// plain operands until overloading exists.
#pragma once

#include <initializer_list>
#include <span>

#include "MFN_table.h"
#include "MMM_cell.h"

// ---- canonical forms ----
// `expr` is `_plus(...)`, `_mult(...)` or `_power(x, y)`. Nested sums in a sum and
// nested products in a product are spliced. `_power` with other than two operands is
// error 1004; 0 to a negative or complex power is error 1025 "Division by zero"; an
// operand NULL, NIL, a boolean or FAIL of a power is error 1001; each with "_power".
Cell MAR_plus(Cell expr);
Cell MAR_mult(Cell expr);
Cell MAR_power(Cell expr);

// The same on operands.
Cell MAR_sum_of(Cell a, Cell b);
Cell MAR_product_of(Cell a, Cell b);
Cell MAR_power_of(Cell x, Cell y);

// An even integer, or `_mult(n, k)` with k an even integer and n an integer or an
// identifier of integer property.
bool MAR_is_even(Cell y);

// ---- checking canonical forms ----
// The rules above, tested on a value and on every sum, product and power inside it
// (through expressions and lists), without native recursion. Sums, products and powers
// that the routines keep as they came (intervals, sets, set expressions, polynomial
// powers) pass as they are. Rules that depend on property bits are not tested, since
// bits change after a value is made. The test itself negates and multiplies, and while
// it runs the routines do not check their own results.
enum class MAR_fault {
    none,
    operand_count,     // a sum or product of fewer than two operands, a power of other than two
    illegal_operand,   // NULL in a sum or product; NULL, NIL, a boolean or FAIL in a power
    nested,            // a sum in a sum, a product in a product
    companion,         // `_negate`, `_subtract`, `_divide` or `_invert` as an operand
    number_place,      // a number that is not the last operand of a sum or product
    zero_term,         // the number of a sum is 0 or 0.0
    zero_factor,       // the coefficient of a product is 0 or 0.0
    unit_factor,       // the coefficient of a product is the exact 1
    order,             // operands out of the system order of their sign-free forms
    uncollected,       // like terms or like factors side by side
    undistributed,     // a coefficient times one sum, which distributes
    negative_factor,   // a factor that looks negative: its sign belongs to the coefficient
    negative_base,     // an integer or even power of a base that looks negative
    zero_exponent,     // x^0 or x^0.0
    unit_exponent,     // x^1
    unit_base,         // 1^y
    zero_base,         // 0^y for a number y
    power_of_product,  // a product to an integer power
    power_of_power,    // a power of a power whose exponents multiply
    number_power,      // a power of numbers that the routines compute or split
    exact_root,        // an integer power of a rational exponent with an exact root
};

// The first fault found, or MAR_fault::none; `where`, when given, receives the offending
// sum, product or power (borrowed).
MAR_fault MAR_find_fault(Cell c, Cell* where = nullptr);
const char* MAR_fault_text(MAR_fault f);
// The reason `c` is not canonical, or nullptr.
const char* MAR_canonical_fault(Cell c);
bool MAR_is_canonical(Cell c);

// The check of a result in the TORVA_CHECK build: the result and what lies under it,
// except the routine's own operands (cells passed in are the caller's, and the walk does
// not descend into them). A fault is reported on standard error with the routine, the
// reason, and the offending node and the result in functional notation, and aborts; unless an operand is not canonical itself
// (a held expression), since canonical results are owed for canonical operands only.
// Nested calls while a check runs return at once.
void MAR_check_result(const char* routine, Cell result, std::span<const Cell> operands);
inline void MAR_check_result(const char* routine, Cell result, std::initializer_list<Cell> operands) {
    MAR_check_result(routine, result, std::span<const Cell>(operands.begin(), operands.size()));
}
#if TORVA_CHECK
#define MAR_CHECK_CANONICAL(routine, result, ...) MAR_check_result(routine, result, __VA_ARGS__)
#else
#define MAR_CHECK_CANONICAL(routine, result, ...) ((void)0)
#endif

// ---- properties of identifiers ----
// Bits an identifier may carry, as the operators read them.
constexpr unsigned MAR_PROP_NUMBER = 1 | 2;  // stands for a number
constexpr unsigned MAR_PROP_REAL = 2;
constexpr unsigned MAR_PROP_POSITIVE = 8;
constexpr unsigned MAR_PROP_NEGATIVE = 16;
constexpr unsigned MAR_PROP_INTEGER = 32;
constexpr unsigned MAR_PROP_ZERO = 64;
constexpr unsigned MAR_PROP_ONE = 256;

// The bits of an identifier in the current frame chain come from the reader the module
// of `properties` installs; without one, and for anything but an identifier, they are 0.
using MAR_property_fn = unsigned (*)(Cell ident);
void MAR_set_property_reader(MAR_property_fn fn);
unsigned MAR_properties(Cell x);

// ---- float values ----
// The value of an expression as a float number, or nullptr when it has none: the zero
// rule of `_power` asks it about a symbolic exponent. The float module installs its
// routine; until then numbers and sums, products and powers of numbers are floated here.
using MAR_float_fn = Cell (*)(Cell x);  // new reference or nullptr
void MAR_set_float_routine(MAR_float_fn fn);

// Brings up the system order's built-in (MCM_start), gives the seven operators their
// bodies, installs the expression routines of MAR_negate, MAR_invert, MAR_divide,
// MAR_subtract and MAR_looks_negative, and makes the cache of exact roots. Runs after
// MAR_init_numbers and the identifier table, at every start of the heap.
// The built-ins of canonical arithmetic: _plus, _mult, _power, _negate, _invert,
// _subtract, _divide.
extern const MFN_builtin_table MAR_canonical_builtins;
void MAR_canonical_start();

// The checker of canonical forms: it accepts what the arithmetic routines make, and
// each hand-made form that breaks one rule is refused for that rule.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "MAR_canonical.h"
#include "MAR_numbers.h"
#include "MFN_table.h"
#include "MMM_heap.h"
#include "MMM_ident.h"
#include "MMM_values.h"
#include "MPA_reader.h"
#include "MSE_session.h"
#include "session_support.h"

namespace {

// The value of a text through the evaluator (owned).
Cell value(std::string_view text) {
    Cell t = parse_text(text);
    Cell v = MSE_frontend.eval(t);
    MMM_release(t);
    return v;
}

// Negative numbers and fractions of a parsed tree become number cells; all else stays
// as written, so that functional notation makes any form, canonical or not.
Cell fold_literals(Cell t) {
    if (!MMM_is_node(t, DOM_EXPR)) {
        MMM_retain(t);
        return t;
    }
    const long n = MMM_child_count(t);
    Cell e = MMM_make_expr(n);
    for (long i = 0; i < n; ++i) MMM_children(e)[i] = i ? fold_literals(MMM_child(t, i)) : MMM_retained(MMM_child(t, 0));
    MMM_sign(e);
    const bool numbers = std::all_of(MMM_children(e) + 1, MMM_children_end(e), MAR_is_number);
    if (numbers && n == 2 && MMM_child(e, 0) == MMM_ident_by_id(MFN_ID_NEGATE)) {
        Cell r = MAR_negate(MMM_child(e, 1));
        MMM_release(e);
        return r;
    }
    if (numbers && n == 3 && MMM_child(e, 0) == MMM_ident_by_id(MFN_ID_DIVIDE)) {
        Cell r = MAR_divide(MMM_child(e, 1), MMM_child(e, 2));
        MMM_release(e);
        return r;
    }
    return e;
}

Cell tree(std::string_view text) {
    Cell t = parse_text(text);
    Cell r = fold_literals(t);
    MMM_release(t);
    return r;
}

// An expression of the operator on the given operands, which it takes over; with id 0
// the first cell is the head.
Cell expr(int id, std::vector<Cell> ops) {
    if (id) ops.insert(ops.begin(), MMM_retained(MMM_ident_by_id(id)));
    Cell e = MMM_make_expr(long(ops.size()));
    std::copy(ops.begin(), ops.end(), MMM_children(e));
    MMM_sign(e);
    return e;
}

MAR_fault fault_of(Cell c) {
    const MAR_fault f = MAR_find_fault(c);
    MMM_release(c);
    return f;
}

std::string text_of(MAR_fault f) { return MAR_fault_text(f); }

TEST(CanonicalCheck, AcceptsWhatTheRoutinesMake) {
    const std::vector<const char*> groups[] = {
        // sums
        {"x + y + 1", "x - y", "y - x", "-(x - y + 1)", "2*(x + y + 1) - x", "x + 0.5 + y/3", "a*b - b*a*2",
         "(x + y) + (z - y) + 2*I"},
        // products and signs
        {"x*y*3", "(y - x)*z", "(x - y)*(y - x)", "-x*y/z", "x^y*x^y/x", "x^y*x^z", "2^(3/4)*2^(3/4)*x",
         "x^(1/2)*(-x)^(1/2)*x^y", "y^z*y^z*y^(3*z)"},
        // powers
        {"(x*y)^2", "(2*x)^3", "(x^2)^(1/2)", "(x^(1/3))^(1/2)", "(-x)^3", "(x - y)^(-1)", "1/(y - x)",
         "(x^0.5)^0.5*PI^(1/2)*(PI^2)^(1/3)"},
        // powers of numbers
        {"2^(1/2)*3^(1/2)", "12^(1/2)", "(-8)^(1/3)", "(-1)^(5/3)", "(-1)^(-1/3)*2^(1/3)*(-2)^(1/3)",
         "(4/3)^(1/2)*x", "(1/2)^(-1/2) + (1/3)^(-2/3)", "(1 + I)^(3/2)*y"},
        // nesting through calls and lists, and sums of powers of sums
        {"f(x + x, [y*y, 2^(1/2)])", "(x + 1)^2 + (x + 1)^3*2", "(a + b)^(5/2)*(a - b)", "0^x + x^0.0",
         "(x - y)^(1/2)*(y - x)^(1/2)*2^(3/2)", "1.5*x - 0.5*x + y", "x*2.0 + 3", "exp(x)^2*exp(x)^(-1/2)"},
    };
    for (const auto& group : groups)
        for (const char* text : group) {
            Cell v = value(text);
            EXPECT_EQ(MAR_canonical_fault(v), nullptr) << text << " gave " << MPA_dump(v);
            EXPECT_TRUE(MAR_is_canonical(v)) << text;
            MMM_release(v);
        }
}

TEST(CanonicalCheck, KeptFormsPass) {
    // Sums and products with a set stay as they came, and so does a distribution over them.
    auto v = value;
    EXPECT_EQ(fault_of(expr(MFN_ID_PLUS, {v("{a}"), v("x"), v("x")})), MAR_fault::none);
    EXPECT_EQ(fault_of(expr(MFN_ID_MULT, {expr(MFN_ID_PLUS, {v("x"), v("{1}"), v("x")}), v("2")})), MAR_fault::none);
    EXPECT_EQ(fault_of(expr(MFN_ID_POWER, {v("{1, 2}"), v("1")})), MAR_fault::none);
    EXPECT_EQ(fault_of(expr(MFN_ID_PLUS, {v("{1}"), v("x + y")})), MAR_fault::none)
        << "kept with nested sums, as the routines return it";
}

TEST(CanonicalCheck, RejectsOneRuleAtATime) {
    const std::pair<const char*, MAR_fault> cases[] = {
        {"_plus(x)", MAR_fault::operand_count},
        {"_mult(x)", MAR_fault::operand_count},
        {"_power(x, 2, 3)", MAR_fault::operand_count},
        {"_power(x, NIL)", MAR_fault::illegal_operand},
        {"_power(FAIL, 2)", MAR_fault::illegal_operand},
        {"_plus(_plus(x, y), z)", MAR_fault::nested},
        {"_mult(_mult(x, y), z)", MAR_fault::nested},
        {"_plus(1, x)", MAR_fault::number_place},
        {"_mult(-2, x)", MAR_fault::number_place},
        {"_plus(x, 0)", MAR_fault::zero_term},
        {"_plus(x, 0.0)", MAR_fault::zero_term},
        {"_mult(x, 0)", MAR_fault::zero_factor},
        {"_mult(x, 1)", MAR_fault::unit_factor},
        {"_plus(x, x)", MAR_fault::uncollected},
        {"_plus(_mult(x, 2), _mult(x, -1))", MAR_fault::uncollected},
        {"_mult(x, x)", MAR_fault::uncollected},
        {"_mult(_plus(x, y), 2)", MAR_fault::undistributed},
        {"_plus(x, _negate(y))", MAR_fault::companion},
        {"_mult(x, _invert(y))", MAR_fault::companion},
        {"_power(_subtract(x, y), 1/2)", MAR_fault::companion},
        {"_mult(_plus(_mult(x, -1), _mult(y, -1)), z)", MAR_fault::negative_factor},
        {"_power(_plus(_mult(x, -1), _mult(y, -1)), 3)", MAR_fault::negative_base},
        {"_power(-2, _mult(2, 2))", MAR_fault::negative_base},
        {"_power(x, 0)", MAR_fault::zero_exponent},
        {"_power(x, 0.0)", MAR_fault::zero_exponent},
        {"_power(x, 1)", MAR_fault::unit_exponent},
        {"_power(1, x)", MAR_fault::unit_base},
        {"_power(0, 1/2)", MAR_fault::zero_base},
        {"_power(_mult(x, y), 2)", MAR_fault::power_of_product},
        {"_power(_power(x, y), 2)", MAR_fault::power_of_power},
        {"_power(_power(x, 1/2), 1/3)", MAR_fault::power_of_power},
        {"_power(_power(2, y), 1/2)", MAR_fault::none},
        {"_power(_power(PI, 3), 1/2)", MAR_fault::power_of_power},
        {"_power(_power(x, 3), 1/2)", MAR_fault::none},
        {"_power(2, 3)", MAR_fault::number_power},
        {"_power(2, 3/2)", MAR_fault::number_power},
        {"_power(2, -1/2)", MAR_fault::number_power},
        {"_power(2.0, 1/2)", MAR_fault::number_power},
        {"_power(1/2, 1/2)", MAR_fault::number_power},
        {"_power(-2, 1/2)", MAR_fault::number_power},
        {"_power(-1, 1/2)", MAR_fault::number_power},
        {"_power(-1, 4/3)", MAR_fault::number_power},
        {"_power(-1, -2/3)", MAR_fault::none},
        {"_power(4, 1/2)", MAR_fault::exact_root},
        {"_power(8, 2/3)", MAR_fault::exact_root},
        {"_power(12, 1/2)", MAR_fault::none},
        {"_power(-8, 1/3)", MAR_fault::none},
    };
    for (const auto& [text, want] : cases) {
        const MAR_fault got = fault_of(tree(text));
        EXPECT_EQ(got, want) << text << ": " << text_of(got) << ", wanted " << text_of(want);
    }
}

// Operands whose order the system order decides: of the two orders one is refused as
// out of order and the other for the rule, or accepted.
TEST(CanonicalCheck, OrderOfOperands) {
    auto both = [](int id, const char* a, const char* b) {
        Cell x = value(a), y = value(b);
        MMM_retain(x);
        MMM_retain(y);
        std::vector<MAR_fault> r = {fault_of(expr(id, {x, y})), fault_of(expr(id, {y, x}))};
        std::sort(r.begin(), r.end());
        return r;
    };
    using V = std::vector<MAR_fault>;
    EXPECT_EQ(both(MFN_ID_PLUS, "x", "y"), (V{MAR_fault::none, MAR_fault::order}));
    EXPECT_EQ(both(MFN_ID_PLUS, "x", "-y"), (V{MAR_fault::none, MAR_fault::order}));
    EXPECT_EQ(both(MFN_ID_MULT, "x", "f(y)"), (V{MAR_fault::none, MAR_fault::order}));
    EXPECT_EQ(both(MFN_ID_MULT, "x^(1/2)", "x^(1/3)"), (V{MAR_fault::order, MAR_fault::uncollected}));
    EXPECT_EQ(both(MFN_ID_MULT, "x^2", "x^y"), (V{MAR_fault::none, MAR_fault::order})) << "integer exponents first";
    EXPECT_EQ(both(MFN_ID_MULT, "x^(1/2)", "(-x)^(1/2)"), (V{MAR_fault::none, MAR_fault::order}));
    EXPECT_EQ(both(MFN_ID_MULT, "x^2", "(-x)^(1/2)"), (V{MAR_fault::order, MAR_fault::uncollected}));
    // A sign-free base that looks negative belongs to the coefficient.
    EXPECT_EQ(both(MFN_ID_MULT, "-x - y", "z"), (V{MAR_fault::negative_factor, MAR_fault::negative_factor}));
}

TEST(CanonicalCheck, FindsFaultsDeepInside) {
    Cell bad = tree("_plus(x, x)");
    Cell f = value("f"), y = value("y");
    // f(y, x + x) under calls and powers, far deeper than the native stack would take by
    // recursion.
    Cell t = expr(0, {f, y, bad});
    for (int i = 0; i < 200000; ++i) {
        MMM_retain(y);
        t = i % 2 ? expr(MFN_ID_POWER, {t, y}) : (MMM_retain(f), expr(0, {f, t}));
    }
    Cell where = nullptr;
    EXPECT_EQ(MAR_find_fault(t, &where), MAR_fault::uncollected);
    EXPECT_EQ(where, bad);
    EXPECT_STREQ(MAR_canonical_fault(t), "like terms or factors not collected");
    MMM_release(t);
}

TEST(CanonicalCheckDeathTest, AFaultyResultAbortsWithRoutineReasonAndValue) {
    Cell bad = tree("f(_mult(x, 1), [-1/2])");
    Cell x = value("x");
    EXPECT_DEATH(MAR_check_result("_mult", bad, {x}), "Internal error \\[_mult\\]: result not canonical: coefficient 1\n"
                                                     "  at: _mult\\(x, 1\\)\n  in: f\\(_mult\\(x, 1\\), \\[-1/2\\]\\)\n");
    // A fault that an operand brought in is the operand's: no abort.
    Cell held = tree("_plus(x, x)");
    Cell passed = expr(MFN_ID_PLUS, {tree("_mult(x, 2)"), tree("_mult(x, 2)")});
    MAR_check_result("_mult", passed, {held});
    MAR_check_result("_plus", held, {held});  // an operand given back as it came
    for (Cell c : {bad, x, held, passed}) MMM_release(c);
}

}  // namespace

#include <gtest/gtest.h>

#include <pari/pari.h>

#include <functional>
#include <string>

#include "MAR_numbers.h"
#include "MCM_equal.h"
#include "MER_error.h"
#include "MMM_heap.h"
#include "MMM_values.h"

namespace {

class Numbers : public ::testing::Test {
protected:
    void SetUp() override {
        MMM_init(nullptr);
        MMM_open(0);
        MMM_values_start();
        MAR_start(8 << 20, 1000);
        MAR_init_numbers();
        MER_trapped = true;  // errors are expected here; keep them quiet
    }
    void TearDown() override {
        MER_trapped = false;
        MER_pending = 0;
        MAR_set_poll(nullptr);
        MAR_reset_stack();
        MMM_shutdown();
    }

    static Cell num(const char* text) { return MAR_read_number(text); }
    static Cell neg(const char* text) {
        Cell x = num(text);
        Cell y = MAR_negate(x);
        MMM_release(x);
        return y;
    }
    static Cell op(Cell a, Cell b, int which) { return MAR_binop(a, b, nullptr, which); }
    static std::string text(Cell c) { return MAR_debug_text(c); }
    // The error number `f` raises, 0 if none.
    static long error_of(const std::function<void()>& f) {
        try {
            f();
        } catch (const MER_exception& e) {
            MER_pending = 0;
            MAR_reset_stack();
            return e.code;
        }
        return 0;
    }
};

TEST_F(Numbers, CategoriesAtTheMachineWordAndSharedIntegers) {
    EXPECT_EQ(MMM_category(num("2147483647")), DOM_INT);
    EXPECT_EQ(MMM_category(num("2147483648")), CAT_BIG_INT);
    EXPECT_EQ(MMM_category(neg("2147483648")), DOM_INT);
    EXPECT_EQ(MAR_small_int(neg("2147483648")), INT32_MIN);
    EXPECT_EQ(MMM_category(neg("2147483649")), CAT_BIG_INT);
    EXPECT_EQ(MMM_category(num("0.0")), DOM_FLOAT);

    EXPECT_EQ(num("0"), MAR_ZERO);
    EXPECT_EQ(num("1"), MAR_ONE);
    EXPECT_EQ(MAR_from_long(-1), MAR_MINUS_ONE);
    Cell four = num("4");
    EXPECT_EQ(op(four, MAR_TWO, MAR_DIVIDE), MAR_TWO);
    EXPECT_EQ(op(MAR_HALF, MAR_HALF, MAR_ADD), MAR_ONE);
    EXPECT_NE(neg("2"), MAR_MINUS_TWO);  // only 0, 1, 2 and -1 are reused

    // The machine-integer path widens instead of wrapping.
    Cell big = op(num("2147483647"), num("2147483647"), MAR_MULTIPLY);
    EXPECT_EQ(MMM_category(big), CAT_BIG_INT);
    EXPECT_EQ(text(big), "4611686014132420609");
    EXPECT_EQ(MMM_category(op(neg("2147483648"), MAR_MINUS_ONE, MAR_MULTIPLY)), CAT_BIG_INT);
}

TEST_F(Numbers, SignaturesAreThoseOfThirtyTwoBitWords) {
    // 5*2^64 + 6*2^32 + 7: three 32-bit words, two PARI words.
    EXPECT_EQ(num("92233720394317561863")->signature, 5u ^ 6u ^ 7u);
    EXPECT_EQ(neg("92233720394317561863")->signature, 5u ^ 6u ^ 7u);  // the sign takes no part
    EXPECT_EQ(op(MAR_ONE, num("3"), MAR_DIVIDE)->signature, 1u + 3u + 0x04000000u);
    EXPECT_EQ(MAR_I->signature, 0u + 1u + 0x06000000u);
    EXPECT_EQ(num("1.0")->signature, 0x80000000u);
    EXPECT_EQ(num("3.0")->signature, 0xC0000000u);
    EXPECT_EQ(MAR_FLOAT_ZERO->signature, 0u);
    EXPECT_EQ(RD_INF->signature, 1u);
    EXPECT_EQ(RD_NINF->signature, 2u);
    EXPECT_EQ(RD_NAN->signature, 3u);
}

TEST_F(Numbers, EqualityAndBlocksThatMove) {
    EXPECT_TRUE(MCM_equal(num("123456789012345678901"), num("123456789012345678901")));
    EXPECT_FALSE(MCM_equal(num("1"), num("1.0")));
    Cell short_one = num("1.0");
    MAR_set_digits(40);
    Cell long_one = num("1.0");
    MAR_set_digits(10);
    EXPECT_GT(lg(MAR_get(long_one)), lg(MAR_get(short_one)));
    EXPECT_TRUE(MCM_equal(short_one, long_one));
    // 2^31 and 2^31.0 sign alike and PARI finds them equal, but their blocks must not be
    // merged: a real would end up under an integer's node.
    Cell i = num("2147483648"), f = num("2147483648.0");
    EXPECT_EQ(MMM_child(i, 0)->signature, MMM_child(f, 0)->signature);
    EXPECT_FALSE(MCM_equal(MMM_child(i, 0), MMM_child(f, 0)));

    // A copy of a block made byte for byte elsewhere reads back the same value.
    Cell z = op(MAR_HALF, MAR_binop(num("3"), MAR_I, nullptr, MAR_MULTIPLY), MAR_ADD);
    Cell copy = MMM_new_node(DOM_COMPLEX, 1);
    MMM_children(copy)[0] = MMM_child(z, 0);
    MMM_retain(MMM_child(z, 0));
    MMM_clone(&MMM_children(copy)[0]);
    ASSERT_NE(MMM_child(copy, 0), MMM_child(z, 0));
    MMM_release(z);
    MMM_sign(copy);
    EXPECT_EQ(text(copy), "1/2 + 3*I");
    EXPECT_TRUE(gequal(MAR_get(copy), mkcomplex(ghalf, stoi(3))));
}

TEST_F(Numbers, LiteralsKeepTheirDigits) {
    EXPECT_TRUE(gequal(MAR_get(num("123456789012345678901234567890")), strtoi("123456789012345678901234567890")));
    EXPECT_EQ(text(num("1.5e3")), "1500.000000");
    EXPECT_EQ(text(num("15E-1")), "1.500000000");
    EXPECT_TRUE(gequal(MAR_get(num("1.e2")), stor(100, 3)));
    EXPECT_TRUE(gequal(MAR_get(num("0.1")), divrr(real_1(3), stor(10, 3))));
    // Forty digits at DIGITS 10: all of them stay until the first operation.
    GEN forty = MAR_get(num("1234567890123456789012345678901234567890.0"));
    EXPECT_GT(lg(forty), MAR_pari_precision);
    EXPECT_TRUE(gequal(forty, strtoi("1234567890123456789012345678901234567890")));

    EXPECT_EQ(error_of([] { num("1e1234567890"); }), 98);
    EXPECT_EQ(error_of([] { num("1e9999999"); }), 8);  // beyond 23 bits of exponent
    EXPECT_EQ(error_of([] { num("1e-9999999"); }), 8);
    for (const char* bad : {"", "x", "1x", "1e", "1e+", "1.5.2", "-"})
        EXPECT_EQ(error_of([bad] { num(bad); }), 1005) << bad;
}

TEST_F(Numbers, PrecisionFollowsDigitsAtTheOperation) {
    for (auto [digits, words] : {std::pair{0, 3}, {1, 3}, {10, 4}, {16, 4}, {18, 5}, {100, 13}, {1000, 107}}) {
        MAR_set_digits(digits);
        EXPECT_EQ(MAR_precision_words, words) << digits;
    }
    EXPECT_EQ(error_of([] { MAR_set_digits(-1); }), 1012);

    MAR_set_digits(30);
    Cell wide = num("1.0");
    MAR_set_digits(10);
    Cell sum = op(wide, MAR_ONE, MAR_ADD);
    EXPECT_EQ(lg(MAR_get(sum)), MAR_pari_precision);
    EXPECT_GT(lg(MAR_get(wide)), MAR_pari_precision);

    // Surplus words are cut, not rounded: 2/3 = 0.1010...b at any length.
    MAR_set_digits(40);
    Cell two_thirds = op(MAR_TWO, num("3.0"), MAR_DIVIDE);
    MAR_set_digits(10);
    GEN cut = MAR_get(op(two_thirds, MAR_ZERO, MAR_ADD));
    EXPECT_EQ(ulong(cut[2]), 0xAAAAAAAAAAAAAAAAul);
}

TEST_F(Numbers, ComplexResultsSettle) {
    Cell two_i = op(MAR_TWO, MAR_I, MAR_MULTIPLY);
    Cell z = op(MAR_ONE, two_i, MAR_ADD);
    EXPECT_EQ(op(z, two_i, MAR_SUBTRACT), MAR_ONE);

    Cell i_float = op(op(MAR_FLOAT_ONE, MAR_I, MAR_MULTIPLY), MAR_FLOAT_ZERO, MAR_ADD);
    GEN v = MAR_get(i_float);
    ASSERT_EQ(typ(v), t_COMPLEX);
    EXPECT_EQ(typ(gel(v, 1)), t_REAL);
    EXPECT_EQ(typ(gel(v, 2)), t_REAL);

    EXPECT_EQ(text(MAR_from_pari(mkcomplex(dbltor(0.5), real_0(3)), true)), "0.5000000000");
    Cell zero = MAR_from_pari(mkcomplex(real_0(3), real_0(3)), true);
    EXPECT_EQ(MMM_category(zero), DOM_FLOAT);
    EXPECT_EQ(zero->signature, 0u);
    EXPECT_EQ(text(MAR_from_pari(mkcomplex(gen_1, real_1(3)), true)), "1.000000000 + 1.000000000*I");
    EXPECT_EQ(text(op(MAR_HALF, two_i, MAR_SUBTRACT)), "1/2 - 2*I");
    EXPECT_EQ(text(MAR_negate(MAR_I)), "-I");
}

TEST_F(Numbers, OperationsOnNumbers) {
    Cell three = num("3"), seven = num("7");
    Cell third = op(MAR_ONE, three, MAR_DIVIDE);
    EXPECT_EQ(op(third, op(MAR_TWO, three, MAR_DIVIDE), MAR_ADD), MAR_ONE);
    Cell half = op(MAR_TWO, MAR_MINUS_ONE, MAR_POWER);
    EXPECT_EQ(MMM_category(half), DOM_RAT);
    EXPECT_TRUE(MCM_equal(half, MAR_HALF));
    EXPECT_EQ(text(op(MAR_TWO, MAR_negate(MAR_FLOAT_ONE), MAR_POWER)), "0.5000000000");
    EXPECT_EQ(text(op(neg("8"), num("3.0"), MAR_POWER)), "-512.0000000");
    EXPECT_EQ(text(op(MAR_TWO, num("0.5"), MAR_POWER)), "1.414213562");

    EXPECT_EQ(text(op(seven, three, MAR_MOD)), "1");
    EXPECT_EQ(text(op(neg("7"), three, MAR_DIV)), "-3");
    EXPECT_EQ(text(op(num("5"), seven, MAR_MODS)), "-2");
    EXPECT_EQ(text(op(three, seven, MAR_MODS)), "3");
    EXPECT_EQ(text(op(MAR_TWO, num("4"), MAR_MODS)), "2");
    EXPECT_EQ(text(op(MAR_MINUS_ONE, num("4"), MAR_MODS)), "-1");

    EXPECT_EQ(error_of([] { op(MAR_ONE, MAR_ZERO, MAR_DIVIDE); }), 1025);
    EXPECT_EQ(error_of([] { op(MAR_ZERO, MAR_MINUS_TWO, MAR_POWER); }), 1025);
    EXPECT_EQ(error_of([] { op(MAR_ZERO, MAR_MINUS_ONE, MAR_POWER); }), 1025);
    EXPECT_EQ(error_of([] { MAR_invert(MAR_ZERO); }), 1025);
    EXPECT_EQ(error_of([] { op(MAR_FLOAT_ONE, MAR_ZERO, MAR_DIVIDE); }), 31);
    EXPECT_EQ(error_of([] { op(MAR_ONE, MAR_FLOAT_ZERO, MAR_DIVIDE); }), 31);
    EXPECT_EQ(error_of([] { op(MAR_TWO, MAR_ZERO, MAR_MOD); }), 36);
    EXPECT_EQ(error_of([] { op(MAR_I, MAR_TWO, MAR_DIV); }), 315);
    EXPECT_EQ(error_of([] { MAR_compare(MAR_I, MAR_ONE); }), 282);
    EXPECT_EQ(error_of([] { op(MAR_ONE, MAR_TWO, 2); }), 1101);
    EXPECT_EQ(error_of([] { op(MAR_ONE, MMM_NIL, MAR_ADD); }), 1001);

    // A slot gives up its old content: the running sum leaves nothing behind.
    Cell sum = MAR_from_long(0);
    const uint64_t cells = MMM_live_cells();
    for (long i = 1; i <= 100; ++i) {
        Cell term = MAR_from_long(i);
        EXPECT_EQ(MAR_binop(sum, term, &sum, MAR_ADD), sum);
        MMM_release(term);
    }
    EXPECT_EQ(MAR_small_int(sum), 5050);
    EXPECT_EQ(MMM_live_cells(), cells + 2);  // the last sum's node and block, nothing more
}

TEST_F(Numbers, SpecialFloats) {
    EXPECT_EQ(op(RD_INF, RD_NINF, MAR_ADD), RD_NAN);
    EXPECT_EQ(op(RD_INF, RD_INF, MAR_SUBTRACT), RD_NAN);
    EXPECT_EQ(op(RD_INF, MAR_ONE, MAR_SUBTRACT), RD_INF);
    EXPECT_EQ(op(RD_INF, MAR_ZERO, MAR_MULTIPLY), RD_NAN);
    EXPECT_EQ(op(MAR_MINUS_TWO, RD_INF, MAR_MULTIPLY), RD_NINF);
    EXPECT_EQ(op(MAR_FLOAT_ONE, RD_INF, MAR_DIVIDE), RD_INF);  // kept on purpose
    EXPECT_EQ(op(MAR_FLOAT_ZERO, RD_NAN, MAR_DIVIDE), MAR_FLOAT_ZERO);
    EXPECT_EQ(op(RD_INF, RD_NINF, MAR_DIVIDE), RD_NAN);
    EXPECT_EQ(MAR_negate(RD_INF), RD_NINF);
    EXPECT_EQ(error_of([] { op(RD_INF, MAR_ZERO, MAR_DIVIDE); }), 31);
    EXPECT_EQ(error_of([] { op(RD_INF, MAR_TWO, MAR_POWER); }), 1005);
    EXPECT_EQ(error_of([] { op(RD_INF, MAR_I, MAR_ADD); }), 1005);

    EXPECT_EQ(error_of([] { MAR_get(RD_INF); }), 1005);
    EXPECT_NE(MER_last_text.find("[non-rd-function]"), std::string::npos);
    EXPECT_EQ(error_of([] { MAR_get_ordered(RD_NAN); }), 1005);
    EXPECT_NE(MER_last_text.find("[comparison operator]"), std::string::npos);
    EXPECT_GT(gcmp(MAR_get_ordered(RD_INF), strtoi("1000000000000000000000000")), 0);

    Cell huge = num("1e2000000");
    EXPECT_EQ(MAR_compare(RD_INF, huge), 1);
    EXPECT_EQ(MAR_compare(RD_NINF, MAR_negate(huge)), -1);
    EXPECT_EQ(MAR_compare(RD_NAN, RD_NINF), -1);
    EXPECT_EQ(MAR_compare(RD_INF, RD_INF), 0);
    EXPECT_EQ(MAR_compare(MAR_HALF, num("0.5")), 0);
    EXPECT_EQ(MAR_compare(num("2.5"), MAR_TWO), 1);
    EXPECT_EQ(MAR_compare(MAR_MINUS_HALF, MAR_ZERO), -1);
}

TEST_F(Numbers, CompanionsOfTheOperators) {
    EXPECT_TRUE(MAR_looks_negative(MAR_MINUS_HALF));
    EXPECT_TRUE(MAR_looks_negative(MAR_negate(MAR_I)));  // zero real part: the imaginary sign
    Cell z = op(MAR_MINUS_ONE, op(num("5"), MAR_I, MAR_MULTIPLY), MAR_ADD);
    EXPECT_TRUE(MAR_looks_negative(z));
    EXPECT_FALSE(MAR_looks_negative(MAR_negate(z)));
    EXPECT_TRUE(MAR_looks_negative(RD_NINF));
    EXPECT_FALSE(MAR_looks_negative(MMM_NIL));

    EXPECT_EQ(MMM_category(MAR_negate(num("2147483648"))), DOM_INT);
    EXPECT_EQ(text(MAR_invert(op(MAR_TWO, num("3"), MAR_DIVIDE))), "3/2");
    EXPECT_EQ(text(MAR_invert(num("4.0"))), "0.2500000000");
    EXPECT_EQ(text(MAR_divide(num("7"), num("14"))), "1/2");
    EXPECT_EQ(text(MAR_subtract(MAR_HALF, num("0.25"))), "0.2500000000");
    EXPECT_EQ(error_of([] { MAR_negate(MMM_NIL); }), 1035);
    EXPECT_EQ(error_of([] { MAR_subtract(MMM_NIL, MAR_ONE); }), 1035);
}

TEST_F(Numbers, LongWorkPolls) {
    static int polls;
    polls = 0;
    MAR_set_poll([] {
        if (++polls == 3) MER_raise(1102, nullptr);
    });
    for (int i = 0; i < 2 * 1023; ++i) MMM_release(op(MAR_TWO, MAR_TWO, MAR_MULTIPLY));
    EXPECT_EQ(polls, 2);
    EXPECT_EQ(error_of([] {
                  for (int i = 0; i < 1023; ++i) MAR_compare(MAR_ONE, MAR_TWO);
              }),
              1102);
}

// PARI's error classes reach the numbers of the kernel's texts.
TEST_F(Numbers, PariErrorsTranslate) {
    EXPECT_EQ(error_of([] { gcmp(gen_I(), gen_1); }), 282);
    EXPECT_EQ(error_of([] { rtodbl(gpowgs(dbltor(1e300), 3)); }), 45);
    EXPECT_EQ(error_of([] { Fp_inv(stoi(4), stoi(8)); }), 103);
    EXPECT_EQ(error_of([] { ggamma(gen_0, 3); }), 499);
    EXPECT_EQ(error_of([] { itos(strtoi("1000000000000000000000000")); }), 8);
    EXPECT_EQ(error_of([] { gfloor(gen_I()); }), 999);
    EXPECT_NE(MER_last_text.find("incorrect type in gfloor"), std::string::npos);
    EXPECT_EQ(error_of([] { MAR_assign(stoi(5), gen_1); }), 1103);

    // Out of stack: the stack doubles, the report says so, numbers stay, work goes on.
    const long before = MAR_stack_size();
    Cell kept = num("123456789012345678901234567890.5");
    const std::string kept_text = text(kept);
    Cell bits = MAR_from_long(8 * before);
    EXPECT_EQ(error_of([&] { op(MAR_TWO, bits, MAR_POWER); }), 44);
    EXPECT_EQ(MAR_stack_size(), 2 * before);
    EXPECT_EQ(MER_last_text.find("Overflow"), std::string::npos);
    EXPECT_NE(MER_last_text.find("PARI stack overflow. Doubling the stack size.\n       New size: " +
                                 std::to_string(2 * before / 1024) + " KB."),
              std::string::npos);
    EXPECT_EQ(text(kept), kept_text);
    EXPECT_EQ(text(op(kept, MAR_ONE, MAR_ADD)), text(num("123456789012345678901234567891.5")));
    EXPECT_EQ(text(op(num("21"), MAR_TWO, MAR_MULTIPLY)), "42");
}

}  // namespace

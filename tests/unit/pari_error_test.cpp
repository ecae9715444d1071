#include <gtest/gtest.h>

#include <pari/pari.h>

#include "MAR_pari.h"
#include "MER_error.h"

namespace {

// PARI errors must leave through the kernel's exception, unwinding PARI's own frames,
// and leave PARI usable afterwards.
TEST(PariErrors, LeaveAsKernelErrorsAndPariGoesOn) {
    MAR_start(8 << 20, 1000);
    MER_trapped = true;  // no printing from this test
    long code = 0;
    try {
        GEN q = gdiv(gen_1, gen_0);
        (void)q;
    } catch (const MER_exception& e) {
        code = e.code;
    }
    EXPECT_EQ(code, 31);
    EXPECT_EQ(MER_pending, 31);
    EXPECT_STREQ(MER_table_text(1025), "Division by zero");
    MAR_reset_stack();
    EXPECT_EQ(avma, pari_mainstack->top);

    // Errors raised deep inside the library (a failed modular inverse).
    code = 0;
    try {
        GEN r = Fp_inv(stoi(4), stoi(8));
        (void)r;
    } catch (const MER_exception& e) {
        code = e.code;
    }
    EXPECT_EQ(code, 103);
    MAR_reset_stack();

    GEN s = gadd(stoi(2), stoi(40));
    EXPECT_EQ(itos(s), 42);
    MAR_reset_stack();
    MER_pending = 0;
    MER_trapped = false;
}

TEST(PariErrors, NumbersBelow1000MapToTheirTexts) {
    EXPECT_EQ(MAR_error_number(e_INV), 31);
    EXPECT_EQ(MAR_error_number(e_STACK), 44);
    EXPECT_EQ(MAR_error_number(e_MISC), 999);
}

}  // namespace

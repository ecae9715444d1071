#include <gtest/gtest.h>

#include "MCM_equal.h"
#include "MER_error.h"
#include "MMM_values.h"

namespace {

class Values : public ::testing::Test {
protected:
    void SetUp() override {
        MMM_init(nullptr);
        MMM_open(0);
        MMM_values_start();
    }
    void TearDown() override { MMM_shutdown(); }

    // f(a, b) with f a bare name cell standing in for an identifier.
    static Cell call(const char* f, const char* a, const char* b) {
        Cell e = MMM_make_expr(3);
        MMM_children(e)[0] = MMM_new_string(f);
        MMM_children(e)[1] = MMM_make_string(a);
        MMM_children(e)[2] = MMM_make_string(b);
        MMM_sign(e);
        return e;
    }
};

TEST_F(Values, UniversalCellsAreDistinctAndTyped) {
    const Cell all[] = {MMM_NIL, MMM_NULL, MMM_FAIL, MMM_TRUE, MMM_UNKNOWN, MMM_FALSE};
    for (size_t i = 0; i < std::size(all); ++i)
        for (size_t j = 0; j < std::size(all); ++j) EXPECT_EQ(i == j, MCM_equal(all[i], all[j]));
    EXPECT_EQ(MMM_category(MMM_NIL), DOM_NIL);
    EXPECT_EQ(MMM_category(MMM_NULL), DOM_NULL);
    EXPECT_EQ(MMM_category(MMM_FAIL), DOM_FAIL);
    EXPECT_EQ(MMM_int_box_value(MMM_child(MMM_TRUE, 0)), 5);
    EXPECT_EQ(MMM_int_box_value(MMM_child(MMM_UNKNOWN, 0)), 4);
    EXPECT_EQ(MMM_int_box_value(MMM_child(MMM_FALSE, 0)), 3);
    EXPECT_FALSE(MCM_equal(MMM_TRUE, MMM_FALSE));

    Cell t = MMM_make_bool(MMM_BOOL_TRUE);
    EXPECT_EQ(t, MMM_TRUE);
    MMM_release(t);
    try {
        MMM_make_bool(6);
        FAIL() << "a boolean of another number was made";
    } catch (const MER_exception& e) {
        EXPECT_EQ(e.code, 1103);
    }
    MER_pending = 0;
}

TEST_F(Values, EqualExpressionsBuiltApartAreTwoCellsThatCompareEqual) {
    Cell a = call("f", "x", "y");
    Cell b = call("f", "x", "y");
    Cell c = call("f", "y", "x");
    EXPECT_NE(a, b);
    EXPECT_EQ(a->signature, b->signature);
    EXPECT_TRUE(MCM_equal(a, b));
    EXPECT_FALSE(MCM_equal(a, c));  // same signature, another order
    EXPECT_EQ(a->signature, c->signature) << "a permutation of children collides by design";

    // Only the option bits 3 to 9 of a node's flags count for equality.
    MMM_set_node_flags(b, 0x1);
    EXPECT_TRUE(MCM_equal(a, b));
    MMM_set_node_flags(b, 0x8);
    EXPECT_FALSE(MCM_equal(a, b));
    for (Cell x : {a, b, c}) MMM_release(x);
}

TEST_F(Values, StringsAndTheirBareCellsDiffer) {
    Cell s = MMM_make_string("abc");
    EXPECT_EQ(MMM_category(s), DOM_STRING);
    Cell bare = MMM_child(s, 0);
    EXPECT_EQ(MMM_kind_of(bare), MMM_STRING);
    EXPECT_EQ(MMM_string_view(bare), "abc");
    EXPECT_EQ(bare->data[4 + 3], 0) << "terminated by a zero byte";
    EXPECT_FALSE(MCM_equal(s, bare));
    Cell t = MMM_make_string("abd");
    EXPECT_FALSE(MCM_equal(s, t));
    MMM_release(s);
    MMM_release(t);
}

TEST_F(Values, CategoryNamesShareDomIntAcrossIntegerSizes) {
    EXPECT_STREQ(MMM_category_name(CAT_BIG_INT), "DOM_INT");
    EXPECT_STREQ(MMM_category_name(DOM_INT), "DOM_INT");
    EXPECT_STREQ(MMM_category_name(DOM_EXPR), "DOM_EXPR");
    EXPECT_STREQ(MMM_category_name(DOM_BYTECODE), "DOM_BYTECODE");
    EXPECT_EQ(MMM_category_name(5), nullptr);
    EXPECT_EQ(MMM_category_name(49), nullptr);
    EXPECT_EQ(MMM_category_name(-1), nullptr);
}

}  // namespace

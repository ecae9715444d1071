// Identifiers in a live session: interning, bindings by frame, protection.
#include <gtest/gtest.h>

#include "MER_error.h"
#include "MMM_heap.h"
#include "MMM_ident.h"
#include "MMM_values.h"

namespace {

int32_t value_of(Cell ident) {
    Cell v = MMM_value(ident);
    if (!v) return -1;
    const int32_t n = MMM_int_box_value(v);
    MMM_release(v);
    return n;
}

void assign(Cell ident, int32_t n, Cell frame, unsigned flags = 0) {
    Cell v = MMM_make_int_box(n);
    MMM_release(MMM_set_value(ident, v, flags, frame));
    MMM_release(v);
}

long raised(void (*f)()) {
    const bool trapped = MER_trapped;
    MER_trapped = true;
    long code = 0;
    try {
        f();
    } catch (const MER_exception& e) {
        code = e.code;
    }
    MER_trapped = trapped;
    MER_pending = 0;
    return code;
}

TEST(Identifiers, OneCellForEachName) {
    Cell a = MMM_ident_named("ident_test_a");
    Cell b = MMM_ident_named("ident_test_a");
    EXPECT_EQ(a, b);
    EXPECT_EQ(MMM_ident_exists(MMM_intern("ident_test_a")), a);
    EXPECT_EQ(MMM_intern("ident_test_a"), MMM_child(a, 0)) << "the name is the interned string";
    EXPECT_EQ(MMM_ident_exists(MMM_intern("ident_test_never_made")), nullptr);
    EXPECT_EQ(MMM_ident_text(MMM_ident_by_id(15)), "_plus");
    MMM_release(a);
    MMM_release(b);
}

TEST(Identifiers, ValuesFollowTheFrameChain) {
    Cell x = MMM_ident_named("ident_test_x");
    Cell name = MMM_make_string("child");
    Cell middle = MMM_frame_new(MMM_root_frame, name);
    Cell child = MMM_frame_new(middle, name);
    assign(x, 1, MMM_root_frame);
    Cell saved = MMM_current_frame;
    MMM_current_frame = child;
    EXPECT_EQ(value_of(x), 1) << "a frame without a binding reads its parent's value";
    assign(x, 2, middle);  // the cache of the last read must not hide this
    EXPECT_EQ(value_of(x), 2);
    assign(x, 3, child);
    EXPECT_EQ(value_of(x), 3);
    MMM_release(MMM_set_value(x, nullptr, 0, child));
    EXPECT_EQ(value_of(x), 2) << "after a deletion the parent's value shows again";
    MMM_current_frame = saved;
    EXPECT_EQ(value_of(x), 1);
    MMM_release(MMM_set_value(x, nullptr, 0, MMM_root_frame));
    EXPECT_EQ(value_of(x), -1);
    for (Cell c : {x, name, middle, child}) MMM_release(c);
}

TEST(Identifiers, ProtectionLevels) {
    EXPECT_EQ(raised([] {
                  Cell k = MMM_ident_named("#k");
                  assign(k, 1, MMM_current_frame, MMM_SET_PRIVILEGED);
              }),
              1046)
        << "kernel names can't be written";
    EXPECT_EQ(raised([] {
                  Cell h = MMM_ident_named("#");
                  assign(h, 1, MMM_current_frame);
                  MMM_release(h);
              }),
              0);
    Cell p = MMM_ident_named("ident_test_p");
    assign(p, 1, MMM_current_frame);
    MMM_binding_set_level(MMM_binding_find(p, MMM_current_frame), MMM_PROTECT_ERROR);
    EXPECT_EQ(MMM_protection(p), MMM_PROTECT_ERROR);
    EXPECT_EQ(raised([] {
                  Cell q = MMM_ident_named("ident_test_p");
                  assign(q, 2, MMM_current_frame);
              }),
              1046);
    EXPECT_EQ(value_of(p), 1);
    EXPECT_EQ(raised([] {
                  Cell q = MMM_ident_named("ident_test_p");
                  assign(q, 2, MMM_current_frame, MMM_SET_PRIVILEGED);
                  MMM_release(q);
              }),
              0)
        << "a privileged write passes level 2";
    EXPECT_EQ(value_of(p), 2);
    // A new binding in a child frame inherits the protection of the one it hides.
    Cell child = MMM_frame_new(MMM_current_frame, MMM_NIL);
    Cell b = MMM_binding_make(p, child);
    EXPECT_EQ(MMM_binding_level(b), MMM_PROTECT_ERROR);
    MMM_binding_set_level(MMM_binding_find(p, MMM_current_frame), MMM_PROTECT_NONE);
    MMM_release(MMM_set_value(p, nullptr, 0, MMM_current_frame));
    MMM_release(child);
    MMM_release(p);
}

TEST(Identifiers, DeadIdentifiersAreDroppedAndLiveOnesKept) {
    Cell kept = MMM_ident_named("ident_test_kept");
    Cell gone = MMM_ident_named("ident_test_gone");
    Cell bound = MMM_ident_named("ident_test_bound");
    assign(bound, 7, MMM_current_frame);
    MMM_release(gone);
    MMM_release(bound);
    MMM_sign_idents();
    EXPECT_EQ(MMM_ident_exists(MMM_intern("ident_test_kept")), kept);
    EXPECT_EQ(MMM_ident_exists(MMM_intern("ident_test_gone")), nullptr);
    Cell again = MMM_ident_named("ident_test_bound");
    EXPECT_EQ(value_of(again), 7);
    MMM_release(MMM_set_value(again, nullptr, 0, MMM_current_frame));
    MMM_release(again);
    MMM_release(kept);
}

TEST(Identifiers, VariablesAreInterned) {
    Cell v = MMM_var(1, 4);
    EXPECT_EQ(MMM_var(1, 4), v);
    EXPECT_NE(MMM_var(4, 1), v);
    EXPECT_EQ(MMM_var_depth(v), 1);
    EXPECT_EQ(MMM_var_index(v), 4);
}

}  // namespace

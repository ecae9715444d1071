// Containers, frames and structure operands in a live session, where the language alone
// cannot reach: arrays and domain elements made by hand, the walk order a table's buckets
// give, the sharing of buckets between two holders, and the frames' child lists.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "MAR_numbers.h"
#include "MER_error.h"
#include "MEV_containers.h"
#include "MEV_eval.h"
#include "MMM_containers.h"
#include "MMM_ident.h"
#include "MMM_table.h"
#include "MMM_values.h"
#include "MOU_print.h"
#include "MPA_reader.h"
#include "MSE_session.h"
#include "session_support.h"

namespace {

// The printed value of a statement; "Error N" when it raised.
std::string run(std::string_view text) { return eval_shown(text, MOU_to_text, false, true); }

// Binds a value (taken over) to a name at the root frame.
void bind(const char* name, Cell value) {
    Cell id = MMM_ident_named(name);
    MMM_release(MMM_set_value(id, value, 0, MMM_root_frame));
    MMM_release(value);
    MMM_release(id);
}

Cell value_of(const char* name) {
    Cell id = MMM_ident_named(name);
    Cell v = MMM_value(id);
    MMM_release(id);
    return v;
}

Cell frame_named(const char* name) { return value_of(name); }

// The integers 1..n as a set, added in that order.
Cell integer_set(long n) {
    Cell s = MMM_make_set(0);
    for (long i = 1; i <= n; ++i) {
        Cell k = MAR_from_long(i);
        MMM_table_add(&MMM_children(s)[MMM_TABLE_HASH], k, nullptr);
        MMM_release(k);
    }
    MMM_sign(s);
    return s;
}

// The order a bucketed table walks: by bucket, each bucket in the order of insertion.
std::string bucket_order(long n, long buckets) {
    std::vector<std::pair<long, long>> order;  // bucket, element
    for (long i = 1; i <= n; ++i) {
        Cell k = MAR_from_long(i);
        order.emplace_back(long(k->signature % uint32_t(buckets)), i);
        MMM_release(k);
    }
    std::stable_sort(order.begin(), order.end(), [](auto& a, auto& b) { return a.first < b.first; });
    std::string text;
    for (auto& [bucket, i] : order) text += (text.empty() ? "" : ", ") + std::to_string(i);
    return text;
}

TEST(Operands, WalkOrderOfBucketedSets) {
    // 17 elements: 37 buckets; 186 still 37; 187 rebuilds with 1009.
    for (auto [n, buckets] : {std::pair{17L, 37L}, {186L, 37L}, {187L, 1009L}}) {
        Cell s = integer_set(n);
        EXPECT_EQ(MMM_table_width(MMM_child(s, MMM_TABLE_HASH)), buckets) << n;
        bind("ot_s", s);
        EXPECT_EQ(run("op(ot_s)"), bucket_order(n, buckets)) << n;
        // Positions asked backwards and then forwards again give the same entries.
        std::string backwards;
        for (long i = n; i >= 1; --i) backwards = run("op(ot_s, " + std::to_string(i) + ")") + (i == n ? "" : ", ") + backwards;
        EXPECT_EQ(backwards, bucket_order(n, buckets)) << n;
    }
    EXPECT_EQ(run("op(integer_set_unknown, 1)"), "integer_set_unknown");
}

TEST(Containers, WriteToSharedBigTableCopiesOneBucket) {
    Cell t = MMM_make_table(0);
    for (long i = 0; i < 100000; ++i) {
        Cell k = MAR_from_long(i);
        MMM_table_set(&MMM_children(t)[MMM_TABLE_HASH], k, k);
        MMM_release(k);
    }
    MMM_sign(t);
    bind("cw_a", t);
    ASSERT_EQ(run("cw_b := cw_a: cw_b[5] := x: cw_a[5], cw_b[5], nops(cw_b)"), "5, x, 100000");
    Cell a = value_of("cw_a"), b = value_of("cw_b");
    Cell ha = MMM_child(a, 0), hb = MMM_child(b, 0);
    ASSERT_NE(ha, hb);
    ASSERT_EQ(MMM_table_width(ha), MMM_table_width(hb)) << "no rehash";
    long shared = 0;
    for (long i = 0; i < MMM_table_width(ha); ++i) shared += MMM_child(ha, i) == MMM_child(hb, i);
    EXPECT_EQ(shared, MMM_table_width(ha) - 1) << "one bucket copied";
    EXPECT_NE(ha->signature, 0u);
    EXPECT_EQ(ha->signature, hb->signature) << "the same keys";
    MMM_release(a);
    MMM_release(b);
    run("delete cw_a, cw_b");
}

TEST(Containers, Arrays) {
    const MMM_array_bound bounds[] = {{0, 1}, {1, 3}};
    bind("ar", MMM_make_array(bounds));
    EXPECT_EQ(run("nops(ar), op(ar, 1), contains(ar, x)"), "6, FALSE") << "op of an unset entry: NULL";
    EXPECT_EQ(run("type(op(ar, 1)), type(ar[0, 1])"), "DOM_NULL, \"_index\"");
    EXPECT_EQ(run("ar[1, 2] := x: ar[1, 2], op(ar, 5), contains(ar, x)"), "x, x, TRUE");
    // A second holder writes a copy.
    EXPECT_EQ(run("br := ar: br[0, 1] := y: br[0, 1], type(ar[0, 1]), br[1, 2]"), "y, \"_index\", x");
    EXPECT_EQ(run("type(ar[k, 1])"), "\"_index\"") << "a symbolic index stays";
    EXPECT_EQ(run("ar[1]"), "Error 1119");
    EXPECT_EQ(run("ar[2, 1]"), "Error 1005");
    EXPECT_EQ(run("ar[1] := 0"), "Error 1119");
    EXPECT_EQ(run("ar[0, 4] := 0"), "Error 1005");
    EXPECT_EQ(run("ar[k, 1] := 0"), "Error 1005");
    EXPECT_EQ(run("op(subsop(ar, 2 = z), 2), type(op(ar, 2))"), "z, DOM_NULL");
    EXPECT_EQ(run("delete ar[1, 2]: contains(ar, x), nops(ar)"), "FALSE, 6");
    EXPECT_EQ(run("ar[0, 1] := null(): type(ar[0, 1]), nops(ar)"), "\"_index\", 6");
    const MMM_array_bound empty[] = {{2, 1}};
    MER_trapped = true;
    EXPECT_THROW(MMM_make_array(empty), MER_exception);
    MER_trapped = false;
    MSE_recover(true);
    run("delete ar, br");
}

TEST(Operands, DomainElementsByHand) {
    Cell el = MMM_new_node(DOM_EXT, 3);
    MMM_children(el)[0] = MMM_ident_named("de_D");
    MMM_children(el)[1] = MMM_ident_named("de_a");
    MMM_children(el)[2] = MAR_from_long(2);
    MMM_sign(el);
    bind("de_el", el);
    EXPECT_EQ(run("extnops(de_el), extop(de_el, 0), extop(de_el), extop(de_el, 1..2)"), "2, de_D, de_a, 2, de_a, 2");
    EXPECT_EQ(run("nops(de_el), op(de_el, 2), domtype(de_el), type(de_el)"), "2, 2, de_D, de_D");
    EXPECT_EQ(run("extop(extsubsop(de_el, 1 = z, 2 = 3), 1..2), extop(de_el, 1)"), "z, 3, de_a");
    EXPECT_EQ(run("extnops(extsubsop(de_el, 1 = null()))"), "1");
    EXPECT_EQ(run("extsubsop(f(a), 1 = b)"), "Error 1005");
    EXPECT_EQ(run("extsubsop(de_el, 3 = b)"), "Error 1015");
    run("delete de_el");
}

TEST(Frames, ChildListsGrowAndCloseWithTheFrame) {
    ASSERT_EQ(run("_frame(fr_F): fr_v := 7: _frame(fr_G): fr_w := 8: _frame(_rootFrame()): 0"), "0");
    Cell f = frame_named("fr_F");
    ASSERT_TRUE(f && MMM_is_node(f, DOM_FRAME));
    ASSERT_EQ(MMM_frame_child_count(f), 1);
    const uint32_t serial = MMM_child(f, 0)->signature;
    // Ten more children: the list outgrows its first eight slots, the body moves, and the
    // frame keeps its signature, so lookups keyed by it still find its bindings.
    for (int i = 0; i < 10; ++i)
        run("_frame(fr_F): _frame(fr_K" + std::to_string(i) + "): _frame(_rootFrame())");
    EXPECT_EQ(MMM_frame_child_count(f), 11);
    EXPECT_EQ(MMM_child(f, 0)->signature, serial) << "the body keeps its serial when it moves";
    EXPECT_EQ(run("_frame(fr_F): fr_v"), "7");
    EXPECT_EQ(run("_frame(fr_G): fr_w"), "8");
    Cell g = MMM_current_frame;
    MMM_retain(g);
    EXPECT_EQ(MMM_frame_child_serial(f, 0), g->signature);
    EXPECT_EQ(run("_frame(_rootFrame()): delete fr_F: fr_F"), "fr_F");
    EXPECT_EQ(MMM_ident_text(MMM_frame_name(f)), "AnonymousFrame");
    EXPECT_EQ(MMM_ident_text(MMM_frame_name(g)), "AnonymousFrame") << "the child is closed with it";
    EXPECT_EQ(MMM_frame_child_count(f), 0);
    Cell w = MMM_ident_named("fr_w");
    EXPECT_EQ(MMM_binding_find(w, g), nullptr) << "bindings of the closed child are gone";
    MMM_release(w);
    MMM_release(f);
    MMM_release(g);
}

TEST(Frames, PathsFromTheRoot) {
    Cell last = MEV_enter_frame_path("fp_P::fp_Q");
    EXPECT_EQ(MMM_ident_text(MMM_frame_name(last)), "fp_Q");
    Cell parent = MMM_frame_parent(last);
    EXPECT_EQ(MMM_ident_text(MMM_frame_name(parent)), "fp_P");
    EXPECT_EQ(MMM_frame_parent(parent), MMM_root_frame);
    EXPECT_EQ(MMM_frame_child_count(parent), 1) << "a child of a frame below the root is listed";
    EXPECT_EQ(MEV_enter_frame_path("fp_P::fp_Q"), last) << "the same path enters the same frames";
    EXPECT_EQ(MEV_enter_frame_path(""), MMM_root_frame);
    EXPECT_EQ(run("_frame(a, b)"), "Error 1004");
    EXPECT_EQ(run("_rootFrame(1)"), "Error 1004");
}

}  // namespace

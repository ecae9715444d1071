#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "MCM_equal.h"
#include "MMM_heap.h"
#include "MMM_values.h"

namespace {

int polls = 0;
void count_poll() { ++polls; }

class Heap : public ::testing::Test {
protected:
    void SetUp() override {
        MMM_init(nullptr);
        MMM_open(0);
    }
    void TearDown() override { MMM_shutdown(); }

    // A cell of the given total size in bytes, with no children.
    static Cell cell_of_total(long total) { return MMM_new(MMM_TEXT, total - MMM_HEADER_BYTES, 0); }
    static bool is_pool(Cell c) { return (c->flags & MMM_POOL) != 0; }
    static int class_of(Cell c) { return int((c->flags & MMM_CLASS_MASK) >> MMM_CLASS_SHIFT); }

    static Cell pair(Cell a, Cell b) {
        Cell p = MMM_new(MMM_PAIR, 0, 2);
        MMM_children(p)[0] = a;
        MMM_children(p)[1] = b;
        MMM_sign(p);
        return p;
    }
};

TEST_F(Heap, ClassesServeTotalsUpToTheLargestPoolClassAndBigCellsBeyond) {
    const uint64_t base = MMM_used_bytes();
    EXPECT_EQ(MMM_class_of(1), 0);
    EXPECT_EQ(MMM_class_of(32), 0);
    EXPECT_EQ(MMM_class_of(33), 1);
    EXPECT_EQ(MMM_class_of(88), 7);
    EXPECT_EQ(MMM_class_of(89), 8);
    EXPECT_EQ(MMM_class_of(1360), 13);
    EXPECT_EQ(MMM_class_of(1361), 14);
    for (int cls = 0; cls < MMM_CLASS_COUNT; ++cls) {
        EXPECT_EQ(MMM_class_of(MMM_class_bytes[cls]), cls);
        if (cls) {
            EXPECT_EQ(MMM_class_of(MMM_class_bytes[cls - 1] + 1), cls);
        }
    }

    Cell largest = cell_of_total(MMM_POOL_LIMIT);
    EXPECT_TRUE(is_pool(largest));
    EXPECT_EQ(class_of(largest), 15);
    Cell big = cell_of_total(MMM_POOL_LIMIT + 1);
    EXPECT_FALSE(is_pool(big));
    EXPECT_EQ(big->flags & ~MMM_KIND_MASK, 0u);
    EXPECT_EQ(MMM_used_bytes(), base + uint64_t(MMM_POOL_LIMIT + MMM_POOL_LIMIT + 1 + MMM_BIG_EXTRA));

    const uint64_t before = MMM_used_bytes();
    MMM_release(big);
    EXPECT_EQ(MMM_used_bytes(), before - uint64_t(MMM_POOL_LIMIT + 1 + MMM_BIG_EXTRA));
    MMM_release(largest);
}

TEST_F(Heap, NewCellsAreCountedOnceAndFreedCellsAreReusedFirst) {
    Cell a = MMM_new_zeroed(MMM_NODE, 4, 3);
    EXPECT_EQ(a->refcount, 1u);
    EXPECT_EQ(a->signature, 0u);
    EXPECT_EQ(MMM_child_count(a), 3);
    EXPECT_EQ(a->size, 4);
    for (long i = 0; i < 3; ++i) EXPECT_EQ(MMM_child(a, i), nullptr);
    EXPECT_EQ(std::memcmp(a->data, "\0\0\0\0", 4), 0);

    MMM_release(a);
    EXPECT_EQ(a->refcount, 0u);
    MMM_release(a);  // a second release of a freed cell is harmless
    Cell b = MMM_new(MMM_NODE, 4, 3);
    EXPECT_EQ(b, a) << "the freed cell heads its class's free list";
    MMM_release(b);
}

TEST_F(Heap, CloneCopiesOnlyWhenShared) {
    Cell child = MMM_new_string("x");
    Cell c = MMM_new(MMM_PAIR, 0, 2);
    MMM_children(c)[0] = child;
    MMM_children(c)[1] = nullptr;
    MMM_sign(c);

    Cell ref = c;
    MMM_clone(&ref);
    EXPECT_EQ(ref, c) << "refcount 1 clones in place";

    MMM_retain(c);
    Cell other = c;
    MMM_clone(&other);
    EXPECT_NE(other, c);
    EXPECT_EQ(c->refcount, 1u);
    EXPECT_EQ(other->refcount, 1u);
    EXPECT_EQ(child->refcount, 2u);
    EXPECT_EQ(MMM_child(other, 0), child);
    EXPECT_EQ(other->signature, c->signature);
    MMM_release(other);
    EXPECT_EQ(child->refcount, 1u);
    MMM_release(c);
}

TEST_F(Heap, ResizeKeepsTheCellWithinItsClassAndMovesItAcross) {
    Cell c = MMM_new(MMM_TEXT, 1, 0);  // total 25: class 0 (32 bytes)
    std::memcpy(c->data, "a", 1);
    Cell ref = c;
    MMM_resize_data(&ref, 8);  // total 32: same class
    EXPECT_EQ(ref, c);
    EXPECT_EQ(ref->size, 8);
    MMM_resize_data(&ref, 9);  // total 33: the next class, even with refcount 1
    EXPECT_NE(ref, c);
    EXPECT_EQ(ref->size, 9);
    EXPECT_EQ(ref->data[0], 'a');

    Cell kid = MMM_make_int_box(7);
    Cell p = pair(kid, nullptr);
    MMM_retain(p);
    Cell q = p;
    MMM_resize_children(&q, 2);  // same count but shared: still a copy
    EXPECT_NE(q, p);
    EXPECT_EQ(kid->refcount, 2u);
    MMM_resize_children(&q, 1);  // shrinking drops the children lost with the old cell
    EXPECT_EQ(MMM_child_count(q), 1);
    EXPECT_EQ(MMM_child(q, 0), kid);
    MMM_resize_children(&q, 3);
    EXPECT_EQ(MMM_child_count(q), 3);
    EXPECT_EQ(MMM_child(q, 2), nullptr);
    EXPECT_EQ(kid->refcount, 2u);

    Cell big = MMM_new(MMM_TEXT, 5000, 0);
    Cell bref = big;
    MMM_resize_data(&bref, 5000);
    EXPECT_EQ(bref, big) << "a big cell keeps its place only at the same size";
    MMM_resize_data(&bref, 4999);
    EXPECT_NE(bref, big);
    for (Cell x : {ref, p, q, bref}) MMM_release(x);
}

TEST_F(Heap, MoveChildrenHandlesOverlapInBothDirections) {
    Cell c = MMM_new(MMM_SMALL_REC, 0, 5);
    Cell kids[5];
    for (int i = 0; i < 5; ++i) MMM_children(c)[i] = kids[i] = MMM_make_int_box(i);
    MMM_move_children(c, 0, c, 1, 4);
    EXPECT_EQ(MMM_child(c, 1), kids[0]);
    EXPECT_EQ(MMM_child(c, 4), kids[3]);
    MMM_move_children(c, 1, c, 0, 4);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(MMM_child(c, i), kids[i]);
    MMM_children(c)[4] = kids[4];
    MMM_release(c);
}

TEST_F(Heap, ReleasingALongChainNeedsNoNativeStack) {
    const uint64_t base = MMM_used_bytes();
    Cell head = nullptr;
    for (int i = 0; i < 2000000; ++i) {
        Cell link = MMM_new(MMM_PAIR, 0, 2);
        MMM_children(link)[0] = head;
        MMM_children(link)[1] = nullptr;
        head = link;
    }
    MMM_release(head);
    EXPECT_EQ(MMM_used_bytes(), base);
    EXPECT_EQ(MMM_live_cells(), 1u);  // the root table
}

TEST_F(Heap, OnlyTheSweepFreesACycle) {
    Cell root = nullptr;
    MMM_add_root(&root);
    root = MMM_make_string("kept");
    const uint64_t base = MMM_used_bytes();

    Cell a = MMM_new_cleared(MMM_PAIR, 0, 2);
    Cell b = MMM_new_cleared(MMM_PAIR, 0, 2);
    MMM_children(a)[0] = b;
    MMM_children(b)[0] = a;
    MMM_retain(a);
    MMM_retain(b);
    MMM_release(a);  // the holders let go; each cell is still held by the other
    MMM_release(b);
    EXPECT_GT(MMM_used_bytes(), base);

    MMM_mark_all();
    MMM_sweep();
    EXPECT_EQ(MMM_used_bytes(), base) << "used falls back to what the roots reach";
    EXPECT_EQ(root->flags & MMM_MARK, 0u) << "the sweep leaves no marks behind";
    EXPECT_EQ(MMM_string_view(MMM_child(root, 0)), "kept");
}

TEST_F(Heap, SweepKeepsAPageWithOneLiveCellAndFreesEmptyPages) {
    Cell root = nullptr;
    MMM_add_root(&root);
    std::vector<Cell> cells;
    const long per_page = (MMM_PAGE_BYTES - 24) / 40;
    for (long i = 0; i < 3 * per_page; ++i) cells.push_back(MMM_new(MMM_TEXT, 16, 0));  // class 1
    const uint64_t reserved = MMM_reserved_bytes();
    root = cells[10];  // the first page's cells are handed out first

    MMM_mark_all();
    MMM_sweep();  // nothing released these cells: only the sweep frees them
    EXPECT_EQ(MMM_reserved_bytes(), reserved - 2 * MMM_PAGE_BYTES);
    const uint64_t used = MMM_used_bytes();
    for (long i = 0; i < per_page - 1; ++i) MMM_new(MMM_TEXT, 16, 0);
    EXPECT_EQ(MMM_reserved_bytes(), reserved - 2 * MMM_PAGE_BYTES)
        << "the other cells of the kept page are all on the free list";
    EXPECT_EQ(MMM_used_bytes(), used + uint64_t(per_page - 1) * 40);
    MMM_remove_root(&root);
}

TEST_F(Heap, BreakCycleFreesUnreachableStructure) {
    Cell holder = MMM_new_cleared(MMM_SMALL_REC, 0, 1);
    Cell a = MMM_new_cleared(MMM_PAIR, 0, 2);
    Cell b = MMM_new_cleared(MMM_PAIR, 0, 2);
    MMM_children(a)[0] = b;
    MMM_children(b)[0] = a;
    MMM_retain(a);  // held by b
    MMM_children(holder)[0] = a;
    MMM_children(b)[1] = MMM_make_string("leaf");
    const uint64_t before = MMM_used_bytes();
    MMM_children(holder)[0] = nullptr;
    MMM_break_cycle(a);  // takes over holder's reference
    EXPECT_LT(MMM_used_bytes(), before);
    EXPECT_EQ(MMM_live_cells(), 2u);  // the root table and the holder
    MMM_release(holder);
}

TEST_F(Heap, PollRunsOnceEvery255Allocations) {
    polls = 0;
    MMM_set_poll(count_poll);
    std::vector<Cell> cells;
    for (int i = 0; i < 255 * 3; ++i) cells.push_back(MMM_new(MMM_TEXT, 8, 0));
    EXPECT_EQ(polls, 3);
    MMM_set_poll(nullptr);
    for (Cell c : cells) MMM_release(c);
}

int ceiling_calls = 0;
int memory_calls = 0;
void note_ceiling() { ++ceiling_calls; }
void note_memory() { ++memory_calls; }

TEST_F(Heap, CeilingCallsItsHandlerAndLeavesRoomToUnwind) {
    MMM_shutdown();
    MMM_init(nullptr);
    MMM_open(20000);
    ceiling_calls = memory_calls = 0;
    MMM_set_ceiling_handler(note_ceiling);
    MMM_set_memory_handler(note_memory);
    std::vector<Cell> cells;
    Cell c;
    while ((c = MMM_new(MMM_TEXT, 1000, 0))) cells.push_back(c);
    EXPECT_EQ(ceiling_calls, 1);
    EXPECT_NE(MMM_new(MMM_TEXT, 1000, 0), nullptr) << "the raised ceiling leaves room";
    EXPECT_EQ(MMM_new(MMM_TEXT, -1, 0), nullptr);
    EXPECT_EQ(MMM_new(MMM_TEXT, 8, long(1) << 40), nullptr);
    EXPECT_EQ(memory_calls, 2);
}

TEST_F(Heap, SignaturesFollowTheirKind) {
    Cell s = MMM_new_string("ab");
    // 'a' << 16 + 'b' << 8, plus the sum of the bytes
    EXPECT_EQ(s->signature, uint32_t(('a' << 16) + ('b' << 8) + 'a' + 'b'));
    Cell e = MMM_new_string("");
    EXPECT_EQ(e->signature, 0u);

    Cell n = MMM_make_int_box(-5);
    EXPECT_EQ(n->signature, uint32_t(-5));
    Cell p = pair(s, n);
    EXPECT_EQ(p->signature, s->signature + n->signature);

    // Nodes ignore their first raw word (category and flags) but count their children.
    Cell x = MMM_make_list(1);
    MMM_children(x)[0] = s;
    MMM_retain(s);
    MMM_sign(x);
    EXPECT_EQ(x->signature, s->signature);

    // Identity cells sign by a serial: distinct, stable, and fresh for a copy.
    Cell v1 = MMM_new_cleared(MMM_VECTOR, 0, 1);
    Cell v2 = MMM_new_cleared(MMM_VECTOR, 0, 1);
    MMM_sign(v1);
    MMM_sign(v2);
    EXPECT_NE(v1->signature, 0u);
    EXPECT_NE(v1->signature, v2->signature);
    const uint32_t first = v1->signature;
    MMM_sign(v1);
    EXPECT_EQ(v1->signature, first);
    MMM_retain(v1);
    Cell v3 = v1;
    MMM_clone(&v3);
    MMM_sign(v3);
    EXPECT_NE(v3->signature, first);

    for (Cell c : {p, e, x, v1, v2, v3}) MMM_release(c);
}

TEST_F(Heap, ShareMergesEqualValuesButNeverIdentifiers) {
    MMM_values_start();
    MCM_start();
    auto list_of = [](const char* text) {
        Cell l = MMM_make_list(1);
        MMM_children(l)[0] = MMM_make_string(text);
        MMM_sign(l);
        return l;
    };
    auto ident = [](const char* name) {
        Cell body = MMM_new_zeroed(MMM_IDENT_BODY, 8, 1);
        Cell id = MMM_new_node(DOM_IDENT, 2);
        MMM_children(id)[0] = MMM_new_string(name);
        MMM_children(id)[1] = body;
        MMM_sign(id);
        return id;
    };
    Cell r1 = nullptr, r2 = nullptr, r3 = nullptr, x1 = nullptr, x2 = nullptr;
    for (Cell* r : {&r1, &r2, &r3, &x1, &x2}) MMM_add_root(r);
    r1 = list_of("same");
    r2 = list_of("same");
    r3 = list_of("other");
    x1 = ident("x");
    x2 = ident("x");  // two identifier cells of one name: each keeps its own binding
    Cell body1 = MMM_child(x1, 1);
    Cell body2 = MMM_child(x2, 1);

    MMM_share();
    EXPECT_EQ(r1, r2);
    EXPECT_EQ(r1->refcount, 2u);
    EXPECT_NE(r1, r3);
    EXPECT_NE(x1, x2);
    EXPECT_EQ(MMM_child(x1, 1), body1);
    EXPECT_EQ(MMM_child(x2, 1), body2);
    EXPECT_EQ(MMM_child(x1, 0), MMM_child(x2, 0)) << "their bare name strings may merge";
    EXPECT_EQ(r1->flags & MMM_MARK, 0u);
    for (Cell* r : {&r1, &r2, &r3, &x1, &x2}) MMM_release(*r);
}

}  // namespace

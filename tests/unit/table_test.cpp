#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "MCM_equal.h"
#include "MER_error.h"
#include "MMM_table.h"
#include "MMM_values.h"

namespace {

using Ints = std::vector<int>;

class Table : public ::testing::Test {
protected:
    void SetUp() override {
        MMM_init(nullptr);
        MMM_open(0);
        MMM_values_start();
        MMM_table_start();
        MCM_start();
        base_cells = MMM_live_cells();
    }
    // Once the test's own cells are released the live count must come back: a leak or a
    // release too many inside the table shows here.
    void TearDown() override {
        for (Cell c : owned) MMM_release(c);
        MMM_table_set_sequence_operator(nullptr);
        EXPECT_EQ(MMM_live_cells(), base_cells);
        MMM_shutdown();
    }
    uint64_t base_cells = 0;
    std::vector<Cell> owned;

    // Keys and other cells that are never written are released by TearDown; tables,
    // which the routines replace, are released by the tests.
    Cell own(Cell c) { return owned.push_back(c), c; }
    static Cell table(long n) { return MMM_table_new(n); }
    static Cell share(Cell t) { return MMM_retain(t), t; }
    static void release(std::initializer_list<Cell> cells) {
        for (Cell c : cells) MMM_release(c);
    }
    // Integer boxes sign by their value: a key's bucket is its value modulo the width.
    Cell k(int n) { return own(MMM_make_int_box(n)); }
    void add(Cell* t, int n, Cell v = nullptr) { MMM_table_add(t, k(n), v); }
    void add_all(Cell* t, const Ints& keys) { for (int n : keys) add(t, n); }
    bool set(Cell* t, int n, Cell v) { return MMM_table_set(t, k(n), v); }
    bool remove(Cell* t, int n) { return MMM_table_remove(t, k(n)); }
    bool has(Cell t, int n, Cell* v = nullptr) { return MMM_table_find(t, k(n), v); }

    static Ints walk(Cell t) {
        Ints out;
        MMM_table_walker w(t);
        for (Cell key; w.next(&key, nullptr);) out.push_back(MMM_int_box_value(key));
        return out;
    }
    // The walk the layout implies: by bucket, and within a bucket in the order given.
    static Ints by_bucket(Ints order, long buckets) {
        std::stable_sort(order.begin(), order.end(),
                         [buckets](int a, int b) { return uint32_t(a) % buckets < uint32_t(b) % buckets; });
        return order;
    }
    static uint32_t recomputed(Cell t) {
        uint32_t stored = t->signature;
        MMM_sign(t);
        std::swap(stored, t->signature);
        return stored;
    }
    static long differing_children(Cell a, Cell b) {
        long n = 0;
        for (long i = 0; i < MMM_child_count(a); ++i) n += MMM_child(a, i) != MMM_child(b, i);
        return n;
    }
    template <typename F>
    static long error_of(F f) {
        try {
            f();
        } catch (const MER_exception& e) {
            MER_pending = 0;
            return e.code;
        }
        return 0;
    }
};

TEST_F(Table, SizesComeFromThePrimeListAndTheSeventeenthEntryMakesBuckets) {
    const std::pair<long, long> sizes[] = {{-5, 0},         {16, 0},         {17, 37},        {18, 37},
                                           {19, 97},        {48, 97},        {49, 1009},      {504, 1009},
                                           {505, 10007},    {5003, 10007},   {5004, 100003},  {50001, 100003},
                                           {50002, 1000003}, {1L << 40, 1000003}};
    for (auto [n, buckets] : sizes) {
        EXPECT_EQ(MMM_table_bucket_count_for(n), buckets) << n;
        Cell t = MMM_table_new(n);
        EXPECT_EQ(MMM_table_mode(t), buckets ? MMM_TABLE_BUCKETED : MMM_TABLE_FLAT) << n;
        EXPECT_EQ(MMM_table_width(t), buckets ? buckets : 2 * std::max(n, 0L)) << n;
        MMM_release(t);
    }

    // 79, 5 and 42 share bucket 5 of 37, and come in out of order.
    const Ints keys = {79, 3, 5, 100, 42, 7, 1000, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17};
    Cell t = table(0);
    for (size_t i = 0; i < 16; ++i) {
        add(&t, keys[i]);
        EXPECT_EQ(MMM_table_width(t), long(2 * i + 2)) << "a flat table grows by one pair";
    }
    EXPECT_EQ(walk(t), Ints(keys.begin(), keys.begin() + 16));
    add(&t, 17);
    EXPECT_EQ(MMM_table_mode(t), MMM_TABLE_BUCKETED);
    EXPECT_EQ(MMM_table_width(t), 37);
    EXPECT_EQ(walk(t), by_bucket(keys, 37));
    for (int n : keys) EXPECT_TRUE(has(t, n)) << n;
    EXPECT_FALSE(has(t, 40));
    EXPECT_EQ(t->signature, 1361u);
    EXPECT_EQ(recomputed(t), 1361u);
    release({t});
}

TEST_F(Table, BucketsGrowByEightAndTheTableAfterFiveEntriesABucket) {
    Cell t = table(17);
    for (int i = 0; i < 5; ++i) {
        add(&t, 3 + 37 * i);
        EXPECT_EQ(MMM_child_count(MMM_child(t, 3)), i < 4 ? 8 : 16);
    }
    // The 1009-bucket order within a bucket is the old 37-bucket walk, not the insertion
    // order, so this shows that the rebuild walks the old table.
    Cell u = table(0);
    for (int i = 0; i < 186; ++i) add(&u, (186 - i) * 1009 + i % 5);
    EXPECT_EQ(MMM_table_width(u), 37) << "186 entries still fit 37 buckets";
    Ints expected = walk(u);
    add(&u, 4);
    expected.push_back(4);
    EXPECT_EQ(MMM_table_width(u), 1009);
    EXPECT_EQ(walk(u), by_bucket(expected, 1009));

    Cell v = table(0);
    for (int n = 0; n < 5046; ++n) add(&v, 3 * n);
    EXPECT_EQ(MMM_table_width(v), 1009);
    expected = walk(v);
    add(&v, 1);
    expected.push_back(1);
    EXPECT_EQ(MMM_table_width(v), 100003);
    EXPECT_EQ(walk(v), by_bucket(expected, 100003));
    EXPECT_EQ(recomputed(v), v->signature);
    release({t, u, v});
}

TEST_F(Table, AWriteToASharedBigTableCopiesTheBucketArrayAndOneBucket) {
    Cell a = table(0);
    for (int n = 0; n < 100000; ++n) add(&a, n);
    ASSERT_EQ(MMM_table_width(a), 100003);
    Cell b = share(a), c;
    EXPECT_TRUE(set(&b, 7, MMM_TRUE));
    EXPECT_EQ(differing_children(a, b), 1) << "no rehash, one bucket copied";
    EXPECT_TRUE(has(a, 7, &c) && !c);
    EXPECT_TRUE(has(b, 7, &c) && c == MMM_TRUE);
    c = share(b);
    add(&c, 100000);
    EXPECT_FALSE(has(b, 100000));
    EXPECT_EQ(MMM_table_count(b), 100000);
    EXPECT_EQ(b->signature, a->signature);
    EXPECT_EQ(c->signature, a->signature + 100000u);
    release({a, b, c});
}

TEST_F(Table, SharedTablesOutOfTheirLoadRangeAreRebuiltWhenUnshared) {
    Cell a = table(1000);  // too sparse: 3 entries in 10007 buckets
    add_all(&a, {5, 6, 7});
    Cell b = share(a);
    add(&b, 8);
    EXPECT_EQ(MMM_table_width(a), 10007);
    EXPECT_EQ(MMM_table_mode(b), MMM_TABLE_FLAT);
    EXPECT_EQ(walk(b), (Ints{5, 6, 7, 8}));

    Cell c = table(17);  // overfull: 186 entries in 37 buckets, even for a replace
    for (int n = 0; n < 186; ++n) add(&c, n);
    Cell d = share(c);
    EXPECT_TRUE(set(&d, 0, MMM_TRUE));
    EXPECT_EQ(MMM_table_width(c), 37);
    EXPECT_EQ(MMM_table_width(d), 1009);

    Cell e = table(100);  // its right size is the size it has: cloned, buckets shared
    for (int n = 0; n < 100; ++n) add(&e, n);
    Cell f = share(e);
    add(&f, 1009);
    ASSERT_EQ(MMM_table_width(f), 1009);
    EXPECT_EQ(differing_children(e, f), 1);
    release({a, b, c, d, e, f});
}

TEST_F(Table, RemovalClosesGapsAndReleasesEmptyBuckets) {
    Cell t = table(17);
    add_all(&t, {2, 39, 76, 4, 5});  // 2, 39, 76 share bucket 2
    Cell shared = share(t);
    EXPECT_FALSE(remove(&t, 113));
    EXPECT_EQ(t, shared) << "a table without the key is not copied";
    EXPECT_TRUE(remove(&t, 39));
    EXPECT_TRUE(remove(&t, 4));
    EXPECT_EQ(walk(t), (Ints{2, 76, 5}));
    EXPECT_EQ(walk(shared), (Ints{2, 39, 76, 4, 5}));
    EXPECT_EQ(MMM_child(MMM_child(t, 2), 4), nullptr) << "the last place is cleared";
    EXPECT_EQ(MMM_child(t, 4), nullptr) << "an empty bucket is null";
    EXPECT_EQ(t->signature, 83u);
    EXPECT_EQ(shared->signature, 126u);

    Cell f = table(3);
    add_all(&f, {1, 2, 3});
    EXPECT_TRUE(remove(&f, 1));
    add(&f, 9);
    EXPECT_EQ(walk(f), (Ints{2, 3, 9})) << "the freed place is reused";
    EXPECT_EQ(MMM_table_width(f), 6);
    for (int n : {-1, -2}) EXPECT_TRUE(set(&f, 3, k(n)));  // the live count sees the first go
    Cell v;
    EXPECT_TRUE(has(f, 3, &v) && MMM_int_box_value(v) == -2);
    release({t, shared, f});
}

struct Drop {
    int modulus;
    int calls = 0;
};
bool divisible(Cell key, Cell, void* arg) {
    auto* d = static_cast<Drop*>(arg);
    ++d->calls;
    return MMM_int_box_value(key) % d->modulus == 0;
}

TEST_F(Table, FilterTestsEachEntryOnceAndLeavesSharersAlone) {
    // Flat, then 97 buckets where bucket j holds j, j + 194, ...: the odd buckets lose
    // nothing to the first filter and are still shared when the second runs.
    for (long size : {10L, 40L}) {
        Cell t = table(size);
        for (int n = 0; n < size; ++n) add(&t, n % 13 + 194 * (n / 13));
        Cell other = share(t);
        const Ints all = walk(t);
        Ints left = all;
        for (int modulus : {2, 3, 1000000}) {
            const size_t before = left.size();
            std::erase_if(left, [modulus](int n) { return n % modulus == 0; });
            Drop drop{modulus};
            const Cell old = t;
            EXPECT_EQ(MMM_table_filter(&t, divisible, &drop), long(before - left.size()));
            EXPECT_EQ(drop.calls, long(before));
            EXPECT_EQ(walk(t), left);
            EXPECT_EQ(MMM_table_count(t), long(left.size()));
            EXPECT_EQ(recomputed(t), t->signature);
            EXPECT_EQ(walk(other), all);
            if (modulus == 1000000) {
                EXPECT_EQ(t, old) << "nothing dropped, nothing copied";
            }
        }
        release({t, other});
    }
    Cell t = table(17);
    add_all(&t, {0, 37, 2});
    Drop even{2};
    EXPECT_EQ(MMM_table_filter(&t, divisible, &even), 2);
    EXPECT_EQ(MMM_int_box_value(MMM_child(MMM_child(t, 0), 0)), 37) << "moved down";
    EXPECT_EQ(MMM_child(MMM_child(t, 0), 2), nullptr);
    EXPECT_EQ(MMM_child(t, 2), nullptr) << "an emptied bucket is released";
    EXPECT_EQ(t->signature, 37u);
    release({t});
}

TEST_F(Table, EqualityIgnoresOrderAndLayoutButNotKeysOrValues) {
    Cell s1 = own(MMM_make_set(0)), s2 = own(MMM_make_set(0));
    add_all(MMM_children(s1), {1, 2});
    add_all(MMM_children(s2), {2, 1});
    MMM_sign(s1);
    MMM_sign(s2);
    EXPECT_TRUE(MCM_equal(s1, s2));

    Cell flat = table(0), bucketed = table(100);
    for (int n : {1, 2, 3}) add(&flat, n, MMM_TRUE), add(&bucketed, 4 - n, MMM_TRUE);
    EXPECT_TRUE(MCM_equal(flat, bucketed));
    set(&bucketed, 2, MMM_FALSE);
    EXPECT_FALSE(MCM_equal(flat, bucketed));
    set(&bucketed, 2, MMM_TRUE);
    add(&flat, 0);  // signs 0: the same signature, another count
    EXPECT_FALSE(MCM_equal(flat, bucketed));
    EXPECT_FALSE(MCM_equal(bucketed, flat));

    // f(x, y) and f(y, x) sign alike: only the entry-by-entry test tells them apart.
    auto call = [this](const char* a, const char* b) {
        Cell e = own(MMM_make_expr(3));
        MMM_children(e)[0] = MMM_new_string("f");
        MMM_children(e)[1] = MMM_make_string(a);
        MMM_children(e)[2] = MMM_make_string(b);
        MMM_sign(e);
        return e;
    };
    Cell xy = call("x", "y"), yx = call("y", "x");
    Cell t1 = own(MMM_make_table(0)), t2 = own(MMM_make_table(0));
    MMM_table_add(MMM_children(t1), xy, MMM_TRUE);
    MMM_table_add(MMM_children(t2), yx, MMM_TRUE);
    MMM_children(MMM_child(t2, 1))[0] = MMM_make_string("owner");
    MMM_sign(t1);
    MMM_sign(t2);
    EXPECT_EQ(t1->signature, t2->signature);
    EXPECT_FALSE(MCM_equal(t1, t2));
    MMM_table_remove(MMM_children(t2), yx);
    MMM_table_add(MMM_children(t2), xy, MMM_TRUE);
    MMM_sign(t2);
    EXPECT_TRUE(MCM_equal(t1, t2)) << "the owner box takes no part";
    release({flat, bucketed});
}

TEST_F(Table, LookupModesTakeTheKeyFromTheOperands) {
    auto expr = [this](std::initializer_list<Cell> parts) {
        Cell e = own(MMM_make_expr(long(parts.size())));
        long i = 0;
        for (Cell p : parts) MMM_retain(MMM_children(e)[i++] = p);
        MMM_sign(e);
        return e;
    };
    Cell t = table(0), seq_op = own(MMM_new_string("_exprseq")), index = own(MMM_new_string("_index"));
    MMM_table_add(&t, k(5), MMM_TRUE);
    MMM_table_add(&t, MMM_NULL, MMM_FALSE);
    MMM_table_add(&t, expr({seq_op, k(1), k(2)}), MMM_UNKNOWN);
    Cell call_two = expr({t, k(1), k(2)});
    EXPECT_EQ(error_of([&] { MMM_table_lookup(t, call_two, 1, nullptr); }), 1103) << "no operator yet";
    MMM_table_set_sequence_operator(seq_op);

    const std::tuple<Cell, int, Cell> cases[] = {
        {k(5), 0, MMM_TRUE},           {expr({t, k(5)}), 1, MMM_TRUE},           {expr({t}), 1, MMM_FALSE},
        {call_two, 1, MMM_UNKNOWN},    {expr({index, t, k(1), k(2)}), 2, MMM_UNKNOWN},
        {expr({index, t}), 2, MMM_FALSE}, {call_two, 2, nullptr},                {expr({index, t, k(1), k(2)}), 1, nullptr}};
    for (auto [key, mode, expected] : cases) {
        Cell v = MMM_NIL;
        EXPECT_EQ(MMM_table_lookup(t, key, mode, &v), expected != nullptr) << mode;
        EXPECT_EQ(v, expected) << mode;
    }
    EXPECT_EQ(error_of([&] { MMM_table_lookup(t, k(5), 1, nullptr); }), 1103);
    EXPECT_EQ(error_of([&] { MMM_table_lookup(t, call_two, 3, nullptr); }), 1103);
    release({t});
}

TEST_F(Table, ListAndWalkerSeeTheTableAsItWas) {
    Cell t = table(17);
    add_all(&t, {40, 3, 77, 1, 2});
    ASSERT_EQ(walk(t), (Ints{1, 2, 40, 3, 77}));
    Ints listed;
    Cell list = own(MMM_table_list(t));
    for (Cell c = list; c; c = MMM_child(c, 2)) listed.push_back(MMM_int_box_value(MMM_child(c, 0)));
    EXPECT_EQ(listed, (Ints{77, 3, 40, 2, 1}));

    Ints seen;
    {
        MMM_table_walker w(t);
        EXPECT_EQ(t->refcount, 2u);
        for (Cell key; w.next(&key, nullptr);) {
            if (seen.empty()) remove(&t, 3), add(&t, 114), set(&t, 77, MMM_FALSE);  // 114: bucket 3
            seen.push_back(MMM_int_box_value(key));
        }
    }
    EXPECT_EQ(seen, (Ints{1, 2, 40, 3, 77}));
    EXPECT_EQ(t->refcount, 1u);
    EXPECT_EQ(walk(t), (Ints{1, 2, 40, 77, 114}));
    release({t});
}

TEST_F(Table, BadArgumentsAreErrorsNotCrashes) {
    Cell t = table(0), s = own(MMM_make_string("not a table"));
    Drop drop{2};
    EXPECT_EQ(error_of([&] { MMM_table_add(&t, nullptr, nullptr); }), 1103);
    EXPECT_EQ(error_of([&] { MMM_table_set(&s, s, nullptr); }), 1103);
    EXPECT_EQ(error_of([&] { MMM_table_filter(&s, divisible, &drop); }), 1103);
    EXPECT_FALSE(MMM_table_find(s, s, nullptr) || MMM_table_find(t, nullptr, nullptr));
    EXPECT_FALSE(MMM_table_remove(&t, nullptr));
    EXPECT_EQ(MMM_table_list(t), nullptr);
    MMM_table_walker w(s);
    EXPECT_FALSE(w.next(nullptr, nullptr));
    release({t});
}

}  // namespace

// The hash table of tables, sets and identifiers (see MMM_table.h for the layout).
//
// Lookups allocate nothing: a flat table or a bucket is scanned pair by pair, and the
// address and signature tests run before MCM_equal is called. Every change keeps `count`
// and the signature (the sum of the key signatures) current, so a finished table never
// needs signing again.
#include "MMM_table.h"

#include <cstring>
#include <vector>

#include "MER_error.h"
#include "MMM_heap.h"
#include "MMM_values.h"

namespace {

// Bucket counts, smallest first; a table for n entries takes the first that is at least
// 2n, and the last one beyond them all.
constexpr long PRIMES[] = {37, 97, 1009, 10007, 100003};
constexpr long LAST_PRIME = 1000003;
constexpr long LOAD_LIMIT = 5;      // entries per bucket before the table grows
constexpr long SPARSE_LIMIT = 8;    // buckets per entry above which a shared table shrinks
constexpr long BUCKET_STEP = 8;     // children of a new bucket, and its growth
constexpr long FLAT_STEP = 2;       // growth of a flat table
constexpr long TABLE_BYTES = 8;     // mode, count

Cell sequence_operator = nullptr;

uint32_t word(Cell t, int i) {
    uint32_t w;
    std::memcpy(&w, t->data + 4 * i, 4);
    return w;
}
void set_word(Cell t, int i, uint32_t w) { std::memcpy(t->data + 4 * i, &w, 4); }

inline uint32_t mode_of(Cell t) { return word(t, 0); }
inline long count_of(Cell t) { return word(t, 1); }
inline void set_count(Cell t, long n) { set_word(t, 1, uint32_t(n)); }

inline bool is_table(Cell t) {
    return t && MMM_kind_of(t) == MMM_HASH && t->size >= TABLE_BYTES &&
           (mode_of(t) == MMM_TABLE_FLAT || (mode_of(t) == MMM_TABLE_BUCKETED && MMM_child_count(t) > 0));
}

void check_table(Cell t, const char* who) {
    if (!is_table(t)) MER_raise(MER_INTERNAL, who);
}

Cell new_cleared(unsigned kind, long bytes, long children) {
    Cell c = MMM_new_cleared(kind, bytes, children);
    if (!c) MER_raise(MER_OUT_OF_MEMORY, nullptr);
    return c;
}

inline bool same_key(Cell k, Cell key) {
    return k == key || (k->signature == key->signature && MMM_equal(k, key));
}

// Slot of `key` among the pairs of a flat table or a bucket, or -1.
long find_in(Cell c, Cell key) {
    Cell* s = MMM_children(c);
    const long n = MMM_child_count(c);
    for (long i = 0; i < n && s[i]; i += 2)
        if (same_key(s[i], key)) return i;
    return -1;
}

inline long bucket_of(Cell t, Cell key) { return long(key->signature % uint32_t(MMM_child_count(t))); }

// Where a key is: the bucket (-1 in a flat table) and the slot within it (-1: absent).
struct Where {
    long bucket;
    long slot;
};

Where locate(Cell t, Cell key) {
    if (mode_of(t) == MMM_TABLE_FLAT) return {-1, find_in(t, key)};
    const long b = bucket_of(t, key);
    Cell bucket = MMM_child(t, b);
    return {b, bucket ? find_in(bucket, key) : -1};
}

// The cell holding the pairs of `w`: the table itself or the slot of its bucket.
inline Cell* holder_of(Cell* tp, const Where& w) {
    return w.bucket < 0 ? tp : MMM_children(*tp) + w.bucket;
}

// Calls fn(key, value) for each entry in walk order until fn gives false.
template <typename Fn>
bool each_pair(Cell c, Fn& fn) {
    Cell* s = MMM_children(c);
    const long n = MMM_child_count(c);
    for (long i = 0; i < n && s[i]; i += 2)
        if (!fn(s[i], s[i + 1])) return false;
    return true;
}

template <typename Fn>
bool for_each_entry(Cell t, Fn fn) {
    if (mode_of(t) == MMM_TABLE_FLAT) return each_pair(t, fn);
    for (Cell* b = MMM_children(t); b < MMM_children_end(t); ++b)
        if (*b && !each_pair(*b, fn)) return false;
    return true;
}

// Stores key and value (retained) in the free place of a flat table or a bucket, which
// the caller may write. A full one grows by `step` children; otherwise the free place is
// found from the end backwards, pair by pair, down to the last used key.
void store_pair(Cell* holder, long step, Cell key, Cell value) {
    const long n = MMM_child_count(*holder);
    long place;
    if (n == 0 || MMM_child(*holder, n - 2)) {
        MMM_resize_children(holder, n + step);
        if (MMM_child_count(*holder) != n + step) MER_raise(MER_OUT_OF_MEMORY, nullptr);
        place = n;
    } else {
        MMM_clone(holder);
        if ((*holder)->refcount != 1) MER_raise(MER_OUT_OF_MEMORY, nullptr);
        Cell* s = MMM_children(*holder);
        place = n - 2;
        while (place >= 2 && !s[place - 2]) place -= 2;
    }
    Cell* s = MMM_children(*holder);
    MMM_retain(key);
    MMM_retain(value);
    s[place] = key;
    s[place + 1] = value;
}

// Places an entry in an exclusively held table without touching count or signature.
void place_entry(Cell* tp, Cell key, Cell value) {
    if (mode_of(*tp) == MMM_TABLE_FLAT) {
        store_pair(tp, FLAT_STEP, key, value);
        return;
    }
    Cell* bp = MMM_children(*tp) + bucket_of(*tp, key);
    if (!*bp) *bp = new_cleared(MMM_BUCKET, 0, BUCKET_STEP);
    store_pair(bp, BUCKET_STEP, key, value);
}

// A new table for n entries holding the entries of *tp, which it replaces. The old table
// is only read, so it may be shared.
void rebuild(Cell* tp, long n) {
    Cell old = *tp;
    Cell fresh = MMM_table_new(n);
    for_each_entry(old, [&fresh](Cell k, Cell v) {
        place_entry(&fresh, k, v);
        return true;
    });
    set_count(fresh, count_of(old));
    fresh->signature = old->signature;
    *tp = fresh;
    MMM_release(old);
}

// Makes *tp exclusively held. A flat table is cloned. A bucketed one is cloned (sharing
// its buckets) while its load lies between 1/8 and 5 entries a bucket, and rebuilt at the
// size for its count otherwise; a rebuild to the bucket count it already has would give
// the same walk order, so it is a clone too.
void unshare(Cell* tp) {
    Cell t = *tp;
    if (t->refcount <= 1) return;
    if (mode_of(t) == MMM_TABLE_BUCKETED) {
        const long nb = MMM_child_count(t), count = count_of(t);
        if ((count > LOAD_LIMIT * nb || nb > SPARSE_LIMIT * count) && MMM_table_bucket_count_for(count) != nb) {
            rebuild(tp, count);
            return;
        }
    }
    MMM_clone(tp);
    if ((*tp)->refcount != 1) MER_raise(MER_OUT_OF_MEMORY, nullptr);
}

// Removes the entry at `w` of an exclusively held table.
void remove_at(Cell* tp, const Where& w) {
    Cell* holder = holder_of(tp, w);
    if (w.bucket >= 0) {
        MMM_clone(holder);
        if ((*holder)->refcount != 1) MER_raise(MER_OUT_OF_MEMORY, nullptr);
    }
    Cell c = *holder;
    Cell* s = MMM_children(c);
    const long n = MMM_child_count(c);
    Cell key = s[w.slot], value = s[w.slot + 1];
    long end = w.slot + 2;
    while (end < n && s[end]) end += 2;
    std::memmove(s + w.slot, s + w.slot + 2, sizeof(Cell) * size_t(end - w.slot - 2));
    s[end - 2] = s[end - 1] = nullptr;
    if (w.bucket >= 0 && !s[0]) {
        *holder = nullptr;
        MMM_release(c);
    }
    Cell t = *tp;
    t->signature -= key->signature;
    set_count(t, count_of(t) - 1);
    MMM_release(key);
    MMM_release(value);
}

// Drops the pairs of a flat table or bucket for which the test holds, closing the gaps.
// A bucket is cloned at its first drop and released when left empty. Gives the count
// dropped.
long compact(Cell* holder, bool is_bucket, MMM_table_test test, void* arg) {
    long n = MMM_child_count(*holder);
    long write = 0, dropped = 0, i = 0;
    for (; i < n; i += 2) {
        Cell* s = MMM_children(*holder);
        Cell key = s[i];
        if (!key) break;
        if (!test(key, s[i + 1], arg)) {
            if (write != i) {
                s[write] = key;
                s[write + 1] = s[i + 1];
            }
            write += 2;
            continue;
        }
        if (!dropped && is_bucket) {
            MMM_clone(holder);
            if ((*holder)->refcount != 1) MER_raise(MER_OUT_OF_MEMORY, nullptr);
            s = MMM_children(*holder);
        }
        ++dropped;
        MMM_release(s[i]);
        MMM_release(s[i + 1]);
    }
    if (!dropped) return 0;
    Cell* s = MMM_children(*holder);
    for (long j = write; j < i; ++j) s[j] = nullptr;
    if (is_bucket && write == 0) {
        Cell c = *holder;
        *holder = nullptr;
        MMM_release(c);
    }
    return dropped;
}

// ---- routines of the kind ----

uint32_t sign_table(Cell t) {
    if (!is_table(t)) return 0;
    uint32_t h = 0;
    for_each_entry(t, [&h](Cell k, Cell) {
        h += k->signature;
        return true;
    });
    return h;
}

}  // namespace

bool MMM_table_equal(Cell a, Cell b) {
    if (!is_table(a) || !is_table(b)) return false;
    if (count_of(a) != count_of(b) || a->signature != b->signature) return false;
    return for_each_entry(a, [b](Cell k, Cell v) {
        Cell w;
        return MMM_table_find(b, k, &w) && MMM_equal(v, w);
    });
}

void MMM_table_start() {
    MMM_set_sign_routine(MMM_HASH, sign_table);
    sequence_operator = nullptr;  // a former heap's cell, if any, is gone
    MMM_add_root(&sequence_operator);
}

long MMM_table_bucket_count_for(long n) {
    if (n <= MMM_TABLE_FLAT_MAX) return 0;
    if (n > LAST_PRIME) return LAST_PRIME;
    for (long p : PRIMES)
        if (p >= 2 * n) return p;
    return LAST_PRIME;
}

Cell MMM_table_new(long n) {
    if (n < 0) n = 0;
    const long buckets = MMM_table_bucket_count_for(n);
    Cell t = new_cleared(MMM_HASH, TABLE_BYTES, buckets ? buckets : 2 * n);
    set_word(t, 0, buckets ? MMM_TABLE_BUCKETED : MMM_TABLE_FLAT);
    set_count(t, 0);
    return t;
}

uint32_t MMM_table_mode(Cell t) { return is_table(t) ? mode_of(t) : 0; }

long MMM_table_count(Cell t) { return is_table(t) ? count_of(t) : 0; }

bool MMM_table_find(Cell table, Cell key, Cell* value) {
    if (value) *value = nullptr;
    if (!key || !is_table(table)) return false;
    const Where w = locate(table, key);
    if (w.slot < 0) return false;
    if (value) {
        Cell c = w.bucket < 0 ? table : MMM_child(table, w.bucket);
        *value = MMM_child(c, w.slot + 1);
    }
    return true;
}

Cell MMM_table_make_key(Cell expr, int mode) {
    if (mode == 0) {
        MMM_retain(expr);
        return expr;
    }
    if ((mode != 1 && mode != 2) || !expr || !MMM_is_node(expr, DOM_EXPR))
        MER_raise(MER_INTERNAL, "MMM_table_make_key");
    const long n = MMM_child_count(expr) - mode;
    Cell key;
    if (n <= 0) {
        key = MMM_NULL;
    } else if (n == 1) {
        key = MMM_child(expr, mode);
    } else {
        if (!sequence_operator) MER_raise(MER_INTERNAL, "MMM_table_make_key");
        Cell seq = MMM_make_expr(n + 1);
        Cell* s = MMM_children(seq);
        s[0] = sequence_operator;
        MMM_retain(s[0]);
        for (long i = 0; i < n; ++i) {
            s[i + 1] = MMM_child(expr, mode + i);
            MMM_retain(s[i + 1]);
        }
        MMM_sign(seq);
        return seq;
    }
    MMM_retain(key);
    return key;
}

bool MMM_table_lookup(Cell table, Cell key, int mode, Cell* value) {
    if (mode == 0) return MMM_table_find(table, key, value);
    if ((mode != 1 && mode != 2) || !key || !MMM_is_node(key, DOM_EXPR)) MER_raise(MER_INTERNAL, "MMM_table_lookup");
    const long n = MMM_child_count(key) - mode;
    if (n <= 0) return MMM_table_find(table, MMM_NULL, value);
    if (n == 1) return MMM_table_find(table, MMM_child(key, mode), value);
    Cell seq = MMM_table_make_key(key, mode);
    const bool found = MMM_table_find(table, seq, value);
    MMM_release(seq);  // a found value is held by the table, not by the key
    return found;
}

Cell MMM_table_sequence_operator() { return sequence_operator; }

void MMM_table_set_sequence_operator(Cell op) {
    MMM_retain(op);
    MMM_release(sequence_operator);
    sequence_operator = op;
}

void MMM_table_add(Cell* t, Cell key, Cell value) {
    if (!t || !key) MER_raise(MER_INTERNAL, "MMM_table_add");
    check_table(*t, "MMM_table_add");
    unshare(t);
    const long count = count_of(*t);
    if (mode_of(*t) == MMM_TABLE_FLAT) {
        if (count >= MMM_TABLE_FLAT_MAX) rebuild(t, count + 1);
    } else if (count > LOAD_LIMIT * MMM_child_count(*t)) {
        // At the largest bucket count the table stays as it is rather than being
        // rebuilt to the same size at every insert.
        if (MMM_table_bucket_count_for(count + 1) != MMM_child_count(*t)) rebuild(t, count + 1);
    }
    place_entry(t, key, value);
    set_count(*t, count + 1);
    (*t)->signature += key->signature;
}

bool MMM_table_set(Cell* t, Cell key, Cell value) {
    if (!t || !key) MER_raise(MER_INTERNAL, "MMM_table_set");
    check_table(*t, "MMM_table_set");
    unshare(t);
    const Where w = locate(*t, key);
    if (w.slot < 0) {
        MMM_table_add(t, key, value);
        return false;
    }
    Cell* holder = holder_of(t, w);
    MMM_clone(holder);
    if ((*holder)->refcount != 1) MER_raise(MER_OUT_OF_MEMORY, nullptr);
    Cell* s = MMM_children(*holder);
    MMM_retain(value);
    MMM_release(s[w.slot + 1]);
    s[w.slot + 1] = value;
    return true;
}

bool MMM_table_remove(Cell* t, Cell key) {
    if (!t) MER_raise(MER_INTERNAL, "MMM_table_remove");
    check_table(*t, "MMM_table_remove");
    if (!key || locate(*t, key).slot < 0) return false;
    unshare(t);
    remove_at(t, locate(*t, key));
    return true;
}

long MMM_table_filter(Cell* t, MMM_table_test test, void* arg) {
    if (!t || !test) MER_raise(MER_INTERNAL, "MMM_table_filter");
    check_table(*t, "MMM_table_filter");
    Cell table = *t;
    long dropped = 0;
    if (table->refcount > 1) {
        // Shared: find what goes first, so that a table that loses nothing is not copied
        // and the test runs once for each entry whatever the unsharing does.
        std::vector<Cell> drop;
        for_each_entry(table, [&](Cell k, Cell v) {
            if (test(k, v, arg)) drop.push_back(k);
            return true;
        });
        if (drop.empty()) return 0;
        MMM_retain(table);  // keeps the dropped keys alive while they are looked up
        unshare(t);
        for (Cell k : drop) remove_at(t, locate(*t, k));
        MMM_release(table);
        dropped = long(drop.size());
    } else if (mode_of(table) == MMM_TABLE_FLAT) {
        dropped = compact(t, false, test, arg);
        set_count(*t, count_of(*t) - dropped);
    } else {
        for (Cell* b = MMM_children(table); b < MMM_children_end(table); ++b)
            if (*b) dropped += compact(b, true, test, arg);
        set_count(table, count_of(table) - dropped);
    }
    if (dropped) MMM_sign(*t);
    return dropped;
}

Cell MMM_table_list(Cell t) {
    if (!is_table(t)) return nullptr;
    Cell head = nullptr;
    for_each_entry(t, [&head](Cell k, Cell v) {
        Cell triple = new_cleared(MMM_TRIPLE, 0, 3);
        Cell* s = MMM_children(triple);
        s[0] = k;
        s[1] = v;
        s[2] = head;
        MMM_retain(k);
        MMM_retain(v);
        head = triple;
        return true;
    });
    return head;
}

MMM_table_walker::MMM_table_walker(Cell t) : table(is_table(t) ? t : nullptr) { MMM_retain(table); }

MMM_table_walker::~MMM_table_walker() { MMM_release(table); }

bool MMM_table_walker::next(Cell* key, Cell* value) {
    if (!table) return false;
    Cell c = nullptr;
    if (mode_of(table) == MMM_TABLE_FLAT) {
        if (slot < MMM_child_count(table) && MMM_child(table, slot)) c = table;
    } else {
        for (const long nb = MMM_child_count(table); bucket < nb; ++bucket, slot = 0) {
            Cell b = MMM_child(table, bucket);
            if (b && slot < MMM_child_count(b) && MMM_child(b, slot)) {
                c = b;
                break;
            }
        }
    }
    if (!c) return false;
    if (key) *key = MMM_child(c, slot);
    if (value) *value = MMM_child(c, slot + 1);
    slot += 2;
    return true;
}

Cell MMM_make_set(long n) {
    Cell s = MMM_new_node(DOM_SET, 1);
    MMM_children(s)[MMM_TABLE_HASH] = nullptr;
    MMM_children(s)[MMM_TABLE_HASH] = MMM_table_new(n);
    MMM_sign(s);
    return s;
}

Cell MMM_make_table(long n) {
    Cell t = MMM_new_node(DOM_TABLE, 2);
    MMM_children(t)[MMM_TABLE_HASH] = nullptr;
    MMM_children(t)[MMM_TABLE_OWNER] = nullptr;
    MMM_children(t)[MMM_TABLE_HASH] = MMM_table_new(n);
    MMM_children(t)[MMM_TABLE_OWNER] = new_cleared(MMM_BOX, 0, 1);
    MMM_sign(t);
    return t;
}

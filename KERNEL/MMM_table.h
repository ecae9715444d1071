// The hash table shared by tables, sets and the identifier table (memory kind MMM_HASH).
//
// Raw data: two 32-bit words, the mode and the entry count. The signature is the sum of
// the key signatures (wrapping), kept up to date by every change.
//
//   mode 1, flat:     children are key, value, key, value, ..., then null padding; a null
//                     key ends the used part. Up to 16 entries; 2n children for n expected.
//   mode 2, bucketed: children are the buckets, indexed by `key signature % bucket count`.
//                     A bucket is null or an MMM_BUCKET cell laid out like a flat table.
//
// The value of an entry is null in a set. Keys are never null and must be signed.
//
// Writing follows copy on write: a table whose refcount is above 1 is first unshared (a
// flat one cloned; a bucketed one cloned, which shares the buckets, or rebuilt when it is
// overfull or too sparse), and a bucket is cloned only when it is itself written. So a
// change to one entry of a big shared table copies the bucket array and one bucket.
//
// Ownership: arguments are borrowed. A table passed as `Cell* t` may be replaced by
// another cell (the old reference released); keys and values stored are retained by the
// table. Values handed out by lookups and walkers are borrowed from the table.
#pragma once

#include "MMM_cell.h"

// Modes, in the first raw word.
constexpr uint32_t MMM_TABLE_FLAT = 1;
constexpr uint32_t MMM_TABLE_BUCKETED = 2;
constexpr long MMM_TABLE_FLAT_MAX = 16;  // entries a flat table can hold

// Registers the signature and equality routines of MMM_HASH and the root of the sequence
// operator. Call once after MMM_values_start.
void MMM_table_start();

// A new empty table for n expected entries (n below 0 counts as 0): flat with 2n children
// up to 16, else bucketed with the first of 37, 97, 1009, 10007, 100003 that is at least
// 2n buckets, and 1000003 beyond. Refcount 1, count 0, signature 0.
Cell MMM_table_new(long n);

// Bucket count a bucketed table for n entries gets (0 when n entries stay flat).
long MMM_table_bucket_count_for(long n);

// Plain reads. `MMM_table_width` is the child count: the slots of a flat table, the
// buckets of a bucketed one.
uint32_t MMM_table_mode(Cell t);
long MMM_table_count(Cell t);
inline long MMM_table_width(Cell t) { return MMM_child_count(t); }

// Finds `key`. On success sets *value (if value is not nullptr) to the stored value,
// borrowed and possibly null, and gives true; otherwise sets *value to null. A null table
// or key finds nothing. Allocates nothing.
bool MMM_table_find(Cell table, Cell key, Cell* value);

// Lookup by a key taken from `key` according to `mode`:
//   0: `key` itself;
//   1: the operands of the DOM_EXPR `key` from child 1 on (a call t(a, b));
//   2: the operands from child 2 on (an index _index(t, a, b)).
// For modes 1 and 2 one operand is the key itself, none gives the key NULL, and more
// give the sequence _exprseq(operands), made for the lookup and released.
// Raises 1103 for another mode or, in modes 1 and 2, a key that is not an expression.
bool MMM_table_lookup(Cell table, Cell key, int mode, Cell* value);

// The key `MMM_table_lookup` uses for `expr` and `mode`, as an owned reference: the
// store side of a remember table or of table() builds its keys with it.
Cell MMM_table_make_key(Cell expr, int mode);

// The operator of the sequences made as keys (the identifier _exprseq). It is set by the
// module that makes the identifier, after MMM_table_start; until then making a sequence
// key raises 1103. The argument is borrowed and retained; the variable is a root.
void MMM_table_set_sequence_operator(Cell op);
Cell MMM_table_sequence_operator();  // borrowed; null before it is set

// Equality of two tables: entry counts and signatures equal, then each key of the first
// found in the second with an equal value; the order of the entries does not count. The
// comparison module installs it as the equality of MMM_HASH cells.
bool MMM_table_equal(Cell a, Cell b);

// Stores value under key. If the key is there, its value is replaced (the old one
// released, the old key kept) and the result is true; otherwise the entry is added and
// the result is false. Raises 1103 for a null key or a *t that is not a table.
bool MMM_table_set(Cell* t, Cell key, Cell value);

// Adds the entry without looking for the key (the caller knows it is absent).
void MMM_table_add(Cell* t, Cell key, Cell value);

// Removes the entry of key, if any; gives whether there was one. The following pairs move
// down, a bucket left empty is released and its slot set to null. A table without the
// key is left as it is, also when shared.
bool MMM_table_remove(Cell* t, Cell key);

// Drops every entry for which test(key, value, arg) holds, then signs the table. The test
// is called once for each entry, in walk order, and must not change the table. Gives the
// number of entries dropped; a table that loses nothing is left as it is.
using MMM_table_test = bool (*)(Cell key, Cell value, void* arg);
long MMM_table_filter(Cell* t, MMM_table_test test, void* arg);

// The entries as a chain of MMM_TRIPLE cells (key, value, next) in the reverse order of
// the walk, owned; null for an empty table. For callers that change a table while they
// read it.
Cell MMM_table_list(Cell t);

// Walk over the entries: the flat part in order, or the buckets in index order and each
// bucket's pairs in order. The walker holds a counted reference to the table, so the loop
// body may change the table through its own reference: the change goes to a copy and the
// walk goes on over the entries as they were. A cell that is not a table walks nothing.
struct MMM_table_walker {
    explicit MMM_table_walker(Cell table);
    ~MMM_table_walker();
    MMM_table_walker(const MMM_table_walker&) = delete;
    MMM_table_walker& operator=(const MMM_table_walker&) = delete;

    // The next entry, borrowed from the walked table; false at the end.
    bool next(Cell* key, Cell* value);

    Cell table;         // counted
    long bucket = 0;    // index of the current bucket (bucketed mode)
    long slot = 0;      // child index of the next key in the flat table or the bucket
};

// Value makers (refcount 1, signed). DOM_SET: one child, a table for n elements.
// DOM_TABLE: a table for n entries and an MMM_BOX holding null (the owner name).
enum MMM_table_field : int {
    MMM_TABLE_HASH = 0,   // the MMM_HASH of a DOM_SET or DOM_TABLE
    MMM_TABLE_OWNER = 1,  // the owner box of a DOM_TABLE
};
Cell MMM_make_set(long n);
Cell MMM_make_table(long n);

// Stored forms of the containers beyond the hash table itself: set insertion and arrays.
//
// DOM_SET: one child, an MMM_HASH whose keys are the elements (values null).
// DOM_ARRAY: two children:
//   0  the entries: a value node of category MMM_ARRAY_ENTRIES with one child for each
//      entry in storage order (row-major, the last index running fastest); null is an
//      unset entry;
//   1  the dimensions: an MMM_ARRAY_DIM leaf whose raw data is 32-bit signed words, the
//      dimension count d, then a pair (lower, upper) of bounds for each dimension.
// Both children and the array are signed after every change, the entries first.
#pragma once

#include <cstdint>
#include <span>

#include "MMM_cell.h"

// ---- sets ----

// Adds x to the set table *table by the rule of sets: a _exprseq adds its operands one by
// one, NULL adds nothing, and an element already there leaves the table as it is (the old
// key stays). Does not sign the DOM_SET that holds the table.
void MMM_set_insert(Cell* table, Cell x);

// ---- arrays ----

// Category of the entry vector of an array: an internal node, never a value of its own
// (evaluating one is an internal error).
constexpr int MMM_ARRAY_ENTRIES = 0;
// Largest number of entries an array may have.
constexpr long MMM_ARRAY_MAX_ENTRIES = 1L << 26;

struct MMM_array_bound {
    int32_t lower;
    int32_t upper;
};

// A new array with every entry unset, signed. A dimension whose upper bound is below its
// lower one, no dimension at all, or more than MMM_ARRAY_MAX_ENTRIES entries in all is
// error 1005 with "array".
Cell MMM_make_array(std::span<const MMM_array_bound> bounds);

long MMM_array_dimensions(Cell array);
MMM_array_bound MMM_array_bound_of(Cell array, long k);  // k from 0
long MMM_array_size(Cell array);                          // the number of entries
// The entry at a storage offset, borrowed; null when unset.
Cell MMM_array_entry(Cell array, long offset);
// The storage offset of the indices (one for each dimension), or -1 when one is out of
// its bounds or the count differs from the dimension count.
long MMM_array_offset(Cell array, std::span<const long> indices);
// Sets the entry at a storage offset (value null unsets it): the array and its entry
// vector are unshared first, and both signed after.
void MMM_array_set(Cell* array, long offset, Cell value);

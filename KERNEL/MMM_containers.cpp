// Set insertion and the stored form of arrays (see MMM_containers.h).
#include "MMM_containers.h"

#include <cstring>

#include "MER_error.h"
#include "MMM_heap.h"
#include "MMM_ident.h"
#include "MMM_table.h"
#include "MMM_values.h"

namespace {

bool is_sequence(Cell x) {
    return MMM_is_node(x, DOM_EXPR) && MMM_child(x, 0) == MMM_table_sequence_operator();
}

void insert_one(Cell* table, Cell x) {
    if (x == MMM_NULL || MMM_table_find(*table, x, nullptr)) return;
    MMM_table_add(table, x, nullptr);
}

int32_t dim_word(Cell dims, long i) {
    int32_t w;
    std::memcpy(&w, dims->data + 4 * i, 4);
    return w;
}

Cell dims_of(Cell array) { return MMM_child(array, 1); }
Cell entries_of(Cell array) { return MMM_child(array, 0); }

}  // namespace

void MMM_set_insert(Cell* table, Cell x) {
    if (is_sequence(x)) {
        for (long i = 1; i < MMM_child_count(x); ++i) insert_one(table, MMM_child(x, i));
        return;
    }
    insert_one(table, x);
}

Cell MMM_make_array(std::span<const MMM_array_bound> bounds) {
    if (bounds.empty()) MER_raise(MER_ILLEGAL_ARGUMENT, "array");
    long size = 1;
    for (const MMM_array_bound& b : bounds) {
        const long extent = long(b.upper) - long(b.lower) + 1;
        if (extent < 1 || extent > MMM_ARRAY_MAX_ENTRIES || size > MMM_ARRAY_MAX_ENTRIES / extent)
            MER_raise(MER_ILLEGAL_ARGUMENT, "array");
        size *= extent;
    }
    const long words = 1 + 2 * long(bounds.size());
    Cell dims = MMM_new(MMM_ARRAY_DIM, 4 * words, 0);
    if (!dims) MER_raise(MER_OUT_OF_MEMORY, nullptr);
    const auto d = int32_t(bounds.size());
    std::memcpy(dims->data, &d, 4);
    for (size_t k = 0; k < bounds.size(); ++k) {
        std::memcpy(dims->data + 4 * (1 + 2 * k), &bounds[k].lower, 4);
        std::memcpy(dims->data + 4 * (2 + 2 * k), &bounds[k].upper, 4);
    }
    MMM_sign(dims);
    Cell entries = MMM_new_node(MMM_ARRAY_ENTRIES, size);
    std::memset(MMM_children(entries), 0, sizeof(Cell) * size_t(size));
    MMM_sign(entries);
    Cell a = MMM_new_node(DOM_ARRAY, 2);
    MMM_children(a)[0] = entries;
    MMM_children(a)[1] = dims;
    MMM_sign(a);
    return a;
}

long MMM_array_dimensions(Cell array) { return dim_word(dims_of(array), 0); }

MMM_array_bound MMM_array_bound_of(Cell array, long k) {
    Cell dims = dims_of(array);
    return {dim_word(dims, 1 + 2 * k), dim_word(dims, 2 + 2 * k)};
}

long MMM_array_size(Cell array) { return MMM_child_count(entries_of(array)); }

Cell MMM_array_entry(Cell array, long offset) { return MMM_child(entries_of(array), offset); }

long MMM_array_offset(Cell array, std::span<const long> indices) {
    const long d = MMM_array_dimensions(array);
    if (long(indices.size()) != d) return -1;
    long offset = 0;
    for (long k = 0; k < d; ++k) {
        const MMM_array_bound b = MMM_array_bound_of(array, k);
        if (indices[size_t(k)] < b.lower || indices[size_t(k)] > b.upper) return -1;
        offset = offset * (long(b.upper) - long(b.lower) + 1) + (indices[size_t(k)] - b.lower);
    }
    return offset;
}

void MMM_array_set(Cell* array, long offset, Cell value) {
    MMM_clone(array);
    Cell& entries = MMM_children(*array)[0];
    MMM_clone(&entries);
    if ((*array)->refcount != 1 || entries->refcount != 1) MER_raise(MER_OUT_OF_MEMORY, nullptr);
    Cell& slot = MMM_children(entries)[offset];
    MMM_retain(value);
    MMM_release(slot);
    slot = value;
    MMM_sign(entries);
    MMM_sign(*array);
}

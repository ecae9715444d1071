#include "MCM_equal.h"

#include <cstring>

#include "MMM_heap.h"
#include "MMM_values.h"

namespace {

bool children_equal(Cell a, Cell b) {
    const long n = MMM_child_count(a);
    if (n != MMM_child_count(b)) return false;
    for (long i = 0; i < n; ++i)
        if (!MCM_equal(MMM_child(a, i), MMM_child(b, i))) return false;
    return true;
}

bool bytes_equal(Cell a, Cell b, long from) {
    return a->size == b->size && std::memcmp(a->data + from, b->data + from, size_t(a->size - from)) == 0;
}

bool equal_default(Cell a, Cell b) { return bytes_equal(a, b, 0) && children_equal(a, b); }

bool equal_identity(Cell a, Cell b) { return a == b; }

bool equal_int(Cell a, Cell b) { return std::memcmp(a->data, b->data, 4) == 0; }

bool equal_string(Cell a, Cell b) { return bytes_equal(a, b, 0); }

// Only the option bits 3 to 9 of a node's flags take part.
bool equal_node(Cell a, Cell b) {
    if (MMM_category(a) != MMM_category(b)) return false;
    if ((MMM_node_flags(a) ^ MMM_node_flags(b)) & 0x3f8) return false;
    if (a->size < 4 || !bytes_equal(a, b, 4)) return false;
    return children_equal(a, b);
}

bool equal_var_address(Cell a, Cell b) { return std::memcmp(a->data, b->data, 8) == 0; }

// The first two children, and the third if both have one.
bool equal_poly_body(Cell a, Cell b) {
    const long na = MMM_child_count(a), nb = MMM_child_count(b);
    for (long i = 0; i < 2; ++i) {
        Cell x = i < na ? MMM_child(a, i) : nullptr;
        Cell y = i < nb ? MMM_child(b, i) : nullptr;
        if (!MCM_equal(x, y)) return false;
    }
    if (na > 2 && nb > 2) return MCM_equal(MMM_child(a, 2), MMM_child(b, 2));
    return true;
}

bool equal_always(Cell, Cell) { return true; }

struct EqualTable {
    MCM_equal_fn fn[MMM_KIND_COUNT];
    EqualTable() {
        for (auto& f : fn) f = equal_default;
        fn[MMM_INT] = equal_int;
        fn[MMM_PAIR] = fn[MMM_TRIPLE] = fn[MMM_SMALL_REC] = children_equal;
        fn[MMM_NODE] = equal_node;
        fn[MMM_STRING] = equal_string;
        for (unsigned k : {MMM_BOX_WORD, MMM_DOMAIN_BODY, MMM_NAMESPACE_BODY, MMM_PROC_ENV, MMM_BUCKET,
                           MMM_VECTOR, MMM_FRAME_BODY, MMM_CLIENT_REC, MMM_CODE})
            fn[k] = equal_identity;
        fn[MMM_VAR_ADDRESS] = equal_var_address;
        fn[MMM_POLY_BODY] = equal_poly_body;
        fn[MMM_BOX] = equal_always;
    }
};
EqualTable table;

}  // namespace

bool MCM_equal(Cell a, Cell b) {
    if (a == b) return true;
    if (!a || !b || a->signature != b->signature) return false;
    const unsigned kind = MMM_kind_of(a);
    if (kind != MMM_kind_of(b)) return false;
    return table.fn[kind](a, b);
}

void MCM_set_equal_routine(unsigned kind, MCM_equal_fn fn) { table.fn[kind] = fn ? fn : equal_default; }

void MCM_set_box_structural(bool on) { table.fn[MMM_BOX] = on ? children_equal : equal_always; }

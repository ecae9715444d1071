#include "MCM_equal.h"

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include "MER_error.h"
#include "MFN_table.h"
#include "MMM_heap.h"
#include "MMM_table.h"
#include "MMM_values.h"
#include "MSY_process.h"

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

// ---- order ----

int sign_of(long d) { return d < 0 ? -1 : d > 0 ? 1 : 0; }

int32_t word_at(Cell c, long i) {
    int32_t w;
    std::memcpy(&w, c->data + 4 * i, 4);
    return w;
}

// Child counts first, then the children in order.
int compare_children(Cell a, Cell b) {
    const long n = MMM_child_count(a);
    if (const long d = n - MMM_child_count(b)) return sign_of(d);
    for (long i = 0; i < n; ++i)
        if (const int r = MCM_compare(MMM_child(a, i), MMM_child(b, i))) return r;
    return 0;
}

// The first pair of bytes that differ, read unsigned, from byte `from` on.
int compare_bytes(Cell a, Cell b, long from) {
    const long n = std::min(a->size, b->size) - from;
    if (n <= 0) return 0;
    const int r = std::memcmp(a->data + from, b->data + from, size_t(n));
    return r < 0 ? -1 : r > 0 ? 1 : 0;
}

int compare_signatures(Cell a, Cell b) {
    const auto x = int32_t(a->signature), y = int32_t(b->signature);
    return x < y ? -1 : x > y ? 1 : 0;
}

// The node rule. Steps 1 to 6 read the two headers and raw data only: two values of
// one shape that differ at all are placed by their signatures, without recursion. A
// set skips the signature step; its table then decides by the table rule.
int compare_node(Cell a, Cell b) {
    if (const long d = MMM_child_count(a) - MMM_child_count(b)) return sign_of(d);
    const int cat = MMM_category(a);
    if (const int d = cat - MMM_category(b)) return sign_of(d);
    if (const long d = long(a->size) - long(b->size)) return sign_of(d);
    if (const int r = compare_bytes(a, b, 4)) return r;
    if (cat == DOM_BOOL && MMM_child_count(a) == 1) {
        // FALSE before UNKNOWN before TRUE, by the stored number.
        Cell x = MMM_child(a, 0), y = MMM_child(b, 0);
        if (x && y && x->size >= 4 && y->size >= 4)
            return sign_of(long(MMM_int_box_value(x) & 0xff) - long(MMM_int_box_value(y) & 0xff));
    }
    if (cat != DOM_SET)
        if (const int r = compare_signatures(a, b)) return r;
    return compare_children(a, b);
}

int compare_int(Cell a, Cell b) {
    uint32_t x, y;
    std::memcpy(&x, a->data, 4);
    std::memcpy(&y, b->data, 4);
    return x < y ? -1 : x > y ? 1 : 0;
}

// The shorter string first, whatever its letters; then the first bytes that differ,
// each read signed.
int compare_string(Cell a, Cell b) {
    const std::string_view x = MMM_string_view(a), y = MMM_string_view(b);
    if (x.size() != y.size()) return x.size() < y.size() ? -1 : 1;
    for (size_t i = 0; i < x.size(); ++i)
        if (x[i] != y[i]) return static_cast<signed char>(x[i]) < static_cast<signed char>(y[i]) ? -1 : 1;
    return 0;
}

// The table rule: fewer entries first, then the lower signature, then the entries
// sorted by key, key before value. Two tables with the same entries compare 0 whatever
// the order in which their entries were made.
int compare_tables(Cell a, Cell b) {
    if (const long d = MMM_table_count(a) - MMM_table_count(b)) return sign_of(d);
    if (const int r = compare_signatures(a, b)) return r;
    using Entries = std::vector<std::pair<Cell, Cell>>;
    auto entries = [](Cell t) {
        Entries e;
        MMM_table_walker w(t);
        Cell k, v;
        while (w.next(&k, &v)) e.emplace_back(k, v);
        std::sort(e.begin(), e.end(), [](const auto& p, const auto& q) { return MCM_compare(p.first, q.first) < 0; });
        return e;
    };
    const Entries x = entries(a), y = entries(b);
    for (size_t i = 0; i < x.size() && i < y.size(); ++i) {
        if (const int r = MCM_compare(x[i].first, y[i].first)) return r;
        if (const int r = MCM_compare(x[i].second, y[i].second)) return r;
    }
    return sign_of(long(x.size()) - long(y.size()));
}

// Cells with identity. Those that sign by a serial order by it, which is the same from
// run to run; cells that never take a serial (bindings, buckets) come after them, in
// address order counted in headers.
int compare_identity(Cell a, Cell b) {
    const uint32_t x = a->signature, y = b->signature;
    if (x && y) {
        if (x != y) return x < y ? -1 : 1;
    } else if (x || y) {
        return x ? -1 : 1;
    }
    return sign_of((reinterpret_cast<char*>(a) - reinterpret_cast<char*>(b)) / MMM_HEADER_BYTES);
}

// Raw data as 32-bit words: the size first, then the first word that differs.
int compare_words(Cell a, Cell b) {
    if (const long d = long(a->size) - long(b->size)) return sign_of(d);
    for (long i = 0; i < a->size / 4; ++i)
        if (const int32_t x = word_at(a, i), y = word_at(b, i); x != y) return x < y ? -1 : 1;
    return compare_bytes(a, b, a->size / 4 * 4);
}

int compare_poly_body(Cell a, Cell b) {
    const long na = MMM_child_count(a), nb = MMM_child_count(b);
    for (long i = 0; i < 2; ++i)
        if (const int r = MCM_compare(i < na ? MMM_child(a, i) : nullptr, i < nb ? MMM_child(b, i) : nullptr))
            return r;
    if (na > 2 && nb > 2) return MCM_compare(MMM_child(a, 2), MMM_child(b, 2));
    return sign_of(long(na > 2) - long(nb > 2));
}

// A routine's cell holds its code number in the first word; one cell serves each
// routine, so the number decides.
int compare_code(Cell a, Cell b) {
    if (a->size < 4 || b->size < 4) return sign_of(long(a->size) - long(b->size));
    const int32_t x = word_at(a, 0), y = word_at(b, 0);
    return x < y ? -1 : x > y ? 1 : 0;
}

int compare_dist_poly(Cell a, Cell b) {
    if (const long d = long(a->size) - long(b->size)) return sign_of(d);
    if (const long d = MMM_child_count(a) - MMM_child_count(b)) return sign_of(d);
    if (const int r = compare_bytes(a, b, 0)) return r;
    return compare_children(a, b);
}

int compare_zero(Cell, Cell) { return 0; }

struct OrderTable {
    MCM_compare_fn fn[MMM_KIND_COUNT];
    OrderTable() {
        for (auto& f : fn) f = MCM_compare_unknown;
        fn[MMM_INT] = compare_int;
        fn[MMM_PAIR] = fn[MMM_TRIPLE] = fn[MMM_SMALL_REC] = fn[MMM_CHAIN] = compare_children;
        fn[MMM_NODE] = compare_node;
        fn[MMM_STRING] = compare_string;
        fn[MMM_HASH] = compare_tables;
        for (unsigned k : {MMM_BOX_WORD, MMM_DOMAIN_BODY, MMM_NAMESPACE_BODY, MMM_PROC_ENV, MMM_BUCKET,
                           MMM_VECTOR, MMM_FRAME_BODY, MMM_CLIENT_REC})
            fn[k] = compare_identity;
        fn[MMM_ARRAY_DIM] = fn[MMM_VAR_ADDRESS] = compare_words;
        fn[MMM_POLY_BODY] = compare_poly_body;
        fn[MMM_CODE] = compare_code;
        fn[MMM_DIST_POLY] = compare_dist_poly;
        fn[MMM_BOX] = compare_zero;
    }
};
OrderTable order;

}  // namespace

bool MCM_equal(Cell a, Cell b) {
    if (a == b) return true;
    if (!a || !b || a->signature != b->signature) return false;
    const unsigned kind = MMM_kind_of(a);
    if (kind != MMM_kind_of(b)) return false;
    return table.fn[kind](a, b);
}

void MCM_set_equal_routine(unsigned kind, MCM_equal_fn fn) { table.fn[kind] = fn ? fn : equal_default; }

void MCM_set_box_structural(bool on) {
    table.fn[MMM_BOX] = on ? children_equal : equal_always;
    order.fn[MMM_BOX] = on ? compare_children : compare_zero;
}

int MCM_compare(Cell a, Cell b) {
    if (a == b) return 0;
    if (!a) return -1;
    if (!b) return 1;
    const unsigned kind = MMM_kind_of(a);
    if (const int d = int(kind) - int(MMM_kind_of(b))) return d;
    return kind < MMM_KIND_COUNT ? order.fn[kind](a, b) : MCM_compare_unknown(a, b);
}

int MCM_compare_unknown(Cell, Cell) {
    MSY_write_report(0, "Internal error [MCM_compare_unknown]\n");
    return 0;
}

void MCM_set_compare_routine(unsigned kind, MCM_compare_fn fn) {
    if (kind < MMM_KIND_COUNT) order.fn[kind] = fn ? fn : MCM_compare_unknown;
}

Cell MCM_sysorder(Cell expr, int, unsigned, Cell) {
    if (MMM_child_count(expr) != 3) MER_raise(MER_WRONG_ARG_COUNT, "sysorder");
    Cell r = MCM_compare(MMM_child(expr, 1), MMM_child(expr, 2)) <= 0 ? MMM_TRUE : MMM_FALSE;
    MMM_retain(r);
    return r;
}

void MCM_start() {
    MMM_equality.equal = MCM_equal;
    MMM_equality.share_mode = MCM_set_box_structural;
    MCM_set_equal_routine(MMM_HASH, MMM_table_equal);
}

namespace {
const MFN_builtin order_builtins[] = {
    {.name = "sysorder", .routine = MCM_sysorder},
};
}  // namespace
const MFN_builtin_table MCM_builtins = order_builtins;

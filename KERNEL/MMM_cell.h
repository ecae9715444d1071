// The cell: the one block of memory every value, tree and internal record is made of.
//
// Layout: a 24-byte header, then the child array (one Cell each), then `size` bytes of
// raw data. The child count is not stored; it is the distance from the end of the header
// to `data`, counted in references.
#pragma once

#include <cstddef>
#include <cstdint>

struct MMMTheader {
    uint32_t flags;      // bits 0-15 memory kind, 18 mark, 19 pool cell, 20-23 size class, 24 free
    int32_t size;        // raw data bytes
    char* data;          // first byte behind the child array; on a free cell, the next free cell
    uint32_t refcount;   // counted references held
    uint32_t signature;  // structural hash (see MMM_sign)
};
static_assert(sizeof(MMMTheader) == 24, "the cell header is three words");

using Cell = MMMTheader*;

// Flag bits.
constexpr uint32_t MMM_KIND_MASK = 0xffffu;
constexpr uint32_t MMM_MARK = 1u << 18;
constexpr uint32_t MMM_POOL = 1u << 19;
constexpr int MMM_CLASS_SHIFT = 20;
constexpr uint32_t MMM_CLASS_MASK = 0xfu << MMM_CLASS_SHIFT;
constexpr uint32_t MMM_FREE = 1u << 24;

// Memory kinds: how the heap stores, hashes and compares a cell.
enum MMM_kind : uint16_t {
    MMM_ROOTS = 0,
    MMM_INT = 14,
    MMM_PAIR = 15,
    MMM_TRIPLE = 16,
    MMM_NODE = 17,
    MMM_STRING = 18,
    MMM_HASH = 19,
    MMM_SMALL_REC = 20,
    MMM_CHAIN = 21,
    MMM_BOX_WORD = 26,
    MMM_DOMAIN_BODY = 27,
    MMM_ARRAY_DIM = 28,
    MMM_NAMESPACE_BODY = 30,
    MMM_VAR_ADDRESS = 32,
    MMM_PROC_ENV = 33,
    MMM_POLY_BODY = 34,
    MMM_VECTOR = 35,
    MMM_BUCKET = 36,
    MMM_FRAME_BODY = 37,
    MMM_IDENT_BODY = 38,
    MMM_CODE = 41,
    MMM_NUMBER = 44,
    MMM_DIST_POLY = 45,
    MMM_ID_TABLE = 46,
    MMM_TEXT = 102,
    MMM_BOX = 103,
    MMM_CLIENT_REC = 104,
    MMM_PRETTY_1 = 109,
    MMM_PRETTY_2 = 110,
    MMM_PRETTY_3 = 111,
    MMM_PRETTY_4 = 112,
};
constexpr int MMM_KIND_COUNT = 120;  // size of the per-kind tables

inline unsigned MMM_kind_of(Cell c) { return c->flags & MMM_KIND_MASK; }
inline Cell* MMM_children(Cell c) { return reinterpret_cast<Cell*>(c + 1); }
inline Cell* MMM_children_end(Cell c) { return reinterpret_cast<Cell*>(c->data); }
inline long MMM_child_count(Cell c) { return MMM_children_end(c) - MMM_children(c); }
inline Cell MMM_child(Cell c, long i) { return MMM_children(c)[i]; }

// Reference counting. Inline everywhere: these are the hottest operations of the system.
void MMM_release_walk(Cell c);

inline void MMM_retain(Cell c) {
    if (c) ++c->refcount;
}

// The cell with one more count: for handing a borrowed cell on as an owned one.
inline Cell MMM_retained(Cell c) {
    MMM_retain(c);
    return c;
}

// Zero is never stepped below: releasing a cell whose count already reads 0 does nothing.
inline void MMM_release(Cell c) {
    if (c && c->refcount && --c->refcount == 0) MMM_release_walk(c);
}

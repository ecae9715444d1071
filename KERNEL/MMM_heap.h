// The cell heap: pool classes and pages, big cells, copy-on-write, signatures,
// mark and sweep, and the share pass.
#pragma once

#include "MMM_cell.h"

// Sixteen pool classes serve cells up to MMM_POOL_LIMIT bytes in all; larger cells are big.
constexpr int MMM_CLASS_COUNT = 16;
constexpr long MMM_POOL_LIMIT = 4096;
constexpr long MMM_PAGE_BYTES = 65536;
constexpr long MMM_HEADER_BYTES = sizeof(MMMTheader);
constexpr long MMM_BIG_EXTRA = 2 * sizeof(void*);  // list links ahead of a big cell
// A cell's size is a 32-bit count of bytes: this many children at most.
constexpr long MMM_MAX_CHILDREN = (INT32_MAX - MMM_HEADER_BYTES) / long(sizeof(Cell));
extern const uint32_t MMM_class_bytes[MMM_CLASS_COUNT];

// Total bytes of a cell with the given data size and child count.
inline long MMM_total(long data_bytes, long child_count) {
    return MMM_HEADER_BYTES + long(sizeof(Cell)) * child_count + data_bytes;
}
// The smallest class that holds `total` (which must be at most MMM_POOL_LIMIT).
int MMM_class_of(long total);

using MMM_handler = void (*)();

// Start and end.
void MMM_init(MMM_handler poll);
void MMM_open(uint64_t ceiling);
void MMM_set_ceiling(uint64_t ceiling);  // 0: none
void MMM_close();
void MMM_shutdown();  // gives every page and big cell back and nulls every root variable;
                      // no cell may be used afterwards
MMM_handler MMM_set_memory_handler(MMM_handler fn);
MMM_handler MMM_set_ceiling_handler(MMM_handler fn);
MMM_handler MMM_set_poll(MMM_handler fn);
void MMM_add_root(Cell* var);
void MMM_remove_root(Cell* var);

// Allocation. Each gives a cell with refcount 1 and signature 0.
Cell MMM_new(unsigned kind, long data_bytes, long child_count);
Cell MMM_new_cleared(unsigned kind, long data_bytes, long child_count);
Cell MMM_new_zeroed(unsigned kind, long data_bytes, long child_count);

// Writing: clone before write, sign after write.
void MMM_clone(Cell* ref);
void MMM_resize_data(Cell* ref, long new_bytes);
void MMM_resize_children(Cell* ref, long new_count);
void MMM_resize(Cell* ref, long new_bytes, long new_count);
void MMM_move_children(Cell src, long from, Cell dst, long to, long count);
void MMM_free_shell(Cell c);

// Signatures.
using MMM_sign_fn = uint32_t (*)(Cell);
void MMM_sign(Cell c);
void MMM_set_sign_routine(unsigned kind, MMM_sign_fn fn);
bool MMM_has_identity(unsigned kind);

// Counters.
uint64_t MMM_used_bytes();
// Bytes the cells may still take below the ceiling; UINT64_MAX without a ceiling.
uint64_t MMM_ceiling_room();
uint64_t MMM_reserved_bytes();
uint64_t MMM_live_cells();
uint64_t MMM_allocations();  // cells handed out since the start, for measurements

// Mark and sweep. The sweep is legal only when no Cell is held by a native frame.
void MMM_mark_all();
void MMM_mark_tree(Cell c);
void MMM_unmark_tree(Cell c);
void MMM_sweep();
void MMM_reclaim();
void MMM_break_cycle(Cell c);
void MMM_share();

// Modules that keep weak tables take part in MMM_reclaim: `before_mark` runs before the
// roots are marked (drop what only the table holds), `after_mark` before the sweep.
void MMM_add_reclaim_hooks(MMM_handler before_mark, MMM_handler after_mark);

// Structural equality belongs to the comparison module, which installs it when it starts;
// the heap (share pass) and the tables (keys) reach it through this record. `share_mode`
// switches whether MMM_BOX cells compare by their contents (during the share pass only)
// or all count as equal. Until it is installed only identical cells are equal.
struct MMM_equality_record {
    bool (*equal)(Cell a, Cell b) = nullptr;
    void (*share_mode)(bool on) = nullptr;
};
extern MMM_equality_record MMM_equality;
inline bool MMM_equal(Cell a, Cell b) { return a == b || (MMM_equality.equal && MMM_equality.equal(a, b)); }

// The built-in `share` only asks; the top level runs the pass when the command is over.
extern bool MMM_share_requested;

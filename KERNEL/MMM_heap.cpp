// The cell heap.
//
// Pool cells come from 64 KiB pages carved into cells of one class; each class keeps a
// free list threaded through the `data` word of its free cells. Larger cells are big
// cells, malloc'ed with two list links ahead of the header. Every walk over the cell
// graph (release, mark, unmark, break-cycle, share) runs on an explicit work stack, so a
// long chain cannot exhaust the native stack.
#include "MMM_heap.h"

#include <malloc.h>

#include <cstdlib>
#include <cstring>
#include <unordered_map>
#include <vector>

#include "MMM_values.h"

const uint32_t MMM_class_bytes[MMM_CLASS_COUNT] = {
    32, 40, 48, 56, 64, 72, 80, 88, 128, 192, 256, 512, 1024, 1360, 2048, 4096,
};

bool MMM_share_requested = false;

MMM_equality_record MMM_equality;

namespace {

struct Page {
    uint64_t cls;
    Page* next;
    Page* prev;
};
constexpr long PAGE_HEADER = sizeof(Page);

struct BigLinks {
    BigLinks* prev;  // towards the head (newer)
    BigLinks* next;  // towards the tail (older)
};
static_assert(sizeof(BigLinks) == MMM_BIG_EXTRA);

struct PoolClass {
    Cell free_head = nullptr;
    Page* pages = nullptr;
};

struct Heap {
    PoolClass pools[MMM_CLASS_COUNT];
    BigLinks* big_head = nullptr;
    BigLinks* big_tail = nullptr;
    uint64_t pool_bytes = 0;
    uint64_t big_bytes = 0;
    uint64_t reserved_bytes = 0;
    uint64_t live_cells = 0;
    uint64_t allocations = 0;  // cells handed out since the start
    uint64_t ceiling = UINT64_MAX;
    int poll_countdown = 255;
    MMM_handler poll = nullptr;
    MMM_handler memory_handler = nullptr;
    MMM_handler ceiling_handler = nullptr;
    Cell roots = nullptr;  // MMM_ROOTS cell: a count word, then the registered addresses
    uint64_t reclaim_base_used = 0;
    uint64_t reclaim_base_reserved = 0;
    uint32_t identity_serial = 0;
};
Heap heap;

std::vector<MMM_handler> reclaim_before_mark;
std::vector<MMM_handler> reclaim_after_mark;

// A growable stack of cells for the graph walks. It lives in malloc'ed memory, not in
// cells, and keeps its capacity between walks so a walk allocates nothing as a rule.
struct WorkStack {
    Cell* items = nullptr;
    size_t count = 0;
    size_t capacity = 0;

    void push(Cell c) {
        if (count == capacity) grow();
        items[count++] = c;
    }
    Cell pop() { return items[--count]; }
    bool empty() const { return count == 0; }
    void grow() {
        size_t cap = capacity ? capacity * 2 : 1024;
        auto* p = static_cast<Cell*>(std::realloc(items, cap * sizeof(Cell)));
        if (!p) std::abort();  // the machine has no memory left even for bookkeeping
        items = p;
        capacity = cap;
    }
};
WorkStack release_stack;
WorkStack walk_stack;

void default_abort() { std::abort(); }

[[gnu::always_inline]] inline uint32_t class_of_flags(uint32_t flags) {
    return (flags & MMM_CLASS_MASK) >> MMM_CLASS_SHIFT;
}

BigLinks* big_links(Cell c) { return reinterpret_cast<BigLinks*>(c) - 1; }
Cell big_cell(BigLinks* l) { return reinterpret_cast<Cell>(l + 1); }

uint64_t big_charge(long total) { return uint64_t(total) + MMM_BIG_EXTRA; }

long cell_total(Cell c) { return MMM_total(c->size, MMM_child_count(c)); }

bool add_page(int cls) {
    auto* page = static_cast<Page*>(std::malloc(MMM_PAGE_BYTES));
    if (!page) return false;
    PoolClass& pc = heap.pools[cls];
    page->cls = uint64_t(cls);
    page->prev = nullptr;
    page->next = pc.pages;
    if (pc.pages) pc.pages->prev = page;
    pc.pages = page;
    heap.reserved_bytes += MMM_PAGE_BYTES;

    const uint32_t bytes = MMM_class_bytes[cls];
    const long n = (MMM_PAGE_BYTES - PAGE_HEADER) / bytes;
    char* base = reinterpret_cast<char*>(page) + PAGE_HEADER;
    const uint32_t free_flags = (uint32_t(cls) << MMM_CLASS_SHIFT) | MMM_POOL | MMM_FREE;
    // Pushed in ascending order, so the new cells come off the list in descending order.
    for (long i = 0; i < n; ++i) {
        Cell c = reinterpret_cast<Cell>(base + i * bytes);
        c->flags = free_flags;
        c->refcount = 0;
        c->signature = 0;
        c->size = 0;
        c->data = reinterpret_cast<char*>(pc.free_head);
        pc.free_head = c;
    }
    return true;
}

void free_page(Page* page) {
    PoolClass& pc = heap.pools[page->cls];
    if (page->prev) page->prev->next = page->next; else pc.pages = page->next;
    if (page->next) page->next->prev = page->prev;
    std::free(page);
    heap.reserved_bytes -= MMM_PAGE_BYTES;
}

void unlink_big(BigLinks* l) {
    if (l->prev) l->prev->next = l->next; else heap.big_head = l->next;
    if (l->next) l->next->prev = l->prev; else heap.big_tail = l->prev;
}

// Gives back the storage of a cell whose children have been dealt with.
inline void free_storage(Cell c) {
    --heap.live_cells;
    if (c->flags & MMM_POOL) {
        const uint32_t cls = class_of_flags(c->flags);
        PoolClass& pc = heap.pools[cls];
        heap.pool_bytes -= MMM_class_bytes[cls];
        c->refcount = 0;
        c->flags = (cls << MMM_CLASS_SHIFT) | MMM_POOL | MMM_FREE;
        c->data = reinterpret_cast<char*>(pc.free_head);
        pc.free_head = c;
    } else {
        const uint64_t charge = big_charge(cell_total(c));
        heap.big_bytes -= charge;
        heap.reserved_bytes -= charge;
        BigLinks* l = big_links(c);
        unlink_big(l);
        std::free(l);
    }
}

// Copies the raw data by whole words; both cells have room up to the word boundary.
void copy_words(Cell dst, Cell src, long bytes) {
    if (bytes > 0) std::memcpy(dst->data, src->data, size_t((bytes + 7) & ~7L));
}

// A new cell of src's kind holding src's children (retained) up to `count` and its data
// up to `bytes`, with src's signature; src is released and *ref set to the new cell.
void copy_into_new(Cell* ref, long bytes, long count) {
    Cell src = *ref;
    const long old_count = MMM_child_count(src);
    Cell dst = MMM_new(MMM_kind_of(src), bytes, count);
    if (!dst) return;
    Cell* from = MMM_children(src);
    Cell* to = MMM_children(dst);
    const long keep = count < old_count ? count : old_count;
    for (long i = 0; i < keep; ++i) {
        to[i] = from[i];
        MMM_retain(from[i]);
    }
    for (long i = keep; i < count; ++i) to[i] = nullptr;
    copy_words(dst, src, bytes < src->size ? bytes : src->size);
    // A copy of an identity cell is another identity: it signs afresh.
    dst->signature = MMM_has_identity(MMM_kind_of(src)) ? 0 : src->signature;
    MMM_release(src);
    *ref = dst;
}

bool stays_in_storage(Cell c, long new_total) {
    if (c->flags & MMM_POOL)
        return new_total <= MMM_POOL_LIMIT && uint32_t(MMM_class_of(new_total)) == class_of_flags(c->flags);
    return new_total == cell_total(c);
}

// ---- signatures ----

uint32_t raw_word(Cell c, long i) {
    uint32_t w;
    std::memcpy(&w, c->data + 4 * i, 4);
    return w;
}

uint32_t children_sum(Cell c) {
    uint32_t h = 0;
    for (Cell* p = MMM_children(c); p < MMM_children_end(c); ++p)
        if (*p) h += (*p)->signature;
    return h;
}

// The raw data as 32-bit words, a short tail padded with zeros.
template <typename Fold>
uint32_t fold_words(Cell c, long first, uint32_t h, Fold fold) {
    const long words = c->size / 4;
    for (long i = first; i < words; ++i) h = fold(h, raw_word(c, i));
    if (long tail = c->size % 4; tail && words >= first) {
        uint32_t w = 0;
        std::memcpy(&w, c->data + 4 * words, size_t(tail));
        h = fold(h, w);
    }
    return h;
}

uint32_t sign_zero(Cell) { return 0; }

uint32_t sign_node(Cell c) {
    return fold_words(c, 1, 0u, [](uint32_t h, uint32_t w) { return h ^ w; }) + children_sum(c);
}

uint32_t sign_string(Cell c) {
    const uint32_t len = raw_word(c, 0);
    const auto* s = reinterpret_cast<const signed char*>(c->data + 4);
    static const int shifts[4] = {16, 8, 0, 24};
    uint32_t h = 0;
    for (uint32_t i = 0; i < len && i < 4; ++i) h += uint32_t(int32_t(s[i])) << shifts[i];
    for (uint32_t i = 0; i < len; ++i) h += uint32_t(int32_t(s[i]));
    return h;
}

uint32_t sign_pair(Cell c) {
    const long n = MMM_child_count(c);
    uint32_t h = (n > 0 && MMM_child(c, 0)) ? MMM_child(c, 0)->signature : 0;
    if (n > 1 && MMM_child(c, 1)) h += MMM_child(c, 1)->signature;
    return h;
}

uint32_t sign_first_word(Cell c) { return c->size >= 4 ? raw_word(c, 0) : 0; }

uint32_t sign_chain(Cell c) {
    uint32_t h = 0;
    for (Cell* p = MMM_children(c); p < MMM_children_end(c); ++p) {
        if (!*p) continue;
        MMM_sign(*p);
        h = (h >> 3) + (*p)->signature;
    }
    return h;
}

uint32_t sum_words(Cell c) {
    return fold_words(c, 0, 0u, [](uint32_t h, uint32_t w) { return h + w; });
}

uint32_t sign_dist_poly(Cell c) { return sum_words(c) + children_sum(c); }

uint32_t sign_var_address(Cell c) { return raw_word(c, 0) + raw_word(c, 1); }

// Identity cells sign by a serial given at their first signing: unique within a session
// and the same from one run to the next, unlike an address.
uint32_t sign_identity(Cell c) {
    if (c->signature) return c->signature;
    if (++heap.identity_serial == 0) ++heap.identity_serial;
    return heap.identity_serial;
}

struct SignTable {
    MMM_sign_fn fn[MMM_KIND_COUNT];
    bool identity[MMM_KIND_COUNT];
    SignTable() {
        for (auto& f : fn) f = sign_zero;
        for (auto& i : identity) i = false;
        fn[MMM_NODE] = fn[MMM_SMALL_REC] = sign_node;
        fn[MMM_STRING] = sign_string;
        fn[MMM_PAIR] = fn[MMM_POLY_BODY] = sign_pair;
        fn[MMM_INT] = fn[MMM_CODE] = sign_first_word;
        fn[MMM_CHAIN] = sign_chain;
        fn[MMM_DIST_POLY] = sign_dist_poly;
        fn[MMM_ARRAY_DIM] = sum_words;
        fn[MMM_VAR_ADDRESS] = sign_var_address;
        for (unsigned k : {MMM_DOMAIN_BODY, MMM_NAMESPACE_BODY, MMM_PROC_ENV, MMM_VECTOR,
                           MMM_BUCKET, MMM_FRAME_BODY, MMM_CLIENT_REC}) {
            fn[k] = sign_identity;
            identity[k] = true;
        }
    }
};
SignTable sign_table;

// ---- walks ----

// Sets (or clears) the mark of c and of everything reachable through unmarked (or
// marked) cells. A cell with refcount 0 is marked but not entered.
void walk_marks(Cell c, bool set) {
    if (!c || bool(c->flags & MMM_MARK) == set) return;
    c->flags ^= MMM_MARK;
    if (!c->refcount) return;
    walk_stack.push(c);
    while (!walk_stack.empty()) {
        Cell x = walk_stack.pop();
        for (Cell* p = MMM_children(x); p < MMM_children_end(x); ++p) {
            Cell y = *p;
            if (!y || bool(y->flags & MMM_MARK) == set) continue;
            y->flags ^= MMM_MARK;
            if (y->refcount && y->data != reinterpret_cast<char*>(y + 1)) walk_stack.push(y);
        }
    }
}

void mark_from(Cell c) { walk_marks(c, true); }
void unmark_from(Cell c) { walk_marks(c, false); }

long root_count() {
    long n;
    std::memcpy(&n, heap.roots->data, sizeof n);
    return n;
}
Cell** root_slots() { return reinterpret_cast<Cell**>(heap.roots->data + sizeof(long)); }

template <typename Fn>
void for_each_root(Fn fn) {
    if (!heap.roots) return;
    const long n = root_count();
    Cell** slots = root_slots();
    for (long i = 0; i < n; ++i) fn(slots[i]);
}

void unmark_roots() {
    if (!heap.roots) return;
    heap.roots->flags &= ~MMM_MARK;
    for_each_root([](Cell* var) { unmark_from(*var); });
}

// Cells with identity, and identifiers, are never merged by the share pass.
bool never_merged(Cell c) {
    const unsigned k = MMM_kind_of(c);
    if (sign_table.identity[k] || k == MMM_IDENT_BODY || k == MMM_ROOTS) return true;
    return k == MMM_NODE && MMM_category(c) == DOM_IDENT;
}

struct ShareFrame {
    Cell* slot;
    long next_child;
};

// Post-order walk: children are merged first, so a parent's equality sees merged children.
void share_walk(Cell* root_slot, std::unordered_multimap<uint32_t, Cell>& seen) {
    std::vector<ShareFrame> stack;
    (*root_slot)->flags |= MMM_MARK;
    stack.push_back({root_slot, 0});
    while (!stack.empty()) {
        ShareFrame& f = stack.back();
        Cell c = *f.slot;
        const long n = c->refcount ? MMM_child_count(c) : 0;
        if (f.next_child < n) {
            Cell* child_slot = MMM_children(c) + f.next_child++;
            Cell y = *child_slot;
            if (y && !(y->flags & MMM_MARK)) {
                y->flags |= MMM_MARK;
                stack.push_back({child_slot, 0});
            }
            continue;
        }
        Cell* slot = f.slot;
        stack.pop_back();
        if (!c->refcount || never_merged(c)) continue;
        Cell rep = nullptr;
        auto range = seen.equal_range(c->signature);
        for (auto it = range.first; it != range.second; ++it) {
            if (MMM_equal(it->second, c)) {
                rep = it->second;
                break;
            }
        }
        if (!rep) {
            MMM_retain(c);  // the table holds its entries
            seen.emplace(c->signature, c);
        } else if (rep != c) {
            c->flags &= ~MMM_MARK;
            MMM_retain(rep);
            *slot = rep;
            MMM_release(c);
        }
    }
}

}  // namespace

int MMM_class_of(long total) {
    if (total <= 88) return total <= 32 ? 0 : int((total - 25) >> 3);
    if (total <= 256) return total <= 128 ? 8 : (total <= 192 ? 9 : 10);
    if (total <= 1360) return total <= 512 ? 11 : (total <= 1024 ? 12 : 13);
    return total <= 2048 ? 14 : 15;
}

// ---- start and end ----

void MMM_init(MMM_handler poll) {
    // Big cells come and go with every step of a growing sum or list: keep freed memory
    // in the process rather than handing it back to the system and faulting it in again.
    mallopt(M_MMAP_THRESHOLD, 64 << 20);
    mallopt(M_TRIM_THRESHOLD, 256 << 20);
    for (auto& pc : heap.pools) pc = PoolClass{};
    heap.big_head = heap.big_tail = nullptr;
    heap.poll = poll;
    heap.poll_countdown = 255;
    heap.memory_handler = default_abort;
    heap.ceiling_handler = default_abort;
}

void MMM_open(uint64_t ceiling) {
    // On a 64-bit machine the heap has no natural ceiling: 0 means none.
    MMM_set_ceiling(ceiling);
    heap.pool_bytes = heap.big_bytes = heap.reserved_bytes = 0;
    heap.live_cells = 0;
    heap.roots = MMM_new_zeroed(MMM_ROOTS, long(sizeof(long) + 350 * sizeof(Cell*)), 0);
    heap.reclaim_base_used = heap.reclaim_base_reserved = 0;
}

void MMM_set_ceiling(uint64_t ceiling) { heap.ceiling = ceiling ? ceiling : UINT64_MAX; }

void MMM_close() {
    MMM_release(heap.roots);
    heap.roots = nullptr;
}

void MMM_shutdown() {
    // Every registered global forgets its cell, so that a heap started later never meets
    // a reference into this one.
    for_each_root([](Cell* var) { *var = nullptr; });
    for (auto& pc : heap.pools) {
        while (pc.pages) free_page(pc.pages);
        pc.free_head = nullptr;
    }
    while (heap.big_head) {
        BigLinks* l = heap.big_head;
        unlink_big(l);
        std::free(l);
    }
    heap.roots = nullptr;
    heap.pool_bytes = heap.big_bytes = heap.reserved_bytes = heap.live_cells = 0;
    reclaim_before_mark.clear();
    reclaim_after_mark.clear();
}

MMM_handler MMM_set_memory_handler(MMM_handler fn) {
    MMM_handler old = heap.memory_handler;
    heap.memory_handler = fn ? fn : default_abort;
    return old;
}

MMM_handler MMM_set_ceiling_handler(MMM_handler fn) {
    MMM_handler old = heap.ceiling_handler;
    heap.ceiling_handler = fn ? fn : default_abort;
    return old;
}

MMM_handler MMM_set_poll(MMM_handler fn) {
    MMM_handler old = heap.poll;
    heap.poll = fn;
    return old;
}

void MMM_add_root(Cell* var) {
    const long n = root_count();
    const long capacity = long((heap.roots->size - sizeof(long)) / sizeof(Cell*));
    if (n == capacity) MMM_resize_data(&heap.roots, heap.roots->size + long(10 * sizeof(Cell*)));
    root_slots()[n] = var;
    const long m = n + 1;
    std::memcpy(heap.roots->data, &m, sizeof m);
}

void MMM_remove_root(Cell* var) {
    long n = root_count();
    Cell** slots = root_slots();
    for (long i = 0; i < n; ++i) {
        if (slots[i] == var) {
            slots[i] = slots[--n];
            std::memcpy(heap.roots->data, &n, sizeof n);
            return;
        }
    }
}

void MMM_add_reclaim_hooks(MMM_handler before_mark, MMM_handler after_mark) {
    if (before_mark) reclaim_before_mark.push_back(before_mark);
    if (after_mark) reclaim_after_mark.push_back(after_mark);
}

// ---- allocation ----

Cell MMM_new(unsigned kind, long data_bytes, long child_count) {
    ++heap.allocations;
    if (--heap.poll_countdown == 0) {
        heap.poll_countdown = 255;
        if (heap.poll) heap.poll();
    }
    if (child_count < 0 || data_bytes < 0 || child_count > MMM_MAX_CHILDREN ||
        data_bytes >= INT32_MAX - MMM_HEADER_BYTES - long(sizeof(Cell)) * child_count) {
        heap.memory_handler();
        return nullptr;
    }
    const long total = MMM_total(data_bytes, child_count);
    if (total <= MMM_POOL_LIMIT) {
        const int cls = MMM_class_of(total);
        if (heap.pool_bytes + heap.big_bytes + MMM_class_bytes[cls] > heap.ceiling) {
            heap.ceiling += 100000;
            heap.ceiling_handler();
            return nullptr;
        }
        PoolClass& pc = heap.pools[cls];
        if (!pc.free_head && !add_page(cls)) {
            heap.memory_handler();
            return nullptr;
        }
        Cell c = pc.free_head;
        pc.free_head = reinterpret_cast<Cell>(c->data);
        c->signature = 0;
        c->size = int32_t(data_bytes);
        c->refcount = 1;
        c->flags = kind | (uint32_t(cls) << MMM_CLASS_SHIFT) | MMM_POOL;
        c->data = reinterpret_cast<char*>(c + 1) + sizeof(Cell) * child_count;
        heap.pool_bytes += MMM_class_bytes[cls];
        ++heap.live_cells;
        return c;
    }
    const uint64_t charge = big_charge(total);
    if (heap.pool_bytes + heap.big_bytes + charge > heap.ceiling) {
        heap.ceiling += 100000;
        heap.ceiling_handler();
        return nullptr;
    }
    auto* l = static_cast<BigLinks*>(std::malloc(size_t((total + 7) & ~7L) + MMM_BIG_EXTRA));
    if (!l) {
        heap.memory_handler();
        return nullptr;
    }
    l->prev = nullptr;
    l->next = heap.big_head;
    if (heap.big_head) heap.big_head->prev = l; else heap.big_tail = l;
    heap.big_head = l;
    heap.big_bytes += charge;
    heap.reserved_bytes += charge;
    ++heap.live_cells;
    Cell c = big_cell(l);
    c->signature = 0;
    c->size = int32_t(data_bytes);
    c->refcount = 1;
    c->flags = kind;
    c->data = reinterpret_cast<char*>(c + 1) + sizeof(Cell) * child_count;
    return c;
}

Cell MMM_new_cleared(unsigned kind, long data_bytes, long child_count) {
    Cell c = MMM_new(kind, data_bytes, child_count);
    if (c) std::memset(MMM_children(c), 0, sizeof(Cell) * size_t(child_count));
    return c;
}

Cell MMM_new_zeroed(unsigned kind, long data_bytes, long child_count) {
    Cell c = MMM_new(kind, data_bytes, child_count);
    if (c) std::memset(MMM_children(c), 0, sizeof(Cell) * size_t(child_count) + size_t(data_bytes));
    return c;
}

void MMM_release_walk(Cell c) {
    WorkStack& st = release_stack;
    const size_t base = st.count;  // a walk may start while another is in progress
    for (;;) {
        for (Cell* p = MMM_children(c); p < MMM_children_end(c); ++p) {
            Cell y = *p;
            if (y && y->refcount && --y->refcount == 0) st.push(y);
        }
        free_storage(c);
        if (st.count == base) return;
        c = st.pop();
    }
}

void MMM_free_shell(Cell c) {
    if (c) free_storage(c);
}

// ---- writing ----

void MMM_clone(Cell* ref) {
    Cell c = *ref;
    if (!c || c->refcount == 1) return;
    copy_into_new(ref, c->size, MMM_child_count(c));
}

void MMM_resize_data(Cell* ref, long new_bytes) {
    Cell c = *ref;
    const long n = MMM_child_count(c);
    if (c->refcount == 1 && stays_in_storage(c, MMM_total(new_bytes, n))) {
        c->size = int32_t(new_bytes);
        return;
    }
    copy_into_new(ref, new_bytes, n);
}

void MMM_resize_children(Cell* ref, long new_count) {
    Cell c = *ref;
    if (c->refcount == 1 && new_count == MMM_child_count(c)) return;
    copy_into_new(ref, c->size, new_count);
}

void MMM_resize(Cell* ref, long new_bytes, long new_count) {
    Cell c = *ref;
    if (c->refcount == 1 && new_count == MMM_child_count(c) &&
        stays_in_storage(c, MMM_total(new_bytes, new_count))) {
        c->size = int32_t(new_bytes);
        return;
    }
    copy_into_new(ref, new_bytes, new_count);
}

void MMM_move_children(Cell src, long from, Cell dst, long to, long count) {
    if (count > 0) std::memmove(MMM_children(dst) + to, MMM_children(src) + from, sizeof(Cell) * size_t(count));
}

// ---- signatures ----

void MMM_sign(Cell c) {
    if (c) c->signature = sign_table.fn[MMM_kind_of(c)](c);
}

void MMM_set_sign_routine(unsigned kind, MMM_sign_fn fn) { sign_table.fn[kind] = fn ? fn : sign_zero; }

bool MMM_has_identity(unsigned kind) { return kind < MMM_KIND_COUNT && sign_table.identity[kind]; }

// ---- counters ----

uint64_t MMM_used_bytes() { return heap.pool_bytes + heap.big_bytes; }
uint64_t MMM_ceiling_room() {
    if (heap.ceiling == UINT64_MAX) return UINT64_MAX;
    const uint64_t used = MMM_used_bytes();
    return heap.ceiling > used ? heap.ceiling - used : 0;
}
uint64_t MMM_reserved_bytes() { return heap.reserved_bytes; }
uint64_t MMM_live_cells() { return heap.live_cells; }
uint64_t MMM_allocations() { return heap.allocations; }

// ---- mark and sweep ----

void MMM_mark_all() {
    if (!heap.roots) return;
    heap.roots->flags |= MMM_MARK;
    for_each_root([](Cell* var) { mark_from(*var); });
}

void MMM_mark_tree(Cell c) { mark_from(c); }
void MMM_unmark_tree(Cell c) { unmark_from(c); }

void MMM_sweep() {
    heap.pool_bytes = 0;
    heap.live_cells = 0;
    for (int cls = 0; cls < MMM_CLASS_COUNT; ++cls) {
        PoolClass& pc = heap.pools[cls];
        pc.free_head = nullptr;
        const uint32_t bytes = MMM_class_bytes[cls];
        const long n = (MMM_PAGE_BYTES - PAGE_HEADER) / bytes;
        const uint32_t free_flags = (uint32_t(cls) << MMM_CLASS_SHIFT) | MMM_POOL | MMM_FREE;
        for (Page* page = pc.pages; page;) {
            Page* next = page->next;
            char* base = reinterpret_cast<char*>(page) + PAGE_HEADER;
            const Cell old_head = pc.free_head;
            long marked = 0;
            for (long i = 0; i < n; ++i) {
                Cell c = reinterpret_cast<Cell>(base + i * bytes);
                if (c->flags & MMM_MARK) {
                    ++marked;
                    continue;
                }
                c->flags = free_flags;
                c->refcount = 0;
                c->data = reinterpret_cast<char*>(pc.free_head);
                pc.free_head = c;
            }
            if (!marked) {
                pc.free_head = old_head;  // drop this page's cells from the list again
                free_page(page);
            } else {
                heap.pool_bytes += uint64_t(marked) * bytes;
                heap.live_cells += uint64_t(marked);
            }
            page = next;
        }
    }
    for (BigLinks* l = heap.big_tail; l;) {
        BigLinks* prev = l->prev;
        Cell c = big_cell(l);
        if (c->flags & MMM_MARK) {
            ++heap.live_cells;
        } else {
            const uint64_t charge = big_charge(cell_total(c));
            heap.big_bytes -= charge;
            heap.reserved_bytes -= charge;
            unlink_big(l);
            std::free(l);
        }
        l = prev;
    }
    unmark_roots();
}

void MMM_reclaim() {
    const uint64_t used = MMM_used_bytes();
    const uint64_t reserved = heap.reserved_bytes;
    if (reserved <= heap.reclaim_base_reserved + 500000 && used <= heap.reclaim_base_used + 100000) {
        heap.reclaim_base_used = used;
        return;
    }
    heap.reclaim_base_used = used;
    heap.reclaim_base_reserved = reserved;
    for (MMM_handler h : reclaim_before_mark) h();
    MMM_mark_all();
    for (MMM_handler h : reclaim_after_mark) h();
    MMM_sweep();
}

void MMM_break_cycle(Cell c) {
    if (!c) return;
    struct Frame {
        Cell cell;
        long next_child;
    };
    std::vector<Frame> stack;
    c->flags |= MMM_MARK;
    stack.push_back({c, 0});
    while (!stack.empty()) {
        Frame& f = stack.back();
        Cell x = f.cell;
        if (f.next_child < MMM_child_count(x)) {
            Cell* slot = MMM_children(x) + f.next_child++;
            Cell y = *slot;
            *slot = nullptr;
            if (!y) continue;
            if (y->flags & MMM_MARK) {
                MMM_release(y);
            } else {
                y->flags |= MMM_MARK;
                stack.push_back({y, 0});
            }
            continue;
        }
        stack.pop_back();
        x->flags &= ~MMM_MARK;
        MMM_release(x);
    }
}

void MMM_share() {
    MMM_share_requested = false;
    if (!heap.roots) return;
    if (MMM_equality.share_mode) MMM_equality.share_mode(true);
    std::unordered_multimap<uint32_t, Cell> seen;
    heap.roots->flags |= MMM_MARK;
    for_each_root([&seen](Cell* var) {
        if (*var && !((*var)->flags & MMM_MARK)) share_walk(var, seen);
    });
    for (auto& entry : seen) MMM_release(entry.second);
    seen.clear();
    unmark_roots();
    if (MMM_equality.share_mode) MMM_equality.share_mode(false);
}

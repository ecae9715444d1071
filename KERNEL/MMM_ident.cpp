// Identifiers, interned names, bindings by frame, procedure variables and frames.
#include "MMM_ident.h"

#include <algorithm>
#include <cstring>
#include <unordered_map>
#include <vector>

#include "MER_error.h"
#include "MMM_heap.h"
#include "MMM_ref.h"
#include "MMM_table.h"
#include "MMM_values.h"

Cell MMM_root_frame = nullptr;
Cell MMM_current_frame = nullptr;
void (*MMM_user_protection_hook)(Cell ident) = nullptr;

namespace {

Cell strings = nullptr;     // MMM_HASH: interned MMM_STRING to itself
Cell namespace_ = nullptr;  // DOM_NAMESPACE: body holds the MMM_HASH from name to identifier
Cell by_id = nullptr;       // MMM_ID_TABLE: the identifier of each function id
Cell variables = nullptr;   // MMM_HASH: each interned DOM_VAR cell to itself

Cell& namespace_table() { return MMM_children(MMM_child(namespace_, 0))[0]; }

Cell body_of(Cell ident) { return MMM_child(ident, 1); }
Cell& body_field(Cell ident, int field) { return MMM_children(body_of(ident))[field]; }

uint32_t binding_flags(Cell b) {
    uint32_t f;
    std::memcpy(&f, b->data, sizeof f);
    return f;
}
void set_binding_flags(Cell b, uint32_t f) { std::memcpy(b->data, &f, sizeof f); }
Cell binding_value(Cell b) { return MMM_child(b, 0); }

Cell new_binding(int level) {
    Cell b = MMM_new(MMM_BOX_WORD, 4, 1);
    MMM_children(b)[0] = nullptr;
    set_binding_flags(b, uint32_t(level) << MMM_BIND_LEVEL_SHIFT);
    MMM_sign(b);
    return b;
}

// Keeps (frame, binding) as the last lookup of the identifier.
void set_cache(Cell ident, Cell frame, Cell binding) {
    Cell& f = body_field(ident, MMM_IB_LAST_FRAME);
    Cell& b = body_field(ident, MMM_IB_LAST_BINDING);
    MMM_retain(frame);
    MMM_retain(binding);
    MMM_release(f);
    MMM_release(b);
    f = frame;
    b = binding;
}

Cell lookup_in(Cell ident, Cell frame) {
    if (body_field(ident, MMM_IB_LAST_FRAME) == frame && body_field(ident, MMM_IB_LAST_BINDING))
        return body_field(ident, MMM_IB_LAST_BINDING);
    Cell b = nullptr;
    MMM_table_find(body_field(ident, MMM_IB_BINDINGS), frame, &b);
    return b;
}

// The first binding on the way from `frame` to the root, whether or not it holds a value.
Cell effective_binding(Cell ident, Cell frame) {
    for (Cell f = frame; f && f != MMM_NIL; f = MMM_frame_parent(f))
        if (Cell b = lookup_in(ident, f)) return b;
    return nullptr;
}

bool is_ancestor_or_self(Cell frame, Cell of) {
    for (Cell f = of; f && f != MMM_NIL; f = MMM_frame_parent(f))
        if (f == frame) return true;
    return false;
}

bool dead_identifier(Cell, Cell ident, void*) {
    return ident->refcount <= 1 && MMM_table_count(body_field(ident, MMM_IB_BINDINGS)) == 0;
}

bool unused_string(Cell key, Cell, void*) { return key->refcount < 3; }

void drop_dead_names() {
    MMM_sign_idents();
    MMM_table_filter(&strings, unused_string, nullptr);
}

Cell make_var(int depth, int index) {
    Cell addr = MMM_new(MMM_VAR_ADDRESS, 8, 0);
    const int32_t words[2] = {depth, index};
    std::memcpy(addr->data, words, sizeof words);
    MMM_sign(addr);
    Cell v = MMM_new_node(DOM_VAR, 1);
    MMM_children(v)[0] = addr;
    MMM_sign(v);
    return v;
}

}  // namespace

// ---- names ----

Cell MMM_intern(std::string_view text) {
    Cell s = MMM_new_string(text);
    Cell found = nullptr;
    if (MMM_table_find(strings, s, &found)) {
        MMM_release(s);
        return found;
    }
    MMM_table_add(&strings, s, s);
    MMM_release(s);
    return s;
}

Cell MMM_string_value(std::string_view text) {
    Cell v = MMM_new_node(DOM_STRING, 1);
    Cell s = MMM_intern(text);
    MMM_retain(s);
    MMM_children(v)[0] = s;
    MMM_sign(v);
    return v;
}

// ---- identifiers ----

Cell MMM_ident_exists(Cell name) {
    Cell id = nullptr;
    MMM_table_find(namespace_table(), name, &id);
    return id;
}

Cell MMM_ident(Cell name, int extra) {
    if (Cell id = MMM_ident_exists(name)) {
        MMM_retain(id);
        return id;
    }
    Cell body = MMM_new_cleared(MMM_IDENT_BODY, 0, 2 + extra);
    MMM_children(body)[MMM_IB_BINDINGS] = MMM_table_new(0);
    MMM_sign(body);
    Cell id = MMM_new_node(DOM_IDENT, 2);
    MMM_retain(name);
    MMM_children(id)[0] = name;
    MMM_children(id)[1] = body;
    MMM_sign(id);
    // Names of the form #x are the kernel's: protected from the start.
    const std::string_view text = MMM_string_view(name);
    if (text.size() > 1 && text[0] == '#') {
        Cell b = new_binding(MMM_PROTECT_KERNEL);
        MMM_table_add(&body_field(id, MMM_IB_BINDINGS), MMM_current_frame, b);
        MMM_release(b);
    }
    MMM_table_add(&namespace_table(), name, id);  // the entry comes last
    return id;
}

Cell MMM_ident_named(std::string_view text) { return MMM_ident(MMM_intern(text)); }

Cell* MMM_ident_ids = nullptr;
int MMM_ident_id_count = 0;

std::string_view MMM_ident_text(Cell ident) { return MMM_string_view(MMM_child(ident, 0)); }

// ---- bindings ----

Cell MMM_binding_find(Cell ident, Cell frame) {
    Cell b = nullptr;
    MMM_table_find(body_field(ident, MMM_IB_BINDINGS), frame, &b);
    return b;
}

Cell MMM_binding_make(Cell ident, Cell frame) {
    Cell found = effective_binding(ident, frame);
    Cell b = new_binding(found ? MMM_binding_level(found) : 0);
    MMM_table_set(&body_field(ident, MMM_IB_BINDINGS), frame, b);
    MMM_release(b);
    set_cache(ident, frame, b);
    return b;
}

int MMM_binding_level(Cell binding) {
    return int((binding_flags(binding) & MMM_BIND_LEVEL_MASK) >> MMM_BIND_LEVEL_SHIFT);
}

void MMM_binding_set_level(Cell binding, int level) {
    set_binding_flags(binding, (binding_flags(binding) & ~MMM_BIND_LEVEL_MASK) |
                                   (uint32_t(level) << MMM_BIND_LEVEL_SHIFT));
}

int MMM_protection(Cell ident) {
    Cell b = effective_binding(ident, MMM_current_frame);
    return b ? MMM_binding_level(b) : 0;
}

// ---- values ----

Cell MMM_setter(Cell ident) {
    Cell body = body_of(ident);
    return MMM_child_count(body) > MMM_IB_SETTER ? MMM_child(body, MMM_IB_SETTER) : nullptr;
}

Cell MMM_getter(Cell ident) {
    Cell body = body_of(ident);
    return MMM_child_count(body) > MMM_IB_GETTER ? MMM_child(body, MMM_IB_GETTER) : nullptr;
}

namespace {

Cell run_getter(Cell getter, int mode) { return MMM_code_routine(getter)(nullptr, mode, 0, getter); }

// The walk passes over bindings that hold no value, so that after a deletion in a frame
// the value of the frame above shows again. A properties binding ends it with no value.
Cell walk_value(Cell ident) {
    Cell current = MMM_current_frame;
    for (Cell f = current; f && f != MMM_NIL; f = MMM_frame_parent(f)) {
        Cell b = lookup_in(ident, f);
        if (!b) continue;
        if (binding_flags(b) & MMM_BIND_PROPERTIES) return nullptr;
        Cell v = binding_value(b);
        if (!v) continue;
        if (f != current) set_cache(ident, current, b);
        MMM_retain(v);
        return v;
    }
    return nullptr;
}

// The protection test of an assignment (value null: a deletion) into `frame`.
void check_protection(Cell ident, Cell value, unsigned flags, Cell frame) {
    Cell binding = MMM_binding_find(ident, frame);
    Cell effective = binding ? binding : effective_binding(ident, frame);
    const int level = effective ? MMM_binding_level(effective) : 0;
    if (level == MMM_PROTECT_NONE) return;
    const char* action = value ? "_assign" : "delete";
    const std::string name(MMM_ident_text(ident));
    switch (level) {
    case MMM_PROTECT_WARNING:
        if (!(flags & MMM_SET_PRIVILEGED)) MER_write(MER_WARN_USER, "\nWarning: protected variable " + name + " overwritten\n");
        break;
    case MMM_PROTECT_ERROR:
        if (!(flags & MMM_SET_PRIVILEGED)) MER_raise(MER_PROTECTED, action, name.c_str());
        break;
    case MMM_PROTECT_USER:
        if (!(flags & MMM_SET_PRIVILEGED) && MMM_user_protection_hook) MMM_user_protection_hook(ident);
        break;
    default: MER_raise(MER_PROTECTED, action, name.c_str());  // the kernel's own names never change
    }
}

// Stores the value (null: deletes) in the binding of `frame`, made if need be; gives the
// old value (owned). Protection has been tested.
Cell store_value(Cell ident, Cell value, Cell frame) {
    Cell binding = MMM_binding_find(ident, frame);
    if (!value) {
        // A name that shows the current frame or one above it cannot be deleted, wherever
        // its binding sits: the value seen from `frame` is what the deletion would hide.
        Cell seen = nullptr;
        for (Cell f = frame; !seen && f && f != MMM_NIL; f = MMM_frame_parent(f)) {
            Cell b = lookup_in(ident, f);
            if (b && (binding_flags(b) & MMM_BIND_PROPERTIES)) break;
            if (b) seen = binding_value(b);
        }
        if (seen && MMM_is_node(seen, DOM_FRAME) && is_ancestor_or_self(seen, MMM_current_frame))
            MER_raise(MER_FRAME_IN_USE, nullptr);
    }
    if (!binding) binding = MMM_binding_make(ident, frame);
    Cell old = nullptr;
    uint32_t bflags = binding_flags(binding);
    if (bflags & MMM_BIND_PROPERTIES) {
        MMM_release(MMM_children(binding)[0]);
        MMM_children(binding)[0] = nullptr;
        set_binding_flags(binding, bflags & ~(~0u << 19));
    } else {
        old = MMM_children(binding)[0];
    }
    MMM_retain(value);
    MMM_children(binding)[0] = value;
    MMM_sign(binding);
    set_cache(ident, frame, binding);
    if (!value && old && MMM_is_node(old, DOM_FRAME)) MMM_frame_close(old);  // deleting a frame's name closes it
    return old;
}

}  // namespace

Cell MMM_value(Cell ident) {
    if (Cell getter = MMM_getter(ident)) return run_getter(getter, 0);
    return walk_value(ident);
}

Cell MMM_value_in(Cell ident, Cell frame, bool use_getter) {
    if (use_getter) {
        if (Cell getter = MMM_getter(ident)) return run_getter(getter, 0);
    }
    Cell b = MMM_binding_find(ident, frame);
    if (!b || (binding_flags(b) & MMM_BIND_PROPERTIES)) return nullptr;
    Cell v = binding_value(b);
    MMM_retain(v);
    return v;
}

Cell MMM_set_value(Cell ident, Cell value, unsigned flags, Cell frame) {
    if (MMM_setter(ident)) return MMM_set_value_checked(ident, value, flags, frame, value == nullptr);
    check_protection(ident, value, flags, frame);
    return store_value(ident, value, frame);
}

Cell MMM_set_value_checked(Cell ident, Cell value, unsigned flags, Cell frame, bool rerun) {
    if (value == MMM_NIL && (flags & MMM_SET_NIL_DELETES)) value = nullptr;
    check_protection(ident, value, flags, frame);
    Cell setter = MMM_setter(ident);
    if (!setter) return store_value(ident, value, frame);
    const MMM_routine set = MMM_code_routine(setter);
    MMM_ref old;
    {
        MMM_ref normal(set(value ? value : MMM_NIL, 0, 0, setter));
        old.reset(store_value(ident, value ? normal.get() : nullptr, frame));
    }
    if (rerun) {
        MMM_ref now(walk_value(ident));
        MMM_release(set(now ? now.get() : MMM_NIL, 0, 0, setter));
    }
    return old.take();
}

void MMM_sign_idents() { MMM_table_filter(&namespace_table(), dead_identifier, nullptr); }

// ---- variables ----

Cell MMM_var(int depth, int index) {
    Cell probe = make_var(depth, index);
    Cell found = nullptr;
    if (MMM_table_find(variables, probe, &found)) {
        MMM_release(probe);
        return found;
    }
    MMM_table_add(&variables, probe, probe);
    MMM_release(probe);
    return probe;
}

int MMM_var_depth(Cell var) {
    int32_t d;
    std::memcpy(&d, MMM_child(var, 0)->data, 4);
    return d;
}

int MMM_var_index(Cell var) {
    int32_t i;
    std::memcpy(&i, MMM_child(var, 0)->data + 4, 4);
    return i;
}

// ---- frames ----
//
// A frame body's raw data: word 0 the next free slot of the child list, word 1 its
// capacity, then the slots, each the serial (signature) of a child frame's body. Serials
// rather than references: a child that nobody holds any longer may go away without its
// slot pointing at freed memory, and a slot whose frame is gone is never resolved.

namespace {

constexpr uint32_t FRAME_SLOT_STEP = 8;
Cell anonymous_name = nullptr;  // the identifier AnonymousFrame (a root)

Cell& frame_body(Cell frame) { return MMM_children(frame)[0]; }
uint32_t frame_word(Cell body, long i) {
    uint32_t w;
    std::memcpy(&w, body->data + 4 * i, 4);
    return w;
}
void set_frame_word(Cell body, long i, uint32_t w) { std::memcpy(body->data + 4 * i, &w, 4); }
uint32_t serial_of(Cell frame) { return MMM_child(frame, 0)->signature; }

bool contains_frame(const std::vector<Cell>& frames, Cell f) {
    return std::find(frames.begin(), frames.end(), f) != frames.end();
}

bool in_closed_frame(Cell frame, Cell, void* closing) {
    return contains_frame(*static_cast<std::vector<Cell>*>(closing), frame);
}

}  // namespace

Cell MMM_frame_new(Cell parent, Cell name) {
    Cell body = MMM_new_zeroed(MMM_FRAME_BODY, 4 * (2 + FRAME_SLOT_STEP), 2);
    set_frame_word(body, 1, FRAME_SLOT_STEP);
    MMM_retain(parent);
    MMM_retain(name);
    MMM_children(body)[0] = parent;
    MMM_children(body)[1] = name;
    MMM_sign(body);
    Cell f = MMM_new_node(DOM_FRAME, 1);
    MMM_children(f)[0] = body;
    MMM_sign(f);
    return f;
}

Cell MMM_frame_parent(Cell frame) { return MMM_child(MMM_child(frame, 0), 0); }

Cell MMM_frame_name(Cell frame) { return MMM_child(MMM_child(frame, 0), 1); }

long MMM_frame_child_count(Cell frame) { return frame_word(MMM_child(frame, 0), 0); }

uint32_t MMM_frame_child_serial(Cell frame, long i) { return frame_word(MMM_child(frame, 0), 2 + i); }

void MMM_frame_add_child(Cell parent, Cell child) {
    // The body has identity and is written in place; a move to a larger cell keeps its
    // serial, so the frame's signature and every table keyed by the frame stay valid.
    Cell& body = frame_body(parent);
    const uint32_t used = frame_word(body, 0), capacity = frame_word(body, 1);
    if (used == capacity) {
        const uint32_t serial = body->signature;
        MMM_resize_data(&body, body->size + 4 * long(FRAME_SLOT_STEP));
        if (body->size < long(4 * (2 + capacity + FRAME_SLOT_STEP))) MER_raise(MER_OUT_OF_MEMORY, nullptr);
        body->signature = serial;
        set_frame_word(body, 1, capacity + FRAME_SLOT_STEP);
    }
    set_frame_word(body, 2 + used, serial_of(child));
    set_frame_word(body, 0, used + 1);
}

bool MMM_frame_remove_child(Cell parent, Cell child) {
    Cell body = frame_body(parent);
    const uint32_t used = frame_word(body, 0), serial = serial_of(child);
    for (uint32_t i = 0; i < used; ++i) {
        if (frame_word(body, 2 + i) != serial) continue;
        for (uint32_t j = i + 1; j < used; ++j) set_frame_word(body, 1 + j, frame_word(body, 2 + j));
        set_frame_word(body, 0, used - 1);
        return true;
    }
    return false;
}

bool MMM_frame_is_ancestor_or_self(Cell frame, Cell of) { return is_ancestor_or_self(frame, of); }

void MMM_frame_close(Cell frame) {
    // Every frame the identifier table knows: keys of bindings and values that are frames.
    std::unordered_map<uint32_t, Cell> known;
    {
        MMM_table_walker names(namespace_table());
        Cell name, ident;
        while (names.next(&name, &ident)) {
            MMM_table_walker bindings(body_field(ident, MMM_IB_BINDINGS));
            Cell f, b;
            while (bindings.next(&f, &b)) {
                known.emplace(serial_of(f), f);
                if (Cell v = binding_value(b); v && MMM_is_node(v, DOM_FRAME)) known.emplace(serial_of(v), v);
            }
        }
    }
    // The frame and its descendants: through the child lists, and any known frame whose
    // parent chain reaches a closed one (a child whose slot could not be resolved, because
    // nothing held it, may still have a child that holds bindings).
    std::vector<Cell> closing{frame};
    for (size_t i = 0; i < closing.size(); ++i) {
        for (long k = 0; k < MMM_frame_child_count(closing[i]); ++k) {
            auto it = known.find(MMM_frame_child_serial(closing[i], k));
            if (it != known.end() && !contains_frame(closing, it->second)) closing.push_back(it->second);
        }
    }
    for (const auto& [serial, f] : known) {
        if (contains_frame(closing, f)) continue;
        for (Cell p = MMM_frame_parent(f); p && p != MMM_NIL; p = MMM_frame_parent(p)) {
            if (contains_frame(closing, p)) {
                closing.push_back(f);
                break;
            }
        }
    }
    // Held while their bindings go: a binding key may be the last holder of a frame.
    for (Cell f : closing) MMM_retain(f);
    for (Cell f : closing) {
        Cell parent = MMM_frame_parent(f);
        if (parent && parent != MMM_NIL) MMM_frame_remove_child(parent, f);
        set_frame_word(frame_body(f), 0, 0);
        Cell& name = MMM_children(frame_body(f))[1];
        MMM_retain(anonymous_name);
        MMM_release(name);
        name = anonymous_name;
    }
    MMM_table_walker names(namespace_table());
    Cell name, ident;
    while (names.next(&name, &ident)) {
        MMM_table_filter(&body_field(ident, MMM_IB_BINDINGS), in_closed_frame, &closing);
        if (contains_frame(closing, body_field(ident, MMM_IB_LAST_FRAME))) set_cache(ident, nullptr, nullptr);
    }
    for (Cell f : closing) MMM_release(f);
}

namespace {

// The current frame, put back after a trap or a report (retained by the room).
void save_frame(void* room) { *static_cast<Cell*>(room) = MMM_retained(MMM_current_frame); }
void restore_frame(const void* room) {
    Cell f = *static_cast<const Cell*>(room);
    if (!f) return;
    MMM_retain(f);
    MMM_release(MMM_current_frame);
    MMM_current_frame = f;
}
void drop_frame(void* room) {
    MMM_release(*static_cast<Cell*>(room));
    *static_cast<Cell*>(room) = nullptr;
}

}  // namespace

// ---- start ----

void MMM_ident_set_ids(int count, const char* (*name_of)(int id), int operator_limit) {
    MMM_release(by_id);
    MMM_ident_id_count = 0;
    by_id = MMM_new_cleared(MMM_ID_TABLE, 0, count);
    for (int id = 1; id < count; ++id) {
        const char* name = name_of(id);
        if (!name || !*name) continue;
        MMM_children(by_id)[id] = MMM_ident_named(name);
        if (id < operator_limit) MMM_set_node_flags(MMM_child(by_id, id), uint16_t(id));
    }
    MMM_ident_ids = MMM_children(by_id);
    MMM_ident_id_count = count;
}

void MMM_ident_start() {
    MER_add_state({sizeof(Cell), save_frame, restore_frame, drop_frame});
    for (Cell* root : {&strings, &namespace_, &by_id, &variables, &MMM_root_frame, &MMM_current_frame})
        MMM_add_root(root);
    by_id = nullptr;  // a former heap's table, if any, is gone; the function table makes it
    MMM_ident_ids = nullptr;
    MMM_ident_id_count = 0;
    strings = MMM_table_new(1000);
    variables = MMM_table_new(100);
    Cell body = MMM_new(MMM_NAMESPACE_BODY, 0, 1);
    MMM_children(body)[0] = MMM_table_new(4000);
    MMM_sign(body);
    namespace_ = MMM_new_node(DOM_NAMESPACE, 1);
    MMM_children(namespace_)[0] = body;
    MMM_sign(namespace_);

    MMM_add_root(&anonymous_name);
    anonymous_name = MMM_ident_named("AnonymousFrame");
    MMM_root_frame = MMM_frame_new(MMM_NIL, MMM_NIL);
    MMM_current_frame = MMM_root_frame;
    MMM_retain(MMM_current_frame);

    MMM_add_reclaim_hooks(drop_dead_names, nullptr);
}

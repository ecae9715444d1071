// Identifiers, interned names, bindings by frame, procedure variables and frames.
#include "MMM_ident.h"

#include <cstring>

#include "MER_error.h"
#include "MFN_table.h"
#include "MMM_heap.h"
#include "MMM_table.h"
#include "MMM_values.h"

Cell MEV_root_frame = nullptr;
Cell MEV_current_frame = nullptr;

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
        MMM_table_add(&body_field(id, MMM_IB_BINDINGS), MEV_current_frame, b);
        MMM_release(b);
    }
    MMM_table_add(&namespace_table(), name, id);  // the entry comes last
    return id;
}

Cell MMM_ident_named(std::string_view text) { return MMM_ident(MMM_intern(text)); }

Cell* MMM_ident_ids = nullptr;

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
    Cell b = effective_binding(ident, MEV_current_frame);
    return b ? MMM_binding_level(b) : 0;
}

// ---- values ----

// The walk passes over bindings that hold no value, so that after a deletion in a frame
// the value of the frame above shows again. A properties binding ends it with no value.
Cell MMM_value(Cell ident) {
    Cell current = MEV_current_frame;
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

Cell MMM_value_in(Cell ident, Cell frame, bool) {
    Cell b = MMM_binding_find(ident, frame);
    if (!b || (binding_flags(b) & MMM_BIND_PROPERTIES)) return nullptr;
    Cell v = binding_value(b);
    MMM_retain(v);
    return v;
}

Cell MMM_set_value(Cell ident, Cell value, unsigned flags, Cell frame) {
    const char* action = value ? "_assign" : "delete";
    Cell binding = MMM_binding_find(ident, frame);
    Cell effective = binding ? binding : effective_binding(ident, frame);
    const int level = effective ? MMM_binding_level(effective) : 0;
    const std::string name(MMM_ident_text(ident));
    switch (level) {
    case MMM_PROTECT_WARNING:
        if (!(flags & MMM_SET_PRIVILEGED)) {
            std::string text = "\nWarning: protected variable " + name + " overwritten\n";
            MER_warn(-1005, text.c_str());
        }
        break;
    case MMM_PROTECT_ERROR:
        if (!(flags & MMM_SET_PRIVILEGED)) MER_raise(1046, action, name.c_str());
        break;
    case MMM_PROTECT_USER:
        // The library's protecterror hook runs here once the evaluator calls procedures.
        break;
    case MMM_PROTECT_KERNEL: MER_raise(1046, action, name.c_str());
    default: break;
    }
    if (!value) {
        // A frame held by an identifier cannot be deleted while it is in use.
        if (binding && binding_value(binding) && MMM_is_node(binding_value(binding), DOM_FRAME) &&
            is_ancestor_or_self(binding_value(binding), MEV_current_frame))
            MER_raise(1070, nullptr);
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
    return old;
}

Cell MMM_set_value_checked(Cell ident, Cell value, unsigned flags, Cell frame, bool) {
    if (value == MMM_NIL && (flags & MMM_SET_NIL_DELETES)) value = nullptr;
    return MMM_set_value(ident, value, flags, frame);
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

Cell MMM_frame_new(Cell parent, Cell name) {
    Cell body = MMM_new_zeroed(MMM_FRAME_BODY, 8, 2);
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

// ---- start ----

void MMM_ident_start() {
    for (Cell* root : {&strings, &namespace_, &by_id, &variables, &MEV_root_frame, &MEV_current_frame})
        MMM_add_root(root);
    strings = MMM_table_new(1000);
    variables = MMM_table_new(100);
    Cell body = MMM_new(MMM_NAMESPACE_BODY, 0, 1);
    MMM_children(body)[0] = MMM_table_new(4000);
    MMM_sign(body);
    namespace_ = MMM_new_node(DOM_NAMESPACE, 1);
    MMM_children(namespace_)[0] = body;
    MMM_sign(namespace_);

    MEV_root_frame = MMM_frame_new(MMM_NIL, MMM_NIL);
    MEV_current_frame = MEV_root_frame;
    MMM_retain(MEV_current_frame);

    by_id = MMM_new_cleared(MMM_ID_TABLE, 0, MFN_ID_COUNT);
    for (int id = 1; id < MFN_ID_COUNT; ++id) {
        const char* name = MFN_env_name(id);
        if (name && *name) MMM_children(by_id)[id] = MMM_ident_named(name);
        if (name && *name && id <= 29) MMM_set_node_flags(MMM_child(by_id, id), uint16_t(id));
    }
    MMM_ident_ids = MMM_children(by_id);
    MMM_table_set_sequence_operator(MMM_ident_by_id(MFN_ID_EXPRSEQ));
    MMM_add_reclaim_hooks(drop_dead_names, nullptr);
}

// Identifiers: interned names, the global namespace, bindings by frame, and frames.
//
// An identifier is one DOM_IDENT cell for each name, with identity: its value is not in
// the cell but in a table from frames to bindings, so that one identifier can hold a
// different value in each frame.
#pragma once

#include <string_view>

#include "MMM_cell.h"
#include "MMM_values.h"

// Children of an identifier body.
enum MMM_ident_body_field {
    MMM_IB_BINDINGS = 0,  // MMM_HASH: frame to binding
    MMM_IB_LAST_FRAME = 1,
    MMM_IB_LAST_BINDING = 2,
    MMM_IB_SETTER = 3,  // environment variables only: MMM_CODE
    MMM_IB_GETTER = 4,
};

// Binding flags, in the first raw word of a binding.
constexpr uint32_t MMM_BIND_LEVEL_SHIFT = 16;
constexpr uint32_t MMM_BIND_LEVEL_MASK = 7u << MMM_BIND_LEVEL_SHIFT;
constexpr uint32_t MMM_BIND_PROPERTIES = 1u << 19;
constexpr int MMM_PROTECT_NONE = 0;
constexpr int MMM_PROTECT_WARNING = 1;
constexpr int MMM_PROTECT_ERROR = 2;
constexpr int MMM_PROTECT_USER = 3;
constexpr int MMM_PROTECT_KERNEL = 4;

// Flags of MMM_set_value.
constexpr unsigned MMM_SET_PRIVILEGED = 4;  // passes protection levels 1 to 3 (sysassign)
constexpr unsigned MMM_SET_NIL_DELETES = 8;

// The interned MMM_STRING of a text: a borrowed reference, equal texts give one cell.
Cell MMM_intern(std::string_view text);
// A DOM_STRING whose bare string is interned (new reference).
Cell MMM_string_value(std::string_view text);

// Identifiers; each gives a new reference. `extra` is 1 for an ordinary identifier and
// 3 for an environment variable (setter and getter).
Cell MMM_ident(Cell name_string, int extra = 1);
Cell MMM_ident_named(std::string_view text);
Cell MMM_ident_exists(Cell name_string);  // borrowed, or nullptr
// The borrowed identifier of a built-in, by function id; null for an id without one.
// The function table sets the ids at start (MMM_ident_set_ids); the count comes from it.
extern Cell* MMM_ident_ids;
extern int MMM_ident_id_count;
inline Cell MMM_ident_by_id(int id) { return id > 0 && id < MMM_ident_id_count ? MMM_ident_ids[id] : nullptr; }
// True when c is an expression whose operator is the identifier of built-in `id`; c may
// be null.
inline bool MMM_is_call_of(Cell c, int id) {
    return c && MMM_is_node(c, DOM_EXPR) && MMM_child_count(c) >= 1 && MMM_child(c, 0) == MMM_ident_by_id(id);
}
// Makes the table of `count` ids: the identifier of names[id] at each id whose name is
// not empty; the operators below `operator_limit` carry their id (MMM_operator_id).
void MMM_ident_set_ids(int count, const char* (*name_of)(int id), int operator_limit);
// The identifiers of the operators with ids 1 to 29 carry their id in their node flags,
// so that the evaluator finds an operator's id without a search (0 for all others).
inline int MMM_operator_id(Cell ident) { return MMM_node_flags(ident); }
std::string_view MMM_ident_text(Cell ident);

// Bindings.
Cell MMM_binding_find(Cell ident, Cell frame);  // borrowed, or nullptr
Cell MMM_binding_make(Cell ident, Cell frame);  // borrowed
int MMM_binding_level(Cell binding);
void MMM_binding_set_level(Cell binding, int level);

// The routines in the body of an environment variable (MMM_CODE cells, borrowed), or
// nullptr. Both have the signature of a built-in: the setter is called as
// (value, 0, 0, code) and gives the value to store (new reference) or raises; the getter
// as (nullptr, mode, 0, code) and gives the value (new reference) or nullptr for none,
// mode 1 asking for nothing when only the default applies.
Cell MMM_setter(Cell ident);
Cell MMM_getter(Cell ident);
// Runs `protecterror(ident, "write")` for an assignment at level User; the evaluator
// installs it. Without it the assignment goes on at once.
extern void (*MMM_user_protection_hook)(Cell ident);

// The value in the current frame chain (new reference), or nullptr for none. An
// identifier with a getter has the getter's value.
Cell MMM_value(Cell ident);
// The value in this frame only, no walk (new reference or nullptr); with `use_getter`
// an identifier with a getter has the getter's value.
Cell MMM_value_in(Cell ident, Cell frame, bool use_getter);
// The single path of assignment; value nullptr deletes. Gives the old value (owned). An
// identifier with a setter goes through MMM_set_value_checked, a deletion with `rerun`.
Cell MMM_set_value(Cell ident, Cell value, unsigned flags, Cell frame);
// Protection first, then the setter, whose value is stored (null for a deletion, and for
// NIL with MMM_SET_NIL_DELETES); with `rerun` the setter then gets the value the frame
// walk now finds (NIL for none). A setter's error leaves everything as it was.
Cell MMM_set_value_checked(Cell ident, Cell value, unsigned flags, Cell frame, bool rerun);
// The protection level in force for the identifier in the current frame chain.
int MMM_protection(Cell ident);

// Drops identifiers that nobody but the namespace holds and have no binding, and signs
// the namespace again.
void MMM_sign_idents();

// ---- variables of procedures: one interned DOM_VAR cell for each (depth, index) ----
Cell MMM_var(int depth, int index);  // borrowed
int MMM_var_depth(Cell var);
int MMM_var_index(Cell var);

// ---- frames ----
extern Cell MMM_root_frame;
extern Cell MMM_current_frame;
Cell MMM_frame_new(Cell parent, Cell name);  // new reference
Cell MMM_frame_parent(Cell frame);           // borrowed; NIL above the root
Cell MMM_frame_name(Cell frame);             // borrowed: the identifier, NIL for the root
// The list of child frames in the body's raw data: the serials (signatures) of the
// children's bodies. Adding and removing change the body in place; its signature stays.
long MMM_frame_child_count(Cell frame);
uint32_t MMM_frame_child_serial(Cell frame, long i);
void MMM_frame_add_child(Cell parent, Cell child);
bool MMM_frame_remove_child(Cell parent, Cell child);
// Whether `frame` is `of` or one of its ancestors.
bool MMM_frame_is_ancestor_or_self(Cell frame, Cell of);
// Closes a frame, as deleting the identifier that holds it does: its descendants are
// closed with it, each is taken out of its parent's list and named AnonymousFrame, and
// every binding in them is dropped from the identifier table. The caller has made sure
// that the frame is neither the current frame nor above it.
void MMM_frame_close(Cell frame);

// Makes the string table, the namespace, the variable table and the root frame.
void MMM_ident_start();

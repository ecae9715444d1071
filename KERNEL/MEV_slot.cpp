// The built-in slot, behind `d::n`: reading a named entry of a value.
//
// The operands come evaluated; the name is a DOM_STRING (the parser makes one of the text
// after `::`). What is read depends on the category of `d`:
//   DOM_FUNC_ENV  the attribute table of the environment (third child): the entry, or
//                 FAIL when there is none or no table;
//   DOM_FRAME     the identifier of that name in exactly that frame, no walk; ".." is the
//                 frame's parent (the frame itself at the root); an identifier without a
//                 value there is error 1118;
//   DOM_IDENT     a name of the function table written with `::` (`stdlib::from64`,
//                 `DOM_INTERVAL::abs`): while the prefix has no value of its own, `p::n`
//                 is the value of the identifier named "p::n";
//   DOM_DOMAIN and DOM_EXT, and the form with a value to store (`slot(d, n, v)`), are
//                 not read here: the call stays as it is.
// Every other value has no slots: error 1001. A value read is evaluated once more at the
// next depth, as the value of an identifier is.
#include <string>

#include "MER_error.h"
#include "MEV_builtins.h"
#include "MEV_eval.h"
#include "MFN_layout.h"
#include "MMM_ident.h"
#include "MMM_ref.h"
#include "MMM_table.h"
#include "MMM_values.h"

namespace {

// The value read, evaluated at the next depth within LEVEL (owned; takes `value`).
Cell evaluate_read(Cell value, int context) {
    MMM_ref owned(value);
    if (MMM_kind_of(value) != MMM_NODE || MEV_depth + 1 >= MEV_level) return owned.take();
    ++MEV_depth;
    Cell result;
    try {
        result = MEV_eval(value, context == MEV_CONTEXT_STATEMENT ? MEV_CONTEXT_ARGUMENT : context, 0);
    } catch (...) {
        --MEV_depth;
        throw;
    }
    --MEV_depth;
    return result;
}

Cell env_slot(Cell env, Cell name) {
    Cell table = MMM_child(env, MFN_ENV_ATTRIBUTES);
    Cell found = nullptr;
    if (MMM_is_node(table, DOM_TABLE) && MMM_table_find(MMM_child(table, MMM_TABLE_HASH), name, &found) && found)
        return MMM_retained(found);
    return MMM_retained(MMM_FAIL);
}

Cell frame_slot(Cell frame, std::string_view name) {
    if (name == "..") {
        Cell parent = MMM_frame_parent(frame);
        return MMM_retained(parent == MMM_NIL ? frame : parent);
    }
    Cell ident = MMM_ident_exists(MMM_intern(name));
    Cell value = ident ? MMM_value_in(ident, frame, false) : nullptr;
    if (!value) MER_raise(MER_UNKNOWN_NAMED_SLOT, "slot", std::string(name).c_str());
    return value;
}

// p::n for an identifier p: the function-table name "p::n", or null.
Cell qualified_name(Cell prefix, std::string_view name) {
    std::string full(MMM_ident_text(prefix));
    full.append("::").append(name);
    Cell ident = MMM_ident_exists(MMM_intern(full));
    return ident ? MMM_value(ident) : nullptr;
}

Cell builtin_slot(Cell e, int context, unsigned, Cell) {
    Cell d = MEV_arg(e, 1);
    Cell name = MEV_arg(e, 2);
    const int category = MMM_category(d);
    if (MEV_nargs(e) == 3 || category == DOM_DOMAIN || category == DOM_EXT) return MMM_retained(e);
    if (category == DOM_FUNC_ENV) return evaluate_read(env_slot(d, name), context);
    if (!MMM_is_node(name, DOM_STRING)) MER_raise(MER_ILLEGAL_OPERAND, "slot");
    const std::string_view text = MMM_string_view(MMM_child(name, 0));
    if (category == DOM_FRAME) return evaluate_read(frame_slot(d, text), context);
    if (category == DOM_IDENT) {
        if (Cell value = qualified_name(d, text)) return evaluate_read(value, context);
    }
    MER_raise(MER_ILLEGAL_OPERAND, "slot");
}

const MFN_builtin builtins[] = {
    {.name = "slot", .routine = builtin_slot, .args = {2, 3}},
};

}  // namespace

const MFN_builtin_table MEV_slot_builtins = builtins;

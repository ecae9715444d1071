// The built-ins table(...), _frame, _parentFrame and _rootFrame, bytes, and index access
// to arrays.
#include "MEV_containers.h"
#include "MEV_builtins.h"

#include <string>
#include <vector>

#include "MAR_numbers.h"
#include "MER_error.h"
#include "MEV_eval.h"
#include "MFN_table.h"
#include "MMM_containers.h"
#include "MMM_heap.h"
#include "MMM_ident.h"
#include "MMM_ref.h"
#include "MMM_table.h"
#include "MMM_values.h"

namespace {


bool is_equation(Cell x) {
    return MMM_is_node(x, DOM_EXPR) && MMM_child(x, 0) == MMM_ident_by_id(MFN_ID_EQUAL) && MEV_nargs(x) >= 1;
}

// The key of an evaluated equation: the operands before the last one, as the table's
// index rule makes keys (one is itself, more a sequence). An equation whose left side
// was a sequence has been flattened by the evaluation of its operands.
Cell equation_key(Cell eq) {
    const long n = MEV_nargs(eq) - 1;
    if (n == 1) return MMM_retained(MEV_arg(eq, 1));
    Cell key = MMM_make_expr(n + 1);
    MMM_children(key)[0] = MMM_retained(MMM_ident_by_id(MFN_ID_EXPRSEQ));
    for (long i = 1; i <= n; ++i) MMM_children(key)[i] = MMM_retained(MEV_arg(eq, i));
    MMM_sign(key);
    return key;
}

// table(eq1, eq2, ..., t, ...): equations key = value and tables, merged in order.
Cell builtin_table(Cell e, int, unsigned, Cell) {
    MMM_ref t(MMM_make_table(MEV_nargs(e)));
    Cell& hash = MMM_children(t.get())[0];
    for (long i = 1; i <= MEV_nargs(e); ++i) {
        Cell a = MEV_arg(e, i);
        if (MMM_is_node(a, DOM_TABLE)) {
            MMM_table_walker w(MMM_child(a, MMM_TABLE_HASH));
            Cell key, value;
            while (w.next(&key, &value)) MMM_table_set(&hash, key, value);
        } else if (is_equation(a)) {
            // An equation that lost its value to NULL makes no entry.
            if (MEV_nargs(a) < 2) continue;
            MMM_ref key(equation_key(a));
            MMM_table_set(&hash, key.get(), MEV_arg(a, MEV_nargs(a)));
        } else {
            MER_raise(MER_ILLEGAL_ARGUMENT, "table");
        }
    }
    MMM_sign(t.get());
    return t.take();
}

// _frame(x) for an identifier: the frame x holds in the current frame, or a new child
// frame named x, bound to x there.
Cell enter_named(Cell ident) {
    if (Cell v = MMM_value_in(ident, MMM_current_frame, true)) {
        Cell r;
        {
            MMM_ref owned(v);
            r = MEV_eval(v, MEV_CONTEXT_ARGUMENT, 0);
        }
        if (MMM_is_node(r, DOM_FRAME)) {
            MEV_enter_frame(r);
            return r;
        }
        MMM_release(r);
    }
    Cell parent = MMM_current_frame;
    MMM_ref frame(MMM_frame_new(parent, ident));
    MMM_release(MMM_set_value(ident, frame.get(), 0, parent));
    if (parent != MMM_root_frame) MMM_frame_add_child(parent, frame.get());
    MEV_enter_frame(frame.get());
    return frame.take();
}

Cell builtin_frame(Cell e, int context, unsigned flags, Cell) {
    Cell held = nullptr;
    bool done;
    {
        MMM_ref x(MMM_retained(e));
        done = MEV_check_hold(x.slot(), context, flags, &held, 100);
    }
    if (done) return held;
    if (MEV_nargs(e) > 1) MER_raise(MER_WRONG_ARG_COUNT, "_frame");
    if (MEV_nargs(e) == 0) return MMM_retained(MMM_current_frame);
    Cell a = MEV_arg(e, 1);
    switch (MMM_category(a)) {
    case DOM_IDENT: return enter_named(a);
    case DOM_FRAME:
        MEV_enter_frame(a);
        return MMM_retained(a);
    case DOM_EXPR:
    case DOM_VAR: {
        Cell v = MEV_eval(a, MEV_CONTEXT_ARGUMENT, 0);
        if (!MMM_is_node(v, DOM_FRAME)) {
            MMM_release(v);
            MER_raise(MER_ILLEGAL_ARGUMENT, "_frame");
        }
        MEV_enter_frame(v);
        return v;
    }
    default: MER_raise(MER_ILLEGAL_ARGUMENT, "_frame");
    }
}

Cell builtin_parent_frame(Cell e, int, unsigned, Cell) {
    MEV_need_args(e, 0, 0);
    Cell parent = MMM_frame_parent(MMM_current_frame);
    return MMM_retained(parent == MMM_NIL ? MMM_current_frame : parent);
}

Cell builtin_root_frame(Cell e, int, unsigned, Cell) {
    MEV_need_args(e, 0, 0);
    return MMM_retained(MMM_root_frame);
}

}  // namespace

Cell MEV_array_read(Cell e) {
    Cell a = MEV_arg(e, 1);
    const long d = MMM_array_dimensions(a);
    if (MEV_nargs(e) - 1 != d) MER_raise(MER_INDEX_DIMENSION, "array");
    std::vector<long> indices;
    for (long i = 2; i <= MEV_nargs(e); ++i) {
        if (MMM_category(MEV_arg(e, i)) != DOM_INT) return MMM_retained(e);
        indices.push_back(MAR_small_int(MEV_arg(e, i)));
    }
    const long offset = MMM_array_offset(a, indices);
    if (offset < 0) MER_raise(MER_ILLEGAL_ARGUMENT, "array");
    Cell entry = MMM_array_entry(a, offset);
    return MMM_retained(entry ? entry : e);
}

void MEV_array_write(Cell* array, Cell index_expr, Cell value) {
    int ext = 0;
    Cell args = MEV_eval_args(index_expr, 0, MEV_CONTEXT_ARGUMENT, 2, 0, &ext);
    std::vector<long> indices;
    bool integers = true;
    for (long i = 2; i <= MEV_nargs(args); ++i) {
        if (MMM_category(MEV_arg(args, i)) == DOM_INT) indices.push_back(MAR_small_int(MEV_arg(args, i)));
        else integers = false;
    }
    const long count = MEV_nargs(args) - 1;
    MMM_release(args);
    if (count != MMM_array_dimensions(*array)) MER_raise(MER_INDEX_DIMENSION, "array");
    const long offset = integers ? MMM_array_offset(*array, indices) : -1;
    if (offset < 0) MER_raise(MER_ILLEGAL_ARGUMENT, "array");
    MMM_array_set(array, offset, value == MMM_NULL ? nullptr : value);
}

void MEV_enter_frame(Cell frame) {
    MMM_retain(frame);
    MMM_release(MMM_current_frame);
    MMM_current_frame = frame;
}

Cell MEV_enter_frame_path(std::string_view path) {
    MEV_enter_frame(MMM_root_frame);
    while (!path.empty()) {
        const size_t cut = path.find("::");
        const std::string_view piece = path.substr(0, cut);
        if (piece.empty()) break;
        MMM_ref ident(MMM_ident_named(piece));
        MMM_release(enter_named(ident.get()));
        if (cut == std::string_view::npos) break;
        path.remove_prefix(cut + 2);
    }
    return MMM_current_frame;
}

namespace {

// bytes(): the memory in use (the cells' sizes) and the memory reserved from the system
// (pages and big cells), in bytes.
Cell builtin_bytes(Cell, int, unsigned, Cell) {
    MMM_ref used(MAR_from_long(long(MMM_used_bytes())));
    MMM_ref reserved(MAR_from_long(long(MMM_reserved_bytes())));
    Cell seq = MMM_make_expr(3);
    MMM_children(seq)[0] = MMM_retained(MMM_ident_by_id(MFN_ID_EXPRSEQ));
    MMM_children(seq)[1] = used.take();
    MMM_children(seq)[2] = reserved.take();
    MMM_sign(seq);
    return seq;
}

// share(): asks for the pass that merges equal cells; the top level runs it when the
// command (or batch file) is over, when no native frame holds cells of it.
Cell builtin_share(Cell, int, unsigned, Cell) {
    MMM_share_requested = true;
    return MMM_retained(MMM_NULL);
}

const MFN_builtin builtins[] = {
    {.name = "bytes", .routine = builtin_bytes, .args = {0, 0}},
    {.name = "table", .routine = builtin_table},
    {.name = "share", .routine = builtin_share, .args = {0, 0}},
    {.name = "_frame", .routine = builtin_frame, .raw = true},
    {.name = "_parentFrame", .routine = builtin_parent_frame},
    {.name = "_rootFrame", .routine = builtin_root_frame},
};
}  // namespace

const MFN_builtin_table MEV_container_builtins = builtins;

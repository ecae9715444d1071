// Statements: sequences, conditions, loops, transfers of control, assignment and
// deletion, the `$` forms and the boolean connectives.
#include <algorithm>
#include <climits>
#include <cstdint>
#include <string>
#include <vector>

#include "MAR_numbers.h"
#include "MEV_builtins.h"
#include "MCM_equal.h"
#include "MER_error.h"
#include "MEV_containers.h"
#include "MEV_eval.h"
#include "MEV_proc.h"
#include "MEV_relations.h"
#include "MEV_stmt.h"
#include "MFN_env.h"
#include "MFN_layout.h"
#include "MFN_table.h"
#include "MMM_heap.h"
#include "MMM_ident.h"
#include "MMM_ref.h"
#include "MMM_table.h"
#include "MMM_values.h"
#include "MSY_process.h"

namespace {

std::string name_of(Cell e) { return std::string(MMM_ident_text(MMM_child(e, 0))); }
bool is_real(Cell v) {
    const int c = MMM_category(v);
    return c == CAT_BIG_INT || c == DOM_INT || c == DOM_RAT || c == DOM_FLOAT;
}

// The common opening of every statement. Gives true when *out is the answer already.
bool opening(Cell e, unsigned flags, Cell* out) {
    if (flags & MEV_HOLD) {
        *out = MMM_retained(e);
        return true;
    }
    if (MEV_max_level != 2147483647 && MEV_depth >= MEV_max_level) MER_raise(MER_RECURSIVE_DEFINITION, "See ?MAXLEVEL");
    if (MEV_depth >= MEV_level) {
        *out = MMM_retained(e);
        return true;
    }
    return false;
}

// The closing of every statement: its value is the last value, or NULL.
Cell closing(int context) {
    if (context == MEV_CONTEXT_STATEMENT) return nullptr;
    return MMM_retained(MEV_value_pending && MEV_last_value ? MEV_last_value : MMM_NULL);
}

void set_last_value(Cell v) {
    MMM_retain(v);
    MMM_release(MEV_last_value);
    MEV_last_value = v;
    ++MEV_value_pending;
    if (MEV_frame) MEV_ring_enter(v);
}

void clear_last_value() {
    MMM_release(MEV_last_value);
    MEV_last_value = nullptr;
    MEV_value_pending = 0;
}

// ---- variables of loops and assignments ----

// Assigns to an identifier in the current frame, or to a procedure's local.
void assign_variable(Cell var, Cell value, unsigned flags) {
    if (MMM_category(var) == DOM_IDENT) {
        MMM_release(MMM_set_value(var, value, flags, MMM_current_frame));
    } else if (MMM_category(var) == DOM_VAR) {
        if (!MEV_variable_writer) MER_raise(MER_INVALID_VARIABLE, nullptr);
        MEV_variable_writer(var, value);
    } else {
        MER_raise(MER_INVALID_VARIABLE, nullptr);
    }
}

Cell read_variable(Cell var) {
    Cell v = MEV_eval(var, MEV_CONTEXT_ARGUMENT, 0);
    return v;
}

void check_loop_variable(Cell var) {
    const int c = MMM_category(var);
    if (c != DOM_IDENT && c != DOM_VAR) MER_raise(MER_INVALID_VARIABLE, nullptr);
}

Cell eval_real(Cell e, int context) {
    Cell v = MEV_eval(e, context, 0);
    if (MMM_category(v) > 5) {
        MMM_release(v);
        MER_raise(MER_REAL_EXPECTED, nullptr);
    }
    return v;
}

// ---- index paths ----

// The integer of an index, or raises 1017 when it is none.
long list_index(Cell list_value, Cell index) {
    if (MMM_category(index) != DOM_INT) MER_raise(MER_INVALID_INDEX, nullptr);
    const long n = MMM_child_count(list_value);
    long i = MAR_small_int(index);
    if (i < 0) i = n + 1 + i;
    if (i < 1 || i > n) MER_raise(MER_INVALID_INDEX, nullptr);
    return i;
}

// The key of an _index call's indices: one index is itself, several a sequence.
Cell index_key(Cell index_expr) { return MMM_table_make_key(index_expr, 2); }

// Writes value (null: delete) at the indices of index_expr into *container, which the
// caller owns exclusively or not (it is unshared here).
void write_at(Cell* container, Cell index_expr, Cell value) {
    const int cat = MMM_category(*container);
    if (cat == DOM_LIST) {
        if (MEV_nargs(index_expr) != 2) MER_raise(MER_INVALID_INDEX, nullptr);
        long i;
        {
            MMM_ref index(MEV_eval(MEV_arg(index_expr, 2), MEV_CONTEXT_ARGUMENT, 0));
            i = list_index(*container, index.get());
        }
        MMM_clone(container);
        Cell l = *container;
        if (!value || value == MMM_NULL) {
            const long n = MMM_child_count(l);
            MMM_release(MMM_children(l)[i - 1]);
            MMM_move_children(l, i, l, i - 1, n - i);
            MMM_children(l)[n - 1] = nullptr;
            MMM_resize_children(container, n - 1);
        } else {
            // One element changes: a node's signature is its raw words and the sum of its
            // children's signatures, so it changes by the difference, and writing element
            // by element costs no walk over the list.
            Cell old = MMM_children(l)[i - 1];
            MMM_children(l)[i - 1] = MMM_retained(value);
            l->signature += value->signature - (old ? old->signature : 0u);
            MMM_release(old);
            return;
        }
        MMM_sign(*container);
        return;
    }
    if (cat == DOM_TABLE) {
        MMM_ref evaluated(MMM_retained(index_expr));
        int ext = 0;
        MMM_ref args(MEV_eval_args(index_expr, 0, MEV_CONTEXT_ARGUMENT, 2, 0, &ext));
        MMM_ref key(index_key(args.get()));
        MMM_clone(container);
        if (!value || value == MMM_NULL) MMM_table_remove(&MMM_children(*container)[MMM_TABLE_HASH], key.get());
        else MMM_table_set(&MMM_children(*container)[MMM_TABLE_HASH], key.get(), value);
        MMM_sign(*container);
        return;
    }
    if (cat == DOM_ARRAY) {
        MEV_array_write(container, index_expr, value);
        return;
    }
    if (cat == DOM_STRING) {
        if (MEV_nargs(index_expr) != 2) MER_raise(MER_INVALID_INDEX, nullptr);
        Cell index = MEV_eval(MEV_arg(index_expr, 2), MEV_CONTEXT_ARGUMENT, 0);
        std::string text(MMM_string_view(MMM_child(*container, 0)));
        // Positions as in reading: from 1, a negative one from the end.
        long i = MMM_category(index) == DOM_INT ? MAR_small_int(index) : 0;
        if (i < 0) i += long(text.size()) + 1;
        const bool ok = i >= 1 && size_t(i) <= text.size();
        MMM_release(index);
        if (!ok) MER_raise(MER_INVALID_INDEX, nullptr);
        if (!value || MMM_category(value) != DOM_STRING || MMM_string_view(MMM_child(value, 0)).size() != 1)
            MER_raise(MER_ILLEGAL_ARGUMENT, "_assign");
        text[size_t(i - 1)] = MMM_string_view(MMM_child(value, 0))[0];
        MMM_release(*container);
        *container = MMM_make_string(text);
        return;
    }
    MER_raise(MER_INVALID_LHS, nullptr);
}

// The value an identifier or local holds, for writing into: taken out of the current
// frame's binding when it is there, so that an unshared container is not copied.
Cell take_for_writing(Cell target) {
    if (MMM_category(target) == DOM_IDENT) {
        Cell b = MMM_binding_find(target, MMM_current_frame);
        if (b && MMM_child(b, 0)) {
            Cell v = MMM_children(b)[0];
            MMM_children(b)[0] = nullptr;
            // The binding is empty only for the moment of the write; put the value back
            // should the write fail.
            return v;
        }
    }
    // A local is taken out of its slot in the same way.
    if (MMM_category(target) == DOM_VAR) return MEV_var_take(target);
    return MMM_value(target);
}

// The index path with its indices evaluated now, before the container is taken out of
// its variable (an index may read that variable), each held so that the write does not
// evaluate it again. The variable is held too: the writers evaluate all operands of the
// path, and the variable is empty while they run.
Cell evaluated_indices(Cell lhs) {
    const long n = MMM_child_count(lhs);
    MMM_ref out(MMM_make_expr(n));
    Cell* c = MMM_children(out.get());
    for (long i = 0; i < n; ++i) c[i] = i < 1 ? MMM_retained(MMM_child(lhs, i)) : nullptr;
    for (long i = 1; i < n; ++i) {
        Cell h = MMM_make_expr(2);
        MMM_children(h)[0] = MMM_retained(MMM_ident_by_id(MFN_ID_HOLD));
        MMM_children(h)[1] = nullptr;
        c[i] = h;
        MMM_children(h)[1] = i == 1 ? MMM_retained(MMM_child(lhs, 1)) : MEV_eval(MMM_child(lhs, i), MEV_CONTEXT_ARGUMENT, 0);
        MMM_sign(h);
    }
    MMM_sign(out.get());
    return out.take();
}

// a[i] := v, and deeper paths a[i][j] := v.
void assign_index(Cell lhs, Cell value, unsigned flags) {
    Cell base = MEV_arg(lhs, 1);
    if (MMM_is_call_of(base, MFN_ID_INDEX)) {
        // a[i][j] := v: read a[i], write into it, and write it back at a[i].
        MMM_ref inner(MEV_eval(base, MEV_CONTEXT_ARGUMENT, 0));
        write_at(inner.slot(), lhs, value);
        assign_index(base, inner.get(), flags);
        return;
    }
    if (MMM_category(base) != DOM_IDENT && MMM_category(base) != DOM_VAR) MER_raise(MER_INVALID_LHS, nullptr);
    MMM_ref path(evaluated_indices(lhs));
    MMM_ref container(take_for_writing(base));
    // An unbound name becomes a table.
    if (!container) container.reset(MMM_make_table(0));
    try {
        write_at(container.slot(), path.get(), value);
    } catch (...) {
        // The variable gets its container back, whatever the failed write left.
        assign_variable(base, container.get(), flags | MMM_SET_PRIVILEGED);
        throw;
    }
    assign_variable(base, container.get(), flags);
}

void assign_to(Cell lhs, Cell value, unsigned flags);

void assign_list(Cell lhs, Cell value, unsigned flags) {
    if (MMM_category(value) != DOM_LIST || MMM_child_count(value) != MMM_child_count(lhs)) MER_raise(MER_INVALID_LHS, nullptr);
    for (long i = 0; i < MMM_child_count(lhs); ++i) assign_to(MMM_child(lhs, i), MMM_child(value, i), flags);
}

// f(x) := v on a built-in stores a result of the function; on a procedure, or a name
// without value, it goes to the remember table.
void assign_call(Cell lhs, Cell value) {
    MMM_ref owned_f(MEV_eval(MMM_child(lhs, 0), MEV_CONTEXT_FREE, 0));
    Cell f = owned_f.get();
    if (MMM_category(f) != DOM_FUNC_ENV || MMM_category(MMM_child(f, MFN_ENV_EVALUATOR)) != DOM_EXEC) {
        if (!MEV_assign_remembered(lhs, f, value)) MER_raise(MER_INVALID_LHS, nullptr);
        return;
    }
    int ext = 0;
    MMM_ref key;
    {
        MMM_ref args(MEV_eval_args(lhs, 0, MEV_CONTEXT_ARGUMENT, 2, 0, &ext));
        key.reset(MMM_table_make_key(args.get(), 1));
    }
    Cell& table = MMM_children(MMM_child(f, MFN_ENV_EVALUATOR))[MFN_EXEC_STORE];
    if (table == MMM_NIL) {
        MMM_release(table);
        table = MMM_make_table(0);
    }
    MMM_table_set(&MMM_children(table)[MMM_TABLE_HASH], key.get(), value);
    MMM_sign(table);
}

void assign_to(Cell lhs, Cell value, unsigned flags) {
    switch (MMM_category(lhs)) {
    case DOM_IDENT:
    case DOM_VAR:
        assign_variable(lhs, value, flags);
        return;
    case DOM_LIST:
        assign_list(lhs, value, flags);
        return;
    case DOM_EXPR:
        if (MMM_is_call_of(lhs, MFN_ID_INDEX)) return assign_index(lhs, value, flags);
        if (MMM_is_call_of(lhs, MFN_ID_SLOT)) MER_raise(MER_NOT_IMPLEMENTED, "slot assignment");
        return assign_call(lhs, value);
    default:
        MER_raise(MER_INVALID_LHS, nullptr);
    }
}

// ---- statements ----

Cell stmt_stmtseq(Cell e, int context, unsigned flags, Cell) {
    Cell out;
    if (opening(e, flags, &out)) return out;
    for (long i = 1; i < MMM_child_count(e) && !MEV_control; ++i) MEV_exec(MEV_arg(e, i));
    return closing(context);
}

Cell stmt_assign(Cell e, int context, unsigned flags, unsigned set_flags) {
    Cell out;
    if (opening(e, flags, &out)) return out;
    if (MEV_nargs(e) != 2) MER_raise(MER_WRONG_ARG_COUNT, name_of(e).c_str());
    MMM_ref value((flags & (MEV_ARGS_FLAT | MEV_ARGS_SPLICE))
                      ? MMM_retained(MEV_arg(e, 2))
                      : MEV_eval_value(MEV_arg(e, 2), context == MEV_CONTEXT_STATEMENT ? MEV_CONTEXT_FREE : context, 0));
    MEV_name_procedure(MEV_arg(e, 1), value.get());
    assign_to(MEV_arg(e, 1), value.get(), set_flags);
    set_last_value(value.get());
    if (context == MEV_CONTEXT_STATEMENT) return nullptr;
    return value.take();
}

Cell stmt_assign_plain(Cell e, int context, unsigned flags, Cell) { return stmt_assign(e, context, flags, 0); }
Cell stmt_sysassign(Cell e, int context, unsigned flags, Cell) {
    return stmt_assign(e, context, flags, MMM_SET_PRIVILEGED);
}

Cell stmt_if(Cell e, int context, unsigned flags, Cell) {
    Cell out;
    if (opening(e, flags, &out)) return out;
    if (MEV_nargs(e) != 3) MER_raise(MER_WRONG_ARG_COUNT, "_if");
    const int b = MEV_bool(MEV_arg(e, 1));
    if (b == MMM_BOOL_TRUE) MEV_exec(MEV_arg(e, 2));
    else if (b == MMM_BOOL_FALSE) MEV_exec(MEV_arg(e, 3));
    else MER_raise(MER_NOT_BOOLEAN, "_if");
    return closing(context);
}

void consume_break() {
    if (MEV_control == MEV_CONTROL_BREAK && --MEV_control_count <= 0) MEV_control = MEV_CONTROL_NONE;
}

// After a loop body: a `next` for this loop is used up here.
void consume_next() {
    if (MEV_control == MEV_CONTROL_NEXT && --MEV_control_count <= 0) MEV_control = MEV_CONTROL_NONE;
}

// On the way out of a loop: a `next` or `break` for this loop ends here.
void leave_loop() {
    if ((MEV_control == MEV_CONTROL_NEXT || MEV_control == MEV_CONTROL_BREAK) && --MEV_control_count <= 0)
        MEV_control = MEV_CONTROL_NONE;
}

Cell stmt_case(Cell e, int context, unsigned flags, Cell) {
    Cell out;
    if (opening(e, flags, &out)) return out;
    if (MEV_nargs(e) < 1) MER_raise(MER_WRONG_ARG_COUNT, "_case");
    const long pairs = (MEV_nargs(e) - 1) / 2;
    const bool has_otherwise = (MEV_nargs(e) - 1) % 2 == 1;
    bool matched = false;
    {
        MMM_ref selector(MEV_eval(MEV_arg(e, 1), MEV_CONTEXT_FREE, 0));
        for (long p = 0; p < pairs && !MEV_control; ++p) {
            if (!matched) {
                MMM_ref v(MEV_eval(MEV_arg(e, 2 + 2 * p), MEV_CONTEXT_FREE, 0));
                matched = MCM_equal(v.get(), selector.get());
            }
            if (matched) MEV_exec(MEV_arg(e, 3 + 2 * p));
        }
        if (has_otherwise && !MEV_control) MEV_exec(MEV_arg(e, MEV_nargs(e)));
    }
    consume_break();
    return closing(context);
}

bool read_back_real(Cell var, Cell* value) {
    Cell v = read_variable(var);
    if (!is_real(v)) {
        MMM_release(v);
        return false;
    }
    *value = v;
    return true;
}

Cell stmt_for(Cell e, int context, unsigned flags, bool down) {
    Cell out;
    if (opening(e, flags, &out)) return out;
    if (MEV_nargs(e) != 5) MER_raise(MER_WRONG_ARG_COUNT, down ? "_for_down" : "_for");
    clear_last_value();
    Cell var = MEV_arg(e, 1);
    MMM_ref start(eval_real(MEV_arg(e, 2), MFN_ID_PLUS));
    MMM_ref step(MEV_arg(e, 4) == MMM_NIL ? MMM_retained(MAR_ONE) : eval_real(MEV_arg(e, 4), MFN_ID_PLUS));
    MMM_ref stop(eval_real(MEV_arg(e, 3), MFN_ID_PLUS));
    check_loop_variable(var);
    if (MAR_compare(step.get(), MAR_ZERO) <= 0) MER_raise(MER_POSITIVE_EXPECTED, nullptr);
    assign_variable(var, start.get(), 0);
    MMM_ref counter(MMM_retained(start.get()));
    while ((down ? MAR_compare(counter.get(), stop.get()) >= 0 : MAR_compare(counter.get(), stop.get()) <= 0) &&
           !MEV_control) {
        MEV_exec(MEV_arg(e, 5));
        counter.reset();
        if (!read_back_real(var, counter.slot())) MER_raise(MER_MESSAGE, "_for", "Illegal assignment to loop variable");
        counter.reset(down ? MAR_subtract(counter.get(), step.get())
                           : MAR_binop(counter.get(), step.get(), nullptr, MAR_ADD));
        consume_next();
        if (!MEV_control) assign_variable(var, counter.get(), 0);
    }
    consume_break();
    return closing(context);
}

Cell stmt_for_up(Cell e, int context, unsigned flags, Cell) { return stmt_for(e, context, flags, false); }
Cell stmt_for_down(Cell e, int context, unsigned flags, Cell) { return stmt_for(e, context, flags, true); }

// The operands a container gives for `for ... in` and `$ ... in`.
std::vector<Cell> members(Cell v) {
    std::vector<Cell> out;
    if (v == MMM_NULL) return out;
    switch (MMM_category(v)) {
    case DOM_LIST:
        for (long i = 0; i < MMM_child_count(v); ++i) out.push_back(MMM_child(v, i));
        return out;
    case DOM_SET: {
        MMM_table_walker w(MMM_child(v, MMM_TABLE_HASH));
        Cell key, value;
        while (w.next(&key, &value)) out.push_back(key);
        return out;
    }
    case DOM_EXPR:
        for (long i = 1; i < MMM_child_count(v); ++i) out.push_back(MMM_child(v, i));
        return out;
    default:
        out.push_back(v);
        return out;
    }
}

Cell stmt_for_in(Cell e, int context, unsigned flags, Cell) {
    Cell out;
    if (opening(e, flags, &out)) return out;
    if (MEV_nargs(e) != 3) MER_raise(MER_WRONG_ARG_COUNT, "_for_in");
    clear_last_value();
    check_loop_variable(MEV_arg(e, 1));
    {
        MMM_ref container(MEV_eval(MEV_arg(e, 2), MEV_CONTEXT_FREE, 0));
        for (Cell m : members(container.get())) {
            if (MEV_control) break;
            assign_variable(MEV_arg(e, 1), m, 0);
            MEV_exec(MEV_arg(e, 3));
            consume_next();
        }
        leave_loop();
    }
    return closing(context);
}

Cell stmt_while(Cell e, int context, unsigned flags, Cell) {
    Cell out;
    if (opening(e, flags, &out)) return out;
    if (MEV_nargs(e) != 2) MER_raise(MER_WRONG_ARG_COUNT, "_while");
    clear_last_value();
    while (!MEV_control) {
        const int b = MEV_bool(MEV_arg(e, 1));
        if (b == MMM_BOOL_FALSE) break;
        if (b != MMM_BOOL_TRUE) MER_raise(b ? MER_UNEXPECTED_UNKNOWN : MER_NOT_BOOLEAN, "_while");
        MEV_exec(MEV_arg(e, 2));
        consume_next();
    }
    leave_loop();
    return closing(context);
}

Cell stmt_repeat(Cell e, int context, unsigned flags, Cell) {
    Cell out;
    if (opening(e, flags, &out)) return out;
    if (MEV_nargs(e) != 2) MER_raise(MER_WRONG_ARG_COUNT, "_repeat");
    clear_last_value();
    while (!MEV_control) {
        MEV_exec(MEV_arg(e, 1));
        consume_next();
        if (MEV_control) break;
        const int b = MEV_bool(MEV_arg(e, 2));
        if (b == MMM_BOOL_TRUE) break;
        if (b != MMM_BOOL_FALSE) MER_raise(b ? MER_UNEXPECTED_UNKNOWN : MER_NOT_BOOLEAN, "_repeat");
    }
    leave_loop();
    return closing(context);
}

Cell stmt_transfer(Cell e, int context, unsigned flags, MEV_control_code control) {
    Cell out;
    if (opening(e, flags, &out)) return out;
    if (MEV_nargs(e) > 1) MER_raise(MER_WRONG_ARG_COUNT, name_of(e).c_str());
    if (MEV_nargs(e) == 1) {
        // The count is checked; one loop is left whatever it says.
        Cell n = MEV_eval(MEV_arg(e, 1), MEV_CONTEXT_ARGUMENT, 0);
        const bool ok = MMM_category(n) == DOM_INT && MAR_small_int(n) != 0;
        MMM_release(n);
        if (!ok) MER_raise(MER_INTEGER_EXPECTED, name_of(e).c_str());
    }
    MEV_control = control;
    MEV_control_count = 1;
    if (context == MEV_CONTEXT_STATEMENT) return nullptr;
    MEV_check_legal(context, MMM_NULL);
    return MMM_retained(MMM_NULL);
}

Cell stmt_next(Cell e, int context, unsigned flags, Cell) { return stmt_transfer(e, context, flags, MEV_CONTROL_NEXT); }
Cell stmt_break(Cell e, int context, unsigned flags, Cell) { return stmt_transfer(e, context, flags, MEV_CONTROL_BREAK); }

Cell stmt_quit(Cell e, int context, unsigned flags, Cell) {
    Cell out;
    if (opening(e, flags, &out)) return out;
    if (MEV_nargs(e) != 0) MER_raise(MER_WRONG_ARG_COUNT, name_of(e).c_str());
    if (!MEV_quit_hook || MEV_quit_hook()) MEV_control = MEV_CONTROL_QUIT;
    return closing(context);
}

// return(x): evaluated by the front; ends the running sequence.
Cell builtin_return(Cell e, int, unsigned, Cell) {
    Cell v;
    if (MEV_nargs(e) == 0) {
        v = MMM_retained(MMM_NULL);
    } else if (MEV_nargs(e) == 1) {
        v = MMM_retained(MEV_arg(e, 1));
    } else {
        v = MMM_retained(e);
        MMM_clone(&v);
        MMM_release(MMM_children(v)[0]);
        MMM_children(v)[0] = MMM_retained(MMM_ident_by_id(MFN_ID_EXPRSEQ));
        MMM_sign(v);
    }
    MEV_control = MEV_CONTROL_RETURN;
    set_last_value(v);
    return v;
}

Cell stmt_delete(Cell e, int context, unsigned flags, unsigned set_flags) {
    Cell out;
    if (opening(e, flags, &out)) return out;
    for (long i = 1; i < MMM_child_count(e); ++i) {
        Cell x = MEV_arg(e, i);
        if (MMM_is_call_of(x, MFN_ID_INDEX)) assign_index(x, nullptr, set_flags);
        else if (MMM_category(x) == DOM_IDENT) MMM_release(MMM_set_value(x, nullptr, set_flags | MMM_SET_NIL_DELETES, MMM_current_frame));
        else if (MMM_category(x) == DOM_VAR) assign_variable(x, MMM_NIL, set_flags);
        else MER_raise(MER_INVALID_LHS, nullptr);
    }
    return closing(context);
}

Cell stmt_delete_plain(Cell e, int context, unsigned flags, Cell) { return stmt_delete(e, context, flags, 0); }
Cell stmt_sysdelete(Cell e, int context, unsigned flags, Cell) {
    return stmt_delete(e, context, flags, MMM_SET_PRIVILEGED);
}

Cell stmt_save(Cell e, int context, unsigned flags, Cell) {
    Cell out;
    if (opening(e, flags, &out)) return out;
    if (!MEV_frame) MER_raise(MER_NOT_INTERACTIVE, nullptr);
    for (long i = 1; i < MMM_child_count(e); ++i)
        if (MMM_category(MEV_arg(e, i)) != DOM_IDENT) MER_raise(MER_ILLEGAL_ARGUMENT, "_save");
    for (long i = 1; i < MMM_child_count(e); ++i) MEV_frame_save(MEV_arg(e, i));
    return closing(context);
}

// ---- the `$` forms ----

// Evaluates body once for each value, the variable saved and restored around it.
Cell sequence_over(Cell body, Cell var, const std::vector<Cell>& values) {
    std::vector<MMM_ref> results;
    Cell saved = nullptr;
    const bool ident = MMM_category(var) == DOM_IDENT;
    if (ident) {
        Cell b = MMM_binding_find(var, MMM_current_frame);
        saved = b ? MMM_child(b, 0) : nullptr;
        MMM_retain(saved);
    }
    auto restore = [&] {
        if (ident) MMM_release(MMM_set_value(var, saved, 0, MMM_current_frame));
        MMM_release(saved);
    };
    try {
        if (ident) MMM_release(MMM_set_value(var, MMM_NULL, 0, MMM_current_frame));
        for (Cell v : values) {
            assign_variable(var, v, 0);
            MMM_ref r(MEV_eval(body, MEV_CONTEXT_ARGUMENT, 0));
            if (r && r.get() != MMM_NULL) results.push_back(std::move(r));
        }
    } catch (...) {
        restore();
        throw;
    }
    restore();
    if (results.empty()) return MMM_retained(MMM_NULL);
    Cell s = MMM_make_expr(long(results.size()) + 1);
    MMM_children(s)[0] = MMM_retained(MMM_ident_by_id(MFN_ID_EXPRSEQ));
    for (size_t i = 0; i < results.size(); ++i) MMM_children(s)[i + 1] = results[i].take();
    MMM_sign(s);
    return s;
}

// Bytes a cell takes in the heap, with its children when it is a number (a node and its
// block); a shared small integer costs nothing more.
long cell_bytes(Cell c) {
    if (c == MAR_ZERO || c == MAR_ONE || c == MAR_TWO || c == MAR_MINUS_ONE) return 0;
    auto one = [](Cell x) {
        const long total = MMM_total(x->size, MMM_child_count(x));
        return total <= MMM_POOL_LIMIT ? long(MMM_class_bytes[MMM_class_of(total)]) : total + MMM_BIG_EXTRA;
    };
    long bytes = one(c);
    if (MAR_is_number(c))
        for (long i = 0; i < MMM_child_count(c); ++i) bytes += one(MMM_child(c, i));
    return bytes;
}

// The most values a sequence may have, whatever the memory: 10^8 values take gigabytes
// and minutes to make and print.
constexpr long MAX_VALUES = 100000000;

// The most values of `per_value` bytes each (beside its place in the result) that a
// sequence may have: half of what the heap and the process may still take, since what
// consumes the sequence (a list made of it, its printing) needs about as much again.
long sequence_room(long per_value) {
    const uint64_t room = std::min<uint64_t>(MMM_ceiling_room(), MSY_memory_room()) / 2;
    const uint64_t each = uint64_t(per_value) + sizeof(Cell);
    return long(std::min<uint64_t>(room / each, uint64_t(LONG_MAX)));
}

// The values a..b (or a..b step s) of a range.
// The values are held in `owned`; the range and step_value are borrowed.
std::vector<Cell> range_values(Cell range, Cell step_value, std::vector<MMM_ref>& owned) {
    std::vector<Cell> out;
    if (!MMM_is_call_of(range, MFN_ID_RANGE) || MEV_nargs(range) != 2) MER_raise(MER_INCOMPATIBLE_RANGE, nullptr);
    Cell lo = MEV_arg(range, 1), hi = MEV_arg(range, 2);
    if (!is_real(lo) || !is_real(hi)) MER_raise(MER_REAL_EXPECTED, nullptr);
    Cell step = step_value ? step_value : MAR_ONE;
    if (!is_real(step) || MAR_compare(step, MAR_ZERO) <= 0) MER_raise(MER_POSITIVE_EXPECTED, nullptr);
    // A sequence of MAX_VALUES values or more, or longer than the memory left holds, is
    // refused before any of it is made. Each value takes its place in the list being
    // built and its owner (two words) and its cells.
    if (MAR_compare(lo, hi) <= 0) {
        MMM_ref span(MAR_binop(hi, lo, nullptr, MAR_SUBTRACT));
        MMM_ref steps(MAR_binop(span.get(), step, nullptr, MAR_DIVIDE));
        const long per_value = 2 * long(sizeof(Cell)) + std::max(cell_bytes(lo), cell_bytes(hi));
        // `steps` is the count less one.
        MMM_ref limit(MMM_make_integer(std::min({MAX_VALUES - 1, MMM_MAX_CHILDREN - 1, sequence_room(per_value)})));
        if (MAR_compare(steps.get(), limit.get()) >= 0) MER_raise(MER_OUT_OF_MEMORY, "_seqgen");
    }
    for (MMM_ref v(MMM_retained(lo)); MAR_compare(v.get(), hi) <= 0;) {
        Cell c = v.get();
        owned.push_back(std::move(v));
        out.push_back(c);
        v.reset(MAR_binop(c, step, nullptr, MAR_ADD));
        if (MAR_compare(v.get(), hi) > 0) break;
        if (out.size() >= size_t(MAX_VALUES)) MER_raise(MER_OUT_OF_MEMORY, "_seqgen");
    }
    return out;
}

// `$ a..b` and `$ a..b step s`: the values themselves. The operands are borrowed and
// not yet evaluated; `step` may be null.
Cell range_sequence(Cell range, Cell step) {
    std::vector<MMM_ref> owned;
    MMM_ref r(MEV_eval(range, MEV_CONTEXT_ARGUMENT, 0));
    MMM_ref s(step ? MEV_eval(step, MEV_CONTEXT_ARGUMENT, 0) : nullptr);
    std::vector<Cell> values = range_values(r.get(), s.get(), owned);
    if (values.empty()) return MMM_retained(MMM_NULL);
    Cell result = MMM_make_expr(long(values.size()) + 1);
    MMM_children(result)[0] = MMM_retained(MMM_ident_by_id(MFN_ID_EXPRSEQ));
    for (size_t i = 0; i < values.size(); ++i) MMM_children(result)[i + 1] = MMM_retained(values[i]);
    MMM_sign(result);
    return result;
}

Cell builtin_seqgen(Cell e, int, unsigned, Cell) {
    // The operands are evaluated by the front, except the body, which the raw form takes.
    std::vector<MMM_ref> owned;
    if (MEV_nargs(e) == 1) return range_sequence(MEV_arg(e, 1), nullptr);
    const bool stepped = MMM_is_call_of(e, MFN_ID_SEQSTEP);
    if (stepped && MEV_nargs(e) == 2) return range_sequence(MEV_arg(e, 1), MEV_arg(e, 2));
    // x $ a..b step s repeats x no more than x $ a..b does: the count must be a number.
    if (stepped && MEV_nargs(e) == 3) MER_raise(MER_INTEGER_EXPECTED, "_seqstep");
    if (MEV_nargs(e) == 2) {
        long count;
        {
            MMM_ref n(MEV_eval(MEV_arg(e, 2), MEV_CONTEXT_ARGUMENT, 0));
            if (MMM_category(n.get()) != DOM_INT) {
                const bool big = MMM_category(n.get()) == CAT_BIG_INT;
                MER_raise(big ? MER_INTEGER_TOO_LARGE : MER_INTEGER_EXPECTED, name_of(e).c_str());
            }
            count = MAR_small_int(n.get());
        }
        if (count <= 0) return MMM_retained(MMM_NULL);
        // The values are x's, evaluated anew: the result's children are counted.
        if (count >= MAX_VALUES || count > std::min(MMM_MAX_CHILDREN - 1, sequence_room(0)))
            MER_raise(MER_OUT_OF_MEMORY, "_seqgen");
        MMM_ref result(MMM_make_expr(count + 1));
        Cell* c = MMM_children(result.get());
        c[0] = MMM_retained(MMM_ident_by_id(MFN_ID_EXPRSEQ));
        for (long i = 1; i <= count; ++i) c[i] = nullptr;
        for (long i = 1; i <= count; ++i) c[i] = MEV_eval(MEV_arg(e, 1), MEV_CONTEXT_ARGUMENT, 0);
        MMM_sign(result.get());
        return result.take();
    }
    if (MEV_nargs(e) == 3 || MEV_nargs(e) == 4) {
        MMM_ref r(MEV_eval(MEV_arg(e, 3), MEV_CONTEXT_ARGUMENT, 0));
        MMM_ref s(MEV_nargs(e) == 4 ? MEV_eval(MEV_arg(e, 4), MEV_CONTEXT_ARGUMENT, 0) : nullptr);
        const std::vector<Cell> values = range_values(r.get(), s.get(), owned);
        check_loop_variable(MEV_arg(e, 2));
        return sequence_over(MEV_arg(e, 1), MEV_arg(e, 2), values);
    }
    MER_raise(MER_WRONG_ARG_COUNT, name_of(e).c_str());
}

Cell builtin_seqin(Cell e, int, unsigned, Cell) {
    if (MEV_nargs(e) != 3) MER_raise(MER_WRONG_ARG_COUNT, "_seqin");
    check_loop_variable(MEV_arg(e, 2));
    MMM_ref container(MEV_eval(MEV_arg(e, 3), MEV_CONTEXT_ARGUMENT, 0));
    return sequence_over(MEV_arg(e, 1), MEV_arg(e, 2), members(container.get()));
}

// ---- boolean connectives ----

int truth_of(Cell v) {
    if (v == MMM_TRUE) return MMM_BOOL_TRUE;
    if (v == MMM_FALSE) return MMM_BOOL_FALSE;
    if (v == MMM_UNKNOWN) return MMM_BOOL_UNKNOWN;
    return 0;
}

Cell bool_cell(int b) {
    return MMM_retained(b == MMM_BOOL_TRUE ? MMM_TRUE : b == MMM_BOOL_FALSE ? MMM_FALSE : MMM_UNKNOWN);
}

Cell builtin_not(Cell e, int, unsigned, Cell) {
    MEV_need_args(e, 1, 1);
    switch (truth_of(MEV_arg(e, 1))) {
    case MMM_BOOL_TRUE: return MMM_retained(MMM_FALSE);
    case MMM_BOOL_FALSE: return MMM_retained(MMM_TRUE);
    case MMM_BOOL_UNKNOWN: return MMM_retained(MMM_UNKNOWN);
    default:
        MEV_check_legal(MFN_ID_OR, MEV_arg(e, 1));
        return MMM_retained(e);
    }
}

// Three-valued and/or, left to right, stopping as soon as the result is decided. The
// lazy forms stand in conditions, where an operand's truth value is what counts: they
// decide relations by MEV_truth; the plain forms take only booleans as truth values.
Cell lazy(Cell e, unsigned flags, bool is_and, bool decide) {
    Cell out;
    if (opening(e, flags, &out)) return out;
    const int stop = is_and ? MMM_BOOL_FALSE : MMM_BOOL_TRUE;
    int result = is_and ? MMM_BOOL_TRUE : MMM_BOOL_FALSE;
    std::vector<MMM_ref> symbolic;
    for (long i = 1; i < MMM_child_count(e); ++i) {
        MMM_ref v(MEV_eval(MEV_arg(e, i), is_and ? MFN_ID_AND : MFN_ID_OR, 0));
        const int b = decide ? MEV_truth(v.get()) : truth_of(v.get());
        if (b == stop) return bool_cell(stop);
        if (b == MMM_BOOL_UNKNOWN) result = MMM_BOOL_UNKNOWN;
        else if (!b) symbolic.push_back(std::move(v));
    }
    if (symbolic.empty()) return bool_cell(result);
    if (result == MMM_BOOL_UNKNOWN) symbolic.emplace_back(MMM_retained(MMM_UNKNOWN));
    if (symbolic.size() == 1) return symbolic[0].take();
    Cell r = MMM_make_expr(long(symbolic.size()) + 1);
    MMM_children(r)[0] = MMM_retained(MMM_ident_by_id(is_and ? MFN_ID_AND : MFN_ID_OR));
    for (size_t i = 0; i < symbolic.size(); ++i) MMM_children(r)[i + 1] = symbolic[i].take();
    MMM_sign(r);
    return r;
}

Cell builtin_lazy_and(Cell e, int, unsigned flags, Cell) { return lazy(e, flags, true, true); }
Cell builtin_lazy_or(Cell e, int, unsigned flags, Cell) { return lazy(e, flags, false, true); }

// _and and _or have all their operands evaluated by the front.
Cell builtin_and_or(Cell e, int, unsigned, Cell) {
    const bool is_and = MMM_child(e, 0) == MMM_ident_by_id(MFN_ID_AND);
    return lazy(e, MEV_ARGS_FLAT, is_and, false);
}

// a[i]: lists by position (negative from the end, a range gives a sublist), strings by
// character, tables by key, arrays by their indices; anything else, a key a table lacks,
// an unset array entry or a symbolic position stays as the call.
Cell builtin_index(Cell e, int, unsigned, Cell) {
    if (MEV_nargs(e) < 2) MER_raise(MER_WRONG_ARG_COUNT, "_index");
    Cell c = MEV_arg(e, 1);
    const int cat = MMM_category(c);
    if (cat == DOM_TABLE) {
        Cell found = nullptr;
        if (MMM_table_lookup(MMM_child(c, MMM_TABLE_HASH), e, 2, &found) && found) return MMM_retained(found);
        return MMM_retained(e);
    }
    if (cat == DOM_ARRAY) return MEV_array_read(e);
    if ((cat != DOM_LIST && cat != DOM_STRING) || MEV_nargs(e) != 2) return MMM_retained(e);
    const std::string_view text = cat == DOM_STRING ? MMM_string_view(MMM_child(c, 0)) : std::string_view();
    const long n = cat == DOM_LIST ? MMM_child_count(c) : long(text.size());
    Cell i = MEV_arg(e, 2);
    auto symbolic = [](Cell x) { return MMM_category(x) == DOM_IDENT || MMM_category(x) == DOM_EXPR; };
    // The position counted from 1, a negative one from the end.
    auto from_end = [&](Cell x) -> long {
        if (MMM_category(x) != DOM_INT) MER_raise(MER_ILLEGAL_INDEX_TYPE, nullptr);
        const long k = MAR_small_int(x);
        return k < 0 ? n + 1 + k : k;
    };
    auto position = [&](Cell x) -> long {
        const long k = from_end(x);
        if (k < 1 || k > n) MER_raise(MER_INDEX_OUT_OF_RANGE, nullptr);
        return k;
    };
    if (MMM_is_call_of(i, MFN_ID_RANGE) && MEV_nargs(i) == 2) {
        if (symbolic(MEV_arg(i, 1)) || symbolic(MEV_arg(i, 2))) return MMM_retained(e);
        // An empty range is NULL wherever it lies; the bounds of another must be inside.
        if (from_end(MEV_arg(i, 1)) > from_end(MEV_arg(i, 2))) return MMM_retained(MMM_NULL);
        const long lo = position(MEV_arg(i, 1)), hi = position(MEV_arg(i, 2));
        if (cat == DOM_STRING) return MMM_make_string(text.substr(size_t(lo - 1), size_t(hi - lo + 1)));
        Cell l = MMM_make_list(hi - lo + 1);
        for (long k = lo; k <= hi; ++k) MMM_children(l)[k - lo] = MMM_retained(MMM_child(c, k - 1));
        MMM_sign(l);
        return l;
    }
    if (MMM_category(i) != DOM_INT) {
        if (symbolic(i)) return MMM_retained(e);
        MER_raise(MER_ILLEGAL_INDEX_TYPE, nullptr);
    }
    const long k = position(i);
    if (cat == DOM_STRING) return MMM_make_string(text.substr(size_t(k - 1), 1));
    return MMM_retained(MMM_child(c, k - 1));
}

}  // namespace

void (*MEV_variable_writer)(Cell var, Cell value) = nullptr;

void MEV_exec(Cell stmt) {
    if (stmt == MMM_NIL) return;  // an empty block, or a missing else part: no statement
    Cell v = MEV_eval(stmt, MEV_CONTEXT_STATEMENT, 0);
    if (!v) return;
    MMM_release(MEV_last_value);
    MEV_last_value = v;
    ++MEV_value_pending;
    if (MEV_frame) MEV_ring_enter(v);
}

int MEV_bool(Cell cond) {
    MMM_ref v(MEV_eval(cond, MEV_CONTEXT_FREE, 0));
    return MEV_truth(v.get());
}

void MEV_stmt_start() {
}

namespace {
// Statements take their operands unevaluated.
const MFN_builtin builtins[] = {
    {.name = "_stmtseq", .routine = stmt_stmtseq, .raw = true},
    {.name = "_assign", .routine = stmt_assign_plain, .raw = true},
    {.name = "sysassign", .routine = stmt_sysassign, .raw = true},
    {.name = "_if", .routine = stmt_if, .raw = true},
    {.name = "_case", .routine = stmt_case, .raw = true},
    {.name = "_for", .routine = stmt_for_up, .raw = true},
    {.name = "_for_down", .routine = stmt_for_down, .raw = true},
    {.name = "_for_in", .routine = stmt_for_in, .raw = true},
    {.name = "_while", .routine = stmt_while, .raw = true},
    {.name = "_repeat", .routine = stmt_repeat, .raw = true},
    {.name = "_next", .routine = stmt_next, .raw = true},
    {.name = "_break", .routine = stmt_break, .raw = true},
    {.name = "_quit", .routine = stmt_quit, .raw = true},
    {.name = "_delete", .routine = stmt_delete_plain, .raw = true},
    {.name = "sysdelete", .routine = stmt_sysdelete, .raw = true},
    {.name = "_save", .routine = stmt_save, .raw = true},
    {.name = "_lazy_and", .routine = builtin_lazy_and, .raw = true},
    {.name = "_lazy_or", .routine = builtin_lazy_or, .raw = true},
    {.name = "_seqgen", .routine = builtin_seqgen, .raw = true},
    {.name = "_seqstep", .routine = builtin_seqgen, .raw = true},
    {.name = "_seqin", .routine = builtin_seqin, .raw = true},
    {.name = "return", .routine = builtin_return},
    {.name = "_index", .routine = builtin_index},
    {.name = "_not", .routine = builtin_not},
    {.name = "_and", .routine = builtin_and_or},
    {.name = "_or", .routine = builtin_and_or},
};
}  // namespace

const MFN_builtin_table MEV_stmt_builtins = builtins;

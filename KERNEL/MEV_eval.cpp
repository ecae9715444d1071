// The evaluation core: dispatch by category, the legality table, identifiers, calls,
// arguments and sequences, and the front of the built-ins.
#include "MEV_eval.h"
#include "MEV_builtins.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "MAR_numbers.h"
#include "MER_error.h"
#include "MEV_stmt.h"
#include "MFN_env.h"
#include "MFN_layout.h"
#include "MFN_table.h"
#include "MMM_containers.h"
#include "MMM_heap.h"
#include "MMM_ident.h"
#include "MMM_ref.h"
#include "MMM_table.h"
#include "MPA_reader.h"
#include "MSY_process.h"

bool (*MEV_quit_hook)() = nullptr;
int32_t MEV_level = 100;
int32_t MEV_level_saved = 100;
int32_t MEV_max_level = 100;
int32_t MEV_max_depth = 500;
int32_t MEV_depth = 0;
int32_t MEV_call_depth = 0;
Cell MEV_frame = nullptr;
uint32_t MEV_steps = 0;
MEV_control_code MEV_control = MEV_CONTROL_NONE;
int16_t MEV_control_count = 0;
Cell MEV_last_value = nullptr;
int32_t MEV_value_pending = 0;
MEV_routine MEV_dispatch[MMM_CATEGORY_COUNT];
MEV_procedure_hooks_record MEV_procedure_hooks;

namespace {

constexpr int ROWS = 29;
constexpr int COLUMNS = 73;
uint16_t legality[ROWS][COLUMNS];

bool is_ident(Cell c) { return c && MMM_kind_of(c) == MMM_NODE && MMM_category(c) == DOM_IDENT; }
bool is_expr(Cell c) { return c && MMM_kind_of(c) == MMM_NODE && MMM_category(c) == DOM_EXPR; }

// The legality column of a value: the operator id for an expression of an operator with
// an id up to 29, 22 for other expressions, 30 + category for all other values.
int column_of(Cell v) {
    const int cat = MMM_category(v);
    if (cat != DOM_EXPR) return 30 + cat;
    Cell op = MMM_child(v, 0);
    if (is_ident(op))
        if (const int id = MMM_operator_id(op)) return id;
    return 22;
}

const char* row_name(int row) { return row == 24 ? "divide" : MFN_env_name(row); }

[[noreturn]] void refuse(uint16_t code, int row) { MER_raise(code, row_name(row)); }

// The context flag: the associative operators flatten their own kind.
bool associative(int context) {
    switch (context) {
    case MFN_ID_EXPRSEQ: case MFN_ID_OR: case MFN_ID_AND: case MFN_ID_UNION: case MFN_ID_INTERSECT:
    case MFN_ID_PLUS: case MFN_ID_MULT: case MFN_ID_CONCAT: case MFN_ID_FCONCAT:
        return true;
    default:
        return false;
    }
}

void fill_legality() {
    for (auto& row : legality)
        for (auto& e : row) e = MER_ILLEGAL_OPERAND;
    auto allow_all = [](int r) {
        for (auto& e : legality[r]) e = 0;
    };
    auto allow = [](int r, std::initializer_list<int> categories, std::initializer_list<int> operator_columns) {
        for (int c : categories) legality[r][30 + c] = 0;
        for (int c : operator_columns) legality[r][c] = 0;
    };
    auto all_operator_columns = [](int r) {
        for (int c = 0; c < 30; ++c) legality[r][c] = 0;
    };
    auto all_categories_but = [](int r, std::initializer_list<int> refused) {
        for (int c = 0; c < MMM_CATEGORY_COUNT && 30 + c < COLUMNS; ++c) legality[r][30 + c] = 0;
        for (int c : refused) legality[r][30 + c] = MER_ILLEGAL_OPERAND;
    };
    for (int r : {0, 1, 7, 8, 22}) allow_all(r);
    for (int r : {4, 9, 19}) {
        all_categories_but(r, {DOM_PROC_ENV});
        all_operator_columns(r);
    }
    all_categories_but(18, {DOM_PROC_ENV, DOM_POLY, DOM_RPOLY});
    all_operator_columns(18);
    all_categories_but(28, {DOM_PROC_ENV});
    all_operator_columns(28);
    const std::initializer_list<int> callables = {DOM_FUNC_ENV, DOM_VAR, DOM_PROC, DOM_EXT, DOM_RPOLY, DOM_BYTECODE};
    for (int r : {2, 3}) {
        allow(r, {DOM_BOOL, DOM_NULL, DOM_IDENT, DOM_EXPR}, {1, 2, 3, 4, 5, 6, 7, 8, 18, 22, 28, 29});
        allow(r, callables, {});
    }
    for (int r : {5, 6}) {
        allow(r, {CAT_BIG_INT, DOM_FLOAT, DOM_INT, DOM_RAT, DOM_INTERVAL, DOM_STRING, DOM_NULL, DOM_IDENT, DOM_EXPR},
              {1, 4, 5, 6, 7, 8, 10, 15, 16, 17, 18, 22, 24, 25, 26, 27, 28, 29});
        allow(r, callables, {});
    }
    // `div` takes what `mod` takes: integers and rationals, and the symbolic values.
    for (int r : {10, 11}) {
        allow(r, {CAT_BIG_INT, DOM_INT, DOM_RAT, DOM_NULL, DOM_IDENT, DOM_EXPR}, {1, 10, 11, 15, 16, 17, 18, 22, 24, 25, 26, 27});
        allow(r, callables, {});
    }
    for (int r : {20, 21, 23}) allow(r, {DOM_EXPR}, {}), allow(r, callables, {});
    for (int r : {12, 13, 14}) {
        allow(r, {DOM_NULL, DOM_IDENT, DOM_SET, DOM_EXPR}, {1, 4, 12, 13, 14, 18, 22, 28, 29});
        allow(r, callables, {});
        if (r != 13) allow(r, {DOM_INTERVAL}, {});
    }
    for (int r : {15, 16, 24, 25, 26, 27, 17}) {
        allow(r, {CAT_BIG_INT, DOM_FLOAT, DOM_INT, DOM_RAT, DOM_COMPLEX, DOM_INTERVAL, DOM_NULL, DOM_IDENT, DOM_SET,
                  DOM_EXPR, DOM_POLY, DOM_FAIL},
              {});
        allow(r, callables, {});
        if (r == 17) allow(r, {}, {1, 10, 15, 16, 17, 18, 19, 22, 24, 25, 26, 27});
        else allow(r, {}, {1, 4, 5, 6, 7, 8, 10, 15, 16, 17, 18, 19, 22, 24, 25, 26, 27, 28, 29});
    }
}

// ---- routines by category ----

Cell eval_constant(Cell c, int context, unsigned) {
    MEV_check_legal(context, c);
    return MMM_retained(c);
}

Cell eval_never(Cell c, int, unsigned) { MER_raise(MER_INTERNAL, "evaluation of an internal cell"); (void)c; }

Cell eval_ident(Cell c, int context, unsigned flags) {
    if (flags & MEV_HOLD) {
        MEV_check_legal(context, c);
        return MMM_retained(c);
    }
    if (MEV_max_level != 2147483647 && MEV_depth >= MEV_max_level) MER_raise(MER_RECURSIVE_DEFINITION, "See ?MAXLEVEL");
    if (MEV_depth >= MEV_level) {
        MEV_check_legal(context, c);
        return MMM_retained(c);
    }
    if (context == MEV_CONTEXT_STATEMENT) context = MEV_CONTEXT_ARGUMENT;
    Cell value = MMM_value(c);
    if (!value) {
        MEV_check_legal(context, c);
        return MMM_retained(c);
    }
    const int cat = MMM_category(value);
    if ((cat == DOM_TABLE || cat == DOM_ARRAY) && MMM_child_count(value) >= 2) {
        // The container remembers the name it was read through, for messages.
        Cell box = MMM_child(value, 1);
        if (MMM_kind_of(box) == MMM_BOX && MMM_child(box, 0) != c) {
            MMM_release(MMM_children(box)[0]);
            MMM_children(box)[0] = MMM_retained(c);
        }
    }
    if (MEV_max_level != 2147483647 && MEV_depth + 1 >= MEV_max_level) {
        MMM_release(value);
        MER_raise(MER_RECURSIVE_DEFINITION, "See ?MAXLEVEL");
    }
    if (MEV_depth + 1 < MEV_level) {
        MMM_ref owned(value);
        ++MEV_depth;
        Cell result;
        try {
            result = MEV_eval(value, context, flags);
        } catch (...) {
            --MEV_depth;
            throw;
        }
        --MEV_depth;
        return result;
    }
    return value;
}

Cell eval_var(Cell c, int context, unsigned flags) {
    MEV_check_legal(context, c);
    if (flags & MEV_HOLD) return MMM_retained(c);
    if (!MEV_procedure_hooks.variable || !MEV_frame) MER_raise(MER_ILLEGAL_VARIABLE_CONTEXT, nullptr);
    return MEV_procedure_hooks.variable(c, context, flags);
}

// Lists: elements evaluated, sequences spliced, NULL dropped.
Cell eval_list(Cell c, int context, unsigned flags) {
    MEV_check_legal(context, c);
    if (flags & MEV_HOLD) return MMM_retained(c);
    const long n = MMM_child_count(c);
    std::vector<Cell> values;
    bool changed = false;
    values.reserve(size_t(n));
    for (long i = 0; i < n; ++i) {
        Cell e = MMM_child(c, i);
        Cell v = MEV_eval(e, MEV_CONTEXT_ARGUMENT, 0);
        if (v != e) changed = true;
        if (is_expr(v) && MMM_child(v, 0) == MMM_ident_by_id(MFN_ID_EXPRSEQ)) {
            for (long k = 1; k < MMM_child_count(v); ++k) values.push_back(MMM_retained(MMM_child(v, k)));
            MMM_release(v);
            changed = true;
        } else if (v == MMM_NULL) {
            MMM_release(v);
            changed = true;
        } else {
            values.push_back(v);
        }
    }
    if (!changed) {
        for (Cell v : values) MMM_release(v);
        return MMM_retained(c);
    }
    Cell l = MMM_make_list(long(values.size()));
    for (size_t i = 0; i < values.size(); ++i) MMM_children(l)[i] = values[i];
    MMM_sign(l);
    return l;
}

// Sets: elements evaluated and added by the rule of sets (a sequence element by element,
// NULL not at all). The new set is made only at the first element that changes, so a set
// of values evaluates to itself without a copy.
Cell eval_set(Cell c, int context, unsigned flags) {
    MEV_check_legal(context, c);
    if (flags & MEV_HOLD) return MMM_retained(c);
    Cell elements = MMM_child(c, 0);
    Cell result = nullptr;
    long passed = 0;  // elements before the current one, all unchanged while result is null
    MMM_table_walker w(elements);
    Cell key, value;
    while (w.next(&key, &value)) {
        Cell v = MEV_eval(key, MEV_CONTEXT_ARGUMENT, 0);
        const bool same = v == key && v != MMM_NULL && !(is_expr(v) && MMM_child(v, 0) == MMM_ident_by_id(MFN_ID_EXPRSEQ));
        if (!result && !same) {
            result = MMM_make_set(MMM_table_count(elements));
            MMM_table_walker before(elements);
            Cell k, unused;
            for (long i = 0; i < passed && before.next(&k, &unused); ++i) MMM_table_add(&MMM_children(result)[MMM_TABLE_HASH], k, nullptr);
        }
        if (result) MMM_set_insert(&MMM_children(result)[0], v);
        MMM_release(v);
        ++passed;
    }
    if (!result) return MMM_retained(c);
    MMM_sign(result);
    return result;
}

Cell eval_proc(Cell c, int context, unsigned flags) {
    MEV_check_legal(context, c);
    if (!(flags & MEV_HOLD) && MEV_procedure_hooks.closure) return MEV_procedure_hooks.closure(c, context, flags);
    return MMM_retained(c);
}

Cell eval_debug(Cell, int context, unsigned) {
    MSY_poll();
    return context == MEV_CONTEXT_STATEMENT ? nullptr : MMM_retained(MMM_NULL);
}

// ---- calls ----

// A copy of expr with another operator (taken over), signed.
Cell with_operator(Cell expr, Cell op) {
    Cell e = MMM_retained(expr);
    MMM_clone(&e);
    MMM_release(MMM_children(e)[0]);
    MMM_children(e)[0] = op;
    MMM_sign(e);
    return e;
}

// Arguments of a symbolic call, as the flags say.
Cell symbolic_args(Cell expr, unsigned flags) {
    if (flags & (MEV_HOLD | MEV_ARGS_FLAT)) return MMM_retained(expr);
    if (flags & MEV_ARGS_SPLICE) {
        Cell e = MMM_retained(expr);
        MEV_flatten(&e, 2);
        return e;
    }
    int ext = 0;
    return MEV_eval_args(expr, 0, MEV_CONTEXT_ARGUMENT, 2, flags, &ext);
}

bool is_constant_name(Cell ident) {
    const std::string_view n = MMM_ident_text(ident);
    return n == "PI" || n == "EULER" || n == "CATALAN";
}

#ifdef TORVA_CHECK
// A raw body that returned normally must have refused a count its record does not allow.
void MEV_check_declared_args(const MFN_record* record, Cell e) {
    const long n = MMM_child_count(e) - 1;
    if (n >= record->min_args && (record->max_args < 0 || n <= record->max_args)) return;
    std::fprintf(stderr, "TORVA_CHECK: `%s` accepted %ld arguments; its record declares %d to %d\n", record->name, n,
                 record->min_args, record->max_args);
    std::abort();
}
#endif

// The record whose routine an evaluator DOM_EXEC names. Anything else is refused: a
// printer (its fourth child is the name, its code a printer's), an executable of another
// shape, and a routine of no record (the procedure call, setters and getters), which is
// no built-in and takes other arguments.
const MFN_record* callable_record(Cell exec) {
    if (MMM_child_count(exec) != MFN_EXEC_COUNT || MMM_is_node(MMM_child(exec, MFN_EXEC_STORE), DOM_STRING))
        MER_raise(MER_WRONG_EXEC_TYPE, nullptr);
    Cell code = MMM_child(exec, MFN_EXEC_CODE);
    const MFN_record* record = MFN_record_of_code(code);
    if (!record || MMM_code_of(code).role == MTR_PRINTER) MER_raise(MER_WRONG_EXEC_TYPE, nullptr);
    return record;
}

// The name a built-in is called by: the executable's name (a string or an identifier's
// name), else the name of its record.
Cell call_name(Cell exec, const MFN_record* record) {
    Cell text = MMM_child(exec, MFN_EXEC_TEXT);
    if (MMM_is_node(text, DOM_STRING) || is_ident(text)) return MMM_child(text, 0);
    return MMM_intern(record->name);
}

Cell call_builtin(Cell expr, int context, unsigned flags, Cell exec) {
    Cell code = MMM_child(exec, MFN_EXEC_CODE);
    const bool kernel = MMM_node_flags(exec) & MFN_EXEC_KERNEL;
    const MFN_record* record = kernel ? MFN_record_of_code(code) : callable_record(exec);
    const MFN_routine routine = MMM_code_routine(code);
    // Each built-in finds its own name as the operator of its expression.
    Cell name = kernel ? MMM_child(MMM_child(exec, MFN_EXEC_TEXT), 0) : call_name(exec, record);
    MMM_ref e(is_ident(MMM_child(expr, 0)) && MMM_child(MMM_child(expr, 0), 0) == name
                  ? MMM_retained(expr)
                  : with_operator(expr, MMM_ident(name)));
    if (record->raw && routine) {
        MMM_ref r(routine(e.get(), context, flags, exec));
#ifdef TORVA_CHECK
        if (record->min_args >= 0) MEV_check_declared_args(record, e.get());
#endif
        return r.take();
    }
    Cell result = nullptr;
    if (MEV_builtin_front(e.slot(), context, flags, exec, MFN_front_of_code(code), &result)) return result;
    if (!routine) return e.take();  // no body yet: the call stays as it is
    if (record->min_args >= 0)
        MEV_need_args(e.get(), record->min_args, record->max_args < 0 ? LONG_MAX : record->max_args);
    return routine(e.get(), context, flags | MEV_ARGS_FLAT, exec);
}

Cell eval_expr(Cell c, int context, unsigned flags) {
    if (MSY_stack_nearly_full()) MER_raise(MER_RECURSIVE_DEFINITION, "expression nested too deeply");
    MMM_ref owned_op(flags & MEV_OPERATOR_DONE ? MMM_retained(MMM_child(c, 0))
                                               : MEV_eval(MMM_child(c, 0), MEV_CONTEXT_FREE, 0));
    flags &= ~MEV_OPERATOR_DONE;
    if (MMM_category(owned_op.get()) == DOM_FUNC_ENV)
        owned_op.reset(MMM_retained(MMM_child(owned_op.get(), MFN_ENV_EVALUATOR)));
    Cell op = owned_op.get();
    Cell result = nullptr;
    switch (MMM_category(op)) {
    case DOM_IDENT:
        if (is_constant_name(op)) {
            result = MMM_retained(op);
        } else if (MEV_depth < MEV_level) {
            Cell args = symbolic_args(c, flags);
            if (args && MMM_child(args, 0) != op) {
                Cell r = with_operator(args, MMM_retained(op));
                MMM_release(args);
                args = r;
            }
            result = args ? args : MMM_retained(c);
        } else {
            result = MMM_retained(c);
        }
        break;
    case DOM_EXEC:
        result = call_builtin(c, context, flags, op);
        break;
    case DOM_PROC:
        if (!MEV_procedure_hooks.call) MER_raise(MER_NOT_IMPLEMENTED, "procedure call");
        result = MEV_procedure_hooks.call(c, context, flags, op);
        break;
    case DOM_EXPR: {
        // A functional expression: (f + g)(x) applies the operator's operator.
        MEV_check_legal(MEV_CONTEXT_ARGUMENT, op);
        Cell args = symbolic_args(c, flags);
        result = with_operator(args, MMM_retained(op));
        MMM_release(args);
        break;
    }
    default:
        // Any other value called gives itself: 2(x) is 2.
        result = (flags & MEV_HOLD) ? MMM_retained(c) : MMM_retained(op);
    }
    return result;
}

// ---- built-in bodies of the core ----

// _exprseq: one operand is itself, none is NULL.
Cell builtin_exprseq(Cell e, int, unsigned, Cell) {
    const long n = MMM_child_count(e) - 1;
    if (n == 0) return MMM_retained(MMM_NULL);
    if (n == 1) return MMM_retained(MMM_child(e, 1));
    return MMM_retained(e);
}

Cell builtin_hold(Cell e, int, unsigned, Cell) {
    MEV_need_args(e, 1, 1);
    return MMM_retained(MMM_child(e, 1));
}

Cell builtin_eval(Cell e, int context, unsigned, Cell) {
    // The argument has been evaluated once by the front; evaluate its value once more.
    MEV_need_args(e, 1, 1);
    return MEV_eval(MMM_child(e, 1), context == MEV_CONTEXT_STATEMENT ? MEV_CONTEXT_ARGUMENT : context, 0);
}

Cell builtin_level(Cell e, int, unsigned, Cell) {
    MEV_need_args(e, 1, 2);
    int32_t level = MEV_level;
    if (MMM_child_count(e) == 3) {
        Cell n = MEV_eval(MMM_child(e, 2), MEV_CONTEXT_ARGUMENT, 0);
        const bool ok = MMM_category(n) == DOM_INT && MAR_small_int(n) >= 0;
        const int32_t v = ok ? MAR_small_int(n) : 0;
        MMM_release(n);
        if (!ok) MER_raise(MER_ILLEGAL_ARGUMENT, "level");
        level = v;
    }
    const int32_t saved_level = MEV_level, saved_depth = MEV_depth;
    MEV_level = level;
    MEV_depth = 0;
    Cell r;
    try {
        r = MEV_eval(MMM_child(e, 1), MEV_CONTEXT_ARGUMENT, 0);
    } catch (...) {
        MEV_level = saved_level;
        MEV_depth = saved_depth;
        throw;
    }
    MEV_level = saved_level;
    MEV_depth = saved_depth;
    return r;
}

Cell builtin_null(Cell e, int, unsigned, Cell) {
    MEV_need_args(e, 0, 0);
    return MMM_retained(MMM_NULL);
}

Cell condition_eval(Cell condition) { return MEV_eval(condition, MEV_CONTEXT_ARGUMENT, 0); }

}  // namespace

// ---- public ----

// A statement from the top level: a fresh evaluation.
Cell MEV_toplevel_eval(Cell statement) {
    MEV_frame = nullptr;
    MEV_depth = 0;
    MEV_call_depth = 0;
    MEV_value_pending = 0;
    return MEV_eval_stmt(statement);
}

void MEV_reset_after_error() {
    MEV_frame = nullptr;
    MEV_depth = 0;
    MEV_call_depth = 0;
    MEV_value_pending = 0;
    MEV_control = MEV_CONTROL_NONE;
}

void MEV_need_args(Cell e, long lo, long hi) {
    const long n = MMM_child_count(e) - 1;
    if (n < lo || n > hi) MER_raise(MER_WRONG_ARG_COUNT, std::string(MMM_ident_text(MMM_child(e, 0))).c_str());
}

uint16_t MEV_legality(int row, int column) {
    if (row < 0 || row >= ROWS || column < 0 || column >= COLUMNS) return 0;
    return legality[row][column];
}

void MEV_check_legal(int context, Cell value) {
    if (context < 0 || context >= ROWS || MER_pending) return;
    const int column = column_of(value);
    if (column >= COLUMNS) return;
    if (const uint16_t code = legality[context][column]) refuse(code, context);
}

void MEV_tick() {
    MEV_steps = 0;
    MSY_tick();
}

Cell MEV_eval_stmt(Cell cell) {
    const int32_t depth = MEV_depth;
    MEV_value_pending = 0;
    MEV_depth = 0;
    Cell r;
    try {
        r = MEV_eval(cell, MEV_CONTEXT_STATEMENT, 0);
    } catch (...) {
        MEV_depth = depth;
        throw;
    }
    MEV_depth = depth;
    if (!r) r = MMM_retained(MEV_value_pending && MEV_last_value ? MEV_last_value : MMM_NULL);
    return r;
}

Cell MEV_eval_value(Cell cell, int context, unsigned flags) {
    Cell r = MEV_eval(cell, context, flags);
    if (!r) r = MMM_retained(MEV_value_pending && MEV_last_value ? MEV_last_value : MMM_NULL);
    return r;
}

bool MEV_flatten(Cell* expr, int mode) {
    bool changed = false;
    Cell seq = MMM_ident_by_id(MFN_ID_EXPRSEQ);
    for (;;) {
        Cell e = *expr;
        const long n = MMM_child_count(e);
        Cell own = MMM_child(e, 0);
        const long first = (mode & 8) ? 2 : 1;
        auto splices = [&](Cell x) -> bool {
            if (!is_expr(x)) return false;
            Cell xop = MMM_child(x, 0);
            if ((mode & 1) && xop == own && MMM_child_count(x) > 2) return true;
            if ((mode & 6) && xop == seq && MMM_child_count(x) > 1) return true;
            return false;
        };
        long added = 0;
        bool any = false;
        for (long i = first; i < n; ++i) {
            if (splices(MMM_child(e, i))) {
                any = true;
                added += MMM_child_count(MMM_child(e, i)) - 2;
            }
        }
        if (!any) return changed;
        Cell out = MMM_make_expr(n + added);
        long k = 0;
        for (long i = 0; i < n; ++i) {
            Cell x = MMM_child(e, i);
            if (i >= first && splices(x)) {
                for (long j = 1; j < MMM_child_count(x); ++j) MMM_children(out)[k++] = MMM_retained(MMM_child(x, j));
            } else {
                MMM_children(out)[k++] = MMM_retained(x);
            }
        }
        MMM_set_node_flags(out, MMM_node_flags(e));
        MMM_sign(out);
        MMM_release(*expr);
        *expr = out;
        changed = true;
    }
}

Cell MEV_eval_args(Cell expr, unsigned arg_flags, int context, int flatten_mode, unsigned flags, int* ext_position) {
    MMM_ref owned(MMM_retained(expr));
    Cell& e = *owned.slot();  // the call, rewritten in place as operands are replaced
    *ext_position = 0;
    const bool keep_nulls = (arg_flags & MEV_KEEP_NULLS) && MMM_child_count(expr) <= 3;
    bool fresh = false;
    for (long i = 1; i < MMM_child_count(e);) {
        Cell operand = MMM_child(e, i);
        MMM_ref v(MEV_eval(operand, MEV_CONTEXT_ARGUMENT, flags));
        if ((arg_flags & MEV_STOP_AT_FAIL) && v.get() == MMM_FAIL) {
            *ext_position = -1;
            return nullptr;
        }
        if (v.get() == MMM_NULL && !keep_nulls && !((arg_flags & MEV_KEEP_FIRST_NULL) && i == 1)) {
            v.reset();
            MMM_clone(&e);
            fresh = true;
            const long n = MMM_child_count(e);
            MMM_release(MMM_children(e)[i]);
            MMM_move_children(e, i + 1, e, i, n - i - 1);
            MMM_children(e)[n - 1] = nullptr;
            MMM_resize_children(&e, n - 1);
            continue;
        }
        if (v.get() != operand) {
            MMM_clone(&e);
            fresh = true;
            MMM_release(MMM_children(e)[i]);
            MMM_children(e)[i] = v.take();
        }
        if (!*ext_position && MMM_category(MMM_child(e, i)) == DOM_EXT) *ext_position = int(i);
        ++i;
    }
    const int mode = flatten_mode + (associative(context) ? 1 : 0);
    if (MEV_flatten(&e, mode)) {
        *ext_position = 0;
        for (long i = 1; i < MMM_child_count(e); ++i) {
            Cell x = MMM_child(e, i);
            if (!*ext_position && MMM_category(x) == DOM_EXT) *ext_position = int(i);
            if ((arg_flags & MEV_STOP_AT_FAIL) && x == MMM_FAIL) {
                *ext_position = -1;
                return nullptr;
            }
        }
    } else if (fresh) {
        MMM_sign(e);
    }
    if (!MER_pending && *ext_position == 0)
        for (long i = 1; i < MMM_child_count(e); ++i) MEV_check_legal(context, MMM_child(e, i));
    return owned.take();
}

bool MEV_builtin_front(Cell* expr, int context, unsigned flags, Cell exec, const MFN_front& front, Cell* result) {
    if (front.column != 100 && context >= 0 && context < ROWS && front.column < COLUMNS)
        if (const uint16_t code = legality[context][front.column]) refuse(code, context);
    int ext = 0;
    if (flags & MEV_HOLD) {
        *result = MMM_retained(*expr);
        return true;
    }
    if (flags & MEV_ARGS_FLAT) {
        for (long i = 1; i < MMM_child_count(*expr) && !ext; ++i)
            if (MMM_category(MMM_child(*expr, i)) == DOM_EXT) ext = int(i);
    } else if (flags & MEV_ARGS_SPLICE) {
        MEV_flatten(expr, front.flatten_mode);
    } else {
        Cell e = MEV_eval_args(*expr, front.arg_flags, front.arg_context, front.flatten_mode, flags, &ext);
        MMM_release(*expr);
        *expr = e;
        if (!e) {  // a FAIL argument stopped the evaluation
            *expr = MMM_retained(MMM_FAIL);
            *result = MMM_retained(MMM_FAIL);
            return true;
        }
    }
    // Stored results: f(0) := 1 on a built-in.
    Cell stored = MMM_child_count(exec) > MFN_EXEC_STORE ? MMM_child(exec, MFN_EXEC_STORE) : nullptr;
    if (stored && stored != MMM_NIL && MMM_category(stored) == DOM_TABLE) {
        Cell found = nullptr;
        if (MMM_table_lookup(MMM_child(stored, MMM_TABLE_HASH), *expr, 1, &found) && found) {
            *result = MMM_retained(found);
            return true;
        }
    }
    // Overloading by domain elements comes with the domains.
    return false;
}

void MEV_start() {
    // The last value of a sequence outlives the command that made it: a sweep between
    // commands must keep it.
    MEV_last_value = nullptr;
    MMM_add_root(&MEV_last_value);
    fill_legality();
    for (auto& r : MEV_dispatch) r = eval_never;
    for (int c : {CAT_BIG_INT, DOM_FLOAT, DOM_INT, DOM_RAT, DOM_COMPLEX, DOM_INTERVAL, DOM_STRING, DOM_BOOL, DOM_NULL,
                  DOM_NIL, DOM_FAIL, DOM_PROC_ENV, DOM_NAMESPACE, DOM_BYTECODE, DOM_TABLE, DOM_ARRAY, DOM_FUNC_ENV,
                  DOM_DOMAIN, DOM_POLY, DOM_RPOLY, DOM_FRAME, DOM_EXEC, CAT_NAME, DOM_EXT})
        MEV_dispatch[c] = eval_constant;
    MEV_dispatch[DOM_IDENT] = eval_ident;
    MEV_dispatch[DOM_VAR] = eval_var;
    MEV_dispatch[DOM_SET] = eval_set;
    MEV_dispatch[DOM_LIST] = eval_list;
    MEV_dispatch[DOM_EXPR] = eval_expr;
    MEV_dispatch[DOM_PROC] = eval_proc;
    MEV_dispatch[DOM_DEBUG] = eval_debug;


    MEV_stmt_start();
    MPA_hooks.eval = condition_eval;
}

namespace {
const MFN_builtin builtins[] = {
    {.name = "_exprseq", .routine = builtin_exprseq},
    {.name = "hold", .routine = builtin_hold, .raw = true},
    {.name = "null", .routine = builtin_null},
    {.name = "eval", .routine = builtin_eval},
    {.name = "level", .routine = builtin_level, .raw = true},
};
}  // namespace

const MFN_builtin_table MEV_eval_builtins = builtins;

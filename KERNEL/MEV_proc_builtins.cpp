// Built-ins of procedures and activations: `_procdef`, `args`, `last`, `context`,
// `_act_proc_env`, `_eval_entry` and `copyClosure`.
#include <string>

#include "MAR_numbers.h"
#include "MEV_builtins.h"
#include "MER_error.h"
#include "MEV_eval.h"
#include "MEV_proc.h"
#include "MFN_env.h"
#include "MFN_table.h"
#include "MMM_heap.h"
#include "MMM_ident.h"
#include "MMM_ref.h"
#include "MMM_values.h"

namespace {

bool is_cat(Cell c, int category) { return c && MMM_kind_of(c) == MMM_NODE && MMM_category(c) == category; }

// NULL for no value, the value for one, a sequence for more.
Cell sequence_of(const std::vector<Cell>& values) {
    if (values.empty()) return MMM_retained(MMM_NULL);
    if (values.size() == 1) return MMM_retained(values[0]);
    Cell s = MMM_make_expr(long(values.size()) + 1);
    MMM_children(s)[0] = MMM_retained(MMM_ident_by_id(MFN_ID_EXPRSEQ));
    for (size_t i = 0; i < values.size(); ++i) MMM_children(s)[i + 1] = MMM_retained(values[i]);
    MMM_sign(s);
    return s;
}

// _procdef(...) evaluated: the procedure it makes, bound where it is evaluated. The
// parser normally makes the procedure while it reads; this serves trees made otherwise.
Cell builtin_procdef(Cell e, int context, unsigned flags, Cell) {
    if (flags & MEV_HOLD) return MMM_retained(e);
    MMM_ref p(MEV_procdef(e, false));
    return MEV_bind_closure(p.get(), context, flags);
}

// args(), args(0), args(i), args(i..j): the arguments of the running call as supplied
// (a parameter assigned to since shows its new value: it is the same slot).
Cell builtin_args(Cell e, int, unsigned, Cell) {
    if (!MEV_frame) MER_raise(MER_ILLEGAL_CONTEXT, nullptr);
    MEV_need_args(e, 0, 1);
    Cell a = MEV_frame;
    const int32_t* w = MEV_activation_words(a);
    const long first = w[MEV_AW_FIRST_ARG], count = w[MEV_AW_ARG_COUNT];
    auto range = [&](long lo, long hi) {
        std::vector<Cell> values;
        for (long i = lo; i <= hi; ++i) {
            Cell v = first + i - 1 < MMM_child_count(a) ? MMM_child(a, first + i - 1) : nullptr;
            values.push_back(v ? v : MMM_NIL);
        }
        return sequence_of(values);
    };
    if (MEV_nargs(e) == 0) return range(1, count);
    Cell x = MEV_arg(e, 1);
    auto index = [&](Cell i, long lowest) -> long {
        if (MMM_category(i) == CAT_BIG_INT) MER_raise(MER_ARG_OUT_OF_RANGE, "args");
        if (MMM_category(i) != DOM_INT) MER_raise(MER_ILLEGAL_ARGUMENT, "args");
        const long k = MAR_small_int(i);
        if (k < lowest || k > count) MER_raise(MER_ARG_OUT_OF_RANGE, "args");
        return k;
    };
    if (MMM_is_call_of(x, MFN_ID_RANGE) && MEV_nargs(x) == 2) {
        const long lo = index(MEV_arg(x, 1), 1), hi = index(MEV_arg(x, 2), 1);
        return range(lo, hi);
    }
    const long k = index(x, 0);
    if (k == 0) return MAR_from_long(count);
    return range(k, k);
}

// last(n), `%n`: inside a procedure the n-th last result of its statements, n from 1 to
// 3. At the top level the call stays: results there belong to the session's history.
Cell builtin_last(Cell e, int, unsigned, Cell) {
    MEV_need_args(e, 0, 1);
    long n = 1;
    if (MEV_nargs(e) == 1) {
        if (MMM_category(MEV_arg(e, 1)) != DOM_INT) MER_raise(MER_ILLEGAL_ARGUMENT, "last");
        n = MAR_small_int(MEV_arg(e, 1));
    }
    if (!MEV_frame) return MMM_retained(e);
    if (n < 1 || n > 3) MER_raise(MER_ARG_OUT_OF_RANGE, "last");
    const int32_t pos = MEV_activation_words(MEV_frame)[MEV_AW_RING_POS];
    Cell v = MMM_child(MEV_frame, MEV_AC_RING + (pos - n + 6) % 3);
    return MMM_retained(v ? v : MMM_NULL);
}

// context(x): the value of x, evaluated once more in the caller's activation with the
// caller's LEVEL.
Cell builtin_context(Cell e, int, unsigned flags, Cell) {
    if (flags & MEV_HOLD) return MMM_retained(e);
    if (MEV_nargs(e) == 0) return MMM_retained(MMM_NULL);
    if (!MEV_frame) MER_raise(MER_NOT_INTERACTIVE, nullptr);
    MEV_need_args(e, 1, 1);
    MMM_ref value(MEV_eval(MEV_arg(e, 1), MEV_CONTEXT_ARGUMENT, 0));
    Cell frame = MEV_frame;
    const int32_t level = MEV_level, depth = MEV_depth;
    MEV_frame = MMM_child(frame, MEV_AC_CALLER);
    MEV_level = MEV_level_saved;
    MEV_depth = 0;
    Cell r;
    try {
        r = MEV_eval(value.get(), MEV_CONTEXT_ARGUMENT, 0);
    } catch (...) {
        MEV_frame = frame;
        MEV_level = level;
        MEV_depth = depth;
        throw;
    }
    MEV_frame = frame;
    MEV_level = level;
    MEV_depth = depth;
    return r;
}

Cell builtin_act_proc_env(Cell e, int, unsigned, Cell) {
    MEV_need_args(e, 0, 0);
    if (!MEV_frame) return MMM_retained(MMM_NULL);
    Cell env = MMM_new_node(DOM_PROC_ENV, 1);
    MMM_children(env)[MEV_PROC_ENV_ACTIVATION] = MMM_retained(MEV_frame);
    MMM_sign(env);
    return env;
}

// _eval_entry(x, dom, env): the value x evaluated once more in the stored activation,
// with `dom` as its domain and the running activation as its caller.
Cell builtin_eval_entry(Cell e, int, unsigned, Cell) {
    MEV_need_args(e, 3, 3);
    Cell dom = MEV_arg(e, 2), env = MEV_arg(e, 3);
    if (!is_cat(dom, DOM_DOMAIN) || !is_cat(env, DOM_PROC_ENV)) MER_raise(MER_ILLEGAL_ARGUMENT, "_eval_entry");
    Cell a = MMM_child(env, MEV_PROC_ENV_ACTIVATION);
    const int32_t first = MEV_activation_words(a)[MEV_AW_FIRST_SLOT];
    if (first + 1 >= MMM_child_count(a)) MER_raise(MER_ILLEGAL_VARIABLE_CONTEXT, "DOM_PROC_ENV");  // an emptied activation
    Cell* c = MMM_children(a);
    Cell saved_dom = c[first + 1], saved_caller = c[MEV_AC_CALLER];
    Cell frame = MEV_frame;
    c[first + 1] = MMM_retained(dom);
    c[MEV_AC_CALLER] = MMM_retained(frame);
    MEV_frame = a;
    auto restore = [&] {
        MEV_frame = frame;
        MMM_release(c[MEV_AC_CALLER]);
        c[MEV_AC_CALLER] = saved_caller;
        MMM_release(c[first + 1]);
        c[first + 1] = saved_dom;
    };
    Cell r;
    try {
        r = MEV_eval(MEV_arg(e, 1), MEV_CONTEXT_ARGUMENT, 0);
    } catch (...) {
        restore();
        throw;
    }
    restore();
    return r;
}

Cell builtin_copy_closure(Cell e, int, unsigned, Cell) {
    MEV_need_args(e, 1, 1);
    if (!is_cat(MEV_arg(e, 1), DOM_PROC)) MER_raise(MER_ILLEGAL_ARGUMENT, "copyClosure");
    return MEV_copy_closure(MEV_arg(e, 1));
}

const MFN_builtin builtins[] = {
    {.name = "_procdef", .routine = builtin_procdef, .raw = true},
    {.name = "args", .routine = builtin_args},
    {.name = "last", .routine = builtin_last},
    {.name = "context", .routine = builtin_context, .raw = true},
    {.name = "_act_proc_env", .routine = builtin_act_proc_env},
    {.name = "_eval_entry", .routine = builtin_eval_entry},
    {.name = "copyClosure", .routine = builtin_copy_closure},
};

}  // namespace

const MFN_builtin_table MEV_proc_builtins = builtins;

// Built-ins of the evaluation core that work on functions: funcenv, builtin, the
// overload-free operator forms and the front of domain calls.
#include <span>
#include <string>

#include "MAR_numbers.h"
#include "MEV_builtins.h"
#include "MER_error.h"
#include "MEV_eval.h"
#include "MFN_env.h"
#include "MFN_layout.h"
#include "MFN_table.h"
#include "MMM_ident.h"
#include "MMM_ref.h"
#include "MMM_values.h"
#include "MOU_print.h"

namespace {

const char* name_of(Cell e) { return MMM_ident_text(MMM_child(e, 0)).data(); }

// funcenv(evaluator [, printer [, attributes]])
Cell builtin_funcenv(Cell e, int, unsigned, Cell) {
    MEV_need_args(e, 1, 3);
    if (MMM_category(MEV_arg(e, 1)) == DOM_FUNC_ENV) return MMM_retained(MEV_arg(e, 1));
    Cell table = MEV_nargs(e) == 3 ? MEV_arg(e, 3) : MMM_NIL;
    if (table != MMM_NIL && MMM_category(table) != DOM_TABLE) MER_raise(MER_ILLEGAL_OPERAND, name_of(e));
    Cell env = MMM_new_node(DOM_FUNC_ENV, MFN_ENV_COUNT);
    MMM_children(env)[MFN_ENV_EVALUATOR] = MMM_retained(MEV_arg(e, 1));
    MMM_children(env)[MFN_ENV_PRINTER] = MMM_retained(MEV_nargs(e) >= 2 ? MEV_arg(e, 2) : MMM_NIL);
    MMM_children(env)[MFN_ENV_ATTRIBUTES] = MMM_retained(table);
    MMM_sign(env);
    return env;
}

// The code cell of an integer operand.
Cell code_operand(Cell e, long i) {
    Cell c = MEV_arg(e, i);
    if (MMM_category(c) != DOM_INT && MMM_category(c) != CAT_BIG_INT) MER_raise(MER_INTEGER_EXPECTED, name_of(e));
    Cell code = MMM_category(c) == DOM_INT ? MTR_find_code_for_number(MAR_small_int(c)) : nullptr;
    if (!code) MER_raise(MER_ILLEGAL_ARGUMENT, name_of(e));
    return code;
}

// builtin(code, numeric code or priority, name or print text, NIL/table or name, ...)
Cell builtin_builtin(Cell e, int, unsigned, Cell) {
    const long n = MEV_nargs(e);
    if (n < 4) MER_raise(MER_WRONG_ARG_COUNT, name_of(e));
    Cell code = code_operand(e, 1);
    const int fourth = MMM_category(MEV_arg(e, 4));
    if (fourth != DOM_STRING && fourth != DOM_NIL && fourth != DOM_TABLE) MER_raise(MER_ILLEGAL_ARGUMENT, name_of(e));
    Cell second = MEV_arg(e, 2);
    // The evaluator form names its numeric routine by code; found before the node is made.
    if (fourth != DOM_STRING && (MMM_category(second) == DOM_INT || MMM_category(second) == CAT_BIG_INT))
        second = code_operand(e, 2);
    Cell exec = MMM_new_node(DOM_EXEC, n);
    MMM_children(exec)[MFN_EXEC_CODE] = MMM_retained(code);
    MMM_children(exec)[MFN_EXEC_NUMERIC] = MMM_retained(second);
    for (long i = 3; i <= n; ++i) MMM_children(exec)[i - 1] = MMM_retained(MEV_arg(e, i));
    MMM_sign(exec);
    return exec;
}

// _op_plusmult(op, a, b, ...): op(a, b, ...) evaluated.
Cell builtin_op_plusmult(Cell e, int context, unsigned flags, Cell) {
    MEV_need_args(e, 1, 1L << 30);
    Cell call = MMM_make_expr(MEV_nargs(e));
    for (long i = 1; i <= MEV_nargs(e); ++i) MMM_children(call)[i - 1] = MMM_retained(MEV_arg(e, i));
    MMM_sign(call);
    MMM_ref owned(call);
    return MEV_eval(call, context, flags & ~(MEV_ARGS_FLAT | MEV_OPERATOR_DONE));
}

// _op_power(f, n): the n-th power of the function.
Cell builtin_op_power(Cell e, int context, unsigned, Cell) {
    MEV_need_args(e, 2, 2);
    Cell p = MMM_make_expr(3);
    MMM_children(p)[0] = MMM_retained(MMM_ident_by_id(MFN_ID_POWER));
    MMM_children(p)[1] = MMM_retained(MEV_arg(e, 1));
    MMM_children(p)[2] = MMM_retained(MEV_arg(e, 2));
    MMM_sign(p);
    MMM_ref owned(p);
    return MEV_eval(p, context, MEV_ARGS_FLAT);
}

// _op_fconcat(f, g, ..., x): f(g(...(x))), right to left; the inner steps have their
// operator and argument in place already.
Cell builtin_op_fconcat(Cell e, int context, unsigned flags, Cell) {
    MEV_need_args(e, 1, 1L << 30);
    Cell value = MMM_retained(MEV_arg(e, MEV_nargs(e)));
    for (long i = MEV_nargs(e) - 1; i >= 1; --i) {
        Cell step = MMM_make_expr(2);
        MMM_children(step)[0] = MMM_retained(MEV_arg(e, i));
        MMM_children(step)[1] = value;
        MMM_sign(step);
        MMM_ref owned(step);
        const unsigned step_flags = i == 1 ? flags : (MEV_OPERATOR_DONE | MEV_ARGS_SPLICE);
        value = MEV_eval(step, i == 1 ? context : MEV_CONTEXT_ARGUMENT, step_flags & ~MEV_OPERATOR_DONE);
    }
    return value;
}

// _domainfunccall(D, args...): the call of D's slot `new`.
Cell builtin_domainfunccall(Cell e, int, unsigned, Cell) {
    MEV_need_args(e, 1, 1L << 30);
    if (MMM_category(MEV_arg(e, 1)) != DOM_DOMAIN) MER_raise(MER_ILLEGAL_ARGUMENT, name_of(e));
    MER_raise(MER_DOMAIN_ATTRIBUTE_MISSING, nullptr, "new");  // domains and their slots come with the domain module
}

std::span<const Cell> operands(Cell e) { return {MMM_children(e) + 1, size_t(MEV_nargs(e))}; }

Cell builtin_print(Cell e, int, unsigned, Cell) { return MOU_print_values(operands(e)); }

Cell builtin_expr2text(Cell e, int, unsigned, Cell) { return MMM_make_string(MOU_expr2text(operands(e))); }
Cell builtin_strprint(Cell e, int, unsigned, Cell) { return MMM_make_string(MOU_strprint(operands(e))); }

}  // namespace

bool MEV_overload_front(Cell* expr, int context, unsigned flags, Cell exec, MFN_front front, Cell* result) {
    front.arg_flags |= MEV_STOP_AT_FAIL;
    return MEV_builtin_front(expr, context, flags, exec, front, result);
}

bool MEV_held(Cell e, int context, unsigned flags, Cell* result) {
    MMM_ref x(MMM_retained(e));
    return MEV_check_hold(x.slot(), context, flags, result, 100);
}

bool MEV_check_hold(Cell* expr, int context, unsigned flags, Cell* result, int column) {
    if (column != 100) {
        if (const uint16_t code = MEV_legality(context, column)) MER_raise(code, MFN_env_name(context));
    }
    if (!(flags & MEV_HOLD)) return false;
    int ext = 0;
    Cell e = MEV_eval_args(*expr, 0, MEV_CONTEXT_ARGUMENT, 2, 0, &ext);
    MMM_release(*expr);
    *expr = e;
    *result = MMM_retained(e);
    return true;
}

namespace {

constexpr MFN_front funcenv_front{.arg_context = MEV_CONTEXT_FREE, .column = 30 + DOM_FUNC_ENV};
constexpr MFN_front builtin_front{.arg_context = MEV_CONTEXT_FREE};
constexpr MFN_front domain_front{.overload_flags = 8};

const MFN_builtin builtins[] = {
    {.name = "print", .routine = builtin_print},
    {.name = "expr2text", .routine = builtin_expr2text},
    {.name = "strprint", .routine = builtin_strprint},
    {.name = "funcenv", .routine = builtin_funcenv, .front = &funcenv_front},
    {.name = "builtin", .routine = builtin_builtin, .front = &builtin_front},
    {.name = "_op_plusmult", .routine = builtin_op_plusmult},
    {.name = "_op_power", .routine = builtin_op_power},
    {.name = "_op_fconcat", .routine = builtin_op_fconcat},
    {.name = "_domainfunccall", .routine = builtin_domainfunccall, .front = &domain_front},
};

}  // namespace

const MFN_builtin_table MEV_call_builtins = builtins;

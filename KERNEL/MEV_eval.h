// The evaluator: a cell to its value, by category.
#pragma once

#include <cstdint>

#include "MFN_table.h"
#include "MMM_cell.h"
#include "MMM_values.h"

// Evaluation contexts besides the operator ids 1-19 and 24-28.
constexpr int MEV_CONTEXT_STATEMENT = 0;
constexpr int MEV_CONTEXT_FREE = 1;
constexpr int MEV_CONTEXT_ARGUMENT = MFN_ARGUMENT_CONTEXT;

// Evaluation flags.
constexpr unsigned MEV_HOLD = 2;
constexpr unsigned MEV_OPERATOR_DONE = 0x40;  // the caller has evaluated the operator
constexpr unsigned MEV_ARGS_SPLICE = 0x80;    // arguments evaluated, sequences still to splice
constexpr unsigned MEV_ARGS_FLAT = 0x100;     // arguments evaluated and flat

// Argument flags of MEV_eval_args.
constexpr unsigned MEV_STOP_AT_FAIL = 0x200;
constexpr unsigned MEV_KEEP_FIRST_NULL = 0x800;
constexpr unsigned MEV_KEEP_NULLS = 0x1000;

// Evaluator state.
extern int32_t MEV_level;
extern int32_t MEV_level_saved;
extern int32_t MEV_max_level;
extern int32_t MEV_max_depth;
extern int32_t MEV_depth;
extern int32_t MEV_call_depth;
extern Cell MEV_frame;  // the running activation, null at the top level
extern uint32_t MEV_steps;
// What a `return`, `quit`, `next` or `break` asks of the statements around it; set by
// the statement and cleared by the loop, procedure or session that it leaves.
enum MEV_control_code : int {
    MEV_CONTROL_NONE = 0,
    MEV_CONTROL_RETURN = 1,  // leave the running procedure
    MEV_CONTROL_QUIT = 2,    // end the session after the current command
    MEV_CONTROL_NEXT = 3,    // end the round of the loop, MEV_control_count loops out
    MEV_CONTROL_BREAK = 4,   // leave the loop, MEV_control_count loops out
};
extern MEV_control_code MEV_control;
extern int16_t MEV_control_count;
extern Cell MEV_last_value;
extern int32_t MEV_value_pending;

constexpr uint32_t MEV_TICK_STEPS = 200000;

using MEV_routine = Cell (*)(Cell cell, int context, unsigned flags);
extern MEV_routine MEV_dispatch[MMM_CATEGORY_COUNT];

void MEV_tick();

// The one evaluation step: counts towards the tick and dispatches by category. Gives a
// new reference (null only in statement context, for "no value").
inline Cell MEV_eval(Cell cell, int context, unsigned flags) {
    if (++MEV_steps >= MEV_TICK_STEPS) MEV_tick();
    return MEV_dispatch[MMM_category(cell)](cell, context, flags);
}

// Statement evaluation for the top level and procedure bodies; never null.
Cell MEV_eval_stmt(Cell cell);
// As MEV_eval, with "no value" mapped to the last value or NULL.
Cell MEV_eval_value(Cell cell, int context, unsigned flags);

// Evaluates the operands of `expr` (borrowed) and gives the expression with the values
// (a new reference; the same cell, retained, when nothing changed). `ext_position` gets
// the index of the first domain element among them, 0 for none. Null when MEV_STOP_AT_FAIL
// met a FAIL.
Cell MEV_eval_args(Cell expr, unsigned arg_flags, int context, int flatten_mode, unsigned flags, int* ext_position);
// Splices operands in place: mode bit 1 associative (same operator), bit 2 sequences,
// bit 8 leaves the first operand out, 4 walks from the operator. Gives whether anything
// changed.
bool MEV_flatten(Cell* expr, int mode);

// Evaluates the arguments of *expr as the front says (the expression is replaced by the
// one with the values). Gives true when *result is already the answer: a stored result,
// an overloading slot, or the held expression.
bool MEV_builtin_front(Cell* expr, int context, unsigned flags, Cell exec, const MFN_front& front, Cell* result);
// The same for built-ins that allow FAIL among their arguments: a FAIL argument makes
// the result FAIL.
bool MEV_overload_front(Cell* expr, int context, unsigned flags, Cell exec, MFN_front front, Cell* result);
// The front of a built-in that takes its arguments unevaluated: the legality test only,
// and in hold mode the expression with evaluated arguments as the result.
bool MEV_check_hold(Cell* expr, int context, unsigned flags, Cell* result, int column);
// The operands of a call (after the operator at child 0).
inline long MEV_nargs(Cell e) { return MMM_child_count(e) - 1; }
inline Cell MEV_arg(Cell e, long i) { return MMM_child(e, i); }
// The front of a raw built-in in hold mode: gives true, with the call and its operands
// evaluated in *result, when the hold flag is set.
bool MEV_held(Cell e, int context, unsigned flags, Cell* result);
// Raises 1004 with the built-in's name unless the call has lo to hi operands.
void MEV_need_args(Cell expr, long lo, long hi);
// The legality test of a value in a context: raises the table's error, if any.
void MEV_check_legal(int context, Cell value);
uint16_t MEV_legality(int row, int column);

// How the evaluator calls the body of a built-in (the registry entry says which way, see
// MFN_builtin): by default it runs the record's front first (arguments evaluated in the
// context of the operator's id for ids 1-29, else in argument context, flattened, stored
// results and overloading looked at), checks the declared argument count, and then calls
// the body with the evaluated expression. A raw built-in gets its expression as it stands
// and runs its own front.

// Procedures and closures come with the procedure module; it installs these.
struct MEV_procedure_hooks_record {
    Cell (*call)(Cell expr, int context, unsigned flags, Cell proc) = nullptr;
    Cell (*variable)(Cell var, int context, unsigned flags) = nullptr;
    Cell (*closure)(Cell proc, int context, unsigned flags) = nullptr;
};
extern MEV_procedure_hooks_record MEV_procedure_hooks;

// Asked by `quit` whether the session may end (the session installs it). True: the main
// loop ends once the command is over. False: the session has said why it stays.
extern bool (*MEV_quit_hook)();

// The session's entries: a statement from the top level (a fresh evaluation, new
// reference), and the evaluator's state cleared after an error reached the top level.
Cell MEV_toplevel_eval(Cell statement);
void MEV_reset_after_error();

// Sets up the dispatch and legality tables and the evaluator's state; binds the entry
// points into the session and the parser.
void MEV_start();

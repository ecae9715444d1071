// Procedures: DOM_PROC values, activations, local variables, closures and the call.
//
// A procedure is a DOM_PROC node of 13 children (MMM_proc_field, a value layout in
// MMM_values.h, read by the printer too) whose node flags hold its options (MMM_PROC_*). A call makes an activation, an MMM_PROC_ENV cell: five raw words and a
// child array holding the procedure, the lexical parent, the caller, the ring of the
// last three results, the list of names to restore, the saved names, and then the
// addressable slots: the call name, `dom`, the locals and the arguments. A local of a
// body is a DOM_VAR (depth, index): `depth` steps along the lexical links from the
// running activation, then slot `index` counted from raw word 0.
//
// Activations are mutable and have identity: every holder sees the same slots, and
// writes go in place, without cloning.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "MMM_cell.h"
#include "MMM_values.h"

// The one child of a DOM_PROC_ENV: the activation it stands for.
constexpr int MEV_PROC_ENV_ACTIVATION = 0;

// Children of an activation before its pairs of saved names.
enum MEV_activation_child : int {
    MEV_AC_PROC = 0,
    MEV_AC_LEXICAL = 1,  // the lexical parent activation, or null
    MEV_AC_CALLER = 2,   // the calling activation, or null
    MEV_AC_RING = 3,     // 3, 4, 5: the last three results
    MEV_AC_RESTORE = 6,  // names given to `save` in the body: a chain of MMM_TRIPLE, or NIL
    MEV_AC_SAVED = 7,    // two cells for each name saved by the header
};

// The raw words of an activation.
enum MEV_activation_word : int {
    MEV_AW_FIRST_SLOT = 0,  // child index of slot 0 (the call name)
    MEV_AW_FIRST_ARG = 1,   // child index of the first argument
    MEV_AW_ARG_COUNT = 2,   // arguments supplied
    MEV_AW_RING_POS = 3,    // next write position of the ring, 0 to 2
    MEV_AW_SPARE = 4,
    MEV_AW_COUNT = 5,
};

inline int32_t* MEV_activation_words(Cell activation) { return reinterpret_cast<int32_t*>(activation->data); }

// ---- settings ----
// Argument and return type tests: 0 never, 1 every call, 2 the outermost call only.
extern int MEV_type_check;
// Warning -1000 on the first read of a local without value (on at start).
extern bool MEV_warn_uninitialized;
// Warning -1004 when a closure outlives an activation whose procedure lacks `escape`.
extern bool MEV_warn_dead_closure;
// Which `remember` procedures use their tables: FALSE all, TRUE none, or a list of the
// names of those that do not (a root).
extern Cell MEV_remember_exclusion;

// ---- procedures ----
// A `_procdef` tree (7, 9, 13 or 14 children with the operator) as a DOM_PROC, unbound;
// `closed` marks a body that refers to no enclosing activation. New reference.
Cell MEV_procdef(Cell tree, bool closed);
// The procedure call (the routine of code number 100): `expr` is the call, `proc` its
// evaluated operator. New reference.
Cell MEV_call_proc(Cell expr, int context, unsigned flags, Cell proc);
// The evaluation of a DOM_PROC: an unbound procedure is copied and bound to the running
// activation, its defaults and types evaluated. New reference.
Cell MEV_bind_closure(Cell proc, int context, unsigned flags);

// ---- locals ----
// The slot a DOM_VAR addresses from `frame`, or nullptr when its activation has gone.
Cell* MEV_var_slot(Cell var, Cell frame);
// The value in the slot (borrowed, possibly null), nullptr when the activation has gone.
Cell MEV_var_read(Cell var, Cell frame);
// Writes the slot; false when the activation has gone.
bool MEV_var_write(Cell var, Cell value, Cell frame);
// The identifier of slot `index` of a procedure with these fields (borrowed), or nullptr.
Cell MEV_var_name(int index, Cell params, Cell locals);
// The identifier a DOM_VAR stands for in the running activations (borrowed), or nullptr.
Cell MEV_var_ident(Cell var);
// The value of a local taken out of its slot for writing (owned, possibly null: the slot
// is empty until the caller writes it back). Raises 1049 when the activation has gone.
Cell MEV_var_take(Cell var);

// ---- activations ----
// The end of an activation: gives false when a closure keeps it although it was not
// made to escape (the closure is then dead). Takes over the reference of `frame`.
bool MEV_frame_close(Cell frame, bool escape);
// The call name of an activation (borrowed): an identifier, NIL, or a slot call.
Cell MEV_call_name(Cell frame);
// The text of a call name: "anonymous" for none.
std::string MEV_call_name_text(Cell frame);
// A result of a statement of the running activation enters its ring.
void MEV_ring_enter(Cell value);
// `save x` in a body: the value of x is put back when the activation ends.
void MEV_frame_save(Cell ident);
// Puts back what `save` kept, in the reverse order of saving.
void MEV_frame_leave(Cell frame);
// The procedure with its chain of closures copied (new reference).
Cell MEV_copy_closure(Cell proc);
// The parameter and local fields and names of the running activations along the lexical
// chain, outermost first (new references), for readers of text inside a procedure.
void MEV_running_scopes(std::vector<Cell>& params, std::vector<Cell>& locals, std::vector<Cell>& names);

// ---- assignment ----
// Names an unnamed procedure after the identifier or local it is assigned to.
void MEV_name_procedure(Cell lhs, Cell value);
// f(x) := v where the operator is a procedure, or an identifier without value (which
// becomes a remember procedure): stores v in the remember table. False when `f`, the
// evaluated operator, is neither.
bool MEV_assign_remembered(Cell lhs, Cell f, Cell value);

// Registers the built-ins and installs the evaluator's, the parser's, the printer's and
// the error report's hooks. Before MEV_start.
void MEV_proc_start();

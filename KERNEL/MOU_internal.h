// Shared between the output modules: the text sink, the saving of printer state, and the
// helpers the walker (MOU_print.cpp), the operator forms (MOU_operators.cpp) and the
// procedures and statements (MOU_procedures.cpp) call across files. Cells passed to and
// returned by the helpers are borrowed unless a comment says otherwise; the separator
// cells belong to the walker, which keeps them as roots for the session.
#pragma once

#include <string>
#include <string_view>

#include "MMM_ref.h"
#include "MMM_values.h"
#include "MOU_print.h"

// The text being made. MOU_put_char and MOU_put_text append to it.
extern std::string* MOU_sink;

// Number of MOU_to_text runs in progress; MOU_emit gives nothing while it is above 0.
extern int MOU_capture_depth;

// Saves every switch of the printer and puts it back when it leaves scope, also when an
// error unwinds through it.
struct MOU_state_saver {
    bool pretty = MOU_pretty;
    bool unquoted = MOU_unquoted;
    bool in_method = MOU_in_method;
    bool for_text = MOU_for_text;
    bool source_form = MOU_source_form;
    bool statement_layout = MOU_statement_layout;
    int32_t indent = MOU_indent;
    int keep_order = MOU_keep_order;
    std::string* sink = MOU_sink;
    MOU_state_saver() = default;
    MOU_state_saver(const MOU_state_saver&) = delete;
    MOU_state_saver& operator=(const MOU_state_saver&) = delete;
    ~MOU_state_saver() {
        MOU_pretty = pretty;
        MOU_unquoted = unquoted;
        MOU_in_method = in_method;
        MOU_for_text = for_text;
        MOU_source_form = source_form;
        MOU_statement_layout = statement_layout;
        MOU_indent = indent;
        MOU_keep_order = keep_order;
        MOU_sink = sink;
    }
};

// Sign of a number cell as the printer sees it (MAR_looks_negative for numbers).
bool MOU_number_negative(Cell number);
// Registers the separator cells as roots and makes them; part of MOU_start.
void MOU_start_walker();

// ---- small helpers ----

// A context without its marks; the atom priority counts as 0.
inline int MOU_masked(int context) {
    context &= ~MOU_MARK_MASK;
    return context == MOU_ATOM ? 0 : context;
}

inline bool MOU_is_node(Cell c) { return c && MMM_kind_of(c) == MMM_NODE; }
inline bool MOU_is_cat(Cell c, int category) { return MOU_is_node(c) && MMM_category(c) == category; }
inline bool MOU_is_expr(Cell c) { return MOU_is_cat(c, DOM_EXPR) && MMM_child_count(c) >= 1; }

inline bool MOU_is_number(Cell c) {
    if (!MOU_is_node(c)) return false;
    switch (MMM_category(c)) {
    case CAT_BIG_INT: case DOM_INT: case DOM_RAT: case DOM_FLOAT: case DOM_COMPLEX: return true;
    default: return false;
    }
}

inline long MOU_nops(Cell e) { return MMM_child_count(e) - 1; }
inline Cell MOU_operand(Cell e, long i) { return MMM_child(e, i); }
// A field that is there: neither null nor NIL.
inline bool MOU_given(Cell c) { return c && c != MMM_NIL; }

inline void MOU_open_paren(bool on) {
    if (on) MOU_put_char('(');
}
inline void MOU_close_paren(bool on) {
    if (on) MOU_put_char(')');
}

// ---- the walker's parts (MOU_print.cpp) ----

// The text of a DOM_STRING cell; empty for anything else.
std::string_view MOU_string_text(Cell s);
// The separator cell of a text, made once and kept for the session.
Cell MOU_separator(std::string_view text);
// The separator "; " that ends a statement and breaks the line in the statement layout.
extern Cell MOU_statement_separator;
// Writes a separator (null: nothing); the statement separator with its line break.
void MOU_write_separator(Cell sep);
// Writes a name, in backquotes unless it can stand bare.
void MOU_write_name(std::string_view name);
// Prints a child (borrowed) through the walker.
void MOU_print_child(Cell c, int context, Cell sep);

// What the head of an expression says about printing it: the print code of its routine,
// the priority and the print text. Taken from the head's function environment, or, for
// an identifier without a value, from the function table's record of that name.
struct MOU_head_printer {
    int code = 0;  // 0: none, the general form
    int priority = 0;
    std::string text;
    int id = 0;  // the function id, 0 for a function not in the table
    MMM_ref env;  // the environment found
};
void MOU_resolve_head(Cell expr, MOU_head_printer& p);

// ---- the operator forms (MOU_operators.cpp) ----

// Operands from `from` on at `context`, the first with `first_sep` and the others with
// `sep`.
void MOU_print_operands(Cell e, long from, int context, Cell first_sep, Cell sep);

// ---- procedures and statements (MOU_procedures.cpp) ----

// A DOM_VAR by the name of its local in the procedures being printed, else by the
// evaluator's hook, else as DOM_VAR(depth,index).
void MOU_print_var(Cell var);
void MOU_print_procedure_value(Cell proc, int context);
// The parser's `_procdef` tree, printed as the procedure it defines.
void MOU_print_procdef_tree(Cell t, int context);
// Forgets the procedures being printed; part of MOU_start_walker.
void MOU_start_procedures();

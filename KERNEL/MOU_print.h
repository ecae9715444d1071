// Output: the walker that prints any value as text in the language's own syntax, the
// number texts, the output channels, and the routines behind `print` and `expr2text`.
//
// One walker, MOU_print, serves every category. Its `context` is the priority of the
// surrounding operator (the priorities of the function table): a value that does not
// bind tighter than its context parenthesises itself. Its `separator` is the text an
// operator writes before an operand (" + ", "*", ", "), handed to the operand so that the
// operand can replace it (a negative term of a sum writes " - " instead of " + ").
//
// Everything prints flat: one line of text, broken for TEXTWIDTH with a backslash at the
// end of each broken line, so that the text reads back through the lexer's continuation.
// MOU_pretty is kept as the mode the session asks for; the two-dimensional layout is a
// separate printer and does not exist, so the flat text serves both modes.
//
// State is plain global data of the kernel's one thread. Whoever changes a switch saves
// and restores it (the routines below do so on every way out, errors included).
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "MFN_table.h"
#include "MMM_cell.h"

// ---- printer state ----
extern bool MOU_pretty;            // the mode asked for (PRETTYPRINT); printing is flat
extern bool MOU_unquoted;          // strings without quotes and escapes
extern bool MOU_in_method;         // output comes from inside a domain's print method
extern bool MOU_for_text;          // printing for expr2text: the method expr2text is asked first
extern bool MOU_source_form;       // no sign tricks, no reordering: the text shows the tree
extern bool MOU_statement_layout;  // statements laid out over lines, indented by 2
extern bool MOU_trailing_zeroes;   // keep the trailing zeroes of floats (preference TrailingZeroes)
extern int32_t MOU_depth;          // nesting of MOU_print
extern int32_t MOU_max_depth;      // above it error 1302; 2500
extern int32_t MOU_indent;         // indentation of the statement layout
extern int MOU_keep_order;         // operands of sums: 0 always sorted, 1 unless in a method, 2 kept
extern Cell MOU_alias_table;       // values printed as something else, or null (a root)

// TEXTWIDTH: 75 at start, at least MOU_MIN_TEXTWIDTH.
constexpr long MOU_MIN_TEXTWIDTH = 7;  // 6 plus the continuation mark
extern long MOU_textwidth;
// Sets TEXTWIDTH; a width below MOU_MIN_TEXTWIDTH is error 1012 with "TEXTWIDTH".
void MOU_set_textwidth(long width);

// Priority marks and the atom priority. MOU_MARK_DOT marks an operand of `.` that may
// stand there as a bare number: what follows it cannot make one number of the two.
constexpr int MOU_MARK_DOT = 0x10000000;
constexpr int MOU_MARK_MASK = 0x60000000 | MOU_MARK_DOT;
constexpr int MOU_ATOM = 1000000;  // never parenthesised; taken as 0 when passed as a context

// ---- the walker ----
// Prints the value at *ref (which may be null: nothing is printed) in `context`, writing
// `separator` (a DOM_STRING or DOM_IDENT whose text is written first, or null) before it.
// More than MOU_max_depth nested calls is error 1302; MOU_depth is then reset to 0.
void MOU_print(Cell* ref, int context, Cell separator);
void MOU_print_top(Cell* ref);  // MOU_print(ref, 0, null)

// The two printers that belong to no record of the function table: the operator printer
// (code 1100) of every operator and the general call printer (code 1101) of every plain
// and math function. The printers of the special forms are this module's entries in the
// registry (MOU_operator_printers, MOU_statement_printers); this gives the routine of any print code, or null.
void MOU_print_operator(Cell* ref, int context, Cell separator);
void MOU_print_call(Cell* ref, int context, Cell separator);
MFN_print_routine MOU_print_routine_for_code(int code);
// The printers of the special forms, as registry entries: the operator forms
// (MOU_operators.cpp) and the statements (MOU_procedures.cpp).
extern const MFN_builtin_table MOU_operator_printers;
extern const MFN_builtin_table MOU_statement_printers;

// Writing into the text being made.
void MOU_put_char(char c);
void MOU_put_text(std::string_view text);
// Adds delta to MOU_indent; with `line_break`, writes a newline and the indentation when
// the statement layout is on, and a blank otherwise.
void MOU_line(int delta, bool line_break);

// A flat print of the value into a string, at context 0, without line breaking. Output
// emitted while it runs (a print method that calls `print`) is dropped.
std::string MOU_to_text(Cell value);

// Whether a name can stand bare or needs backquotes: a first byte that is a letter or
// `_` below 128, the others letters, digits or `_`. Keywords are not asked for.
bool MOU_plain_name(std::string_view name);

// ---- numbers ----
// The text of a number cell as the walker writes it (without parentheses). A float has
// DIGITS significant digits, or fewer when the float itself carries fewer; plain decimal
// for decimal exponents -4 to digits - 1, else d.ddd followed by "e" and the exponent;
// trailing zeroes of the fraction cut to one digit unless MOU_trailing_zeroes. A complex
// number reads "a + b*I", "a - b*I", "b*I", "I" or "-I", each part in its own form.
std::string MOU_number_text(Cell number);

// ---- plugging points for the evaluator ----
// Domains, method calls and running procedures come with the evaluator. Until it installs
// these, a value's type has no methods (its category printer runs), a head that is not an
// identifier has no value, and locals are named only inside a procedure being printed.
struct MOU_hooks_record {
    // The slot `name` of the domain of the value's type, new reference; nullptr (or FAIL)
    // when there is none. Asked for "print", "expr2text" and, for sets, "sort".
    Cell (*type_slot)(Cell value, const char* name) = nullptr;
    // Calls `fn` with the one argument `arg`, which is not evaluated again; new reference.
    Cell (*call)(Cell fn, Cell arg) = nullptr;
    // As `call`, for a library hook whose failure the printer survives: an error is
    // reported as usual, the evaluator's state put back, and the answer is nullptr.
    Cell (*try_call)(Cell fn, Cell arg) = nullptr;
    // Evaluates a tree (a head that is not an identifier); new reference.
    Cell (*eval)(Cell tree) = nullptr;
    // The identifier of local `index` at `depth` of the running procedures, borrowed, or
    // nullptr.
    Cell (*var_name)(int depth, int index) = nullptr;
};
extern MOU_hooks_record MOU_hooks;
// Counts the outermost prints (MOU_print entered at depth 0), so that a failing hook can
// be left out for the rest of one output.
extern long MOU_print_round;

// ---- output channels ----
enum MOU_channel : int {
    MOU_RES,  // results of statements
    MOU_PRT,  // the built-in print
    MOU_WRN,  // warnings
    MOU_ERR,  // errors
    MOU_DBG,  // debugger output
    MOU_DER,  // debugger errors
    MOU_DPR,  // debugger prints
    MOU_OTH,  // other text
    MOU_ERR_RAW,  // "_ERR": error text that must reach the client unformatted
    MOU_PRT_RAW,  // "_PRT": plain print text
    MOU_CHANNEL_COUNT,
};
enum MOU_format : int {
    MOU_TXT,  // text
    MOU_CON,  // content markup (needs a client; without one, text)
    MOU_TRE,  // the binary object form (needs a client; without one, nothing)
    MOU_LAN,  // language text, flat
    MOU_NUL,  // nothing is sent
};
const char* MOU_channel_name(MOU_channel channel);  // "_res", ...
// The channel of a name, or -1 for none.
int MOU_channel_by_name(std::string_view name);
const char* MOU_format_name(MOU_format format);
// The format of a name; an unknown name counts as MOU_NUL.
MOU_format MOU_format_by_name(std::string_view name);
extern MOU_format MOU_channel_format[MOU_CHANNEL_COUNT];  // all MOU_TXT at start

// The one way out for values: prints the value on the channel in the channel's format
// and writes it to the session's current output (MSY_output), broken into lines of at most
// TEXTWIDTH columns; `newline` ends it with a line end; `top` marks a final result. A null
// value, or one emitted while MOU_to_text runs, gives nothing.
void MOU_emit(Cell value, MOU_channel channel, bool newline, bool top);
// Formats a message and writes it on the channel when its format is text.
void MOU_printf(MOU_channel channel, const char* format, ...) __attribute__((format(printf, 2, 3)));
// The counter of emitted values.
extern long MOU_output_count;

// Breaks text into lines of at most `width` columns: a longer line is cut after width - 1
// columns and the cut marked with a backslash at its end, never directly behind a
// backslash or inside a doubled backquote. Tabs of a line that is cut become blanks up
// to the next multiple of 8 columns.
std::string MOU_break_lines(std::string_view text, long width);

// ---- the routines behind the built-ins ----
// print(options..., a, b, ...): leading identifiers Typeset, Unquoted, KeepOrder, NoNL
// are options; the rest is printed as one sequence on the channel _prt, with a line end
// unless NoNL. Gives NULL (new reference).
Cell MOU_print_values(std::span<const Cell> args);
// expr2text(a, b, ...): the flat text of the value (a sequence for several, "" for none),
// with quotes, asking the method expr2text first.
std::string MOU_expr2text(std::span<const Cell> args);
// strprint(options..., a, b, ...): the text print would write, its final newline and
// the line breaking for TEXTWIDTH included.
std::string MOU_strprint(std::span<const Cell> args);

// The result printer of the session: emits a value on _res, except NULL.
void MOU_print_result(Cell value);

// Installs the result printer, gives the special forms their printers in the function
// table and resets the state; once the identifier table and the parser are up.
void MOU_start();

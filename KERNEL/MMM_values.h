// Value layouts: categories, makers and the universal cells.
//
// Every value of the language is a cell of kind MMM_NODE whose raw data begins with a
// signed 16-bit category and a 16-bit flags field.
#pragma once

#include <cstring>
#include <string_view>

#include "MMM_heap.h"

enum MMM_category_id : int16_t {
    CAT_BIG_INT = 1,  // integer beyond one word; its domain name is DOM_INT
    DOM_FLOAT = 2,
    DOM_INT = 3,
    DOM_RAT = 4,
    DOM_COMPLEX = 6,
    DOM_INTERVAL = 8,
    DOM_STRING = 10,
    DOM_BOOL = 11,
    DOM_NULL = 13,
    DOM_NIL = 14,
    CAT_NAME = 18,
    DOM_FRAME = 19,
    DOM_IDENT = 20,
    DOM_SET = 21,
    DOM_LIST = 23,
    DOM_ARRAY = 24,
    DOM_TABLE = 25,
    DOM_EXPR = 26,
    DOM_FUNC_ENV = 27,
    DOM_VAR = 28,
    DOM_PROC_ENV = 29,
    DOM_EXEC = 31,
    DOM_DEBUG = 32,
    DOM_PROC = 33,
    DOM_POLY = 34,
    DOM_DOMAIN = 35,
    DOM_EXT = 36,
    DOM_FAIL = 37,
    DOM_RPOLY = 40,
    DOM_NAMESPACE = 41,
    DOM_BYTECODE = 42,
};
constexpr int MMM_CATEGORY_COUNT = 50;

// Category number to its type name ("DOM_INT", ...), or nullptr for a row without one.
const char* MMM_category_name(int category);

// The numbers a DOM_BOOL stores.
constexpr int MMM_BOOL_FALSE = 3;
constexpr int MMM_BOOL_UNKNOWN = 4;
constexpr int MMM_BOOL_TRUE = 5;

// Node raw data: category, flags.
constexpr long MMM_NODE_BYTES = 4;

inline int16_t MMM_category(Cell c) {
    int16_t cat;
    std::memcpy(&cat, c->data, sizeof cat);
    return cat;
}
inline uint16_t MMM_node_flags(Cell c) {
    uint16_t f;
    std::memcpy(&f, c->data + 2, sizeof f);
    return f;
}
inline void MMM_set_node_flags(Cell c, uint16_t f) { std::memcpy(c->data + 2, &f, sizeof f); }
inline bool MMM_is_node(Cell c, int category) {
    return MMM_kind_of(c) == MMM_NODE && MMM_category(c) == category;
}

// A value node of the category with `child_count` uninitialised children and flags 0.
Cell MMM_new_node(int category, long child_count);

// Bare cells.
Cell MMM_new_string(std::string_view text);  // MMM_STRING: length, bytes, a terminating 0
std::string_view MMM_string_view(Cell s);     // of an MMM_STRING
Cell MMM_make_int_box(int32_t n);             // MMM_INT
int32_t MMM_int_box_value(Cell c);

// Value makers: refcount 1, signed where finished.
Cell MMM_make_expr(long child_count);  // DOM_EXPR, children uninitialised
Cell MMM_make_list(long n);            // DOM_LIST, children uninitialised
Cell MMM_make_string(std::string_view text);
Cell MMM_make_bool(int stored);  // gives the universal cell; refuses other numbers with 1103
// A DOM_INT of a machine integer. Integers are the number module's cells: it installs the
// maker when it starts, and a call before that is a fatal internal error.
Cell MMM_make_integer(long n);
extern Cell (*MMM_integer_maker)(long n);

// Native routines as values. An MMM_CODE cell has no children; its raw data is an
// MMM_code_data: the code number (its signature and its name in stored files), then the
// place that holds the routine, so that a body given after the cell was made is the one
// called, and the record of the function table that owns that place (null for a routine
// of no record). The cells are made and kept by the code table; everybody else borrows.
using MMM_routine = Cell (*)(Cell expr, int context, unsigned flags, Cell env);
struct MMM_code_data {
    int32_t code;
    int32_t role;
    MMM_routine const* slot;
    const void* owner;
};
inline const MMM_code_data& MMM_code_of(Cell code_cell) {
    return *reinterpret_cast<const MMM_code_data*>(code_cell->data);
}
// The routine an MMM_CODE cell names now (null while it has no body).
inline MMM_routine MMM_code_routine(Cell code_cell) { return *MMM_code_of(code_cell).slot; }

// ---- the layout of a procedure ----
// A DOM_PROC has MMM_PF_COUNT children; its node flags hold the option bits below. The
// evaluator makes and calls procedures, the printer and the operand built-ins read them.
// Option bits of a procedure's node flags.
constexpr uint16_t MMM_PROC_NORMALISED = 1u << 3;
constexpr uint16_t MMM_PROC_NO_DEBUG = 1u << 4;
constexpr uint16_t MMM_PROC_HOLD = 1u << 5;
constexpr uint16_t MMM_PROC_REMEMBER = 1u << 6;
constexpr uint16_t MMM_PROC_ARROW = 1u << 7;
constexpr uint16_t MMM_PROC_ESCAPE = 1u << 8;
constexpr uint16_t MMM_PROC_NO_EXPOSE = 1u << 9;
constexpr uint16_t MMM_PROC_CLOSED = 1u << 14;  // binds no closure when evaluated

// Children of a DOM_PROC.
enum MMM_proc_field : int {
    MMM_PF_CODE = 0,         // MMM_CODE of the procedure call, code number 100
    MMM_PF_PARAMS = 1,       // NIL, an identifier, or _exprseq of identifiers
    MMM_PF_LOCALS = 2,       // as the parameters
    MMM_PF_BODY = 3,
    MMM_PF_REMEMBER = 4,     // NIL or a DOM_TABLE
    MMM_PF_NAME = 5,         // NIL, an identifier, an empty _exprseq, or a slot call
    MMM_PF_PARAM_TYPES = 6,  // NIL, one type (one parameter) or _exprseq, NIL where none
    MMM_PF_RETURN_TYPE = 7,
    MMM_PF_LOCAL_TYPES = 8,  // what the parser gives as local types; the printer shows it
    MMM_PF_DEFAULTS = 9,     // as the parameter types
    MMM_PF_SAVED = 10,       // names of `save` in the header
    MMM_PF_CLOSURE = 11,     // FAIL unbound, NIL top level, or a DOM_PROC_ENV
    MMM_PF_DOMAIN = 12,
    MMM_PF_COUNT = 13,
};

// The universal cells, compared by address. (NULL, TRUE and FALSE are macro names in C
// and C++, so the kernel spells them with the module prefix.)
extern Cell MMM_NIL;
extern Cell MMM_NULL;
extern Cell MMM_FAIL;
extern Cell MMM_TRUE;
extern Cell MMM_UNKNOWN;
extern Cell MMM_FALSE;

// Makes the universal cells and registers them as roots.
void MMM_values_start();

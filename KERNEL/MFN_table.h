// The static function table: one record for every function of the kernel.
//
// A record gives a function its id (a small number used by the parser, the printer and
// the legality table), its name and the code numbers of its routines (stable numbers by
// which stored files and `builtin` name a routine). There are four kinds of record:
//   F plain     id, name, routine, code
//   M math      id, name, symbolic routine, code, numeric routine, numeric code
//   O operator  id, name, routine, code, priority, print text
//   S special   id, name, routine, code, print routine, print code, priority, print text
// The records live in four constant-initialised arrays in MFN_table.cpp, one per kind,
// and are walked in the order S, M, O, F. Ids and code numbers are constants of the
// stored format: never renumber them.
//
// Bodies come from one registry: each module that implements built-ins exports one table
// of MFN_builtin entries next to its routines, and the session installs all tables in one
// place at start (MFN_install). An entry names its record; an unknown name, or a second
// body for a record or a code number, is a fatal start-up error naming the built-in. The
// code cells of the environments point into the records, so a body installed after start
// (a module loaded later) is called from then on. Until a routine is installed its field
// is null and the built-in gives back its call unevaluated.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "MMM_cell.h"
#include "MMM_values.h"
#include "MTR_codes.h"

// A built-in: (expr, context, flags, env), gives a new reference.
using MFN_routine = MMM_routine;
// The printer of a special form: prints the value at `ref` in the context (a priority),
// writing `separator` (a DOM_IDENT or null) first, as the output walker does.
using MFN_print_routine = void (*)(Cell* ref, int context, Cell separator);

constexpr int MFN_ID_COUNT = 340;       // every id is below this
constexpr int MFN_RECORD_COUNT = 273;   // functions in the table

enum MFN_kind : uint8_t {
    MFN_PLAIN = 'F',
    MFN_MATH = 'M',
    MFN_OPERATOR = 'O',
    MFN_SPECIAL = 'S',
};

// The context in which a built-in takes its arguments unless its front says otherwise:
// the evaluator's argument context. Operators (ids 1-19 and 24-28) take theirs in the
// context of their own id.
constexpr int MFN_ARGUMENT_CONTEXT = 22;

// The front of a built-in: how the evaluator prepares its arguments before the body runs.
struct MFN_front {
    unsigned arg_flags = 0;
    int flatten_mode = 2;
    int arg_context = MFN_ARGUMENT_CONTEXT;
    int column = 100;  // 100: no legality test of the call itself
    unsigned overload_flags = 0;
    int from = 1;
    int to = -1;
};

// The head shared by all kinds; `kind` tells which record it begins. The fields after
// `code` are filled by the registry: the front, whether the body takes its expression
// unevaluated (`raw`, it runs its own front), and the argument counts the body accepts
// (min_args -1: not declared).
struct MFN_record {
    MFN_kind kind;
    int id;
    const char* name;
    MFN_routine routine;  // M: the symbolic routine
    int code;
    MFN_front front{};
    bool raw = false;
    uint8_t given = 0;  // which parts the registry has installed (MFN_GIVEN_*)
    int16_t min_args = -1;
    int16_t max_args = -1;
};
struct MFN_plain_record : MFN_record {};
struct MFN_math_record : MFN_record {
    MFN_routine numeric_routine;
    int numeric_code;
};
struct MFN_operator_record : MFN_record {
    int priority;
    const char* print_text;
};
struct MFN_special_record : MFN_record {
    MFN_print_routine print_routine;
    int print_code;
    int priority;
    const char* print_text;  // null where the form has none
};

// Ids the parser, the evaluator and the printer name directly.
enum MFN_id : int {
    MFN_ID_EXPRSEQ = 1,
    MFN_ID_OR = 2,
    MFN_ID_AND = 3,
    MFN_ID_SEQGEN = 4,
    MFN_ID_LESS = 5,
    MFN_ID_LEEQUAL = 6,
    MFN_ID_EQUAL = 7,
    MFN_ID_UNEQUAL = 8,
    MFN_ID_RANGE = 9,
    MFN_ID_MOD = 10,
    MFN_ID_DIV = 11,
    MFN_ID_UNION = 12,
    MFN_ID_MINUS = 13,
    MFN_ID_INTERSECT = 14,
    MFN_ID_PLUS = 15,
    MFN_ID_MULT = 16,
    MFN_ID_POWER = 17,
    MFN_ID_CONCAT = 18,
    MFN_ID_FCONCAT = 19,
    MFN_ID_DIVIDE = 24,
    MFN_ID_INVERT = 25,
    MFN_ID_SUBTRACT = 26,
    MFN_ID_NEGATE = 27,
    MFN_ID_SEQIN = 28,
    MFN_ID_SEQSTEP = 29,
    MFN_ID_ASSIGN = 30,
    MFN_ID_IF = 31,
    MFN_ID_CASE = 32,
    MFN_ID_FOR = 33,
    MFN_ID_FOR_DOWN = 34,
    MFN_ID_FOR_IN = 35,
    MFN_ID_WHILE = 36,
    MFN_ID_REPEAT = 37,
    MFN_ID_NEXT = 38,
    MFN_ID_BREAK = 39,
    MFN_ID_QUIT = 40,
    MFN_ID_STMTSEQ = 41,
    MFN_ID_SYSASSIGN = 42,
    MFN_ID_DELETE = 43,
    MFN_ID_SYSDELETE = 44,
    MFN_ID_LAZY_AND = 45,
    MFN_ID_LAZY_OR = 46,
    MFN_ID_SAVE = 47,
    MFN_ID_PROCDEF = 48,
    MFN_ID_FUNCENV = 49,
    MFN_ID_BUILTIN = 50,
    MFN_ID_TABLE = 52,
    MFN_ID_FRAME = 55,
    MFN_ID_PARENT_FRAME = 56,
    MFN_ID_ROOT_FRAME = 57,
    MFN_ID_TYPE = 76,
    MFN_ID_SLOT = 84,
    MFN_ID_LAST = 99,
    MFN_ID_SYSTEM = 103,
    MFN_ID_PARSER_CALLBACK = 107,
    MFN_ID_HULL = 115,
    MFN_ID_FACT = 161,
    MFN_ID_MODP = 174,
    MFN_ID_MODS = 175,
    MFN_ID_INDEXVAL = 189,
    MFN_ID_ARGS = 190,
    MFN_ID_RETURN = 191,
    MFN_ID_INDEX = 198,
    MFN_ID_HOLD = 199,
    MFN_ID_HELP = 200,
    MFN_ID_NOT = 202,
    MFN_ID_POLY_DIVIDE = 223,  // `divide`: the name a refusal in legality row 24 shows
    MFN_ID_FLOAT_MULT = 239,
    MFN_ID_FLOAT_PLUS = 240,
    MFN_ID_FLOAT_POWER = 241,
    MFN_ID_OP_PLUSMULT = 257,
    MFN_ID_OP_POWER = 258,
    MFN_ID_OP_FCONCAT = 259,
    MFN_ID_DOMAINFUNCCALL = 261,
    MFN_ID_ACT_PROC_ENV = 267,
    MFN_ID_EVAL_ENTRY = 268,
};

// All records in walk order: S, M, O, F; within a kind by ascending id.
std::span<const MFN_record* const> MFN_records();

// Lookups; null when there is no such function.
const MFN_record* MFN_record_by_id(int id);
const MFN_record* MFN_record_by_name(std::string_view name);
// The name of a function, "" if the id is unknown. For messages.
const char* MFN_env_name(int id);

// Fields that depend on the kind. F and M print with the general call printer at
// priority 0, O with the operator printer.
int MFN_numeric_code(const MFN_record* r);  // 0 unless M
MFN_routine MFN_numeric_routine(const MFN_record* r);
int MFN_print_code(const MFN_record* r);
int MFN_priority(const MFN_record* r);
const char* MFN_print_text(const MFN_record* r);  // null when none
MFN_print_routine MFN_special_print_routine(const MFN_record* r);  // null unless S

// ---- the registry ----

// One built-in as a module offers it: the name of its record and what the module gives it.
// Parts left null are not given; a module may give the printer of a special form while
// another gives its routine. `front` null keeps the default front; `args` declares the
// argument counts (lo, hi; hi -1 for any number): the front refuses other counts with
// 1004 before the body runs, and a raw body must refuse them itself.
struct MFN_args {
    int16_t lo = -1;
    int16_t hi = -1;
};
struct MFN_builtin {
    const char* name;
    MFN_routine routine = nullptr;
    MFN_routine numeric = nullptr;          // math functions: the numeric routine
    MFN_print_routine printer = nullptr;    // special forms: the printer
    const MFN_front* front = nullptr;
    bool raw = false;
    MFN_args args{};
};
using MFN_builtin_table = std::span<const MFN_builtin>;

// Installs a module's table: all or nothing. An unknown name, a part given to a record
// that has it already, a numeric routine or printer for a record of another kind, or a
// routine that differs from the one another record already holds for the same code is a
// fatal start-up error whose message names the built-in. Works before and after start.
void MFN_install(MFN_builtin_table table);
// The same check without the fatal end: the fault ("" when the table is sound), and the
// table installed only when it is sound. For tests and for modules loaded later.
std::string MFN_try_install(MFN_builtin_table table);

// How a record's routine is reached at call time (the routine field itself, which the
// registry may fill after start).
inline const MFN_record* MFN_record_of_code(Cell code_cell) {
    return static_cast<const MFN_record*>(MMM_code_of(code_cell).owner);
}
// The front of a code cell's record (the default front for a code of no record).
const MFN_front& MFN_front_of_code(Cell code_cell);
// The printer of a special form by its print code; null when none is installed.
MFN_print_routine MFN_print_routine_for_code(int code);

// The built-ins still without a body, in walk order: "name" for a missing routine,
// "name (numeric)" for a missing numeric routine, "name (printer)" for a missing
// printer of a special form.
std::vector<std::string> MFN_missing_bodies();

// ---- code numbers carried by the records ----
struct MFN_code_entry {
    int code;
    MTR_role role;
    const MFN_record* record;  // the first carrier in walk order
    int carriers;              // records that carry this code in this role
};
// The entry of a code number carried by a record, null if none carries it (also for the
// three codes that belong to no record).
const MFN_code_entry* MFN_find_code(int code);
// Name of the first record whose routine the code names, "" if none.
const char* MFN_find_name_for_code(int code);
// Checks that every code number names exactly one routine: a number serves in one role
// only; only the symbolic routines of math functions are shared; all carriers of one
// number hold the same body; the codes of no record are not carried. Gives one line per
// fault, empty when the table is sound. The second form checks any set of records.
std::vector<std::string> MFN_check_codes();
std::vector<std::string> MFN_check_codes(std::span<const MFN_record* const> records);

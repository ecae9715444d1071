// Child layouts of the two values through which a built-in is called and printed.
//
// A DOM_EXEC holds at least MFN_EXEC_COUNT children. As an evaluator: the code cell of
// the routine, the code cell of its numeric routine (or NIL), the name as a DOM_STRING,
// and NIL or the table of stored results. As a printer: the code cell of the print
// routine, the priority as an integer, the print text (or NIL), and the name. `builtin`
// may give more children, which follow these four.
//
// A DOM_FUNC_ENV holds MFN_ENV_COUNT children: the evaluator (a DOM_EXEC, or any other
// value that is then called), the printer (a DOM_EXEC or NIL) and the attribute table
// (a DOM_TABLE or NIL). The kernel's own environments are made by MFN_env.cpp and are
// shared, never changed in place; `funcenv` and `builtin` make others.
#pragma once

// Children of a DOM_EXEC.
enum MFN_exec_field : int {
    MFN_EXEC_CODE = 0,     // code cell of the routine
    MFN_EXEC_NUMERIC = 1,  // evaluator: numeric code cell or NIL; printer: priority
    MFN_EXEC_TEXT = 2,     // evaluator: name; printer: print text or NIL
    MFN_EXEC_STORE = 3,    // evaluator: NIL or the stored-results table; printer: name
    MFN_EXEC_COUNT = 4,
};

// Node flag of an evaluator DOM_EXEC the function table made: its shape, record and name
// are known good, so a call need not check them again (not part of equality or the
// signature, which leave the flags' low bits out).
constexpr uint16_t MFN_EXEC_KERNEL = 1;

// Children of a DOM_FUNC_ENV.
enum MFN_env_field : int {
    MFN_ENV_EVALUATOR = 0,
    MFN_ENV_PRINTER = 1,
    MFN_ENV_ATTRIBUTES = 2,
    MFN_ENV_COUNT = 3,
};

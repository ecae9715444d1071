// Code numbers: the stable names of native routines.
//
// A code number names one routine in stored files and in `builtin`; the code table is the
// one place where a routine meets its number. It is a growable vector of MMM_CODE cells
// (10 entries at start, grown by 10), one cell per number, made on first use and kept for
// the whole session: everybody else borrows them. A cell's raw data (MMM_code_data) points
// at the place that holds the routine, not at the routine, so that a body installed later
// is the one called: a routine of the function table lives in its record; a routine of no
// record (the procedure call, the setters and getters of environment variables) in a slot
// the code table keeps for it. Searches are linear: the table has a few hundred rows and
// serves stored files, `builtin` and start-up only.
#pragma once

#include <cstdint>

#include "MMM_cell.h"
#include "MMM_values.h"

// Code numbers that belong to no record of the function table.
constexpr int MTR_CODE_PROCEDURE_CALL = 100;     // the routine that calls a DOM_PROC
constexpr int MTR_CODE_OPERATOR_PRINTER = 1100;  // printer of every operator
constexpr int MTR_CODE_CALL_PRINTER = 1101;      // printer of every plain and math function

// What a code names: the routine of a function (the symbolic routine of a math
// function), the numeric routine of a math function, or the printer of a special form.
enum MTR_role : uint8_t {
    MTR_EVALUATOR,
    MTR_NUMERIC,
    MTR_PRINTER,
};

// The one code cell of a number, made on first use for a routine of no record (borrowed).
// If the number has a cell already, that cell is the answer and `routine` is ignored.
Cell MTR_code_cell(MMM_routine routine, int number);
// The code cell of a number whose routine lives at `slot`, owned by `owner` (a record of
// the function table); made on first use (borrowed).
Cell MTR_record_code_cell(int number, MTR_role role, MMM_routine const* slot, const void* owner);
// The number of a code cell as an integer cell (new reference); fatal if unknown.
Cell MTR_find_number_for_code(Cell code_cell);
// The code cell of a number, or null (borrowed).
Cell MTR_find_code_for_number(int number);
// Starts an empty table in a new heap (the cells of a former one are forgotten) and
// registers it as a root; before any code cell is made.
void MTR_start();

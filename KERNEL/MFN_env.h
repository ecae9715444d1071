// Function environments: the records of the function table as language values, bound
// to their names, and the code cells through which the evaluator reaches a routine.
#pragma once

#include <cstdint>

#include "MEV_eval.h"
#include "MFN_table.h"
#include "MMM_cell.h"

// The raw data of an MMM_CODE cell: the code number first (its signature), then how the
// evaluator calls the routine.
struct MFN_code_info {
    int32_t code;
    uint16_t raw;    // the routine takes its expression unevaluated
    uint16_t front;  // index of its front (argument handling)
    MFN_routine routine;
};
static_assert(sizeof(MFN_code_info) == 16);

inline const MFN_code_info& MFN_code_of(Cell code_cell) {
    return *reinterpret_cast<const MFN_code_info*>(code_cell->data);
}
const MEV_front& MFN_front_of(const MFN_code_info& info);

// The one code cell of a code number, made on first use (borrowed).
Cell MTR_code_cell(MFN_routine routine, int number);
// The number of a code cell as an integer cell (new reference); fatal if unknown.
Cell MTR_find_number_for_code(Cell code_cell);
// The code cell of a number, or null (borrowed).
Cell MTR_find_code_for_number(int number);

// The identifier of a built-in by id, and its environment.
Cell MFN_name(int id);  // the interned name (borrowed)
Cell MFN_call_text(int id);  // a new DOM_STRING with the name

// Makes the environments of all functions and binds them at kernel protection. Call
// after every module has registered its bodies and fronts.
void MFN_start();
// Binds every identifier again to the environment made at start.
void MFN_reset();

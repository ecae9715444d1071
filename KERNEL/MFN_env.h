// Function environments: the records of the function table as language values, bound
// to their names.
//
// Each record becomes a DOM_FUNC_ENV (evaluator DOM_EXEC, printer DOM_EXEC, attribute
// table) bound to the identifier of its name at kernel protection. The evaluator DOM_EXEC
// holds the record's code cell, whose raw data points into the record: the evaluator reads
// the routine, the front and `raw` from there at each call. The environments made at start
// are kept in MFN_envs, so that `reset()` can bind them again whatever the user did.
#pragma once

#include "MFN_table.h"
#include "MMM_cell.h"

// The identifier of a built-in by id, and its name.
Cell MFN_name(int id);       // the interned name (borrowed)
Cell MFN_call_text(int id);  // a new DOM_STRING with the name

// Interns every name of the table and makes the identifiers of the function ids (what
// MMM_ident_by_id gives); once, right after the identifier table, before any module
// starts that names a function by id.
void MFN_names_start();
// Makes the environments of all functions and binds them at kernel protection.
void MFN_start();
// Binds every identifier again to the environment made at start.
void MFN_reset();

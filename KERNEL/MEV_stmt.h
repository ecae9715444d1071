// Statements and control flow.
#pragma once

#include "MMM_cell.h"

// Runs one statement: its value, if any, becomes the last value.
void MEV_exec(Cell stmt);
// Evaluates a condition and gives its truth value by MEV_truth: the stored number of a
// boolean (5, 4 or 3), or 0 for a value that has none.
int MEV_bool(Cell cond);
// Writes a procedure's local; the procedure module installs it.
extern void (*MEV_variable_writer)(Cell var, Cell value);
// Registers the statement built-ins; part of the evaluator's start.
void MEV_stmt_start();

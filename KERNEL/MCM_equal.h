// Structural equality and the system order of cells, dispatched by memory kind.
#pragma once

#include "MFN_table.h"
#include "MMM_cell.h"

using MCM_equal_fn = bool (*)(Cell, Cell);
using MCM_compare_fn = int (*)(Cell, Cell);

// Same address; else both present, same signature, same kind, and the kind's rule.
bool MCM_equal(Cell a, Cell b);

// A module whose kind needs its own rule (numbers, hash tables) installs it at start.
void MCM_set_equal_routine(unsigned kind, MCM_equal_fn fn);

// Boxes (the owner name of a table or array) are all equal to each other, except while
// the share pass runs, when only boxes with equal contents are. The order follows: all
// boxes compare 0, or by their children during the pass.
void MCM_set_box_structural(bool on);

// The system order, a total order on the cells of one session that is the same from one
// run to the next: negative, 0 or positive. Same address 0; a null cell lowest; then
// the difference of the memory kinds; then the kind's rule. Values (MMM_NODE) of one
// shape order by signature first, so a flat node that differs is placed without
// recursion; the order is arbitrary but depends only on the values.
int MCM_compare(Cell a, Cell b);

// The order routine of kinds that have none: reports "Internal error
// [MCM_compare_unknown]" on the current output and gives 0, so a sort goes on.
int MCM_compare_unknown(Cell a, Cell b);

// Installs the order of a kind (null puts MCM_compare_unknown back). Numbers install
// theirs at start.
void MCM_set_compare_routine(unsigned kind, MCM_compare_fn fn);

// The body of the built-in `sysorder(a, b)`: TRUE when MCM_compare(a, b) <= 0, else
// FALSE; another operand count is error 1004. The operands come evaluated.
Cell MCM_sysorder(Cell expr, int context, unsigned flags, Cell env);

// Installs structural equality into the heap and the tables, and the equality of tables
// into the comparison; before the identifier table starts.
void MCM_start();

// The built-ins of this module: `sysorder`.
extern const MFN_builtin_table MCM_builtins;

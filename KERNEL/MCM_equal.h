// Structural equality of cells, dispatched by memory kind.
#pragma once

#include "MMM_cell.h"

using MCM_equal_fn = bool (*)(Cell, Cell);

// Same address; else both present, same signature, same kind, and the kind's rule.
bool MCM_equal(Cell a, Cell b);

// A module whose kind needs its own rule (numbers, hash tables) installs it at start.
void MCM_set_equal_routine(unsigned kind, MCM_equal_fn fn);

// Boxes (the owner name of a table or array) are all equal to each other, except while
// the share pass runs, when only boxes with equal contents are.
void MCM_set_box_structural(bool on);

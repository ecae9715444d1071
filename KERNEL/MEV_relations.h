// Relations and truth values: the bodies of =, <>, <, <= and `bool`, and the one
// conversion of a value to a truth value that conditions and `bool` share.
//
// Truth values are the stored numbers of the three universal booleans (MMM_BOOL_TRUE,
// MMM_BOOL_UNKNOWN, MMM_BOOL_FALSE); 0 stands for "no truth value". Nothing here keeps
// state or owns cells: the routines read their operands and answer borrowed booleans
// or new references.
#pragma once

#include "MMM_cell.h"

// The truth value of an evaluated value: a boolean is its own; an equation or
// inequation (two operands) is decided by structural equality; an order relation of two
// real numbers or two strings by their order (RD_NAN is error 1005); not, and, or over
// such values by the three-valued tables. 0 for anything else, an order relation of
// symbolic operands among them.
int MEV_truth(Cell v);

// Built-ins of the containers and frames: table(...), _frame, _parentFrame, _rootFrame,
// and the index access of arrays that the indexing built-in and assignment share.
#pragma once

#include <string_view>

#include "MMM_cell.h"

// _index(a, i1, ..., id) on a DOM_ARRAY `expr` whose operands are evaluated: the entry,
// or the expression itself (retained) when an index is no integer or the entry is unset.
// Another index count is error 1119, an index out of bounds 1005, both with "array".
Cell MEV_array_read(Cell expr);
// Writes value (null or NULL: unsets the entry) at the indices of `index_expr`, an
// _index call whose indices are evaluated here, into *array (unshared first). Another
// index count is 1119, an index that is no integer or lies out of bounds 1005.
void MEV_array_write(Cell* array, Cell index_expr, Cell value);

// Enters a frame: it becomes MMM_current_frame.
void MEV_enter_frame(Cell frame);
// Walks a frame path "a::b::c" from the root frame, entering each piece as `_frame` does
// (making the frames that do not exist yet); gives the frame reached, borrowed. The walk
// ends at an empty piece: an empty path leaves the root frame current.
Cell MEV_enter_frame_path(std::string_view path);


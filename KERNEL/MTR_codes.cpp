#include "MTR_codes.h"

#include <deque>

#include "MMM_heap.h"
#include "MSY_process.h"

namespace {

Cell code_table = nullptr;  // MMM_VECTOR of the code cells made so far
long code_count = 0;
// Where the routines of no record live; a deque keeps their addresses fixed.
std::deque<MMM_routine> free_slots;

Cell make_cell(int number, MTR_role role, MMM_routine const* slot, const void* owner) {
    if (!code_table) {
        code_table = MMM_new_cleared(MMM_VECTOR, 0, 10);
        MMM_sign(code_table);
    }
    if (code_count == MMM_child_count(code_table)) MMM_resize_children(&code_table, code_count + 10);
    Cell c = MMM_new_zeroed(MMM_CODE, sizeof(MMM_code_data), 0);
    auto* data = reinterpret_cast<MMM_code_data*>(c->data);
    data->code = number;
    data->role = role;
    data->slot = slot;
    data->owner = owner;
    MMM_sign(c);
    MMM_children(code_table)[code_count++] = c;
    return c;
}

}  // namespace

Cell MTR_code_cell(MMM_routine routine, int number) {
    if (Cell c = MTR_find_code_for_number(number)) return c;
    free_slots.push_back(routine);
    return make_cell(number, MTR_EVALUATOR, &free_slots.back(), nullptr);
}

Cell MTR_record_code_cell(int number, MTR_role role, MMM_routine const* slot, const void* owner) {
    if (Cell c = MTR_find_code_for_number(number)) return c;
    return make_cell(number, role, slot, owner);
}

Cell MTR_find_code_for_number(int number) {
    for (long i = 0; i < code_count; ++i) {
        Cell c = MMM_child(code_table, i);
        if (MMM_code_of(c).code == number) return c;
    }
    return nullptr;
}

Cell MTR_find_number_for_code(Cell code_cell) {
    for (long i = 0; i < code_count; ++i)
        if (MMM_child(code_table, i) == code_cell) return MMM_make_integer(MMM_code_of(code_cell).code);
    MSY_fatal("Internal error. [MTR_find_number_for_code]");
}

void MTR_start() {
    // The cells of a former heap, if any, are gone with it.
    code_table = nullptr;
    code_count = 0;
    free_slots.clear();
    MMM_add_root(&code_table);
}

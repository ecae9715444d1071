#include "MFN_env.h"
#include "MFN_layout.h"

#include <cstdio>
#include <string>
#include <vector>

#include "MER_error.h"
#include "MMM_heap.h"
#include "MMM_ident.h"
#include "MMM_table.h"
#include "MMM_values.h"
#include "MSY_process.h"

namespace {

Cell names = nullptr;       // MMM_ID_TABLE: id to interned name
Cell envs = nullptr;        // MMM_ID_TABLE: id to the environment made at start
Cell kept_names = nullptr;  // MMM_VECTOR: PolyExpr, RatExpr, All, stdlib, Global and identifiers

// Printer code cells are never called; their slot names no routine.
const MFN_routine no_routine = nullptr;

MFN_routine* numeric_slot(const MFN_record* r) {
    return &const_cast<MFN_math_record*>(static_cast<const MFN_math_record*>(r))->numeric_routine;
}

Cell int_cell(long n) { return MMM_make_integer(n); }

Cell string_or_nil(const char* text) {
    if (!text || !*text) {
        MMM_retain(MMM_NIL);
        return MMM_NIL;
    }
    return MMM_string_value(text);
}

Cell make_exec(Cell c0, Cell c1, Cell c2, Cell c3) {
    Cell e = MMM_new_node(DOM_EXEC, MFN_EXEC_COUNT);
    MMM_children(e)[MFN_EXEC_CODE] = c0;
    MMM_children(e)[MFN_EXEC_NUMERIC] = c1;
    MMM_children(e)[MFN_EXEC_TEXT] = c2;
    MMM_children(e)[MFN_EXEC_STORE] = c3;
    MMM_sign(e);
    return e;
}

Cell make_env(const MFN_record* r) {
    Cell name = MMM_string_value(r->name);
    Cell numeric = MMM_NIL;
    if (r->kind == MFN_MATH) numeric = MTR_record_code_cell(MFN_numeric_code(r), MTR_NUMERIC, numeric_slot(r), r);
    // A shared code names the routine of its first carrier; the registry gives every
    // carrier the same routine.
    const MFN_code_entry* entry = MFN_find_code(r->code);
    const MFN_record* owner = entry ? entry->record : r;
    Cell routine = MTR_record_code_cell(r->code, MTR_EVALUATOR, &owner->routine, owner);
    Cell evaluator = make_exec(MMM_retained(routine), MMM_retained(numeric), MMM_retained(name), MMM_retained(MMM_NIL));
    MMM_set_node_flags(evaluator, MFN_EXEC_KERNEL);
    const int print_code = MFN_print_code(r);
    Cell print_cell = r->kind == MFN_SPECIAL ? MTR_record_code_cell(print_code, MTR_PRINTER, &no_routine, r)
                                             : MTR_code_cell(nullptr, print_code);
    Cell printer = make_exec(MMM_retained(print_cell), int_cell(MFN_priority(r)),
                             string_or_nil(MFN_print_text(r)), MMM_retained(name));
    Cell attributes = MMM_make_table(1);
    Cell type_key = MMM_string_value("type");
    MMM_table_set(&MMM_children(attributes)[0], type_key, name);
    MMM_sign(attributes);
    MMM_release(type_key);
    MMM_release(name);
    Cell env = MMM_new_node(DOM_FUNC_ENV, MFN_ENV_COUNT);
    MMM_children(env)[MFN_ENV_EVALUATOR] = evaluator;
    MMM_children(env)[MFN_ENV_PRINTER] = printer;
    MMM_children(env)[MFN_ENV_ATTRIBUTES] = attributes;
    MMM_sign(env);
    return env;
}

void bind(Cell ident, Cell env) {
    Cell b = MMM_binding_find(ident, MMM_root_frame);
    if (b) MMM_binding_set_level(b, 0);
    MMM_release(MMM_set_value(ident, env, MMM_SET_PRIVILEGED, MMM_root_frame));
    MMM_binding_set_level(MMM_binding_find(ident, MMM_root_frame), MMM_PROTECT_KERNEL);
}

}  // namespace

Cell MFN_name(int id) { return id > 0 && id < MFN_ID_COUNT && names ? MMM_child(names, id) : nullptr; }

Cell MFN_call_text(int id) { return MMM_string_value(MFN_env_name(id)); }

void MFN_names_start() {
    for (Cell* root : {&names, &envs, &kept_names}) MMM_add_root(root);
    MMM_ident_set_ids(MFN_ID_COUNT, MFN_env_name, MFN_ID_SEQSTEP + 1);
    MMM_table_set_sequence_operator(MMM_ident_by_id(MFN_ID_EXPRSEQ));
}

void MFN_start() {
    // A code carried twice, or a shared code with two bodies, would call the wrong routine.
    const std::vector<std::string> faults = MFN_check_codes();
    if (!faults.empty()) MSY_fatal("Fatal error in the function table: " + faults.front() + ".");
    kept_names = MMM_new_cleared(MMM_VECTOR, 0, 7);
    MMM_sign(kept_names);
    const char* kept[] = {"PolyExpr", "RatExpr", "All", "stdlib", "Global"};
    for (int i = 0; i < 5; ++i) MMM_children(kept_names)[i] = MMM_retained(MMM_intern(kept[i]));
    MMM_children(kept_names)[5] = MMM_ident_named("stdlib");
    MMM_children(kept_names)[6] = MMM_ident_named("Global");

    names = MMM_new_cleared(MMM_ID_TABLE, 0, MFN_ID_COUNT);
    envs = MMM_new_cleared(MMM_ID_TABLE, 0, MFN_ID_COUNT);
    for (const MFN_record* r : MFN_records()) MMM_children(names)[r->id] = MMM_retained(MMM_intern(r->name));
    for (const MFN_record* r : MFN_records()) {
        Cell env = make_env(r);
        MMM_children(envs)[r->id] = env;
        bind(MMM_ident_by_id(r->id), env);
    }
}

void MFN_reset() {
    for (const MFN_record* r : MFN_records()) bind(MMM_ident_by_id(r->id), MMM_child(envs, r->id));
}

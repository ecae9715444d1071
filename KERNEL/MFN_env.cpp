#include "MFN_env.h"

#include <cstdio>
#include <vector>

#include "MAR_numbers.h"
#include "MER_error.h"
#include "MMM_heap.h"
#include "MMM_ident.h"
#include "MMM_table.h"
#include "MMM_values.h"
#include "MSE_session.h"

namespace {

Cell code_table = nullptr;  // MMM_VECTOR of the code cells made so far
long code_count = 0;
Cell names = nullptr;       // MMM_ID_TABLE: id to interned name
Cell envs = nullptr;        // MMM_ID_TABLE: id to the environment made at start
Cell kept_names = nullptr;  // MMM_VECTOR: PolyExpr, RatExpr, All, stdlib, Global and identifiers

// Fronts by id, set by the modules before the environments are made.
std::vector<MEV_front> fronts;
MEV_front front_by_id[MFN_ID_COUNT];
bool front_set[MFN_ID_COUNT];
bool raw_by_id[MFN_ID_COUNT];

// Operators evaluate their operands in their own context; other built-ins in argument
// context.
MEV_front default_front(int id) {
    MEV_front f;
    f.arg_context = (id >= 1 && id <= 19) || (id >= 24 && id <= 28) ? id : MEV_CONTEXT_ARGUMENT;
    f.flatten_mode = 2;
    return f;
}

Cell code_cell_for(const MFN_record* r, int code, MFN_routine routine) {
    Cell c = MTR_find_code_for_number(code);
    if (c) return c;
    c = MTR_code_cell(routine, code);
    auto* info = reinterpret_cast<MFN_code_info*>(c->data);
    if (r) {
        info->raw = raw_by_id[r->id];
        fronts.push_back(front_set[r->id] ? front_by_id[r->id] : default_front(r->id));
        info->front = uint16_t(fronts.size() - 1);
    }
    return c;
}

Cell int_cell(long n) { return MAR_from_long(n); }

Cell string_or_nil(const char* text) {
    if (!text || !*text) {
        MMM_retain(MMM_NIL);
        return MMM_NIL;
    }
    return MMM_string_value(text);
}

Cell make_exec(Cell c0, Cell c1, Cell c2, Cell c3) {
    Cell e = MMM_new_node(DOM_EXEC, 4);
    MMM_children(e)[0] = c0;
    MMM_children(e)[1] = c1;
    MMM_children(e)[2] = c2;
    MMM_children(e)[3] = c3;
    MMM_sign(e);
    return e;
}

Cell make_env(const MFN_record* r) {
    Cell name = MMM_string_value(r->name);
    Cell numeric = MMM_NIL;
    if (r->kind == MFN_MATH) numeric = code_cell_for(nullptr, MFN_numeric_code(r), MFN_numeric_routine(r));
    Cell evaluator = make_exec(MMM_retained(code_cell_for(r, r->code, r->routine)), MMM_retained(numeric), MMM_retained(name),
                               MMM_retained(MMM_NIL));
    Cell printer = make_exec(MMM_retained(code_cell_for(nullptr, MFN_print_code(r), nullptr)), int_cell(MFN_priority(r)),
                             string_or_nil(MFN_print_text(r)), MMM_retained(name));
    Cell attributes = MMM_make_table(1);
    Cell type_key = MMM_string_value("type");
    MMM_table_set(&MMM_children(attributes)[0], type_key, name);
    MMM_sign(attributes);
    MMM_release(type_key);
    MMM_release(name);
    Cell env = MMM_new_node(DOM_FUNC_ENV, 3);
    MMM_children(env)[0] = evaluator;
    MMM_children(env)[1] = printer;
    MMM_children(env)[2] = attributes;
    MMM_sign(env);
    return env;
}

void bind(Cell ident, Cell env) {
    Cell b = MMM_binding_find(ident, MEV_root_frame);
    if (b) MMM_binding_set_level(b, 0);
    MMM_release(MMM_set_value(ident, env, MMM_SET_PRIVILEGED, MEV_root_frame));
    MMM_binding_set_level(MMM_binding_find(ident, MEV_root_frame), MMM_PROTECT_KERNEL);
}

}  // namespace

void MEV_set_front(int id, const MEV_front& front) {
    if (id <= 0 || id >= MFN_ID_COUNT) return;
    front_by_id[id] = front;
    front_set[id] = true;
}

void MEV_set_raw(int id) {
    if (id > 0 && id < MFN_ID_COUNT) raw_by_id[id] = true;
}

const MEV_front& MFN_front_of(const MFN_code_info& info) { return fronts[info.front]; }

Cell MTR_code_cell(MFN_routine routine, int number) {
    if (Cell c = MTR_find_code_for_number(number)) return c;
    if (!code_table) {
        MMM_add_root(&code_table);
        code_table = MMM_new_cleared(MMM_VECTOR, 0, 10);
        MMM_sign(code_table);
    }
    if (code_count == MMM_child_count(code_table)) MMM_resize_children(&code_table, code_count + 10);
    Cell c = MMM_new_zeroed(MMM_CODE, sizeof(MFN_code_info), 0);
    auto* info = reinterpret_cast<MFN_code_info*>(c->data);
    info->code = number;
    info->routine = routine;
    MMM_sign(c);
    MMM_children(code_table)[code_count++] = c;
    return c;
}

Cell MTR_find_code_for_number(int number) {
    for (long i = 0; i < code_count; ++i) {
        Cell c = MMM_child(code_table, i);
        if (MFN_code_of(c).code == number) return c;
    }
    return nullptr;
}

Cell MTR_find_number_for_code(Cell code_cell) {
    for (long i = 0; i < code_count; ++i)
        if (MMM_child(code_table, i) == code_cell) return MAR_from_long(MFN_code_of(code_cell).code);
    MSE_fatal("Internal error. [MTR_find_number_for_code]");
}

Cell MFN_name(int id) { return id > 0 && id < MFN_ID_COUNT && names ? MMM_child(names, id) : nullptr; }

Cell MFN_call_text(int id) { return MMM_string_value(MFN_env_name(id)); }

void MFN_start() {
    for (Cell* root : {&names, &envs, &kept_names}) MMM_add_root(root);
    kept_names = MMM_new_cleared(MMM_VECTOR, 0, 7);
    MMM_sign(kept_names);
    const char* kept[] = {"PolyExpr", "RatExpr", "All", "stdlib", "Global"};
    for (int i = 0; i < 5; ++i) MMM_children(kept_names)[i] = MMM_retained(MMM_intern(kept[i]));
    MMM_children(kept_names)[5] = MMM_ident_named("stdlib");
    MMM_children(kept_names)[6] = MMM_ident_named("Global");

    names = MMM_new_cleared(MMM_ID_TABLE, 0, MFN_ID_COUNT);
    envs = MMM_new_cleared(MMM_ID_TABLE, 0, MFN_ID_COUNT);
    for (const MFN_record* r : MFN_records()) MMM_children(names)[r->id] = MMM_retained(MMM_intern(r->name));
    fronts.clear();
    for (const MFN_record* r : MFN_records()) {
        Cell env = make_env(r);
        MMM_children(envs)[r->id] = env;
        bind(MMM_ident_by_id(r->id), env);
    }
}

void MFN_reset() {
    for (const MFN_record* r : MFN_records()) bind(MMM_ident_by_id(r->id), MMM_child(envs, r->id));
}

// Environment variables and protection levels.
//
// Each variable has a setter and a getter with a code number of its own. A setter gets
// the value to assign (NIL for a deletion), checks it, changes the kernel's variable and
// gives the value to store in the binding; a getter reads the kernel's variable. The
// binding still matters for protection and for what the frame walk sees.
#include "MEV_env.h"
#include "MEV_builtins.h"

#include <climits>

#include "MAR_numbers.h"
#include "MER_error.h"
#include "MEV_eval.h"
#include "MMM_heap.h"
#include "MMM_ident.h"
#include "MMM_ref.h"
#include "MMM_values.h"
#include "MOU_print.h"
#include "MSY_process.h"
#include "MTR_codes.h"

int32_t MEV_order = 6;
int32_t MEV_history = 20;
Cell MEV_lib_path = nullptr;
Cell MEV_read_path = nullptr;
Cell MEV_write_path = nullptr;
Cell MEV_package_path = nullptr;
MEV_directories_record MEV_directories;

namespace {

Cell env_idents = nullptr;    // MMM_VECTOR: the identifiers of the variables, kept alive
long env_count = 0;
Cell words[4] = {};           // None, Warning, Error, User
Cell protecterror = nullptr;  // the identifier of the library's hook
Cell write_text = nullptr;    // "write"

bool is_ident(Cell c) { return c && MMM_is_node(c, DOM_IDENT); }

bool is_sequence(Cell c) {
    return MMM_is_node(c, DOM_EXPR) && MMM_child_count(c) > 0 && MMM_child(c, 0) == MMM_ident_by_id(MFN_ID_EXPRSEQ);
}

// The number of the routine's code cell. Called as a built-in (through `builtin`) a
// routine gets no code cell and refuses.
int code_number(Cell code) {
    if (!code || MMM_kind_of(code) != MMM_CODE) MER_raise(MER_INVALID_FUNCTION, nullptr);
    return MMM_code_of(code).code;
}

// ---- integers ----

struct IntVar {
    const char* name;
    int set_code, get_code;
    long fallback, lo, hi;
    long (*read)();
    void (*write)(long);
};

const IntVar int_vars[] = {
    {"DIGITS", 200, 228, 10, 0, INT32_MAX, [] { return long(MAR_digits); }, [](long n) { MAR_set_digits(n); }},
    {"ORDER", 237, 238, 6, 1, INT32_MAX, [] { return long(MEV_order); }, [](long n) { MEV_order = int32_t(n); }},
    {"HISTORY", 207, 225, 20, 0, INT32_MAX, [] { return long(MEV_history); },
     [](long n) { MEV_history = int32_t(n); }},
    {"LEVEL", 208, 211, 100, 1, INT32_MAX, [] { return long(MEV_level); }, [](long n) { MEV_level = int32_t(n); }},
    {"MAXLEVEL", 240, 241, 100, 1, 1000, [] { return long(MEV_max_level); },
     [](long n) { MEV_max_level = int32_t(n); }},
    {"MAXDEPTH", 242, 243, 500, 1, 1000, [] { return long(MEV_max_depth); },
     [](long n) { MEV_max_depth = int32_t(n); }},
    {"TEXTWIDTH", 244, 245, 75, MOU_MIN_TEXTWIDTH, INT32_MAX, [] { return MOU_textwidth; },
     [](long n) { MOU_set_textwidth(n); }},
};

const IntVar& int_var(Cell code) {
    const int n = code_number(code);
    for (const IntVar& v : int_vars)
        if (v.set_code == n || v.get_code == n) return v;
    MER_raise(MER_INVALID_FUNCTION, nullptr);
}

Cell int_setter(Cell value, int, unsigned, Cell code) {
    const IntVar& v = int_var(code);
    long n = v.fallback;
    if (value != MMM_NIL) {
        // A bignum is out of range as much as a small one beyond the bounds; any other
        // type likewise.
        if (!MMM_is_node(value, DOM_INT)) MER_raise(MER_ARG_OUT_OF_RANGE, v.name);
        n = MAR_small_int(value);
        if (n < v.lo || n > v.hi) MER_raise(MER_ARG_OUT_OF_RANGE, v.name);
    }
    v.write(n);
    return MAR_from_long(n);
}

Cell int_getter(Cell, int mode, unsigned, Cell code) {
    const IntVar& v = int_var(code);
    return mode == 1 ? nullptr : MAR_from_long(v.read());
}

// ---- PRETTYPRINT ----

Cell pretty_setter(Cell value, int, unsigned, Cell code) {
    code_number(code);
    if (value != MMM_NIL && value != MMM_TRUE && value != MMM_FALSE) MER_raise(MER_ARG_OUT_OF_RANGE, "PRETTYPRINT");
    MOU_pretty = value != MMM_FALSE;
    return MMM_retained(MOU_pretty ? MMM_TRUE : MMM_FALSE);
}

Cell pretty_getter(Cell, int mode, unsigned, Cell code) {
    code_number(code);
    return mode == 1 ? nullptr : MMM_retained(MOU_pretty ? MMM_TRUE : MMM_FALSE);
}

// ---- PI, EULER, CATALAN ----

// Only a deletion is accepted. The identifiers evaluate to themselves: their float
// values belong to the float module, which asks for them by name.
const char* constant_name(Cell code) {
    switch (code_number(code)) {
    case 203: case 204: return "PI";
    case 205: case 206: return "EULER";
    default: return "CATALAN";
    }
}

Cell constant_setter(Cell value, int, unsigned, Cell code) {
    const char* name = constant_name(code);
    if (value != MMM_NIL) MER_raise(MER_INVALID_LHS, name);
    return MMM_retained(MMM_NIL);
}

Cell constant_getter(Cell, int, unsigned, Cell code) {
    constant_name(code);
    return nullptr;
}

// ---- paths ----

std::vector<std::string> split(const std::string& list, char sep) {
    std::vector<std::string> items;
    size_t start = 0;
    while (start <= list.size()) {
        size_t end = list.find(sep, start);
        if (end == std::string::npos) end = list.size();
        if (end > start) items.push_back(list.substr(start, end - start));
        start = end + 1;
    }
    return items;
}

// A directory as the paths keep it: "/" as separator and at the end. The empty text
// (the current directory) stays empty.
std::string as_directory(std::string_view text) {
    std::string d(text);
    for (char& c : d)
        if (c == '\\') c = '/';
    if (!d.empty() && d.back() != '/') d.push_back('/');
    return d;
}

// The texts of a string or of a sequence of strings; anything else is 1005.
std::vector<std::string> texts_of(Cell value, const char* name, bool sequence_allowed) {
    std::vector<std::string> out;
    if (MMM_is_node(value, DOM_STRING)) {
        out.emplace_back(MMM_string_view(MMM_child(value, 0)));
        return out;
    }
    if (sequence_allowed && is_sequence(value) && MMM_child_count(value) > 1) {
        for (long i = 1; i < MMM_child_count(value); ++i) {
            Cell item = MMM_child(value, i);
            if (!MMM_is_node(item, DOM_STRING)) MER_raise(MER_ILLEGAL_ARGUMENT, name);
            out.emplace_back(MMM_string_view(MMM_child(item, 0)));
        }
        return out;
    }
    MER_raise(MER_ILLEGAL_ARGUMENT, name);
}

// One string for one text, a sequence for more, null for none.
Cell path_value(const std::vector<std::string>& texts) {
    if (texts.empty()) return nullptr;
    if (texts.size() == 1) return MMM_make_string(texts[0]);
    Cell s = MMM_make_expr(long(texts.size()) + 1);
    MMM_children(s)[0] = MMM_retained(MMM_ident_by_id(MFN_ID_EXPRSEQ));
    for (size_t i = 0; i < texts.size(); ++i) MMM_children(s)[i + 1] = MMM_make_string(texts[i]);
    MMM_sign(s);
    return s;
}

std::vector<std::string> default_lib_path() { return {as_directory(MEV_directories.lib_dir)}; }

// The directories of the `/p` option, then "packages" in the library directory unless
// the user's packages are left out.
std::vector<std::string> default_package_path() {
    std::vector<std::string> dirs;
    for (const std::string& d : split(MEV_directories.package_path, ';')) dirs.push_back(as_directory(d));
    if (MEV_directories.user_packages) dirs.push_back(as_directory(MEV_directories.lib_dir) + "packages/");
    return dirs;
}

struct PathVar {
    const char* name;
    int set_code, get_code;
    Cell* slot;
    bool sequence_allowed;
    bool directories;                       // entries normalised to end in "/"
    std::vector<std::string> (*fallback)();  // null: NIL leaves the variable empty
};

const PathVar path_vars[] = {
    {"READPATH", 213, 233, &MEV_read_path, true, false, nullptr},
    {"WRITEPATH", 214, 234, &MEV_write_path, false, true, nullptr},
    {"LIBPATH", 215, 232, &MEV_lib_path, true, true, default_lib_path},
    {"PACKAGEPATH", 216, 239, &MEV_package_path, true, true, default_package_path},
};

const PathVar& path_var(Cell code) {
    const int n = code_number(code);
    for (const PathVar& v : path_vars)
        if (v.set_code == n || v.get_code == n) return v;
    MER_raise(MER_INVALID_FUNCTION, nullptr);
}

Cell path_setter(Cell value, int, unsigned, Cell code) {
    const PathVar& v = path_var(code);
    std::vector<std::string> texts;
    if (value != MMM_NIL) {
        texts = texts_of(value, v.name, v.sequence_allowed);
    } else if (v.fallback) {
        texts = v.fallback();
    }
    if (v.directories)
        for (std::string& t : texts) t = as_directory(t);
    Cell made = path_value(texts);
    MMM_release(*v.slot);
    *v.slot = made;
    return MMM_retained(made ? made : MMM_NIL);
}

Cell path_getter(Cell, int mode, unsigned, Cell code) {
    const PathVar& v = path_var(code);
    return mode == 1 ? nullptr : MMM_retained(*v.slot);
}

// ---- protection ----

// protecterror(x, "write") for an assignment at level User: evaluated with its operands
// as they stand; an undefined protecterror leaves a harmless call.
void run_protecterror(Cell ident) {
    Cell call = MMM_make_expr(3);
    MMM_children(call)[0] = MMM_retained(protecterror);
    MMM_children(call)[1] = MMM_retained(ident);
    MMM_children(call)[2] = MMM_retained(write_text);
    MMM_sign(call);
    MMM_ref owned(call);
    MMM_release(MEV_eval(call, MEV_CONTEXT_ARGUMENT, MEV_ARGS_FLAT));
}

int level_of_word(Cell word) {
    for (int i = 0; i < 4; ++i)
        if (word == words[i]) return i;
    return -1;
}

// protected(x) and protected(x, level). An identifier operand stands for itself (its
// value would be no identifier); any other first operand is evaluated and must give one.
Cell builtin_protected(Cell e, int context, unsigned flags, Cell) {
    Cell result = nullptr;
    if (MEV_held(e, context, flags, &result)) return result;
    MEV_need_args(e, 1, 2);
    const bool evaluated = flags & (MEV_ARGS_FLAT | MEV_ARGS_SPLICE);
    Cell x = MMM_child(e, 1);
    MMM_ref owned_id(is_ident(x) || evaluated ? MMM_retained(x) : MEV_eval(x, MEV_CONTEXT_ARGUMENT, 0));
    Cell id = owned_id.get();
    if (!is_ident(id)) MER_raise(MER_ILLEGAL_OPERAND, "protected");
    const int level = MMM_protection(id);
    Cell former = MEV_protection_word(level);
    if (MMM_child_count(e) == 2) return MMM_retained(former);
    MMM_ref w(evaluated ? MMM_retained(MMM_child(e, 2)) : MEV_eval(MMM_child(e, 2), MEV_CONTEXT_ARGUMENT, 0));
    const int wanted = level_of_word(w.get());
    if (wanted < 0) MER_raise(MER_ILLEGAL_ARGUMENT, "protected");
    if (level == MMM_PROTECT_KERNEL) MER_raise(MER_PROTECTED, "protected", std::string(MMM_ident_text(id)).c_str());
    Cell b = MMM_binding_find(id, MMM_current_frame);
    if (!b) b = MMM_binding_make(id, MMM_current_frame);
    MMM_binding_set_level(b, wanted);
    MMM_sign(b);
    return MMM_retained(former);
}

}  // namespace

Cell MEV_protection_word(int level) { return words[level == MMM_PROTECT_KERNEL ? MMM_PROTECT_ERROR : level]; }

std::vector<std::string> MEV_read_directories() {
    std::vector<std::string> dirs;
    for (Cell path : {MEV_read_path, MEV_lib_path}) {
        if (!path) continue;
        if (MMM_is_node(path, DOM_STRING)) {
            dirs.emplace_back(MMM_string_view(MMM_child(path, 0)));
        } else if (is_sequence(path)) {
            for (long i = 1; i < MMM_child_count(path); ++i)
                dirs.emplace_back(MMM_string_view(MMM_child(MMM_child(path, i), 0)));
        }
    }
    return dirs;
}

Cell MEV_env_bind(std::string_view name, int setter_code, MFN_routine setter, int getter_code, MFN_routine getter) {
    Cell id = MMM_ident(MMM_intern(name), 3);
    Cell body = MMM_child(id, 1);
    if (MMM_child_count(body) <= MMM_IB_GETTER)
        MSY_fatal("Internal error. [MEV_env_bind: " + std::string(name) + " made before its variable]");
    MMM_release(MMM_children(body)[MMM_IB_SETTER]);
    MMM_release(MMM_children(body)[MMM_IB_GETTER]);
    MMM_children(body)[MMM_IB_SETTER] = MMM_retained(MTR_code_cell(setter, setter_code));
    MMM_children(body)[MMM_IB_GETTER] = MMM_retained(MTR_code_cell(getter, getter_code));
    MMM_sign(body);
    if (env_count == MMM_child_count(env_idents)) MMM_resize_children(&env_idents, env_count + 4);
    MMM_children(env_idents)[env_count++] = id;  // takes over the reference
    return id;
}

void MEV_reset_vars() {
    for (long i = 0; i < env_count; ++i)
        MMM_release(MMM_set_value_checked(MMM_child(env_idents, i), MMM_NIL, MMM_SET_NIL_DELETES | MMM_SET_PRIVILEGED,
                                          MMM_root_frame, false));
}

namespace {

// LEVEL and the saved level, ORDER, HISTORY, MAXLEVEL, MAXDEPTH and the four paths, put
// back after a trap or a report. The paths are retained by the room.
struct SavedEnv {
    int32_t level, level_saved, order, history, max_level, max_depth;
    Cell paths[4];
};
Cell* const saved_paths[4] = {&MEV_lib_path, &MEV_read_path, &MEV_write_path, &MEV_package_path};
void save_env(void* room) {
    auto& r = *static_cast<SavedEnv*>(room);
    r = {MEV_level, MEV_level_saved, MEV_order, MEV_history, MEV_max_level, MEV_max_depth, {}};
    for (int i = 0; i < 4; ++i) r.paths[i] = MMM_retained(*saved_paths[i]);
}
void restore_env(const void* room) {
    const auto& r = *static_cast<const SavedEnv*>(room);
    MEV_level = r.level;
    MEV_level_saved = r.level_saved;
    MEV_order = r.order;
    MEV_history = r.history;
    MEV_max_level = r.max_level;
    MEV_max_depth = r.max_depth;
    for (int i = 0; i < 4; ++i) {
        MMM_retain(r.paths[i]);
        MMM_release(*saved_paths[i]);
        *saved_paths[i] = r.paths[i];
    }
}
void drop_env(void* room) {
    auto& r = *static_cast<SavedEnv*>(room);
    for (Cell& c : r.paths) {
        MMM_release(c);
        c = nullptr;
    }
}

}  // namespace

void MEV_env_start() {
    MER_add_state({sizeof(SavedEnv), save_env, restore_env, drop_env});
    for (Cell* root : {&env_idents, &words[0], &words[1], &words[2], &words[3], &protecterror, &write_text,
                       &MEV_lib_path, &MEV_read_path, &MEV_write_path, &MEV_package_path})
        MMM_add_root(root);
    env_idents = MMM_new_cleared(MMM_VECTOR, 0, 16);
    MMM_sign(env_idents);
    env_count = 0;
    const char* word_names[4] = {"None", "Warning", "Error", "User"};
    for (int i = 0; i < 4; ++i) words[i] = MMM_ident_named(word_names[i]);
    protecterror = MMM_ident_named("protecterror");
    write_text = MMM_make_string("write");

    MEV_order = 6;
    MEV_history = 20;
    for (const IntVar& v : int_vars) MEV_env_bind(v.name, v.set_code, int_setter, v.get_code, int_getter);
    MEV_env_bind("PRETTYPRINT", 246, pretty_setter, 247, pretty_getter);
    MEV_env_bind("PI", 203, constant_setter, 204, constant_getter);
    MEV_env_bind("EULER", 205, constant_setter, 206, constant_getter);
    MEV_env_bind("CATALAN", 235, constant_setter, 236, constant_getter);
    for (const PathVar& v : path_vars) {
        MEV_env_bind(v.name, v.set_code, path_setter, v.get_code, path_getter);
        MMM_release(*v.slot);
        *v.slot = path_value(v.fallback ? v.fallback() : std::vector<std::string>{});
    }

    MMM_user_protection_hook = run_protecterror;
    MEV_trap_start();
}

namespace {
const MFN_builtin builtins[] = {
    {.name = "protected", .routine = builtin_protected, .raw = true},
};
}  // namespace

const MFN_builtin_table MEV_env_builtins = builtins;

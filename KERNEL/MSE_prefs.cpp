// The preferences of the session and the built-in `_pref` that reads and writes them.
//
// A preference is a named setting, global to the session. Those the kernel acts on live
// where they act (the watchdog limits in MSE_limits, the start options in MSE_session and
// MSE_pref, the parser's warning switch); the others are held here: hooks as cells, one
// reference each, rooted for the heap; switches, options and texts as plain values.
// Names are looked for in the order of the table; an unknown name reads and writes FAIL.
#include <array>
#include <string>

#include "MAR_numbers.h"
#include "MCM_equal.h"
#include "MER_error.h"
#include "MEV_builtins.h"
#include "MEV_eval.h"
#include "MFN_env.h"
#include "MFN_table.h"
#include "MMM_heap.h"
#include "MMM_ident.h"
#include "MMM_ref.h"
#include "MMM_values.h"
#include "MPA_reader.h"
#include "MSE_session.h"

namespace {

enum Kind { K_INT, K_BOOL, K_CELL, K_OPTION, K_STRING, K_READ_ONLY };

// The held preferences' slots.
enum Held : int {
    H_CALLBACK, H_OUTPUT, H_POST_OUTPUT, H_POST_INPUT, H_CALL_ON_EXIT, H_NO_PROC_REM_TAB, H_ALIAS, H_COMPLETE,
    H_FILTER_INPUT, H_CELLS,
    // switches
    H_MODULE_TRACE = H_CELLS, H_ANSI, H_TRAILING_ZEROES, H_WARN_LEX, H_WARN_DEAD, H_DBG_AUTO_LIST,
    // texts and options
    H_FLOAT_FORMAT, H_PROMPT_STRING, H_MATRIX_SEPARATOR, H_TIMES_DOT, H_TYPE_CHECK, H_KEEP_ORDER,
    H_NONE
};

struct Pref {
    const char* name;
    Kind kind;
    int held;
};

const Pref prefs[] = {
    {"Report", K_INT, H_NONE},
    {"Prompt", K_BOOL, H_NONE},
    {"Echo", K_BOOL, H_NONE},
    {"Maxmem", K_INT, H_NONE},
    {"Maxtime", K_INT, H_NONE},
    {"FloatFormat", K_STRING, H_FLOAT_FORMAT},
    {"PromptString", K_STRING, H_PROMPT_STRING},
    {"CallBack", K_CELL, H_CALLBACK},
    {"Output", K_CELL, H_OUTPUT},
    {"PostOutput", K_CELL, H_POST_OUTPUT},
    {"TypeCheck", K_OPTION, H_TYPE_CHECK},
    {"Kernel", K_READ_ONLY, H_NONE},
    {"PostInput", K_CELL, H_POST_INPUT},
    {"KeepOrder", K_OPTION, H_KEEP_ORDER},
    {"CallOnExit", K_CELL, H_CALL_ON_EXIT},
    {"NoProcRemTab", K_CELL, H_NO_PROC_REM_TAB},
    {"ModuleTrace", K_BOOL, H_MODULE_TRACE},
    {"UserOptions", K_STRING, H_NONE},
    {"MatrixSeparator", K_STRING, H_MATRIX_SEPARATOR},
    {"Ansi", K_BOOL, H_ANSI},
    {"TrailingZeroes", K_BOOL, H_TRAILING_ZEROES},
    {"IgnoreNoDebug", K_BOOL, H_NONE},
    {"TimesDot", K_STRING, H_TIMES_DOT},
    {"Alias", K_CELL, H_ALIAS},
    {"Complete", K_CELL, H_COMPLETE},
    {"WarnChanges", K_BOOL, H_NONE},
    {"WarnLexProcEnv", K_BOOL, H_WARN_LEX},
    {"WarnDeadProcEnv", K_BOOL, H_WARN_DEAD},
    {"SecureKernel", K_BOOL, H_NONE},
    {"DbgAutoList", K_BOOL, H_DBG_AUTO_LIST},
    {"SecureReadPath", K_STRING, H_NONE},
    {"SecureWritePath", K_STRING, H_NONE},
    {"SecureExecPath", K_STRING, H_NONE},
    {"FilterInput", K_CELL, H_FILTER_INPUT},
    {"SignedLibOnly", K_BOOL, H_NONE},
};

std::array<Cell, H_CELLS> cells{};
bool switches[H_FLOAT_FORMAT - H_CELLS] = {false, true, false, false, false, false};  // Ansi is on
std::string texts[H_NONE - H_FLOAT_FORMAT] = {"g", ">> ", ", ", " ", "Interactive", "DomainsOnly"};

bool& held_switch(int h) { return switches[h - H_CELLS]; }
std::string& held_text(int h) { return texts[h - H_FLOAT_FORMAT]; }

std::string text_of(Cell s) { return std::string(MMM_string_view(MMM_child(s, 0))); }

Cell boolean(bool b) { return MMM_retained(b ? MMM_TRUE : MMM_FALSE); }

// The CallBack hook of the tick: the held cell called with no arguments.
void run_callback() {
    Cell f = cells[H_CALLBACK];
    if (f == MMM_NIL) return;
    MMM_ref call(MMM_make_expr(1));
    MMM_children(call.get())[0] = MMM_retained(f);
    MMM_sign(call.get());
    MMM_release(MEV_eval(call.get(), MEV_CONTEXT_ARGUMENT, 0));
}

bool* bool_place(const std::string& name) {
    if (name == "Prompt") return &MSE_pref.prompt;
    if (name == "Echo") return &MSE_pref.echo;
    if (name == "IgnoreNoDebug") return &MSE_pref.ignore_no_debug;
    if (name == "WarnChanges") return &MPA_warn_changes;
    if (name == "SecureKernel") return &MSE_pref.secure_kernel;
    if (name == "SignedLibOnly") return &MSE_pref.signed_lib_only;
    return nullptr;
}

std::string* text_place(const Pref& p) {
    const std::string name = p.name;
    if (name == "UserOptions") return &MSE_session.user_options;
    if (name == "SecureReadPath") return &MSE_session.secure_read_path;
    if (name == "SecureWritePath") return &MSE_session.secure_write_path;
    if (name == "SecureExecPath") return &MSE_session.secure_exec_path;
    return &held_text(p.held);
}

Cell kernel_version() {
    Cell l = MMM_make_list(3);
    MMM_children(l)[0] = MMM_make_integer(MSE_VERSION_MAJOR);
    MMM_children(l)[1] = MMM_make_integer(MSE_VERSION_MINOR);
    MMM_children(l)[2] = MMM_make_integer(MSE_VERSION_PATCH);
    MMM_sign(l);
    return l;
}

Cell read(const Pref& p) {
    const std::string name = p.name;
    switch (p.kind) {
    case K_INT:
        if (name == "Report") return MAR_from_long(MSE_get_report());
        if (name == "Maxmem") return MAR_from_long(long(MSE_limits.maxmem / 1000));
        return MAR_from_long(MSE_limits.maxtime);
    case K_BOOL:
        if (bool* b = bool_place(name)) return boolean(*b);
        return boolean(held_switch(p.held));
    case K_CELL: return MMM_retained(cells[p.held]);
    case K_OPTION: return MMM_ident_named(held_text(p.held));
    case K_STRING: return MMM_make_string(*text_place(p));
    case K_READ_ONLY: return kernel_version();
    }
    return MMM_retained(MMM_FAIL);
}

Cell done() { return MMM_retained(MMM_NULL); }
Cell fail() { return MMM_retained(MMM_FAIL); }

Cell write(const Pref& p, Cell v) {
    const std::string name = p.name;
    switch (p.kind) {
    case K_INT: {
        if (!MMM_is_node(v, DOM_INT)) return fail();
        const long n = MAR_small_int(v);
        if (name == "Report") MSE_set_report(n);
        else if (n < 0) return fail();
        else if (name == "Maxmem") MSE_limits.maxmem = uint64_t(n) * 1000;
        else MSE_limits.maxtime = n;
        return done();
    }
    case K_BOOL: {
        const bool on = v != MMM_FALSE;  // only FALSE switches off
        if (name == "SignedLibOnly") {
            if (v != MMM_TRUE) return fail();
            MSE_pref.signed_lib_only = MSE_session.signed_lib_only = true;
            return done();
        }
        if (name == "SecureKernel") {
            if (!on && MSE_session.secure_kernel) MER_raise(MER_PERMISSION_DENIED, "Pref");
            if (on) MSE_pref.secure_kernel = MSE_session.secure_kernel = true;
            return done();
        }
        if (bool* b = bool_place(name)) *b = on;
        else held_switch(p.held) = on;
        return done();
    }
    case K_CELL:
        MMM_retain(v);
        MMM_release(cells[p.held]);
        cells[p.held] = v;
        if (p.held == H_CALLBACK) MSE_limits.callback = v == MMM_NIL ? nullptr : run_callback;
        return done();
    case K_OPTION: {
        const std::string word = MMM_is_node(v, DOM_IDENT) ? std::string(MMM_ident_text(v)) : "";
        const bool type_check = p.held == H_TYPE_CHECK;
        const bool ok = type_check ? (word == "None" || word == "Always" || word == "Interactive")
                                   : (word == "System" || word == "DomainsOnly" || word == "Always");
        if (!ok) return fail();
        held_text(p.held) = word;
        return done();
    }
    case K_STRING: {
        if (p.held == H_TIMES_DOT) {
            Cell old = read(p);
            if (MMM_is_node(v, DOM_STRING)) held_text(p.held) = text_of(v).substr(0, 8);
            else if (MMM_is_node(v, DOM_INT) && MAR_small_int(v) >= 1 && MAR_small_int(v) <= 254)
                held_text(p.held) = std::string(1, char(MAR_small_int(v)));
            else {
                MMM_release(old);
                return fail();
            }
            return old;
        }
        if (!MMM_is_node(v, DOM_STRING)) return fail();
        std::string text = text_of(v);
        if (name.starts_with("Secure") && MSE_pref.secure_kernel) MER_raise(MER_PERMISSION_DENIED, "Pref");
        if (p.held == H_FLOAT_FORMAT && (text.size() != 1 || std::string("efgh").find(text) == std::string::npos))
            return done();  // an unknown format leaves the old one
        if (p.held == H_MATRIX_SEPARATOR) text = text.substr(0, 3);
        *text_place(p) = text;
        return done();
    }
    case K_READ_ONLY: return kernel_version();
    }
    return fail();
}

const Pref* find(Cell ident) {
    const std::string_view name = MMM_ident_text(ident);
    for (const Pref& p : prefs)
        if (name == p.name) return &p;
    return nullptr;
}

// _pref(name) reads, _pref(name = value) writes.
Cell builtin_pref(Cell e, int, unsigned, Cell) {
    Cell a = MEV_nargs(e) == 1 ? MEV_arg(e, 1) : nullptr;
    if (!a) MER_raise(MER_ILLEGAL_ARGUMENT, "pref");
    if (MMM_is_node(a, DOM_IDENT)) {
        const Pref* p = find(a);
        return p ? read(*p) : fail();
    }
    if (MMM_is_node(a, DOM_EXPR) && MMM_child_count(a) == 3 && MMM_child(a, 0) == MMM_ident_by_id(MFN_ID_EQUAL) &&
        MMM_is_node(MMM_child(a, 1), DOM_IDENT)) {
        const Pref* p = find(MMM_child(a, 1));
        return p ? write(*p, MMM_child(a, 2)) : fail();
    }
    MER_raise(MER_ILLEGAL_ARGUMENT, "pref");
}

const MFN_builtin builtins[] = {
    {.name = "_pref", .routine = builtin_pref, .args = {0, 2}},
};

}  // namespace

const MFN_builtin_table MSE_pref_builtins = builtins;

void MSE_prefs_start() {
    // The cells of a former heap, if any, are gone with it.
    for (Cell& c : cells) {
        c = MMM_retained(&c == &cells[H_NO_PROC_REM_TAB] ? MMM_FALSE : MMM_NIL);
        MMM_add_root(&c);
    }
}

Cell MSE_call_on_exit() {
    return cells[H_CALL_ON_EXIT];
}

// Procedures: `_procdef` trees made into DOM_PROC values, binding of closures,
// activations, local variables and the procedure call.
#include "MEV_proc.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "MER_error.h"
#include "MEV_eval.h"
#include "MEV_stmt.h"
#include "MFN_env.h"
#include "MFN_layout.h"
#include "MFN_table.h"
#include "MMM_heap.h"
#include "MMM_ident.h"
#include "MMM_ref.h"
#include "MMM_table.h"
#include "MMM_values.h"
#include "MOU_print.h"
#include "MPA_reader.h"

int MEV_type_check = 2;
bool MEV_warn_uninitialized = true;
bool MEV_warn_dead_closure = false;
Cell MEV_remember_exclusion = nullptr;

namespace {

Cell call_code = nullptr;  // the code cell of number 100, owned by the code table
Cell anonymous = nullptr;  // the identifiers the module names (roots)
Cell procname_ident = nullptr;
Cell dom_ident = nullptr;
Cell testtype_ident = nullptr;

struct OptionWord {
    const char* text;
    uint16_t bits;
};
constexpr OptionWord option_words[] = {
    {"remember", MMM_PROC_REMEMBER}, {"hold", MMM_PROC_HOLD},     {"noDebug", MMM_PROC_NO_DEBUG},
    {"arrow", MMM_PROC_ARROW},       {"escape", MMM_PROC_ESCAPE}, {"noExpose", MMM_PROC_NO_EXPOSE | MMM_PROC_NO_DEBUG},
};

bool is_cat(Cell c, int category) { return c && MMM_kind_of(c) == MMM_NODE && MMM_category(c) == category; }
bool is_proc(Cell c) { return is_cat(c, DOM_PROC) && MMM_child_count(c) == MMM_PF_COUNT; }

// The items of a parameter, local, saved or option field: NIL has none, a sequence its
// operands, anything else is one item.
long item_count(Cell field) {
    if (!field || field == MMM_NIL) return 0;
    if (MMM_is_call_of(field, MFN_ID_EXPRSEQ)) return MMM_child_count(field) - 1;
    return 1;
}
Cell item(Cell field, long k) { return MMM_is_call_of(field, MFN_ID_EXPRSEQ) ? MMM_child(field, k + 1) : field; }

// Entry k of a field that has one entry for each of n parameters: the field itself for
// one, an operand of the sequence for more; null where there is none.
Cell entry(Cell field, long k, long n) {
    if (!field || field == MMM_NIL) return nullptr;
    Cell e = nullptr;
    if (n == 1) e = field;
    else if (MMM_is_call_of(field, MFN_ID_EXPRSEQ) && MMM_child_count(field) - 1 == n) e = MMM_child(field, k + 1);
    return e == MMM_NIL ? nullptr : e;
}

Cell make_proc_env(Cell activation) {
    Cell env = MMM_new_node(DOM_PROC_ENV, 1);
    MMM_children(env)[MEV_PROC_ENV_ACTIVATION] = MMM_retained(activation);
    MMM_sign(env);
    return env;
}

int32_t* words(Cell a) { return MEV_activation_words(a); }

// The activation `depth` steps out along the lexical links, or null.
Cell reach(Cell frame, int depth) {
    Cell a = frame;
    for (; depth > 0 && a; --depth) a = MMM_child(a, MEV_AC_LEXICAL);
    return a;
}

Cell* slot_of(Cell a, int index) {
    if (!a || index < 0) return nullptr;
    const long s = long(words(a)[MEV_AW_FIRST_SLOT]) + index;
    if (s >= MMM_child_count(a)) return nullptr;
    return MMM_children(a) + s;
}

std::string ident_text(Cell ident) { return std::string(MMM_ident_text(ident)); }

// The text of a value for a message; a value that cannot be printed gives "<<error>>".
std::string text_of(Cell v) {
    if (is_cat(v, DOM_IDENT)) return ident_text(v);
    const long pending = MER_pending;
    const bool trapped = MER_trapped;
    MER_trapped = true;  // a failure here must not print a report of its own
    std::string out;
    try {
        out = MOU_to_text(v);
    } catch (const MER_exception&) {
        out = "<<error>>";
    }
    MER_trapped = trapped;
    MER_pending = pending;
    return out;
}

// ---- `_procdef` ----

// Option words to bits. `lenient` passes over unknown words: the reader reports them
// itself (error 2006) and drops the statement.
uint16_t read_options(Cell field, bool lenient) {
    const long n = item_count(field);
    if (n > 6) MER_raise(MER_UNKNOWN_OPTION, nullptr);
    uint16_t bits = 0;
    for (long k = 0; k < n; ++k) {
        Cell w = item(field, k);
        bool known = false;
        if (is_cat(w, DOM_IDENT))
            for (const OptionWord& o : option_words)
                if (MMM_ident_text(w) == o.text) {
                    bits |= o.bits;
                    known = true;
                }
        if (!known && !lenient) MER_raise(MER_UNKNOWN_OPTION, is_cat(w, DOM_IDENT) ? ident_text(w).c_str() : nullptr);
    }
    return bits;
}

// A name given twice among parameters, locals and saved names is reported once, all
// such names in one message.
void warn_duplicates(Cell params, Cell locals, Cell saves, Cell name) {
    std::vector<Cell> seen, twice;
    for (Cell field : {params, locals, saves}) {
        for (long k = 0; k < item_count(field); ++k) {
            Cell id = item(field, k);
            if (!is_cat(id, DOM_IDENT)) continue;
            if (std::find(seen.begin(), seen.end(), id) == seen.end()) seen.push_back(id);
            else if (std::find(twice.begin(), twice.end(), id) == twice.end()) twice.push_back(id);
        }
    }
    if (twice.empty()) return;
    std::string text = "\nWarning: Duplicate parameter, variable or saved identifier '" + ident_text(twice[0]) + "'";
    for (size_t i = 1; i < twice.size(); ++i) text += ", '" + ident_text(twice[i]) + "'";
    const bool named = name && name != MMM_NIL && !(MMM_is_call_of(name, MFN_ID_EXPRSEQ) && MMM_child_count(name) == 1);
    text += " in procedure '" + (named ? text_of(name) : std::string("unknown")) + "'.\n\n";
    MOU_printf(MOU_WRN, "%s", text.c_str());
}

// ---- settings of remember tables ----

// Whether the procedure of this call name keeps and consults its remember table.
bool remember_served(Cell call_name) {
    Cell x = MEV_remember_exclusion;
    if (!x || x == MMM_FALSE) return true;
    if (x == MMM_TRUE) return false;
    if (!is_cat(x, DOM_LIST)) return true;
    for (long i = 0; i < MMM_child_count(x); ++i)
        if (MMM_child(x, i) == call_name) return false;
    return true;
}

void remember_store(Cell proc, Cell args, Cell value) {
    Cell& table = MMM_children(proc)[MMM_PF_REMEMBER];
    if (table == MMM_NIL) {
        MMM_release(table);
        table = MMM_make_table(0);
    }
    if (!is_cat(table, DOM_TABLE)) MER_raise(MER_ILLEGAL_OPERAND, "DOM_PROC");
    Cell key = MMM_table_make_key(args, 1);
    MMM_table_set(&MMM_children(table)[MMM_TABLE_HASH], key, value);
    MMM_release(key);
    MMM_sign(table);
    // The procedure keeps its signature: the table is a cache, not part of the value.
}

// ---- type tests ----

bool is_type_name(std::string_view t) {
    for (int c = 0; c < MMM_CATEGORY_COUNT; ++c)
        if (const char* n = MMM_category_name(c); n && t == n) return true;
    return false;
}

// A type that names a category (DOM_INT, DOM_LIST, ...) is decided here by the category
// of the value. Any other type goes to `testtype`; only FALSE from it fails the test, so
// a type the kernel cannot judge yet passes.
bool type_ok(Cell value, Cell type) {
    if (is_cat(type, DOM_IDENT) && is_type_name(MMM_ident_text(type))) {
        const char* n = MMM_category_name(MMM_category(value));
        return n && MMM_ident_text(type) == n;
    }
    Cell call = MMM_make_expr(3);
    MMM_children(call)[0] = MMM_retained(testtype_ident);
    MMM_children(call)[1] = MMM_retained(value);
    MMM_children(call)[2] = MMM_retained(type);
    MMM_sign(call);
    MMM_ref owned(call);
    MMM_ref r(MEV_eval(call, MEV_CONTEXT_ARGUMENT, MEV_ARGS_FLAT));
    return r.get() != MMM_FALSE;
}

std::string clipped(const std::string& text) { return text.size() > 80 ? text.substr(0, 77) + "..." : text; }

[[noreturn]] void type_error(std::string message, Cell frame) {
    message += " [" + MEV_call_name_text(frame) + "]";
    MER_raise(MER_USER_ERROR, message.c_str());
}

void check_arguments(Cell frame, Cell proc, long nargs, long nparams) {
    Cell types = MMM_child(proc, MMM_PF_PARAM_TYPES);
    const long first = words(frame)[MEV_AW_FIRST_ARG];
    for (long k = 0; k < nparams; ++k) {
        Cell type = entry(types, k, nparams);
        if (!type) continue;
        Cell v = MMM_child(frame, first + k);
        const std::string n = std::to_string(k + 1);
        if (!v) type_error("Missing " + n + ". argument (type '" + text_of(type) + "' expected)", frame);
        if (k < nargs && !type_ok(v, type))
            type_error("Wrong type of " + n + ". argument (type '" + text_of(type) + "' expected,\n       got argument '" +
                           clipped(text_of(v)) + "')",
                       frame);
    }
}

void check_result(Cell frame, Cell proc, Cell result) {
    Cell type = MMM_child(proc, MMM_PF_RETURN_TYPE);
    if (type == MMM_NIL || type_ok(result, type)) return;
    type_error("Wrong type of return value (type '" + text_of(type) + "' expected,\n       value is '" +
                   clipped(text_of(result)) + "')",
               frame);
}

// A noExpose body is a call of the statement sequence, nothing else.
void check_hidden_body(Cell body) {
    bool ok = false;
    if (is_cat(body, DOM_EXPR) && is_cat(MMM_child(body, 0), DOM_IDENT)) {
        Cell v = MMM_value(MMM_child(body, 0));
        ok = is_cat(v, DOM_FUNC_ENV) && is_cat(MMM_child(v, MFN_ENV_EVALUATOR), DOM_EXEC) &&
             MMM_code_of(MMM_child(MMM_child(v, MFN_ENV_EVALUATOR), MFN_EXEC_CODE)).code == 913;
        MMM_release(v);
    }
    if (!ok) MER_raise(MER_ILLEGAL_OPERAND, "function evaluation");
}

// ---- saved names ----

// Puts a saved value back in the current frame; nothing happens when it is there already.
void restore_name(Cell ident, Cell value) {
    if (!is_cat(ident, DOM_IDENT)) return;
    Cell now = MMM_value_in(ident, MMM_current_frame, true);
    const bool same = now == value;
    MMM_release(now);
    if (same) return;
    MMM_release(MMM_set_value(ident, value, MMM_SET_PRIVILEGED | (value ? 0 : MMM_SET_NIL_DELETES), MMM_current_frame));
}

// ---- locals ----

Cell eval_local(Cell var, int, unsigned) {
    Cell a = reach(MEV_frame, MMM_var_depth(var));
    Cell* s = slot_of(a, MMM_var_index(var));
    if (!s) MER_raise(MER_ILLEGAL_VARIABLE_CONTEXT, "DOM_VAR");
    if (!*s) {
        // The first read of a local without value: it becomes NIL, with a warning.
        *s = MMM_retained(MMM_NIL);
        if (MEV_warn_uninitialized) {
            Cell p = MMM_child(a, MEV_AC_PROC);
            Cell name = p ? MEV_var_name(MMM_var_index(var), MMM_child(p, MMM_PF_PARAMS), MMM_child(p, MMM_PF_LOCALS))
                          : nullptr;
            MER_warn(MER_WARN_UNINITIALIZED, nullptr, name ? ident_text(name).c_str() : "unknown");
        }
    }
    return MMM_retained(*s);
}

void write_local(Cell var, Cell value) {
    if (!MEV_var_write(var, value, MEV_frame)) MER_raise(MER_INVALID_VARIABLE, nullptr);
}

Cell printer_var_name(int depth, int index) {
    Cell a = reach(MEV_frame, depth);
    if (!a || !MMM_child(a, MEV_AC_PROC)) return nullptr;
    Cell p = MMM_child(a, MEV_AC_PROC);
    return MEV_var_name(index, MMM_child(p, MMM_PF_PARAMS), MMM_child(p, MMM_PF_LOCALS));
}

bool context_name(std::string& name) {
    if (!MEV_frame) return false;
    name = MEV_call_name_text(MEV_frame);
    return true;
}

// ---- binding ----

// Defaults and types, evaluated where the procedure is made: one value for a single
// parameter, the operands one by one for more.
Cell evaluated_field(Cell field, long nparams) {
    if (field == MMM_NIL) return MMM_retained(field);
    if (nparams <= 1 || !MMM_is_call_of(field, MFN_ID_EXPRSEQ)) return MEV_eval_value(field, MEV_CONTEXT_STATEMENT, 0);
    const long n = MMM_child_count(field);
    MMM_ref out(MMM_new_node(DOM_EXPR, n));
    Cell* c = MMM_children(out.get());
    for (long i = 0; i < n; ++i) c[i] = nullptr;
    c[0] = MMM_retained(MMM_child(field, 0));
    for (long i = 1; i < n; ++i) c[i] = MEV_eval_value(MMM_child(field, i), MEV_CONTEXT_STATEMENT, 0);
    MMM_sign(out.get());
    return out.take();
}

// Everything a call changes in the evaluator and puts back at its end.
struct CallerState {
    int32_t level, level_saved, depth;
    int type_check;
    Cell last_value;  // the caller's, held while the body runs
    int32_t pending;

    CallerState()
        : level(MEV_level), level_saved(MEV_level_saved), depth(MEV_depth), type_check(MEV_type_check),
          last_value(MEV_last_value), pending(MEV_value_pending) {
        MEV_last_value = nullptr;
    }
    void restore() {
        MEV_level = level;
        MEV_level_saved = level_saved;
        MEV_depth = depth;
        MEV_type_check = type_check;
        MMM_release(MEV_last_value);
        MEV_last_value = last_value;
        MEV_value_pending = pending;
        --MEV_call_depth;
    }
};

}  // namespace

// ---- public: procedures ----

namespace {

Cell make_procedure(Cell tree, bool closed, bool lenient) {
    const long n = MMM_child_count(tree);
    if (n != 7 && n != 9 && n != 13 && n != 14) MER_raise(MER_WRONG_ARG_COUNT, "_procdef");
    auto field = [&](long i, Cell missing) { return i < n ? MMM_child(tree, i) : missing; };
    uint16_t bits = read_options(field(3, MMM_NIL), lenient) | MMM_PROC_NORMALISED;
    if (closed) bits |= MMM_PROC_CLOSED;
    if (MEV_depth == 0) warn_duplicates(field(1, MMM_NIL), field(2, MMM_NIL), field(10, MMM_NIL), field(5, MMM_NIL));
    Cell body = MMM_retained(field(4, MMM_NIL));
    if ((bits & MMM_PROC_NO_EXPOSE) && !MMM_is_call_of(body, MFN_ID_STMTSEQ)) {
        // A hidden body is a call of the statement sequence, where printing stops.
        Cell wrapped = MMM_make_expr(2);
        MMM_children(wrapped)[0] = MMM_retained(MMM_ident_by_id(MFN_ID_STMTSEQ));
        MMM_children(wrapped)[1] = body;
        MMM_sign(wrapped);
        body = wrapped;
    }
    Cell p = MMM_new_node(DOM_PROC, MMM_PF_COUNT);
    Cell* c = MMM_children(p);
    c[MMM_PF_CODE] = MMM_retained(call_code);
    c[MMM_PF_PARAMS] = MMM_retained(field(1, MMM_NIL));
    c[MMM_PF_LOCALS] = MMM_retained(field(2, MMM_NIL));
    c[MMM_PF_BODY] = body;
    c[MMM_PF_REMEMBER] = MMM_retained(MMM_NIL);
    c[MMM_PF_NAME] = MMM_retained(field(5, MMM_NIL));
    c[MMM_PF_PARAM_TYPES] = MMM_retained(field(6, MMM_NIL));
    c[MMM_PF_RETURN_TYPE] = MMM_retained(field(7, MMM_NIL));
    c[MMM_PF_LOCAL_TYPES] = MMM_retained(field(8, MMM_NIL));
    c[MMM_PF_DEFAULTS] = MMM_retained(field(9, MMM_NIL));
    c[MMM_PF_SAVED] = MMM_retained(field(10, MMM_NIL));
    c[MMM_PF_CLOSURE] = MMM_retained(field(11, MMM_FAIL));
    c[MMM_PF_DOMAIN] = MMM_retained(field(12, MMM_NIL));
    MMM_set_node_flags(p, bits);
    MMM_sign(p);
    return p;
}

Cell procdef_from_reader(Cell tree, bool closed) { return make_procedure(tree, closed, true); }

}  // namespace

Cell MEV_procdef(Cell tree, bool closed) { return make_procedure(tree, closed, false); }

Cell MEV_bind_closure(Cell proc, int, unsigned flags) {
    if ((flags & MEV_HOLD) || !is_proc(proc) || MMM_child(proc, MMM_PF_CLOSURE) != MMM_FAIL) return MMM_retained(proc);
    const long nparams = item_count(MMM_child(proc, MMM_PF_PARAMS));
    MMM_ref defaults(evaluated_field(MMM_child(proc, MMM_PF_DEFAULTS), nparams));
    MMM_ref types(evaluated_field(MMM_child(proc, MMM_PF_PARAM_TYPES), nparams));
    MMM_ref return_type(evaluated_field(MMM_child(proc, MMM_PF_RETURN_TYPE), 1));
    MMM_ref p(MMM_retained(proc));
    MMM_clone(p.slot());
    Cell* c = MMM_children(p.get());
    MMM_release(c[MMM_PF_CLOSURE]);
    c[MMM_PF_CLOSURE] = nullptr;
    c[MMM_PF_CLOSURE] =
        !MEV_frame || (MMM_node_flags(p.get()) & MMM_PROC_CLOSED) ? MMM_retained(MMM_NIL) : make_proc_env(MEV_frame);
    MMM_release(c[MMM_PF_DEFAULTS]);
    c[MMM_PF_DEFAULTS] = defaults.take();
    MMM_release(c[MMM_PF_PARAM_TYPES]);
    c[MMM_PF_PARAM_TYPES] = types.take();
    MMM_release(c[MMM_PF_RETURN_TYPE]);
    c[MMM_PF_RETURN_TYPE] = return_type.take();
    MMM_sign(p.get());
    return p.take();
}

namespace {

// ---- the steps of a procedure call ----

// What the steps of one call share. The procedure and the call name are borrowed from the
// caller. The arguments and the result are owned, so that an error between two steps gives
// them back. The activation belongs to MEV_frame while `frame_current` is set, and is
// handed to the closing routine by close_activation, or by abandon_activation on an error.
struct ProcCall {
    Cell proc;
    Cell const* field;  // the procedure's fields
    uint16_t options;
    Cell call_name;
    MMM_ref args;
    bool served = false;  // the remember table is kept and consulted for this call name
    Cell frame = nullptr;
    bool frame_current = false;
    bool check = false;  // argument and return types are tested in this call
    bool remember_now = false;
    long nparams = 0, nlocals = 0, nsaved = 0, nargs = 0;
    long first_arg = 0;  // the activation's index of the first argument
    MMM_ref result;

    explicit ProcCall(Cell p);
};

// The call name: `anonymous` for none, NIL for an empty `name`.
Cell call_name_of(Cell name) {
    if (name == MMM_NIL) return anonymous;
    if (MMM_is_call_of(name, MFN_ID_EXPRSEQ) && MMM_child_count(name) == 1) return MMM_NIL;
    return name;
}

ProcCall::ProcCall(Cell p)
    : proc(p), field(MMM_children(p)), options(MMM_node_flags(p)), call_name(call_name_of(field[MMM_PF_NAME])) {}

// Calls nested too deep, or an operator that is no procedure, end the call at once.
inline void check_depth(Cell proc) {
    if (MEV_call_depth >= MEV_max_depth) MER_raise(MER_RECURSIVE_DEFINITION, "See ?MAXDEPTH");
    if (!is_proc(proc)) MER_raise(MER_ILLEGAL_OPERAND, "DOM_PROC");
}

// The arguments: as written for a flat call, flattened for a spliced call or a `hold`
// procedure, evaluated otherwise.
inline void take_arguments(ProcCall& c, Cell expr, unsigned flags) {
    if (flags & MEV_ARGS_FLAT) {
        c.args.reset(MMM_retained(expr));
    } else if ((flags & MEV_ARGS_SPLICE) || (c.options & MMM_PROC_HOLD)) {
        c.args.reset(MMM_retained(expr));
        MEV_flatten(c.args.slot(), 2);
    } else {
        int ext = 0;
        c.args.reset(MEV_eval_args(expr, 0, MEV_CONTEXT_ARGUMENT, 2, 0, &ext));
    }
}

// The remember table, before any activation is made: the stored value (borrowed) or null.
inline Cell look_up_remembered(ProcCall& c) {
    c.served = remember_served(c.call_name);
    Cell table = c.field[MMM_PF_REMEMBER];
    if (!c.served || table == MMM_NIL) return nullptr;
    if (!is_cat(table, DOM_TABLE)) MER_raise(MER_ILLEGAL_OPERAND, "DOM_PROC");
    Cell found = nullptr;
    if (MMM_table_lookup(MMM_child(table, MMM_TABLE_HASH), c.args.get(), 1, &found) && found) return found;
    return nullptr;
}

// The body runs at LEVEL 1 from depth 0, one call deeper.
inline void enter_body_level() {
    MEV_level_saved = MEV_level;
    MEV_level = 1;
    MEV_depth = 0;
    ++MEV_call_depth;
}

// The activation, made current: the procedure, its lexical parent and the caller's
// activation, the ring of last values, the call name and `dom`; locals and arguments follow
// (surplus arguments too), cleared.
inline void open_activation(ProcCall& c) {
    Cell const* field = c.field;
    if (c.options & MMM_PROC_NO_EXPOSE) check_hidden_body(field[MMM_PF_BODY]);
    c.nparams = item_count(field[MMM_PF_PARAMS]);
    c.nlocals = item_count(field[MMM_PF_LOCALS]);
    c.nsaved = item_count(field[MMM_PF_SAVED]);
    c.nargs = MMM_child_count(c.args.get()) - 1;
    Cell parent = nullptr;
    if (!(c.options & MMM_PROC_CLOSED) && is_cat(field[MMM_PF_CLOSURE], DOM_PROC_ENV))
        parent = MMM_child(field[MMM_PF_CLOSURE], 0);
    Cell dom = field[MMM_PF_DOMAIN];
    if (dom == MMM_NIL && parent) {
        Cell* s = slot_of(parent, 1);
        if (s && *s) dom = *s;
    }
    const long first_slot = MEV_AC_SAVED + 2 * c.nsaved;
    c.first_arg = first_slot + 2 + c.nlocals;
    Cell frame = MMM_new_cleared(MMM_PROC_ENV, long(sizeof(int32_t)) * MEV_AW_COUNT,
                                 c.first_arg + std::max(c.nargs, c.nparams));
    c.frame = frame;
    int32_t* w = words(frame);
    w[MEV_AW_FIRST_SLOT] = int32_t(first_slot);
    w[MEV_AW_FIRST_ARG] = int32_t(c.first_arg);
    w[MEV_AW_ARG_COUNT] = int32_t(c.nargs);
    w[MEV_AW_RING_POS] = 0;
    w[MEV_AW_SPARE] = 0;
    Cell* a = MMM_children(frame);
    a[MEV_AC_PROC] = MMM_retained(c.proc);
    a[MEV_AC_LEXICAL] = MMM_retained(parent);
    a[MEV_AC_CALLER] = MEV_frame;  // takes over the reference MEV_frame held
    for (int i = 0; i < 3; ++i) a[MEV_AC_RING + i] = MMM_retained(MMM_NULL);
    a[MEV_AC_RESTORE] = MMM_retained(MMM_NIL);
    a[first_slot] = MMM_retained(c.call_name);
    a[first_slot + 1] = MMM_retained(dom);
    MEV_frame = frame;
    c.frame_current = true;
}

// Names saved by the header keep their values beside them; the NIL after a value marks it
// for restoring when the activation is left.
inline void save_names(ProcCall& c) {
    Cell* a = MMM_children(c.frame);
    for (long k = 0; k < c.nsaved; ++k) {
        Cell id = item(c.field[MMM_PF_SAVED], k);
        if (!is_cat(id, DOM_IDENT)) continue;
        a[MEV_AC_SAVED + 2 * k] = MMM_value_in(id, MMM_current_frame, true);
        a[MEV_AC_SAVED + 2 * k + 1] = MMM_retained(MMM_NIL);
    }
}

// The arguments go into their slots, defaults into those of missing ones; the activation
// is complete.
inline void bind_arguments(ProcCall& c) {
    Cell* a = MMM_children(c.frame);
    for (long i = 0; i < c.nargs; ++i) a[c.first_arg + i] = MMM_retained(MMM_child(c.args.get(), i + 1));
    for (long k = c.nargs; k < c.nparams; ++k)
        if (Cell d = entry(c.field[MMM_PF_DEFAULTS], k, c.nparams)) a[c.first_arg + k] = MMM_retained(d);
    MMM_sign(c.frame);
}

// Type tests, by the caller's setting; the tests themselves run unchecked.
inline void test_argument_types(ProcCall& c, const CallerState& caller) {
    c.check = caller.type_check == 1 || (caller.type_check == 2 && MEV_call_depth == 1);
    if (c.check && c.field[MMM_PF_PARAM_TYPES] != MMM_NIL) {
        MEV_type_check = 0;
        check_arguments(c.frame, c.proc, c.nargs, c.nparams);
        MEV_type_check = caller.type_check;
    }
}

// The arguments are kept as the key of the remember table, or given back now.
inline void keep_arguments_if_remembering(ProcCall& c) {
    c.remember_now = (c.options & MMM_PROC_REMEMBER) && c.served;
    if (!c.remember_now) c.args.reset();
}

// The body's value; with none, the last value it set, or NULL.
inline void run_body(ProcCall& c) {
    Cell body = c.field[MMM_PF_BODY];
    MEV_value_pending = 0;
    if (body == MMM_NIL) {
        c.result.reset(MMM_retained(MMM_NULL));
    } else {
        c.result.reset(MEV_eval(body, MEV_CONTEXT_STATEMENT, 0));
        if (c.result) MEV_ring_enter(c.result.get());
        else c.result.reset(MMM_retained(MEV_value_pending && MEV_last_value ? MEV_last_value : MMM_NULL));
    }
}

// A `return` (or a stray `next` or `break`) ends at the body; `quit` goes on.
inline void leave_body(ProcCall& c) {
    MEV_frame_leave(c.frame);
    if (MEV_control != MEV_CONTROL_QUIT) MEV_control = MEV_CONTROL_NONE;
}

inline void test_return_type(ProcCall& c, const CallerState& caller) {
    if (c.check && c.field[MMM_PF_RETURN_TYPE] != MMM_NIL) {
        MEV_type_check = 0;
        check_result(c.frame, c.proc, c.result.get());
        MEV_type_check = caller.type_check;
    }
}

// The caller's activation is current again; this one is closed, kept alive only by the
// closures that refer to it.
inline void close_activation(ProcCall& c) {
    Cell back = MMM_child(c.frame, MEV_AC_CALLER);
    const std::string name_text = MEV_warn_dead_closure ? MEV_call_name_text(c.frame) : std::string();
    MEV_frame = MMM_retained(back);
    c.frame_current = false;
    if (!MEV_frame_close(c.frame, c.options & MMM_PROC_ESCAPE) && MEV_warn_dead_closure)
        MER_warn(MER_WARN_DEAD_CLOSURE, nullptr, name_text.c_str());
}

inline void remember_result(ProcCall& c) {
    if (!c.remember_now) return;
    remember_store(c.proc, c.args.get(), c.result.get());
    c.args.reset();
}

// On an error the activation is left as on a normal exit, so that whoever catches the
// error finds the evaluator as it was at the call.
inline void abandon_activation(ProcCall& c) {
    if (!c.frame_current) return;
    try {
        MEV_frame_leave(c.frame);
    } catch (const MER_exception&) {
    }
    MEV_frame = MMM_retained(MMM_child(c.frame, MEV_AC_CALLER));
    MEV_frame_close(c.frame, c.options & MMM_PROC_ESCAPE);
}

}  // namespace

Cell MEV_call_proc(Cell expr, int, unsigned flags, Cell proc) {
    check_depth(proc);
    ProcCall c(proc);
    if (flags & MEV_HOLD) return MMM_retained(expr);  // a held call stays as it is
    take_arguments(c, expr, flags);
    if (Cell found = look_up_remembered(c)) return MMM_retained(found);
    CallerState caller;
    enter_body_level();
    try {
        open_activation(c);
        save_names(c);
        bind_arguments(c);
        test_argument_types(c, caller);
        keep_arguments_if_remembering(c);
        run_body(c);
        leave_body(c);
        test_return_type(c, caller);
        close_activation(c);
        remember_result(c);
    } catch (...) {
        abandon_activation(c);
        caller.restore();
        throw;
    }
    caller.restore();
    return c.result.take();
}

// ---- public: locals ----

Cell* MEV_var_slot(Cell var, Cell frame) { return slot_of(reach(frame, MMM_var_depth(var)), MMM_var_index(var)); }

Cell MEV_var_read(Cell var, Cell frame) {
    Cell* s = MEV_var_slot(var, frame);
    return s ? *s : nullptr;
}

bool MEV_var_write(Cell var, Cell value, Cell frame) {
    Cell* s = MEV_var_slot(var, frame);
    if (!s) return false;
    MMM_retain(value);
    Cell old = *s;
    *s = value;
    MMM_release(old);
    return true;
}

Cell MEV_var_take(Cell var) {
    Cell* s = MEV_var_slot(var, MEV_frame);
    if (!s) MER_raise(MER_INVALID_VARIABLE, nullptr);
    Cell v = *s;
    *s = nullptr;
    return v;
}

Cell MEV_var_name(int index, Cell params, Cell locals) {
    if (index == 0) return procname_ident;
    if (index == 1) return dom_ident;
    long k = index - 2;
    if (k < 0) return nullptr;
    const long nl = item_count(locals);
    Cell id = nullptr;
    if (k < nl) id = item(locals, k);
    else if (k - nl < item_count(params)) id = item(params, k - nl);
    return is_cat(id, DOM_IDENT) ? id : nullptr;
}

Cell MEV_var_ident(Cell var) { return printer_var_name(MMM_var_depth(var), MMM_var_index(var)); }

// ---- public: activations ----

bool MEV_frame_close(Cell frame, bool escape) {
    if (frame->refcount <= 1) {
        MMM_release(frame);
        return true;
    }
    Cell* c = MMM_children(frame);
    const long n = MMM_child_count(frame);
    int32_t* w = words(frame);
    if (escape) {
        // The procedure, the lexical link and the addressable slots stay for the closures.
        for (long i = MEV_AC_CALLER; i < w[MEV_AW_FIRST_SLOT] && i < n; ++i) {
            Cell x = c[i];
            c[i] = nullptr;
            MMM_release(x);
        }
        MMM_release(frame);
        return true;
    }
    // Shared without `escape`: emptied, and no slot is addressable any more. The count
    // held here keeps the cell alive while a cycle through its slots is released.
    w[MEV_AW_FIRST_SLOT] = int32_t(n);
    for (long i = 0; i < n; ++i) {
        Cell x = c[i];
        c[i] = nullptr;
        MMM_release(x);
    }
    const bool last = frame->refcount == 1;
    MMM_release(frame);
    return last;
}

Cell MEV_call_name(Cell frame) {
    Cell* s = slot_of(frame, 0);
    return s ? *s : nullptr;
}

std::string MEV_call_name_text(Cell frame) {
    Cell n = MEV_call_name(frame);
    if (!n || n == MMM_NIL) return "anonymous";
    return text_of(n);
}

void MEV_ring_enter(Cell value) {
    Cell a = MEV_frame;
    if (!a || !value) return;
    int32_t* w = words(a);
    int32_t pos = w[MEV_AW_RING_POS];
    if (pos < 0 || pos > 2) pos = 0;
    Cell& slot = MMM_children(a)[MEV_AC_RING + pos];
    MMM_retain(value);
    MMM_release(slot);
    slot = value;
    w[MEV_AW_RING_POS] = (pos + 1) % 3;
}

void MEV_frame_save(Cell ident) {
    Cell a = MEV_frame;
    Cell t = MMM_new(MMM_TRIPLE, 0, 3);
    MMM_children(t)[0] = MMM_retained(ident);
    MMM_children(t)[1] = MMM_value_in(ident, MMM_current_frame, true);
    Cell& chain = MMM_children(a)[MEV_AC_RESTORE];
    MMM_children(t)[2] = chain ? chain : MMM_retained(MMM_NIL);
    MMM_sign(t);
    chain = t;
}

void MEV_frame_leave(Cell frame) {
    Cell* c = MMM_children(frame);
    // Names saved in the body, the latest first, so that the earliest value stays.
    {
        MMM_ref chain(c[MEV_AC_RESTORE]);
        c[MEV_AC_RESTORE] = MMM_retained(MMM_NIL);
        for (Cell t = chain.get(); t && MMM_kind_of(t) == MMM_TRIPLE; t = MMM_child(t, 2))
            restore_name(MMM_child(t, 0), MMM_child(t, 1));
    }
    // Then the names of the header.
    Cell proc = c[MEV_AC_PROC];
    if (!proc) return;
    Cell saved = MMM_child(proc, MMM_PF_SAVED);
    const long n = item_count(saved);
    for (long k = 0; k < n && MEV_AC_SAVED + 2 * k + 1 < words(frame)[MEV_AW_FIRST_SLOT]; ++k) {
        Cell& marker = c[MEV_AC_SAVED + 2 * k + 1];
        if (marker != MMM_NIL) continue;  // never saved, or put back already
        MMM_release(marker);
        marker = nullptr;
        MMM_ref value(c[MEV_AC_SAVED + 2 * k]);
        c[MEV_AC_SAVED + 2 * k] = nullptr;
        restore_name(item(saved, k), value.get());
    }
}

namespace {

// A copy of an activation and of its lexical parents, holding the same values; the
// copy has no caller and nothing to restore.
Cell copy_activation(Cell a) {
    if (!a) return nullptr;
    const long n = MMM_child_count(a);
    Cell parent = copy_activation(MMM_child(a, MEV_AC_LEXICAL));
    Cell c = MMM_new_cleared(MMM_PROC_ENV, long(sizeof(int32_t)) * MEV_AW_COUNT, n);
    std::memcpy(c->data, a->data, sizeof(int32_t) * MEV_AW_COUNT);
    Cell* to = MMM_children(c);
    to[MEV_AC_PROC] = MMM_retained(MMM_child(a, MEV_AC_PROC));
    to[MEV_AC_LEXICAL] = parent;
    for (int i = 0; i < 3 && MEV_AC_RING + i < n; ++i) to[MEV_AC_RING + i] = MMM_retained(MMM_NULL);
    if (MEV_AC_RESTORE < n) to[MEV_AC_RESTORE] = MMM_retained(MMM_NIL);
    for (long i = words(a)[MEV_AW_FIRST_SLOT]; i < n; ++i) to[i] = MMM_retained(MMM_child(a, i));
    MMM_sign(c);
    return c;
}

}  // namespace

Cell MEV_copy_closure(Cell proc) {
    if (!is_proc(proc) || !is_cat(MMM_child(proc, MMM_PF_CLOSURE), DOM_PROC_ENV)) return MMM_retained(proc);
    Cell copy = copy_activation(MMM_child(MMM_child(proc, MMM_PF_CLOSURE), MEV_PROC_ENV_ACTIVATION));
    Cell p = MMM_retained(proc);
    MMM_clone(&p);
    Cell& closure = MMM_children(p)[MMM_PF_CLOSURE];
    MMM_release(closure);
    closure = copy ? make_proc_env(copy) : MMM_retained(MMM_NIL);
    MMM_release(copy);
    MMM_sign(p);
    return p;
}

void MEV_running_scopes(std::vector<Cell>& params, std::vector<Cell>& locals, std::vector<Cell>& names) {
    std::vector<Cell> chain;
    for (Cell a = MEV_frame; a && MMM_child(a, MEV_AC_PROC); a = MMM_child(a, MEV_AC_LEXICAL)) chain.push_back(a);
    for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
        Cell p = MMM_child(*it, MEV_AC_PROC);
        params.push_back(MMM_retained(MMM_child(p, MMM_PF_PARAMS)));
        locals.push_back(MMM_retained(MMM_child(p, MMM_PF_LOCALS)));
        names.push_back(MMM_retained(MMM_child(p, MMM_PF_NAME)));
    }
}

// ---- public: assignment ----

void MEV_name_procedure(Cell lhs, Cell value) {
    Cell p = value, env = nullptr;
    if (is_cat(value, DOM_FUNC_ENV) && is_cat(MMM_child(value, MFN_ENV_EVALUATOR), DOM_PROC)) {
        env = value;
        p = MMM_child(value, MFN_ENV_EVALUATOR);
    }
    if (!is_proc(p) || MMM_child(p, MMM_PF_NAME) != MMM_NIL) return;
    Cell name = is_cat(lhs, DOM_IDENT) ? lhs : is_cat(lhs, DOM_VAR) ? MEV_var_ident(lhs) : nullptr;
    if (!name) return;
    // In place: the value may be shared, and every holder sees the name.
    Cell& field = MMM_children(p)[MMM_PF_NAME];
    MMM_release(field);
    field = MMM_retained(name);
    MMM_sign(p);
    if (env) MMM_sign(env);
}

bool MEV_assign_remembered(Cell lhs, Cell f, Cell value) {
    Cell proc = nullptr;
    MMM_ref made;
    if (is_proc(f)) {
        proc = f;
    } else if (is_cat(f, DOM_FUNC_ENV) && is_proc(MMM_child(f, MFN_ENV_EVALUATOR))) {
        proc = MMM_child(f, MFN_ENV_EVALUATOR);
    } else if (is_cat(f, DOM_IDENT) && f == MMM_child(lhs, 0)) {
        // A name without value becomes a remember procedure that gives its call back
        // for arguments it does not know: procname(args()).
        Cell args_call = MMM_make_expr(1);
        MMM_children(args_call)[0] = MMM_retained(MMM_ident_by_id(MFN_ID_ARGS));
        MMM_sign(args_call);
        Cell body = MMM_make_expr(2);
        MMM_children(body)[0] = MMM_retained(MMM_var(0, 0));
        MMM_children(body)[1] = args_call;
        MMM_sign(body);
        made.reset(MMM_new_node(DOM_PROC, MMM_PF_COUNT));
        Cell* c = MMM_children(made.get());
        for (int i = 0; i < MMM_PF_COUNT; ++i) c[i] = MMM_retained(MMM_NIL);
        MMM_release(c[MMM_PF_CODE]);
        c[MMM_PF_CODE] = MMM_retained(call_code);
        MMM_release(c[MMM_PF_BODY]);
        c[MMM_PF_BODY] = body;
        MMM_release(c[MMM_PF_REMEMBER]);
        c[MMM_PF_REMEMBER] = MMM_make_table(0);
        MMM_release(c[MMM_PF_NAME]);
        c[MMM_PF_NAME] = MMM_retained(f);
        MMM_set_node_flags(made.get(), MMM_PROC_NORMALISED | MMM_PROC_REMEMBER | MMM_PROC_CLOSED);
        MMM_sign(made.get());
        MMM_release(MMM_set_value(f, made.get(), 0, MMM_current_frame));
        proc = made.get();
    } else {
        return false;
    }
    int ext = 0;
    MMM_ref args(MEV_eval_args(lhs, 0, MEV_CONTEXT_ARGUMENT, 2, 0, &ext));
    remember_store(proc, args.get(), value);
    return true;
}

// ---- start ----

void MEV_proc_start() {
    for (Cell* root : {&anonymous, &procname_ident, &dom_ident, &testtype_ident, &MEV_remember_exclusion})
        MMM_add_root(root);
    anonymous = MMM_ident_named("anonymous");
    procname_ident = MMM_ident_named("procname");
    dom_ident = MMM_ident_named("dom");
    testtype_ident = MMM_ident_named("testtype");
    MEV_remember_exclusion = MMM_retained(MMM_FALSE);
    call_code = MTR_code_cell(MEV_call_proc, MTR_CODE_PROCEDURE_CALL);

    MEV_procedure_hooks.call = MEV_call_proc;
    MEV_procedure_hooks.variable = eval_local;
    MEV_procedure_hooks.closure = MEV_bind_closure;
    MEV_variable_writer = write_local;
    MPA_hooks.procdef = procdef_from_reader;
    MPA_hooks.running_scopes = MEV_running_scopes;
    MOU_hooks.var_name = printer_var_name;
    MER_set_context_routine(context_name);
}

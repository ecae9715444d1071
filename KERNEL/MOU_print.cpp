// The output walker: atoms, expressions, operators with their priorities, the special
// forms, statements and procedures, all as flat text.
#include "MOU_print.h"

#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <vector>

#include "MAR_numbers.h"
#include "MCM_equal.h"
#include "MER_error.h"
#include "MFN_layout.h"
#include "MMM_heap.h"
#include "MMM_ident.h"
#include "MMM_ref.h"
#include "MMM_table.h"
#include "MMM_values.h"
#include "MOU_internal.h"
#include "MSY_process.h"

bool MOU_pretty = true;
bool MOU_unquoted = false;
bool MOU_in_method = false;
bool MOU_for_text = false;
bool MOU_source_form = false;
bool MOU_statement_layout = false;
bool MOU_trailing_zeroes = false;
int32_t MOU_depth = 0;
int32_t MOU_max_depth = 2500;
int32_t MOU_indent = 0;
int MOU_keep_order = 1;
Cell MOU_alias_table = nullptr;
MOU_hooks_record MOU_hooks;

std::string* MOU_sink = nullptr;
int MOU_capture_depth = 0;

namespace {

// ---- small helpers ----

int masked(int context) {
    context &= ~MOU_MARK_MASK;
    return context == MOU_ATOM ? 0 : context;
}

bool is_node(Cell c) { return c && MMM_kind_of(c) == MMM_NODE; }
bool is_cat(Cell c, int category) { return is_node(c) && MMM_category(c) == category; }
bool is_expr(Cell c) { return is_cat(c, DOM_EXPR) && MMM_child_count(c) >= 1; }

bool is_number(Cell c) {
    if (!is_node(c)) return false;
    switch (MMM_category(c)) {
    case CAT_BIG_INT: case DOM_INT: case DOM_RAT: case DOM_FLOAT: case DOM_COMPLEX: return true;
    default: return false;
    }
}

long nops(Cell e) { return MMM_child_count(e) - 1; }
Cell operand(Cell e, long i) { return MMM_child(e, i); }

std::string_view string_text(Cell s) {
    if (is_cat(s, DOM_STRING) && MMM_child_count(s) == 1 && MMM_kind_of(MMM_child(s, 0)) == MMM_STRING)
        return MMM_string_view(MMM_child(s, 0));
    return {};
}

int32_t code_of(Cell code_cell) {
    int32_t code = 0;
    if (code_cell && MMM_kind_of(code_cell) == MMM_CODE && code_cell->size >= 4)
        std::memcpy(&code, code_cell->data, sizeof code);
    return code;
}

void put_number(long n) { MOU_put_text(std::to_string(n)); }

// ---- separators: DOM_STRING cells kept for the session ----

std::deque<Cell> separator_cells;  // stable addresses, each a root
std::map<std::string, Cell, std::less<>> separators;
bool separator_roots = false;
Cell statement_separator = nullptr;  // "; " with the line break of the statement layout

Cell separator(std::string_view text) {
    auto it = separators.find(text);
    if (it != separators.end()) return it->second;
    separator_cells.push_back(MMM_make_string(text));
    MMM_add_root(&separator_cells.back());
    separators.emplace(std::string(text), separator_cells.back());
    return separator_cells.back();
}

void write_separator(Cell sep) {
    if (!sep) return;
    if (sep == statement_separator) {
        MOU_put_char(';');
        MOU_line(0, true);
        return;
    }
    if (is_cat(sep, DOM_IDENT)) MOU_put_text(MMM_ident_text(sep));
    else MOU_put_text(string_text(sep));
}

void open_paren(bool on) {
    if (on) MOU_put_char('(');
}
void close_paren(bool on) {
    if (on) MOU_put_char(')');
}

// ---- strings and names ----

void write_string(std::string_view s) {
    if (MOU_unquoted) {
        for (char c : s) MOU_put_char(c == '\b' ? '\n' : c);
        return;
    }
    MOU_put_char('"');
    for (size_t i = 0; i < s.size(); ++i) {
        const char c = s[i];
        switch (c) {
        case '\b': MOU_put_text("\\b"); break;
        case '\t': MOU_put_text("\\t"); break;
        case '\n': MOU_put_text("\\n"); break;
        case '\r': MOU_put_text("\\r"); break;
        case '"': MOU_put_text("\\\""); break;
        case '\\':
            // The lexer keeps "\*" and "\?" as they are: one backslash reads back.
            if (i + 1 < s.size() && (s[i + 1] == '*' || s[i + 1] == '?')) MOU_put_char('\\');
            else MOU_put_text("\\\\");
            break;
        default: MOU_put_char(c);
        }
    }
    MOU_put_char('"');
}

void write_name(std::string_view name) {
    if (MOU_plain_name(name)) {
        MOU_put_text(name);
        return;
    }
    MOU_put_char('`');
    for (char c : name) {
        if (c == '`') MOU_put_char('`');
        MOU_put_char(c);
    }
    MOU_put_char('`');
}

// ---- the printer of an expression's head ----

// What the head of an expression says about printing it: the print code of its routine,
// the priority and the print text. Taken from the head's function environment, or, for
// an identifier without a value, from the function table's record of that name.
struct Printer {
    int code = 0;  // 0: none, the general form
    int priority = 0;
    std::string text;
    int id = 0;  // the function id, 0 for a function not in the table
    MMM_ref env;  // the environment found
};

int id_of_name(std::string_view name, Cell ident) {
    const MFN_record* r = MFN_record_by_name(name);
    if (!r) return 0;
    if (ident && MMM_ident_by_id(r->id) != ident) return 0;
    return r->id;
}

void resolve(Cell expr, Printer& p) {
    if (!is_expr(expr)) return;
    Cell head = MMM_child(expr, 0);
    if (!is_node(head)) return;
    Cell env = nullptr;
    switch (MMM_category(head)) {
    case DOM_IDENT: {
        Cell v = MMM_value(head);
        if (!v) {
            p.id = id_of_name(MMM_ident_text(head), head);
            if (const MFN_record* r = MFN_record_by_id(p.id)) {
                p.code = MFN_print_code(r);
                p.priority = MFN_priority(r);
                const char* t = MFN_print_text(r);
                p.text = t ? t : "";
            }
            return;
        }
        if (is_cat(v, DOM_FUNC_ENV)) env = v;
        else MMM_release(v);
        break;
    }
    case DOM_FUNC_ENV: env = MMM_retained(head); break;
    case DOM_EXPR: {
        if (!MOU_hooks.eval) return;
        // A failure counts as no value, and says nothing.
        const bool trapped = MER_trapped;
        MER_trapped = true;
        Cell v = nullptr;
        try {
            v = MOU_hooks.eval(head);
        } catch (const MER_exception&) {
            v = nullptr;
            MER_pending = 0;
        }
        MER_trapped = trapped;
        if (is_cat(v, DOM_FUNC_ENV)) env = v;
        else MMM_release(v);
        break;
    }
    default: return;
    }
    if (!env) return;
    p.env.reset(env);
    if (MMM_child_count(env) <= MFN_ENV_PRINTER) return;
    Cell evaluator = MMM_child(env, MFN_ENV_EVALUATOR);
    if (is_cat(evaluator, DOM_EXEC) && MMM_child_count(evaluator) > MFN_EXEC_TEXT)
        p.id = id_of_name(string_text(MMM_child(evaluator, MFN_EXEC_TEXT)), nullptr);
    Cell printer = MMM_child(env, MFN_ENV_PRINTER);
    if (!is_cat(printer, DOM_EXEC) || MMM_child_count(printer) <= MFN_EXEC_TEXT) return;
    p.code = code_of(MMM_child(printer, MFN_EXEC_CODE));
    Cell priority = MMM_child(printer, MFN_EXEC_NUMERIC);
    if (is_cat(priority, DOM_INT)) p.priority = MAR_small_int(priority);
    p.text = std::string(string_text(MMM_child(printer, MFN_EXEC_TEXT)));
}

// ---- signs and reciprocals for printing ----

// The numeric factor of a product that carries its sign: the last operand if it is a
// number, else the first if it is one; 0 for none.
long sign_factor(Cell e) {
    if (nops(e) < 1) return 0;
    if (is_number(operand(e, nops(e)))) return nops(e);
    if (is_number(operand(e, 1))) return 1;
    return 0;
}

// Sums of sums are looked into this deep at most: a tree built by hand can be deeper
// than the native stack.
constexpr int SIGN_DEPTH = 100;

bool is_negative(Cell x, int depth = 0) {
    if (!is_node(x) || depth > SIGN_DEPTH) return false;
    if (is_number(x)) return MOU_number_negative(x);
    if (!is_expr(x)) return false;
    if (MMM_is_call_of(x, MFN_ID_NEGATE)) return nops(x) == 1;
    if (MMM_is_call_of(x, MFN_ID_PLUS)) {
        if (nops(x) < 1) return false;
        for (long i = 1; i <= nops(x); ++i)
            if (!is_negative(operand(x, i), depth + 1)) return false;
        return true;
    }
    if (MMM_is_call_of(x, MFN_ID_MULT)) {
        const long k = sign_factor(x);
        return k && MOU_number_negative(operand(x, k));
    }
    return false;
}

// An expression like `e` with the operands given; signed.
Cell rebuild(Cell e, const std::vector<Cell>& ops) {
    Cell r = MMM_make_expr(long(ops.size()) + 1);
    MMM_children(r)[0] = MMM_retained(MMM_child(e, 0));
    for (size_t i = 0; i < ops.size(); ++i) MMM_children(r)[i + 1] = MMM_retained(ops[i]);
    MMM_sign(r);
    return r;
}

// The negation of a value for which is_negative holds (new reference).
Cell negated(Cell x) {
    if (is_number(x)) return MAR_negate(x);
    if (MMM_is_call_of(x, MFN_ID_NEGATE)) return MMM_retained(operand(x, 1));
    if (MMM_is_call_of(x, MFN_ID_PLUS)) {
        std::vector<Cell> ops;
        for (long i = 1; i <= nops(x); ++i) ops.push_back(negated(operand(x, i)));
        Cell r = rebuild(x, ops);
        for (Cell c : ops) MMM_release(c);
        return r;
    }
    // A product: its sign factor negated, and dropped when that gives 1.
    const long k = sign_factor(x);
    MMM_ref factor(MAR_negate(operand(x, k)));
    std::vector<Cell> ops;
    for (long i = 1; i <= nops(x); ++i) {
        if (i != k) ops.push_back(operand(x, i));
        else if (!MCM_equal(factor.get(), MAR_ONE)) ops.push_back(factor.get());
    }
    if (ops.size() == 1) return MMM_retained(ops[0]);
    return rebuild(x, ops);
}

// A power with a negative number as exponent prints as a reciprocal.
bool is_inverted(Cell x) {
    return MMM_is_call_of(x, MFN_ID_POWER) && nops(x) == 2 && is_number(operand(x, 2)) && is_negative(operand(x, 2));
}

Cell reciprocal(Cell x) {
    MMM_ref exponent(MAR_negate(operand(x, 2)));
    if (MCM_equal(exponent.get(), MAR_ONE)) return MMM_retained(operand(x, 1));
    return rebuild(x, {operand(x, 1), exponent.get()});
}

// Prints a child (borrowed) through the walker.
void print_child(Cell c, int context, Cell sep) {
    Cell local = c;
    MOU_print(&local, context, sep);
}

// ---- numbers ----

// Whether a number's text must stand in parentheses here. `after` is true when an
// operator's text comes before it (a right operand).
bool number_parens(Cell n, const std::string& text, int context, bool after) {
    if (MAR_special(n)) return false;
    const bool negative = !text.empty() && text[0] == '-';
    const bool sum = text.find(" + ") != std::string::npos || text.find(" - ") != std::string::npos;
    const bool quotient = text.find_first_of("/*") != std::string::npos;
    const int category = MMM_category(n);
    if ((negative || sum) && context >= 1000) return true;
    if ((category == DOM_RAT || category == DOM_COMPLEX) && context >= 1200) return true;
    // "x*1/2" would read as (x*1)/2, and "a/1/2" as (a/1)/2.
    if (quotient && after && context >= 1100) return true;
    // "1.2" as a concatenation, "2(x)" as a call: keep the number apart.
    if (context >= 1700 && context < 1800) return true;
    return false;
}

// ---- atoms ----

void print_list_items(Cell list, long from) {
    Cell comma = separator(", ");
    for (long i = from; i < MMM_child_count(list); ++i) print_child(MMM_child(list, i), 20, i > from ? comma : nullptr);
}

void print_set(Cell set) {
    MOU_put_char('{');
    // The domain's order, if it gives one; otherwise the set's own.
    if (MOU_hooks.type_slot && MOU_hooks.call && !MOU_source_form) {
        MMM_ref sort(MOU_hooks.type_slot(set, "sort"));
        if (sort.get() && sort.get() != MMM_FAIL) {
            MMM_ref sorted(MOU_hooks.call(sort.get(), set));
            if (is_cat(sorted.get(), DOM_LIST)) {
                print_list_items(sorted.get(), 0);
                MOU_put_char('}');
                return;
            }
        }
    }
    if (MMM_child_count(set) == 1) {
        MMM_table_walker w(MMM_child(set, MMM_TABLE_HASH));
        Cell key, value;
        Cell comma = separator(", ");
        for (bool first = true; w.next(&key, &value); first = false) print_child(key, 20, first ? nullptr : comma);
    }
    MOU_put_char('}');
}

void print_table(Cell table) {
    if (MMM_child_count(table) < 1 || MMM_table_count(MMM_child(table, MMM_TABLE_HASH)) == 0) {
        MOU_put_text("table()");
        return;
    }
    MOU_put_text("table(");
    MMM_table_walker w(MMM_child(table, MMM_TABLE_HASH));
    Cell key, value;
    Cell comma = separator(", ");
    Cell equals = separator(" = ");
    for (bool first = true; w.next(&key, &value); first = false) {
        // Key and value at the priority of `=`: a sequence stands in parentheses.
        print_child(key, 400, first ? nullptr : comma);
        print_child(value ? value : MMM_NULL, 400, equals);
    }
    MOU_put_char(')');
}

void print_exec(Cell exec) {
    const long n = MMM_child_count(exec);
    // The evaluator form names the routine in its text child, the printer form in the last.
    if (n > MFN_EXEC_TEXT && !string_text(MMM_child(exec, MFN_EXEC_TEXT)).empty() &&
        (n <= MFN_EXEC_STORE || !is_cat(MMM_child(exec, MFN_EXEC_STORE), DOM_STRING))) {
        MOU_put_text(string_text(MMM_child(exec, MFN_EXEC_TEXT)));
        return;
    }
    if (n > MFN_EXEC_STORE && !string_text(MMM_child(exec, MFN_EXEC_STORE)).empty()) {
        MOU_put_text(string_text(MMM_child(exec, MFN_EXEC_STORE)));
        return;
    }
    MOU_put_text("builtin(");
    Cell comma = separator(", ");
    for (long i = 0; i < n; ++i) {
        Cell c = MMM_child(exec, i);
        if (c && MMM_kind_of(c) == MMM_CODE) {
            if (i) write_separator(comma);
            put_number(code_of(c));
        } else {
            print_child(c, 20, i ? comma : nullptr);
        }
    }
    MOU_put_char(')');
}

void print_func_env(Cell env) {
    if (MMM_child_count(env) > MFN_ENV_ATTRIBUTES && is_cat(MMM_child(env, MFN_ENV_ATTRIBUTES), DOM_TABLE)) {
        MMM_ref key(MMM_string_value("print"));
        Cell slot = nullptr;
        if (MMM_table_find(MMM_child(MMM_child(env, MFN_ENV_ATTRIBUTES), MMM_TABLE_HASH), key.get(), &slot) && slot) {
            if (is_cat(slot, DOM_STRING)) {
                MOU_put_text(string_text(slot));
                return;
            }
            if (MOU_hooks.call) {
                MMM_ref shown(MOU_hooks.call(slot, env));
                if (shown.get() && shown.get() != MMM_FAIL) {
                    MOU_state_saver saved;
                    MOU_unquoted = true;
                    print_child(shown.get(), 0, nullptr);
                    return;
                }
            }
        }
    }
    Cell evaluator = MMM_child_count(env) > MFN_ENV_EVALUATOR ? MMM_child(env, MFN_ENV_EVALUATOR) : nullptr;
    if (is_cat(evaluator, DOM_EXEC) && MMM_child_count(evaluator) > MFN_EXEC_TEXT) {
        MOU_put_text(string_text(MMM_child(evaluator, MFN_EXEC_TEXT)));
        return;
    }
    MOU_put_text("funcenv()");
}

void print_procedure_value(Cell proc, int context);
void print_var(Cell var);

void print_category(Cell* ref, int context, Cell sep) {
    Cell v = *ref;
    const int category = MMM_category(v);
    const bool numeric = is_number(v);
    std::string number;
    if (numeric) number = MOU_number_text(v);
    write_separator(sep);
    switch (category) {
    case CAT_BIG_INT:
    case DOM_INT:
    case DOM_RAT:
    case DOM_FLOAT:
    case DOM_COMPLEX: {
        const bool parens = number_parens(v, number, context, sep != nullptr);
        open_paren(parens);
        MOU_put_text(number);
        close_paren(parens);
        return;
    }
    case DOM_STRING: write_string(string_text(v)); return;
    case DOM_BOOL: MOU_put_text(v == MMM_TRUE ? "TRUE" : v == MMM_FALSE ? "FALSE" : "UNKNOWN"); return;
    case DOM_NIL: MOU_put_text("NIL"); return;
    case DOM_FAIL: MOU_put_text("FAIL"); return;
    case DOM_NULL: MOU_put_text("null()"); return;
    case DOM_IDENT: write_name(MMM_ident_text(v)); return;
    case DOM_LIST:
        MOU_put_char('[');
        print_list_items(v, 0);
        MOU_put_char(']');
        return;
    case DOM_SET: print_set(v); return;
    case DOM_TABLE: print_table(v); return;
    case DOM_EXEC: print_exec(v); return;
    case DOM_FUNC_ENV: print_func_env(v); return;
    case DOM_VAR: print_var(v); return;
    case DOM_PROC: print_procedure_value(v, context); return;
    case DOM_PROC_ENV: {
        char text[64];
        std::snprintf(text, sizeof text, "DOM_PROC_ENV(%ld)", long(reinterpret_cast<intptr_t>(v)));
        MOU_put_text(text);
        return;
    }
    case DOM_DEBUG: return;  // the source marks show only in the debugger's trace
    case DOM_NAMESPACE: MOU_put_text("new_namespace()"); return;
    default: {
        char text[32];
        std::snprintf(text, sizeof text, "/* %d */", category);
        MOU_put_text(text);
    }
    }
}

void print_atom(Cell* ref, int context, Cell sep) {
    Cell v = *ref;
    // An empty statement disappears from a sequence, its separator with it.
    if (MMM_category(v) == DOM_NULL && context == 10) return;
    // A method of the value's type prints it: its result is the text, unquoted.
    if (MOU_hooks.type_slot && MOU_hooks.call && MMM_category(v) != DOM_PROC) {
        MMM_ref method;
        if (MOU_for_text) method.reset(MOU_hooks.type_slot(v, "expr2text"));
        if (!method.get() || method.get() == MMM_FAIL) method.reset(MOU_hooks.type_slot(v, "print"));
        if (method.get() && method.get() != MMM_FAIL) {
            if (is_cat(method.get(), DOM_EXEC) && MMM_child_count(method.get()) > MFN_EXEC_CODE) {
                if (MFN_print_routine fn = MOU_print_routine_for_code(code_of(MMM_child(method.get(), MFN_EXEC_CODE)))) {
                    fn(ref, context, sep);
                    return;
                }
            }
            MOU_state_saver saved;
            MOU_in_method = true;
            MMM_ref shown(MOU_hooks.call(method.get(), v));
            MOU_unquoted = true;
            if (is_cat(shown.get(), DOM_STRING)) {  // the text itself
                write_separator(sep);
                write_string(string_text(shown.get()));
                return;
            }
            print_child(shown.get(), context, sep);
            return;
        }
    }
    print_category(ref, context, sep);
}

// ---- procedures ----

// Names of locals: the parameters and locals of the procedures being printed.
struct Scope {
    Cell params;
    Cell locals;
};
std::vector<Scope> proc_stack;

struct ScopePush {
    ScopePush(Cell params, Cell locals) { proc_stack.push_back({params, locals}); }
    ~ScopePush() { proc_stack.pop_back(); }
    ScopePush(const ScopePush&) = delete;
    ScopePush& operator=(const ScopePush&) = delete;
};

// The items of a parameter, local or save list: NIL for none, one item, or a sequence.
std::vector<Cell> items_of(Cell list) {
    std::vector<Cell> out;
    if (!list || list == MMM_NIL) return out;
    if (MMM_is_call_of(list, MFN_ID_EXPRSEQ)) {
        for (long i = 1; i <= nops(list); ++i) out.push_back(operand(list, i));
    } else {
        out.push_back(list);
    }
    return out;
}

// Entry k of a field that gives one entry for each of n items: NIL as a whole, the entry
// itself for one item, a sequence for more. Null where there is none.
Cell entry_of(Cell field, size_t k, size_t n) {
    Cell e = nullptr;
    if (!field || field == MMM_NIL) return nullptr;
    if (n == 1) e = field;
    else if (MMM_is_call_of(field, MFN_ID_EXPRSEQ) && size_t(nops(field)) == n) e = operand(field, long(k) + 1);
    return e == MMM_NIL ? nullptr : e;
}

void print_var(Cell var) {
    const int depth = MMM_var_depth(var), index = MMM_var_index(var);
    Cell name = nullptr;
    if (index == 0 && !proc_stack.empty()) {
        MOU_put_text("procname");
        return;
    }
    if (index == 1 && !proc_stack.empty()) {
        MOU_put_text("dom");
        return;
    }
    if (depth >= 0 && size_t(depth) < proc_stack.size() && index >= 2) {
        const Scope& s = proc_stack[proc_stack.size() - 1 - size_t(depth)];
        std::vector<Cell> all = items_of(s.locals);
        for (Cell p : items_of(s.params)) all.push_back(p);
        if (size_t(index - 2) < all.size()) name = all[size_t(index - 2)];
    }
    if (!name && MOU_hooks.var_name) name = MOU_hooks.var_name(depth, index);
    if (is_cat(name, DOM_IDENT)) {
        write_name(MMM_ident_text(name));
        return;
    }
    char text[64];
    std::snprintf(text, sizeof text, "DOM_VAR(%d,%d)", depth, index);
    MOU_put_text(text);
}

// Option bits of a procedure, as its flags field holds them.
constexpr unsigned OPT_NO_DEBUG = MMM_PROC_NO_DEBUG;
constexpr unsigned OPT_HOLD = MMM_PROC_HOLD;
constexpr unsigned OPT_REMEMBER = MMM_PROC_REMEMBER;
constexpr unsigned OPT_ARROW = MMM_PROC_ARROW;
constexpr unsigned OPT_ESCAPE = MMM_PROC_ESCAPE;
constexpr unsigned OPT_NO_EXPOSE = MMM_PROC_NO_EXPOSE;

struct OptionName {
    unsigned bit;
    const char* name;
};
// The order in which options are listed.
constexpr OptionName option_names[] = {
    {OPT_REMEMBER, "remember"}, {OPT_HOLD, "hold"},   {OPT_NO_DEBUG, "noDebug"},
    {OPT_NO_EXPOSE, "noExpose"}, {OPT_ARROW, "arrow"}, {OPT_ESCAPE, "escape"},
};

// The fields of a procedure, from a DOM_PROC or from the parser's `_procdef` tree.
struct ProcFields {
    Cell params = nullptr, locals = nullptr, body = nullptr, name = nullptr;
    Cell param_types = nullptr, return_type = nullptr, local_types = nullptr;
    Cell defaults = nullptr, saves = nullptr;
    unsigned options = 0;
};

bool given(Cell c) { return c && c != MMM_NIL; }

void print_header_part(Cell c) {
    // Header expressions are read up to `,`, `:` and `->`: a sequence or an arrow
    // procedure there stands in parentheses.
    print_child(c, 21, nullptr);
}

void print_procedure(const ProcFields& f, int context) {
    const std::vector<Cell> params = items_of(f.params);
    const std::vector<Cell> locals = items_of(f.locals);
    const bool hidden = (f.options & OPT_NO_EXPOSE) && !MOU_source_form;
    bool plain_params = true;
    for (Cell p : params) plain_params = plain_params && is_cat(p, DOM_IDENT);
    const bool arrow = (f.options & OPT_ARROW) && plain_params && !given(f.locals) && !given(f.name) &&
                       !given(f.param_types) && !given(f.return_type) && !given(f.local_types) &&
                       !given(f.defaults) && !given(f.saves) &&
                       !(f.options & ~(OPT_ARROW | OPT_NO_EXPOSE | OPT_NO_DEBUG));
    Cell comma = separator(", ");
    if (arrow) {
        const bool parens = masked(context) > 20;
        open_paren(parens);
        if (params.size() == 1) {
            write_name(MMM_ident_text(params[0]));
        } else {
            MOU_put_char('(');
            for (size_t i = 0; i < params.size(); ++i) {
                if (i) write_separator(comma);
                write_name(MMM_ident_text(params[i]));
            }
            MOU_put_char(')');
        }
        MOU_put_text(" -> ");
        if (hidden) {
            MOU_put_text("/* Hidden */");
        } else {
            ScopePush scope(f.params, f.locals);
            print_child(f.body, 20, nullptr);
        }
        close_paren(parens);
        return;
    }
    MOU_put_text("proc(");
    for (size_t k = 0; k < params.size(); ++k) {
        if (k) write_separator(comma);
        print_child(params[k], 0, nullptr);
        if (Cell d = entry_of(f.defaults, k, params.size())) {
            MOU_put_text(" = ");
            print_header_part(d);
        }
        if (Cell t = entry_of(f.param_types, k, params.size())) {
            MOU_put_text(" : ");
            print_header_part(t);
        }
    }
    MOU_put_char(')');
    if (given(f.return_type)) {
        MOU_put_text(" : ");
        print_header_part(f.return_type);
    }
    MOU_indent += 2;
    if (given(f.name)) {
        MOU_line(0, true);
        MOU_put_text("name");
        // `name;` gives the empty sequence.
        if (!(MMM_is_call_of(f.name, MFN_ID_EXPRSEQ) && nops(f.name) == 0)) {
            MOU_put_char(' ');
            print_child(f.name, 0, nullptr);
        }
        MOU_put_char(';');
    }
    if (!locals.empty()) {
        MOU_line(0, true);
        MOU_put_text("local ");
        for (size_t k = 0; k < locals.size(); ++k) {
            if (k) write_separator(comma);
            print_child(locals[k], 0, nullptr);
            if (Cell t = entry_of(f.local_types, k, locals.size())) {
                MOU_put_text(" : ");
                print_header_part(t);
            }
        }
        MOU_put_char(';');
    }
    const std::vector<Cell> saves = items_of(f.saves);
    if (!saves.empty()) {
        MOU_line(0, true);
        MOU_put_text("save ");
        for (size_t k = 0; k < saves.size(); ++k) print_child(saves[k], 0, k ? comma : nullptr);
        MOU_put_char(';');
    }
    if (f.options) {
        MOU_line(0, true);
        MOU_put_text("option ");
        bool first = true;
        for (const OptionName& o : option_names) {
            if (!(f.options & o.bit)) continue;
            if (!first) write_separator(comma);
            MOU_put_text(o.name);
            first = false;
        }
        MOU_put_char(';');
    }
    MOU_indent -= 2;
    MOU_line(0, true);
    MOU_put_text("begin");
    MOU_line(2, false);
    if (hidden) {
        MOU_line(0, true);
        MOU_put_text("/* Hidden */");
    } else if (given(f.body)) {
        MOU_line(0, true);
        ScopePush scope(f.params, f.locals);
        print_child(f.body, 0, nullptr);
    }
    MOU_line(-2, true);
    MOU_put_text("end_proc");
}

unsigned option_bits(Cell options) {
    unsigned bits = 0;
    for (Cell o : items_of(options)) {
        if (!is_cat(o, DOM_IDENT)) continue;
        const std::string_view n = MMM_ident_text(o);
        for (const OptionName& k : option_names)
            if (n == k.name) bits |= k.bit;
    }
    return bits;
}

// The parser's tree: params, locals, options, body, name, parameter types, return
// type, local types, defaults, saved names, and two fields the evaluator fills.
void print_procdef_tree(Cell t, int context) {
    auto field = [&](long i) { return i <= nops(t) ? operand(t, i) : nullptr; };
    ProcFields f;
    f.params = field(1);
    f.locals = field(2);
    f.options = option_bits(field(3));
    f.body = field(4);
    f.name = field(5);
    f.param_types = field(6);
    f.return_type = field(7);
    f.local_types = field(8);
    f.defaults = field(9);
    f.saves = field(10);
    print_procedure(f, context);
}

void print_procedure_value(Cell proc, int context) {
    if (MMM_child_count(proc) != MMM_PF_COUNT) {
        MOU_put_text("/* 33 */");
        return;
    }
    ProcFields f;
    f.params = MMM_child(proc, MMM_PF_PARAMS);
    f.locals = MMM_child(proc, MMM_PF_LOCALS);
    f.body = MMM_child(proc, MMM_PF_BODY);
    f.name = MMM_child(proc, MMM_PF_NAME);
    f.param_types = MMM_child(proc, MMM_PF_PARAM_TYPES);
    f.return_type = MMM_child(proc, MMM_PF_RETURN_TYPE);
    f.local_types = MMM_child(proc, MMM_PF_LOCAL_TYPES);  // the field the parser's local types arrive in
    f.defaults = MMM_child(proc, MMM_PF_DEFAULTS);
    f.saves = MMM_child(proc, MMM_PF_SAVED);
    f.options = MMM_node_flags(proc) & (OPT_NO_DEBUG | OPT_HOLD | OPT_REMEMBER | OPT_ARROW | OPT_ESCAPE | OPT_NO_EXPOSE);
    // The word noExpose sets the noDebug bit too: it is shown once, as it was written.
    if (f.options & OPT_NO_EXPOSE) f.options &= ~OPT_NO_DEBUG;
    print_procedure(f, context);
}

// ---- expressions ----

void print_expr(Cell* ref, int context, Cell sep) {
    Cell e = *ref;
    if (MMM_child_count(e) < 1) {
        write_separator(sep);
        MOU_put_text("/* 26 */");
        return;
    }
    Printer p;
    resolve(e, p);
    MFN_print_routine fn = p.code ? MOU_print_routine_for_code(p.code) : nullptr;
    // Statements parenthesise themselves in the context 3000 of a condition; everything
    // else stands there as at the top.
    if (masked(context) == 3000 && !(fn && p.priority == 3000) && p.id != MFN_ID_STMTSEQ) context = 0;
    if (!fn) fn = MOU_print_call;
    fn(ref, context, sep);
}

// Operands from `from` on at `context`, the first with `first_sep` and the others with
// `sep`.
void print_operands(Cell e, long from, int context, Cell first_sep, Cell sep) {
    for (long i = from; i <= nops(e); ++i) print_child(operand(e, i), context, i == from ? first_sep : sep);
}

// The operands of a sum in printing order: the library's order if it gives one, else
// with the first term that is not negative moved to the front.
Cell ordered_sum(Cell e) {
    if (MOU_hooks.call) {
        if (Cell ident = MMM_ident_exists(MMM_intern("_sortsum"))) {
            MMM_ref sorter(MMM_value(ident));
            if (sorter.get()) {
                Cell r = MOU_hooks.call(sorter.get(), e);
                if (MMM_is_call_of(r, MFN_ID_PLUS) && nops(r) >= 2) return r;
                MMM_release(r);
            }
        }
    }
    long first = 0;
    for (long i = 1; i <= nops(e) && !first; ++i)
        if (!is_negative(operand(e, i))) first = i;
    if (first <= 1) return MMM_retained(e);
    std::vector<Cell> ops;
    for (long i = 1; i <= nops(e); ++i) ops.push_back(operand(e, i));
    std::swap(ops[0], ops[size_t(first - 1)]);
    return rebuild(e, ops);
}

void print_sum(Cell e, int p, Cell sep, const std::string& text, int context) {
    const bool sort = MOU_keep_order == 0 || (MOU_keep_order == 1 && !MOU_in_method);
    MMM_ref sum(sort ? ordered_sum(e) : MMM_retained(e));
    write_separator(sep);
    const bool parens = p <= masked(context);
    open_paren(parens);
    Cell plus = separator(text);
    Cell minus = separator(" - ");
    Cell leading_minus = separator("- ");
    for (long i = 1; i <= nops(sum.get()); ++i) {
        Cell x = operand(sum.get(), i);
        if (is_negative(x)) {
            MMM_ref n(negated(x));
            print_child(n.get(), p, i == 1 ? leading_minus : minus);
        } else {
            print_child(x, p, i == 1 ? nullptr : plus);
        }
    }
    close_paren(parens);
}

void print_product(Cell e, int p, Cell sep, const std::string& text, int context) {
    std::vector<Cell> factors;
    MMM_ref positive;
    bool minus = false;
    Cell last = operand(e, nops(e));
    if (is_number(last)) {
        // The coefficient goes first; its sign in front of the whole.
        Cell coefficient = last;
        if (is_negative(last)) {
            minus = true;
            positive.reset(MAR_negate(last));
            coefficient = positive.get();
            if (MCM_equal(coefficient, MAR_ONE)) coefficient = nullptr;
        }
        if (coefficient) factors.push_back(coefficient);
        for (long i = 1; i < nops(e); ++i) factors.push_back(operand(e, i));
    } else {
        for (long i = 1; i <= nops(e); ++i) factors.push_back(operand(e, i));
    }
    write_separator(sep);
    const int c = masked(context);
    const bool parens = p <= c || (minus && c >= 1000);
    open_paren(parens);
    if (minus) MOU_put_char('-');
    Cell times = separator(text);
    Cell over = separator("/");
    for (size_t i = 0; i < factors.size(); ++i) {
        Cell f = factors[i];
        if (is_inverted(f)) {
            if (i == 0) MOU_put_char('1');
            MMM_ref r(reciprocal(f));
            print_child(r.get(), p, over);
        } else {
            print_child(f, p, i ? times : nullptr);
        }
    }
    close_paren(parens);
}

bool statement_parens(int context) { return masked(context) >= 11; }

}  // namespace

// ---- output primitives ----

// Outside a print the text goes straight to the session's output.
void MOU_put_char(char c) {
    if (MOU_sink) MOU_sink->push_back(c);
    else std::fputc(c, MSY_out());
}

void MOU_put_text(std::string_view text) {
    if (MOU_sink) MOU_sink->append(text);
    else std::fwrite(text.data(), 1, text.size(), MSY_out());
}

void MOU_line(int delta, bool line_break) {
    MOU_indent += delta;
    if (!line_break) return;
    if (!MOU_statement_layout) {
        MOU_put_char(' ');
        return;
    }
    MOU_put_char('\n');
    MOU_put_text(std::string(size_t(MOU_indent > 0 ? MOU_indent : 0), ' '));
}

bool MOU_plain_name(std::string_view name) {
    if (name.empty()) return false;
    auto letter = [](unsigned char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; };
    if (!letter(static_cast<unsigned char>(name[0]))) return false;
    for (char ch : name.substr(1)) {
        const auto c = static_cast<unsigned char>(ch);
        if (!letter(c) && !(c >= '0' && c <= '9')) return false;
    }
    return true;
}

// ---- the walker ----

void MOU_print(Cell* ref, int context, Cell separator) {
    if (++MOU_depth > MOU_max_depth || MSY_stack_nearly_full()) {
        MOU_depth = 0;
        MER_raise(MER_OUTPUT_RECURSION, nullptr);
    }
    struct Leave {
        ~Leave() {
            if (MOU_depth > 0) --MOU_depth;
        }
    } leave;
    Cell v = ref ? *ref : nullptr;
    if (!v) return;
    if (MMM_kind_of(v) != MMM_NODE) {
        write_separator(separator);
        char text[48];
        std::snprintf(text, sizeof text, "/* cell of kind %u */", MMM_kind_of(v));
        MOU_put_text(text);
        return;
    }
    if (MOU_alias_table) {
        Cell shown = nullptr;
        if (MMM_table_find(MMM_child(MOU_alias_table, MMM_TABLE_HASH), v, &shown) && shown && shown != v) {
            Cell table = MOU_alias_table;
            MOU_alias_table = nullptr;  // the replacement is not looked up again
            try {
                MOU_print(&shown, context, separator);
            } catch (...) {
                MOU_alias_table = table;
                throw;
            }
            MOU_alias_table = table;
            return;
        }
    }
    if (MMM_category(v) == DOM_EXPR) {
        print_expr(ref, context, separator);
        return;
    }
    if (masked(context) == 3000) context = 0;
    print_atom(ref, context, separator);
}

void MOU_print_top(Cell* ref) { MOU_print(ref, 0, nullptr); }

// ---- the general form ----

void MOU_print_call(Cell* ref, int context, Cell sep) {
    Cell e = *ref;
    if (!is_expr(e)) {
        MOU_print(ref, context, sep);
        return;
    }
    Cell head = MMM_child(e, 0);
    if (MMM_is_call_of(e, MFN_ID_PROCDEF) && nops(e) >= 4) {
        write_separator(sep);
        print_procdef_tree(e, context);
        return;
    }
    Printer p;
    resolve(e, p);
    // The environment's print slot: a string is the name to show, another value makes the
    // text from the expression.
    if (p.env.get() && MMM_child_count(p.env.get()) > MFN_ENV_ATTRIBUTES && is_cat(MMM_child(p.env.get(), MFN_ENV_ATTRIBUTES), DOM_TABLE)) {
        MMM_ref key(MMM_string_value("print"));
        Cell slot = nullptr;
        if (MMM_table_find(MMM_child(MMM_child(p.env.get(), MFN_ENV_ATTRIBUTES), MMM_TABLE_HASH), key.get(), &slot) && slot &&
            !is_cat(slot, DOM_STRING) && MOU_hooks.call) {
            MMM_ref shown(MOU_hooks.call(slot, e));
            if (shown.get() && shown.get() != MMM_FAIL) {
                print_child(shown.get(), context, sep);
                return;
            }
        }
        if (is_cat(slot, DOM_STRING)) head = slot;
    }
    write_separator(sep);
    const bool parens = masked(context) == 2000;
    open_paren(parens);
    if (is_cat(head, DOM_STRING) && head != MMM_child(e, 0)) {
        MOU_put_text(string_text(head));
    } else if (MOU_source_form && is_cat(head, DOM_PROC) && MMM_child_count(head) == 13 &&
               given(MMM_child(head, 5))) {
        print_child(MMM_child(head, 5), 1700, nullptr);
    } else {
        print_child(head, 1700, nullptr);
    }
    MOU_put_char('(');
    print_operands(e, 1, 20, nullptr, separator(", "));
    MOU_put_char(')');
    close_paren(parens);
}

// ---- operators ----

void MOU_print_operator(Cell* ref, int context, Cell sep) {
    Cell e = *ref;
    if (!is_expr(e) || nops(e) < 2) {
        MOU_print_call(ref, context, sep);
        return;
    }
    Printer p;
    resolve(e, p);
    if (!MOU_source_form) {
        if (p.id == MFN_ID_PLUS) {
            print_sum(e, p.priority, sep, p.text, context);
            return;
        }
        if (p.id == MFN_ID_MULT) {
            print_product(e, p.priority, sep, p.text, context);
            return;
        }
        if (p.id == MFN_ID_POWER && is_inverted(e)) {
            write_separator(sep);
            const bool parens = 1100 <= masked(context);
            open_paren(parens);
            MOU_put_text("1/");
            MMM_ref r(reciprocal(e));
            print_child(r.get(), 1100, nullptr);
            close_paren(parens);
            return;
        }
    }
    write_separator(sep);
    const bool parens = p.priority <= masked(context);
    open_paren(parens);
    Cell text = p.id == MFN_ID_STMTSEQ ? statement_separator : ::separator(p.text);
    print_operands(e, 1, p.priority, nullptr, text);
    close_paren(parens);
}

namespace {

// ---- special forms ----

void print_not(Cell* ref, int context, Cell sep) {
    Cell e = *ref;
    if (nops(e) != 1) return MOU_print_call(ref, context, sep);
    write_separator(sep);
    const bool parens = masked(context) >= 300;
    open_paren(parens);
    MOU_put_text("not ");
    print_child(operand(e, 1), 300, nullptr);
    close_paren(parens);
}

void print_negate(Cell* ref, int context, Cell sep) {
    Cell e = *ref;
    if (nops(e) != 1) return MOU_print_call(ref, context, sep);
    write_separator(sep);
    const int c = masked(context);
    const bool parens = c > 1000;
    open_paren(parens);
    MOU_put_char('-');
    if (c == 1000) MOU_put_char(' ');
    print_child(operand(e, 1), 1000, nullptr);
    close_paren(parens);
}

void print_invert(Cell* ref, int context, Cell sep) {
    Cell e = *ref;
    if (nops(e) != 1) return MOU_print_call(ref, context, sep);
    write_separator(sep);
    const bool parens = masked(context) >= 1100;
    open_paren(parens);
    MOU_put_text("1/");
    print_child(operand(e, 1), 1100, nullptr);
    close_paren(parens);
}

void print_binary(Cell* ref, int context, Cell sep, int p, const char* text) {
    Cell e = *ref;
    if (nops(e) != 2) return MOU_print_call(ref, context, sep);
    write_separator(sep);
    const bool parens = p <= masked(context);
    open_paren(parens);
    print_child(operand(e, 1), p, nullptr);
    print_child(operand(e, 2), p, separator(text));
    close_paren(parens);
}

void print_divide(Cell* ref, int context, Cell sep) { print_binary(ref, context, sep, 1100, "/"); }
void print_subtract(Cell* ref, int context, Cell sep) { print_binary(ref, context, sep, 1000, " - "); }

bool is_variable(Cell c) { return is_cat(c, DOM_IDENT) || is_cat(c, DOM_VAR); }

// e $ s, $ s, e $ i = s, e $ i in s, each with an optional " step " t.
void print_sequence(Cell e, int context, Cell sep, bool with_var, const char* relation, bool with_step) {
    const long n = nops(e);
    const long core = (with_var ? 1 : 0) + 1 + (with_step ? 1 : 0);  // operands besides e
    const bool left = n > core;
    write_separator(sep);
    const bool parens = 300 <= masked(context);
    open_paren(parens);
    long i = 1;
    if (left) {
        print_child(operand(e, i++), 300, nullptr);
        MOU_put_char(' ');
    }
    MOU_put_text("$ ");
    if (with_var) {
        print_child(operand(e, i++), 300, nullptr);
        MOU_put_text(relation);
    }
    print_child(operand(e, i++), 300, nullptr);
    if (with_step) print_child(operand(e, i++), 300, separator(" step "));
    close_paren(parens);
}

void print_seqgen(Cell* ref, int context, Cell sep) {
    Cell e = *ref;
    const long n = nops(e);
    if (n == 1 || n == 2) return print_sequence(e, context, sep, false, nullptr, false);
    if (n == 3 && is_variable(operand(e, 2))) return print_sequence(e, context, sep, true, " = ", false);
    MOU_print_call(ref, context, sep);
}

void print_seqstep(Cell* ref, int context, Cell sep) {
    Cell e = *ref;
    const long n = nops(e);
    if (n == 2 || n == 3) return print_sequence(e, context, sep, false, nullptr, true);
    if (n == 4 && is_variable(operand(e, 2))) return print_sequence(e, context, sep, true, " = ", true);
    MOU_print_call(ref, context, sep);
}

void print_seqin(Cell* ref, int context, Cell sep) {
    Cell e = *ref;
    const long n = nops(e);
    if ((n == 3 || n == 4) && is_variable(operand(e, 2)))
        return print_sequence(e, context, sep, true, " in ", n == 4);
    MOU_print_call(ref, context, sep);
}

void print_index(Cell* ref, int context, Cell sep) {
    Cell e = *ref;
    if (nops(e) < 2) return MOU_print_call(ref, context, sep);
    write_separator(sep);
    print_child(operand(e, 1), 1800, nullptr);
    MOU_put_char('[');
    print_operands(e, 2, 20, nullptr, separator(", "));
    MOU_put_char(']');
}

// a::x; the slots `print` and `Name`, and names that are no identifiers, in the general
// form.
void print_slot(Cell* ref, int context, Cell sep) {
    Cell e = *ref;
    const std::string_view name = nops(e) == 2 ? string_text(operand(e, 2)) : std::string_view{};
    if (!MOU_plain_name(name) || name == "print" || name == "Name") return MOU_print_call(ref, context, sep);
    write_separator(sep);
    Cell left = operand(e, 1);
    // Only a name or another slot can stand before `::` as it is.
    const bool bare = is_cat(left, DOM_IDENT) || MMM_is_call_of(left, MFN_ID_SLOT);
    open_paren(!bare);
    print_child(left, bare ? 2000 : 0, nullptr);
    close_paren(!bare);
    MOU_put_text("::");
    MOU_put_text(name);
}

// ---- statements ----

struct StatementParens {
    bool on;
    explicit StatementParens(int context) : on(statement_parens(context)) { open_paren(on); }
    ~StatementParens() = default;
    void close() { close_paren(on); }
};

void print_body(Cell body) { print_child(body, 0, nullptr); }

void print_assign(Cell* ref, int context, Cell sep) {
    Cell e = *ref;
    if (nops(e) != 2) return MOU_print_call(ref, context, sep);
    write_separator(sep);
    StatementParens s(context);
    print_child(operand(e, 1), 20, nullptr);
    print_child(operand(e, 2), 20, separator(" := "));
    s.close();
}

void print_if(Cell* ref, int context, Cell sep) {
    Cell e = *ref;
    if (nops(e) != 3) return MOU_print_call(ref, context, sep);
    write_separator(sep);
    StatementParens s(context);
    MOU_put_text("if ");
    print_child(operand(e, 1), 3000, nullptr);
    MOU_put_text(" then");
    MOU_line(2, true);
    print_body(operand(e, 2));
    if (operand(e, 3) != MMM_NIL) {
        MOU_line(-2, true);
        MOU_put_text("else");
        MOU_line(2, true);
        print_body(operand(e, 3));
    }
    MOU_line(-2, true);
    MOU_put_text("end_if");
    s.close();
}

void print_case(Cell* ref, int context, Cell sep) {
    Cell e = *ref;
    const long n = nops(e);
    if (n < 1) return MOU_print_call(ref, context, sep);
    write_separator(sep);
    StatementParens s(context);
    MOU_put_text("case ");
    print_child(operand(e, 1), 3000, nullptr);
    long i = 2;
    for (; i + 1 <= n; i += 2) {
        MOU_line(0, true);
        MOU_put_text("of ");
        print_child(operand(e, i), 3000, nullptr);
        MOU_put_text(" do");
        MOU_line(2, true);
        print_body(operand(e, i + 1));
        MOU_line(-2, false);
    }
    if (i == n) {
        MOU_line(0, true);
        MOU_put_text("otherwise");
        MOU_line(2, true);
        print_body(operand(e, n));
        MOU_line(-2, false);
    }
    MOU_line(0, true);
    MOU_put_text("end_case");
    s.close();
}

void print_loop_body(Cell body, const char* closer) {
    MOU_put_text(" do");
    MOU_line(2, true);
    print_body(body);
    MOU_line(-2, true);
    MOU_put_text(closer);
}

void print_for_range(Cell* ref, int context, Cell sep, const char* direction) {
    Cell e = *ref;
    if (nops(e) != 5) return MOU_print_call(ref, context, sep);
    write_separator(sep);
    StatementParens s(context);
    MOU_put_text("for ");
    print_child(operand(e, 1), 3000, nullptr);
    MOU_put_text(" from ");
    print_child(operand(e, 2), 3000, nullptr);
    MOU_put_text(direction);
    print_child(operand(e, 3), 3000, nullptr);
    if (operand(e, 4) != MMM_NIL) {
        MOU_put_text(" step ");
        print_child(operand(e, 4), 3000, nullptr);
    }
    print_loop_body(operand(e, 5), "end_for");
    s.close();
}

void print_for(Cell* ref, int context, Cell sep) { print_for_range(ref, context, sep, " to "); }
void print_for_down(Cell* ref, int context, Cell sep) { print_for_range(ref, context, sep, " downto "); }

void print_for_in(Cell* ref, int context, Cell sep) {
    Cell e = *ref;
    if (nops(e) != 3) return MOU_print_call(ref, context, sep);
    write_separator(sep);
    StatementParens s(context);
    MOU_put_text("for ");
    print_child(operand(e, 1), 3000, nullptr);
    MOU_put_text(" in ");
    print_child(operand(e, 2), 3000, nullptr);
    print_loop_body(operand(e, 3), "end_for");
    s.close();
}

void print_while(Cell* ref, int context, Cell sep) {
    Cell e = *ref;
    if (nops(e) != 2) return MOU_print_call(ref, context, sep);
    write_separator(sep);
    StatementParens s(context);
    MOU_put_text("while ");
    print_child(operand(e, 1), 3000, nullptr);
    print_loop_body(operand(e, 2), "end_while");
    s.close();
}

void print_repeat(Cell* ref, int context, Cell sep) {
    Cell e = *ref;
    if (nops(e) != 2) return MOU_print_call(ref, context, sep);
    write_separator(sep);
    StatementParens s(context);
    MOU_put_text("repeat");
    MOU_line(2, true);
    print_body(operand(e, 1));
    MOU_line(-2, true);
    MOU_put_text("until ");
    print_child(operand(e, 2), 3000, nullptr);
    MOU_put_text(" end_repeat");
    s.close();
}

void print_word(Cell* ref, int context, Cell sep, const char* word) {
    Cell e = *ref;
    if (nops(e) != 0) return MOU_print_call(ref, context, sep);
    write_separator(sep);
    StatementParens s(context);
    MOU_put_text(word);
    s.close();
}

void print_next(Cell* ref, int context, Cell sep) { print_word(ref, context, sep, "next"); }
void print_break(Cell* ref, int context, Cell sep) { print_word(ref, context, sep, "break"); }
void print_quit(Cell* ref, int context, Cell sep) { print_word(ref, context, sep, "quit"); }

void print_listing(Cell* ref, int context, Cell sep, const char* word) {
    Cell e = *ref;
    if (nops(e) < 1) return MOU_print_call(ref, context, sep);
    write_separator(sep);
    StatementParens s(context);
    MOU_put_text(word);
    print_operands(e, 1, 20, nullptr, separator(", "));
    s.close();
}

void print_delete(Cell* ref, int context, Cell sep) { print_listing(ref, context, sep, "delete "); }
void print_save(Cell* ref, int context, Cell sep) { print_listing(ref, context, sep, "save "); }

const MFN_builtin printers[] = {
    {.name = "_assign", .printer = print_assign},
    {.name = "_break", .printer = print_break},
    {.name = "_case", .printer = print_case},
    {.name = "slot", .printer = print_slot},
    {.name = "_for", .printer = print_for},
    {.name = "_for_down", .printer = print_for_down},
    {.name = "_for_in", .printer = print_for_in},
    {.name = "_delete", .printer = print_delete},
    {.name = "_if", .printer = print_if},
    {.name = "_index", .printer = print_index},
    {.name = "_next", .printer = print_next},
    {.name = "_quit", .printer = print_quit},
    {.name = "_repeat", .printer = print_repeat},
    {.name = "_seqgen", .printer = print_seqgen},
    {.name = "_while", .printer = print_while},
    {.name = "_not", .printer = print_not},
    {.name = "_invert", .printer = print_invert},
    {.name = "_negate", .printer = print_negate},
    {.name = "_subtract", .printer = print_subtract},
    {.name = "_divide", .printer = print_divide},
    {.name = "_seqin", .printer = print_seqin},
    {.name = "_save", .printer = print_save},
    {.name = "_seqstep", .printer = print_seqstep},
};

}  // namespace

const MFN_builtin_table MOU_printer_builtins = printers;

MFN_print_routine MOU_print_routine_for_code(int code) {
    // The operator and call printers serve many records and belong to none.
    if (code == MTR_CODE_OPERATOR_PRINTER) return MOU_print_operator;
    if (code == MTR_CODE_CALL_PRINTER) return MOU_print_call;
    return MFN_print_routine_for_code(code);
}

std::string MOU_to_text(Cell value) {
    std::string text;
    MOU_state_saver saved;
    const int32_t depth = MOU_depth;
    MOU_sink = &text;
    ++MOU_capture_depth;
    try {
        Cell v = value;
        MOU_print(&v, 0, nullptr);
    } catch (...) {
        --MOU_capture_depth;
        MOU_depth = depth;
        throw;
    }
    --MOU_capture_depth;
    MOU_depth = depth;
    return text;
}

void MOU_start_walker() {
    if (!separator_roots) {
        separator_roots = true;
        MMM_add_root(&statement_separator);
        MMM_add_root(&MOU_alias_table);
    }
    // Cells of an earlier heap are gone: make them again.
    for (Cell& c : separator_cells) c = nullptr;
    separators.clear();
    MOU_alias_table = nullptr;
    statement_separator = MMM_make_string("; ");
    proc_stack.clear();
}

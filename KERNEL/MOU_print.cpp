// The output walker: MOU_print and its dispatch by category, the atoms (identifiers,
// strings, numbers, lists, sets, tables, built-in and function environments), the
// separator cells, the text sinks, MOU_to_text and the walker's start. Expressions go to
// the printer their head names: operators and calls are in MOU_operators.cpp,
// procedures and statements in MOU_procedures.cpp.
#include "MOU_print.h"

#include <cstdio>
#include <cstring>
#include <deque>
#include <map>

#include "MAR_numbers.h"
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
long MOU_print_round = 0;

std::string* MOU_sink = nullptr;
int MOU_capture_depth = 0;

namespace {

// ---- small helpers ----

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

}  // namespace

Cell MOU_statement_separator = nullptr;  // "; " with the line break of the statement layout

std::string_view MOU_string_text(Cell s) {
    if (MOU_is_cat(s, DOM_STRING) && MMM_child_count(s) == 1 && MMM_kind_of(MMM_child(s, 0)) == MMM_STRING)
        return MMM_string_view(MMM_child(s, 0));
    return {};
}

Cell MOU_separator(std::string_view text) {
    auto it = separators.find(text);
    if (it != separators.end()) return it->second;
    separator_cells.push_back(MMM_make_string(text));
    MMM_add_root(&separator_cells.back());
    separators.emplace(std::string(text), separator_cells.back());
    return separator_cells.back();
}

void MOU_write_separator(Cell sep) {
    if (!sep) return;
    if (sep == MOU_statement_separator) {
        MOU_put_char(';');
        MOU_line(0, true);
        return;
    }
    if (MOU_is_cat(sep, DOM_IDENT)) MOU_put_text(MMM_ident_text(sep));
    else MOU_put_text(MOU_string_text(sep));
}

// ---- strings and names ----

void MOU_write_name(std::string_view name) {
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

namespace {

int id_of_name(std::string_view name, Cell ident) {
    const MFN_record* r = MFN_record_by_name(name);
    if (!r) return 0;
    if (ident && MMM_ident_by_id(r->id) != ident) return 0;
    return r->id;
}

}  // namespace

void MOU_resolve_head(Cell expr, MOU_head_printer& p) {
    if (!MOU_is_expr(expr)) return;
    Cell head = MMM_child(expr, 0);
    if (!MOU_is_node(head)) return;
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
        if (MOU_is_cat(v, DOM_FUNC_ENV)) env = v;
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
        if (MOU_is_cat(v, DOM_FUNC_ENV)) env = v;
        else MMM_release(v);
        break;
    }
    default: return;
    }
    if (!env) return;
    p.env.reset(env);
    if (MMM_child_count(env) <= MFN_ENV_PRINTER) return;
    Cell evaluator = MMM_child(env, MFN_ENV_EVALUATOR);
    if (MOU_is_cat(evaluator, DOM_EXEC) && MMM_child_count(evaluator) > MFN_EXEC_TEXT)
        p.id = id_of_name(MOU_string_text(MMM_child(evaluator, MFN_EXEC_TEXT)), nullptr);
    Cell printer = MMM_child(env, MFN_ENV_PRINTER);
    if (!MOU_is_cat(printer, DOM_EXEC) || MMM_child_count(printer) <= MFN_EXEC_TEXT) return;
    p.code = code_of(MMM_child(printer, MFN_EXEC_CODE));
    Cell priority = MMM_child(printer, MFN_EXEC_NUMERIC);
    if (MOU_is_cat(priority, DOM_INT)) p.priority = MAR_small_int(priority);
    p.text = std::string(MOU_string_text(MMM_child(printer, MFN_EXEC_TEXT)));
}

// Prints a child (borrowed) through the walker.
void MOU_print_child(Cell c, int context, Cell sep) {
    Cell local = c;
    MOU_print(&local, context, sep);
}

namespace {

// ---- strings ----

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

// ---- numbers ----

// Whether a number's text must stand in parentheses here. `after` is true when an
// operator's text comes before it (a right operand).
bool number_parens(Cell n, const std::string& text, int marked_context, bool after) {
    if (MAR_special(n)) return false;
    const int context = MOU_masked(marked_context);
    const bool negative = !text.empty() && text[0] == '-';
    const bool sum = text.find(" + ") != std::string::npos || text.find(" - ") != std::string::npos;
    const bool quotient = text.find_first_of("/*") != std::string::npos;
    const int category = MMM_category(n);
    if ((negative || sum) && context >= 1000) return true;
    if ((category == DOM_RAT || category == DOM_COMPLEX) && context >= 1200) return true;
    // "x*1/2" would read as (x*1)/2, and "a/1/2" as (a/1)/2.
    if (quotient && after && context >= 1100) return true;
    // "1.2" as a concatenation, "2(x)" as a call: keep the number apart, unless it is an
    // operand of `.` that cannot run into a number ("1.E2", "a.5").
    if (context >= 1700 && context < 1800) return !(marked_context & MOU_MARK_DOT);
    return false;
}

// ---- atoms ----

void print_list_items(Cell list, long from) {
    Cell comma = MOU_separator(", ");
    for (long i = from; i < MMM_child_count(list); ++i) MOU_print_child(MMM_child(list, i), 20, i > from ? comma : nullptr);
}

void print_set(Cell set) {
    MOU_put_char('{');
    // The domain's order, if it gives one; otherwise the set's own.
    if (MOU_hooks.type_slot && MOU_hooks.call && !MOU_source_form) {
        MMM_ref sort(MOU_hooks.type_slot(set, "sort"));
        if (sort.get() && sort.get() != MMM_FAIL) {
            MMM_ref sorted(MOU_hooks.call(sort.get(), set));
            if (MOU_is_cat(sorted.get(), DOM_LIST)) {
                print_list_items(sorted.get(), 0);
                MOU_put_char('}');
                return;
            }
        }
    }
    if (MMM_child_count(set) == 1) {
        MMM_table_walker w(MMM_child(set, MMM_TABLE_HASH));
        Cell key, value;
        Cell comma = MOU_separator(", ");
        for (bool first = true; w.next(&key, &value); first = false) MOU_print_child(key, 20, first ? nullptr : comma);
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
    Cell comma = MOU_separator(", ");
    Cell equals = MOU_separator(" = ");
    for (bool first = true; w.next(&key, &value); first = false) {
        // Key and value at the priority of `=`: a sequence stands in parentheses.
        MOU_print_child(key, 400, first ? nullptr : comma);
        MOU_print_child(value ? value : MMM_NULL, 400, equals);
    }
    MOU_put_char(')');
}

void print_exec(Cell exec) {
    const long n = MMM_child_count(exec);
    // The evaluator form names the routine in its text child, the printer form in the last.
    if (n > MFN_EXEC_TEXT && !MOU_string_text(MMM_child(exec, MFN_EXEC_TEXT)).empty() &&
        (n <= MFN_EXEC_STORE || !MOU_is_cat(MMM_child(exec, MFN_EXEC_STORE), DOM_STRING))) {
        MOU_put_text(MOU_string_text(MMM_child(exec, MFN_EXEC_TEXT)));
        return;
    }
    if (n > MFN_EXEC_STORE && !MOU_string_text(MMM_child(exec, MFN_EXEC_STORE)).empty()) {
        MOU_put_text(MOU_string_text(MMM_child(exec, MFN_EXEC_STORE)));
        return;
    }
    MOU_put_text("builtin(");
    Cell comma = MOU_separator(", ");
    for (long i = 0; i < n; ++i) {
        Cell c = MMM_child(exec, i);
        if (c && MMM_kind_of(c) == MMM_CODE) {
            if (i) MOU_write_separator(comma);
            put_number(code_of(c));
        } else {
            MOU_print_child(c, 20, i ? comma : nullptr);
        }
    }
    MOU_put_char(')');
}

void print_func_env(Cell env) {
    if (MMM_child_count(env) > MFN_ENV_ATTRIBUTES && MOU_is_cat(MMM_child(env, MFN_ENV_ATTRIBUTES), DOM_TABLE)) {
        MMM_ref key(MMM_string_value("print"));
        Cell slot = nullptr;
        if (MMM_table_find(MMM_child(MMM_child(env, MFN_ENV_ATTRIBUTES), MMM_TABLE_HASH), key.get(), &slot) && slot) {
            if (MOU_is_cat(slot, DOM_STRING)) {
                MOU_put_text(MOU_string_text(slot));
                return;
            }
            if (MOU_hooks.call) {
                MMM_ref shown(MOU_hooks.call(slot, env));
                if (shown.get() && shown.get() != MMM_FAIL) {
                    MOU_state_saver saved;
                    MOU_unquoted = true;
                    MOU_print_child(shown.get(), 0, nullptr);
                    return;
                }
            }
        }
    }
    Cell evaluator = MMM_child_count(env) > MFN_ENV_EVALUATOR ? MMM_child(env, MFN_ENV_EVALUATOR) : nullptr;
    if (MOU_is_cat(evaluator, DOM_EXEC) && MMM_child_count(evaluator) > MFN_EXEC_TEXT) {
        MOU_put_text(MOU_string_text(MMM_child(evaluator, MFN_EXEC_TEXT)));
        return;
    }
    MOU_put_text("funcenv()");
}

void print_category(Cell* ref, int context, Cell sep) {
    Cell v = *ref;
    const int category = MMM_category(v);
    const bool numeric = MOU_is_number(v);
    std::string number;
    if (numeric) number = MOU_number_text(v);
    MOU_write_separator(sep);
    switch (category) {
    case CAT_BIG_INT:
    case DOM_INT:
    case DOM_RAT:
    case DOM_FLOAT:
    case DOM_COMPLEX: {
        const bool parens = number_parens(v, number, context, sep != nullptr);
        MOU_open_paren(parens);
        MOU_put_text(number);
        MOU_close_paren(parens);
        return;
    }
    case DOM_STRING: write_string(MOU_string_text(v)); return;
    case DOM_BOOL: MOU_put_text(v == MMM_TRUE ? "TRUE" : v == MMM_FALSE ? "FALSE" : "UNKNOWN"); return;
    case DOM_NIL: MOU_put_text("NIL"); return;
    case DOM_FAIL: MOU_put_text("FAIL"); return;
    case DOM_NULL: MOU_put_text("null()"); return;
    case DOM_IDENT: MOU_write_name(MMM_ident_text(v)); return;
    case DOM_LIST:
        MOU_put_char('[');
        print_list_items(v, 0);
        MOU_put_char(']');
        return;
    case DOM_SET: print_set(v); return;
    case DOM_TABLE: print_table(v); return;
    case DOM_EXEC: print_exec(v); return;
    case DOM_FUNC_ENV: print_func_env(v); return;
    case DOM_VAR: MOU_print_var(v); return;
    case DOM_PROC: MOU_print_procedure_value(v, context); return;
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
            if (MOU_is_cat(method.get(), DOM_EXEC) && MMM_child_count(method.get()) > MFN_EXEC_CODE) {
                if (MFN_print_routine fn = MOU_print_routine_for_code(code_of(MMM_child(method.get(), MFN_EXEC_CODE)))) {
                    fn(ref, context, sep);
                    return;
                }
            }
            MOU_state_saver saved;
            MOU_in_method = true;
            MMM_ref shown(MOU_hooks.call(method.get(), v));
            MOU_unquoted = true;
            if (MOU_is_cat(shown.get(), DOM_STRING)) {  // the text itself
                MOU_write_separator(sep);
                write_string(MOU_string_text(shown.get()));
                return;
            }
            MOU_print_child(shown.get(), context, sep);
            return;
        }
    }
    print_category(ref, context, sep);
}

// ---- expressions ----

void print_expr(Cell* ref, int context, Cell sep) {
    Cell e = *ref;
    if (MMM_child_count(e) < 1) {
        MOU_write_separator(sep);
        MOU_put_text("/* 26 */");
        return;
    }
    MOU_head_printer p;
    MOU_resolve_head(e, p);
    MFN_print_routine fn = p.code ? MOU_print_routine_for_code(p.code) : nullptr;
    // Statements parenthesise themselves in the context 3000 of a condition; everything
    // else stands there as at the top.
    if (MOU_masked(context) == 3000 && !(fn && p.priority == 3000) && p.id != MFN_ID_STMTSEQ) context = 0;
    if (!fn) fn = MOU_print_call;
    fn(ref, context, sep);
}

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
    if (MOU_depth == 0) ++MOU_print_round;
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
        MOU_write_separator(separator);
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
    if (MOU_masked(context) == 3000) context = 0;
    print_atom(ref, context, separator);
}

void MOU_print_top(Cell* ref) { MOU_print(ref, 0, nullptr); }

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
    // Cells of an earlier heap, and the roots that named them, are gone: start again.
    MMM_add_root(&MOU_statement_separator);
    MMM_add_root(&MOU_alias_table);
    separator_cells.clear();
    separators.clear();
    MOU_alias_table = nullptr;
    MOU_statement_separator = MMM_make_string("; ");
    MOU_start_procedures();
}

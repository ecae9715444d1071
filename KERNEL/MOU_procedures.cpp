// Procedures and statements as text: the procedure header (parameters with defaults and
// types, name, locals, saved names, options), its body with the names of its locals, the
// arrow form, and the statement layout of if, case, for, while, repeat, assignments,
// next, break, quit, delete and save.
#include <cstdio>
#include <string_view>
#include <vector>

#include "MFN_layout.h"
#include "MMM_ident.h"
#include "MMM_values.h"
#include "MOU_internal.h"
#include "MOU_print.h"

namespace {

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
        for (long i = 1; i <= MOU_nops(list); ++i) out.push_back(MOU_operand(list, i));
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
    else if (MMM_is_call_of(field, MFN_ID_EXPRSEQ) && size_t(MOU_nops(field)) == n) e = MOU_operand(field, long(k) + 1);
    return e == MMM_NIL ? nullptr : e;
}

}  // namespace

void MOU_print_var(Cell var) {
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
    if (MOU_is_cat(name, DOM_IDENT)) {
        MOU_write_name(MMM_ident_text(name));
        return;
    }
    char text[64];
    std::snprintf(text, sizeof text, "DOM_VAR(%d,%d)", depth, index);
    MOU_put_text(text);
}

namespace {

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

void print_header_part(Cell c) {
    // Header expressions are read up to `,`, `:` and `->`: a sequence or an arrow
    // procedure there stands in parentheses.
    MOU_print_child(c, 21, nullptr);
}

void print_procedure(const ProcFields& f, int context) {
    const std::vector<Cell> params = items_of(f.params);
    const std::vector<Cell> locals = items_of(f.locals);
    const bool hidden = (f.options & OPT_NO_EXPOSE) && !MOU_source_form;
    bool plain_params = true;
    for (Cell p : params) plain_params = plain_params && MOU_is_cat(p, DOM_IDENT);
    const bool arrow = (f.options & OPT_ARROW) && plain_params && !MOU_given(f.locals) &&
                       !MOU_given(f.param_types) && !MOU_given(f.return_type) && !MOU_given(f.local_types) &&
                       !MOU_given(f.defaults) && !MOU_given(f.saves) &&
                       !(f.options & ~(OPT_ARROW | OPT_NO_EXPOSE | OPT_NO_DEBUG));
    Cell comma = MOU_separator(", ");
    if (arrow) {
        const bool parens = MOU_masked(context) > 20;
        MOU_open_paren(parens);
        if (params.size() == 1) {
            MOU_write_name(MMM_ident_text(params[0]));
        } else {
            MOU_put_char('(');
            for (size_t i = 0; i < params.size(); ++i) {
                if (i) MOU_write_separator(comma);
                MOU_write_name(MMM_ident_text(params[i]));
            }
            MOU_put_char(')');
        }
        MOU_put_text(" -> ");
        if (hidden) {
            MOU_put_text("/* Hidden */");
        } else {
            ScopePush scope(f.params, f.locals);
            MOU_print_child(f.body, 20, nullptr);
        }
        MOU_close_paren(parens);
        return;
    }
    MOU_put_text("proc(");
    for (size_t k = 0; k < params.size(); ++k) {
        if (k) MOU_write_separator(comma);
        MOU_print_child(params[k], 0, nullptr);
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
    if (MOU_given(f.return_type)) {
        MOU_put_text(" : ");
        print_header_part(f.return_type);
    }
    MOU_indent += 2;
    if (MOU_given(f.name)) {
        MOU_line(0, true);
        MOU_put_text("name");
        // `name;` gives the empty sequence.
        if (!(MMM_is_call_of(f.name, MFN_ID_EXPRSEQ) && MOU_nops(f.name) == 0)) {
            MOU_put_char(' ');
            MOU_print_child(f.name, 0, nullptr);
        }
        MOU_put_char(';');
    }
    if (!locals.empty()) {
        MOU_line(0, true);
        MOU_put_text("local ");
        for (size_t k = 0; k < locals.size(); ++k) {
            if (k) MOU_write_separator(comma);
            MOU_print_child(locals[k], 0, nullptr);
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
        for (size_t k = 0; k < saves.size(); ++k) MOU_print_child(saves[k], 0, k ? comma : nullptr);
        MOU_put_char(';');
    }
    if (f.options) {
        MOU_line(0, true);
        MOU_put_text("option ");
        bool first = true;
        for (const OptionName& o : option_names) {
            if (!(f.options & o.bit)) continue;
            if (!first) MOU_write_separator(comma);
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
    } else if (MOU_given(f.body)) {
        MOU_line(0, true);
        ScopePush scope(f.params, f.locals);
        MOU_print_child(f.body, 0, nullptr);
    }
    MOU_line(-2, true);
    MOU_put_text("end_proc");
}

unsigned option_bits(Cell options) {
    unsigned bits = 0;
    for (Cell o : items_of(options)) {
        if (!MOU_is_cat(o, DOM_IDENT)) continue;
        const std::string_view n = MMM_ident_text(o);
        for (const OptionName& k : option_names)
            if (n == k.name) bits |= k.bit;
    }
    return bits;
}

}  // namespace

// The parser's tree: params, locals, options, body, name, parameter types, return
// type, local types, defaults, saved names, and two fields the evaluator fills.
void MOU_print_procdef_tree(Cell t, int context) {
    auto field = [&](long i) { return i <= MOU_nops(t) ? MOU_operand(t, i) : nullptr; };
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

void MOU_print_procedure_value(Cell proc, int context) {
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

// ---- statements ----

namespace {

bool statement_parens(int context) { return MOU_masked(context) >= 11; }

struct StatementParens {
    bool on;
    explicit StatementParens(int context) : on(statement_parens(context)) { MOU_open_paren(on); }
    ~StatementParens() = default;
    void close() { MOU_close_paren(on); }
};

void print_body(Cell body) { MOU_print_child(body, 0, nullptr); }

void print_loop_body(Cell body, const char* closer) {
    MOU_put_text(" do");
    MOU_line(2, true);
    print_body(body);
    MOU_line(-2, true);
    MOU_put_text(closer);
}

void print_for_range(Cell* ref, int context, Cell sep, const char* direction) {
    Cell e = *ref;
    if (MOU_nops(e) != 5) return MOU_print_call(ref, context, sep);
    MOU_write_separator(sep);
    StatementParens s(context);
    MOU_put_text("for ");
    MOU_print_child(MOU_operand(e, 1), 3000, nullptr);
    MOU_put_text(" from ");
    MOU_print_child(MOU_operand(e, 2), 3000, nullptr);
    MOU_put_text(direction);
    MOU_print_child(MOU_operand(e, 3), 3000, nullptr);
    if (MOU_operand(e, 4) != MMM_NIL) {
        MOU_put_text(" step ");
        MOU_print_child(MOU_operand(e, 4), 3000, nullptr);
    }
    print_loop_body(MOU_operand(e, 5), "end_for");
    s.close();
}

void print_word(Cell* ref, int context, Cell sep, const char* word) {
    Cell e = *ref;
    if (MOU_nops(e) != 0) return MOU_print_call(ref, context, sep);
    MOU_write_separator(sep);
    StatementParens s(context);
    MOU_put_text(word);
    s.close();
}

void print_listing(Cell* ref, int context, Cell sep, const char* word) {
    Cell e = *ref;
    if (MOU_nops(e) < 1) return MOU_print_call(ref, context, sep);
    MOU_write_separator(sep);
    StatementParens s(context);
    MOU_put_text(word);
    MOU_print_operands(e, 1, 20, nullptr, MOU_separator(", "));
    s.close();
}

void print_assign(Cell* ref, int context, Cell sep) {
    Cell e = *ref;
    if (MOU_nops(e) != 2) return MOU_print_call(ref, context, sep);
    MOU_write_separator(sep);
    StatementParens s(context);
    MOU_print_child(MOU_operand(e, 1), 20, nullptr);
    MOU_print_child(MOU_operand(e, 2), 20, MOU_separator(" := "));
    s.close();
}

void print_if(Cell* ref, int context, Cell sep) {
    Cell e = *ref;
    if (MOU_nops(e) != 3) return MOU_print_call(ref, context, sep);
    MOU_write_separator(sep);
    StatementParens s(context);
    MOU_put_text("if ");
    MOU_print_child(MOU_operand(e, 1), 3000, nullptr);
    MOU_put_text(" then");
    MOU_line(2, true);
    print_body(MOU_operand(e, 2));
    if (MOU_operand(e, 3) != MMM_NIL) {
        MOU_line(-2, true);
        MOU_put_text("else");
        MOU_line(2, true);
        print_body(MOU_operand(e, 3));
    }
    MOU_line(-2, true);
    MOU_put_text("end_if");
    s.close();
}

void print_case(Cell* ref, int context, Cell sep) {
    Cell e = *ref;
    const long n = MOU_nops(e);
    if (n < 1) return MOU_print_call(ref, context, sep);
    MOU_write_separator(sep);
    StatementParens s(context);
    MOU_put_text("case ");
    MOU_print_child(MOU_operand(e, 1), 3000, nullptr);
    long i = 2;
    for (; i + 1 <= n; i += 2) {
        MOU_line(0, true);
        MOU_put_text("of ");
        MOU_print_child(MOU_operand(e, i), 3000, nullptr);
        MOU_put_text(" do");
        MOU_line(2, true);
        print_body(MOU_operand(e, i + 1));
        MOU_line(-2, false);
    }
    if (i == n) {
        MOU_line(0, true);
        MOU_put_text("otherwise");
        MOU_line(2, true);
        print_body(MOU_operand(e, n));
        MOU_line(-2, false);
    }
    MOU_line(0, true);
    MOU_put_text("end_case");
    s.close();
}

void print_for(Cell* ref, int context, Cell sep) { print_for_range(ref, context, sep, " to "); }
void print_for_down(Cell* ref, int context, Cell sep) { print_for_range(ref, context, sep, " downto "); }

void print_for_in(Cell* ref, int context, Cell sep) {
    Cell e = *ref;
    if (MOU_nops(e) != 3) return MOU_print_call(ref, context, sep);
    MOU_write_separator(sep);
    StatementParens s(context);
    MOU_put_text("for ");
    MOU_print_child(MOU_operand(e, 1), 3000, nullptr);
    MOU_put_text(" in ");
    MOU_print_child(MOU_operand(e, 2), 3000, nullptr);
    print_loop_body(MOU_operand(e, 3), "end_for");
    s.close();
}

void print_while(Cell* ref, int context, Cell sep) {
    Cell e = *ref;
    if (MOU_nops(e) != 2) return MOU_print_call(ref, context, sep);
    MOU_write_separator(sep);
    StatementParens s(context);
    MOU_put_text("while ");
    MOU_print_child(MOU_operand(e, 1), 3000, nullptr);
    print_loop_body(MOU_operand(e, 2), "end_while");
    s.close();
}

void print_repeat(Cell* ref, int context, Cell sep) {
    Cell e = *ref;
    if (MOU_nops(e) != 2) return MOU_print_call(ref, context, sep);
    MOU_write_separator(sep);
    StatementParens s(context);
    MOU_put_text("repeat");
    MOU_line(2, true);
    print_body(MOU_operand(e, 1));
    MOU_line(-2, true);
    MOU_put_text("until ");
    MOU_print_child(MOU_operand(e, 2), 3000, nullptr);
    MOU_put_text(" end_repeat");
    s.close();
}

void print_next(Cell* ref, int context, Cell sep) { print_word(ref, context, sep, "next"); }
void print_break(Cell* ref, int context, Cell sep) { print_word(ref, context, sep, "break"); }
void print_quit(Cell* ref, int context, Cell sep) { print_word(ref, context, sep, "quit"); }

void print_delete(Cell* ref, int context, Cell sep) { print_listing(ref, context, sep, "delete "); }
void print_save(Cell* ref, int context, Cell sep) { print_listing(ref, context, sep, "save "); }

const MFN_builtin printers[] = {
    {.name = "_assign", .printer = print_assign},
    {.name = "_if", .printer = print_if},
    {.name = "_case", .printer = print_case},
    {.name = "_for", .printer = print_for},
    {.name = "_for_down", .printer = print_for_down},
    {.name = "_for_in", .printer = print_for_in},
    {.name = "_while", .printer = print_while},
    {.name = "_repeat", .printer = print_repeat},
    {.name = "_next", .printer = print_next},
    {.name = "_break", .printer = print_break},
    {.name = "_quit", .printer = print_quit},
    {.name = "_delete", .printer = print_delete},
    {.name = "_save", .printer = print_save},
};

}  // namespace

const MFN_builtin_table MOU_statement_printers = printers;

void MOU_start_procedures() { proc_stack.clear(); }

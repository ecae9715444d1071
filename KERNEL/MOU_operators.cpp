// The operator forms: sums with their signs, products with coefficients and reciprocals,
// quotients, powers and every other operator through MOU_print_operator; the general
// call form (MOU_print_call); the special forms `not`, `-`, `1/`, the sequences `$`,
// `_index` and slots; and the registry table of the special forms' printers,
// MOU_operator_printers, with the routine of each print code.
#include <string>
#include <vector>

#include "MAR_numbers.h"
#include "MCM_equal.h"
#include "MFN_layout.h"
#include "MMM_heap.h"
#include "MMM_ident.h"
#include "MMM_ref.h"
#include "MMM_table.h"
#include "MMM_values.h"
#include "MOU_internal.h"
#include "MOU_print.h"

namespace {

// ---- signs and reciprocals for printing ----

// The numeric factor of a product that carries its sign: the last operand if it is a
// number, else the first if it is one; 0 for none.
long sign_factor(Cell e) {
    if (MOU_nops(e) < 1) return 0;
    if (MOU_is_number(MOU_operand(e, MOU_nops(e)))) return MOU_nops(e);
    if (MOU_is_number(MOU_operand(e, 1))) return 1;
    return 0;
}

// Sums of sums are looked into this deep at most: a tree built by hand can be deeper
// than the native stack.
constexpr int SIGN_DEPTH = 100;

bool is_negative(Cell x, int depth = 0) {
    if (!MOU_is_node(x) || depth > SIGN_DEPTH) return false;
    if (MOU_is_number(x)) return MOU_number_negative(x);
    if (!MOU_is_expr(x)) return false;
    if (MMM_is_call_of(x, MFN_ID_NEGATE)) return MOU_nops(x) == 1;
    if (MMM_is_call_of(x, MFN_ID_PLUS)) {
        if (MOU_nops(x) < 1) return false;
        for (long i = 1; i <= MOU_nops(x); ++i)
            if (!is_negative(MOU_operand(x, i), depth + 1)) return false;
        return true;
    }
    if (MMM_is_call_of(x, MFN_ID_MULT)) {
        const long k = sign_factor(x);
        return k && MOU_number_negative(MOU_operand(x, k));
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
    if (MOU_is_number(x)) return MAR_negate(x);
    if (MMM_is_call_of(x, MFN_ID_NEGATE)) return MMM_retained(MOU_operand(x, 1));
    if (MMM_is_call_of(x, MFN_ID_PLUS)) {
        std::vector<Cell> ops;
        for (long i = 1; i <= MOU_nops(x); ++i) ops.push_back(negated(MOU_operand(x, i)));
        Cell r = rebuild(x, ops);
        for (Cell c : ops) MMM_release(c);
        return r;
    }
    // A product: its sign factor negated, and dropped when that gives 1.
    const long k = sign_factor(x);
    MMM_ref factor(MAR_negate(MOU_operand(x, k)));
    std::vector<Cell> ops;
    for (long i = 1; i <= MOU_nops(x); ++i) {
        if (i != k) ops.push_back(MOU_operand(x, i));
        else if (!MCM_equal(factor.get(), MAR_ONE)) ops.push_back(factor.get());
    }
    if (ops.size() == 1) return MMM_retained(ops[0]);
    return rebuild(x, ops);
}

// A power with a negative number as exponent prints as a reciprocal.
bool is_inverted(Cell x) {
    return MMM_is_call_of(x, MFN_ID_POWER) && MOU_nops(x) == 2 && MOU_is_number(MOU_operand(x, 2)) && is_negative(MOU_operand(x, 2));
}

Cell reciprocal(Cell x) {
    MMM_ref exponent(MAR_negate(MOU_operand(x, 2)));
    if (MCM_equal(exponent.get(), MAR_ONE)) return MMM_retained(MOU_operand(x, 1));
    return rebuild(x, {MOU_operand(x, 1), exponent.get()});
}

// The print round in which the library's _sortsum failed: it is not asked again in the
// same output, so that its error is reported once.
long sortsum_failed_round = -1;

// The operands of a sum in printing order: the library's order if it gives one, else
// with the first term that is not negative moved to the front.
Cell ordered_sum(Cell e) {
    if (MOU_hooks.try_call && sortsum_failed_round != MOU_print_round) {
        if (Cell ident = MMM_ident_exists(MMM_intern("_sortsum"))) {
            MMM_ref sorter(MMM_value(ident));
            if (sorter.get()) {
                Cell r = MOU_hooks.try_call(sorter.get(), e);
                if (!r) sortsum_failed_round = MOU_print_round;
                if (MMM_is_call_of(r, MFN_ID_PLUS) && MOU_nops(r) >= 2) return r;
                if (r) MMM_release(r);
            }
        }
    }
    long first = 0;
    for (long i = 1; i <= MOU_nops(e) && !first; ++i)
        if (!is_negative(MOU_operand(e, i))) first = i;
    if (first <= 1) return MMM_retained(e);
    std::vector<Cell> ops;
    for (long i = 1; i <= MOU_nops(e); ++i) ops.push_back(MOU_operand(e, i));
    std::swap(ops[0], ops[size_t(first - 1)]);
    return rebuild(e, ops);
}

void print_sum(Cell e, int p, Cell sep, const std::string& text, int context) {
    const bool sort = MOU_keep_order == 0 || (MOU_keep_order == 1 && !MOU_in_method);
    MMM_ref sum(sort ? ordered_sum(e) : MMM_retained(e));
    MOU_write_separator(sep);
    const bool parens = p <= MOU_masked(context);
    MOU_open_paren(parens);
    Cell plus = MOU_separator(text);
    Cell minus = MOU_separator(" - ");
    Cell leading_minus = MOU_separator("- ");
    for (long i = 1; i <= MOU_nops(sum.get()); ++i) {
        Cell x = MOU_operand(sum.get(), i);
        if (is_negative(x)) {
            MMM_ref n(negated(x));
            MOU_print_child(n.get(), p, i == 1 ? leading_minus : minus);
        } else {
            MOU_print_child(x, p, i == 1 ? nullptr : plus);
        }
    }
    MOU_close_paren(parens);
}

void print_product(Cell e, int p, Cell sep, const std::string& text, int context) {
    std::vector<Cell> factors;
    MMM_ref positive;
    bool minus = false;
    Cell last = MOU_operand(e, MOU_nops(e));
    if (MOU_is_number(last)) {
        // The coefficient goes first; its sign in front of the whole.
        Cell coefficient = last;
        if (is_negative(last)) {
            minus = true;
            positive.reset(MAR_negate(last));
            coefficient = positive.get();
            if (MCM_equal(coefficient, MAR_ONE)) coefficient = nullptr;
        }
        if (coefficient) factors.push_back(coefficient);
        for (long i = 1; i < MOU_nops(e); ++i) factors.push_back(MOU_operand(e, i));
    } else {
        for (long i = 1; i <= MOU_nops(e); ++i) factors.push_back(MOU_operand(e, i));
    }
    MOU_write_separator(sep);
    const int c = MOU_masked(context);
    const bool parens = p <= c || (minus && c >= 1000);
    MOU_open_paren(parens);
    if (minus) MOU_put_char('-');
    Cell times = MOU_separator(text);
    Cell over = MOU_separator("/");
    for (size_t i = 0; i < factors.size(); ++i) {
        Cell f = factors[i];
        if (is_inverted(f)) {
            if (i == 0) MOU_put_char('1');
            MMM_ref r(reciprocal(f));
            MOU_print_child(r.get(), p, over);
        } else {
            MOU_print_child(f, p, i ? times : nullptr);
        }
    }
    MOU_close_paren(parens);
}

// Whether text can continue a number written before a `.`: "1" and ".2" read as 1.2,
// "1" and ".e2" as 1.0e2.
bool continues_number(const std::string& text) {
    return !text.empty() && ((text[0] >= '0' && text[0] <= '9') || text[0] == 'e');
}

// The operands of `.`. A number behind a `.` stands bare ("a.5"); one before it too,
// unless the next operand's text would run into it.
void print_concat_operands(Cell e, int p, Cell dot) {
    for (long i = 1; i <= MOU_nops(e); ++i) {
        Cell x = MOU_operand(e, i);
        const bool bare = i == MOU_nops(e) || !MOU_is_number(x) || !continues_number(MOU_to_text(MOU_operand(e, i + 1)));
        MOU_print_child(x, bare ? p | MOU_MARK_DOT : p, i > 1 ? dot : nullptr);
    }
}

}  // namespace

// Operands from `from` on at `context`, the first with `first_sep` and the others with
// `sep`.
void MOU_print_operands(Cell e, long from, int context, Cell first_sep, Cell sep) {
    for (long i = from; i <= MOU_nops(e); ++i) MOU_print_child(MOU_operand(e, i), context, i == from ? first_sep : sep);
}

// ---- the general form ----

void MOU_print_call(Cell* ref, int context, Cell sep) {
    Cell e = *ref;
    if (!MOU_is_expr(e)) {
        MOU_print(ref, context, sep);
        return;
    }
    Cell head = MMM_child(e, 0);
    if (MMM_is_call_of(e, MFN_ID_PROCDEF) && MOU_nops(e) >= 4) {
        MOU_write_separator(sep);
        MOU_print_procdef_tree(e, context);
        return;
    }
    MOU_head_printer p;
    MOU_resolve_head(e, p);
    // The environment's print slot: a string is the name to show, another value makes the
    // text from the expression.
    if (p.env.get() && MMM_child_count(p.env.get()) > MFN_ENV_ATTRIBUTES && MOU_is_cat(MMM_child(p.env.get(), MFN_ENV_ATTRIBUTES), DOM_TABLE)) {
        MMM_ref key(MMM_string_value("print"));
        Cell slot = nullptr;
        if (MMM_table_find(MMM_child(MMM_child(p.env.get(), MFN_ENV_ATTRIBUTES), MMM_TABLE_HASH), key.get(), &slot) && slot &&
            !MOU_is_cat(slot, DOM_STRING) && MOU_hooks.call) {
            MMM_ref shown(MOU_hooks.call(slot, e));
            if (shown.get() && shown.get() != MMM_FAIL) {
                MOU_print_child(shown.get(), context, sep);
                return;
            }
        }
        if (MOU_is_cat(slot, DOM_STRING)) head = slot;
    }
    MOU_write_separator(sep);
    const bool parens = MOU_masked(context) == 2000;
    MOU_open_paren(parens);
    if (MOU_is_cat(head, DOM_STRING) && head != MMM_child(e, 0)) {
        MOU_put_text(MOU_string_text(head));
    } else if (MOU_source_form && MOU_is_cat(head, DOM_PROC) && MMM_child_count(head) == 13 &&
               MOU_given(MMM_child(head, 5))) {
        MOU_print_child(MMM_child(head, 5), 1700, nullptr);
    } else {
        MOU_print_child(head, 1700, nullptr);
    }
    MOU_put_char('(');
    MOU_print_operands(e, 1, 20, nullptr, MOU_separator(", "));
    MOU_put_char(')');
    MOU_close_paren(parens);
}

// ---- operators ----

void MOU_print_operator(Cell* ref, int context, Cell sep) {
    Cell e = *ref;
    if (!MOU_is_expr(e) || MOU_nops(e) < 2) {
        MOU_print_call(ref, context, sep);
        return;
    }
    MOU_head_printer p;
    MOU_resolve_head(e, p);
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
            MOU_write_separator(sep);
            const bool parens = 1100 <= MOU_masked(context);
            MOU_open_paren(parens);
            MOU_put_text("1/");
            MMM_ref r(reciprocal(e));
            MOU_print_child(r.get(), 1100, nullptr);
            MOU_close_paren(parens);
            return;
        }
    }
    MOU_write_separator(sep);
    const bool parens = p.priority <= MOU_masked(context);
    MOU_open_paren(parens);
    Cell text = p.id == MFN_ID_STMTSEQ ? MOU_statement_separator : MOU_separator(p.text);
    if (p.id == MFN_ID_CONCAT && !MOU_source_form) print_concat_operands(e, p.priority, text);
    else MOU_print_operands(e, 1, p.priority, nullptr, text);
    MOU_close_paren(parens);
}

namespace {

// ---- special forms ----

void print_not(Cell* ref, int context, Cell sep) {
    Cell e = *ref;
    if (MOU_nops(e) != 1) return MOU_print_call(ref, context, sep);
    MOU_write_separator(sep);
    const bool parens = MOU_masked(context) >= 300;
    MOU_open_paren(parens);
    MOU_put_text("not ");
    MOU_print_child(MOU_operand(e, 1), 300, nullptr);
    MOU_close_paren(parens);
}

void print_negate(Cell* ref, int context, Cell sep) {
    Cell e = *ref;
    if (MOU_nops(e) != 1) return MOU_print_call(ref, context, sep);
    MOU_write_separator(sep);
    const int c = MOU_masked(context);
    const bool parens = c >= 1000;
    MOU_open_paren(parens);
    MOU_put_char('-');
    if (c == 1000) MOU_put_char(' ');
    MOU_print_child(MOU_operand(e, 1), 1000, nullptr);
    MOU_close_paren(parens);
}

void print_invert(Cell* ref, int context, Cell sep) {
    Cell e = *ref;
    if (MOU_nops(e) != 1) return MOU_print_call(ref, context, sep);
    MOU_write_separator(sep);
    const bool parens = MOU_masked(context) >= 1100;
    MOU_open_paren(parens);
    MOU_put_text("1/");
    MOU_print_child(MOU_operand(e, 1), 1100, nullptr);
    MOU_close_paren(parens);
}

void print_binary(Cell* ref, int context, Cell sep, int p, const char* text) {
    Cell e = *ref;
    if (MOU_nops(e) != 2) return MOU_print_call(ref, context, sep);
    MOU_write_separator(sep);
    const bool parens = p <= MOU_masked(context);
    MOU_open_paren(parens);
    MOU_print_child(MOU_operand(e, 1), p, nullptr);
    MOU_print_child(MOU_operand(e, 2), p, MOU_separator(text));
    MOU_close_paren(parens);
}

void print_divide(Cell* ref, int context, Cell sep) { print_binary(ref, context, sep, 1100, "/"); }
void print_subtract(Cell* ref, int context, Cell sep) { print_binary(ref, context, sep, 1000, " - "); }

bool is_variable(Cell c) { return MOU_is_cat(c, DOM_IDENT) || MOU_is_cat(c, DOM_VAR); }

// e $ s, $ s, e $ i = s, e $ i in s, each with an optional " step " t.
void print_sequence(Cell e, int context, Cell sep, bool with_var, const char* relation, bool with_step) {
    const long n = MOU_nops(e);
    const long core = (with_var ? 1 : 0) + 1 + (with_step ? 1 : 0);  // operands besides e
    const bool left = n > core;
    MOU_write_separator(sep);
    const bool parens = 300 <= MOU_masked(context);
    MOU_open_paren(parens);
    long i = 1;
    if (left) {
        MOU_print_child(MOU_operand(e, i++), 300, nullptr);
        MOU_put_char(' ');
    }
    MOU_put_text("$ ");
    if (with_var) {
        MOU_print_child(MOU_operand(e, i++), 300, nullptr);
        MOU_put_text(relation);
    }
    MOU_print_child(MOU_operand(e, i++), 300, nullptr);
    if (with_step) MOU_print_child(MOU_operand(e, i++), 300, MOU_separator(" step "));
    MOU_close_paren(parens);
}

void print_seqgen(Cell* ref, int context, Cell sep) {
    Cell e = *ref;
    const long n = MOU_nops(e);
    if (n == 1 || n == 2) return print_sequence(e, context, sep, false, nullptr, false);
    if (n == 3 && is_variable(MOU_operand(e, 2))) return print_sequence(e, context, sep, true, " = ", false);
    MOU_print_call(ref, context, sep);
}

void print_seqstep(Cell* ref, int context, Cell sep) {
    Cell e = *ref;
    const long n = MOU_nops(e);
    if (n == 2 || n == 3) return print_sequence(e, context, sep, false, nullptr, true);
    if (n == 4 && is_variable(MOU_operand(e, 2))) return print_sequence(e, context, sep, true, " = ", true);
    MOU_print_call(ref, context, sep);
}

void print_seqin(Cell* ref, int context, Cell sep) {
    Cell e = *ref;
    const long n = MOU_nops(e);
    if ((n == 3 || n == 4) && is_variable(MOU_operand(e, 2)))
        return print_sequence(e, context, sep, true, " in ", n == 4);
    MOU_print_call(ref, context, sep);
}

void print_index(Cell* ref, int context, Cell sep) {
    Cell e = *ref;
    if (MOU_nops(e) < 2) return MOU_print_call(ref, context, sep);
    MOU_write_separator(sep);
    MOU_print_child(MOU_operand(e, 1), 1800, nullptr);
    MOU_put_char('[');
    MOU_print_operands(e, 2, 20, nullptr, MOU_separator(", "));
    MOU_put_char(']');
}

// a::x; the slots `print` and `Name`, and names that are no identifiers, in the general
// form.
void print_slot(Cell* ref, int context, Cell sep) {
    Cell e = *ref;
    const std::string_view name = MOU_nops(e) == 2 ? MOU_string_text(MOU_operand(e, 2)) : std::string_view{};
    if (!MOU_plain_name(name) || name == "print" || name == "Name") return MOU_print_call(ref, context, sep);
    MOU_write_separator(sep);
    Cell left = MOU_operand(e, 1);
    // Only a name or another slot can stand before `::` as it is.
    const bool bare = MOU_is_cat(left, DOM_IDENT) || MMM_is_call_of(left, MFN_ID_SLOT);
    MOU_open_paren(!bare);
    MOU_print_child(left, bare ? 2000 : 0, nullptr);
    MOU_close_paren(!bare);
    MOU_put_text("::");
    MOU_put_text(name);
}

const MFN_builtin printers[] = {
    {.name = "slot", .printer = print_slot},
    {.name = "_index", .printer = print_index},
    {.name = "_seqgen", .printer = print_seqgen},
    {.name = "_not", .printer = print_not},
    {.name = "_invert", .printer = print_invert},
    {.name = "_negate", .printer = print_negate},
    {.name = "_subtract", .printer = print_subtract},
    {.name = "_divide", .printer = print_divide},
    {.name = "_seqin", .printer = print_seqin},
    {.name = "_seqstep", .printer = print_seqstep},
};

}  // namespace

const MFN_builtin_table MOU_operator_printers = printers;

MFN_print_routine MOU_print_routine_for_code(int code) {
    // The operator and call printers serve many records and belong to none.
    if (code == MTR_CODE_OPERATOR_PRINTER) return MOU_print_operator;
    if (code == MTR_CODE_CALL_PRINTER) return MOU_print_call;
    return MFN_print_routine_for_code(code);
}

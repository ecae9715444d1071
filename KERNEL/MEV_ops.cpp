// Structure operands: the operand rules of every category and the built-ins nops, op,
// subsop, extnops, extop, extsubsop, type, domtype, testtype, contains and has.
#include "MEV_ops.h"
#include "MEV_builtins.h"

#include <pari/pari.h>

#include <string>
#include <vector>

#include "MAR_numbers.h"
#include "MCM_equal.h"
#include "MER_error.h"
#include "MEV_containers.h"
#include "MEV_eval.h"
#include "MEV_proc.h"
#include "MFN_env.h"
#include "MFN_layout.h"
#include "MFN_table.h"
#include "MMM_containers.h"
#include "MMM_heap.h"
#include "MMM_ident.h"
#include "MMM_ref.h"
#include "MMM_table.h"
#include "MMM_values.h"

MEV_domain_hooks_record MEV_domain_hooks;

namespace {

Cell unsimplified = nullptr;  // the identifier Unsimplified (a root)

// ---- values made here ----

// None gives NULL, one the operand itself, more a _exprseq. The cells are taken over.
Cell sequence_of(std::vector<MMM_ref>& items) {
    if (items.empty()) return MMM_retained(MMM_NULL);
    if (items.size() == 1) return items[0].take();
    Cell s = MMM_make_expr(long(items.size()) + 1);
    MMM_children(s)[0] = MMM_retained(MMM_ident_by_id(MFN_ID_EXPRSEQ));
    for (size_t i = 0; i < items.size(); ++i) MMM_children(s)[i + 1] = items[i].take();
    MMM_sign(s);
    return s;
}

Cell call_of(int id, std::initializer_list<Cell> operands) {
    Cell e = MMM_make_expr(long(operands.size()) + 1);
    MMM_children(e)[0] = MMM_retained(MMM_ident_by_id(id));
    long i = 1;
    for (Cell c : operands) MMM_children(e)[i++] = MMM_retained(c);
    MMM_sign(e);
    return e;
}

// A child as an operand value: internal cells never leave.
Cell as_operand(Cell c) {
    if (!c) return MMM_retained(MMM_NULL);
    if (MMM_kind_of(c) == MMM_NODE) return MMM_retained(c);
    if (MMM_kind_of(c) == MMM_CODE) return MAR_from_long(MMM_code_of(c).code);
    return MMM_retained(MMM_NIL);
}

// An evaluated equation. The evaluation of its operands flattens a sequence on either
// side and drops a NULL, so `i = null()` arrives as an equation of one operand.
bool is_equation(Cell x) {
    return MMM_is_call_of(x, MFN_ID_EQUAL) && MEV_nargs(x) >= 1;
}

Cell operands_as_value(Cell e, long from, long to) {
    std::vector<MMM_ref> items;
    for (long i = from; i <= to; ++i) items.emplace_back(MMM_retained(MEV_arg(e, i)));
    return sequence_of(items);
}

// ---- position in a hash table ----

// The entry at a 1-based position in walk order. A bucketed table is read through a
// cursor that remembers the last position asked for, so that op(s, i) for i = 1, 2, ...
// walks the table once. The cursor holds a count on its table: the table cannot change
// under it (a write to a shared table goes to a copy).
MMM_table_walker& cursor = *new MMM_table_walker(nullptr);  // lives as long as the process
long cursor_position = 0;                   // entries the cursor has passed
Cell cursor_key = nullptr, cursor_value = nullptr;  // the last of them, borrowed from its table

bool table_entry(Cell t, long i, Cell* key, Cell* value) {
    if (i < 1 || i > MMM_table_count(t)) return false;
    if (MMM_table_mode(t) == MMM_TABLE_FLAT) {
        *key = MMM_child(t, 2 * (i - 1));
        *value = MMM_child(t, 2 * i - 1);
        return true;
    }
    if (cursor.table == t && cursor_position == i) {
        *key = cursor_key;
        *value = cursor_value;
        return true;
    }
    if (cursor.table != t || cursor_position > i) {
        MMM_retain(t);
        MMM_release(cursor.table);
        cursor.table = t;
        cursor.bucket = cursor.slot = 0;
        cursor_position = 0;
    }
    while (cursor_position < i) {
        if (!cursor.next(&cursor_key, &cursor_value)) return false;
        ++cursor_position;
    }
    *key = cursor_key;
    *value = cursor_value;
    return true;
}

// ---- operand rules by category ----

MEV_operand_rules rules[MMM_CATEGORY_COUNT];

[[noreturn]] void no_operand() { MER_raise(MER_NO_SUCH_OPERAND, "subsop"); }
[[noreturn]] void not_allowed() { MER_raise(MER_SUBSTITUTION_REFUSED, "subsop"); }

// A copy of x, exclusively held, for writing.
Cell writable(Cell x) {
    Cell y = MMM_retained(x);
    MMM_clone(&y);
    if (y->refcount != 1) MER_raise(MER_OUT_OF_MEMORY, nullptr);
    return y;
}

// Numbers of one part, strings, booleans, NIL, FAIL, identifiers: the value is its only
// operand.
long atom_nops(Cell) { return 1; }
Cell atom_op(Cell x, long i) { return i == 1 ? MMM_retained(x) : nullptr; }
Cell atom_replace(Cell, long i, Cell v) {
    if (i != 1) no_operand();
    return MMM_retained(v);
}

long null_nops(Cell) { return 0; }
Cell null_op(Cell, long) { return nullptr; }
Cell null_replace(Cell, long, Cell) { no_operand(); }

Cell frame_replace(Cell, long, Cell) { not_allowed(); }

// Rationals and complex numbers: numerator and denominator, real and imaginary part.
long two_nops(Cell) { return 2; }
Cell number_op(Cell x, long i) {
    if (i != 1 && i != 2) return nullptr;
    GEN g = MAR_get_raw(x);
    return MAR_from_pari(gel(g, i), true);
}
Cell number_replace(Cell x, long i, Cell v) {
    if (i != 1 && i != 2) no_operand();
    MMM_ref first(i == 1 ? MMM_retained(v) : number_op(x, 1));
    MMM_ref second(i == 2 ? MMM_retained(v) : number_op(x, 2));
    const bool rational = MMM_category(x) == DOM_RAT;
    if (MAR_is_number(first.get()) && MAR_is_number(second.get())) {
        if (rational) return MAR_divide(first.get(), second.get());
        MMM_ref imaginary(MAR_binop(second.get(), MAR_I, nullptr, MAR_MULTIPLY));
        return MAR_binop(first.get(), imaginary.get(), nullptr, MAR_ADD);
    }
    if (rational) {
        MMM_ref inverse(call_of(MFN_ID_POWER, {second.get(), MAR_MINUS_ONE}));
        return call_of(MFN_ID_MULT, {first.get(), inverse.get()});
    }
    MMM_ref imaginary(call_of(MFN_ID_MULT, {second.get(), MAR_I}));
    return call_of(MFN_ID_PLUS, {first.get(), imaginary.get()});
}

// Procedure variables: depth and index.
Cell var_op(Cell x, long i) {
    if (i == 1) return MAR_from_long(MMM_var_depth(x));
    if (i == 2) return MAR_from_long(MMM_var_index(x));
    return nullptr;
}
Cell var_replace(Cell x, long i, Cell v) {
    if (i != 1 && i != 2) no_operand();
    if (MMM_category(v) != DOM_INT) MER_raise(MER_ILLEGAL_OPERAND, "subsop");
    const int depth = i == 1 ? MAR_small_int(v) : MMM_var_depth(x);
    const int index = i == 2 ? MAR_small_int(v) : MMM_var_index(x);
    return MMM_retained(MMM_var(depth, index));
}

// Lists, function environments, kernel routines and procedures: operand i is child i - 1.
long children_nops(Cell x) { return MMM_child_count(x); }
Cell children_op(Cell x, long i) {
    return i >= 1 && i <= MMM_child_count(x) ? as_operand(MMM_child(x, i - 1)) : nullptr;
}
// A list loses an element to NULL; the fields of the other shapes take NIL for it, and a
// routine's code field is not replaced.
Cell children_replace(Cell x, long i, Cell v) {
    const long n = MMM_child_count(x);
    if (i < 1 || i > n) no_operand();
    Cell old = MMM_child(x, i - 1);
    if (old && MMM_kind_of(old) != MMM_NODE) not_allowed();
    Cell y = writable(x);
    if (v == MMM_NULL && MMM_category(x) == DOM_LIST) {
        MMM_release(MMM_children(y)[i - 1]);
        MMM_move_children(y, i, y, i - 1, n - i);
        MMM_children(y)[n - 1] = nullptr;
        MMM_resize_children(&y, n - 1);
    } else {
        Cell& slot = MMM_children(y)[i - 1];
        MMM_release(slot);
        slot = MMM_retained(v == MMM_NULL ? MMM_NIL : v);
    }
    MMM_sign(y);
    return y;
}

// Activations: the stored fields after the first four.
long proc_env_nops(Cell x) {
    Cell record = MMM_child(x, MEV_PROC_ENV_ACTIVATION);
    return record && MMM_child_count(record) > 4 ? MMM_child_count(record) - 4 : 0;
}
Cell proc_env_op(Cell x, long i) {
    return i >= 1 && i <= proc_env_nops(x) ? as_operand(MMM_child(MMM_child(x, MEV_PROC_ENV_ACTIVATION), i + 3)) : nullptr;
}

// Arrays: the entries in storage order, NULL for an unset one.
long array_nops(Cell x) { return MMM_array_size(x); }
Cell array_op(Cell x, long i) {
    if (i < 1 || i > MMM_array_size(x)) return nullptr;
    return as_operand(MMM_array_entry(x, i - 1));
}
Cell array_replace(Cell x, long i, Cell v) {
    if (i < 1 || i > MMM_array_size(x)) no_operand();
    MMM_ref y(MMM_retained(x));
    MMM_array_set(y.slot(), i - 1, v == MMM_NULL ? nullptr : v);
    return y.take();
}

// Sets: the elements in walk order; a replacement goes in by the rule of sets.
long set_nops(Cell x) { return MMM_table_count(MMM_child(x, MMM_TABLE_HASH)); }
Cell set_op(Cell x, long i) {
    Cell key, value;
    return table_entry(MMM_child(x, 0), i, &key, &value) ? MMM_retained(key) : nullptr;
}
Cell set_replace(Cell x, long i, Cell v) {
    Cell key, value;
    if (!table_entry(MMM_child(x, 0), i, &key, &value)) no_operand();
    MMM_ref y(writable(x));
    Cell& t = MMM_children(y.get())[0];
    MMM_table_remove(&t, key);
    MMM_set_insert(&t, v);
    MMM_sign(y.get());
    return y.take();
}

// Tables: the entries in walk order as equations key = value.
long hash_entry_count(Cell t) { return MMM_table_count(t); }
Cell hash_entry_op(Cell t, long i) {
    Cell key, value;
    if (!table_entry(t, i, &key, &value)) return nullptr;
    return call_of(MFN_ID_EQUAL, {key, value ? value : MMM_NULL});
}
long table_nops(Cell x) { return hash_entry_count(MMM_child(x, 0)); }
Cell table_op(Cell x, long i) { return hash_entry_op(MMM_child(x, 0), i); }
// The entry is replaced by an equation, or removed by NULL.
Cell table_replace(Cell x, long i, Cell v) {
    Cell key, value;
    if (!table_entry(MMM_child(x, 0), i, &key, &value)) no_operand();
    if (v != MMM_NULL && !is_equation(v)) MER_raise(MER_ILLEGAL_ARGUMENT, "subsop");
    MMM_ref y(writable(x));
    Cell& t = MMM_children(y.get())[0];
    MMM_table_remove(&t, key);
    // The key is what stands before the last operand; an equation that lost its value to
    // NULL makes no entry.
    if (v != MMM_NULL && MEV_nargs(v) >= 2) {
        MMM_ref new_key(operands_as_value(v, 1, MEV_nargs(v) - 1));
        MMM_table_set(&t, new_key.get(), MEV_arg(v, MEV_nargs(v)));
    }
    MMM_sign(y.get());
    return y.take();
}

// Domains: the entries of the slot table, a DOM_TABLE in the body's first child.
Cell domain_slot_table(Cell x) {
    Cell body = MMM_child_count(x) >= 1 ? MMM_child(x, 0) : nullptr;
    if (!body || MMM_kind_of(body) != MMM_DOMAIN_BODY || MMM_child_count(body) < 1) return nullptr;
    Cell slots = MMM_child(body, 0);
    return slots && MMM_is_node(slots, DOM_TABLE) ? MMM_child(slots, MMM_TABLE_HASH) : nullptr;
}
long domain_nops(Cell x) { return hash_entry_count(domain_slot_table(x)); }
Cell domain_op(Cell x, long i) {
    Cell t = domain_slot_table(x);
    return t ? hash_entry_op(t, i) : nullptr;
}

// Expressions and domain elements: child i, with the operator (the domain) at 0. NULL
// removes an operand.
long expr_nops(Cell x) { return MMM_child_count(x) - 1; }
Cell expr_op(Cell x, long i) { return i >= 0 && i < MMM_child_count(x) ? as_operand(MMM_child(x, i)) : nullptr; }
Cell expr_replace(Cell x, long i, Cell v) {
    const long n = MMM_child_count(x);
    if (i < 0 || i >= n) no_operand();
    Cell y = writable(x);
    if (v == MMM_NULL && i > 0) {
        MMM_release(MMM_children(y)[i]);
        MMM_move_children(y, i + 1, y, i, n - i - 1);
        MMM_children(y)[n - 1] = nullptr;
        MMM_resize_children(&y, n - 1);
    } else {
        Cell& slot = MMM_children(y)[i];
        MMM_release(slot);
        slot = MMM_retained(v);
    }
    MMM_sign(y);
    return y;
}

// A domain element answers nops through its domain's slot when it has one.
long ext_nops(Cell x) {
    if (MEV_domain_hooks.slot && MEV_domain_hooks.call && MMM_child_count(x) >= 1) {
        MMM_ref slot(MEV_domain_hooks.slot(MMM_child(x, 0), "nops"));
        if (slot.get() && slot.get() != MMM_FAIL) {
            MMM_ref n(MEV_domain_hooks.call(slot.get(), x, nullptr));
            if (!n.get() || MMM_category(n.get()) != DOM_INT) MER_raise(MER_ILLEGAL_OPERAND, "nops");
            return MAR_small_int(n.get());
        }
    }
    return expr_nops(x);
}

// Every other category: the children after the first; a value of a category below 21
// with no such child is its own only operand.
long rest_nops(Cell x) {
    const long n = MMM_child_count(x) - 1;
    return n <= 0 && MMM_category(x) < DOM_SET ? 1 : (n > 0 ? n : 0);
}
Cell rest_op(Cell x, long i) {
    if (MMM_child_count(x) <= 1 && MMM_category(x) < DOM_SET) return atom_op(x, i);
    return expr_op(x, i);
}
Cell rest_replace(Cell, long, Cell) { no_operand(); }

const MEV_operand_rules& rules_of(Cell x) {
    static const MEV_operand_rules rest{rest_nops, rest_op, rest_replace};
    const int cat = MMM_category(x);
    if (cat < 0 || cat >= MMM_CATEGORY_COUNT || !rules[cat].nops) return rest;
    return rules[cat];
}

// The rules are plain routines: filled once when the program starts, so that a module
// may install its own at any time.
struct RuleTable {
    RuleTable();
};

RuleTable::RuleTable() {
    const MEV_operand_rules atom{atom_nops, atom_op, atom_replace};
    for (int c : {CAT_BIG_INT, DOM_INT, DOM_FLOAT, DOM_STRING, DOM_BOOL, DOM_NIL, DOM_IDENT, DOM_FAIL}) rules[c] = atom;
    rules[DOM_FRAME] = {atom_nops, atom_op, frame_replace};
    rules[DOM_NULL] = {null_nops, null_op, null_replace};
    rules[DOM_RAT] = rules[DOM_COMPLEX] = {two_nops, number_op, number_replace};
    rules[DOM_VAR] = {two_nops, var_op, var_replace};
    for (int c : {DOM_LIST, DOM_FUNC_ENV, DOM_EXEC, DOM_PROC}) rules[c] = {children_nops, children_op, children_replace};
    rules[DOM_PROC_ENV] = {proc_env_nops, proc_env_op, frame_replace};
    rules[DOM_ARRAY] = {array_nops, array_op, array_replace};
    rules[DOM_SET] = {set_nops, set_op, set_replace};
    rules[DOM_TABLE] = {table_nops, table_op, table_replace};
    rules[DOM_DOMAIN] = {domain_nops, domain_op, rest_replace};
    rules[DOM_EXPR] = {expr_nops, expr_op, expr_replace};
    rules[DOM_EXT] = {ext_nops, expr_op, expr_replace};
}
RuleTable rule_table;

// ---- op and its relatives ----

// With `ext` (extop, extnops, extsubsop), a domain element shows its children as an
// expression does, whatever its domain says.
const MEV_operand_rules& rules_for(Cell x, bool ext) {
    static const MEV_operand_rules children{expr_nops, expr_op, expr_replace};
    return ext && MMM_is_node(x, DOM_EXT) ? children : rules_of(x);
}

long count_of(Cell x, bool ext) { return rules_for(x, ext).nops(x); }
Cell operand_of(Cell x, long i, bool ext) { return rules_for(x, ext).op(x, i); }
Cell replaced(Cell x, long i, Cell v, bool ext) { return rules_for(x, ext).replace(x, i, v); }

// All operands, from 1 on, as a sequence.
Cell all_operands(Cell x, bool ext) {
    const long n = count_of(x, ext);
    std::vector<MMM_ref> items;
    for (long i = 1; i <= n; ++i) {
        Cell c = operand_of(x, i, ext);
        items.emplace_back(c ? c : MMM_retained(MMM_FAIL));
    }
    return sequence_of(items);
}

// An integer bound of a range: big integers are 1029, anything else 1005.
long range_bound(Cell b, const char* who) {
    if (MMM_category(b) == CAT_BIG_INT) MER_raise(MER_INTEGER_TOO_LARGE, who);
    if (MMM_category(b) != DOM_INT) MER_raise(MER_ILLEGAL_ARGUMENT, who);
    return MAR_small_int(b);
}

Cell operand_at(Cell x, Cell index, const char* who, bool ext);

Cell single_operand(Cell x, long i, bool ext) {
    if (i < 0) return MMM_retained(MMM_FAIL);
    Cell c = operand_of(x, i, ext);
    return c ? c : MMM_retained(MMM_FAIL);
}

// op(x, i), op(x, a..b), op(x, [p1, p2, ...]).
Cell operand_at(Cell x, Cell index, const char* who, bool ext) {
    const int cat = MMM_category(index);
    if (cat == DOM_INT) return single_operand(x, MAR_small_int(index), ext);
    if (cat == CAT_BIG_INT) return MMM_retained(MMM_FAIL);  // negative, or beyond every operand
    if (MMM_is_call_of(index, MFN_ID_RANGE) && MEV_nargs(index) == 2) {
        const long a = range_bound(MEV_arg(index, 1), who), b = range_bound(MEV_arg(index, 2), who);
        if (a < 0 || b < 0) return MMM_retained(MMM_FAIL);
        if (b < a) return MMM_retained(MMM_NULL);
        if (a == b) return single_operand(x, a, ext);
        std::vector<MMM_ref> items;
        for (long i = a; i <= b; ++i) {
            Cell c = operand_of(x, i, ext);
            if (!c) return MMM_retained(MMM_FAIL);
            items.emplace_back(c);
        }
        return sequence_of(items);
    }
    if (cat == DOM_LIST) {
        MMM_ref v(MMM_retained(x));
        for (long k = 0; k < MMM_child_count(index); ++k) {
            Cell step = MMM_child(index, k);
            if (MMM_category(step) != DOM_INT && MMM_category(step) != CAT_BIG_INT && !MMM_is_call_of(step, MFN_ID_RANGE))
                MER_raise(MER_ILLEGAL_ARGUMENT, who);
            v.reset(operand_at(v.get(), step, who, ext));
        }
        return v.take();
    }
    MER_raise(MER_ILLEGAL_ARGUMENT, who);
}

Cell builtin_op(Cell e, const char* who, bool ext) {
    if (MEV_nargs(e) == 0) return MMM_retained(MMM_NULL);
    if (MEV_nargs(e) > 2) MER_raise(MER_WRONG_ARG_COUNT, who);
    Cell x = MEV_arg(e, 1);
    if (MEV_nargs(e) == 1) return all_operands(x, ext);
    return operand_at(x, MEV_arg(e, 2), who, ext);
}

Cell builtin_nops_common(Cell e, const char* who, bool ext) {
    if (MEV_nargs(e) == 0) return MAR_from_long(0);
    if (MEV_nargs(e) > 1) MER_raise(MER_WRONG_ARG_COUNT, who);
    return MAR_from_long(count_of(MEV_arg(e, 1), ext));
}

Cell builtin_nops(Cell e, int, unsigned, Cell) { return builtin_nops_common(e, "nops", false); }
Cell builtin_extnops(Cell e, int, unsigned, Cell) { return builtin_nops_common(e, "extnops", true); }
Cell builtin_op_plain(Cell e, int, unsigned, Cell) { return builtin_op(e, "op", false); }
Cell builtin_extop(Cell e, int, unsigned, Cell) { return builtin_op(e, "extop", true); }

// ---- subsop ----

// Replaces the operand at path[k..] of x by v; each level on the way is rebuilt.
Cell replace_path(Cell x, const std::vector<long>& path, size_t k, Cell v, bool ext) {
    const long i = path[k];
    if (i < 0) no_operand();
    if (k + 1 == path.size()) return replaced(x, i, v, ext);
    MMM_ref inner(operand_of(x, i, ext));
    if (!inner.get()) no_operand();
    MMM_ref changed(replace_path(inner.get(), path, k + 1, v, ext));
    return replaced(x, i, changed.get(), ext);
}

// The positions of the left side of a substitution: an integer or a list of them.
std::vector<long> substitution_path(Cell lhs) {
    std::vector<long> path;
    if (MMM_category(lhs) == DOM_INT) {
        path.push_back(MAR_small_int(lhs));
    } else if (MMM_category(lhs) == DOM_LIST && MMM_child_count(lhs) > 0) {
        for (long k = 0; k < MMM_child_count(lhs); ++k) {
            if (MMM_category(MMM_child(lhs, k)) != DOM_INT) no_operand();
            path.push_back(MAR_small_int(MMM_child(lhs, k)));
        }
    } else {
        no_operand();
    }
    return path;
}

// The substitutions of subsop and extsubsop, applied left to right to x.
Cell substitute(Cell e, long last, const char* who, bool ext) {
    MMM_ref x(MMM_retained(MEV_arg(e, 1)));
    for (long k = 2; k <= last; ++k) {
        Cell s = MEV_arg(e, k);
        if (!is_equation(s)) MER_raise(MER_ILLEGAL_ARGUMENT, who);
        const std::vector<long> path = substitution_path(MEV_arg(s, 1));
        MMM_ref v(operands_as_value(s, 2, MEV_nargs(s)));
        x.reset(replace_path(x.get(), path, 0, v.get(), ext));
    }
    return x.take();
}

Cell builtin_subsop(Cell e, int, unsigned, Cell) {
    if (MEV_nargs(e) < 1) MER_raise(MER_WRONG_ARG_COUNT, "subsop");
    long last = MEV_nargs(e);
    const bool simplify = !(last > 1 && MEV_arg(e, last) == unsimplified);
    if (!simplify) --last;
    MMM_ref r(substitute(e, last, "subsop", false));
    if (!simplify || last == 1) return r.take();
    return MEV_eval(r.get(), MEV_CONTEXT_ARGUMENT, 0);
}

// extsubsop works on the children of a domain element only, and seals the result without
// evaluating it.
Cell builtin_extsubsop(Cell e, int, unsigned, Cell) {
    if (MEV_nargs(e) < 1) MER_raise(MER_WRONG_ARG_COUNT, "extsubsop");
    if (!MMM_is_node(MEV_arg(e, 1), DOM_EXT)) MER_raise(MER_ILLEGAL_ARGUMENT, "extsubsop");
    return substitute(e, MEV_nargs(e), "extsubsop", true);
}

// ---- types ----

// The argument of type and testtype: evaluated with one level less than an argument.
Cell eval_one_level_less(Cell x) {
    ++MEV_depth;
    Cell v;
    try {
        v = MEV_eval(x, MEV_CONTEXT_ARGUMENT, 0);
    } catch (...) {
        --MEV_depth;
        throw;
    }
    --MEV_depth;
    return v;
}

// The slot `type` of the function environment an expression's head evaluates to, or
// null (borrowed from the environment's attribute table, kept alive by `head`).
Cell function_type(Cell x, MMM_ref& head) {
    if (!MMM_is_node(x, DOM_EXPR)) return nullptr;
    head.reset(MEV_eval(MMM_child(x, 0), MEV_CONTEXT_FREE, 0));
    if (!head.get() || !MMM_is_node(head.get(), DOM_FUNC_ENV) || MMM_child_count(head.get()) < MFN_ENV_COUNT) return nullptr;
    Cell attributes = MMM_child(head.get(), MFN_ENV_ATTRIBUTES);
    if (!MMM_is_node(attributes, DOM_TABLE)) return nullptr;
    MMM_ref key(MMM_string_value("type"));
    Cell found = nullptr;
    MMM_table_find(MMM_child(attributes, MMM_TABLE_HASH), key.get(), &found);
    return found;
}

Cell builtin_type(Cell e, int context, unsigned flags, Cell) {
    Cell held;
    if (MEV_held(e, context, flags, &held)) return held;
    if (MEV_nargs(e) != 1) MER_raise(MER_WRONG_ARG_COUNT, "type");
    MMM_ref x(eval_one_level_less(MEV_arg(e, 1)));
    if (MMM_is_node(x.get(), DOM_EXPR)) {
        MMM_ref head;
        if (Cell t = function_type(x.get(), head)) return MMM_retained(t);
        return MMM_string_value("function");
    }
    return MEV_domain_of(x.get());
}

Cell builtin_domtype(Cell e, int, unsigned, Cell) {
    if (MEV_nargs(e) != 1) MER_raise(MER_WRONG_ARG_COUNT, "domtype");
    return MEV_domain_of(MEV_arg(e, 1));
}

// The answer of a testtype slot: TRUE or FALSE decide, FAIL is none (null).
Cell slot_answer(Cell slot, Cell x, Cell t) {
    MMM_ref r(MEV_domain_hooks.call(slot, x, t));
    if (r.get() == MMM_FAIL) return nullptr;
    if (r.get() != MMM_TRUE && r.get() != MMM_FALSE) MER_raise(MER_ILLEGAL_RETURN_TYPE, "testtype");
    return r.take();
}

Cell builtin_testtype(Cell e, int context, unsigned flags, Cell) {
    Cell held;
    if (MEV_held(e, context, flags, &held)) return held;
    if (MEV_nargs(e) != 2) MER_raise(MER_WRONG_ARG_COUNT, "testtype");
    MMM_ref x(eval_one_level_less(MEV_arg(e, 1)));
    MMM_ref t(MEV_eval(MEV_arg(e, 2), MEV_CONTEXT_ARGUMENT, 0));
    MMM_ref domain(MEV_domain_of(x.get()));
    if (MCM_equal(t.get(), domain.get())) return MMM_retained(MMM_TRUE);
    if (MMM_is_node(t.get(), DOM_STRING)) {
        MMM_ref head;
        Cell type = function_type(x.get(), head);
        if (type && MCM_equal(type, t.get())) return MMM_retained(MMM_TRUE);
    }
    if (!MEV_domain_hooks.slot || !MEV_domain_hooks.call) return MMM_retained(MMM_FALSE);
    MMM_ref own_slot(MEV_domain_hooks.slot(domain.get(), "testtype"));
    if (own_slot.get() && own_slot.get() != MMM_FAIL)
        if (Cell r = slot_answer(own_slot.get(), x.get(), t.get())) return r;
    MMM_ref type_domain(MMM_is_node(t.get(), DOM_DOMAIN) ? MMM_retained(t.get()) : MEV_domain_of(t.get()));
    MMM_ref type_slot(MEV_domain_hooks.slot(type_domain.get(), "testtype"));
    if (type_slot.get() && type_slot.get() != MMM_FAIL)
        if (Cell r = slot_answer(type_slot.get(), x.get(), t.get())) return r;
    return MMM_retained(MMM_FALSE);
}

// ---- contains ----

Cell truth(bool b) { return MMM_retained(b ? MMM_TRUE : MMM_FALSE); }

Cell builtin_contains(Cell e, int, unsigned, Cell) {
    const long n = MEV_nargs(e);
    if (n < 2) MER_raise(MER_WRONG_ARG_COUNT, "contains");
    Cell x = MEV_arg(e, 1), v = MEV_arg(e, 2);
    const int cat = MMM_category(x);
    if (cat == DOM_LIST) {
        if (n > 3) MER_raise(MER_WRONG_ARG_COUNT, "contains");
        long start = 1;
        if (n == 3) {
            Cell s = MEV_arg(e, 3);
            if (MMM_category(s) == CAT_BIG_INT) return MAR_from_long(0);
            if (MMM_category(s) != DOM_INT) MER_raise(MER_ILLEGAL_ARGUMENT, "contains");
            start = MAR_small_int(s);
            if (start < 1 || start > MMM_child_count(x)) return MAR_from_long(0);
        }
        for (long i = start; i <= MMM_child_count(x); ++i)
            if (MCM_equal(MMM_child(x, i - 1), v)) return MAR_from_long(i);
        return MAR_from_long(0);
    }
    if (cat != DOM_SET && cat != DOM_TABLE && cat != DOM_ARRAY) MER_raise(MER_ILLEGAL_ARGUMENT, "contains");
    if (n != 2) MER_raise(MER_WRONG_ARG_COUNT, "contains");
    if (cat != DOM_ARRAY) return truth(MMM_table_find(MMM_child(x, MMM_TABLE_HASH), v, nullptr));
    for (long i = 0; i < MMM_array_size(x); ++i)
        if (Cell entry = MMM_array_entry(x, i); entry && MCM_equal(entry, v)) return truth(true);
    return truth(false);
}


}  // namespace

void MEV_set_operand_rules(int category, const MEV_operand_rules& r) {
    if (category < 0 || category >= MMM_CATEGORY_COUNT) return;
    MEV_operand_rules& to = rules[category];
    const MEV_operand_rules fallback{rest_nops, rest_op, rest_replace};
    to.nops = r.nops ? r.nops : (to.nops ? to.nops : fallback.nops);
    to.op = r.op ? r.op : (to.op ? to.op : fallback.op);
    to.replace = r.replace ? r.replace : (to.replace ? to.replace : fallback.replace);
}

long MEV_nops(Cell x) { return rules_of(x).nops(x); }

Cell MEV_op(Cell x, long i) { return rules_of(x).op(x, i); }

Cell MEV_replace_operand(Cell x, long i, Cell v) { return rules_of(x).replace(x, i, v); }

Cell MEV_domain_of(Cell x) {
    if (MMM_is_node(x, DOM_EXT) && MMM_child_count(x) >= 1) return MMM_retained(MMM_child(x, 0));
    const char* name = MMM_category_name(MMM_category(x));
    if (!name) return MMM_retained(MMM_FAIL);
    Cell ident = MMM_ident_named(name);
    if (Cell v = MMM_value(ident)) {
        MMM_release(ident);
        return v;
    }
    return ident;
}

void MEV_ops_start() {
    // A cursor and a name from a former heap are gone with it.
    cursor.table = nullptr;
    cursor_position = 0;
    MMM_add_root(&cursor.table);
    MMM_add_root(&unsimplified);
    unsimplified = MMM_ident_named("Unsimplified");

}

namespace {

// Categories whose operands has() looks into. Domains, frames and namespaces are left
// out: they may hold themselves.
bool has_parts(int category) {
    switch (category) {
        case DOM_RAT:
        case DOM_COMPLEX:
        case DOM_INTERVAL:
        case DOM_SET:
        case DOM_LIST:
        case DOM_ARRAY:
        case DOM_TABLE:
        case DOM_EXPR:
        case DOM_FUNC_ENV:
        case DOM_PROC_ENV:
        case DOM_EXEC:
        case DOM_PROC:
        case DOM_POLY:
        case DOM_EXT:
        case DOM_RPOLY:
            return true;
        default:
            return false;
    }
}

// has(e, x): TRUE when x is e or one of its operands at any depth, operators of
// expressions included, as the operand built-ins see them.
Cell builtin_has(Cell e, int, unsigned, Cell) {
    Cell x = MEV_arg(e, 2);
    std::vector<MMM_ref> work;
    work.emplace_back(MMM_retained(MEV_arg(e, 1)));
    while (!work.empty()) {
        MMM_ref c = std::move(work.back());
        work.pop_back();
        if (MCM_equal(c.get(), x)) return MMM_retained(MMM_TRUE);
        const int category = MMM_category(c.get());
        if (!has_parts(category)) continue;
        const long n = MEV_nops(c.get());
        for (long i = n; i >= (category == DOM_EXPR ? 0 : 1); --i) {
            Cell o = MEV_op(c.get(), i);
            if (o) work.emplace_back(o);
        }
    }
    return MMM_retained(MMM_FALSE);
}

const MFN_builtin builtins[] = {
    {.name = "nops", .routine = builtin_nops},
    {.name = "op", .routine = builtin_op_plain},
    {.name = "subsop", .routine = builtin_subsop},
    {.name = "extnops", .routine = builtin_extnops},
    {.name = "extop", .routine = builtin_extop},
    {.name = "extsubsop", .routine = builtin_extsubsop},
    {.name = "type", .routine = builtin_type, .raw = true},
    {.name = "domtype", .routine = builtin_domtype},
    {.name = "testtype", .routine = builtin_testtype, .raw = true},
    {.name = "contains", .routine = builtin_contains},
    {.name = "has", .routine = builtin_has, .args = {2, 2}},
};
}  // namespace

const MFN_builtin_table MEV_operand_builtins = builtins;

// Structure operands: nops, op, subsop, extnops, extop, extsubsop, type, domtype,
// testtype, contains and has (does a value occur in another), and the per-category
// rules they share.
//
// Positions count from 1; position 0 is the operator of an expression (and the domain of
// a domain element). A child that is no value of the language is never handed out: a
// routine cell shows as its code number, an empty child (an unset array entry, a local
// without value) as NULL, any other internal cell as NIL.
#pragma once

#include "MMM_cell.h"

// The operand rules of one category. `nops` counts; `op` gives operand i (0 to the count)
// as a new reference, or null when the category has no such position; `replace` gives x
// with operand i replaced by v (NULL: removed where the category can lose an operand),
// a new reference, or raises 1015 (no such operand) or 1018 (not allowed).
struct MEV_operand_rules {
    long (*nops)(Cell x) = nullptr;
    Cell (*op)(Cell x, long i) = nullptr;
    Cell (*replace)(Cell x, long i, Cell v) = nullptr;
};
// A module that brings a category of its own (intervals, polynomials, domains) installs
// its rules here; a null field keeps the current one.
void MEV_set_operand_rules(int category, const MEV_operand_rules& rules);

// The operand count of x by its category.
long MEV_nops(Cell x);
// Operand i of x (new reference), or null when x has no operand i.
Cell MEV_op(Cell x, long i);
// x with operand i replaced by v (new reference); errors as MEV_operand_rules::replace.
Cell MEV_replace_operand(Cell x, long i, Cell v);

// The domain of a value's type: the first child of a domain element; for every other
// value the value of the identifier named like its category (DOM_INT, ...) once the
// domains are bound to those names, and until then that identifier itself. New reference.
Cell MEV_domain_of(Cell x);

// Domains come with their own module. Until it installs these, a domain has no slots.
struct MEV_domain_hooks_record {
    // The slot `name` of a domain, new reference; null or FAIL when it has none.
    Cell (*slot)(Cell domain, const char* name) = nullptr;
    // Calls `fn` with the two evaluated arguments a and b (b may be null for a call with
    // one argument); the result, evaluated, as a new reference.
    Cell (*call)(Cell fn, Cell a, Cell b) = nullptr;
};
extern MEV_domain_hooks_record MEV_domain_hooks;

// Gives the operand built-ins, table(...) and the frame built-ins their bodies. Runs in
// the start of the modules, before the evaluator's start.
void MEV_ops_start();

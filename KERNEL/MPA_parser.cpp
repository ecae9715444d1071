// The parser: recursive descent with one token of lookahead, priority climbing for the
// operator expressions, actions run as the rules are left.
#include <cstring>
#include <string>
#include <vector>

#include "MAR_numbers.h"
#include "MCM_equal.h"
#include "MER_error.h"
#include "MFN_table.h"
#include "MMM_ident.h"
#include "MMM_table.h"
#include "MMM_values.h"
#include "MPA_reader.h"
#include "MSY_process.h"

MPA_hooks_record MPA_hooks;
bool MPA_warn_changes = false;

namespace {

// Names the parser compares by address, held for the whole session.
enum ParserName { NAME_XOR, NAME_COUNT };
const char* const parser_name_texts[] = {
    "_xor", "arrow", "escape", "_seqin", "_fnest", "_in", "-->", "_assuming", "_subset", "_implies",
    "_equiv", "D", "_constructor", "procname", "dom", "Prefix", "Postfix", "Binary", "Nary",
    "_check_global", "evalAt",
};
Cell parser_names[std::size(parser_name_texts)] = {};
Cell dots_string = nullptr;  // the string ".."

// Deeper nesting than this ends the read with an error instead of exhausting the stack.
constexpr int MAX_NESTING = 3000;

struct Result {
    Cell tree = nullptr;
    int level = 0;
    bool assignable = false;
};

// ---- building trees ----

Cell ident_of(int id) {
    Cell i = MMM_ident_by_id(id);
    MMM_retain(i);
    return i;
}

// op(operands...), taking over the operator and the operands.
Cell make_call(Cell op, const std::vector<Cell>& operands) {
    Cell e = MMM_make_expr(long(operands.size()) + 1);
    MMM_children(e)[0] = op;
    for (size_t i = 0; i < operands.size(); ++i) MMM_children(e)[i + 1] = operands[i];
    MMM_sign(e);
    return e;
}
Cell call(int id, const std::vector<Cell>& operands) { return make_call(ident_of(id), operands); }
Cell call_named(const char* name, const std::vector<Cell>& operands) {
    return make_call(MMM_ident_named(name), operands);
}

Cell nil() { return MMM_retained(MMM_NIL); }

bool is_number(Cell t) {
    if (!t || MMM_kind_of(t) != MMM_NODE) return false;
    const int c = MMM_category(t);
    return c == CAT_BIG_INT || c == DOM_INT || c == DOM_RAT || c == DOM_FLOAT || c == DOM_COMPLEX;
}

// One item stays itself, more make a sequence, none is NIL.
Cell list_or_single(std::vector<Cell> items) {
    if (items.empty()) return nil();
    if (items.size() == 1) return items[0];
    return call(MFN_ID_EXPRSEQ, items);
}

// The items of a parameter or local list: an identifier, a sequence of them, or NIL.
std::vector<Cell> items_of(Cell list) {
    std::vector<Cell> out;
    if (!list || list == MMM_NIL) return out;
    if (MMM_is_call_of(list, MFN_ID_EXPRSEQ)) {
        for (long i = 1; i < MMM_child_count(list); ++i) out.push_back(MMM_child(list, i));
    } else {
        out.push_back(list);
    }
    return out;
}

// ---- the parser proper ----

class Parser {
public:
    explicit Parser(MPA_reader& r) : r_(r) {}

    void input();

private:
    MPA_reader& r_;

    int kind() const { return r_.tok.kind; }
    void advance() { r_.next_token(); }
    bool at(int k) const { return r_.tok.kind == k; }
    bool accept(int k) {
        if (!at(k)) return false;
        advance();
        return true;
    }
    Cell take_value() {
        Cell v = r_.tok.value;
        r_.tok.value = nullptr;
        return v;
    }

    // Error repair: a token is fit to resume at when an active rule waits for it.
    struct Follow {
        MPA_reader& r;
        std::vector<int> kinds;
        Follow(MPA_reader& reader, std::initializer_list<int> ks) : r(reader), kinds(ks) {
            for (int k : kinds) ++r.follow_counts[k];
        }
        ~Follow() {
            for (int k : kinds) --r.follow_counts[k];
        }
    };
    bool resumable() const { return at(TK_EOF) || r_.follow_counts[kind()] > 0; }
    void recover() {
        if (resumable()) return;
        r_.syntax_error(0);
        while (!resumable()) advance();
    }
    void expect(int k) {
        if (accept(k)) return;
        {
            Follow f(r_, {k});
            recover();
        }
        if (accept(k)) return;
        r_.syntax_error(k);  // inserts the wanted token
        advance();
    }

    struct Depth {
        MPA_reader& r;
        explicit Depth(MPA_reader& reader) : r(reader) { ++r.depth_guard; }
        ~Depth() { --r.depth_guard; }
    };
    void check_depth() {
        if (r_.depth_guard <= MAX_NESTING && !MSY_stack_nearly_full()) return;
        r_.report(MER_UNEXPECTED_TOKEN, MLX_token_name(kind()).c_str());
        // Nothing sensible can follow: give up the rest of the input.
        r_.aborted = true;
        while (!at(TK_EOF)) advance();
    }

    // rules
    Cell block(int& level);
    Cell statement(int& level, bool& assignable);
    Cell sequence(int& level, bool& assignable);
    Cell arrow(int& level, bool& assignable);
    Cell operator_expr(int min_priority, int& level, bool& assignable);
    Cell primary(int& level, bool& assignable);
    Cell frame_path(Cell start);
    std::vector<Cell> arguments(int closer, int& level);
    Cell if_rule(int& level);
    Cell static_if(int& level);
    Cell case_rule(int& level);
    Cell for_rule(int& level);
    Cell while_rule(int& level);
    Cell repeat_rule(int& level);
    Cell proc_rule(int& level);
    Cell constructor_rule(int& level);
    Cell make_variable(int& level);
    Cell number_token(bool with_prefix);
    Cell arrow_procedure(Cell params, int& level);
    Cell finish_procdef(Cell tree, int header_level, int body_level, Cell name_for_warning);
    Cell sequence_operator(Cell left, int p, int& level);
    Cell divide(Cell a, Cell b);
    Cell condition(int& level);
    Cell eval_condition(Cell cond);
    void push_scope(Cell params, Cell locals, Cell name);
    void pop_scope();
};

Cell Parser::number_token(bool with_prefix) {
    const std::string_view text = MMM_string_view(r_.tok.value);
    const std::string_view digits = with_prefix ? text : text.substr(2);
    Cell n = MAR_read_number(digits);
    advance();
    return n;
}

Cell Parser::make_variable(int& level) {
    Cell id = take_value();
    advance();
    level = 0;
    if (r_.no_locals) return id;
    const std::string_view name = MMM_ident_text(id);
    if (name == "procname" && !r_.scope_params.empty()) {
        MMM_release(id);
        return MMM_retained(MMM_var(0, 0));
    }
    if (name == "dom" && !r_.scope_params.empty()) {
        MMM_release(id);
        level = r_.proc_depth - 1 > 0 ? r_.proc_depth - 1 : 0;
        return MMM_retained(MMM_var(0, 1));
    }
    // In an activation the locals come first, from index 2, and the parameters after
    // them; names are looked for among the parameters first.
    int depth = 0;
    for (size_t s = r_.scope_params.size(); s-- > 0; ++depth) {
        const std::vector<Cell> params = items_of(r_.scope_params[s]);
        const std::vector<Cell> locals = items_of(r_.scope_locals[s]);
        int index = -1;
        for (size_t k = 0; k < params.size() && index < 0; ++k)
            if (params[k] == id) index = int(locals.size() + k) + 2;
        for (size_t k = 0; k < locals.size() && index < 0; ++k)
            if (locals[k] == id) index = int(k) + 2;
        if (index >= 0) {
            MMM_release(id);
            level = depth;
            return MMM_retained(MMM_var(depth, index));
        }
    }
    return id;
}

void Parser::push_scope(Cell params, Cell locals, Cell name) {
    r_.scope_params.push_back(MMM_retained(params));
    r_.scope_locals.push_back(MMM_retained(locals));
    r_.scope_names.push_back(MMM_retained(name));
    ++r_.proc_depth;
}

void Parser::pop_scope() {
    MMM_release(r_.scope_params.back());
    MMM_release(r_.scope_locals.back());
    MMM_release(r_.scope_names.back());
    r_.scope_params.pop_back();
    r_.scope_locals.pop_back();
    r_.scope_names.pop_back();
    --r_.proc_depth;
}

// ---- the grammar rules ----
// Each rule opens with its production. "x" is a token as written; IDENT, INTEGER, FLOAT,
// FLOAT_DOT (an exponent right behind '.'), STRING, HELP (?text), SYSTEM (!text) and EOF are
// token classes; lower-case names are rules or parts named on the lines below. [ x ] is
// optional, { x } repeats zero or more times, x | y is a choice, ( ) groups. Every closer
// "end_xxx" may also be written "end". Shorthands: idents = IDENT { "," IDENT } and
// arrows = arrow { "," arrow }.

// block: [ statement ] { ( ";" | ":" ) [ statement ] }
Cell Parser::block(int& level) {
    std::vector<Cell> stmts;
    Follow f(r_, {';', ':'});
    for (;;) {
        if (at(';') || at(':')) {
            advance();
            continue;
        }
        if (r_.follow_counts[kind()] > 0 || at(TK_EOF)) break;  // a closer of an enclosing rule
        int l = 0;
        bool a = false;
        Cell s = statement(l, a);
        if (l > level) level = l;
        if (s) stmts.push_back(s);
        if (!at(';') && !at(':')) break;
    }
    if (stmts.empty()) return nil();
    if (stmts.size() == 1) return stmts[0];
    return call(MFN_ID_STMTSEQ, stmts);
}

// statement: ( "save" | "delete" ) sequence | frame_statement | sequence [ ":=" statement ]
//   frame_statement: "frame" [ IDENT | ".." | "." ] frame_path
Cell Parser::statement(int& level, bool& assignable) {
    Depth d(r_);
    check_depth();
    if (at(TK_SAVE) || at(TK_DELETE)) {
        const int id = at(TK_SAVE) ? MFN_ID_SAVE : MFN_ID_DELETE;
        advance();
        Cell s = sequence(level, assignable);
        assignable = false;
        std::vector<Cell> ops;
        for (Cell x : items_of(s)) ops.push_back(MMM_retained(x));
        MMM_release(s);
        return call(id, ops);
    }
    if (at(TK_FRAME)) {
        advance();
        assignable = false;
        Cell path = nullptr;
        if (at(TK_IDENT)) {
            path = take_value();
            advance();
            path = frame_path(path);
        } else if (at(TK_RANGE) || at('.')) {
            Cell start = at(TK_RANGE) ? call(MFN_ID_PARENT_FRAME, {}) : call(MFN_ID_FRAME, {});
            advance();
            path = frame_path(start);
        } else if (at(TK_SCOPE)) {
            path = frame_path(call(MFN_ID_ROOT_FRAME, {}));
        }
        return path ? call(MFN_ID_FRAME, {path}) : call(MFN_ID_FRAME, {});
    }
    Cell left;
    {
        Follow f(r_, {TK_ASSIGN});
        left = sequence(level, assignable);
    }
    if (at(TK_ASSIGN)) {
        if (!assignable) r_.report(MER_INVALID_ASSIGNMENT);
        advance();
        int l = 0;
        bool a = false;
        Cell right = statement(l, a);
        if (l > level) level = l;
        assignable = false;
        return call(MFN_ID_ASSIGN, {left, right});
    }
    return left;
}

// sequence: arrows
Cell Parser::sequence(int& level, bool& assignable) {
    std::vector<Cell> items;
    Follow f(r_, {','});
    for (;;) {
        int l = 0;
        Cell x = arrow(l, assignable);
        if (l > level) level = l;
        items.push_back(x);
        if (!accept(',')) break;
    }
    if (items.size() == 1) return items[0];
    // A sequence is assignable when each element is (multiple assignment).
    return call(MFN_ID_EXPRSEQ, items);
}

// arrow: operator_expr [ "->" arrow ]
Cell Parser::arrow(int& level, bool& assignable) {
    Cell left;
    {
        Follow f(r_, {TK_ARROW});
        left = operator_expr(0, level, assignable);
    }
    if (!at(TK_ARROW)) return left;
    assignable = false;
    return arrow_procedure(left, level);  // the current token is still `->`
}

// arrow_procedure: "->" arrow, behind a left side that names the parameters.
// Parameters of `->`: identifiers (or locals of the scope around, mapped back to their
// identifiers), the empty sequence, or a sequence of these.
Cell Parser::arrow_procedure(Cell params, int& level) {
    std::vector<Cell> names;
    bool ok = true;
    auto take = [&](Cell p) {
        if (MMM_is_node(p, DOM_IDENT)) {
            names.push_back(MMM_retained(p));
        } else if (MMM_is_node(p, DOM_VAR)) {
            const int depth = MMM_var_depth(p), index = MMM_var_index(p);
            const size_t s = r_.scope_params.size() - 1 - size_t(depth);
            std::vector<Cell> all = items_of(r_.scope_locals[s]);
            for (Cell p2 : items_of(r_.scope_params[s])) all.push_back(p2);
            if (index >= 2 && size_t(index - 2) < all.size()) names.push_back(MMM_retained(all[size_t(index - 2)]));
            else ok = false;
        } else {
            ok = false;
        }
    };
    if (MMM_is_call_of(params, MFN_ID_EXPRSEQ)) {
        for (long i = 1; i < MMM_child_count(params); ++i) take(MMM_child(params, i));
    } else if (params != MMM_NULL) {
        take(params);
    }
    MMM_release(params);
    if (!ok) r_.report(MER_TOKEN_EXPECTED, "identifier");
    advance();
    if (!ok) {
        for (Cell n : names) MMM_release(n);
        int l = 0;
        bool a = false;
        MMM_release(arrow(l, a));
        return MMM_retained(MMM_FAIL);
    }
    Cell plist = list_or_single(names);
    push_scope(plist, MMM_NIL, MMM_NIL);
    const bool in_body = r_.in_body;
    r_.in_body = true;
    int body_level = 0;
    bool a = false;
    Cell body = arrow(body_level, a);
    r_.in_body = in_body;
    pop_scope();
    Cell tree = call(MFN_ID_PROCDEF, {plist, nil(), MMM_ident_named("arrow"), body, nil(), nil(), nil(), nil(),
                                      nil(), nil(), MMM_retained(MMM_FAIL), nil()});
    const int up = body_level - 1;
    if (up > level) level = up;
    return finish_procdef(tree, 0, body_level, nullptr);
}

Cell Parser::finish_procdef(Cell tree, int header_level, int body_level, Cell) {
    if (!MPA_hooks.procdef || r_.skip_depth) return tree;
    const bool closed = (header_level > body_level ? header_level : body_level) == 0;
    Cell proc = nullptr;
    try {
        proc = MPA_hooks.procdef(tree, closed);
    } catch (const MER_exception&) {
        proc = nullptr;
    }
    MMM_release(tree);
    return proc;
}

bool is_nary(int kind) {
    switch (kind) {
    case TK_OR: case TK_XOR: case TK_AND: case TK_UNION: case TK_INTERSECT: case TK_HULL:
    case '+': case '*': case '@': case '.': case TK_USER_NARY:
        return true;
    default:
        return false;
    }
}

bool is_infix(int kind) {
    switch (kind) {
    case '|': case TK_EQUIV: case TK_IMPLIES: case TK_OR: case TK_ASSUMING: case TK_XOR: case TK_AND: case '$':
    case '=': case TK_UNEQUAL: case '<': case TK_LEEQUAL: case '>': case TK_GEEQUAL: case TK_IN: case TK_SUBSET:
    case TK_RANGE: case TK_UNION: case TK_MINUS: case TK_INTERSECT: case TK_HULL: case TK_DIV: case TK_MOD:
    case '+': case '-': case '*': case '/': case '^': case '!': case TK_FACT2: case '@': case TK_NEST: case '.':
    case '(': case '[': case '\'': case TK_LONG_ARROW: case TK_USER_BINARY: case TK_USER_NARY: case TK_USER_POSTFIX:
        return true;
    default:
        return false;
    }
}

// The head of an n-ary operator: its identifier (borrowed).
Cell nary_head(const MLX_token& t) {
    switch (t.kind) {
    case TK_OR: return MMM_ident_by_id(MFN_ID_OR);
    case TK_AND: return MMM_ident_by_id(MFN_ID_AND);
    case TK_UNION: return MMM_ident_by_id(MFN_ID_UNION);
    case TK_INTERSECT: return MMM_ident_by_id(MFN_ID_INTERSECT);
    case TK_HULL: return MMM_ident_by_id(MFN_ID_HULL);
    case '+': return MMM_ident_by_id(MFN_ID_PLUS);
    case '*': return MMM_ident_by_id(MFN_ID_MULT);
    case '@': return MMM_ident_by_id(MFN_ID_FCONCAT);
    case '.': return MMM_ident_by_id(MFN_ID_CONCAT);
    case TK_XOR: return parser_names[NAME_XOR];
    default: return t.value;  // a user n-ary operator's function
    }
}

Cell Parser::divide(Cell a, Cell b) {
    auto exact = [](Cell x) { return MMM_kind_of(x) == MMM_NODE && (MMM_category(x) == DOM_INT || MMM_category(x) == DOM_RAT); };
    // A quotient of exact literals is folded at once. A zero divisor is left alone: the
    // tree stays a division, and the error comes when it is evaluated, as for any other
    // division by zero.
    if (exact(a) && exact(b) && !MCM_equal(b, MAR_ZERO)) {
        Cell q = MAR_divide(a, b);
        MMM_release(a);
        MMM_release(b);
        return q;
    }
    if (MCM_equal(a, MAR_ONE)) {
        MMM_release(a);
        return call(MFN_ID_INVERT, {b});
    }
    return call(MFN_ID_DIVIDE, {a, b});
}

// sequence_operator (behind "$"): [ IDENT ( "=" | "in" ) ] operator_expr [ "step" operator_expr ]
Cell Parser::sequence_operator(Cell left, int p, int& level) {
    // After '$' an identifier followed by '=' or 'in' is the loop variable.
    Cell var = nullptr;
    int rel = 0;
    if (at(TK_IDENT)) {
        const int next = MLX_peek_token(r_);
        if (next == '=' || next == TK_IN) {
            int l = 0;
            var = make_variable(l);
            if (l > level) level = l;
            rel = kind();
            advance();
        }
    }
    int l = 0;
    bool a = false;
    Cell s;
    {
        Follow f(r_, {TK_STEP});
        s = operator_expr(p + 1, l, a);
    }
    if (l > level) level = l;
    Cell step = nullptr;
    if (accept(TK_STEP)) {
        step = operator_expr(p + 1, l, a);
        if (l > level) level = l;
    }
    std::vector<Cell> ops;
    if (left) ops.push_back(left);
    if (var) ops.push_back(var);
    ops.push_back(s);
    if (rel == TK_IN) {
        if (step) ops.push_back(step);
        return call_named("_seqin", ops);
    }
    if (step) {
        ops.push_back(step);
        return call(MFN_ID_SEQSTEP, ops);
    }
    return call(MFN_ID_SEQGEN, ops);
}

// operator_expr: ( prefix operator_expr | "$" sequence_operator | primary ) { infix }
//   prefix: "not" | "+" | "-" | a user prefix operator
//   infix: binary operator_expr | postfix | "(" arguments | "[" arguments | "$" sequence_operator
// binary (n-ary included) and postfix are the lexer's and the user's operators, bound by priority.
Cell Parser::operator_expr(int min_priority, int& level, bool& assignable) {
    Depth d(r_);
    check_depth();
    Cell left = nullptr;
    assignable = false;
    auto prefix_operand = [&](int priority) {
        const int p = priority > min_priority ? priority : min_priority;
        int l = 0;
        bool a = false;
        Cell x = operator_expr(p + 1, l, a);
        if (l > level) level = l;
        return x;
    };
    switch (kind()) {
    case TK_NOT: {
        const int p = r_.tok.priority;
        advance();
        left = call(MFN_ID_NOT, {prefix_operand(p)});
        break;
    }
    case '+': {
        const int p = r_.tok.priority;
        advance();
        left = prefix_operand(p);
        break;
    }
    case '-': {
        const int p = r_.tok.priority;
        advance();
        Cell x = prefix_operand(p);
        if (is_number(x)) {
            left = MAR_negate(x);
            MMM_release(x);
        } else {
            left = call(MFN_ID_NEGATE, {x});
        }
        break;
    }
    case TK_USER_PREFIX: {
        const int p = r_.tok.priority;
        Cell f = take_value();
        advance();
        left = make_call(f, {prefix_operand(p)});
        break;
    }
    case '$': {
        const int p = r_.tok.priority > min_priority ? r_.tok.priority : min_priority;
        advance();
        left = sequence_operator(nullptr, p, level);
        break;
    }
    default:
        left = primary(level, assignable);
    }

    Cell head = nullptr;  // an open n-ary accumulation
    std::vector<Cell> acc;
    auto close = [&]() {
        if (!head) return;
        left = make_call(MMM_retained(head), acc);
        acc.clear();
        head = nullptr;
    };
    for (;;) {
        const int k = kind();
        const int p = r_.tok.priority;
        if (!is_infix(k) || p < min_priority) break;
        if (is_nary(k)) {
            Cell h = nary_head(r_.tok);
            advance();
            int l = 0;
            bool a = false;
            Cell right = operator_expr(p + 1, l, a);
            if (l > level) level = l;
            if (head && head == h) {
                acc.push_back(right);
            } else {
                if (head) {
                    left = make_call(MMM_retained(head), acc);
                    acc.clear();
                }
                acc = {left, right};
                left = nullptr;
                head = h;
            }
            assignable = k == '.' && a;
            continue;
        }
        close();
        if (k == '(' || k == '[') {
            advance();
            std::vector<Cell> args = arguments(k == '(' ? ')' : ']', level);
            if (k == '(') {
                left = make_call(left, args);
            } else {
                args.insert(args.begin(), left);
                left = call(MFN_ID_INDEX, args);
            }
            continue;  // `f(x)` and `a[i]` keep the assignable flag
        }
        assignable = false;
        if (k == '!' || k == TK_FACT2 || k == '\'' || k == TK_USER_POSTFIX) {
            Cell f = k == TK_USER_POSTFIX ? take_value() : nullptr;
            advance();
            if (k == '!') left = call(MFN_ID_FACT, {left});
            else if (k == TK_FACT2) left = call_named("fact2", {left});
            else if (k == '\'') left = call_named("D", {left});
            else left = make_call(f, {left});
            continue;
        }
        if (k == '$') {
            advance();
            left = sequence_operator(left, p, level);
            continue;
        }
        Cell f = k == TK_USER_BINARY ? take_value() : nullptr;
        advance();
        int l = 0;
        bool a = false;
        Cell right = operator_expr(k == TK_LONG_ARROW ? 1 : p + 1, l, a);
        if (l > level) level = l;
        switch (k) {
        case '|': left = call_named("evalAt", {left, right}); break;
        case TK_EQUIV: left = call_named("_equiv", {left, right}); break;
        case TK_IMPLIES: left = call_named("_implies", {left, right}); break;
        case TK_ASSUMING: left = call_named("_assuming", {left, right}); break;
        case '=': left = call(MFN_ID_EQUAL, {left, right}); break;
        case TK_UNEQUAL: left = call(MFN_ID_UNEQUAL, {left, right}); break;
        case '<': left = call(MFN_ID_LESS, {left, right}); break;
        case TK_LEEQUAL: left = call(MFN_ID_LEEQUAL, {left, right}); break;
        case '>': left = call(MFN_ID_LESS, {right, left}); break;
        case TK_GEEQUAL: left = call(MFN_ID_LEEQUAL, {right, left}); break;
        case TK_IN: left = call_named("_in", {left, right}); break;
        case TK_SUBSET: left = call_named("_subset", {left, right}); break;
        case TK_RANGE: left = call(MFN_ID_RANGE, {left, right}); break;
        case TK_MINUS: left = call(MFN_ID_MINUS, {left, right}); break;
        case TK_DIV: left = call(MFN_ID_DIV, {left, right}); break;
        case TK_MOD: left = call(MFN_ID_MOD, {left, right}); break;
        case '-': left = call(MFN_ID_SUBTRACT, {left, right}); break;
        case '/': left = divide(left, right); break;
        case '^': left = call(MFN_ID_POWER, {left, right}); break;
        case TK_NEST: left = call_named("_fnest", {left, right}); break;
        case TK_LONG_ARROW: left = call_named("-->", {left, right}); break;
        default: left = make_call(f, {left, right}); break;
        }
    }
    close();
    // A token that is no operator and that nothing waits for is handed to the repair.
    if (!resumable() && !is_infix(kind())) recover();
    return left;
}

// arguments: [ arrows ] closer, the closer being ")" or "]" as the caller says
std::vector<Cell> Parser::arguments(int closer, int& level) {
    std::vector<Cell> args;
    {
        Follow f(r_, {closer, ','});
        if (!at(closer)) {
            for (;;) {
                int l = 0;
                bool a = false;
                args.push_back(arrow(l, a));
                if (l > level) level = l;
                if (!accept(',')) break;
            }
        }
    }
    expect(closer);
    return args;
}

// frame_path: { "::" ( STRING | ".." ) }
Cell Parser::frame_path(Cell start) {
    Cell tree = start;
    while (at(TK_SCOPE)) {
        advance();
        if (at(TK_STRING)) {
            tree = call(MFN_ID_SLOT, {tree, take_value()});
            advance();
        } else if (at(TK_RANGE)) {
            advance();
            tree = call(MFN_ID_SLOT, {tree, MMM_retained(dots_string)});
        } else {
            expect(TK_STRING);
            tree = call(MFN_ID_SLOT, {tree, MMM_make_string("<error>")});
        }
    }
    return tree;
}

// condition: statement, with its `and` and `or` made lazy
Cell Parser::condition(int& level) {
    int l = 0;
    bool a = false;
    Cell c = statement(l, a);
    if (l > level) level = l;
    return MPA_lazy_condition(c);
}

// if_rule: "if" condition "then" block { "elif" condition "then" block } [ "else" block ] "end_if"
Cell Parser::if_rule(int& level) {
    // at `if` or `elif`
    advance();
    Cell cond;
    {
        Follow f(r_, {TK_THEN});
        cond = condition(level);
    }
    expect(TK_THEN);
    Cell then_part, else_part = nullptr;
    {
        Follow f(r_, {TK_ELIF, TK_ELSE, TK_END_IF, TK_END});
        then_part = block(level);
        if (at(TK_ELIF)) {
            else_part = if_rule(level);
            return call(MFN_ID_IF, {cond, then_part, else_part});
        }
        if (accept(TK_ELSE)) else_part = block(level);
    }
    if (!accept(TK_END)) expect(TK_END_IF);
    return call(MFN_ID_IF, {cond, then_part, else_part ? else_part : nil()});
}

Cell Parser::eval_condition(Cell cond) {
    Cell v = nullptr;
    try {
        v = MPA_hooks.eval ? MPA_hooks.eval(cond) : MMM_retained(cond);
    } catch (const MER_exception&) {
        MER_pending = 0;
        v = nullptr;
    }
    if (v != MMM_TRUE && v != MMM_FALSE) {
        r_.report(MER_NOT_BOOLEAN);
        MMM_release(v);
        return MMM_retained(MMM_FALSE);
    }
    return v;
}

// static_if: "%if" condition "then" block { "elif" condition "then" block } [ "else" block ] "end_if"
Cell Parser::static_if(int& level) {
    // at `%if` or the `elif` of one
    advance();
    Cell cond;
    {
        Follow f(r_, {TK_THEN});
        cond = condition(level);
    }
    bool truth = false;
    if (!r_.skip_depth) {
        Cell v = eval_condition(cond);
        truth = v == MMM_TRUE;
        MMM_release(v);
    }
    MMM_release(cond);
    expect(TK_THEN);
    Cell value = nullptr;
    {
        Follow f(r_, {TK_ELIF, TK_ELSE, TK_END_IF, TK_END});
        if (!truth) ++r_.skip_depth;
        Cell then_part = block(level);
        if (!truth) {
            --r_.skip_depth;
            MMM_release(then_part);
        } else {
            value = then_part;
        }
        if (truth) ++r_.skip_depth;
        Cell rest = nullptr;
        const bool chained = at(TK_ELIF);
        if (chained) rest = static_if(level);  // takes the closer itself
        else if (accept(TK_ELSE)) rest = block(level);
        if (truth) {
            --r_.skip_depth;
            MMM_release(rest);
        } else {
            value = rest ? rest : nil();
        }
        if (chained) return value;
    }
    if (!accept(TK_END)) expect(TK_END_IF);
    return value;
}

// case_rule: "case" statement { "of" statement "do" block } [ "otherwise" block ] "end_case"
Cell Parser::case_rule(int& level) {
    advance();
    std::vector<Cell> ops;
    {
        Follow f(r_, {TK_OF, TK_OTHERWISE, TK_END_CASE, TK_END});
        int l = 0;
        bool a = false;
        ops.push_back(statement(l, a));
        if (l > level) level = l;
        while (accept(TK_OF)) {
            {
                Follow g(r_, {TK_DO});
                l = 0;
                ops.push_back(statement(l, a));
                if (l > level) level = l;
            }
            expect(TK_DO);
            ops.push_back(block(level));
        }
        if (accept(TK_OTHERWISE)) ops.push_back(block(level));
    }
    if (!accept(TK_END)) expect(TK_END_CASE);
    return call(MFN_ID_CASE, ops);
}

// for_rule: "for" IDENT ( "in" statement | range ) "do" block "end_for"
//   range: "from" statement ( "to" | "downto" ) statement [ "step" statement ]
Cell Parser::for_rule(int& level) {
    advance();
    Cell var;
    if (at(TK_IDENT)) {
        int l = 0;
        var = make_variable(l);
        if (l > level) level = l;
    } else {
        expect(TK_IDENT);
        var = MMM_retained(MMM_FAIL);
    }
    Cell tree;
    {
        Follow f(r_, {TK_END_FOR, TK_END, TK_DO});
        int l = 0;
        bool a = false;
        if (accept(TK_IN)) {
            Cell s = statement(l, a);
            if (l > level) level = l;
            expect(TK_DO);
            Cell body = block(level);
            tree = call(MFN_ID_FOR_IN, {var, s, body});
        } else {
            Cell from, to, step = nullptr;
            {
                Follow g(r_, {TK_TO, TK_DOWNTO});
                expect(TK_FROM);
                from = statement(l, a);
            }
            const bool down = at(TK_DOWNTO);
            if (!accept(TK_DOWNTO)) expect(TK_TO);
            {
                Follow g(r_, {TK_STEP});
                to = statement(l, a);
            }
            if (accept(TK_STEP)) step = statement(l, a);
            if (l > level) level = l;
            expect(TK_DO);
            Cell body = block(level);
            tree = call(down ? MFN_ID_FOR_DOWN : MFN_ID_FOR, {var, from, to, step ? step : nil(), body});
        }
    }
    if (!accept(TK_END)) expect(TK_END_FOR);
    return tree;
}

// while_rule: "while" condition "do" block "end_while"
Cell Parser::while_rule(int& level) {
    advance();
    Cell cond, body;
    {
        Follow f(r_, {TK_END_WHILE, TK_END});
        {
            Follow g(r_, {TK_DO});
            cond = condition(level);
        }
        expect(TK_DO);
        body = block(level);
    }
    if (!accept(TK_END)) expect(TK_END_WHILE);
    return call(MFN_ID_WHILE, {cond, body});
}

// repeat_rule: "repeat" block "until" condition "end_repeat"
Cell Parser::repeat_rule(int& level) {
    advance();
    Cell body, cond;
    {
        Follow f(r_, {TK_END_REPEAT, TK_END});
        {
            Follow g(r_, {TK_UNTIL});
            body = block(level);
        }
        expect(TK_UNTIL);
        cond = condition(level);
    }
    if (!accept(TK_END)) expect(TK_END_REPEAT);
    return call(MFN_ID_REPEAT, {body, cond});
}

const char* const former_environment_names[] = {
    "DIGITS",  "LEVEL",    "ERRORLEVEL", "PRINTLEVEL", "MAXLEVEL", "HISTORY", "TEXTWIDTH",
    "LIB_PATH", "READ_PATH", "WRITE_PATH", "EVAL_STMT", "MAXDEPTH", "ROUNDING", "PRETTY_PRINT",
};

// proc_rule: "proc" "(" [ param { "," param } ] ")" [ ":" type ] { clause ";" } "begin" block "end_proc"
//   param: IDENT [ "=" operator_expr ] [ ":" type ];  type: operator_expr
//   clause: "local" local { "," local } | "option" idents | "save" idents | "name" [ sequence ]
//   local: IDENT [ ":" type ]
Cell Parser::proc_rule(int& level) {
    advance();
    std::vector<Cell> params, param_types, defaults, locals, local_types, options, saves;
    bool any_param_type = false, any_default = false, any_local_type = false;
    Cell name = nullptr, return_type = nullptr;
    int header_level = 0;
    auto warn_former = [&](Cell id) {
        if (!MPA_warn_changes) return;
        const std::string_view n = MMM_ident_text(id);
        for (const char* f : former_environment_names)
            if (n == f) r_.report(MER_WARN_ENV_AS_LOCAL, f);
    };
    auto header_expr = [&]() {
        int l = 0;
        bool a = false;
        Cell x = operator_expr(0, l, a);
        if (l > header_level) header_level = l;
        return x;
    };
    {
        Follow f(r_, {TK_BEGIN, TK_END_PROC, TK_END, TK_LOCAL, TK_OPTION, TK_SAVE, TK_NAME});
        expect('(');
        {
            Follow g(r_, {')', ',', ':'});
            if (!at(')')) {
                for (;;) {
                    if (at(TK_IDENT)) {
                        Cell p = take_value();
                        advance();
                        warn_former(p);
                        params.push_back(p);
                        Cell def = nullptr, type = nullptr;
                        if (accept('=')) def = header_expr();
                        if (accept(':')) type = header_expr();
                        any_default |= def != nullptr;
                        any_param_type |= type != nullptr;
                        defaults.push_back(def ? def : nil());
                        param_types.push_back(type ? type : nil());
                    } else {
                        expect(TK_IDENT);
                    }
                    if (!accept(',')) break;
                }
            }
        }
        expect(')');
        if (accept(':')) return_type = header_expr();
        for (;;) {
            Follow g(r_, {';', ','});
            if (accept(TK_LOCAL)) {
                do {
                    if (!at(TK_IDENT)) {
                        expect(TK_IDENT);
                        break;
                    }
                    Cell l = take_value();
                    advance();
                    warn_former(l);
                    locals.push_back(l);
                    Cell type = accept(':') ? header_expr() : nullptr;
                    any_local_type |= type != nullptr;
                    local_types.push_back(type ? type : nil());
                } while (accept(','));
            } else if (accept(TK_OPTION)) {
                do {
                    if (!at(TK_IDENT)) {
                        expect(TK_IDENT);
                        break;
                    }
                    Cell o = take_value();
                    const std::string_view t = MMM_ident_text(o);
                    if (t != "hold" && t != "remember" && t != "arrow" && t != "escape" && t != "noDebug" &&
                        t != "noExpose") {
                        r_.report(MER_UNKNOWN_PROC_OPTION, std::string(t).c_str());
                    }
                    advance();
                    options.push_back(o);
                } while (accept(','));
            } else if (accept(TK_SAVE)) {
                do {
                    if (!at(TK_IDENT)) {
                        expect(TK_IDENT);
                        break;
                    }
                    saves.push_back(take_value());
                    advance();
                } while (accept(','));
            } else if (accept(TK_NAME)) {
                const bool no_locals = r_.no_locals;
                const bool warn = MPA_warn_changes;
                r_.no_locals = true;
                MPA_warn_changes = false;
                Cell n = nullptr;
                if (!at(';')) {
                    int l = 0;
                    bool a = false;
                    n = sequence(l, a);
                } else {
                    n = call(MFN_ID_EXPRSEQ, {});
                }
                r_.no_locals = no_locals;
                MPA_warn_changes = warn;
                if (name) {
                    r_.report(MER_MULTIPLE_PROC_NAMES);
                    MMM_release(name);
                }
                name = n;
            } else {
                break;
            }
            expect(';');
        }
    }
    Cell plist = list_or_single(params);
    Cell llist = list_or_single(locals);
    Cell shown_name = name ? name : (r_.scope_names.empty() ? MMM_NIL : r_.scope_names.back());
    push_scope(plist, llist, shown_name);
    const bool in_body = r_.in_body;
    r_.in_body = true;
    int body_level = 0;
    Cell body;
    {
        Follow f(r_, {TK_END_PROC, TK_END});
        expect(TK_BEGIN);
        body = block(body_level);
    }
    if (!accept(TK_END)) expect(TK_END_PROC);
    r_.in_body = in_body;
    pop_scope();

    auto opt_list = [](std::vector<Cell>& v, bool any) {
        if (!any) {
            for (Cell c : v) MMM_release(c);
            return nil();
        }
        return list_or_single(v);
    };
    Cell tree = call(MFN_ID_PROCDEF,
                     {plist, llist, list_or_single(options), body, name ? name : nil(),
                      opt_list(param_types, any_param_type), return_type ? return_type : nil(),
                      opt_list(local_types, any_local_type), opt_list(defaults, any_default), list_or_single(saves),
                      MMM_retained(MMM_FAIL), nil()});
    const int up = body_level - 1 > header_level ? body_level - 1 : header_level;
    if (up > level) level = up;
    return finish_procdef(tree, header_level, body_level, name);
}

// constructor_rule: kind primary [ "(" [ idents ] ")" ] [ ";" ] { clause ";" } [ "begin" block ] "end_"kind
//   kind: "domain" | "category" | "axiom"
//   clause: "local" idents | "inherits" statement | ("category" | "axiom") sequence | IDENT [ ":=" statement ]
Cell Parser::constructor_rule(int& level) {
    const int which = kind();  // TK_DOMAIN, TK_CATEGORY or TK_AXIOM
    const int closer = which == TK_DOMAIN ? TK_END_DOMAIN : which == TK_CATEGORY ? TK_END_CATEGORY : TK_END_AXIOM;
    advance();
    Cell name;
    bool parens = false;
    std::vector<Cell> params, locals, categories, axioms, entries;
    Cell inherited = nullptr;
    {
        Follow f(r_, {closer, TK_END, TK_BEGIN});
        const bool no_locals = r_.no_locals;
        const bool warn = MPA_warn_changes;
        r_.no_locals = true;
        MPA_warn_changes = false;
        int l = 0;
        bool assignable = false;
        {
            Follow g(r_, {'(', ';', TK_LOCAL, TK_INHERITS, TK_CATEGORY, TK_AXIOM, TK_IDENT});
            name = primary(l, assignable);
        }
        r_.no_locals = no_locals;
        MPA_warn_changes = warn;
        if (!assignable) r_.report(MER_INVALID_ASSIGNMENT);
        if (accept('(')) {
            parens = true;
            Follow g(r_, {')', ','});
            if (!at(')')) {
                do {
                    if (at(TK_IDENT)) {
                        params.push_back(take_value());
                        advance();
                    } else {
                        expect(TK_IDENT);
                    }
                } while (accept(','));
            }
            expect(')');
        }
        accept(';');
        for (;;) {
            Follow g(r_, {';'});
            if (accept(TK_LOCAL)) {
                do {
                    if (!at(TK_IDENT)) {
                        expect(TK_IDENT);
                        break;
                    }
                    locals.push_back(take_value());
                    advance();
                } while (accept(','));
            } else if (at(TK_INHERITS)) {
                if (which != TK_DOMAIN) r_.report(MER_UNEXPECTED_TOKEN, "inherits");
                advance();
                int l2 = 0;
                bool a = false;
                Cell x = statement(l2, a);
                if (inherited) {
                    r_.report(MER_MULTIPLE_INHERITED);
                    MMM_release(inherited);
                }
                inherited = x;
            } else if (at(TK_CATEGORY) || at(TK_AXIOM)) {
                const bool is_category = at(TK_CATEGORY);
                if (which == TK_AXIOM) r_.report(MER_UNEXPECTED_TOKEN, is_category ? "category" : "axiom");
                advance();
                int l2 = 0;
                bool a = false;
                Cell x = sequence(l2, a);
                for (Cell c : items_of(x)) (is_category ? categories : axioms).push_back(MMM_retained(c));
                MMM_release(x);
            } else if (at(TK_IDENT)) {
                if (which == TK_AXIOM) r_.report(MER_UNEXPECTED_TOKEN, "identifier");
                Cell entry = MMM_make_string(MMM_ident_text(r_.tok.value));
                advance();
                if (accept(TK_ASSIGN)) {
                    int l2 = 0;
                    bool a = false;
                    Cell v = statement(l2, a);
                    entry = call(MFN_ID_EQUAL, {entry, v});
                }
                entries.push_back(entry);
            } else {
                break;
            }
            expect(';');
        }
    }
    Cell proc = nil();
    if (accept(TK_BEGIN)) {
        Cell plist = list_or_single(params);
        Cell llist = list_or_single(locals);
        push_scope(plist, llist, name);
        int body_level = 0;
        Cell body;
        {
            Follow f(r_, {closer, TK_END});
            body = block(body_level);
        }
        pop_scope();
        MMM_release(proc);
        Cell options = call(MFN_ID_EXPRSEQ, {MMM_ident_named("escape"), MMM_ident_named("noDebug")});
        Cell tree = call(MFN_ID_PROCDEF, {plist, llist, options, body, MMM_retained(name), nil(), nil(), nil(), nil(),
                                          nil(), MMM_retained(MMM_FAIL), nil()});
        proc = finish_procdef(tree, 0, body_level, name);
        if (!proc) proc = nil();
        const int up = body_level - 1;
        if (up > level) level = up;
    } else {
        for (Cell p : params) MMM_release(p);
        for (Cell l : locals) MMM_release(l);
    }
    if (!accept(TK_END)) expect(closer);
    auto list_of = [](std::vector<Cell>& v) {
        Cell l = MMM_make_list(long(v.size()));
        for (size_t i = 0; i < v.size(); ++i) MMM_children(l)[i] = v[i];
        MMM_sign(l);
        return l;
    };
    std::vector<Cell> ops = {proc, MMM_retained(parens ? MMM_TRUE : MMM_FALSE)};
    if (which != TK_AXIOM) {
        ops.push_back(list_of(categories));
        ops.push_back(list_of(axioms));
        ops.push_back(list_of(entries));
    } else {
        for (Cell c : categories) MMM_release(c);
        for (Cell c : axioms) MMM_release(c);
        for (Cell c : entries) MMM_release(c);
    }
    if (which == TK_DOMAIN) {
        std::vector<Cell> one = {inherited ? inherited : nil()};
        ops.push_back(list_of(one));
    } else {
        MMM_release(inherited);
    }
    MMM_release(name);
    return call_named("_constructor", ops);
}

// primary: ( IDENT | "(" block ")" ) { scope } | frame | list | constant | compound
//   scope: "::" ( STRING | ".." | IDENT );  frame: [ "." | ".." ] frame_path, with at least one "::"
//   list: "[" [ arrows ] "]" | "{" [ arrows ] "}"
//   constant: INTEGER | FLOAT | "." ( INTEGER | FLOAT_DOT ) | STRING | "NIL" | "FAIL" | "TRUE" | "FALSE"
//             | "UNKNOWN" | "I" | "RD_INF" | "RD_NINF" | "RD_NAN"
//   compound: "next" | "break" | "quit" | "%" [ INTEGER ] | if_rule | static_if | case_rule | for_rule
//             | while_rule | repeat_rule | proc_rule | constructor_rule
Cell Parser::primary(int& level, bool& assignable) {
    Depth d(r_);
    check_depth();
    assignable = false;
    Cell tree = nullptr;
    bool scoped = false;  // may be followed by `::`
    switch (kind()) {
    case TK_INTEGER:
    case TK_FLOAT:
        tree = number_token(false);
        break;
    case TK_STRING:
        tree = take_value();
        advance();
        break;
    case TK_IDENT:
        tree = make_variable(level);
        assignable = scoped = true;
        break;
    case '(': {
        advance();
        {
            Follow f(r_, {')'});
            tree = block(level);
        }
        expect(')');
        if (tree == MMM_NIL) {
            MMM_release(tree);
            tree = MMM_retained(MMM_NULL);
        }
        assignable = scoped = true;
        break;
    }
    case '[':
    case '{': {
        const bool list = at('[');
        advance();
        std::vector<Cell> items;
        {
            Follow f(r_, {list ? ']' : '}', ','});
            if (!at(list ? ']' : '}')) {
                do {
                    int l = 0;
                    bool a = false;
                    Cell x = arrow(l, a);
                    if (l > level) level = l;
                    items.push_back(x);
                } while (accept(','));
            }
        }
        expect(list ? ']' : '}');
        if (list) {
            tree = MMM_make_list(long(items.size()));
            for (size_t i = 0; i < items.size(); ++i) MMM_children(tree)[i] = items[i];
            MMM_sign(tree);
            assignable = true;
        } else {
            tree = MMM_make_set(long(items.size()));
            for (Cell x : items) {
                // NULL adds nothing; an element already there stays as it was.
                if (x != MMM_NULL) MMM_table_set(&MMM_children(tree)[MMM_TABLE_HASH], x, nullptr);
                MMM_release(x);
            }
            MMM_sign(tree);
        }
        break;
    }
    case '.': {
        advance();
        if (at(TK_INTEGER) || at(TK_FLOAT_DOT)) {
            tree = number_token(true);
            if (at(TK_SCOPE)) r_.report(MER_UNEXPECTED_TOKEN, "::");
            scoped = true;
        } else if (at(TK_SCOPE)) {
            tree = frame_path(call(MFN_ID_FRAME, {}));
            assignable = true;
        } else {
            expect(TK_EXPRESSION);
            tree = MMM_retained(MMM_FAIL);
        }
        break;
    }
    case TK_RANGE:
        advance();
        if (!at(TK_SCOPE)) expect(TK_SCOPE);
        tree = frame_path(call(MFN_ID_PARENT_FRAME, {}));
        assignable = true;
        break;
    case TK_SCOPE:
        tree = frame_path(call(MFN_ID_ROOT_FRAME, {}));
        assignable = true;
        break;
    case TK_NIL: advance(); tree = MMM_retained(MMM_NIL); break;
    case TK_FAIL: advance(); tree = MMM_retained(MMM_FAIL); break;
    case TK_TRUE: advance(); tree = MMM_retained(MMM_TRUE); break;
    case TK_FALSE: advance(); tree = MMM_retained(MMM_FALSE); break;
    case TK_UNKNOWN: advance(); tree = MMM_retained(MMM_UNKNOWN); break;
    case TK_I: advance(); tree = MMM_retained(MAR_I); break;
    case TK_RD_INF: advance(); tree = MMM_retained(RD_INF); break;
    case TK_RD_NINF: advance(); tree = MMM_retained(RD_NINF); break;
    case TK_RD_NAN: advance(); tree = MMM_retained(RD_NAN); break;
    case TK_NEXT: advance(); tree = call(MFN_ID_NEXT, {}); break;
    case TK_BREAK: advance(); tree = call(MFN_ID_BREAK, {}); break;
    case TK_QUIT: advance(); tree = call(MFN_ID_QUIT, {}); break;
    case '%': {
        advance();
        Cell n = at(TK_INTEGER) ? number_token(false) : MMM_retained(MAR_ONE);
        tree = call(MFN_ID_LAST, {n});
        break;
    }
    case TK_IF: tree = if_rule(level); break;
    case TK_STATIC_IF: tree = static_if(level); break;
    case TK_CASE: tree = case_rule(level); break;
    case TK_FOR: tree = for_rule(level); break;
    case TK_WHILE: tree = while_rule(level); break;
    case TK_REPEAT: tree = repeat_rule(level); break;
    case TK_PROC: tree = proc_rule(level); break;
    case TK_DOMAIN:
    case TK_CATEGORY:
    case TK_AXIOM: tree = constructor_rule(level); break;
    default:
        // No primary starts here: "'expression' expected", and FAIL stands in for it.
        expect(TK_EXPRESSION);
        return MMM_retained(MMM_FAIL);
    }
    if (scoped) {
        while (at(TK_SCOPE)) {
            advance();
            if (at(TK_STRING)) {
                tree = call(MFN_ID_SLOT, {tree, take_value()});
                advance();
            } else if (at(TK_RANGE)) {
                advance();
                tree = call(MFN_ID_SLOT, {tree, MMM_retained(dots_string)});
            } else if (at(TK_IDENT)) {  // a quoted identifier after `::`
                tree = call(MFN_ID_SLOT, {tree, MMM_make_string(MMM_ident_text(r_.tok.value))});
                advance();
            } else {
                expect(TK_STRING);
            }
            assignable = true;
        }
    }
    return tree;
}

// input: HELP | SYSTEM | { [ statement ] ( ";" | ":" ) } [ statement ] EOF
void Parser::input() {
    Follow f(r_, {TK_EOF, ';', ':'});
    advance();
    if (at(TK_HELP) || at(TK_SYSTEM)) {
        const bool help = at(TK_HELP);
        Cell text = take_value();
        advance();
        if (help ? r_.allow_help() : r_.allow_system()) {
            Cell t = call(help ? MFN_ID_HELP : MFN_ID_SYSTEM, {text});
            Cell v = r_.eval_statement(t, false);
            MMM_release(t);
            MMM_release(r_.result_);
            r_.result_ = v;
        } else {
            MMM_release(text);
        }
        return;
    }
    std::vector<Cell> collected;
    while (!at(TK_EOF)) {
        if (at(';') || at(':')) {
            advance();
            continue;
        }
        int level = 0;
        bool assignable = false;
        Cell s = statement(level, assignable);
        const bool silent = at(':');
        const bool closed = at(';') || at(':');
        if (!closed && !at(TK_EOF)) {
            // Tokens that no rule can use end the read.
            r_.syntax_error(-1);
            while (!at(TK_EOF)) advance();
        }
        if (s && !r_.errors && !r_.aborted) {
            if (r_.immediate()) {
                Cell v = r_.eval_statement(s, silent);
                MMM_release(r_.result_);
                r_.result_ = v;
            } else {
                collected.push_back(MMM_retained(s));
            }
        }
        MMM_release(s);
        if (closed) advance();
        if (r_.single_statement && closed) break;
    }
    if (!r_.immediate()) {
        MMM_release(r_.result_);
        r_.result_ = collected.empty() ? MMM_retained(MMM_NULL)
                     : collected.size() == 1 ? collected[0]
                                             : call(MFN_ID_STMTSEQ, collected);
    }
}

}  // namespace

void MPA_start() {
    for (size_t i = 0; i < std::size(parser_name_texts); ++i) {
        MMM_add_root(&parser_names[i]);
        parser_names[i] = MMM_ident_named(parser_name_texts[i]);
    }
    MMM_add_root(&dots_string);
    dots_string = MMM_string_value("..");
}

Cell MPA_lazy_condition(Cell tree) {
    if (!tree || !MMM_is_node(tree, DOM_EXPR) || MMM_child_count(tree) < 1) return tree;
    Cell op = MMM_child(tree, 0);
    const bool is_not = op == MMM_ident_by_id(MFN_ID_NOT);
    const bool is_and = op == MMM_ident_by_id(MFN_ID_AND);
    const bool is_or = op == MMM_ident_by_id(MFN_ID_OR);
    if (!is_not && !is_and && !is_or) return tree;
    MMM_clone(&tree);
    if (is_and || is_or) {
        MMM_release(MMM_children(tree)[0]);
        MMM_children(tree)[0] = ident_of(is_and ? MFN_ID_LAZY_AND : MFN_ID_LAZY_OR);
    }
    for (long i = 1; i < MMM_child_count(tree); ++i) MMM_children(tree)[i] = MPA_lazy_condition(MMM_children(tree)[i]);
    MMM_sign(tree);
    return tree;
}

void MPA_parse_input(MPA_reader& reader) {
    Parser p(reader);
    p.input();
}

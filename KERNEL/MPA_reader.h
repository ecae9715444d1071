// The reader: lexer and parser of one input source.
//
// The lexer (MLX_*) and the parser (MPA_*) are two layers of one class. A reader is made
// over a source (a stream, a session command, a string), `run` parses it, and each
// statement is evaluated as soon as its closer has been read (or collected, for readers
// that do not evaluate).
#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "MMM_cell.h"

// Token kinds. Below 256 a token is the character itself.
enum MLX_token_kind : int32_t {
    TK_EOF = 256,
    TK_EXPRESSION = 257,  // pseudo-token: what messages call "expression"
    TK_HELP = 258,        // ?topic
    TK_SYSTEM = 259,      // !command
    TK_IDENT = 260,
    TK_INTEGER = 261,
    TK_FLOAT_DOT = 262,  // exponent without fraction directly behind a '.'
    TK_FLOAT = 263,
    TK_STRING = 264,
    TK_ASSIGN = 265,   // :=
    TK_LEEQUAL = 266,  // <=
    TK_UNEQUAL = 267,  // <>
    TK_GEEQUAL = 268,  // >=
    TK_SCOPE = 269,    // ::
    TK_NEXT = 270,
    TK_BREAK,
    TK_QUIT,
    TK_IF,
    TK_THEN,
    TK_ELIF,
    TK_ELSE,
    TK_END_IF,
    TK_CASE,
    TK_OF,
    TK_DO,
    TK_END_CASE,
    TK_OTHERWISE,
    TK_FOR,
    TK_FROM,
    TK_TO,
    TK_STEP,
    TK_DOWNTO,
    TK_IN,
    TK_END_FOR = 289,
    TK_RANGE = 290,  // ..
    TK_WHILE = 291,
    TK_END_WHILE,
    TK_REPEAT,
    TK_UNTIL,
    TK_END_REPEAT,
    TK_OR,
    TK_AND,
    TK_XOR,
    TK_NOT = 299,
    TK_IMPLIES = 300,  // ==>
    TK_EQUIV = 301,    // <=>
    TK_DIV = 302,
    TK_MOD,
    TK_UNION,
    TK_MINUS,
    TK_INTERSECT,
    TK_SUBSET,
    TK_NIL,
    TK_FAIL,
    TK_TRUE,
    TK_FALSE,
    TK_UNKNOWN,
    TK_I,
    TK_NAME,
    TK_LOCAL,
    TK_OPTION,
    TK_SAVE,
    TK_PROC,
    TK_BEGIN,
    TK_END_PROC = 320,
    TK_ARROW = 321,      // ->
    TK_LONG_ARROW = 322, // -->
    TK_NEST = 323,       // @@
    TK_END = 324,
    TK_USER_BINARY = 325,
    TK_USER_NARY = 326,
    TK_USER_PREFIX = 327,
    TK_USER_POSTFIX = 328,
    TK_DOMAIN = 329,
    TK_END_DOMAIN,
    TK_CATEGORY,
    TK_END_CATEGORY,
    TK_AXIOM,
    TK_END_AXIOM,
    TK_INHERITS = 335,
    TK_RD_INF = 336,
    TK_RD_NINF,
    TK_RD_NAN,
    TK_DELETE = 339,
    TK_FRAME = 340,
    TK_STATIC_IF = 341,  // %if
    TK_HULL = 342,       // ...
    TK_FACT2 = 343,      // !!
    TK_ASSUMING = 344,
    TK_KIND_COUNT = 345,
};

struct MPA_token {
    int32_t kind = TK_EOF;
    int32_t priority = 0;
    Cell value = nullptr;  // counted: identifier, string, number text, operator identifier
    int32_t line = 0;
    int32_t column = 0;
};

// A user-defined operator of the parser configuration.
struct MLX_user_operator {
    std::string text;
    int32_t kind;  // TK_USER_BINARY ... TK_USER_POSTFIX
    int32_t priority;
    Cell function;  // the operator's function identifier
};
extern std::vector<MLX_user_operator> MLX_user_operators;

class MPA_parser_base {
public:
    virtual ~MPA_parser_base() = default;
    virtual int next_token() = 0;
    virtual void syntax_error(int expected) = 0;
    virtual void run() = 0;
};

class MPA_reader : public MPA_parser_base {
public:
    MPA_reader(bool allow_command, int max_printed);
    ~MPA_reader() override;
    MPA_reader(const MPA_reader&) = delete;
    MPA_reader& operator=(const MPA_reader&) = delete;

    int next_token() override;
    void syntax_error(int expected) override;
    void run() override;

    // Statements are evaluated as they are read, or collected into `result`.
    virtual bool immediate() { return true; }
    virtual bool allow_help() { return false; }
    virtual bool allow_system() { return false; }
    virtual Cell eval_statement(Cell statement, bool silent);
    virtual void statement_end() {}
    virtual void print_result(Cell value, bool silent);
    virtual void set_error(long code);
    virtual void report(long code, ...);
    virtual bool keep_position() { return false; }
    virtual int read_char() = 0;  // the next byte, or -1 at the end
    virtual void prepare() {}
    virtual void debug_step() {}

    // The value of the read: the last statement's value, or the collected trees.
    Cell result() const { return result_; }
    // Takes the value of the read over (new reference for the caller).
    Cell take_result() {
        Cell r = result_;
        result_ = nullptr;
        return r;
    }

    // ---- lexical state ----
    MPA_token tok;    // the current token
    MPA_token ahead;  // one token of lookahead (kind 0: empty)
    bool allow_command;
    bool after_scope = false;
    bool after_dot = false;
    int32_t line = 1;
    int32_t column = 0;
    int32_t errors = 0;
    int32_t max_printed;
    bool aborted = false;
    bool incomplete = false;
    std::string file_name;
    int32_t ring[128];
    int ring_head = 0;
    int ring_tail = 0;

    // ---- parser state ----
    int32_t nesting = 0;
    bool single_statement = false;
    Cell result_ = nullptr;
    std::vector<Cell> scope_params;  // per open procedure: DOM_IDENT, _exprseq or NIL
    std::vector<Cell> scope_locals;
    std::vector<Cell> scope_names;
    int32_t proc_depth = 0;
    bool no_locals = false;
    bool in_body = false;
    int32_t skip_depth = 0;
    // For each token kind, how many active rules accept it as a place to resume after
    // an error.
    int32_t follow_counts[TK_KIND_COUNT] = {};
    int32_t depth_guard = 0;  // nesting of rules, against runaway recursion

protected:
    void reset_lexer();
};

// Reads a string (text2expr, the session's commands).
class MPA_string_reader : public MPA_reader {
public:
    MPA_string_reader(std::string_view text, bool allow_command, int max_printed)
        : MPA_reader(allow_command, max_printed), text_(text) {}
    int read_char() override { return pos_ < text_.size() ? static_cast<unsigned char>(text_[pos_++]) : -1; }

protected:
    std::string_view text_;
    size_t pos_ = 0;
};

// Reads a string into trees without evaluating them (text2expr): the result is NULL for
// no statement, the tree of one, or `_stmtseq` of several.
class MPA_tree_reader : public MPA_string_reader {
public:
    using MPA_string_reader::MPA_string_reader;
    bool immediate() override { return false; }
};

// The session's command reader: evaluates each statement and prints its value.
class MPA_session_reader : public MPA_string_reader {
public:
    explicit MPA_session_reader(std::string_view text) : MPA_string_reader(text, true, 1) {}
    bool allow_help() override { return true; }
    bool allow_system() override { return true; }
};

// Reads an open stream (files).
class MPA_stream_reader : public MPA_reader {
public:
    MPA_stream_reader(FILE* stream, std::string name, int max_printed) : MPA_reader(false, max_printed), stream_(stream) {
        file_name = std::move(name);
    }
    int read_char() override { return std::getc(stream_); }

private:
    FILE* stream_;
};

// A string reader whose names of running procedures stay visible (the debugger's input).
class MPA_local_string_reader : public MPA_string_reader {
public:
    using MPA_string_reader::MPA_string_reader;
    void prepare() override;
};

// Evaluation during a parse: a `_procdef` tree becomes a procedure, and `%if`
// conditions are evaluated. The evaluator installs these; until then a `_procdef` tree
// stays a tree and a condition is taken as it stands.
struct MPA_hooks_record {
    Cell (*procdef)(Cell tree, bool closed) = nullptr;  // new reference
    Cell (*eval)(Cell tree) = nullptr;                  // new reference
    // A finished statement of a session or file reader: evaluated, and printed unless
    // `print` is false (the session installs it).
    Cell (*toplevel_eval)(Cell statement, bool print) = nullptr;  // new reference
    // The parameter and local fields and names of the running activations along the
    // lexical chain, outermost first (new references); the evaluator installs it.
    void (*running_scopes)(std::vector<Cell>& params, std::vector<Cell>& locals, std::vector<Cell>& names) = nullptr;
};
extern MPA_hooks_record MPA_hooks;

// The preference WarnChanges: warn when a statement of a file changes a protected or
// kernel name (the command line sets it; reading sysinit.tv turns it off for a while).
extern bool MPA_warn_changes;

// The grammar over a reader whose lexical state is fresh: rule `input`.
void MPA_parse_input(MPA_reader& reader);

// Interns the names the parser compares by address; once, after the identifier table.
void MPA_start();

// The condition of `if`, `while`, `repeat` and `%if`: `and` and `or` become their lazy
// forms, through `not` too. Takes over the tree and gives the new one.
Cell MPA_lazy_condition(Cell tree);

// A tree in functional notation, with DOM_VAR(depth, index) for local variables; for
// tests and debugging.
std::string MPA_dump(Cell tree);

// ---- lexer ----
int MLX_next_char(MPA_reader& r, bool strict);
void MLX_unread(MPA_reader& r, int c);
void MLX_scan_token(MPA_reader& r);
int MLX_peek_token(MPA_reader& r);
std::string MLX_token_name(int kind);
// The keyword's token kind and priority, or 0 when the text is no keyword.
int MLX_keyword_lookup(std::string_view text, int* priority);

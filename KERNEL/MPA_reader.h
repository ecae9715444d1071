// The reader: the parser of one input source over the lexer's state.
//
// A reader is a lexical source (MLX_source: the bytes, the tokens, the position) with the
// parser's state on top. It is made over a source (a stream, a session command, a
// string), `run` parses it, and each statement is evaluated as soon as its closer has been
// read (or collected, for readers that do not evaluate). The reader owns its tokens'
// values and its result until a caller takes the result over.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "MLX_lexer.h"
#include "MMM_cell.h"

class MPA_parser_base {
public:
    virtual ~MPA_parser_base() = default;
    virtual int next_token() = 0;
    virtual void syntax_error(int expected) = 0;
    virtual void run() = 0;
};

class MPA_reader : public MPA_parser_base, public MLX_source {
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
    void report(long code, ...) override;
    virtual bool keep_position() { return false; }
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

    int32_t max_printed;
    std::string file_name;

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

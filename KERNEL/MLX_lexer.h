// The lexer: bytes of a source to tokens.
//
// A source (MLX_source) holds the lexical state of one input: the current token and one
// token of lookahead (each owning its value cell), the position, the error count, and a
// ring of bytes read back. What reads the bytes and how errors are reported is the
// concrete source's (the parser's readers). The token kinds below 256 are the characters
// themselves; the others are named here. The user operators of the parser configuration
// are kept here, as the lexer matches them.
#pragma once

#include <cstdint>
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

struct MLX_token {
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

class MLX_source {
public:
    explicit MLX_source(bool allow_cmd) : allow_command(allow_cmd) { ahead.kind = 0; }
    virtual ~MLX_source();
    MLX_source(const MLX_source&) = delete;
    MLX_source& operator=(const MLX_source&) = delete;

    virtual int read_char() = 0;  // the next byte, or -1 at the end
    // Reports a lexical error or warning by number, with the table's arguments.
    virtual void report(long code, ...) = 0;

    MLX_token tok;    // the current token
    MLX_token ahead;  // one token of lookahead (kind 0: empty)
    bool allow_command;
    bool after_scope = false;
    bool after_dot = false;
    int32_t line = 1;
    int32_t column = 0;
    int32_t errors = 0;
    bool aborted = false;
    bool incomplete = false;
    int32_t ring[128];
    int ring_head = 0;
    int ring_tail = 0;

protected:
    // Drops both tokens and the bytes read back.
    void reset_lexer();
};

int MLX_next_char(MLX_source& r, bool strict);
void MLX_unread(MLX_source& r, int c);
void MLX_scan_token(MLX_source& r);
int MLX_peek_token(MLX_source& r);
std::string MLX_token_name(int kind);
// The keyword's token kind and priority, or 0 when the text is no keyword.
int MLX_keyword_lookup(std::string_view text, int* priority);

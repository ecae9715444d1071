// The lexer: characters to tokens, with positions and lexical errors.
#include "MLX_lexer.h"

#include <cstring>
#include <string>

#include "MER_codes.h"
#include "MMM_heap.h"
#include "MMM_ident.h"
#include "MMM_values.h"

std::vector<MLX_user_operator> MLX_user_operators;

namespace {

struct Keyword {
    const char* text;
    int32_t kind;
    int32_t priority;
};

const Keyword keywords[] = {
    {"next", TK_NEXT, 0},         {"break", TK_BREAK, 0},
    {"quit", TK_QUIT, 0},         {"if", TK_IF, 0},
    {"then", TK_THEN, 0},         {"elif", TK_ELIF, 0},
    {"else", TK_ELSE, 0},         {"end_if", TK_END_IF, 0},
    {"case", TK_CASE, 0},         {"of", TK_OF, 0},
    {"do", TK_DO, 0},             {"end_case", TK_END_CASE, 0},
    {"otherwise", TK_OTHERWISE, 0}, {"for", TK_FOR, 0},
    {"from", TK_FROM, 0},         {"to", TK_TO, 0},
    {"step", TK_STEP, 0},         {"downto", TK_DOWNTO, 0},
    {"in", TK_IN, 400},           {"end_for", TK_END_FOR, 0},
    {"while", TK_WHILE, 0},       {"end_while", TK_END_WHILE, 0},
    {"repeat", TK_REPEAT, 0},     {"until", TK_UNTIL, 0},
    {"end_repeat", TK_END_REPEAT, 0}, {"or", TK_OR, 100},
    {"and", TK_AND, 200},         {"xor", TK_XOR, 150},
    {"not", TK_NOT, 300},         {"div", TK_DIV, 900},
    {"mod", TK_MOD, 900},         {"union", TK_UNION, 600},
    {"minus", TK_MINUS, 700},     {"intersect", TK_INTERSECT, 800},
    {"subset", TK_SUBSET, 400},   {"NIL", TK_NIL, 0},
    {"FAIL", TK_FAIL, 0},         {"TRUE", TK_TRUE, 0},
    {"FALSE", TK_FALSE, 0},       {"UNKNOWN", TK_UNKNOWN, 0},
    {"I", TK_I, 0},               {"name", TK_NAME, 0},
    {"local", TK_LOCAL, 0},       {"option", TK_OPTION, 0},
    {"save", TK_SAVE, 0},         {"proc", TK_PROC, 0},
    {"begin", TK_BEGIN, 0},       {"end_proc", TK_END_PROC, 0},
    {"end", TK_END, 0},           {"RD_INF", TK_RD_INF, 0},
    {"RD_NINF", TK_RD_NINF, 0},   {"RD_NAN", TK_RD_NAN, 0},
    {"domain", TK_DOMAIN, 0},     {"end_domain", TK_END_DOMAIN, 0},
    {"category", TK_CATEGORY, 0}, {"end_category", TK_END_CATEGORY, 0},
    {"axiom", TK_AXIOM, 0},       {"end_axiom", TK_END_AXIOM, 0},
    {"inherits", TK_INHERITS, 0}, {"delete", TK_DELETE, 0},
    {"frame", TK_FRAME, 0},       {"assuming", TK_ASSUMING, 100},
};
static_assert(std::size(keywords) == 62);

// Names of the tokens that have no text of their own, and of the multi-character ones.
struct Named {
    int32_t kind;
    const char* text;
};
const Named named_tokens[] = {
    {TK_EOF, "end of input"},  {TK_EXPRESSION, "expression"},
    {TK_HELP, "?"},            {TK_SYSTEM, "!"},
    {TK_IDENT, "identifier"},  {TK_INTEGER, "integer"},
    {TK_FLOAT_DOT, "floating point number"}, {TK_FLOAT, "floating point number"},
    {TK_STRING, "string"},     {TK_ASSIGN, ":="},
    {TK_LEEQUAL, "<="},        {TK_UNEQUAL, "<>"},
    {TK_GEEQUAL, ">="},        {TK_SCOPE, "::"},
    {TK_RANGE, ".."},          {TK_IMPLIES, "==>"},
    {TK_EQUIV, "<=>"},         {TK_ARROW, "->"},
    {TK_LONG_ARROW, "-->"},    {TK_NEST, "@@"},
    {TK_STATIC_IF, "%if"},     {TK_HULL, "..."},
    {TK_FACT2, "!!"},          {TK_USER_BINARY, "operator"},
    {TK_USER_NARY, "operator"}, {TK_USER_PREFIX, "operator"},
    {TK_USER_POSTFIX, "operator"},
};

bool is_ident_start(int c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; }
bool is_digit(int c) { return c >= '0' && c <= '9'; }
bool is_ident_char(int c) { return is_ident_start(c) || is_digit(c); }

void set_value(MLX_token& t, Cell v) {
    MMM_release(t.value);
    t.value = v;
}

void make(MLX_source& r, int kind, int priority) {
    r.tok.kind = kind;
    r.tok.priority = priority;
    set_value(r.tok, nullptr);
}

// Reads the rest of a continuation line: blanks may stand behind the backslash.
int continuation(MLX_source& r) {
    for (;;) {
        int c = MLX_next_char(r, false);
        while (c != '\n') {
            if (c == -1) {
                if (!r.errors && !r.aborted) r.incomplete = true;
                return -1;
            }
            if (c != ' ' && c != '\t' && c != '\r') r.report(MER_CHARACTER_AFTER_BACKSLASH);
            c = MLX_next_char(r, false);
        }
        c = MLX_next_char(r, false);
        if (c != '\\') return c;
    }
}

void end_of_input_in(MLX_source& r, const char* what) {
    if (!r.errors && !r.aborted) r.incomplete = true;
    r.report(MER_UNEXPECTED_END, what);
}

bool scan_comment(MLX_source& r) {
    // After "/*": nested levels, closed by a run of '*' and '/'.
    int level = 1;
    int c = MLX_next_char(r, false);
    while (level > 0) {
        if (c == -1) {
            end_of_input_in(r, "comment");
            make(r, TK_EOF, 0);
            return false;
        }
        if (c == '/') {
            c = MLX_next_char(r, false);
            if (c == '*') {
                ++level;
                c = MLX_next_char(r, false);
            }
            continue;
        }
        if (c == '*') {
            do c = MLX_next_char(r, false);
            while (c == '*');
            if (c == '/') {
                --level;
                if (level) c = MLX_next_char(r, false);
            }
            continue;
        }
        c = MLX_next_char(r, false);
    }
    return true;
}

void scan_identifier(MLX_source& r, int c, bool after_scope) {
    std::string text;
    bool quoted = c == '`';
    if (!quoted) {
        while (is_ident_char(c)) {
            text += char(c);
            c = MLX_next_char(r, true);
        }
        MLX_unread(r, c);
        int priority = 0;
        if (int kind = MLX_keyword_lookup(text, &priority)) {
            make(r, kind, priority);
            return;
        }
    } else {
        for (;;) {
            c = MLX_next_char(r, false);
            if (c == -1) {
                end_of_input_in(r, "quoted identifier");
                break;
            }
            if (c == '`') {
                c = MLX_next_char(r, false);
                if (c == '`') {
                    text += '`';
                    continue;
                }
                if (c == '\\') c = continuation(r);
                MLX_unread(r, c);
                break;
            }
            if (c == '\\') {
                int d = MLX_next_char(r, false);
                if (d == '\n') continue;
                if (d == '\r') {
                    int e = MLX_next_char(r, false);
                    if (e == '\n') continue;
                    MLX_unread(r, e);
                }
                text += '\\';
                if (d == -1) {
                    end_of_input_in(r, "quoted identifier");
                    break;
                }
                text += char(d);
                continue;
            }
            text += char(c);
        }
    }
    // After `::` a plain name is a slot name; a quoted one stays an identifier.
    if (after_scope && !quoted) {
        r.tok.kind = TK_STRING;
        r.tok.priority = 0;
        set_value(r.tok, MMM_make_string(text));
        return;
    }
    r.tok.kind = TK_IDENT;
    r.tok.priority = 0;
    set_value(r.tok, MMM_ident_named(text));
}

void scan_number(MLX_source& r, int c) {
    std::string digits = "0.";
    int kind = TK_INTEGER;
    bool fraction = false;
    while (is_digit(c)) {
        digits += char(c);
        c = MLX_next_char(r, true);
    }
    bool exponent_allowed_upper = true;
    if (c == '.') {
        const int d = MLX_next_char(r, true);
        if (d == 'e') {
            digits += '.';
            c = d;
            exponent_allowed_upper = false;
        } else if (is_digit(d)) {
            digits += '.';
            c = d;
            while (is_digit(c)) {
                digits += char(c);
                c = MLX_next_char(r, true);
            }
            kind = TK_FLOAT;
            fraction = true;
        } else {
            MLX_unread(r, d);
            MLX_unread(r, '.');
            c = -2;  // the number ends here; nothing more to put back
        }
    }
    if (c == 'e' || (c == 'E' && exponent_allowed_upper)) {
        // Characters read since the 'e', to give back if no digit follows.
        std::string read{char(c)};
        std::string exp = "e";
        int d = MLX_next_char(r, true);
        if (d == '+' || d == '-') {
            read += char(d);
            if (d == '-') exp += '-';
            d = MLX_next_char(r, true);
        }
        if (is_digit(d)) {
            while (is_digit(d)) {
                exp += char(d);
                d = MLX_next_char(r, true);
            }
            digits += exp;
            if (r.after_dot) {
                kind = fraction ? TK_FLOAT : TK_FLOAT_DOT;
                r.after_dot = false;
            } else {
                kind = TK_FLOAT;
            }
            c = d;
        } else {
            MLX_unread(r, d);
            for (size_t i = read.size(); i-- > 0;) MLX_unread(r, static_cast<unsigned char>(read[i]));
            c = -2;
            if (digits.back() == '.') digits.pop_back();  // "1.e" without digits: the dot goes too
        }
    }
    if (c != -2) MLX_unread(r, c);
    r.tok.kind = kind;
    r.tok.priority = 0;
    set_value(r.tok, MMM_new_string(digits));
}

void scan_string(MLX_source& r) {
    std::string text;
    for (;;) {
        int c = MLX_next_char(r, false);
        if (c == -1) {
            end_of_input_in(r, "string");
            break;
        }
        if (c == '"') break;
        if (c != '\\') {
            text += char(c);
            continue;
        }
        c = MLX_next_char(r, false);
        switch (c) {
        case '"': text += '"'; break;
        case '\\': text += '\\'; break;
        case 'b': text += '\b'; break;
        case 'n': text += '\n'; break;
        case 'r': text += '\r'; break;
        case 't': text += '\t'; break;
        case '*':
        case '?':
            text += '\\';
            text += char(c);
            break;
        case '\n': break;
        case '\r': {
            const int d = MLX_next_char(r, false);
            if (d == '\n') break;
            text += '\r';
            MLX_unread(r, d);
            r.report(MER_WARN_UNKNOWN_ESCAPE, '\r');
            break;
        }
        case -1:
            text += '\\';
            end_of_input_in(r, "string");
            r.tok.kind = TK_STRING;
            set_value(r.tok, MMM_make_string(text));
            return;
        default:
            text += char(c);
            r.report(MER_WARN_UNKNOWN_ESCAPE, c);
        }
    }
    r.tok.kind = TK_STRING;
    r.tok.priority = 0;
    set_value(r.tok, MMM_make_string(text));
}

// The longest user operator that starts with `c`; characters read for the attempt that
// are not part of it go back. Gives the index of the operator or -1.
int match_user_operator(MLX_source& r, int c) {
    if (MLX_user_operators.empty()) return -1;
    std::string got(1, char(c));
    int best = -1;
    size_t best_len = 0;
    for (size_t i = 0; i < MLX_user_operators.size(); ++i) {
        const std::string& op = MLX_user_operators[i].text;
        if (op.empty() || static_cast<unsigned char>(op[0]) != c) continue;
        size_t k = 1;
        for (; k < op.size(); ++k) {
            if (k >= got.size()) {
                const int d = MLX_next_char(r, false);
                if (d == -1) break;
                got += char(d);
            }
            if (got[k] != op[k]) break;
        }
        if (k == op.size() && op.size() > best_len) {
            best = int(i);
            best_len = op.size();
        }
    }
    // Give back what lies beyond the match (or everything but the first character).
    const size_t keep = best >= 0 ? best_len : 1;
    for (size_t k = got.size(); k-- > keep;) MLX_unread(r, static_cast<unsigned char>(got[k]));
    if (best < 0) return -1;
    const std::string& op = MLX_user_operators[size_t(best)].text;
    const int next = MLX_next_char(r, true);
    bool word = is_ident_start(static_cast<unsigned char>(op[0]));
    for (char ch : op) word = word && is_ident_char(static_cast<unsigned char>(ch));
    if (word && is_ident_char(next)) {
        // "foo" as an operator does not split "foobar".
        MLX_unread(r, next);
        for (size_t k = op.size(); k-- > 1;) MLX_unread(r, static_cast<unsigned char>(op[k]));
        return -1;
    }
    MLX_unread(r, next);
    return best;
}

// Two- and three-character operators; returns false for a character that starts no token.
bool scan_operator(MLX_source& r, int c) {
    auto two = [&](int second, int kind2, int prio2, int kind1, int prio1) {
        const int d = MLX_next_char(r, true);
        if (d == second) return make(r, kind2, prio2);
        MLX_unread(r, d);
        make(r, kind1, prio1);
    };
    switch (c) {
    case '!': two('!', TK_FACT2, 1300, '!', 1300); return true;
    case '$': make(r, '$', 300); return true;
    case '%': {
        const int d = MLX_next_char(r, true);
        if (d == 'i') {
            const int e = MLX_next_char(r, true);
            if (e == 'f') {
                make(r, TK_STATIC_IF, 0);
                return true;
            }
            MLX_unread(r, e);
            MLX_unread(r, d);
        } else {
            MLX_unread(r, d);
        }
        make(r, '%', 0);
        return true;
    }
    case '\'': make(r, '\'', 1900); return true;
    case '(':
    case '[': make(r, c, 1800); return true;
    case ')':
    case ',':
    case ';':
    case ']':
    case '{':
    case '}': make(r, c, 0); return true;
    case '*':
    case '/': make(r, c, 1100); return true;
    case '+': make(r, '+', 1000); return true;
    case '-': {
        const int d = MLX_next_char(r, true);
        if (d == '>') return make(r, TK_ARROW, 0), true;
        if (d == '-') {
            const int e = MLX_next_char(r, true);
            if (e == '>') return make(r, TK_LONG_ARROW, 0), true;
            MLX_unread(r, e);
            MLX_unread(r, d);
        } else {
            MLX_unread(r, d);
        }
        make(r, '-', 1000);
        return true;
    }
    case '.': {
        const int d = MLX_next_char(r, true);
        if (d == '.') {
            const int e = MLX_next_char(r, true);
            if (e == '.') return make(r, TK_HULL, 850), true;
            MLX_unread(r, e);
            make(r, TK_RANGE, 500);
            return true;
        }
        MLX_unread(r, d);
        if (is_digit(d)) r.after_dot = true;
        make(r, '.', 1700);
        return true;
    }
    case ':': {
        const int d = MLX_next_char(r, true);
        if (d == '=') return make(r, TK_ASSIGN, 0), true;
        if (d == ':') {
            r.after_scope = true;
            make(r, TK_SCOPE, 2000);
            return true;
        }
        MLX_unread(r, d);
        make(r, ':', 0);
        return true;
    }
    case '<': {
        const int d = MLX_next_char(r, true);
        if (d == '>') return make(r, TK_UNEQUAL, 400), true;
        if (d == '=') {
            const int e = MLX_next_char(r, true);
            if (e == '>') return make(r, TK_EQUIV, 50), true;
            MLX_unread(r, e);
            make(r, TK_LEEQUAL, 400);
            return true;
        }
        MLX_unread(r, d);
        make(r, '<', 400);
        return true;
    }
    case '=': {
        const int d = MLX_next_char(r, true);
        if (d == '=') {
            const int e = MLX_next_char(r, true);
            if (e == '>') return make(r, TK_IMPLIES, 75), true;
            MLX_unread(r, e);
            MLX_unread(r, d);
        } else {
            MLX_unread(r, d);
        }
        make(r, '=', 400);
        return true;
    }
    case '>': two('=', TK_GEEQUAL, 400, '>', 400); return true;
    case '@': two('@', TK_NEST, 1600, '@', 1500); return true;
    case '^': make(r, '^', 1200); return true;
    case '|': make(r, '|', 30); return true;
    default: return false;
    }
}

}  // namespace

int MLX_keyword_lookup(std::string_view text, int* priority) {
    if (text.empty() || text.size() > 12) return 0;
    for (const Keyword& k : keywords) {
        if (text == k.text) {
            if (priority) *priority = k.priority;
            return k.kind;
        }
    }
    return 0;
}

std::string MLX_token_name(int kind) {
    if (kind >= 0 && kind < 256) return std::string(1, char(kind));
    for (const Named& n : named_tokens)
        if (n.kind == kind) return n.text;
    for (const Keyword& k : keywords)
        if (k.kind == kind) return k.text;
    return "?";
}

int MLX_next_char(MLX_source& r, bool strict) {
    int c;
    if (r.ring_head != r.ring_tail) {
        c = r.ring[r.ring_head];
        r.ring_head = (r.ring_head + 1) % 128;
    } else {
        c = r.read_char();
        if (c == -1) return -1;
        ++r.column;
        if (c == '\n') {
            ++r.line;
            r.column = 0;
        }
    }
    if (c == '\\' && strict) return continuation(r);
    return c;
}

// Characters go back in front of those already waiting, so the last one given back is
// read first; callers give back a run of characters from its end.
void MLX_unread(MLX_source& r, int c) {
    if (c == -1) return;  // the end of input is met again by reading on
    r.ring_head = (r.ring_head + 127) % 128;
    r.ring[r.ring_head] = c;
}

void MLX_scan_token(MLX_source& r) {
    const bool after_scope = r.after_scope;
    r.after_scope = false;
    for (;;) {
        int c = MLX_next_char(r, true);
        while (c == ' ' || c == '\t' || c == '\n' || c == '\r') c = MLX_next_char(r, true);
        r.tok.line = r.line;
        r.tok.column = r.column;
        if (c == -1) {
            make(r, TK_EOF, 0);
            return;
        }
        if (int i = match_user_operator(r, c); i >= 0) {
            const MLX_user_operator& op = MLX_user_operators[size_t(i)];
            make(r, op.kind, op.priority);
            MMM_retain(op.function);
            set_value(r.tok, op.function);
            r.allow_command = false;
            return;
        }
        if (r.allow_command) {
            r.allow_command = false;
            if (c == '?' || c == '!') {
                std::string rest;
                for (int d = MLX_next_char(r, false); d != -1 && d != '\n'; d = MLX_next_char(r, false)) rest += char(d);
                make(r, c == '?' ? TK_HELP : TK_SYSTEM, 0);
                set_value(r.tok, MMM_make_string(rest));
                return;
            }
        }
        if (c < 128 && (is_ident_start(c) || c == '`')) {
            scan_identifier(r, c, after_scope);
            return;
        }
        if (c < 128 && is_digit(c)) {
            scan_number(r, c);
            return;
        }
        r.after_dot = false;
        if (c == '/') {
            const int d = MLX_next_char(r, false);
            if (d == '/') {
                int e;
                do e = MLX_next_char(r, false);
                while (e != '\n' && e != -1);
                if (e == -1) {
                    make(r, TK_EOF, 0);
                    return;
                }
                continue;
            }
            if (d == '*') {
                if (!scan_comment(r)) return;
                continue;
            }
            // A backslash goes back too and is read as a continuation by the next token.
            MLX_unread(r, d);
            make(r, '/', 1100);
            return;
        }
        if (c == '"') {
            scan_string(r);
            return;
        }
        if (scan_operator(r, c)) return;
        r.report(MER_ILLEGAL_CHARACTER, c);
    }
}

int MLX_peek_token(MLX_source& r) {
    MLX_token saved = r.tok;
    r.tok = MLX_token{};
    MLX_scan_token(r);
    r.ahead = r.tok;
    r.tok = saved;
    return r.ahead.kind;
}

MLX_source::~MLX_source() {
    MMM_release(tok.value);
    MMM_release(ahead.value);
}

void MLX_source::reset_lexer() {
    MMM_release(tok.value);
    MMM_release(ahead.value);
    tok = MLX_token{};
    ahead = MLX_token{};
    ahead.kind = 0;
    ring_head = ring_tail = 0;
}

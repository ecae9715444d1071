// The reader: the parts of MPA_reader that are neither lexer nor grammar (tokens, error
// reports, the run of one read), and the tree dump.
#include <cstdio>
#include <string>

#include "MAR_numbers.h"
#include "MER_error.h"
#include "MMM_ident.h"
#include "MMM_table.h"
#include "MMM_values.h"
#include "MPA_reader.h"
#include "MSY_process.h"

// ---- the reader ----

MPA_reader::MPA_reader(bool allow_cmd, int max_print) : MLX_source(allow_cmd), max_printed(max_print) {}

MPA_reader::~MPA_reader() {
    MMM_release(result_);
    for (auto* v : {&scope_params, &scope_locals, &scope_names})
        for (Cell c : *v) MMM_release(c);
}

int MPA_reader::next_token() {
    if (ahead.kind) {
        MMM_release(tok.value);
        tok = ahead;
        ahead = MLX_token{};
        ahead.kind = 0;
        return tok.kind;
    }
    MLX_scan_token(*this);
    return tok.kind;
}

void MPA_reader::syntax_error(int expected) {
    if (tok.kind == TK_EOF && !errors && !aborted) incomplete = true;
    if (expected < 0) {
        report(MER_END_EXPECTED);
        return;
    }
    if (expected == 0) {
        report(MER_UNEXPECTED_TOKEN, MLX_token_name(tok.kind).c_str());
        return;
    }
    report(MER_TOKEN_EXPECTED, MLX_token_name(expected).c_str());
    // Insert the wanted token: the current one waits in the lookahead.
    MMM_release(ahead.value);
    ahead = tok;
    tok = MLX_token{};
    tok.kind = expected;
    tok.priority = 1000000;
    tok.line = ahead.line;
    tok.column = ahead.column;
    if (expected == TK_HELP || expected == TK_SYSTEM || expected == TK_STRING) {
        tok.value = MMM_make_string("<error>");
        tok.priority = 0;
    } else if (expected == TK_IDENT) {
        tok.value = MMM_ident_named("<error>");
        tok.priority = 0;
    } else if (expected == TK_INTEGER || expected == TK_FLOAT || expected == TK_FLOAT_DOT) {
        tok.value = MMM_new_string("0.1");
        tok.priority = 0;
    }
}

void MPA_reader::set_error(long code) {
    if (code < 0) return;
    if (!MER_pending) MER_pending = code;
    ++errors;
}

void MPA_reader::report(long code, ...) {
    set_error(code);
    if (code >= 0 && errors > max_printed) return;
    va_list args;
    va_start(args, code);
    std::string text = MER_format(code, args);
    va_end(args);
    char where[64];
    if (file_name.empty()) std::snprintf(where, sizeof where, "line %d, col %d: ", line, column);
    std::string msg = code < 0 ? "Warning: " : "Error: ";
    if (!file_name.empty()) msg += "file " + file_name + ", ";
    msg += file_name.empty() ? where : (std::snprintf(where, sizeof where, "line %d, col %d: ", line, column), where);
    msg += text;
    if (code > 0) {
        MER_last = code;
        MER_last_text = msg;
    }
    if (!MER_trapped || code < 0) MSY_write_report(code, msg + "\n");
}

Cell MPA_reader::eval_statement(Cell statement, bool silent) { return MPA_hooks.toplevel_eval(statement, !silent); }

void MPA_reader::print_result(Cell, bool) {}

void MPA_reader::run() {
    const int32_t saved_follow_eof = follow_counts[TK_EOF];
    reset_lexer();
    ++nesting;
    prepare();
    try {
        MPA_parse_input(*this);
    } catch (const MER_exception&) {
        aborted = true;
        MMM_release(result_);
        result_ = nullptr;
    }
    --nesting;
    follow_counts[TK_EOF] = saved_follow_eof;
    if (errors || aborted) {
        MMM_release(result_);
        result_ = nullptr;
    }
}


void MPA_local_string_reader::prepare() {
    // The scopes of the running procedures, outermost first, so that their names read as
    // the locals they are.
    for (auto* v : {&scope_params, &scope_locals, &scope_names}) {
        for (Cell c : *v) MMM_release(c);
        v->clear();
    }
    if (MPA_hooks.running_scopes) MPA_hooks.running_scopes(scope_params, scope_locals, scope_names);
    proc_depth = int32_t(scope_params.size());
}

// ---- tree dump ----

namespace {

void dump_into(std::string& out, Cell t) {
    if (!t) {
        out += "<null>";
        return;
    }
    if (MMM_kind_of(t) != MMM_NODE) {
        out += "<kind " + std::to_string(MMM_kind_of(t)) + ">";
        return;
    }
    const int cat = MMM_category(t);
    switch (cat) {
    case DOM_IDENT: out += MMM_ident_text(t); return;
    case DOM_STRING:
        out += '"';
        out += MMM_string_view(MMM_child(t, 0));
        out += '"';
        return;
    case DOM_VAR:
        out += "DOM_VAR(" + std::to_string(MMM_var_depth(t)) + ", " + std::to_string(MMM_var_index(t)) + ")";
        return;
    case DOM_NIL: out += "NIL"; return;
    case DOM_NULL: out += "NULL"; return;
    case DOM_FAIL: out += "FAIL"; return;
    case DOM_BOOL:
        out += t == MMM_TRUE ? "TRUE" : t == MMM_FALSE ? "FALSE" : "UNKNOWN";
        return;
    case CAT_BIG_INT:
    case DOM_INT:
    case DOM_RAT:
    case DOM_FLOAT:
    case DOM_COMPLEX: out += MAR_debug_text(t); return;
    default: break;
    }
    const long n = MMM_child_count(t);
    long first = 0;
    if (cat == DOM_EXPR) {
        dump_into(out, MMM_child(t, 0));
        first = 1;
    } else if (cat == DOM_LIST) {
        out += "DOM_LIST";
    } else if (cat == DOM_SET) {
        out += "DOM_SET";
        out += '(';
        MMM_table_walker w(MMM_child(t, MMM_TABLE_HASH));
        Cell key, value;
        for (bool first_key = true; w.next(&key, &value); first_key = false) {
            if (!first_key) out += ", ";
            dump_into(out, key);
        }
        out += ')';
        return;
    } else {
        const char* name = MMM_category_name(cat);
        out += name ? name : "DOM_" + std::to_string(cat);
    }
    out += '(';
    for (long i = first; i < n; ++i) {
        if (i > first) out += ", ";
        dump_into(out, MMM_child(t, i));
    }
    out += ')';
}

}  // namespace

std::string MPA_dump(Cell tree) {
    std::string out;
    dump_into(out, tree);
    return out;
}


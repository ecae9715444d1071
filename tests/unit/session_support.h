// Helpers of the tests that run inside a live session.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

#include "MER_error.h"
#include "MMM_cell.h"
#include "MPA_reader.h"
#include "MSE_session.h"

// Runs f with the session's output going to a string, and gives that string.
template <typename F>
std::string capture_output(F f) {
    FILE* out = std::tmpfile();
    FILE* saved = MSY_output;
    MSY_output = out;
    f();
    std::fflush(out);
    MSY_output = saved;
    std::rewind(out);
    std::string text;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, out)) > 0) text.append(buf, n);
    std::fclose(out);
    return text;
}

// The tree of a text, unevaluated (owned; null when the read failed).
inline Cell parse_text(std::string_view text) {
    MPA_tree_reader r(text, false, 1);
    r.run();
    return r.take_result();
}

// The value of a statement evaluated at the top level, as `show` writes it; "Error N"
// (followed by ": " and the report's text with `with_text`) when it raised, and
// "<syntax error>" when it does not read. With `trap` the report is not printed.
inline std::string eval_shown(std::string_view text, std::string (*show)(Cell), bool with_text = false,
                              bool trap = true) {
    Cell t = parse_text(text);
    if (!t) return "<syntax error>";
    const bool trapped = MER_trapped;
    if (trap) MER_trapped = true;
    std::string out;
    try {
        Cell v = MSE_frontend.eval(t);
        out = show(v);
        MMM_release(v);
    } catch (const MER_exception& e) {
        out = "Error " + std::to_string(e.code);
        if (with_text) out += ": " + MER_last_text;
        MSE_recover(true);
    }
    MER_trapped = trapped;
    MMM_release(t);
    return out;
}

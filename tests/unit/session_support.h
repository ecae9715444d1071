// Helpers of the tests that run inside a live session.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

#include "MMM_cell.h"
#include "MPA_reader.h"
#include "MSE_session.h"

// Runs f with the session's output going to a string, and gives that string.
template <typename F>
std::string capture_output(F f) {
    FILE* out = std::tmpfile();
    FILE* saved = MSE_output;
    MSE_output = out;
    f();
    std::fflush(out);
    MSE_output = saved;
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

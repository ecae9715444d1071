// Numbered errors and warnings.
//
// An error leaves by throwing MER_exception to the nearest guard; MER_raise never
// returns. Kernel code holds plain Cells, so temporaries on the unwound frames stay
// allocated until the next sweep, as for any other lost reference.
#pragma once

#include <cstdarg>
#include <string>

struct MER_exception {
    long code;
};

// Number of the error in progress (0 when none), and of the last one reported.
extern long MER_pending;
extern long MER_last;
extern std::string MER_last_text;
extern bool MER_trapped;

[[noreturn]] void MER_raise(long number, const char* text, ...);
void MER_warn(long number, const char* text, ...);
void MER_report(long number, const char* text, va_list args);

// The message of an error number as the report writes it, before detail and context.
std::string MER_format(long number, va_list args);
// The table's format for a number, or nullptr when the number has no entry.
const char* MER_table_text(long number);

// Who is running, for the context line "during evaluation of ..."; the evaluator
// installs it. Returns false when no named call frame is active.
using MER_context_fn = bool (*)(std::string& name);
void MER_set_context_routine(MER_context_fn fn);

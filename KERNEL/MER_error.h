// Numbered errors and warnings.
//
// An error leaves by throwing MER_exception to the nearest guard; MER_raise never
// returns. Kernel code holds plain Cells, so temporaries on the unwound frames stay
// allocated until the next sweep, as for any other lost reference.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <string>
#include <string_view>

#include "MMM_cell.h"

struct MER_exception {
    long code;
};

// Number of the error in progress (0 when none), and of the last one reported.
extern long MER_pending;
extern long MER_last;
// The report of MER_last as it was written (or would have been, when trapped): what
// `lasterror` prints again and `getlasterror` gives. `traperror` leaves it alone, so the
// message of a trapped error can be read after the trap.
extern std::string MER_last_text;
// True while a traperror runs: errors are not printed (warnings are).
extern bool MER_trapped;

// Reports (except 1300, whose report waits for the sweep in MER_reset) and throws. 1400
// reports the last error again and throws with its number.
[[noreturn]] void MER_raise(long number, const char* text, ...);
void MER_warn(long number, const char* text, ...);
// The message writer: "Error: " or "Warning: ", the table's format with `args`, the
// detail (alone for 1028 and -1005, else " [detail]"), the running procedure and the file
// being read; kept as the last report for a positive number, printed unless trapped (a
// warning always).
void MER_report(long number, const char* text, va_list args);
// Writes a finished text as it stands on the channel of the number: errors on _err,
// warnings on _wrn, 1014 on the system's error stream.
void MER_write(long number, std::string_view text);
// Recovery after an error reached the top level: 1014 ends the session; the evaluator's
// depths and frame are cleared and the PARI stack reset; after 1300 the heap is swept and
// only then is the error reported. With `clear`, no error is pending afterwards.
void MER_reset(bool clear);

// The settings a trap or the printing of a message puts back: LEVEL and the saved level,
// DIGITS with the working precision, ORDER, HISTORY, MAXLEVEL, MAXDEPTH, TEXTWIDTH,
// PRETTYPRINT, the four paths, the current frame, the printer's switches and settings and
// the formats of the output channels. Cells are retained, not copied.
struct MER_snapshot_record {
    bool held = false;
    int32_t level = 0, level_saved = 0, digits = 0, order = 0, precision_words = 0;
    long pari_precision = 0;
    int32_t history = 0, max_level = 0, max_depth = 0;
    long textwidth = 0;
    bool pretty = false;
    Cell lib_path = nullptr, read_path = nullptr, write_path = nullptr, package_path = nullptr;
    Cell frame = nullptr;
    bool unquoted = false, in_method = false, for_text = false, source_form = false, statement_layout = false,
         trailing_zeroes = false;
    int32_t indent = 0;
    int keep_order = 0;
    int formats[16] = {};
};
void MER_snapshot(MER_snapshot_record& record);
// Sets the settings back, releasing what had replaced them; the record keeps its cells.
void MER_restore(MER_snapshot_record& record);
void MER_free_snapshot(MER_snapshot_record& record);
// Takes the current settings into a record that may hold older ones.
void MER_refresh_snapshot(MER_snapshot_record& record);

// The message of an error number as the report writes it, before detail and context.
std::string MER_format(long number, va_list args);
// The table's format for a number, or nullptr when the number has no entry.
const char* MER_table_text(long number);

// Who is running, for the context line "during evaluation of ..."; the evaluator
// installs it. Returns false when no named call frame is active.
using MER_context_fn = bool (*)(std::string& name);
void MER_set_context_routine(MER_context_fn fn);
// The name of the running procedure as the context line gives it; false for none.
bool MER_context_name(std::string& name);

// Numbered errors and warnings.
//
// An error leaves by throwing MER_exception to the nearest guard; MER_raise never
// returns. Kernel code holds plain Cells, so temporaries on the unwound frames stay
// allocated until the next sweep, as for any other lost reference.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "MER_codes.h"

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

// Reports (except MER_OUT_OF_MEMORY, whose report waits for the sweep in MER_reset) and
// throws. MER_REPEAT_LAST reports the last error again and throws with its number.
[[noreturn]] void MER_raise(long number, const char* text, ...);
void MER_warn(long number, const char* text, ...);
// The message writer: "Error: " or "Warning: ", the table's format with `args`, the
// detail (alone for MER_USER_ERROR and MER_WARN_USER, else " [detail]"), the running
// procedure and the file being read; kept as the last report for a positive number,
// printed unless trapped (a warning always).
void MER_report(long number, const char* text, va_list args);
// Writes a finished text as it stands on the channel of the number (through the
// process's report writer): errors on _err, warnings on _wrn, MER_SYSTEM_FAILURE on the
// system's error stream.
void MER_write(long number, std::string_view text);

// ---- settings put back after a trap or a report ----
// A module whose settings a trap, or the printing of a report, must put back registers a
// saver once at start: `bytes` of room in a snapshot; `save` writes the current settings
// into that room (retaining any cell it keeps), `restore` sets them back from it (the
// room keeps what it holds), `drop` lets go of what `save` retained (null when nothing
// is). A snapshot is a fixed block with no memory of its own; the savers run in the
// order they were registered. Registering the same saver again changes nothing.
struct MER_state_saver {
    size_t bytes;
    void (*save)(void* room);
    void (*restore)(const void* room);
    void (*drop)(void* room);
};
void MER_add_state(const MER_state_saver& saver);

constexpr size_t MER_SNAPSHOT_BYTES = 512;
struct MER_snapshot_record {
    bool held = false;
    alignas(std::max_align_t) unsigned char room[MER_SNAPSHOT_BYTES];
};
void MER_snapshot(MER_snapshot_record& record);
// Sets the settings back; the record keeps what it holds.
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
// The file being read, for the context line "while reading file ..."; the session
// installs it. Returns false when no file is being read.
void MER_set_file_routine(MER_context_fn fn);

#include "MER_error.h"

#include <cstdio>
#include <vector>

#include "MSY_process.h"

long MER_pending = 0;
long MER_last = 0;
std::string MER_last_text;
bool MER_trapped = false;

namespace {

// The reporting address of internal failures is the project's issue tracker.
constexpr const char* PARI_FAILURE =
    "Unexpected failure in the number library (%ld), please report it on the Torva issue tracker";

// Numbers below 1000 come from the number library and map through this switch.
const char* pari_text(long n) {
    switch (n) {
    case 8: case 9: case 10: case 12: case 13: case 14: case 15: case 16: case 17: case 18:
    case 19: case 20: case 21: case 22: case 29: case 32: case 33: case 34:
        return "Overflow/underflow in arithmetical operation";
    case 11: case 431: return "Loss of precision";
    case 23: case 24: case 25: case 26: case 27: case 28: case 30: case 31: case 260: case 313:
        return "Division by zero";
    case 36: return "Division by zero in div or mod";
    case 44: return "PARI stack overflow. Doubling the stack size.\n       New size: %ld KB. Please retype the last command";
    case 45: return "Can't convert to double (out of range)";
    case 98: return "Exponent of a real number is too large";
    case 103: return "Modular inverse does not exist";
    case 118: return "Not enough precalculated primes";
    case 282: return "Complex arguments are not allowed in comparisons";
    case 315: case 323: case 325: return "Illegal argument in div or mod";
    case 360: return "Fatal PARI error: Out of memory";
    case 363: return "No memory available for expanding the PARI stack";
    case 426: case 461: case 484: case 499: return "singularity";
    default: return nullptr;
    }
}

MER_context_fn context_routine = nullptr;
MER_context_fn file_routine = nullptr;

std::string vformat(const char* fmt, va_list args) {
    va_list copy;
    va_copy(copy, args);
    const int n = std::vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    if (n <= 0) return {};
    std::vector<char> buf(size_t(n) + 1);
    std::vsnprintf(buf.data(), buf.size(), fmt, args);
    return std::string(buf.data(), size_t(n));
}

}  // namespace

void MER_set_context_routine(MER_context_fn fn) { context_routine = fn; }

void MER_set_file_routine(MER_context_fn fn) { file_routine = fn; }

bool MER_context_name(std::string& name) { return context_routine && context_routine(name); }

std::string MER_format(long number, va_list args) {
    if (const char* fmt = MER_table_text(number)) return vformat(fmt, args);
    if (number > 0 && number < 1000) {
        if (const char* fmt = pari_text(number)) return vformat(fmt, args);
        char buf[200];
        std::snprintf(buf, sizeof buf, PARI_FAILURE, number);
        return buf;
    }
    return MER_table_text(MER_UNKNOWN_ERROR);
}

void MER_write(long number, std::string_view text) { MSY_write_report(number, text); }

void MER_report(long number, const char* text, va_list args) {
    if (number == MER_REPEAT_LAST) {
        MER_pending = MER_last;
        if (!MER_trapped && MER_last) MER_write(MER_last, MER_last_text + "\n");
        return;
    }
    const bool warning = number < 0;
    if (number > 0) {
        MER_last = number;
        MER_last_text.clear();
    }
    std::string msg = warning ? "Warning: " : "Error: ";
    msg += MER_format(number, args);
    const bool alone = number == MER_USER_ERROR || number == MER_WARN_USER;
    if (text && *text) {
        if (alone) msg += text;
        else (msg += " [") += std::string(text) + "]";
    }
    // A refused quit concerns the session, not the running procedure.
    if (!alone && number != MER_WARN_QUIT_VIA_INTERFACE) {
        std::string name;
        if (MER_context_name(name)) msg += ";\nduring evaluation of '" + name.substr(0, 400) + "'";
    }
    std::string file;
    if (file_routine && file_routine(file)) msg += ";\nwhile reading file '" + file + "'";
    if (number > 0) MER_last_text = msg;
    if (!MER_trapped || warning) {
        // Printing may one day run library code (a client's format); whatever it changes
        // of the settings is put back.
        MER_snapshot_record saved;
        MER_snapshot(saved);
        MER_write(number, msg + "\n");
        MER_restore(saved);
        MER_free_snapshot(saved);
    }
}

[[noreturn]] void MER_raise(long number, const char* text, ...) {
    MER_pending = number;
    if (number != MER_OUT_OF_MEMORY) {
        va_list args;
        va_start(args, text);
        MER_report(number, text, args);
        va_end(args);
    }
    // MER_REPEAT_LAST leaves with the number of the error it repeated.
    throw MER_exception{number == MER_REPEAT_LAST ? MER_pending : number};
}

void MER_warn(long number, const char* text, ...) {
    va_list args;
    va_start(args, text);
    MER_report(number, text, args);
    va_end(args);
}

// ---- snapshots ----

namespace {

std::vector<MER_state_saver> savers;
std::vector<size_t> offsets;  // of each saver's room in a snapshot
size_t used = 0;

constexpr size_t aligned(size_t n) { return (n + alignof(std::max_align_t) - 1) & ~(alignof(std::max_align_t) - 1); }

}  // namespace

void MER_add_state(const MER_state_saver& saver) {
    for (const MER_state_saver& s : savers)
        if (s.save == saver.save) return;
    if (!saver.save || !saver.restore || used + aligned(saver.bytes) > MER_SNAPSHOT_BYTES)
        MSY_fatal("Internal error. [MER_add_state: no room for the settings of a module]");
    savers.push_back(saver);
    offsets.push_back(used);
    used += aligned(saver.bytes);
}

void MER_snapshot(MER_snapshot_record& r) {
    for (size_t i = 0; i < savers.size(); ++i) savers[i].save(r.room + offsets[i]);
    r.held = true;
}

void MER_restore(MER_snapshot_record& r) {
    if (!r.held) return;
    for (size_t i = 0; i < savers.size(); ++i) savers[i].restore(r.room + offsets[i]);
}

void MER_free_snapshot(MER_snapshot_record& r) {
    if (!r.held) return;
    for (size_t i = 0; i < savers.size(); ++i)
        if (savers[i].drop) savers[i].drop(r.room + offsets[i]);
    r.held = false;
}

void MER_refresh_snapshot(MER_snapshot_record& r) {
    MER_free_snapshot(r);
    MER_snapshot(r);
}

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
constexpr const char* INTERNAL_FAILURE =
    "Internal failure, please report it on the Torva issue tracker";
constexpr const char* PARI_FAILURE =
    "Unexpected failure in the number library (%ld), please report it on the Torva issue tracker";

struct Entry {
    long number;
    const char* text;
};

// The lookup is a linear walk, ended by the entry with number 0.
const Entry table[] = {
    {1028, ""},
    {1070, "Cannot delete the current or a parent frame"},
    {1001, "Illegal operand"},
    {1100, "Unknown external object"},
    {1002, "Expression expected"},
    {1102, "Computation aborted"},
    {1003, "Can't evaluate to boolean"},
    {1201, "%s"},
    {1004, "Wrong number of arguments"},
    {1039, "Illegal color specification"},
    {1005, "Illegal argument"},
    {1027, "Can't 'reset' in procedures"},
    {1006, "Real number expected"},
    {1300, "Out of memory"},
    {1007, "Can't write to file \"%s\""},
    {1060, "Unknown MCODE object \"%d\" in object \"%s\" "},
    {1021, "Can't read from file \"%s\""},
    {1061, "Unknown reference reading MCODE"},
    {1008, "Unknown error"},
    {1062, "Reading wrong MCODE object, expecting a \"%s\" object"},
    {1009, "Invalid sign"},
    {1040, "Exponent overflow"},
    {1010, "Recursive definition"},
    {1041, "Wrong type of DOM_EXEC object"},
    {1011, "Invalid left-hand side"},
    {1042, "Positive value expected"},
    {1012, "Argument out of range"},
    {1103, INTERNAL_FAILURE},
    {1016, "Incompatible arguments in range"},
    {1106, "Internal failure, can't resume! Kernel stopped"},
    {1022, "Index out of range"},
    {1104, "Illegal context"},
    {1119, "Index dimension mismatch"},
    {1105, "Illegal coefficient ring, \"%s\" missing"},
    {1023, "Illegal index type"},
    {1080, "Illegal coefficient ring"},
    {1013, "Integer expected"},
    {1043, "Unexpected boolean UNKNOWN"},
    {1026, "Positive integer expected"},
    {1044, "Watchdog reset"},
    {1014, "Internal system failure"},
    {1045, "Evaluation of argument failed"},
    {1015, "Specified operand doesn't exist"},
    {1046, "Identifier '%s' is protected"},
    {1017, "Invalid index"},
    {1048, "No atomar type"},
    {1018, "Substitution not allowed"},
    {1049, "Invalid variable"},
    {1020, "String too long"},
    {1107, "Secure kernel, permission denied"},
    {1019, "Invalid function"},
    {1108, "Non-negative integer expected"},
    {1101, "Unknown operator"},
    {1109, "Domain key already exists"},
    {1024, "Array dimension not a positive integer"},
    {1110, "Empty or duplicate domain key"},
    {1025, "Division by zero"},
    {1113, "Illegal parser configuration"},
    {1029, "Integer too large in context"},
    {1114, "Illegal variable context"},
    {1030, "Unknown option"},
    {1115, "Function not available for this client"},
    {1031, "No indeterminates"},
    {1116, "No such client"},
    {1032, "Illegal indeterminate"},
    {1117, "Unknown slot"},
    {1033, "Polynomial expected"},
    {1118, "Unknown slot \"%s\""},
    {1034, "Unknown type"},
    {1047, "Identifier has a value"},
    {1037, "Function call not allowed on interactive level"},
    {1202, "%s"},
    {1038, "Returned value has illegal type"},
    {2000, "Unexpected end of input in %s"},
    {1035, "Not yet implemented"},
    {2001, "End of input expected"},
    {1036, "Domain attribute \"%s\" missing"},
    {2002, "Illegal character '%c'"},
    {2003, "Unexpected '%s'"},
    {2008, "Multiple inherited domains, ignored"},
    {2004, "'%s' expected"},
    {2009, "Unexpected character after \\"},
    {2006, "Unknown procedure option '%s'"},
    {1302, "Infinite recursion in output detected"},
    {2005, "Invalid left-hand side in assignment"},
    {1050, "Illegal polynomial variable ordering"},
    {2007, "Multiple procedure names, ignored"},
    {1320, "Execution time exceeded"},
    {-1000, "Uninitialized variable '%s' used"},
    {-1001, "Quit the kernel via the user interface"},
    {-1002, "Debugging is not supported"},
    {-2001, "Unexpected escape character '\\%c' in string"},
    {-2002, "Former environment variable '%s' used as local"},
    {-1003, "Procedure '%s' is referring outer lexical closure"},
    {-1004, "Found dead closure of procedure '%s'"},
    {-1201, "Dumb terminal: Plot data saved in binary file save.mp"},
    {-1005, ""},
    {0, nullptr},
};

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

const char* MER_table_text(long number) {
    for (const Entry* e = table; e->text; ++e)
        if (e->number == number) return e->text;
    return nullptr;
}

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
    return MER_table_text(1008);
}

void MER_write(long number, std::string_view text) { MSY_write_report(number, text); }

void MER_report(long number, const char* text, va_list args) {
    if (number == 1400) {
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
    const bool alone = number == 1028 || number == -1005;
    if (text && *text) {
        if (alone) msg += text;
        else (msg += " [") += std::string(text) + "]";
    }
    if (!alone) {
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
    if (number != 1300) {
        va_list args;
        va_start(args, text);
        MER_report(number, text, args);
        va_end(args);
    }
    // 1400 leaves with the number of the error it repeated.
    throw MER_exception{number == 1400 ? MER_pending : number};
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

// Command-line options of the kernel and the defaults they change.
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "MSE_session.h"
#include "MPA_reader.h"
#include "MSY_process.h"

const char* const MSE_usage_text =
    "Usage:\ntorvkern [/g] [/f] [/F] [/v] [/l libpath] [/p packagepath]\n"
    "        [/m modpath] [/u userpath] [/h helppath] [/w sec]\n"
    "        [/a stacksize] [/b -] [/b output] [file...]";

namespace {

constexpr size_t PATH_LIMIT = 260;
constexpr long PRIME_LIMIT_MAX = 0x7ffffefe;
constexpr char LIST_SEPARATOR = ';';

[[noreturn]] void usage() { MSE_fatal(MSE_usage_text); }

bool is_option_group(const char* letters) {
    for (const char* p = letters; *p; ++p)
        if (!std::isalnum(static_cast<unsigned char>(*p))) return false;
    return true;
}

std::string parent_dir(const std::string& path) {
    const auto slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

void append_list(std::string& list, const std::string& item) {
    if (!list.empty()) list += LIST_SEPARATOR;
    list += item;
}

void set_lib_path(const std::string& value) {
    MSE_session.lib_path = value;
    const auto comma = value.find_last_of(',');
    MSE_session.lib_dir = comma == std::string::npos ? value : value.substr(comma + 1);
}

// Decimal with C's reading: leading blanks, a sign, digits; the rest is ignored.
long parse_long(const char* s, bool& out_of_range) {
    errno = 0;
    const long v = std::strtol(s, nullptr, 10);
    out_of_range = errno == ERANGE;
    return v;
}

void option_stack_size(const char* value) {
    bool range = false;
    const long v = parse_long(value, range);
    if (range && v > 0) {
        std::fprintf(stderr, "Stack size out of range. Trying maximum size: %ld Bytes.\n", v);
        MSE_session.stack_size = v;
    } else if (v <= 0) {
        std::fprintf(stderr, "Stack size must be integer > 0. Using default size: %ld Bytes.\n",
                     MSE_session.stack_size);
    } else {
        MSE_session.stack_size = v;
    }
}

void option_prime_limit(const char* value) {
    bool range = false;
    const long v = parse_long(value, range);
    if (range || v < 1 || v > PRIME_LIMIT_MAX) {
        std::fprintf(stderr, "Prime number limit must be integer of range 1..%ld.\nUsing default size:  %ld\n",
                     PRIME_LIMIT_MAX, MSE_session.prime_limit);
        return;
    }
    MSE_session.prime_limit = v;
}

void option_watchdog(const char* value) {
    if (!*value) usage();
    for (const char* p = value; *p; ++p)
        if (*p < '0' || *p > '9') usage();
    bool range = false;
    const long seconds = parse_long(value, range);
    if (range) usage();
    MSY_watchdog_start(seconds);
}

void set_preference(bool& current, bool& start, bool on) { current = start = on; }

// /P: a path keyword taking one more argument, or a word of preference letters.
// Gives how many further arguments it took.
int option_preferences(const char* keyword, const char* next) {
    struct PathKey {
        const char* name;
        std::string* list;
        bool extend;
    };
    const PathKey keys[] = {
        {"SRP=", &MSE_session.secure_read_path, false},  {"srp=", &MSE_session.secure_read_path, false},
        {"SRP+", &MSE_session.secure_read_path, true},   {"srp+", &MSE_session.secure_read_path, true},
        {"SWP=", &MSE_session.secure_write_path, false}, {"swp=", &MSE_session.secure_write_path, false},
        {"SWP+", &MSE_session.secure_write_path, true},  {"swp+", &MSE_session.secure_write_path, true},
        {"SXP=", &MSE_session.secure_exec_path, false},  {"sxp=", &MSE_session.secure_exec_path, false},
        {"SXP+", &MSE_session.secure_exec_path, true},   {"sxp+", &MSE_session.secure_exec_path, true},
    };
    for (const PathKey& k : keys) {
        if (std::strcmp(keyword, k.name) != 0) continue;
        if (!next) usage();
        if (k.extend) append_list(*k.list, next);
        else *k.list = next;
        return 1;
    }
    for (const char* p = keyword; *p; ++p) {
        switch (*p) {
        case 's': set_preference(MSE_pref.secure_kernel, MSE_session.secure_kernel, false); break;
        case 'S': set_preference(MSE_pref.secure_kernel, MSE_session.secure_kernel, true); break;
        case 'l': set_preference(MSE_pref.signed_lib_only, MSE_session.signed_lib_only, false); break;
        case 'L': set_preference(MSE_pref.signed_lib_only, MSE_session.signed_lib_only, true); break;
        case 'w': set_preference(MPA_warn_changes, MSE_session.warn_changes, false); break;
        case 'W': set_preference(MPA_warn_changes, MSE_session.warn_changes, true); break;
        default: usage();
        }
    }
    return 0;
}

std::string truncated(const char* s) {
    std::string v(s);
    if (v.size() >= PATH_LIMIT) v.resize(PATH_LIMIT - 1);
    return v;
}

}  // namespace

void MSE_set_defaults(const char* argv0) {
    MSE_session_record& s = MSE_session;
    s = MSE_session_record{};
    MSE_pref = MSE_preferences{};
    s.std_out = stdout;
    s.std_err = stderr;
    s.program_path = argv0 ? argv0 : "torvkern";

    std::error_code ec;
    auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
    std::string program = ec ? s.program_path : exe.string();
    if (!ec || program.find('/') != std::string::npos) {
        s.bin_dir = parent_dir(std::filesystem::absolute(program, ec).string());
    } else {
        s.bin_dir = ".";
    }
    s.root_dir = parent_dir(s.bin_dir);
    s.module_dir = s.default_module_dir = s.root_dir + "/modules";
    const char* home = std::getenv("HOME");
    s.user_dir = home && *home ? home : s.root_dir;
    const char* tmp = std::getenv("TMPDIR");
    s.temp_dir = tmp && *tmp ? tmp : "/tmp";
    set_lib_path(s.root_dir + "/lib");

    // A kernel started under the name "storva" is a secure kernel, for good.
    if (std::filesystem::path(s.program_path).filename() == "storva") s.secure_kernel = MSE_pref.secure_kernel = true;
}

int MSE_parse_options(int argc, char** argv) {
    MSE_session_record& s = MSE_session;
    int i = 1;
    for (; i < argc; ++i) {
        const char* arg = argv[i];
        if (arg[0] != '/' && arg[0] != '-') break;
        // Option letters are letters and digits: "/gf" is a group, "/home/me/a.tv" a file.
        if (arg[0] == '/' && !is_option_group(arg + 1)) break;
        if (std::strcmp(arg, "--") == 0) {
            ++i;
            break;
        }
        // An option with a value takes the next argument, whatever it looks like.
        auto value = [&]() -> const char* {
            if (i + 1 >= argc) usage();
            return argv[++i];
        };
        for (const char* p = arg + 1; *p; ++p) {
            switch (*p) {
            case 'a': option_stack_size(value()); break;
            case 'b':
                s.batch_output = value();
                s.interactive = false;
                s.prompt = s.echo = MSE_pref.prompt = MSE_pref.echo = false;
                break;
            case 'E':
            case 'e':
                // The server start of the embedding transport: the word must be complete.
                if (std::strcmp(p + 1, "mbedding") != 0) usage();
                p += std::strlen(p) - 1;
                break;
            case 'F': s.user_packages = false; break;
            case 'f':
            case 'n': s.read_userinit = false; break;
            case 'g': s.debug_flags |= 0x1 | 0x8; break;
            case 'h': s.help_dir = truncated(value()); break;
            case 'L': option_prime_limit(value()); break;
            case 'l': set_lib_path(value()); break;
            case 'm': s.module_dir = value(); break;
            case 'P': {
                const char* keyword = value();
                const char* next = i + 1 < argc ? argv[i + 1] : nullptr;
                i += option_preferences(keyword, next);
                break;
            }
            case 'p': {
                const char* path = value();
                append_list(s.package_path, path);
                append_list(s.secure_read_path, path);
                append_list(s.secure_exec_path, path);
                break;
            }
            case 't':
                s.coverage_file = value();
                MSE_pref.ignore_no_debug = true;
                s.debug_flags |= 0x1 | 0x8;
                break;
            case 'U': s.user_options = value(); break;
            case 'u': s.user_dir = value(); break;
            case 'V':
                std::printf("%d.%d.%d\n", MSE_VERSION_MAJOR, MSE_VERSION_MINOR, MSE_VERSION_PATCH);
                std::fflush(stdout);
                std::_Exit(0);
            case 'W':
                // The window-message start: its digits are skipped here.
                while (p[1] >= '0' && p[1] <= '9') ++p;
                break;
            case 'w': option_watchdog(value()); break;
            default: usage();
            }
        }
    }
    return argc - i;
}

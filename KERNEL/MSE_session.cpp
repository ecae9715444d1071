// Start, end and housekeeping of the session.
#include "MSE_session.h"

#include <cstdlib>
#include <new>

#include "MAR_canonical.h"
#include "MAR_numbers.h"
#include "MAR_pari.h"
#include "MAR_functions.h"
#include "MAR_integer.h"
#include "MAR_modular.h"
#include "MAR_numtext.h"
#include "MCM_equal.h"
#include "MEV_builtins.h"
#include "MEV_env.h"
#include "MEV_eval.h"
#include "MEV_ops.h"
#include "MEV_proc.h"
#include "MFN_env.h"
#include "MER_error.h"
#include "MMM_heap.h"
#include "MMM_table.h"
#include "MMM_ident.h"
#include "MMM_ref.h"
#include "MMM_values.h"
#include "MOU_print.h"
#include "MPA_reader.h"
#include "MSY_process.h"
#include "MTR_codes.h"

MSE_session_record MSE_session;
MSE_preferences MSE_pref;
MSE_frontend_hooks MSE_frontend;
MSE_limits_record MSE_limits;

namespace {

enum class State { before_start, running, stopped };
State state = State::before_start;

int tick_nesting = 0;
long tick_count = 0;
std::vector<void (*)()> tidy_hooks;
uint64_t tidy_bytes = 0;
uint64_t tidy_cells = 0;

// Report: the user's 1 to 9 stand for these tick counts.
const long report_ticks[9] = {2400, 1200, 600, 120, 80, 40, 20, 10, 2};

bool batch_to_file() { return !MSE_session.batch_output.empty() && MSE_session.batch_output != "-"; }

void fatal_out_of_memory() { MSE_fatal("Out of memory."); }

// A finished report on its channel: MER_SYSTEM_FAILURE on the system's error stream, errors and
// warnings on their output channels, in pieces of at most a channel's buffer.
void write_report(long number, std::string_view text) {
    if (number == MER_SYSTEM_FAILURE) {
        FILE* out = MSE_session.std_err ? MSE_session.std_err : stderr;
        std::fwrite(text.data(), 1, text.size(), out);
        std::fflush(out);
        return;
    }
    const MOU_channel channel = number < 0 ? MOU_WRN : MOU_ERR;
    constexpr size_t piece = 2048;
    for (size_t at = 0; at < text.size(); at += piece) {
        const size_t n = text.size() - at < piece ? text.size() - at : piece;
        MOU_printf(channel, "%.*s", int(n), text.data() + at);
    }
    std::fflush(MSY_out());
}

bool reading_file(std::string& name) {
    if (MSE_session.current_read_file.empty()) return false;
    name = MSE_session.current_read_file;
    return true;
}

// Allocation failure in a live session is a raisable error; a failure while that error
// is being recovered from ends the process.
void raise_out_of_memory() {
    if (MER_pending == MER_OUT_OF_MEMORY) MSE_fatal("Out of memory.");
    MER_raise(MER_OUT_OF_MEMORY, nullptr);
}

void new_handler_live() {
    if (MER_pending == MER_OUT_OF_MEMORY || !MSE_session.modules_up) fatal_out_of_memory();
    MER_raise(MER_OUT_OF_MEMORY, nullptr);
}

// An error that reaches the outermost guard ends the process.
[[noreturn]] void outermost(long code) {
    if (code == MER_OUT_OF_MEMORY) MSE_fatal("Out of memory.");
    if (code == MER_ABORTED) MSE_fatal("User interrupt.");
    char text[64];
    std::snprintf(text, sizeof text, "Internal error [%ld].", code);
    MSE_fatal(text);
}

// `quit`: the session ends after the running command when its driver lets it; otherwise a
// warning, and the session goes on.
bool accept_quit() {
    if (!MSE_session.can_quit) {
        MER_warn(MER_WARN_QUIT_VIA_INTERFACE, nullptr);
        return false;
    }
    MSE_session.control_state = MSE_CONTROL_ENDING;
    return true;
}

// One entry of CallOnExit: a list runs its items in turn, anything else is called with no
// arguments under a trap. A failure is said on the current output and the next runs.
void run_exit_entry(Cell entry) {
    if (MMM_is_node(entry, DOM_LIST)) {
        for (long i = 0; i < MMM_child_count(entry); ++i) run_exit_entry(MMM_child(entry, i));
        return;
    }
    if (entry == MMM_NIL) return;
    MMM_ref call(MMM_make_expr(1));
    MMM_children(call.get())[0] = MMM_retained(entry);
    MMM_sign(call.get());
    MMM_ref trap(MMM_make_expr(2));
    MMM_children(trap.get())[0] = MMM_ident_named("traperror");
    MMM_children(trap.get())[1] = MMM_retained(call.get());
    MMM_sign(trap.get());
    bool failed = true;
    try {
        MMM_ref code(MSE_frontend.eval(trap.get()));
        failed = !MCM_equal(code.get(), MAR_ZERO);
    } catch (const MER_exception&) {
        MSE_recover(true);
    }
    if (failed) MOU_printf(MOU_OTH, "An error occurred when executing 'CallOnExit'.\n");
}

// Every table of built-ins, installed in one place. A fault in a table (an unknown name,
// a second body) ends the start with a message that names the built-in.
void install_builtins() {
    // The bodies live in the static records: once per process, whatever the sessions.
    static bool installed = false;
    if (installed) return;
    installed = true;
    for (const MFN_builtin_table& table :
         {MAR_canonical_builtins, MAR_function_builtins, MAR_integer_builtins, MAR_modular_builtins,
          MCM_builtins, MEV_eval_builtins, MEV_call_builtins, MEV_stmt_builtins, MEV_relation_builtins,
          MEV_proc_builtins, MEV_operand_builtins, MEV_container_builtins, MEV_env_builtins,
          MEV_trap_builtins, MEV_slot_builtins, MOU_operator_printers, MOU_statement_printers,
          MSE_pref_builtins, MAR_number_builtins})
        MFN_install(table);
}

// What the session gives the modules below it: the process services, the road of a
// statement, the printing of results, and the file being read for error reports.
void install_hooks() {
    MSY_hooks.fatal = MSE_fatal;
    MSY_hooks.write_report = write_report;
    MSY_hooks.poll = MSE_poll;
    MSY_hooks.tick = MSE_tick;
    MSE_frontend.eval = MEV_toplevel_eval;
    MSE_frontend.reset_evaluator = MEV_reset_after_error;
    MSE_frontend.print_result = MOU_print_result;
    MPA_hooks.toplevel_eval = MSE_toplevel_eval;
    MEV_quit_hook = accept_quit;
    MER_set_file_routine(reading_file);
}

void start_modules() {
    MSE_session.modules_up = true;
    MMM_values_start();
    MMM_table_start();
    MCM_start();
    MTR_start();
    MSE_loop_start();
    MSE_prefs_start();
    MMM_ident_start();
    MFN_names_start();
    MAR_start(MSE_session.stack_size, MSE_session.prime_limit);
    MAR_init_numbers();
    MAR_set_poll(MSE_poll);
    MPA_start();
    MOU_start();
    // The environment variables come before any other module makes one of their names.
    MEV_directories = {MSE_session.lib_dir, MSE_session.package_path, MSE_session.user_packages};
    MEV_env_start();
    MAR_canonical_start();
    MEV_ops_start();
    MEV_proc_start();
    MEV_start();
    // The environments point into the records, so bodies could come later too; at start
    // they all come before the environments are made.
    install_builtins();
    MFN_start();
}

}  // namespace

void MSE_alert(const std::string& text, const char* severity) {
    std::fflush(nullptr);
    // The operator's alert on this platform is the standard error stream.
    std::fprintf(stderr, "%s\n", text.c_str());
    std::fflush(stderr);
    if (batch_to_file() && MSY_output && MSY_output != stdout) {
        const bool stop = std::string_view(severity) == "stop";
        std::fprintf(MSY_output, "%s%s\n", stop ? "Fatal Error: " : "Error: ", text.c_str());
        std::fflush(MSY_output);
    }
}

[[noreturn]] void MSE_fatal(const std::string& text) {
    MSE_alert(text, "stop");
    std::fflush(nullptr);
    std::_Exit(1);
}

[[noreturn]] void MSE_exit(int code) {
    std::fflush(nullptr);
    std::_Exit(code);
}

MSE_start_result MSE_start(int argc, char** argv) {
    if (state == State::running) return MSE_ALREADY_RUNNING;
    MSE_set_defaults(argc > 0 ? argv[0] : nullptr);
    MSE_session.start_real = MSY_monotonic_ms();
    MSE_session.start_cpu = MSY_cpu_ms();
    try {
        MSE_session.old_new_handler = std::set_new_handler(new_handler_live);
        install_hooks();
        MSY_install_signal_handlers();

        MSE_session.in_early_setup = true;
        MMM_init(MSE_poll);
        MMM_set_memory_handler(fatal_out_of_memory);
        MMM_set_ceiling_handler(fatal_out_of_memory);
        MMM_open(0);
        MSE_session.in_boot = true;
        MSE_session.in_early_setup = false;

        const int left = MSE_parse_options(argc, argv);
        MSY_output = MSE_session.std_out;
        char** files = argv + (argc - left);

        // A client would send its init message here; on the terminal the kernel is its
        // own client and goes straight on.
        MSE_session.help_index = MSE_session.help_index.empty() ? "mhelp.idx" : MSE_session.help_index + "/mhelp.idx";

        start_modules();
        state = State::running;

        if (MSE_session.control_state == MSE_CONTROL_ENDING) return MSE_FINISHED;
        MSE_read_init_files(left, files);
        MSE_tidy();
        if (MSE_session.control_state == MSE_CONTROL_ENDING || !MSE_session.batch_output.empty()) return MSE_FINISHED;
        MSE_poll();
        MMM_set_memory_handler(raise_out_of_memory);
        MMM_set_ceiling_handler(raise_out_of_memory);
        return MSE_RUNNING;
    } catch (const MER_exception& e) {
        outermost(e.code);
    }
}

void MSE_run_call_on_exit() {
    static bool ran = false;
    if (ran || state != State::running || MSE_session.in_boot || !MSE_frontend.eval) return;
    ran = true;
    MMM_ref entries(MMM_retained(MSE_call_on_exit()));
    const MSE_control_state control = MSE_session.control_state;
    const bool can_quit = MSE_session.can_quit;
    const bool deferred = MSE_session.interrupts_deferred;
    MSE_session.control_state = MSE_CONTROL_RUNNING;
    MSE_session.can_quit = false;  // the session is ending already
    MSE_session.interrupts_deferred = false;
    run_exit_entry(entries.get());
    std::fflush(MSY_output);
    MSE_session.control_state = control;
    MSE_session.can_quit = can_quit;
    MSE_session.interrupts_deferred = deferred;
}

void MSE_stop(int exit_code, bool end_process) {
    try {
        std::fflush(MSY_output);
        // A session stopped in the middle of a computation (watchdog, internal failure)
        // does not run more of the user's code.
        if (exit_code == 0) MSE_run_call_on_exit();
        MMM_set_memory_handler(fatal_out_of_memory);
        if (!MSE_session.in_boot && !MSE_session.in_early_setup && state == State::running) {
            if (MSY_output && MSY_output != stdout && MSY_output != stderr) std::fclose(MSY_output);
            MSY_output = stdout;
            MAR_stop();
            MMM_shutdown();
        }
        state = State::stopped;
        MSY_watchdog_cancel();
        MSY_time_limit_cancel();
        MSY_remove_signal_handlers();
        std::set_new_handler(MSE_session.old_new_handler);
    } catch (const MER_exception& e) {
        outermost(e.code);
    }
    if (end_process) MSE_exit(exit_code);
}

// ---- housekeeping ----

void MSE_poll() {
    if (MSY_watchdog_fired()) {
        std::fflush(MSY_output);
        std::fprintf(stderr, "Watchdog time exceeded.\n");
        MSE_stop(2, true);
    }
    if (MSY_interrupt_pending && !MSE_session.interrupts_deferred) {
        MSY_interrupt_pending = 0;
        MER_raise(MER_ABORTED, nullptr);
    }
    // The time limit of a traperror: its timer only set the flag.
    if (MSY_time_limit_expired()) {
        MSY_time_limit_cancel();
        MER_raise(MER_TIME_EXCEEDED, nullptr);
    }
}

void MSE_status_line() {
    const long pari = MAR_stack_size();
    const long used = long(MMM_used_bytes()) + pari;
    const long reserved = long(MMM_reserved_bytes()) + pari;
    const long seconds = (MSY_monotonic_ms() - MSE_limits.command_start_ms) / 1000;
    MOU_printf(MOU_WRN, "[used=%ldk, reserved=%ldk, seconds=%ld]\n", used / 1000, reserved / 1000, seconds);
    std::fflush(MSY_output);
}

void MSE_set_report(long user_value) {
    MSE_limits.report_period = user_value >= 1 && user_value <= 9 ? report_ticks[user_value - 1] : user_value;
    tick_count = 0;
}

long MSE_get_report() {
    for (int i = 0; i < 9; ++i)
        if (report_ticks[i] == MSE_limits.report_period) return i + 1;
    return MSE_limits.report_period;
}

void MSE_tick() {
    if (tick_nesting) return;
    ++tick_nesting;
    try {
        if (MSE_limits.report_period > 0 && ++tick_count > MSE_limits.report_period) {
            tick_count = 0;
            MSE_status_line();
        }
        if (MSE_limits.maxmem &&
            MMM_reserved_bytes() + uint64_t(MAR_stack_size()) >= MSE_limits.maxmem) {
            --tick_nesting;
            MER_raise(MER_WATCHDOG_RESET, "watchdog-memory");
        }
        if (MSE_limits.maxtime &&
            MSY_monotonic_ms() >= MSE_limits.command_start_ms + MSE_limits.maxtime * 1000) {
            --tick_nesting;
            MER_raise(MER_WATCHDOG_RESET, "watchdog-time");
        }
        MSE_poll();
        if (MSE_limits.callback) MSE_limits.callback();
    } catch (...) {
        tick_nesting = 0;
        throw;
    }
    --tick_nesting;
}

void MSE_add_tidy_hook(void (*fn)()) { tidy_hooks.push_back(fn); }

void MSE_tidy() {
    const uint64_t bytes = MMM_used_bytes();
    const uint64_t cells = MMM_live_cells();
    const auto moved = [](uint64_t now, uint64_t then) { return now > then ? now - then : then - now; };
    if (moved(bytes, tidy_bytes) < 0x7a121 && moved(cells, tidy_cells) < 0x186a1) {
        tidy_cells = cells;
        return;
    }
    tidy_bytes = bytes;
    tidy_cells = cells;
    for (auto fn : tidy_hooks) fn();
}

void MSE_recover(bool clear_error) {
    MSE_session.control_state = MSE_session.control_state == MSE_CONTROL_ENDING ? MSE_CONTROL_ENDING : MSE_CONTROL_RUNNING;
    // 1014 ends the session; otherwise the evaluator's depths and frame are cleared and
    // the PARI stack reset. After 1300 the heap is swept, and only then is the error
    // reported: memory is back only after the sweep.
    if (MER_pending == MER_SYSTEM_FAILURE) MSE_stop(1, true);
    if (MSE_frontend.reset_evaluator) MSE_frontend.reset_evaluator();
    MAR_reset_stack();
    if (MER_pending == MER_OUT_OF_MEMORY) {
        MMM_mark_all();
        MMM_sweep();
        MER_warn(MER_OUT_OF_MEMORY, nullptr);
    }
    if (clear_error) MER_pending = 0;
}

void MSE_write_report(long number, const std::string& text) { MSY_write_report(number, text + "\n"); }

namespace {
void report_va(long code, const char* text, ...) {
    va_list args;
    va_start(args, text);
    MER_report(code, text, args);
    va_end(args);
}
}  // namespace

void MSE_error_report(long code, const char* text) { report_va(code, text); }

// The kernel session: the one record of a session, start-up, the main loop and the
// road of one command, housekeeping, and the end of the session.
#pragma once

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "MFN_table.h"
#include "MMM_cell.h"
#include "MSY_process.h"

constexpr int MSE_VERSION_MAJOR = 3;
constexpr int MSE_VERSION_MINOR = 1;
constexpr int MSE_VERSION_PATCH = 1;

extern const char* const MSE_usage_text;

// Where the session stands after a command: running on, leaving a loop or procedure, or
// ending once the current command is done (`quit`).
enum MSE_control_state : int {
    MSE_CONTROL_RUNNING = 0,
    MSE_CONTROL_LEAVING = 1,
    MSE_CONTROL_ENDING = 2,
};

struct MSE_session_record {
    long stack_size = 0x4000000;
    long prime_limit = 300000;
    FILE* std_out = nullptr;
    FILE* std_err = nullptr;
    long start_cpu = 0;   // CPU milliseconds at start
    long start_real = 0;  // monotonic wall-clock milliseconds at start
    bool interactive = true;
    bool in_boot = false;
    bool in_early_setup = false;
    bool modules_up = false;
    std::new_handler old_new_handler = nullptr;
    bool read_userinit = true;
    bool user_packages = true;
    std::string program_path;
    std::string root_dir;
    std::string bin_dir;
    std::string module_dir;
    std::string default_module_dir;
    std::string user_dir;
    std::string help_dir = ".";
    std::string help_index = ".";
    std::string temp_dir;
    std::string batch_output;  // "-" is the standard output
    std::string coverage_file;
    std::string user_options;
    uint32_t debug_flags = 0;
    bool secure_kernel = false;
    bool echo = true;
    bool prompt = true;
    bool warn_changes = false;
    bool signed_lib_only = false;
    std::string secure_read_path;
    std::string secure_write_path;
    std::string secure_exec_path;
    MSE_control_state control_state = MSE_CONTROL_RUNNING;
    // The driver of the session lets `quit` end it (the terminal and batch runs do).
    // Cleared while CallOnExit runs: the session is ending already.
    bool can_quit = true;
    bool interrupts_deferred = true;
    std::string package_path;
    std::string lib_path;
    std::string current_read_file;
    std::string lib_dir;
};
extern MSE_session_record MSE_session;

// Current values of the preferences the command line sets (their start values live in
// the session record).
struct MSE_preferences {
    bool prompt = true;
    bool echo = true;
    bool secure_kernel = false;
    bool signed_lib_only = false;
    bool ignore_no_debug = false;
};
extern MSE_preferences MSE_pref;


// Where the evaluator and the printer plug into the road of a command. Until they are
// installed a statement evaluates to itself and nothing is printed.
struct MSE_frontend_hooks {
    // Replaces the parser: runs text, handing each statement to MSE_toplevel_eval.
    void (*run_text)(std::string_view text) = nullptr;
    // The evaluation entry; gives a new reference.
    Cell (*eval)(Cell statement) = nullptr;
    // Prints a result on the result channel.
    void (*print_result)(Cell value) = nullptr;
    // Resets the evaluator's depth counters and current frame after an error.
    void (*reset_evaluator)() = nullptr;
};
extern MSE_frontend_hooks MSE_frontend;

// ---- start and end ----
enum MSE_start_result { MSE_RUNNING = 0, MSE_ALREADY_RUNNING = 1, MSE_FINISHED = 2 };
MSE_start_result MSE_start(int argc, char** argv);
[[noreturn]] void MSE_exit(int code);
// Ends the session: runs CallOnExit when the code is 0, shuts the modules down and, with
// `end_process`, ends the process with the code.
void MSE_stop(int exit_code, bool end_process);
// Runs the entries of CallOnExit once in a session, each under a trap; a later call does
// nothing.
void MSE_run_call_on_exit();
// The session's fatal exit; installed as MSY_hooks.fatal, through which every module
// reaches it (MSY_fatal).
[[noreturn]] void MSE_fatal(const std::string& text);
void MSE_alert(const std::string& text, const char* severity);

// Fills the record with its defaults from argv[0].
void MSE_set_defaults(const char* argv0);
// Parses options into the record; gives the number of arguments left over (the batch
// files), which are the last ones of argv. Usage errors end the process.
int MSE_parse_options(int argc, char** argv);

// ---- the road of one command ----
class MSE_message {
public:
    virtual ~MSE_message() = default;
    // Command-class messages run one at a time from the main loop; others are immediate
    // and run from MSE_poll as soon as they arrive.
    virtual bool is_command() const { return true; }
    virtual void run() = 0;
    MSE_message* next = nullptr;
};

// A text command: runs the text and then tells `on_finished`.
class MSE_text_command : public MSE_message {
public:
    using finished_fn = void (*)(long id, void* user);
    MSE_text_command(std::string text, long id, finished_fn on_finished = nullptr, void* user = nullptr)
        : text_(std::move(text)), id_(id), on_finished_(on_finished), user_(user) {}
    void run() override;

private:
    std::string text_;
    long id_;
    finished_fn on_finished_;
    void* user_;
};

void MSE_post(MSE_message* m);  // the queue takes ownership
void MSE_main_loop(bool block);
void MSE_run_text(std::string_view text);
// Evaluates one top-level statement and, with `print`, prints its value. Gives the
// value (new reference).
Cell MSE_toplevel_eval(Cell statement, bool print);
void MSE_print_result(Cell value);

// ---- files ----
void MSE_read_init_files(int file_count, char** files);
// Reads and runs a file; raises 1021 when it cannot be opened.
void MSE_read_file(const std::string& path);

// ---- housekeeping ----
void MSE_tick();
void MSE_poll();
void MSE_tidy();
// The value the loop holds between commands starts empty in each new heap (a root).
void MSE_loop_start();
void MSE_recover(bool clear_error);
void MSE_status_line();
void MSE_add_tidy_hook(void (*fn)());

// Watchdog settings of the tick; the environment variables Report, Maxmem, Maxtime and
// CallBack set them.
struct MSE_limits_record {
    long report_period = 0;   // tick count between status lines, 0 off
    uint64_t maxmem = 0;      // bytes, 0 off
    long maxtime = 0;         // seconds, 0 off
    void (*callback)() = nullptr;
    long command_start_ms = 0;
};
extern MSE_limits_record MSE_limits;
// `Report` as the user writes it (0 to 9) and as it reads back.
void MSE_set_report(long user_value);
long MSE_get_report();

// Writes a finished report text and a line end on its channel (1014 on the system's
// error stream).
void MSE_write_report(long number, const std::string& text);
// Error report of the session: the same routine as MER_report.
void MSE_error_report(long code, const char* text);

// ---- preferences ----
// `_pref`, in MSE_prefs.cpp.
extern const MFN_builtin_table MSE_pref_builtins;
// The preferences that hold cells start as NIL in each new heap (their roots registered).
void MSE_prefs_start();
// The value of the preference CallOnExit (borrowed): NIL, a callable, or a list of them.
Cell MSE_call_on_exit();


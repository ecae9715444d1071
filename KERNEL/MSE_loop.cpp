// The message queue, the main loop, the road of one command, and reading files.
#include <sys/stat.h>

#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>

#include "MER_error.h"
#include "MMM_heap.h"
#include "MPA_reader.h"
#include "MSE_session.h"

namespace {

MSE_message* queue_head = nullptr;
MSE_message* queue_tail = nullptr;

// The value of the last top-level statement, held until the next one or the end of the
// command; registered as a root so that a sweep keeps it.
Cell held_value = nullptr;

void hold(Cell v) {
    MMM_release(held_value);
    held_value = v;
}

MSE_message* take_first(bool commands) {
    MSE_message* prev = nullptr;
    for (MSE_message* m = queue_head; m; prev = m, m = m->next) {
        if (m->is_command() != commands) continue;
        (prev ? prev->next : queue_head) = m->next;
        if (queue_tail == m) queue_tail = prev;
        m->next = nullptr;
        return m;
    }
    return nullptr;
}

// Parses text and runs its statements; an error of the read leaves to the caller's guard.
void run_source(std::string_view text, const std::string& file_name, bool command) {
    if (MSE_frontend.run_text) {
        MSE_frontend.run_text(text);
        return;
    }
    MPA_string_reader plain(text, false, 1);
    MPA_session_reader session(text);
    MPA_reader& reader = command ? static_cast<MPA_reader&>(session) : plain;
    reader.file_name = file_name;
    reader.run();
    if ((reader.errors || reader.aborted) && MER_pending) throw MER_exception{MER_pending};
}

bool read_whole_file(const std::string& path, std::string& out) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0 || S_ISDIR(st.st_mode)) return false;
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::ostringstream buf;
    buf << in.rdbuf();
    out = buf.str();
    return true;
}

bool is_directory(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Reads a start-up file under its own guard: an error is reported and start-up goes on.
// A missing file is no error.
void read_optional(const std::string& path) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return;
    const bool deferred = MSE_session.interrupts_deferred;
    MSE_session.interrupts_deferred = false;
    try {
        MSE_read_file(path);
    } catch (const MER_exception&) {
        MSE_recover(true);
    }
    MSE_session.interrupts_deferred = deferred;
}

std::vector<std::string> split(const std::string& list, char sep) {
    std::vector<std::string> items;
    size_t start = 0;
    while (start <= list.size()) {
        const size_t end = list.find(sep, start);
        const std::string item = list.substr(start, end == std::string::npos ? std::string::npos : end - start);
        if (!item.empty()) items.push_back(item);
        if (end == std::string::npos) break;
        start = end + 1;
    }
    return items;
}

// Runs one batch source under a guard with a fresh context; gives the error code or 0.
// A batch file is one command: a share pass it asked for runs when it is over, when no
// reader holds cells of it any more.
long run_batch_source(const char* name, const std::string* text) {
    MSE_session.control_state = MSE_CONTROL_RUNNING;
    try {
        if (text) {
            run_source(*text, "", false);
        } else {
            MSE_read_file(name);
        }
        if (MMM_share_requested) MMM_share();
        return 0;
    } catch (const MER_exception& e) {
        const long code = e.code;
        MSE_recover(true);
        if (MMM_share_requested) MMM_share();
        return code;
    }
}

}  // namespace

void MSE_loop_start() {
    held_value = nullptr;  // a former heap's cell, if any, is gone with it
    MMM_add_root(&held_value);
}

// ---- the queue and the loop ----

void MSE_post(MSE_message* m) {
    m->next = nullptr;
    if (queue_tail) queue_tail->next = m; else queue_head = m;
    queue_tail = m;
}

void MSE_main_loop(bool block) {
    while (MSE_session.control_state != MSE_CONTROL_ENDING) {
        MSY_interrupt_pending = 0;
        MSE_message* m = take_first(true);
        if (!m) {
            if (!block) break;
            try {
                MSE_poll();
            } catch (const MER_exception&) {
                MSE_recover(true);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            continue;
        }
        try {
            m->run();
        } catch (const MER_exception&) {
            MSE_recover(true);
        }
        delete m;
        hold(nullptr);
        try {
            MSE_poll();
        } catch (const MER_exception&) {
            MSE_recover(true);
        }
    }
}

void MSE_text_command::run() {
    // A command can be stopped while it runs, and only then.
    MSE_session.interrupts_deferred = false;
    MSE_run_text(text_);
    MSE_session.interrupts_deferred = true;
    MSE_tidy();
    if (MMM_share_requested) MMM_share();
    hold(nullptr);
    MMM_reclaim();
    if (on_finished_) on_finished_(id_, user_);
}

void MSE_run_text(std::string_view text) {
    const MSE_control_state control_state = MSE_session.control_state;
    const std::string read_file = MSE_session.current_read_file;
    try {
        run_source(text, "", true);
    } catch (const MER_exception&) {
        MSE_session.control_state = control_state == MSE_CONTROL_ENDING ? MSE_CONTROL_ENDING : MSE_session.control_state;
        MSE_session.current_read_file = read_file;
        MSE_recover(true);
    }
}

Cell MSE_toplevel_eval(Cell statement, bool print) {
    // After `quit` the statements left in the command or file do not run.
    if (MSE_session.control_state == MSE_CONTROL_ENDING) return MMM_retained(MMM_NULL);
    MSE_session.control_state = MSE_CONTROL_RUNNING;
    MSE_limits.command_start_ms = MSY_monotonic_ms();
    Cell value;
    try {
        if (MSE_frontend.eval) {
            value = MSE_frontend.eval(statement);
        } else {
            MMM_retain(statement);
            value = statement;
        }
    } catch (...) {
        if (MSE_session.control_state != MSE_CONTROL_ENDING) MSE_session.control_state = MSE_CONTROL_RUNNING;
        throw;
    }
    if (MSE_session.control_state != MSE_CONTROL_ENDING) MSE_session.control_state = MSE_CONTROL_RUNNING;
    MMM_retain(value);
    hold(value);
    if (print) MSE_print_result(value);
    return value;
}

void MSE_print_result(Cell value) {
    if (!MSE_frontend.print_result || !value) return;
    const bool deferred = MSE_session.interrupts_deferred;
    MSE_session.interrupts_deferred = false;
    try {
        MSE_frontend.print_result(value);
    } catch (const MER_exception&) {
        MSE_recover(true);
    }
    MSE_session.interrupts_deferred = deferred;
    std::fflush(MSY_output);
}

// ---- files ----

void MSE_read_file(const std::string& path) {
    std::string text;
    if (!read_whole_file(path, text)) MER_raise(MER_CANNOT_READ_FILE, nullptr, path.c_str());
    const std::string outer = MSE_session.current_read_file;
    MSE_session.current_read_file = path;
    try {
        run_source(text, path, false);
    } catch (...) {
        MSE_session.current_read_file = outer;
        throw;
    }
    MSE_session.current_read_file = outer;
}

void MSE_read_init_files(int file_count, char** files) {
    MSE_session_record& s = MSE_session;

    // 1. The system init file: without it there is no session. Its error is not
    // reported on the output, which may be a batch run's result: it goes with the fatal
    // text to the operator.
    s.interrupts_deferred = false;
    const std::string sysinit = s.lib_dir + "/sysinit.tv";
    {
        const bool warn = MPA_warn_changes;
        const uint32_t debug = s.debug_flags;
        const bool trapped = MER_trapped;
        MPA_warn_changes = false;
        s.debug_flags = 0;
        MER_trapped = true;
        bool ok = true;
        try {
            MSE_read_file(sysinit);
        } catch (const MER_exception&) {
            ok = false;
        }
        MER_trapped = trapped;
        MPA_warn_changes = warn;
        s.debug_flags = debug;
        if (!ok) {
            std::fflush(MSY_output);
            std::fprintf(stderr, "%s\n", MER_last_text.c_str());
            MSE_fatal("Could not read system init file '" + s.lib_dir + "/sysinit.tv'");
        }
    }
    // 3. Booted.
    s.interrupts_deferred = true;
    s.in_boot = false;

    // 4. The user's init file: a directory holds it, or the path names it.
    if (s.read_userinit)
        read_optional(is_directory(s.user_dir) ? s.user_dir + "/userinit.tv" : s.user_dir);

    // 5. Each package directory's init file.
    for (const std::string& dir : split(s.package_path, ';')) read_optional(dir + "/init.tv");

    // 6. The batch output file.
    if (!s.batch_output.empty() && s.batch_output != "-") {
        FILE* f = std::fopen(s.batch_output.c_str(), "w");
        if (!f) {
            s.batch_output.clear();
            MSE_fatal("Could not open output file.");
        }
        MSY_output = f;
    }

    // 7. The batch files. In batch mode without files, the standard input is the file.
    bool failed = false;
    s.interrupts_deferred = false;
    if (file_count == 0 && !s.batch_output.empty()) {
        std::ostringstream buf;
        buf << std::cin.rdbuf();
        const std::string text = buf.str();
        failed = run_batch_source(nullptr, &text) != 0;
    }
    for (int i = 0; i < file_count && s.control_state != MSE_CONTROL_ENDING; ++i) {
        const long code = run_batch_source(files[i], nullptr);
        if (!code) continue;
        failed = true;
        if (code == MER_TIME_EXCEEDED || code == MER_ABORTED) break;
    }
    s.interrupts_deferred = true;

    // 8. Started. A failed batch run ends here, after the session's exit hooks.
    if (!s.batch_output.empty() && failed) {
        MSE_run_call_on_exit();
        MSE_fatal("Read error while reading batch input file(s).");
    }
}

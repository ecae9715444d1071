// Process services: fatal exit and reports by default, the output streams, signals and
// timers, clocks, and the native-stack check. Signal handlers only set flags; the poll
// acts on them. The exception is a machine fault, which cannot be resumed: it ends the
// process with a message.
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "MSY_process.h"

MSY_hooks_record MSY_hooks;
FILE* MSY_output = nullptr;
volatile std::sig_atomic_t MSY_interrupt_pending = 0;

namespace {

volatile std::sig_atomic_t watchdog_flag = 0;
timer_t watchdog_timer;
bool watchdog_armed = false;
constexpr int WATCHDOG_SIGNAL = SIGALRM;
constexpr long WATCHDOG_GRACE_MS = 1000;

// The time limit of traperror: a second timer on its own signal.
volatile std::sig_atomic_t time_limit_flag = 0;
long time_limit_deadline = 0;  // 0 when no limit runs
timer_t time_limit_timer;
bool time_limit_made = false;
int time_limit_signal() { return SIGRTMIN; }

char* alt_stack = nullptr;
uintptr_t stack_low = 0;  // lowest address of the kernel thread's stack

void write_stderr(const char* text) {
    size_t n = std::strlen(text);
    while (n) {
        const ssize_t w = ::write(2, text, n);
        if (w <= 0) return;
        text += w;
        n -= size_t(w);
    }
}

void on_interrupt(int) { MSY_interrupt_pending = 1; }

// Sets a one-shot timer to expire in ms milliseconds.
void arm_timer(timer_t timer, long ms) {
    itimerspec when{};
    when.it_value.tv_sec = ms / 1000;
    when.it_value.tv_nsec = (ms % 1000) * 1000000L;
    if (ms <= 0) when.it_value.tv_nsec = 1;  // an expiry of zero would disarm the timer
    timer_settime(timer, 0, &when, nullptr);
}

void arm(long ms) { arm_timer(watchdog_timer, ms); }

// The first expiry asks the poll to stop the session. If nothing polls within the grace
// period (the kernel waits for input, or is stuck in a long native computation), the
// second expiry ends the process itself.
void on_watchdog(int) {
    if (!watchdog_flag) {
        watchdog_flag = 1;
        arm(WATCHDOG_GRACE_MS);
        return;
    }
    write_stderr("Watchdog time exceeded.\n");
    ::_exit(2);
}

void on_time_limit(int) { time_limit_flag = 1; }

// A fault just below the stack's lowest address (its guard pages) or in its last pages.
bool is_stack_overflow(uintptr_t addr) {
    if (!stack_low) return false;
    const uintptr_t slack = 1 << 20;
    return addr + slack >= stack_low && addr < stack_low + slack;
}

void on_fault(int sig, siginfo_t* info, void*) {
    if (sig == SIGSEGV && is_stack_overflow(reinterpret_cast<uintptr_t>(info->si_addr))) {
        write_stderr("Stack overflow.\n");
    } else {
        char text[64];
        static const char hex[] = "0123456789ABCDEF";
        const char* head = "Fatal internal error. [";
        size_t n = 0;
        for (const char* p = head; *p; ++p) text[n++] = *p;
        for (int shift = 28; shift >= 0; shift -= 4) text[n++] = hex[(unsigned(sig) >> shift) & 0xf];
        text[n++] = ']';
        text[n++] = '\n';
        text[n] = 0;
        write_stderr(text);
    }
    ::_exit(1);
}

void set_handler(int sig, void (*fn)(int), int flags) {
    struct sigaction sa {};
    sa.sa_handler = fn;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = flags;
    sigaction(sig, &sa, nullptr);
}

}  // namespace

[[noreturn]] void MSY_fatal(const std::string& text) {
    if (MSY_hooks.fatal) MSY_hooks.fatal(text);
    std::fprintf(stderr, "%s\n", text.c_str());
    std::exit(1);
}

void MSY_write_report(long number, std::string_view text) {
    if (MSY_hooks.write_report) {
        MSY_hooks.write_report(number, text);
        return;
    }
    std::fwrite(text.data(), 1, text.size(), stderr);
}

void MSY_stack_bounds(const char** low, size_t* size) {
    *low = nullptr;
    *size = 0;
    pthread_attr_t attr;
    if (pthread_getattr_np(pthread_self(), &attr) != 0) return;
    void* base = nullptr;
    pthread_attr_getstack(&attr, &base, size);
    pthread_attr_destroy(&attr);
    *low = static_cast<const char*>(base);
}

bool MSY_stack_nearly_full() {
    thread_local const char* limit = [] {
        const char* low = nullptr;
        size_t size = 0;
        MSY_stack_bounds(&low, &size);
        if (!low) return static_cast<const char*>(nullptr);
        return low + (size / 8 > (size_t(1) << 20) ? size / 8 : (size_t(1) << 20));
    }();
    char probe;
    return &probe < limit;
}

long MSY_monotonic_ms() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return long(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

long MSY_cpu_ms() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return long(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void MSY_install_signal_handlers() {
    set_handler(SIGINT, on_interrupt, SA_RESTART);
    set_handler(WATCHDOG_SIGNAL, on_watchdog, SA_RESTART);

    // Faults run on an alternate stack, so that a stack overflow can still be reported.
    const size_t alt_size = 64 * 1024;
    if (!alt_stack) alt_stack = static_cast<char*>(std::malloc(alt_size));
    if (alt_stack) {
        stack_t ss{};
        ss.ss_sp = alt_stack;
        ss.ss_size = alt_size;
        sigaltstack(&ss, nullptr);
    }
    const char* low = nullptr;
    size_t size = 0;
    MSY_stack_bounds(&low, &size);
    stack_low = reinterpret_cast<uintptr_t>(low);
    struct sigaction sa {};
    sa.sa_sigaction = on_fault;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESETHAND;
    for (int sig : {SIGSEGV, SIGBUS, SIGFPE, SIGILL}) sigaction(sig, &sa, nullptr);
}

void MSY_remove_signal_handlers() {
    for (int sig : {SIGINT, SIGSEGV, SIGBUS, SIGFPE, SIGILL}) set_handler(sig, SIG_DFL, 0);
}

bool MSY_watchdog_start(long seconds) {
    MSY_watchdog_cancel();
    set_handler(WATCHDOG_SIGNAL, on_watchdog, SA_RESTART);
    sigevent ev{};
    ev.sigev_notify = SIGEV_SIGNAL;
    ev.sigev_signo = WATCHDOG_SIGNAL;
    if (timer_create(CLOCK_MONOTONIC, &ev, &watchdog_timer) != 0) {
        return false;
    }
    watchdog_armed = true;
    watchdog_flag = 0;
    // The milliseconds are counted as x5, x5, x40, as the option always has.
    constexpr long max_seconds = 1000000000L;  // some thirty years
    arm((seconds < max_seconds ? seconds : max_seconds) * 5 * 5 * 40);
    return true;
}

void MSY_watchdog_cancel() {
    if (!watchdog_armed) return;
    timer_delete(watchdog_timer);
    watchdog_armed = false;
    watchdog_flag = 0;
}

bool MSY_watchdog_fired() { return watchdog_flag != 0; }

void MSY_time_limit_set(long deadline_ms) {
    time_limit_deadline = deadline_ms;
    if (!time_limit_made) {
        set_handler(time_limit_signal(), on_time_limit, SA_RESTART);
        sigevent ev{};
        ev.sigev_notify = SIGEV_SIGNAL;
        ev.sigev_signo = time_limit_signal();
        if (timer_create(CLOCK_MONOTONIC, &ev, &time_limit_timer) != 0) {
            // Without a timer the limit is found by the clock at the next poll.
            time_limit_flag = 0;
            return;
        }
        time_limit_made = true;
    }
    time_limit_flag = 0;
    const long now = MSY_monotonic_ms();
    arm_timer(time_limit_timer, deadline_ms > now ? deadline_ms - now : 0);
}

void MSY_time_limit_cancel() {
    if (time_limit_made) {
        itimerspec off{};
        timer_settime(time_limit_timer, 0, &off, nullptr);
    }
    time_limit_flag = 0;
    time_limit_deadline = 0;
}

// The clock is read only once the flag is up (or when there is no timer): a signal of an
// earlier setting that arrives late finds the deadline not reached and is ignored.
bool MSY_time_limit_expired() {
    if (!time_limit_deadline || (time_limit_made && !time_limit_flag)) return false;
    return MSY_monotonic_ms() >= time_limit_deadline;
}

// ---- memory ----

size_t MSY_memory_room() {
    size_t room = SIZE_MAX;
    const long page = sysconf(_SC_PAGESIZE);
    // What the system can give without swapping, page cache it would drop included
    // (MemAvailable); the free pages alone where the system does not say.
    bool known = false;
    if (FILE* f = std::fopen("/proc/meminfo", "r")) {
        char line[128];
        unsigned long kb = 0;
        while (std::fgets(line, sizeof line, f))
            if (std::sscanf(line, "MemAvailable: %lu kB", &kb) == 1) {
                room = size_t(kb) * 1024;
                known = true;
                break;
            }
        std::fclose(f);
    }
    const long free_pages = known ? 0 : sysconf(_SC_AVPHYS_PAGES);
    if (page > 0 && free_pages > 0) room = size_t(free_pages) * size_t(page);
    rlimit limit{};
    if (getrlimit(RLIMIT_AS, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY) {
        // The mapped size is the first field of /proc/self/statm, in pages.
        size_t mapped = 0;
        if (FILE* f = std::fopen("/proc/self/statm", "r")) {
            unsigned long pages = 0;
            if (std::fscanf(f, "%lu", &pages) == 1 && page > 0) mapped = size_t(pages) * size_t(page);
            std::fclose(f);
        }
        const size_t left = limit.rlim_cur > mapped ? size_t(limit.rlim_cur - mapped) : 0;
        if (left < room) room = left;
    }
    return room;
}

// Process services: the bottom layer of the kernel.
//
// Every module may need to end the process on a fatal fault, to write a finished report,
// to let client messages in, to run the periodic tick, to ask whether the native stack is
// nearly used up, or to read the clocks and arm the one time limit. None of these may
// pull the session into a low module, so they live here, in a module that includes no
// other module of the kernel. The session installs its behaviour into `MSY_hooks` at
// start; until then each service has a plain default (a fatal text goes to the standard
// error stream and the process exits with code 1; reports go to the standard error
// stream; poll and tick do nothing). Timers and signals only set flags.
#pragma once

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

struct MSY_hooks_record {
    // Ends the session and the process after a fatal fault; must not return (if it does,
    // MSY_fatal ends the process itself).
    void (*fatal)(const std::string& text) = nullptr;
    // Writes a finished report (text and line end included) on the channel of its number:
    // errors and warnings on their channels, 1014 on the system's error stream.
    void (*write_report)(long number, std::string_view text) = nullptr;
    // Lets client messages in; raises the stop and time-limit errors.
    void (*poll)() = nullptr;
    // The watchdog's periodic work (status lines, memory and time limits).
    void (*tick)() = nullptr;
};
extern MSY_hooks_record MSY_hooks;

[[noreturn]] void MSY_fatal(const std::string& text);
void MSY_write_report(long number, std::string_view text);
inline void MSY_poll() {
    if (MSY_hooks.poll) MSY_hooks.poll();
}
inline void MSY_tick() {
    if (MSY_hooks.tick) MSY_hooks.tick();
}

// Where results and reports of the running command go: the standard output or the batch
// output file. Null means the standard output.
extern FILE* MSY_output;
inline FILE* MSY_out() { return MSY_output ? MSY_output : stdout; }
// Set by the interrupt signal, cleared when the interrupt is served.
extern volatile std::sig_atomic_t MSY_interrupt_pending;

// ---- the native stack ----
// The lowest address and the size of the calling thread's stack (0 when unknown).
void MSY_stack_bounds(const char** low, size_t* size);
// True when the calling thread has used up its stack but for a safety margin (an eighth
// of it, at least 1 MiB): deep recursion stops here with an error instead of a fault.
bool MSY_stack_nearly_full();

// ---- signals and the watchdog ----
// The interrupt sets MSY_interrupt_pending; machine faults run on an alternate stack and
// end the process with "Stack overflow." or "Fatal internal error. [..]".
void MSY_install_signal_handlers();
void MSY_remove_signal_handlers();
// The watchdog of the /w option: its first expiry sets a flag for the poll; if nothing
// polls within a grace second, the second expiry ends the process. False when no timer
// could be had.
bool MSY_watchdog_start(long seconds);
void MSY_watchdog_cancel();
bool MSY_watchdog_fired();

// ---- clocks and the time limit ----
long MSY_monotonic_ms();
long MSY_cpu_ms();
// The time limit of traperror: one timer, set for the nearest deadline (monotonic
// milliseconds). When it expires its handler sets a flag, and the poll raises the
// time-limit error. Setting a deadline or cancelling clears the flag.
void MSY_time_limit_set(long deadline_ms);
void MSY_time_limit_cancel();
bool MSY_time_limit_expired();

// ---- memory ----
// Bytes the process may still take: the machine's free physical memory, and no more
// than the address-space limit (RLIMIT_AS) leaves beside what is mapped now. SIZE_MAX
// when neither is known.
size_t MSY_memory_room();

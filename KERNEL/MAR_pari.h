// The bridge to the number library: start, stop, the stack and its mark, errors and
// polling. The number cells themselves are in MAR_numbers.h.
#pragma once

// PARI's own names for a value and a stack position, declared exactly as pari.h declares
// them, so that kernel modules can pass PARI values around without including pari.h.
typedef long* GEN;
typedef unsigned long pari_sp;

// Starts PARI with the session's stack size and prime limit. PARI's errors then leave
// through the kernel's error mechanism as numbered errors.
void MAR_start(long stack_size, long prime_limit);
// The prime limit PARI was started with (the session's `PrimeLimit`).
long MAR_prime_limit();
void MAR_stop();
bool MAR_started();

// The PARI stack holds intermediate values only. A computation ends by copying its result
// into a cell and setting the stack pointer back to MAR_stack_mark; everything above the
// mark lasts. A routine that keeps PARI values across an inner computation that resets
// the stack lowers the mark to the stack pointer first, and restores mark and stack
// pointer on every way out.
extern pari_sp MAR_stack_mark;
void MAR_reset_to_mark();
// After an error: everything on the stack is temporary, and the mark goes back to the top.
void MAR_reset_stack();
long MAR_stack_size();

// PARI error classes of the installed library (enum err_list) to the kernel's numbers.
// One table serves both lookups; `operation` is the name PARI gives as the first part of
// its error ("gdiv", "comparison", "%"), or nullptr when unknown.
long MAR_error_number(long pari_class);
long MAR_error_number(long pari_class, const char* operation);
// The only way out after a failure of number work: a kernel error with that number.
[[noreturn]] void MAR_pari_error(long number);

// Polling from number work. PARI 2.15 offers no hook inside its own loops, so the poll
// sits on the kernel's side of the bridge: arithmetic and comparison of number cells
// count down, and every 1023rd call runs the installed poll (the session's MSE_poll),
// which may raise 1102 "Computation aborted".
using MAR_poll_fn = void (*)();
void MAR_set_poll(MAR_poll_fn fn);
extern int MAR_poll_countdown;
void MAR_poll();
inline void MAR_count_poll() {
    if (--MAR_poll_countdown <= 0) MAR_poll();
}

// PARI reports an error by calling cb_pari_err_handle before it would print or jump. The
// kernel's handler raises the kernel error there: the C++ exception unwinds through
// PARI's C frames (the library is built with unwind tables), and the session's guard
// resets the PARI stack to its base, which is all the state PARI keeps per computation.
#include "MAR_pari.h"

#include <pari/pari.h>
#include <sys/mman.h>

#include <climits>
#include <cstring>
#include <string>

#include "MER_error.h"
#include "MSY_process.h"

pari_sp MAR_stack_mark = 0;
int MAR_poll_countdown = 1023;

namespace {

bool started = false;
long prime_limit_started = 0;
MAR_poll_fn poll_routine = nullptr;

// Numbers the kernel acts on itself: the stack has doubled (the report gives the new
// size), the stack could not grow, PARI ran out of memory (fatal), and the failure the
// kernel does not expect.
constexpr long STACK_DOUBLED = 44;
constexpr long STACK_NOT_GROWN = 363;
constexpr long FATAL_OUT_OF_MEMORY = 360;
constexpr long UNEXPECTED = 999;

// The kernel's numbers for PARI's error classes. PARI 2.15 numbers its errors by class
// (enum err_list), the kernel by the finer numbers its error texts are filed under.
// A row with an operation applies when PARI names that operation (a prefix of it) as
// the first part of the error; the first matching row wins, so the rows with an
// operation stand before the row of the class without one. A class without a row is a
// failure the kernel does not expect: 999, which asks for a report.
struct Translation {
    long pari_class;
    const char* operation;
    long number;
};
const Translation translations[] = {
    {e_STACK, nullptr, STACK_DOUBLED},        // stack overflow: doubling, see below
    {e_STACKTHREAD, nullptr, STACK_DOUBLED},
    {e_MEM, nullptr, FATAL_OUT_OF_MEMORY},    // "Fatal PARI error: Out of memory"
    {e_OVERFLOW, "t_REAL->double", 45},       // "Can't convert to double (out of range)"
    {e_OVERFLOW, nullptr, 8},                 // "Overflow/underflow in arithmetical operation"
    {e_PREC, nullptr, 11},                    // "Loss of precision"
    {e_INV, "Fp_", 103},                      // "Modular inverse does not exist"
    {e_INV, "Fl_", 103},
    {e_INV, nullptr, 31},                     // "Division by zero"
    {e_DOMAIN, "gpow(0,n)", 31},              // 0 to a power with non-positive real part
    {e_DOMAIN, nullptr, 499},                 // "singularity": poles of log, gamma, zeta, psi
    {e_TYPE2, "comparison", 282},             // "Complex arguments are not allowed in comparisons"
    {e_TYPE2, "%", 315},                      // "Illegal argument in div or mod"
    {e_TYPE2, "\\", 315},
    {e_OP, "%", 315},
    {e_OP, "\\", 315},
    {e_TYPE, "gmod", 315},
    {e_TYPE, "gdivent", 315},
    {e_MAXPRIME, nullptr, 118},               // "Not enough precalculated primes"
};

bool operation_matches(const char* row, const char* operation) {
    if (!row) return true;
    return operation && std::strncmp(operation, row, std::strlen(row)) == 0;
}

// The stack ran out: a stack of twice the size replaces it, and the running computation
// is abandoned with the report of the new size. PARI 2.15 keeps its universal constants
// outside the stack, so there is nothing to recreate on it.
[[noreturn]] void double_the_stack() {
    const size_t old_size = pari_mainstack->rsize;
    if (old_size > size_t(LONG_MAX) / 2) MER_raise(STACK_NOT_GROWN, nullptr);
    const size_t new_size = old_size * 2;
    // PARI would quietly settle for a smaller stack if the space is not there; ask first.
    void* probe = mmap(nullptr, new_size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (probe == MAP_FAILED) MER_raise(STACK_NOT_GROWN, nullptr);
    munmap(probe, new_size);
    paristack_setsize(new_size, 0);
    MAR_stack_mark = avma;
    if (pari_mainstack->rsize < new_size) MER_raise(STACK_NOT_GROWN, nullptr);
    MER_raise(STACK_DOUBLED, nullptr, long(new_size / 1024));
}

int raise_pari_error(GEN err) {
    const long pari_class = err_get_num(err);
    if (pari_class == e_STACK || pari_class == e_STACKTHREAD) double_the_stack();
    const char* operation = nullptr;
    if (lg(err) > 2 && typ(err_get_compo(err, 1)) == t_STR) operation = GSTR(err_get_compo(err, 1));
    const long number = MAR_error_number(pari_class, operation);
    if (number == FATAL_OUT_OF_MEMORY) MSY_fatal("Fatal PARI error: Out of memory");
    if (number != UNEXPECTED) MER_raise(number, nullptr);
    // An unexpected failure carries PARI's own words, for the report.
    std::string words;
    if (char* text = pari_err2str(err)) {
        words = text;
        pari_free(text);
    }
    MER_raise(UNEXPECTED, words.c_str());
}

}  // namespace

long MAR_error_number(long pari_class, const char* operation) {
    for (const Translation& t : translations)
        if (t.pari_class == pari_class && operation_matches(t.operation, operation)) return t.number;
    return UNEXPECTED;
}

long MAR_error_number(long pari_class) { return MAR_error_number(pari_class, nullptr); }

[[noreturn]] void MAR_pari_error(long number) { MER_raise(number, nullptr, MAR_stack_size() / 1024); }

void MAR_start(long stack_size, long prime_limit) {
    if (started) return;
    // No INIT_SIGm: the session owns the signal handlers. No INIT_JMPm: errors do not
    // jump to a PARI top level, they reach cb_pari_err_handle.
    pari_init_opts(size_t(stack_size), ulong(prime_limit), INIT_DFTm);
    cb_pari_err_handle = raise_pari_error;
    MAR_stack_mark = avma;
    prime_limit_started = prime_limit;
    started = true;
}

long MAR_prime_limit() { return prime_limit_started; }

void MAR_stop() {
    if (!started) return;
    pari_close_opts(INIT_DFTm);
    started = false;
}

bool MAR_started() { return started; }

void MAR_reset_to_mark() { set_avma(MAR_stack_mark); }

void MAR_reset_stack() {
    if (!started) return;
    set_avma(pari_mainstack->top);
    MAR_stack_mark = avma;
}

long MAR_stack_size() { return started ? long(pari_mainstack->rsize) : 0; }

void MAR_set_poll(MAR_poll_fn fn) { poll_routine = fn; }

void MAR_poll() {
    MAR_poll_countdown = 1023;
    if (poll_routine) poll_routine();
}

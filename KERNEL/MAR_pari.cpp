// PARI reports an error by calling cb_pari_err_handle before it would print or jump. The
// kernel's handler raises the kernel error there: the C++ exception unwinds through
// PARI's C frames (the library is built with unwind tables), and the session's guard
// resets the PARI stack to its base, which is all the state PARI keeps per computation.
#include "MAR_pari.h"

#include <pari/pari.h>

#include "MER_error.h"

namespace {

bool started = false;

int raise_pari_error(GEN err) {
    const long pari_class = err_get_num(err);
    MER_raise(MAR_error_number(pari_class), nullptr, MAR_stack_size() / 1024);
}

}  // namespace

long MAR_error_number(long pari_class) {
    switch (pari_class) {
    case e_INV: return 23;       // "Division by zero"
    case e_OVERFLOW: return 8;   // "Overflow/underflow in arithmetical operation"
    case e_PREC: return 11;      // "Loss of precision"
    case e_STACK: return 44;     // stack overflow; doubling follows with the number tower
    case e_MEM: return 363;
    case e_MAXPRIME: return 118;
    case e_DOMAIN: return 499;   // "singularity"
    default: return 999;         // a failure the kernel does not expect: asks for a report
    }
}

void MAR_start(long stack_size, long prime_limit) {
    if (started) return;
    // No INIT_SIGm: the session owns the signal handlers. No INIT_JMPm: errors do not
    // jump to a PARI top level, they reach cb_pari_err_handle.
    pari_init_opts(size_t(stack_size), ulong(prime_limit), INIT_DFTm);
    cb_pari_err_handle = raise_pari_error;
    started = true;
}

void MAR_stop() {
    if (!started) return;
    pari_close_opts(INIT_DFTm);
    started = false;
}

bool MAR_started() { return started; }

void MAR_reset_stack() {
    if (started) set_avma(pari_mainstack->top);
}

long MAR_stack_size() { return started ? long(pari_mainstack->size) : 0; }

// The bridge to the number library: start, stop, stack and errors.
#pragma once

// Starts PARI with the session's stack size and prime limit. PARI's errors then leave
// through the kernel's error mechanism as numbered errors.
void MAR_start(long stack_size, long prime_limit);
void MAR_stop();
bool MAR_started();
// Everything on the PARI stack is temporary: after an error it goes back to its base.
void MAR_reset_stack();
long MAR_stack_size();
// The kernel's error number for a PARI error class.
long MAR_error_number(long pari_class);

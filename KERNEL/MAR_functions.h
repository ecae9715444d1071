// The one-argument number functions (abs, ceil, floor, frac, isprime, nextprime, fact,
// round, trunc): registers their shared front and numeric back ends.
#pragma once

void MAR_functions_start();

v = vector(10^4, i, eval(Str("x", i))); s = vecsum(v); print(#variables(s));

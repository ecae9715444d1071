v = vector(10^5, i, eval(Str("x", i))); s = vecsum(v); print(#variables(s));

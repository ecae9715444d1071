p = prod(i = 1, 10^4, eval(Str("x", i))^i); print(#variables(p));

s = 0; for(i = 1, 10^4, s += eval(Str("x", i))); print(#variables(s));

s = 0; for(i = 1, 10^6, s += i); print(s);

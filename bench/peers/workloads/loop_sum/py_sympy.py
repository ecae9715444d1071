import sys
sys.set_int_max_str_digits(0)
from sympy import Integer
s = Integer(0)
for i in range(1, 10**6 + 1):
    s += i
print(s)

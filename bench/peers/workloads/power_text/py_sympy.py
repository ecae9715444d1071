import sys
sys.set_int_max_str_digits(0)
from sympy import Integer
print(Integer(3)**200000)

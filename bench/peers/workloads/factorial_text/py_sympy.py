import sys
sys.set_int_max_str_digits(0)
from sympy import factorial
print(factorial(30000))

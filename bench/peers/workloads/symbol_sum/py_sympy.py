from sympy import symbols, Add
xs = symbols("x1:%d" % (10**4 + 1))
s = Add(*xs)
print(len(s.args))

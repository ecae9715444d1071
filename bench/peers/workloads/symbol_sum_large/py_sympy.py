from sympy import symbols, Add
xs = symbols("x1:%d" % (10**5 + 1))
s = Add(*xs)
print(len(s.args))

from sympy import symbols, Mul
xs = symbols("x1:%d" % (10**4 + 1))
p = Mul(*[x**(i + 1) for i, x in enumerate(xs)])
print(len(p.args))

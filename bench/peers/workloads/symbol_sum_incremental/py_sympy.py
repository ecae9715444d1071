from sympy import symbols
xs = symbols("x1:%d" % (10**4 + 1))
s = 0
for x in xs:
    s = s + x
print(len(s.args))

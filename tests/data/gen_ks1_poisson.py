#!/usr/bin/env python3
"""Exact reference values for the one-sample Kolmogorov-Smirnov test against
a Poisson distribution, in rational arithmetic (fractions).

Run once with `python3 gen_ks1_poisson.py` in this folder; it writes
ks1_poisson_refs.csv, which is committed so that the tests never run it.

The null distribution is the Poisson with the given mean on the points
0 .. M-1, M the first point whose distribution value is within 5e-14 of 1,
with all the mass beyond M-2 on that last point.  Its distribution values
are exp(-mean) sum mean^k / k!, with exp(-mean) to 60 digits, rounded to
40 decimals, as fractions.

For a sample the statistics are D+ = max_s N(s)/n - F(s) and
D- = max_s F(s) - N(s)/n over the support points, N(s) the number of
observations at or below s.  P(D+ >= d) is 1 - P(N(s) < n (F(s) + d) for
every s), summed exactly over the cumulative counts point by point, each
point's count binomial given the counts before it.  P(D- >= d) likewise.
This path sum shares nothing with the engine's recursion.  Conover's
formula, evaluated here in fractions as well, must give the same tails
(but at d = 0, where it leaves out its term j = n); its last term is the
point value of the file.

Columns: id, mean, n, values, weights (space-separated), d, d_plus,
d_minus, p_plus = P(D+ >= d_plus), p_minus = P(D- >= d_minus),
two_sided = P(D+ >= d) + P(D- >= d), point = the last term of Conover's
upper sum for d (nan for the samples above 30, where only the path sums
are formed).  Numbers carry 17 significant digits.
"""

import random
from decimal import Decimal, getcontext
from fractions import Fraction
from math import comb, factorial, floor

getcontext().prec = 60
TABLE_END = Fraction(5, 10**14)
DIGITS = 40
# Observed statistics closer than this to another attainable value would
# leave the event to rounding; such samples are not used.
NEAR_TIE = Fraction(1, 10**9)


def poisson_cdf(mean):
    m = Fraction(mean)  # the double the engine is given, exactly
    e = Fraction((-Decimal(mean)).exp())
    cdf, term, total, k = [], e, Fraction(0), 0
    while True:
        total += term
        cdf.append(total)
        if 1 - total < TABLE_END:
            break
        k += 1
        term = term * m / k
    cdf[-1] = Fraction(1)  # the mass beyond the table lies on its last point
    # 40 decimals, far below double precision, keep the sums small.
    return [Fraction(round(F * 10**DIGITS), 10**DIGITS) for F in cdf]


def statistics(values, weights, cdf):
    n = sum(weights)
    counts = [0] * len(cdf)
    for v, w in zip(values, weights):
        counts[min(v, len(cdf) - 1)] += w
    plus = minus = Fraction(0)
    below = 0
    diffs = []
    for s, F in enumerate(cdf):
        below += counts[s]
        g = Fraction(below, n) - F
        diffs.append(g)
        plus, minus = max(plus, g), max(minus, -g)
    return n, plus, minus


def crossing_probability(n, cdf, crosses):
    """P(crosses(s, N(s)) for some s): 1 - the mass of the paths that never cross.

    A path is the number x_s of observations on each point; its probability
    is the multinomial n! prod p_s^x_s / x_s!.  With every p_s = a_s / 10^D,
    alive[k] holds, in whole numbers, the sum of k! prod a_s^x_s / x_s! over
    the paths that put k observations on the points so far without
    crossing: a step of x more multiplies by C(k + x, x) a_s^x."""
    scale = 10**DIGITS
    alive = {0: 1}
    before = Fraction(0)
    for s, F in enumerate(cdf):
        a = (F - before) * scale
        assert a.denominator == 1
        a = a.numerator
        powers = [1]
        for x in range(1, n + 1):
            powers.append(powers[-1] * a)
        open_k = [not crosses(s, k) for k in range(n + 1)]
        nxt = {}
        for k, weight in alive.items():
            for x in range(n - k + 1):
                k2 = k + x
                if open_k[k2]:
                    nxt[k2] = nxt.get(k2, 0) + weight * comb(k2, x) * powers[x]
        alive = nxt
        before = F
    return 1 - Fraction(alive.get(n, 0), scale**n)


def check_no_near_tie(n, cdf, d, sign):
    for F in cdf:
        for k in range(n + 1):
            g = sign * (Fraction(k, n) - F)
            if g != d and abs(g - d) < NEAR_TIE:
                raise ValueError("near tie")


def conover(n, cdf, d, upper):
    """Conover's tail and its last term, exactly."""
    if upper:
        J = floor(n * (1 - d))
        if J * (1 - d) >= n:
            J -= 1
        f = []
        for j in range(J + 1):
            t = (1 - d) - Fraction(j, n)
            below = [F for F in cdf if F <= t]
            f.append(max(below) if below else Fraction(0))
    else:
        x = n * (1 - d)
        J = int(x) - 1 if x == floor(x) else floor(x)
        f = []
        for j in range(J + 1):
            t = d + Fraction(j, n)
            above = [F for F in cdf[:-1] if F >= t]
            f.append(1 - min(above) if above else Fraction(0))
    if J < 0:
        return Fraction(0), Fraction(0)
    c = [Fraction(1)]
    for k in range(1, J + 1):
        c.append(1 - sum(comb(k, j) * c[j] * f[j] ** (k - j) for j in range(k)))
    terms = [comb(n, j) * c[j] * f[j] ** (n - j) for j in range(J + 1)]
    return sum(terms, Fraction(0)), terms[-1]


def g17(x):
    return "%.17g" % float(x)


def main():
    rng = random.Random(20261123)
    rows = ["id,mean,n,values,weights,d,d_plus,d_minus,p_plus,p_minus,two_sided,point"]
    plan = [(mean, n, shift) for n in (5, 6, 8, 10, 12, 15, 20, 25, 30)
            for mean, shift in ((1.0, 1.0), (2.5, 1.0), (0.7, 1.0), (4.0, 1.6), (3.0, 0.5))]
    # Samples beyond the reach of quadruple precision in Conover's sums.
    plan += [(1.0, 100, 1.0), (3.0, 150, 1.0), (2.0, 200, 1.15)]
    for mean, n, shift in plan:
        cdf = poisson_cdf(mean)
        for attempt in range(20):
            draw = [poisson_draw(rng, mean * shift) for _ in range(n)]
            values = sorted(set(draw))
            weights = [draw.count(v) for v in values]
            n_, plus, minus = statistics(values, weights, cdf)
            d = max(plus, minus)
            try:
                for dd in {plus, minus, d}:
                    check_no_near_tie(n, cdf, dd, 1)
                    check_no_near_tie(n, cdf, dd, -1)
            except ValueError:
                continue
            break
        p_plus = crossing_probability(n, cdf, lambda s, k: Fraction(k, n) - cdf[s] >= plus)
        p_minus = crossing_probability(n, cdf, lambda s, k: cdf[s] - Fraction(k, n) >= minus)
        two = (crossing_probability(n, cdf, lambda s, k: Fraction(k, n) - cdf[s] >= d) +
               crossing_probability(n, cdf, lambda s, k: cdf[s] - Fraction(k, n) >= d))
        point = float("nan")
        if n <= 30:  # Conover's sums in fractions grow too slowly beyond
            c_plus, _ = conover(n, cdf, plus, True)
            c_minus, _ = conover(n, cdf, minus, False)
            c_up, point = conover(n, cdf, d, True)
            c_low, _ = conover(n, cdf, d, False)
            # Conover's sums leave out the term j = n, which only d = 0 has.
            assert plus == 0 or c_plus == p_plus, (mean, n, values, weights)
            assert minus == 0 or c_minus == p_minus, (mean, n, values, weights)
            assert c_up + c_low == two, (mean, n, values, weights)
        rows.append(",".join([
            "pois_%g_%d_x%g" % (mean, n, shift), g17(mean), str(n),
            " ".join(map(str, values)), " ".join(map(str, weights)),
            g17(d), g17(plus), g17(minus), g17(p_plus), g17(p_minus), g17(two), g17(point)]))
    with open("ks1_poisson_refs.csv", "w") as out:
        out.write("\n".join(rows) + "\n")


def poisson_draw(rng, mean):
    # Inversion of the distribution function by sequential search.
    u, k = rng.random(), 0
    p = Fraction((-Decimal(mean)).exp())
    s = p
    while u > s:
        k += 1
        p = p * Fraction(mean) / k
        s += p
    return k


if __name__ == "__main__":
    main()

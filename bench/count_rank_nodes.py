#!/usr/bin/env python3
"""Counts the nodes of the exact two-row network for a two-sample Wilcoxon
test on tied levels, apart from the engine: the stage order, the bounds of
the later columns, the four cuts and the merges of equal score sums are
written again here.  Score sums are integer multiples of 1/2, held as bits
of one big integer per first-sample count.  Prints, per pass, the nodes of
the new stage and the nodes of the two stages that the slot grid holds at
once.

    python3 bench/count_rank_nodes.py 12 7 14 11 10 13 8 9 6 10 / 8 8 15 3 15 14 8 12 10 7
"""
import sys

def midranks(c):
    s, r = [], 0
    for ci in c:
        s.append(r + (ci + 1) / 2.0); r += ci
    return s

def stage_order(cols):  # cols: list of (c, score)
    cols = [x for x in cols if x[0] != 0]
    K = len(cols)
    for i in range(K - 1):            # exchange sort, lowest score first
        for j in range(i + 1, K):
            if cols[j][1] < cols[i][1]:
                cols[i], cols[j] = cols[j], cols[i]
    return cols

def order_walk(cols, m):
    K = len(cols); N = sum(c for c, _ in cols)
    rem, tot = m, N
    p = 0
    while p < K and rem >= 0:
        best, chosen, cmid = 9.999989792611011e36, None, None
        for q in range(p, K):
            cq = cols[q][0]
            mid = (min(cq, rem) + max(cq + rem - tot, 0)) // 2
            V = rem - mid
            others = [cols[i] for i in range(p, K) if i != q]
            def hand(seq, v):
                add = 0.0
                for c, s in seq:
                    t = min(c, v); add += t * s; v -= t
                    if v <= 0: break
                return add
            spread = hand(list(reversed(others)), V) - hand(others, V)
            if spread < best:
                best, chosen, cmid = spread, q, mid
        col = cols.pop(chosen); cols.insert(p, col)
        tot -= col[0]; rem -= cmid
        p += 1
    return cols

def run(first, second, verbose=True):
    K = len(first)
    c = [a + b for a, b in zip(first, second)]
    s = midranks(c)
    n, N = sum(first), sum(c)
    tobs = sum(f * x for f, x in zip(first, s))
    mean = sum(n / N * ci * si for ci, si in zip(c, s))
    # shift (lowest score 0); midranks stay on the half lattice
    low = min(s); s = [x - low for x in s]
    tobs = sum(f * x for f, x in zip(first, s)); mean = sum(n / N * ci * si for ci, si in zip(c, s))
    mirror = 2 * mean - tobs
    hb, lb = (mirror, tobs) if mean > tobs else (tobs, mirror)
    m = n
    if 2 * n > N:
        total = sum(ci * si for ci, si in zip(c, s))
        hb, lb = total - lb, total - hb
        m = N - n
    cols = order_walk(stage_order(list(zip(c, s))), m)
    e = abs(hb) * 2.0 ** -23
    hu, hd, lu, ld = hb + e, hb - e, lb + e, lb - e
    cs = [x[0] for x in cols]; ss = [x[1] for x in cols]
    k2 = [int(round(2 * x)) for x in ss]
    assert all(abs(2 * x - round(2 * x)) == 0 for x in ss)
    C = [0]
    for x in cs: C.append(C[-1] + x)
    rows = {0: 1}   # x -> bitset of past*2
    old = 1
    peak_pair, peak_stage, log = 0, 0, []
    for st in range(K):
        cc, Cn = cs[st], C[st + 1]
        rest = sorted(zip(cs[st + 1:], ss[st + 1:]), key=lambda t: -t[1])
        def fill(seq, v):
            a = 0.0
            for c_, s_ in seq:
                t = min(c_, v); a += t * s_; v -= t
                if v <= 0: break
            return a
        xlo, xhi = max(Cn - N + m, 0), min(m, Cn)
        new = {}
        for x, bits in rows.items():
            for xp in range(max(x, xlo), min(xhi, x + cc) + 1):
                t = xp - x
                new[xp] = new.get(xp, 0) | (bits << (t * k2[st]))
        fresh = 0
        out = {}
        for xp, bits in new.items():
            v = m - xp
            rmax = fill(rest, v); rmin = fill(list(reversed(rest)), v)
            # alive: not (np+rmin>hu), not (np+rmax<ld), not (np+rmax<hd and np+rmin>lu)
            def first_true(pred, lo, hi):  # smallest j in [lo,hi] with pred true (pred monotone F..T)
                while lo < hi:
                    mid = (lo + hi) // 2
                    if pred(mid): hi = mid
                    else: lo = mid + 1
                return lo
            top = bits.bit_length()
            L = top + 2
            jH = first_true(lambda j: j / 2.0 + rmin > hu, 0, L) - 1      # last j not above
            jL = first_true(lambda j: not (j / 2.0 + rmax < ld), 0, L)     # first j not below
            jMh = first_true(lambda j: not (j / 2.0 + rmax < hd), 0, L)   # first j with np+rmax>=hd
            jMl = first_true(lambda j: j / 2.0 + rmin > lu, 0, L) - 1     # last j with np+rmin<=lu
            def rng(a, b_):
                if b_ < a: return 0
                return ((1 << (b_ + 1)) - 1) ^ ((1 << a) - 1)
            mask = rng(jL, min(jH, jMl)) | rng(max(jL, jMh), jH)
            kept = bits & mask
            if kept:
                out[xp] = kept; fresh += kept.bit_count()
        peak_pair = max(peak_pair, old + fresh)
        log.append((st + 1, fresh, old + fresh))
        rows, old = out, fresh
        if fresh == 0: break
    return log, peak_pair, cols

if __name__ == "__main__":
    a = sys.argv[1:]
    i = a.index("/")
    first = [int(x) for x in a[:i]]; second = [int(x) for x in a[i + 1:]]
    log, peak, cols = run(first, second)
    print("stage order (count, score):", [(c, s) for c, s in cols])
    for st, fresh, pair in log:
        print(f"stage {st:2d}: nodes {fresh:>10d}   old+new {pair:>10d}")
    print(f"largest old+new: {peak}  (grid at the default budget: 825000)")

# Reference values for the two-sample Kolmogorov-Smirnov test, from R's
# ks.test (stats package).  Run from the repository root with
#     Rscript tests/data/gen_ks2_refs.R
# It rewrites ks2_refs.csv next to this script; the tests read the
# committed file and never need R.
#
# Rows r.. and l.. are drawn without ties, rows t.. with ties (values on a
# few levels; R 4.2 computes exact p-values with ties as well, for
# n m < 10000).  Columns: id, x values, y values (space-separated),
# D, D+ (alternative "greater": the first sample's distribution function
# above the second's), D-, exact two-sided p, asymptotic two-sided p,
# asymptotic p of D+ and of D-, and the limiting two-sided tail
# 2 sum_k (-1)^(k-1) exp(-2 k^2 l^2), l = sqrt(n m / (n + m)) D, summed
# here over 100 terms (ks.test sums it to a tolerance of 1e-6, and only
# three terms of its small-l form below l = 1, which leaves errors of
# 1e-5), exact P(D+ >= d+) and P(D- >= d-).  Numbers carry 17
# significant digits.

set.seed(20261123)
g <- function(v) sprintf("%.17g", v)
rows <- "id,x,y,d,d_plus,d_minus,exact_two,asym_two,asym_plus,asym_minus,limit_two,exact_plus,exact_minus"
add <- function(id, x, y) {
  two <- suppressWarnings(ks.test(x, y, exact = TRUE))
  stopifnot(grepl("^Exact", two$method))
  two_a <- suppressWarnings(ks.test(x, y, exact = FALSE))
  gt <- suppressWarnings(ks.test(x, y, exact = FALSE, alternative = "greater"))
  lt <- suppressWarnings(ks.test(x, y, exact = FALSE, alternative = "less"))
  gt_e <- suppressWarnings(ks.test(x, y, exact = TRUE, alternative = "greater"))
  # D- of (x, y) is D+ of (y, x).  R 4.2.2's alternative = "less" gives
  # exact tails with ties that disagree with this (and with enumeration),
  # so the reference takes the swapped call.
  lt_e <- suppressWarnings(ks.test(y, x, exact = TRUE, alternative = "greater"))
  l <- sqrt(length(x) * length(y) / (length(x) + length(y))) * two$statistic
  k <- 1:100
  limit <- 2 * sum((-1)^(k - 1) * exp(-2 * k^2 * l^2))
  rows[[length(rows) + 1]] <<- paste(
    id, paste(g(x), collapse = " "), paste(g(y), collapse = " "),
    g(two$statistic), g(gt$statistic), g(lt$statistic), g(two$p.value),
    g(two_a$p.value), g(gt$p.value), g(lt$p.value), g(limit),
    g(gt_e$p.value), g(lt_e$p.value), sep = ",")
}
for (i in 1:40) {
  n <- sample(2:30, 1)
  m <- sample(2:30, 1)
  v <- round(runif(n + m), 6)
  while (anyDuplicated(v)) v <- round(runif(n + m), 6)
  shift <- sample(c(0, 0.1, 0.3), 1)
  add(sprintf("r%02d", i), v[1:n] + shift, v[(n + 1):(n + m)])
}
for (i in 1:20) {
  n <- sample(3:40, 1)
  m <- sample(3:40, 1)
  levels <- sample(3:12, 1)
  add(sprintf("t%02d", i), sample(levels, n, TRUE) + sample(0:1, 1), sample(levels, m, TRUE))
}
# Larger samples: 60 + 80 and 99 + 100 (R's exact route stops at n m = 10000).
v <- round(rnorm(140), 8); add("l1", v[1:60] + 0.4, v[61:140])
v <- round(rnorm(199), 8); add("l2", v[1:99], v[100:199])
writeLines(rows, file.path("tests", "data", "ks2_refs.csv"))

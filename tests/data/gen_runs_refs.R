# Reference values for the runs tests on sequences of two kinds without
# ties: the exact null distribution of the number of runs (Swed and
# Eisenhart), written out below, and tseries::runs.test for the normal
# approximation.  Run from the repository root with
#     Rscript tests/data/gen_runs_refs.R
# (needs r-cran-tseries).  It rewrites runs_refs.csv next to this script;
# the tests read the committed file and never need R.
#
# Columns: id, the sequence (0 and 1, space-separated; 1 is the first
# kind), n1 (ones), n0 (zeros), runs, then from the exact distribution
#   lower, upper, point   P(R <= r), P(R >= r), P(R = r)
#   two                   P(R >= hi) + P(R <= lo) over the two cuts r and
#                         its mirror image 2 mean - r, rounded away from
#                         the mean (1 when r is the mean)
# and tseries' standardised statistic (R - mean) / sd, without continuity
# correction, and its two-sided p-value.  Numbers carry 17 digits.
suppressPackageStartupMessages(library(tseries))
set.seed(20261123)
g <- function(v) sprintf("%.17g", v)

# P(R = r) for r = 2 .. n1 + n0 in a random order of n1 ones and n0 zeros.
runs_density <- function(n1, n0) {
  r <- 2:(n1 + n0)
  k <- r %/% 2
  even <- 2 * choose(n1 - 1, k - 1) * choose(n0 - 1, k - 1)
  odd <- choose(n1 - 1, k - 1) * choose(n0 - 1, k) + choose(n1 - 1, k) * choose(n0 - 1, k - 1)
  list(r = r, p = ifelse(r %% 2 == 0, even, odd) / choose(n1 + n0, n1))
}

rows <- "id,sequence,n1,n0,runs,lower,upper,point,two,z,p_asym"
add <- function(id, s) {
  n1 <- sum(s); n0 <- length(s) - n1
  runs <- 1 + sum(s[-1] != s[-length(s)])
  d <- runs_density(n1, n0)
  mean <- 2 * n1 * n0 / (n1 + n0) + 1
  mirror <- 2 * mean - runs
  mirror <- if (mirror > mean) ceiling(mirror) else trunc(mirror)
  hi <- max(runs, mirror); lo <- min(runs, mirror)
  two <- if (hi == lo) 1 else sum(d$p[d$r >= hi | d$r <= lo])
  t <- runs.test(factor(s, levels = c(0, 1)))
  rows[[length(rows) + 1]] <<- paste(
    id, paste(s, collapse = " "), n1, n0, runs, g(sum(d$p[d$r <= runs])),
    g(sum(d$p[d$r >= runs])), g(sum(d$p[d$r == runs])), g(two), g(t$statistic),
    g(t$p.value), sep = ",")
}
for (i in 1:40) {
  N <- sample(c(6:30, 49, 50, 60, 80), 1)
  n1 <- sample(2:(N - 2), 1)
  s <- sample(rep(1:0, c(n1, N - n1)))
  # A few sequences clumped or alternating, for the tails.
  if (i %% 10 == 0) s <- sort(s)
  if (i %% 10 == 5) s <- rep(c(1, 0), length.out = N)
  add(sprintf("s%02d", i), s)
}
writeLines(rows, file.path("tests", "data", "runs_refs.csv"))

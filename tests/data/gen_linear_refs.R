# Peer values for the scored-table procedures: linear-by-linear association,
# Pearson's and Spearman's correlation.
#
# Rerun from the repository root with
#     Rscript tests/data/gen_linear_refs.R
# (needs R with coin; on Debian: r-base-core, r-cran-coin). It rewrites
# linear_refs.csv next to this script; the tests read the CSV, not R.
#
# Each case is a table (cells column-major, row index fastest) with row and
# column scores. Every table is expanded to its N cases (x = row score,
# y = column score):
#   T, mean, var, z : coin::independence_test(y ~ x): the linear statistic
#                     sum x y, its expectation and variance under the
#                     permutation law, and the standardised statistic.
#   r, t_r, p_r     : cor(x, y) and cor.test(x, y): t and its lower tail
#                     pt(t, N - 2).
#   rs, t_s, p_s    : Spearman's correlation of the categories, whatever
#                     their scores: cor(rank(i), rank(j)) of the row and
#                     column numbers (mid-ranks for ties), and
#                     t = sqrt(N - 2) rs / sqrt(1 - rs^2) with pt(t, N - 2),
#                     the t test of cor.test on ranks.
#   ase_r, ase_s    : the large-sample standard errors by the delta method,
#                     formed numerically: the measure as a function of the
#                     cell proportions p, its gradient g by central
#                     differences, ASE^2 = (sum p g^2 - (sum p g)^2) / N.
#                     For Spearman the mid-ranks are functions of p's margins.
suppressPackageStartupMessages(library(coin))

args <- commandArgs(trailingOnly = FALSE)
script <- sub("^--file=", "", args[grep("^--file=", args)])
outdir <- if (length(script) == 1) dirname(normalizePath(script)) else "tests/data"
g17 <- function(x) sprintf("%.17g", x)

# Pearson's r of a table of weights p with scores u, v.
r_of <- function(p, u, v) {
  p <- p / sum(p)
  ub <- sum(rowSums(p) * u); vb <- sum(colSums(p) * v)
  a <- u - ub; b <- v - vb
  sum(p * outer(a, b)) / sqrt(sum(rowSums(p) * a^2) * sum(colSums(p) * b^2))
}
# Mid-ranks on the scale of proportions: the rank of a category is the
# share of cases below it plus half its own share.
midrank <- function(m) cumsum(m) - m / 2
rs_of <- function(p, u, v) {
  p <- p / sum(p)
  r_of(p, midrank(rowSums(p)), midrank(colSums(p)))
}
delta_ase <- function(f, x, u, v) {
  n <- sum(x); p <- x / n; h <- 1e-5
  g <- p
  for (k in seq_along(p)) {
    up <- p; dn <- p
    up[k] <- up[k] + h; dn[k] <- dn[k] - h
    g[k] <- (f(up, u, v) - f(dn, u, v)) / (2 * h)
  }
  sqrt((sum(p * g^2) - sum(p * g)^2) / n)
}

tab <- function(...) { rows <- list(...); matrix(unlist(rows), nrow = length(rows), byrow = TRUE) }
cases <- list(
  list("t2x2", tab(c(5, 2), c(1, 6)), c(1, 2), c(1, 2)),
  list("t2x3", tab(c(3, 5, 2), c(4, 1, 6)), c(0, 1), c(1, 2, 3)),
  list("t3x3", tab(c(2, 1, 1), c(0, 3, 2), c(1, 0, 4)), c(1, 2, 3), c(1, 2, 3)),
  list("t3x4_uneq", tab(c(4, 2, 1, 0), c(2, 3, 3, 1), c(0, 1, 3, 5)), c(-1, 0.5, 4), c(0, 1, 3, 7)),
  list("t4x3_tied", tab(c(3, 1, 0), c(2, 2, 1), c(1, 2, 2), c(0, 1, 4)), c(1, 2, 2, 3), c(10, 20, 40)),
  list("t3x5", tab(c(6, 4, 2, 1, 0), c(3, 4, 5, 3, 2), c(0, 2, 3, 5, 7)), c(1, 2, 3), c(1, 2, 3, 4, 5)),
  list("t5x2", tab(c(1, 7), c(3, 5), c(4, 4), c(6, 2), c(8, 1)), c(10, 20, 30, 40, 50), c(0, 1)),
  list("t2x4_desc", tab(c(2, 4, 6, 9), c(8, 5, 3, 1)), c(2, 1), c(4, 3, 2, 1)),
  list("t3x3_neg", tab(c(10, 2, 3), c(3, 12, 4), c(2, 5, 14)), c(-2.5, 0, 2.5), c(-1, 0.25, 3)),
  list("t4x4", tab(c(12, 5, 2, 1), c(4, 10, 6, 2), c(1, 5, 9, 7), c(0, 2, 6, 15)), c(1, 2, 3, 4), c(1, 2, 3, 4)),
  list("t2x2_indep", tab(c(2, 4), c(3, 6)), c(1, 2), c(1, 2)),
  list("t3x4_large", tab(c(40, 22, 11, 5), c(18, 35, 27, 14), c(6, 19, 33, 46)), c(1, 2, 3), c(0.5, 1.5, 2.75, 4))
)

out <- do.call(rbind, lapply(cases, function(cs) {
  id <- cs[[1]]; m <- cs[[2]]; u <- cs[[3]]; v <- cs[[4]]
  rows <- nrow(m); cols <- ncol(m); n <- sum(m)
  x <- rep(rep(u, cols), as.vector(m)); y <- rep(rep(v, each = rows), as.vector(m))
  it <- independence_test(y ~ x)
  T <- as.numeric(statistic(it, type = "linear"))
  mu <- as.numeric(expectation(it)); va <- as.numeric(variance(it))
  z <- as.numeric(statistic(it, type = "standardized"))
  ct <- cor.test(x, y)
  r <- cor(x, y); tr <- as.numeric(ct$statistic); pr <- pt(tr, n - 2)
  ri <- rep(rep(seq_len(rows), cols), as.vector(m)); cj <- rep(rep(seq_len(cols), each = rows), as.vector(m))
  rs <- cor(rank(ri), rank(cj)); ts <- sqrt(n - 2) * rs / sqrt(1 - rs^2); ps <- pt(ts, n - 2)
  data.frame(id = id, rows = rows, cols = cols, cells = paste(as.vector(m), collapse = " "),
             row_scores = paste(g17(u), collapse = " "), col_scores = paste(g17(v), collapse = " "),
             T = g17(T), mean = g17(mu), var = g17(va), z = g17(z),
             r = g17(r), ase_r = g17(delta_ase(r_of, m, u, v)), t_r = g17(tr), p_r = g17(pr),
             rs = g17(rs), ase_s = g17(delta_ase(rs_of, m, u, v)), t_s = g17(ts), p_s = g17(ps))
}))
path <- file.path(outdir, "linear_refs.csv")
write.csv(out, path, row.names = FALSE, quote = FALSE)
cat("wrote", nrow(out), "cases to", path, "\n")

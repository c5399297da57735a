# Peer values for the ordinal procedures: gamma, Kendall's family,
# Jonckheere-Terpstra and Kruskal-Wallis.
#
# Rerun from the repository root with
#     Rscript tests/data/gen_ordinal_refs.R
# (base R only). It rewrites concordance_refs.csv and rank_refs.csv next to
# this script; the tests read the CSVs, not R.
#
# Each case is a table (cells column-major, row index fastest); rows and
# columns are ordered categories scored 1, 2, ... Every table is expanded to
# its N cases (x = row number, y = column number).
#
# concordance_refs.csv:
#   gamma, tau_a, tau_c, d_rc, d_cr, d_sym : from the concordant and
#       discordant pairs counted case pair by case pair (Agresti, Categorical
#       Data Analysis): d_rc = (C - D) / (pairs untied on the columns),
#       d_cr = (C - D) / (pairs untied on the rows), d_sym their harmonic form.
#   tau_b : cor(x, y, method = "kendall").
#   *_ase : large-sample standard errors by the delta method, formed
#       numerically: the measure as a function of the cell proportions p,
#       its gradient g by central differences, ASE^2 = (sum p g^2 -
#       (sum p g)^2) / N.
#   d_sym_ase : not the delta method but the approximation that the engine
#       documents for the symmetric form, 2 sqrt(wr wc) ASE(tau-b) / (wr + wc),
#       from the delta-method ASE of tau-b above.
#   gamma_ase0, tau_b_ase0 : the standard errors under independence,
#       4 / (P + Q)^2 (sum n_ij (A_ij - D_ij)^2 - (P - Q)^2 / N) for gamma and
#       4 / (wr wc) (the same sum) for tau-b, with A_ij and D_ij the cells
#       concordant and discordant with cell (i, j).
#
# rank_refs.csv (rows are groups, columns ordered levels):
#   jt   : sum over pairs of groups i < k of wilcox.test(y_k, y_i)$statistic,
#          the Mann-Whitney counts with ties as one half.
#   jt_mean, jt_sd : the mean (N^2 - sum n_i^2) / 4 and the standard deviation
#          with ties of Hollander and Wolfe (Nonparametric Statistical
#          Methods, the tied form of the variance).
#   kw, kw_p : kruskal.test(y, g): the statistic with its tie correction and
#          the chi-square p-value on groups - 1 degrees of freedom.

args <- commandArgs(trailingOnly = FALSE)
script <- sub("^--file=", "", args[grep("^--file=", args)])
outdir <- if (length(script) == 1) dirname(normalizePath(script)) else "tests/data"
g17 <- function(x) sprintf("%.17g", x)

cases_of <- function(x) {
  r <- nrow(x); c <- ncol(x)
  list(x = rep(rep(1:r, c), as.vector(x)), y = rep(rep(1:c, each = r), as.vector(x)))
}

# P = sum p A, Q = sum p D on a table of weights, cell by cell.
concordance <- function(p) {
  r <- nrow(p); c <- ncol(p)
  A <- D <- matrix(0, r, c)
  for (i in 1:r) for (j in 1:c) {
    A[i, j] <- sum(p[row(p) > i & col(p) > j]) + sum(p[row(p) < i & col(p) < j])
    D[i, j] <- sum(p[row(p) > i & col(p) < j]) + sum(p[row(p) < i & col(p) > j])
  }
  list(P = sum(p * A), Q = sum(p * D), A = A, D = D)
}

gamma_of <- function(p) { k <- concordance(p); (k$P - k$Q) / (k$P + k$Q) }
untied <- function(m) sum(m)^2 - sum(m^2)
tau_b_of <- function(p) {
  k <- concordance(p)
  (k$P - k$Q) / sqrt(untied(rowSums(p)) * untied(colSums(p)))
}
tau_c_of <- function(p) {
  m <- min(dim(p)); k <- concordance(p)
  m * (k$P - k$Q) / ((m - 1) * sum(p)^2)
}
d_rc_of <- function(p) { k <- concordance(p); (k$P - k$Q) / untied(colSums(p)) }
d_cr_of <- function(p) { k <- concordance(p); (k$P - k$Q) / untied(rowSums(p)) }
d_sym_of <- function(p) {
  k <- concordance(p)
  2 * (k$P - k$Q) / (untied(rowSums(p)) + untied(colSums(p)))
}

delta_ase <- function(f, x) {
  n <- sum(x); p <- x / n; h <- 1e-6
  g <- p
  for (k in seq_along(p)) {
    up <- p; dn <- p
    up[k] <- up[k] + h; dn[k] <- dn[k] - h
    g[k] <- (f(up) - f(dn)) / (2 * h)
  }
  sqrt(max(0, (sum(p * g^2) - sum(p * g)^2) / n))
}

set.seed(20261123)
tables <- list(
  agresti = matrix(c(1, 2, 1, 0, 3, 3, 6, 1, 10, 10, 14, 9, 6, 7, 12, 11), 4, 4),
  small = matrix(c(3, 1, 1, 3), 2, 2),
  wide = matrix(c(2, 0, 1, 3, 1, 2, 0, 4, 2, 1, 3, 0), 2, 6),
  tall = matrix(c(4, 2, 1, 0, 1, 1, 3, 5), 4, 2),
  negative = matrix(c(0, 1, 4, 2, 3, 1, 5, 1, 0), 3, 3),
  null = matrix(c(1, 2, 1, 2, 4, 2), 2, 3)
)
for (k in 1:12) {
  r <- sample(2:5, 1); c <- sample(2:6, 1)
  repeat {
    x <- matrix(rpois(r * c, sample(c(1, 2, 4), 1)), r, c)
    if (all(rowSums(x) > 0) && all(colSums(x) > 0)) break
  }
  tables[[paste0("random", k)]] <- x
}

rows <- c()
for (id in names(tables)) {
  x <- tables[[id]]
  k <- concordance(x)
  n <- sum(x)
  s <- cases_of(x)
  wr <- untied(rowSums(x)); wc <- untied(colSums(x))
  dsum <- sum(x * (k$A - k$D)^2) - (k$P - k$Q)^2 / n
  vals <- c(
    gamma = gamma_of(x), gamma_ase = delta_ase(gamma_of, x),
    gamma_ase0 = sqrt(4 / (k$P + k$Q)^2 * dsum),
    tau_a = (k$P - k$Q) / (n * (n - 1)),
    tau_b = cor(s$x, s$y, method = "kendall"), tau_b_ase = delta_ase(tau_b_of, x),
    tau_b_ase0 = sqrt(4 / (wr * wc) * dsum),
    tau_c = tau_c_of(x), tau_c_ase = delta_ase(tau_c_of, x),
    d_rc = d_rc_of(x), d_rc_ase = delta_ase(d_rc_of, x),
    d_cr = d_cr_of(x), d_cr_ase = delta_ase(d_cr_of, x),
    d_sym = d_sym_of(x), d_sym_ase = 2 * sqrt(wr * wc) * delta_ase(tau_b_of, x) / (wr + wc))
  rows <- c(rows, paste(id, nrow(x), ncol(x), paste(as.vector(x), collapse = " "),
                        paste(g17(vals), collapse = ","), sep = ","))
}
writeLines(c(paste("id,rows,cols,cells", paste(c("gamma", "gamma_ase", "gamma_ase0", "tau_a",
  "tau_b", "tau_b_ase", "tau_b_ase0", "tau_c", "tau_c_ase", "d_rc", "d_rc_ase", "d_cr",
  "d_cr_ase", "d_sym", "d_sym_ase"), collapse = ","), sep = ","), rows),
  file.path(outdir, "concordance_refs.csv"))

# Jonckheere-Terpstra and Kruskal-Wallis: rows are groups.
jt_sd <- function(ni, tj) {
  N <- sum(ni)
  a <- function(n) n * (n - 1) * (2 * n + 5)
  v <- (a(N) - sum(a(ni)) - sum(a(tj))) / 72
  if (N > 2) {
    v <- v + sum(ni * (ni - 1) * (ni - 2)) * sum(tj * (tj - 1) * (tj - 2)) / (36 * N * (N - 1) * (N - 2))
    v <- v + sum(ni * (ni - 1)) * sum(tj * (tj - 1)) / (8 * N * (N - 1))
  }
  sqrt(v)
}
rows <- c()
for (id in names(tables)) {
  x <- tables[[id]]
  s <- cases_of(x)
  jt <- 0
  for (i in 1:(nrow(x) - 1)) for (k in (i + 1):nrow(x))
    jt <- jt + unname(suppressWarnings(wilcox.test(s$y[s$x == k], s$y[s$x == i], exact = FALSE))$statistic)
  ni <- rowSums(x); tj <- colSums(x); n <- sum(x)
  kt <- if (ncol(x) > 1) kruskal.test(s$y, factor(s$x)) else NULL
  vals <- c(jt = jt, jt_mean = (n^2 - sum(ni^2)) / 4, jt_sd = jt_sd(ni, tj),
            kw = unname(kt$statistic), kw_p = kt$p.value)
  rows <- c(rows, paste(id, nrow(x), ncol(x), paste(as.vector(x), collapse = " "),
                        paste(g17(vals), collapse = ","), sep = ","))
}
writeLines(c("id,rows,cols,cells,jt,jt_mean,jt_sd,kw,kw_p", rows),
           file.path(outdir, "rank_refs.csv"))

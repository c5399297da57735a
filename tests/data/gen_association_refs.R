# Peer values for the association measures of nominal tables: the
# likelihood-ratio statistic, the uncertainty coefficients, Cohen's kappa and
# Goodman and Kruskal's tau.
#
# Rerun from the repository root with
#     Rscript tests/data/gen_association_refs.R
# (needs R with vcd and psych; on Debian: r-cran-vcd, r-cran-psych). It
# rewrites association_refs.csv next to this script; the tests read the CSV.
#
# Each case is a table (cells column-major, row index fastest). Columns:
#   g2, p_g2          : vcd::assocstats, the likelihood-ratio chi-square and
#                       its p-value on (r - 1)(c - 1) degrees of freedom.
#   uc, ur, us        : uncertainty coefficients (Theil), from the entropies
#                       H(X), H(Y), H(XY) of the cell proportions:
#                       U(C|R) = (H(X) + H(Y) - H(XY)) / H(Y), U(R|C) the
#                       same over H(X), symmetric 2 (H(X) + H(Y) - H(XY)) /
#                       (H(X) + H(Y)).
#   ase_*             : large-sample standard errors by the delta method,
#                       formed numerically: the measure as a function of the
#                       cell proportions p, its gradient g by central
#                       differences, ASE^2 = (sum p g^2 - (sum p g)^2) / N.
#   kappa, ase1_v     : vcd::Kappa (unweighted), value and its ASE.
#   kappa_p, var1_p   : psych::cohen.kappa, kappa and its variance.
#   ase1_d            : the delta-method ASE of kappa, as above.
#   ase0              : the null standard error of kappa (Fleiss, Cohen and
#                       Everitt 1969): sqrt((pe + pe^2 - sum p_i+ p_+i
#                       (p_i+ + p_+i)) / (N (1 - pe)^2)).
#   tau, tau_s        : Goodman and Kruskal's tau of the column given the
#                       row, (sum p_ij^2 / p_i+ - sum p_+j^2) / (1 - sum
#                       p_+j^2), and the symmetric tau (both numerators over
#                       both denominators); ase_tau by the delta method;
#                       p_tau the chi-square tail of (N - 1)(c - 1) tau on
#                       (r - 1)(c - 1) degrees of freedom (Light and
#                       Margolin's categorical analysis of variance).
suppressPackageStartupMessages({ library(vcd); library(psych) })

args <- commandArgs(trailingOnly = FALSE)
script <- sub("^--file=", "", args[grep("^--file=", args)])
outdir <- if (length(script) == 1) dirname(normalizePath(script)) else "tests/data"
g17 <- function(x) sprintf("%.17g", x)

ent <- function(q) { q <- q[q > 0]; -sum(q * log(q)) }
uc_of <- function(p) { p <- p / sum(p); hx <- ent(rowSums(p)); hy <- ent(colSums(p)); (hx + hy - ent(p)) / hy }
ur_of <- function(p) { p <- p / sum(p); hx <- ent(rowSums(p)); hy <- ent(colSums(p)); (hx + hy - ent(p)) / hx }
us_of <- function(p) { p <- p / sum(p); hx <- ent(rowSums(p)); hy <- ent(colSums(p)); 2 * (hx + hy - ent(p)) / (hx + hy) }
kappa_of <- function(p) { p <- p / sum(p); po <- sum(diag(p)); pe <- sum(rowSums(p) * colSums(p)); (po - pe) / (1 - pe) }
tau_num <- function(p) sum(p^2 / rowSums(p)) - sum(colSums(p)^2)
tau_of <- function(p) { p <- p / sum(p); tau_num(p) / (1 - sum(colSums(p)^2)) }
tau_s_of <- function(p) {
  p <- p / sum(p); tp <- t(p)
  (tau_num(p) + tau_num(tp)) / (2 - sum(colSums(p)^2) - sum(rowSums(p)^2))
}
# Cells that are 0 stay 0 in the differences: the measures are smooth in the
# positive cells only, as the large-sample law of the estimator.
delta_ase <- function(f, x) {
  n <- sum(x); p <- x / n; h <- 1e-6
  g <- p
  for (k in seq_along(p)) {
    if (p[k] == 0) { g[k] <- 0; next }
    up <- p; dn <- p
    up[k] <- up[k] + h; dn[k] <- dn[k] - h
    g[k] <- (f(up) - f(dn)) / (2 * h)
  }
  sqrt((sum(p * g^2) - sum(p * g)^2) / n)
}

tab <- function(...) { rows <- list(...); matrix(unlist(rows), nrow = length(rows), byrow = TRUE) }
cases <- list(
  list("s2x2", tab(c(5, 2), c(1, 6))),
  list("s2x2b", tab(c(12, 3), c(4, 9))),
  list("s3x3", tab(c(2, 1, 1), c(0, 3, 2), c(1, 0, 4))),
  list("s3x3_agree", tab(c(10, 2, 1), c(3, 12, 2), c(1, 3, 9))),
  list("s3x3_zero_diag", tab(c(0, 4, 2), c(3, 0, 5), c(2, 6, 0))),
  list("s4x4", tab(c(12, 5, 2, 1), c(4, 10, 6, 2), c(1, 5, 9, 7), c(0, 2, 6, 15))),
  list("s4x4_sparse", tab(c(3, 0, 1, 0), c(0, 2, 0, 1), c(1, 0, 4, 0), c(0, 1, 0, 2))),
  list("s5x5", tab(c(8, 2, 1, 0, 0), c(1, 9, 3, 1, 0), c(0, 2, 7, 2, 1), c(1, 0, 2, 6, 3), c(0, 1, 0, 2, 10))),
  list("r2x3", tab(c(3, 5, 2), c(4, 1, 6))),
  list("r3x5", tab(c(6, 4, 2, 1, 0), c(3, 4, 5, 3, 2), c(0, 2, 3, 5, 7))),
  list("r5x2", tab(c(1, 7), c(3, 5), c(4, 4), c(6, 2), c(8, 1))),
  list("r3x4_large", tab(c(40, 22, 11, 5), c(18, 35, 27, 14), c(6, 19, 33, 46)))
)

out <- do.call(rbind, lapply(cases, function(cs) {
  id <- cs[[1]]; m <- cs[[2]]
  rows <- nrow(m); cols <- ncol(m); n <- sum(m); p <- m / n
  as <- assocstats(m)
  g2 <- as$chisq_tests["Likelihood Ratio", "X^2"]; p_g2 <- as$chisq_tests["Likelihood Ratio", "P(> X^2)"]
  kap <- ase1_v <- kap_p <- var1_p <- ase1_d <- ase0 <- NA
  if (rows == cols) {
    k <- Kappa(m); kap <- k$Unweighted[["value"]]; ase1_v <- k$Unweighted[["ASE"]]
    ck <- cohen.kappa(m, n.obs = n); kap_p <- ck$kappa; var1_p <- ck$var.kappa
    ase1_d <- delta_ase(kappa_of, m)
    pr <- rowSums(p); pc <- colSums(p); pe <- sum(pr * pc)
    ase0 <- sqrt((pe + pe^2 - sum(pr * pc * (pr + pc))) / (n * (1 - pe)^2))
  }
  tau <- tau_of(m)
  data.frame(id = id, rows = rows, cols = cols, cells = paste(as.vector(m), collapse = " "),
             g2 = g17(g2), p_g2 = g17(p_g2),
             uc = g17(uc_of(m)), ase_uc = g17(delta_ase(uc_of, m)),
             ur = g17(ur_of(m)), ase_ur = g17(delta_ase(ur_of, m)),
             us = g17(us_of(m)), ase_us = g17(delta_ase(us_of, m)),
             kappa = g17(kap), ase1_v = g17(ase1_v), kappa_p = g17(kap_p), var1_p = g17(var1_p),
             ase1_d = g17(ase1_d), ase0 = g17(ase0),
             tau = g17(tau), tau_s = g17(tau_s_of(m)), ase_tau = g17(delta_ase(tau_of, m)),
             p_tau = g17(pchisq((n - 1) * (cols - 1) * tau, (rows - 1) * (cols - 1), lower.tail = FALSE)))
}))
path <- file.path(outdir, "association_refs.csv")
write.csv(out, path, row.names = FALSE, quote = FALSE)
cat("wrote", nrow(out), "cases to", path, "\n")

# Reference values for the two-way table tests, from R's stats package and vcd.
#
# Rerun from the repository root with
#     Rscript tests/data/gen_table_refs.R
# (needs R with the vcd package; on Debian: r-base-core, r-cran-vcd). It
# rewrites chisq_refs.csv, fisher_refs.csv and median_refs.csv next to this
# script. The CSV files are committed: the tests read them and don't need R.
#
# Cells are written column-major (row index fastest), space-separated. Reals
# are printed with %.17g so that they read back as the same doubles.
#
# chisq_refs.csv  id, rows, cols, cells, X2, df, p, phi, contingency, cramer_v
#   X2 = chisq.test(correct = FALSE)$statistic, p = pchisq(X2, df, upper),
#   phi = sqrt(X2 / N) as vcd::assocstats forms it (it shows NA for tables
#   other than 2 x 2), contingency and Cramer's V from vcd::assocstats.
# fisher_refs.csv id, rows, cols, cells, p
#   p = fisher.test(workspace = 2e8)$p.value.
# median_refs.csv id, rows, cols, cells, scores, cut, collapsed, X2, df, p
#   Rows are samples, columns ordered levels with the given scores. The table
#   is collapsed to rows x 2: first column the counts of levels with score
#   strictly above the cut, second column the rest. X2 and p are
#   chisq.test(correct = FALSE) on the collapsed table, df = rows - 1.

suppressPackageStartupMessages(library(vcd))

args <- commandArgs(trailingOnly = FALSE)
script <- sub("^--file=", "", args[grep("^--file=", args)])
outdir <- if (length(script) == 1) dirname(normalizePath(script)) else "tests/data"

g17 <- function(x) sprintf("%.17g", x)
cells_cm <- function(m) paste(as.vector(m), collapse = " ")  # column-major
tab <- function(...) {
  rows <- list(...)
  matrix(unlist(rows), nrow = length(rows), byrow = TRUE)
}

write_refs <- function(df, name) {
  path <- file.path(outdir, name)
  write.csv(df, path, row.names = FALSE, quote = FALSE)
  cat("wrote", nrow(df), "cases to", path, "\n")
}

# ---------------------------------------------------------------- chi-square
chisq_tables <- list(
  c2x2_a      = tab(c(12, 5), c(3, 10)),
  c2x2_b      = tab(c(20, 15), c(25, 40)),
  c2x3_small  = tab(c(3, 1, 4), c(1, 5, 2)),
  c2x3_n120   = tab(c(10, 20, 30), c(25, 15, 20)),
  c2x3_sparse = tab(c(0, 2, 5), c(4, 1, 0)),
  c2x4        = tab(c(5, 8, 2, 1), c(3, 9, 12, 4)),
  c2x5        = tab(c(2, 3, 1, 0, 4), c(1, 0, 3, 2, 1)),
  c2x6        = tab(c(1, 2, 3, 4, 5, 6), c(6, 5, 4, 3, 2, 1)),
  c3x2        = tab(c(2, 8), c(5, 5), c(9, 1)),
  c3x3_pub    = tab(c(2, 1, 1), c(0, 3, 2), c(1, 0, 4)),
  c3x3_diag   = tab(c(10, 2, 3), c(3, 12, 4), c(2, 3, 11)),
  c3x3_tiny   = tab(c(1, 0, 0), c(0, 1, 0), c(0, 0, 8)),
  c3x3_indep  = tab(c(2, 4, 6), c(1, 2, 3), c(3, 6, 9)),
  c3x3_n200   = tab(c(50, 30, 20), c(20, 40, 20), c(5, 10, 5)),
  c3x4        = tab(c(8, 5, 3, 2), c(4, 6, 7, 5), c(1, 3, 6, 10)),
  c3x4_n200   = tab(c(20, 15, 10, 5), c(12, 18, 20, 10), c(5, 10, 25, 50)),
  c3x5        = tab(c(2, 0, 1, 3, 1), c(0, 4, 2, 1, 0), c(3, 1, 0, 2, 5)),
  c3x6        = tab(c(1, 2, 0, 3, 1, 2), c(2, 1, 3, 0, 2, 1), c(0, 3, 1, 2, 1, 0)),
  c4x2        = tab(c(6, 4), c(3, 7), c(8, 2), c(1, 9)),
  c4x3_sparse = tab(c(0, 0, 5), c(0, 4, 1), c(3, 1, 0), c(2, 0, 0)),
  c4x4_job    = tab(c(1, 2, 1, 0), c(3, 3, 6, 1), c(10, 10, 14, 9), c(6, 7, 12, 11)),
  c4x4_band   = tab(c(5, 1, 0, 0), c(1, 4, 1, 0), c(0, 1, 5, 2), c(0, 0, 2, 6)),
  c4x5        = tab(c(3, 2, 1, 0, 4), c(1, 1, 2, 3, 0), c(2, 4, 0, 1, 1), c(0, 1, 3, 2, 2)),
  c4x6        = tab(c(10, 6, 4, 2, 1, 0), c(5, 8, 6, 4, 2, 1), c(2, 4, 8, 7, 5, 3),
                    c(0, 1, 3, 6, 9, 12)),
  c5x2_sparse = tab(c(1, 0), c(2, 1), c(0, 3), c(1, 1), c(3, 0)),
  c5x3        = tab(c(3, 2, 1), c(1, 4, 2), c(2, 2, 3), c(0, 1, 5), c(4, 0, 1)),
  c5x5_diag   = tab(c(4, 1, 0, 0, 0), c(1, 3, 1, 0, 0), c(0, 1, 4, 1, 0), c(0, 0, 1, 3, 1),
                    c(0, 0, 0, 1, 4)),
  c5x5_n150   = tab(c(12, 8, 5, 3, 2), c(7, 10, 8, 5, 3), c(4, 6, 10, 8, 6), c(2, 4, 6, 10, 9),
                    c(1, 2, 4, 8, 12)),
  c5x6_sparse = tab(c(1, 0, 2, 1, 0, 1), c(0, 2, 1, 0, 1, 0), c(1, 1, 0, 2, 0, 1),
                    c(2, 0, 1, 0, 1, 1), c(0, 1, 0, 1, 2, 0)),
  c5x6        = tab(c(8, 4, 3, 2, 1, 2), c(3, 9, 4, 3, 2, 1), c(2, 3, 10, 5, 3, 2),
                    c(1, 2, 4, 9, 6, 3), c(2, 1, 2, 4, 8, 12))
)

chisq_rows <- lapply(names(chisq_tables), function(id) {
  m <- chisq_tables[[id]]
  ct <- suppressWarnings(chisq.test(m, correct = FALSE))
  x2 <- unname(ct$statistic)
  df <- unname(ct$parameter)
  as <- assocstats(m)
  phi <- sqrt(x2 / sum(m))
  # vcd forms its measures from the Pearson statistic of a fitted log-linear
  # model; it must agree with chisq.test.
  stopifnot(abs(as$chisq_tests[2, 1] - x2) <= 1e-9 * max(1, x2))
  if (all(dim(m) == 2)) stopifnot(abs(as$phi - phi) <= 1e-12)
  data.frame(id = id, rows = nrow(m), cols = ncol(m), cells = cells_cm(m),
             X2 = g17(x2), df = df,
             p = g17(pchisq(x2, df, lower.tail = FALSE)),
             phi = g17(phi), contingency = g17(as$contingency),
             cramer_v = g17(as$cramer))
})
write_refs(do.call(rbind, chisq_rows), "chisq_refs.csv")

# ---------------------------------------------------------------- Fisher
fisher_tables <- list(
  f2x2_tea      = tab(c(3, 1), c(1, 3)),
  f2x2_convict  = tab(c(2, 10), c(15, 3)),
  f2x2_a        = tab(c(8, 2), c(1, 5)),
  f2x2_extreme  = tab(c(0, 5), c(5, 0)),
  f2x2_even     = tab(c(5, 5), c(5, 5)),
  f2x2_tiny     = tab(c(2, 0), c(0, 2)),
  f2x2_n80      = tab(c(25, 10), c(15, 30)),
  f2x2_skew     = tab(c(1, 9), c(11, 3)),
  f2x3          = tab(c(3, 1, 4), c(1, 5, 2)),
  f2x5          = tab(c(2, 3, 1, 0, 4), c(1, 0, 3, 2, 1)),
  f3x2          = tab(c(2, 8), c(5, 5), c(9, 1)),
  f3x3_pub      = tab(c(2, 1, 1), c(0, 3, 2), c(1, 0, 4)),
  f3x3_diag     = tab(c(6, 1, 1), c(1, 5, 2), c(0, 2, 7)),
  f3x5          = tab(c(2, 0, 1, 3, 1), c(0, 4, 2, 1, 0), c(3, 1, 0, 2, 5)),
  f4x3_sparse   = tab(c(0, 0, 5), c(0, 4, 1), c(3, 1, 0), c(2, 0, 0)),
  f4x4_band     = tab(c(5, 1, 0, 0), c(1, 4, 1, 0), c(0, 1, 5, 2), c(0, 0, 2, 6)),
  f5x5_diag     = tab(c(4, 1, 0, 0, 0), c(1, 3, 1, 0, 0), c(0, 1, 4, 1, 0), c(0, 0, 1, 3, 1),
                      c(0, 0, 0, 1, 4)),
  f5x6_sparse   = tab(c(1, 0, 2, 1, 0, 1), c(0, 2, 1, 0, 1, 0), c(1, 1, 0, 2, 0, 1),
                      c(2, 0, 1, 0, 1, 1), c(0, 1, 0, 1, 2, 0)),
  f4x4_job      = tab(c(1, 2, 1, 0), c(3, 3, 6, 1), c(10, 10, 14, 9), c(6, 7, 12, 11)),
  f3x4_n60      = tab(c(8, 5, 3, 2), c(4, 6, 7, 5), c(1, 3, 6, 10)),
  f3x5_n70      = tab(c(6, 5, 4, 3, 2), c(3, 5, 6, 5, 4), c(1, 2, 5, 8, 11)),
  f4x4_n80      = tab(c(9, 4, 3, 2), c(4, 7, 5, 3), c(3, 4, 8, 5), c(1, 3, 5, 14)),
  f4x5_n50      = tab(c(5, 3, 2, 1, 1), c(2, 4, 3, 2, 1), c(1, 2, 4, 3, 2), c(0, 1, 2, 4, 7)),
  f5x5_n40      = tab(c(4, 2, 1, 0, 1), c(1, 4, 1, 1, 0), c(1, 1, 4, 1, 1), c(0, 1, 1, 4, 2),
                      c(1, 0, 1, 2, 5)),
  f5x5_n60      = tab(c(5, 2, 1, 1, 0), c(2, 4, 2, 1, 1), c(1, 2, 5, 2, 1), c(0, 1, 2, 4, 3),
                      c(1, 0, 1, 3, 8)),
  f5x5_n78      = tab(c(6, 3, 2, 1, 1), c(3, 5, 3, 2, 1), c(2, 3, 6, 3, 2), c(1, 2, 3, 6, 4),
                      c(1, 1, 2, 4, 11)),
  f4x5_n80      = tab(c(8, 5, 3, 2, 1), c(4, 6, 5, 3, 2), c(2, 4, 6, 5, 4), c(1, 2, 4, 6, 7)),
  f3x6_n70      = tab(c(6, 5, 4, 3, 2, 1), c(3, 4, 5, 5, 4, 3), c(1, 2, 3, 5, 7, 7)),
  f5x4_n56      = tab(c(5, 2, 1, 1), c(3, 4, 2, 1), c(2, 3, 5, 2), c(1, 2, 4, 6), c(1, 1, 3, 7))
)

fisher_rows <- lapply(names(fisher_tables), function(id) {
  m <- fisher_tables[[id]]
  t0 <- proc.time()[["elapsed"]]
  p <- fisher.test(m, workspace = 2e8)$p.value
  cat(sprintf("  %-14s N = %3d  %.2f s\n", id, sum(m), proc.time()[["elapsed"]] - t0))
  data.frame(id = id, rows = nrow(m), cols = ncol(m), cells = cells_cm(m), p = g17(p))
})
write_refs(do.call(rbind, fisher_rows), "fisher_refs.csv")

# ---------------------------------------------------------------- median test
median_cases <- list(
  list(id = "m2x5", m = tab(c(3, 4, 2, 1, 0), c(0, 1, 3, 4, 2)), scores = 1:5, cut = 3),
  list(id = "m3x4", m = tab(c(5, 3, 2, 0), c(2, 4, 3, 1), c(0, 2, 4, 6)),
       scores = c(10, 20, 30, 40), cut = 25),
  list(id = "m3x4_at_level", m = tab(c(5, 3, 2, 0), c(2, 4, 3, 1), c(0, 2, 4, 6)),
       scores = c(10, 20, 30, 40), cut = 20),
  list(id = "m3x4_below_level", m = tab(c(5, 3, 2, 0), c(2, 4, 3, 1), c(0, 2, 4, 6)),
       scores = c(10, 20, 30, 40), cut = 19.5),
  list(id = "m4x6", m = tab(c(2, 3, 4, 1, 0, 0), c(1, 2, 3, 3, 1, 0), c(0, 1, 2, 3, 3, 1),
                            c(0, 0, 1, 2, 4, 3)),
       scores = c(0.5, 1.5, 2.5, 3.5, 4.5, 5.5), cut = 2.75),
  list(id = "m3x3_uneven", m = tab(c(1, 6, 2), c(4, 1, 0), c(0, 2, 5)),
       scores = c(-1, 0, 2.5), cut = 0),
  list(id = "m5x4", m = tab(c(3, 1, 1, 0), c(2, 2, 1, 1), c(1, 2, 2, 1), c(0, 1, 3, 2),
                            c(1, 0, 2, 4)),
       scores = c(1, 2, 4, 8), cut = 3)
)

median_rows <- lapply(median_cases, function(cs) {
  m <- cs$m
  above <- rowSums(m[, cs$scores > cs$cut, drop = FALSE])
  collapsed <- cbind(above, rowSums(m) - above)
  stopifnot(all(colSums(collapsed) > 0))
  ct <- suppressWarnings(chisq.test(collapsed, correct = FALSE))
  data.frame(id = cs$id, rows = nrow(m), cols = ncol(m), cells = cells_cm(m),
             scores = paste(g17(cs$scores), collapse = " "), cut = g17(cs$cut),
             collapsed = cells_cm(collapsed), X2 = g17(unname(ct$statistic)),
             df = unname(ct$parameter), p = g17(ct$p.value))
})
write_refs(do.call(rbind, median_rows), "median_refs.csv")

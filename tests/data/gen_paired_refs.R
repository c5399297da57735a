# Reference values for the paired-sample score tests (procedures 2 and 1 on
# one-row tables) and marginal homogeneity (procedures 10, 510), from R's
# stats package, exactRankTests and coin.
#
# Rerun from the repository root with
#     Rscript tests/data/gen_paired_refs.R
# (needs r-base-core, r-cran-coin, r-cran-exactranktests). It rewrites
# paired_refs.csv and marginal_refs.csv next to this script.
#
# paired_refs.csv: id, rule, cols, counts, diffs, then exact_greater,
# exact_less, exact_two, z (no continuity correction), source.
#   A case is a one-row table: counts[j] pairs with difference diffs[j]
#   (space-separated).  rule 1: signed rank (wilcox.test(exact = TRUE)
#   without ties, exactRankTests::wilcox.exact with ties, both checked
#   against coin::wilcoxsign_test(zero.method = "Wilcoxon")); rule 2: sign
#   test about 0 (binom.test on the positive and negative counts).
# marginal_refs.csv: id, r, cells (column-major), scores, z, asym_two
#   z of coin::mh_test with the category scores; for 2 x 2 tables also
#   mcnemar.test(correct = FALSE), checked to agree.

suppressPackageStartupMessages({
  library(coin)
  library(exactRankTests)
})
args <- commandArgs(trailingOnly = FALSE)
script <- sub("^--file=", "", args[grep("^--file=", args)])
outdir <- if (length(script) == 1) dirname(normalizePath(script)) else "tests/data"
g17 <- function(x) sprintf("%.17g", x)

paired <- list(
  noties_8   = list(c(1, 1, 1, 1, 1, 1, 1, 1), c(-3, 1, 2, -4, 5, 6, -7, 8)),
  noties_12  = list(rep(1, 12), c(1, -2, 3, 4, -5, 6, 7, 8, -9, 10, 11, -12)),
  noties_zero = list(c(1, 1, 1, 2, 1, 1), c(0.5, -1.5, 2.5, 0, 3.5, -4.5)),
  ties_small = list(c(2, 3, 1, 2), c(-1, 1, 2, -2)),
  ties_zeros = list(c(3, 2, 4, 1, 2), c(0, -1, 1, 2, 3)),
  ties_heavy = list(c(5, 7, 3, 6, 2), c(-2, -1, 1, 2, 3)),
  ties_half  = list(c(2, 1, 3, 2, 4, 1), c(-1.5, -0.5, 0.5, 1.5, 2.5, -2.5)),
  ties_n40   = list(c(4, 6, 8, 5, 7, 6, 4), c(-3, -2, -1, 0, 1, 2, 3)),
  onesided   = list(c(2, 3, 1), c(1, 2, 3))
)
rows <- list()
for (id in names(paired)) {
  counts <- paired[[id]][[1]]
  diffs <- paired[[id]][[2]]
  d <- rep(diffs, counts)
  nz <- d[d != 0]
  ties <- any(duplicated(abs(nz)))
  if (!ties && all(d != 0)) {
    ex <- function(alt) wilcox.test(d, exact = TRUE, alternative = alt)$p.value
    src <- "stats"
  } else {
    ex <- function(alt) wilcox.exact(d, exact = TRUE, alternative = alt)$p.value
    src <- "exactRankTests"
  }
  y <- data.frame(x = d, y = rep(0, length(d)))
  cn <- function(alt) pvalue(wilcoxsign_test(x ~ y, data = y, distribution = "exact",
                                             zero.method = "Wilcoxon", alternative = alt))
  p <- c(ex("greater"), ex("less"), ex("two.sided"))
  if (max(abs(p - c(cn("greater"), cn("less"), cn("two.sided")))) > 1e-9)
    stop(paste("peers disagree on", id))
  z <- statistic(wilcoxsign_test(x ~ y, data = y, zero.method = "Wilcoxon"))
  rows[[length(rows) + 1]] <- data.frame(id = id, rule = 1, cols = length(counts),
    counts = paste(counts, collapse = " "), diffs = paste(diffs, collapse = " "),
    exact_greater = g17(p[1]), exact_less = g17(p[2]), exact_two = g17(p[3]),
    z = g17(z), source = src)
  pos <- sum(nz > 0)
  n <- length(nz)
  b <- function(alt) binom.test(pos, n, 0.5, alternative = alt)$p.value
  rows[[length(rows) + 1]] <- data.frame(id = id, rule = 2, cols = length(counts),
    counts = paste(counts, collapse = " "), diffs = paste(diffs, collapse = " "),
    exact_greater = g17(b("greater")), exact_less = g17(b("less")),
    exact_two = g17(b("two.sided")), z = g17((pos - n / 2) / sqrt(n / 4)), source = "stats")
}
write.csv(do.call(rbind, rows), file.path(outdir, "paired_refs.csv"), row.names = FALSE,
          quote = FALSE)

square <- list(
  mcnemar_a = list(matrix(c(10, 3, 9, 12), 2), c(1, 2)),
  mcnemar_b = list(matrix(c(20, 15, 4, 30), 2), c(1, 2)),
  mh3       = list(matrix(c(12, 4, 1, 7, 15, 3, 2, 6, 10), 3), c(1, 2, 3)),
  mh3_score = list(matrix(c(5, 2, 0, 6, 8, 1, 3, 4, 9), 3), c(0, 1, 4)),
  mh4       = list(matrix(c(8, 2, 1, 0, 3, 9, 2, 1, 1, 4, 7, 3, 0, 1, 5, 6), 4), c(1, 2, 3, 4))
)
rows <- list()
for (id in names(square)) {
  m <- square[[id]][[1]]
  s <- square[[id]][[2]]
  tab <- as.table(m)
  mh <- mh_test(tab, scores = list(response = s))
  z <- statistic(mh)
  p <- pvalue(mh)
  if (nrow(m) == 2) {
    mc <- mcnemar.test(m, correct = FALSE)$p.value
    if (abs(mc - p) > 1e-12) stop(paste("mcnemar disagrees on", id))
  }
  rows[[length(rows) + 1]] <- data.frame(id = id, r = nrow(m),
    cells = paste(as.vector(m), collapse = " "), scores = paste(s, collapse = " "),
    z = g17(z), asym_two = g17(p))
}
write.csv(do.call(rbind, rows), file.path(outdir, "marginal_refs.csv"), row.names = FALSE,
          quote = FALSE)
cat("wrote paired_refs.csv and marginal_refs.csv to", outdir, "\n")

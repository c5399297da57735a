# Reference values for the two-sample score tests (Wilcoxon rank sum with
# midranks; equally spaced scores 0, 1, ..., K - 1), from R's stats
# package, exactRankTests and coin.
#
# Rerun from the repository root with
#     Rscript tests/data/gen_score_refs.R
# (needs r-base-core, r-cran-coin, r-cran-exactranktests). It rewrites
# score_refs.csv next to this script; the tests read the committed file.
#
# A case is a two-row table of counts by ordered level: row 1 the first
# sample, row 2 the second; cells column-major (row index fastest). The
# samples are expanded to raw values (the level number) before R sees them.
#
# score_refs.csv: id, rule, cols, cells, then
#   exact_greater, exact_less  one-sided exact p of the first sample's
#                              score sum: P(T >= t), P(T <= t)
#   exact_two                  two-sided exact p
#   z, asym_two                standardised statistic and two-sided normal
#                              p, without continuity correction
#   u                          Mann-Whitney U of the first sample (rule 1)
#   source                     which peer gave the exact values:
#                              stats (wilcox.test, no ties), exactRankTests
#                              (wilcox.exact), coin (wilcox_test or
#                              independence_test with exact distribution)
# rule 1: midranks (procedure 2); rule 2: scores 0..K-1 (procedure 1).
# Every midrank case is also checked against coin: the script stops when
# the peers disagree by more than 1e-9.

suppressPackageStartupMessages({
  library(coin)
  library(exactRankTests)
})

args <- commandArgs(trailingOnly = FALSE)
script <- sub("^--file=", "", args[grep("^--file=", args)])
outdir <- if (length(script) == 1) dirname(normalizePath(script)) else "tests/data"
g17 <- function(x) sprintf("%.17g", x)

expand <- function(counts) rep(seq_along(counts), counts)

tables <- list(
  # no ties: every level holds one observation
  noties_5_4   = rbind(c(1, 0, 1, 0, 0, 1, 1, 0, 1), c(0, 1, 0, 1, 1, 0, 0, 1, 0)),
  noties_6_8   = rbind(c(0, 1, 1, 0, 0, 1, 0, 0, 1, 0, 1, 0, 1, 0), c(1, 0, 0, 1, 1, 0, 1, 1, 0, 1, 0, 1, 0, 1)),
  noties_3_10  = rbind(c(1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1), c(0, 0, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0)),
  noties_10_10 = rbind(rep(c(1, 0), 10), rep(c(0, 1), 10)),
  noties_12_9  = rbind(c(1,1,0,1,1,0,1,1,1,0,0,1,0,1,0,1,1,0,0,1,0), c(0,0,1,0,0,1,0,0,0,1,1,0,1,0,1,0,0,1,1,0,1)),
  # ties
  ties_small   = rbind(c(1, 2, 3, 0), c(0, 1, 2, 2)),
  ties_3lev    = rbind(c(5, 3, 1), c(2, 4, 6)),
  ties_5lev    = rbind(c(4, 6, 2, 3, 0), c(1, 2, 5, 4, 6)),
  ties_heavy   = rbind(c(10, 8, 2), c(3, 9, 12)),
  ties_empty   = rbind(c(3, 0, 4, 2, 0, 1), c(1, 0, 2, 5, 3, 4)),
  ties_likert  = rbind(c(2, 5, 9, 6, 3), c(6, 8, 7, 3, 1)),
  ties_n60     = rbind(c(8, 12, 6, 4), c(3, 7, 11, 9)),
  ties_onebig  = rbind(c(0, 15, 1), c(2, 14, 0)),
  ties_uneven  = rbind(c(1, 1, 1, 1), c(10, 3, 8, 2)),
  ties_10lev   = rbind(c(3, 4, 2, 5, 3, 4, 2, 3, 1, 3), c(1, 2, 3, 2, 4, 3, 5, 4, 3, 3)),
  ties_center  = rbind(c(2, 3, 2), c(2, 3, 2))
)

rows <- list()
for (id in names(tables)) {
  m <- tables[[id]]
  x <- expand(m[1, ])
  y <- expand(m[2, ])
  noties <- all(colSums(m) <= 1)
  d <- data.frame(v = c(x, y), g = factor(rep(c("a", "b"), c(length(x), length(y)))))
  for (rule in 1:2) {
    if (rule == 1) {
      ct <- wilcox_test(v ~ g, data = d, distribution = "exact")
      cg <- wilcox_test(v ~ g, data = d, distribution = "exact", alternative = "greater")
      cl <- wilcox_test(v ~ g, data = d, distribution = "exact", alternative = "less")
      ca <- wilcox_test(v ~ g, data = d, distribution = "asymptotic")
      if (noties) {
        w2 <- wilcox.test(x, y, exact = TRUE)$p.value
        wg <- wilcox.test(x, y, exact = TRUE, alternative = "greater")$p.value
        wl <- wilcox.test(x, y, exact = TRUE, alternative = "less")$p.value
        src <- "stats"
      } else {
        w2 <- wilcox.exact(x, y, exact = TRUE)$p.value
        wg <- wilcox.exact(x, y, exact = TRUE, alternative = "greater")$p.value
        wl <- wilcox.exact(x, y, exact = TRUE, alternative = "less")$p.value
        src <- "exactRankTests"
      }
      peer <- c(pvalue(ct), pvalue(cg), pvalue(cl))
      if (max(abs(peer - c(w2, wg, wl))) > 1e-9) stop(paste("peers disagree on", id))
      asym <- wilcox.test(x, y, exact = FALSE, correct = FALSE)
      z <- statistic(ca)
      if (abs(asym$p.value - pvalue(ca)) > 1e-12) stop(paste("asymptotic peers disagree on", id))
      rows[[length(rows) + 1]] <- data.frame(
        id = id, rule = 1, cols = ncol(m), cells = paste(as.vector(m), collapse = " "),
        exact_greater = g17(wg), exact_less = g17(wl), exact_two = g17(w2),
        z = g17(z), asym_two = g17(asym$p.value), u = g17(unname(asym$statistic)),
        source = src)
    } else {
      d$s <- d$v - 1
      ct <- independence_test(s ~ g, data = d, distribution = "exact")
      cg <- independence_test(s ~ g, data = d, distribution = "exact", alternative = "greater")
      cl <- independence_test(s ~ g, data = d, distribution = "exact", alternative = "less")
      ca <- independence_test(s ~ g, data = d, distribution = "asymptotic")
      rows[[length(rows) + 1]] <- data.frame(
        id = id, rule = 2, cols = ncol(m), cells = paste(as.vector(m), collapse = " "),
        exact_greater = g17(pvalue(cg)), exact_less = g17(pvalue(cl)),
        exact_two = g17(pvalue(ct)), z = g17(statistic(ca)), asym_two = g17(pvalue(ca)),
        u = "NA", source = "coin")
    }
  }
}
out <- do.call(rbind, rows)
path <- file.path(outdir, "score_refs.csv")
write.csv(out, path, row.names = FALSE, quote = FALSE)
cat("wrote", nrow(out), "cases to", path, "\n")

# Reference values for the rank tests on related samples and the one-way
# goodness-of-fit test, from R's stats package and coin.
#
# Rerun from the repository root with
#     Rscript tests/data/gen_related_refs.R
# (needs R with coin; on Debian: r-base-core, r-cran-coin). It rewrites
# related_refs.csv and oneway_refs.csv next to this script. The CSV files are
# committed: the tests read them and don't need R.
#
# related_refs.csv  id, k, n, binary, values, friedman, friedman_p, coin,
#                   coin_p, cochran, symmetry, symmetry_p
#   k treatments, n blocks; values lists block after block (the k values of
#   block 1, then of block 2, ...), which is the engine's case layout with k
#   rows and the row index fastest. No block is constant.
#   friedman, friedman_p: friedman.test(y) with y the n x k matrix.
#   coin, coin_p: coin::friedman_test(v ~ trt | blk), asymptotic.
#   For binary data (binary = 1): cochran is Cochran's Q from its textbook
#   formula (k - 1)(k sum C_j^2 - T^2) / (k T - sum R_i^2), and symmetry,
#   symmetry_p are coin::symmetry_test(v ~ trt | blk, teststat =
#   "quadratic"); NA otherwise.
# oneway_refs.csv   id, k, counts, expected, x2, df, p
#   chisq.test(counts, p = expected / sum(expected)): statistic and p-value.
#   The expected counts add up to the total of the counts.

suppressPackageStartupMessages(library(coin))

args <- commandArgs(trailingOnly = FALSE)
script <- sub("^--file=", "", args[grep("^--file=", args)])
outdir <- if (length(script) == 1) dirname(normalizePath(script)) else "tests/data"
g17 <- function(x) sprintf("%.17g", x)
joined <- function(x) paste(g17(x), collapse = " ")

set.seed(20261123)

related_case <- function(id, y, binary) {
  n <- nrow(y); k <- ncol(y)
  ft <- friedman.test(y)
  d <- data.frame(v = as.vector(y), trt = factor(rep(seq_len(k), each = n)),
                  blk = factor(rep(seq_len(n), k)))
  ct <- friedman_test(v ~ trt | blk, data = d)
  cochran <- NA; sym <- NA; sym_p <- NA
  if (binary) {
    cj <- colSums(y); ri <- rowSums(y); tt <- sum(y)
    cochran <- (k - 1) * (k * sum(cj^2) - tt^2) / (k * tt - sum(ri^2))
    st <- symmetry_test(v ~ trt | blk, data = d, teststat = "quadratic")
    sym <- statistic(st); sym_p <- pvalue(st)
  }
  data.frame(id = id, k = k, n = n, binary = as.integer(binary),
             values = joined(as.vector(t(y))),
             friedman = g17(unname(ft$statistic)), friedman_p = g17(ft$p.value),
             coin = g17(unname(statistic(ct))), coin_p = g17(pvalue(ct)),
             cochran = g17(cochran), symmetry = g17(unname(sym)), symmetry_p = g17(sym_p))
}

random_blocks <- function(n, k, levels, binary) {
  y <- matrix(0, n, k)
  for (b in seq_len(n)) {
    repeat {
      v <- if (binary) sample(0:1, k, replace = TRUE) else sample(levels, k, replace = TRUE)
      if (length(unique(v)) > 1) break
    }
    y[b, ] <- v
  }
  y
}

rows <- list()
shapes <- list(c(4, 3), c(6, 3), c(10, 3), c(5, 4), c(8, 4), c(15, 4), c(6, 5), c(12, 5),
               c(7, 6), c(20, 3), c(9, 7), c(30, 4))
for (i in seq_along(shapes)) {
  n <- shapes[[i]][1]; k <- shapes[[i]][2]
  rows[[length(rows) + 1]] <- related_case(sprintf("ties_%dx%d", n, k),
                                           random_blocks(n, k, 1:3, FALSE), FALSE)
  rows[[length(rows) + 1]] <- related_case(sprintf("reals_%dx%d", n, k),
                                           random_blocks(n, k, round(rnorm(20), 2), FALSE), FALSE)
  rows[[length(rows) + 1]] <- related_case(sprintf("binary_%dx%d", n, k),
                                           random_blocks(n, k, 0:1, TRUE), TRUE)
}
related <- do.call(rbind, rows)
path <- file.path(outdir, "related_refs.csv")
write.csv(related, path, row.names = FALSE, quote = FALSE)
cat("wrote", nrow(related), "cases to", path, "\n")

oneway <- list()
for (i in 1:24) {
  k <- sample(2:8, 1)
  total <- sample(c(5:40, 100, 250, 1000), 1)
  w <- if (i %% 4 == 0) rep(1, k) else runif(k, 0.2, 3)
  expected <- total * w / sum(w)
  counts <- as.vector(rmultinom(1, total, runif(k, 0.3, 2)))
  ct <- suppressWarnings(chisq.test(counts, p = expected / sum(expected)))
  oneway[[i]] <- data.frame(id = sprintf("oneway_%02d", i), k = k, counts = paste(counts, collapse = " "),
                            expected = joined(expected), x2 = g17(unname(ct$statistic)),
                            df = unname(ct$parameter), p = g17(ct$p.value))
}
oneway <- do.call(rbind, oneway)
path <- file.path(outdir, "oneway_refs.csv")
write.csv(oneway, path, row.names = FALSE, quote = FALSE)
cat("wrote", nrow(oneway), "cases to", path, "\n")

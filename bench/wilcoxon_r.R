# Times coin's exact Wilcoxon rank-sum test on one two-row table of counts
# by level and prints one line:
#
#   p <two-sided p> seconds <elapsed time> cpu <user time> method coin
#
#   Rscript bench/wilcoxon_r.R 26 37 32 ... / 31 35 30 ...
#
# Rows are separated by "/"; the samples are expanded to their level
# numbers.  An error of coin (memory, for one) prints "error <message>"
# with exit status 3.
suppressPackageStartupMessages(library(coin))
cells <- commandArgs(trailingOnly = TRUE)
breaks <- cumsum(cells == "/")
rows <- split(as.numeric(cells[cells != "/"]), breaks[cells != "/"])
x <- rep(seq_along(rows[[1]]), rows[[1]])
y <- rep(seq_along(rows[[2]]), rows[[2]])
d <- data.frame(v = c(x, y), g = factor(rep(c("a", "b"), c(length(x), length(y)))))
start <- proc.time()
res <- tryCatch(pvalue(wilcox_test(v ~ g, data = d, distribution = "exact")),
                error = function(e) e)
used <- proc.time() - start
if (inherits(res, "error")) {
  cat("error", gsub("[\r\n]+", " ", conditionMessage(res)), "\n")
  quit(status = 3)
}
cat(sprintf("p %.12f seconds %.3f cpu %.3f method coin\n", res, used[["elapsed"]],
            used[["user.self"]]))

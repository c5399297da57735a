# Times R's fisher.test on one table and prints one line:
#
#   p <two-sided p> seconds <elapsed time of fisher.test> workspace <w>
#
#   Rscript bench/fisher_r.R WORKSPACE 1 2 1 0 / 3 3 6 1 / ...
#
# Rows are separated by "/".  An error of fisher.test (a workspace too
# small, for one) is printed as "error <message>" with exit status 3, so the
# caller can try again with a larger workspace.
args <- commandArgs(trailingOnly = TRUE)
workspace <- as.numeric(args[1])
cells <- args[-1]
breaks <- cumsum(cells == "/")
rows <- split(as.numeric(cells[cells != "/"]), breaks[cells != "/"])
m <- do.call(rbind, rows)
start <- proc.time()[["elapsed"]]
res <- tryCatch(fisher.test(m, workspace = workspace), error = function(e) e)
elapsed <- proc.time()[["elapsed"]] - start
if (inherits(res, "error")) {
  cat("error", gsub("[\r\n]+", " ", conditionMessage(res)), "\n")
  quit(status = 3)
}
cat(sprintf("p %.12f seconds %.3f workspace %.0f\n", res$p.value, elapsed, workspace))

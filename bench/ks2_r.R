# Times R's ks.test(x, y, exact = TRUE) on one two-row table of counts by
# level and prints one line:
#
#   p <two-sided p> seconds <elapsed time> cpu <user time> method <exact|asymptotic>
#
#   Rscript bench/ks2_r.R 26 37 32 ... / 31 35 30 ...
#
# Rows are separated by "/"; the samples are expanded to their level
# numbers.  With ties R 4.2 has no exact two-sample route: it warns and
# returns the asymptotic p-value, and the line says so.
cells <- commandArgs(trailingOnly = TRUE)
breaks <- cumsum(cells == "/")
rows <- split(as.numeric(cells[cells != "/"]), breaks[cells != "/"])
x <- rep(seq_along(rows[[1]]), rows[[1]])
y <- rep(seq_along(rows[[2]]), rows[[2]])
start <- proc.time()
res <- suppressWarnings(ks.test(x, y, exact = TRUE))
used <- proc.time() - start
how <- if (grepl("^Exact", res$method)) "exact" else "asymptotic"
cat(sprintf("p %.12g seconds %.3f cpu %.3f method %s\n", res$p.value, used[["elapsed"]],
            used[["user.self"]], how))

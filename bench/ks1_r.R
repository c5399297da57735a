# Times R's ks.test(x, "pnorm", exact = TRUE) on the values of a file and
# prints one line: D, the exact two-sided p-value, and the mean time of
# REPEATS calls in seconds (one timed batch: system.time counts whole
# milliseconds).  Used by ks1_vs_r.sh.
#   Rscript ks1_r.R values.txt REPEATS
args <- commandArgs(trailingOnly = TRUE)
x <- scan(args[1], quiet = TRUE)
repeats <- as.integer(args[2])
t <- system.time(for (i in seq_len(repeats)) r <- ks.test(x, "pnorm", exact = TRUE))[["elapsed"]]
cat(sprintf("D %.10g p %.17g seconds %.6f\n", r$statistic, r$p.value, t / repeats))

# Draws the fixed random tables of the benchmarks.  Run once; its output is
# pasted into network_bench.cpp and fisher_vs_r.sh, so the benchmarks never
# depend on the random stream of a particular R release.
#
#   Rscript bench/make_tables.R
#
# Each table is a multinomial draw of a fixed total N over cell
# probabilities p_i q_j (1 + a_ij): uneven margins and a mild association,
# redrawn until no row or column is empty.
draw <- function(r, c, n) {
  repeat {
    p <- runif(r, 0.5, 1.5)
    q <- runif(c, 0.5, 1.5)
    a <- matrix(runif(r * c, -0.4, 0.4), r, c)
    prob <- outer(p, q) * (1 + a)
    m <- matrix(rmultinom(1, n, as.vector(prob)), r, c)
    if (all(rowSums(m) > 0) && all(colSums(m) > 0)) return(m)
  }
}
show <- function(label, m) {
  cat(sprintf("%s N=%d rows:", label, sum(m)))
  for (i in seq_len(nrow(m))) cat(" ", paste(m[i, ], collapse = " "), if (i < nrow(m)) "/" else "")
  cat("\n")
}
set.seed(20240613)
show("pearson5x5", draw(5, 5, 60))
show("pearson3x10", draw(3, 10, 100))
for (k in 1:5) show(sprintf("small%d", k), draw(5, 5, sample(50:80, 1)))
for (k in 1:5) show(sprintf("hard%d", k), draw(5, 5, sample(100:160, 1)))

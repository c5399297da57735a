# Reference values for the one-sample Kolmogorov-Smirnov test against
# continuous distributions, from R's ks.test.  Run once with
# `Rscript gen_ks1_refs.R` in this folder; it writes ks1_refs.csv, which is
# committed so that the tests never need R.
#
# Columns: id, model (1 uniform, 4 normal, 6 exponential, as the engine's
# selector), param1, param2 (uniform a, b; normal mean, sd; exponential
# scale, 0), n, values (space-separated), D, D+, D-, exact two-sided,
# exact P(D+ >= d+), exact P(D- >= d-), asymptotic two-sided, asymptotic
# one-sided for D+ and for D-.  Numbers carry 17 significant digits.

set.seed(20261123)
rows <- character()
g <- function(x) sprintf("%.17g", x)

add <- function(id, model, p1, p2, x) {
  stopifnot(!anyDuplicated(x))
  cdf <- switch(as.character(model),
                "1" = function(alt, ex) ks.test(x, "punif", p1, p2, alternative = alt, exact = ex),
                "4" = function(alt, ex) ks.test(x, "pnorm", p1, p2, alternative = alt, exact = ex),
                "6" = function(alt, ex) ks.test(x, "pexp", 1 / p1, alternative = alt, exact = ex))
  two <- cdf("two.sided", TRUE)
  gt <- cdf("greater", TRUE)
  lt <- cdf("less", TRUE)
  two_a <- cdf("two.sided", FALSE)
  gt_a <- cdf("greater", FALSE)
  lt_a <- cdf("less", FALSE)
  rows[[length(rows) + 1]] <<- paste(
    id, model, g(p1), g(p2), length(x), paste(g(x), collapse = " "),
    g(two$statistic), g(gt$statistic), g(lt$statistic), g(two$p.value), g(gt$p.value),
    g(lt$p.value), g(two_a$p.value), g(gt_a$p.value), g(lt_a$p.value), sep = ",")
}

ns <- c(5, 6, 8, 10, 13, 17, 20, 25, 30, 40, 50, 64, 75, 90, 100)
for (n in ns) {
  # Samples from the hypothesised distribution.
  add(sprintf("norm_null_%d", n), 4, 0, 1, rnorm(n))
  add(sprintf("norm_shift_%d", n), 4, 1.5, 2, rnorm(n, 2.1, 2))
  add(sprintf("unif_null_%d", n), 1, 0, 1, runif(n))
  add(sprintf("unif_ab_%d", n), 1, -2, 3, runif(n, -2, 3))
  add(sprintf("exp_null_%d", n), 6, 2.5, 0, rexp(n, 1 / 2.5))
  # Alternatives that the test notices, with p-values of about 1e-4 and above.
  add(sprintf("unif_beta_%d", n), 1, 0, 1, rbeta(n, 1.3, 1))
  add(sprintf("exp_wide_%d", n), 6, 1, 0, rexp(n, 0.8))
  add(sprintf("norm_wide_%d", n), 4, 0, 1, rnorm(n, 0, 1.3))
}

# Larger samples, for the matrix powers and the one-sided sums at size.
for (n in c(200, 500, 1000)) {
  add(sprintf("norm_null_%d", n), 4, 0, 1, rnorm(n))
  add(sprintf("unif_beta_%d", n), 1, 0, 1, rbeta(n, 1.1, 1))
}

header <- "id,model,param1,param2,n,values,d,d_plus,d_minus,exact_two,exact_plus,exact_minus,asym_two,asym_plus,asym_minus"
writeLines(c(header, rows), "ks1_refs.csv")

# Reference values for the numeric kernel tests, from R's stats package.
# Run once with `Rscript gen_kernel_refs.R` in this folder; it writes
# kernel_refs.csv, which is committed so that the tests never need R.
#
# Columns: routine, a1, a2, a3, a4, value.  Unused arguments are 0.
# Every number is printed with 17 significant digits, so that it reads
# back as the same double.

rows <- list()
add <- function(name, value, a1 = 0, a2 = 0, a3 = 0, a4 = 0) {
  # Keep only values that are normal doubles: the kernel promises its
  # accuracy down to 1e-300, not in the subnormal range.
  if (!is.finite(value) || (value != 0 && abs(value) < 1e-300)) return(invisible())
  rows[[length(rows) + 1]] <<- sprintf("%s,%.17g,%.17g,%.17g,%.17g,%.17g",
                                       name, a1, a2, a3, a4, value)
}

# log Gamma, across the small-argument range, the factorial table's edge
# (log 500! = lgamma(501)) and large arguments.
for (x in c(1e-5, 0.5, 1, 1.5, 2, 3, 10.5, 100, 171.5, 500, 501, 502, 1000.25, 1e5, 3.7e6))
  add("lgamma", lgamma(x), x)

# Gamma distribution, both tails, shape p at x.  Includes far tails.
gam <- rbind(c(0.5, 0.5), c(1, 1), c(3, 2.5), c(10, 10), c(100, 90), c(50, 100),
             c(1e-3, 2), c(1e-10, 3), c(200, 10), c(650, 1), c(700, 5), c(30, 0.5),
             c(1e4, 1e4 + 50), c(0.25, 40), c(7.5, 0.01))
for (i in seq_len(nrow(gam))) {
  x <- gam[i, 1]; p <- gam[i, 2]
  add("pgamma_lower", pgamma(x, p), x, p)
  add("pgamma_upper", pgamma(x, p, lower.tail = FALSE), x, p)
}

# F distribution, upper tail.
fdist <- rbind(c(1, 1, 1), c(3.5, 2, 10), c(0.5, 5, 7), c(10, 3, 30), c(100, 4, 50),
               c(1e3, 10, 100), c(2.2, 12.5, 7.5), c(0, 3, 4), c(1e-4, 2, 2), c(50, 20, 200))
for (i in seq_len(nrow(fdist)))
  add("pf_upper", pf(fdist[i, 1], fdist[i, 2], fdist[i, 3], lower.tail = FALSE),
      fdist[i, 1], fdist[i, 2], fdist[i, 3])

# Chi-square, both tails (integer degrees of freedom, so the upper rows also
# serve the engine's own chi-square tail).
chi <- rbind(c(0.5, 1), c(3.841458820694124, 1), c(10, 5), c(100, 50), c(1000, 3),
             c(1e-6, 4), c(25, 2), c(1300, 1000), c(0.01, 10), c(60, 7))
for (i in seq_len(nrow(chi))) {
  add("pchisq_lower", pchisq(chi[i, 1], chi[i, 2]), chi[i, 1], chi[i, 2])
  add("pchisq_upper", pchisq(chi[i, 1], chi[i, 2], lower.tail = FALSE), chi[i, 1], chi[i, 2])
}

# Standard normal, both tails, out to the far tail at 37.
for (z in c(-37, -30, -20, -10, -5, -1.96, -1, -0.1, 0, 0.3, 1, 2.5, 8, 20, 37)) {
  add("pnorm_lower", pnorm(z), z)
  add("pnorm_upper", pnorm(z, lower.tail = FALSE), z)
}
# Normal with a mean and a standard deviation.
nrm <- rbind(c(1, 0.5, 2), c(-3, 2, 0.7), c(-20, 10, 1.5), c(100, 10, 3), c(4.25, 4.25, 9))
for (i in seq_len(nrow(nrm)))
  add("pnorm_general", pnorm(nrm[i, 1], nrm[i, 2], nrm[i, 3]), nrm[i, 1], nrm[i, 2], nrm[i, 3])

# Poisson and binomial distribution functions, P(X <= x).
psn <- rbind(c(0, 0.5), c(3, 2.5), c(10, 10), c(100, 80), c(2, 50), c(0, 600),
             c(1000, 1000), c(5.5, 3), c(1e4, 9800), c(40, 10))
for (i in seq_len(nrow(psn)))
  add("ppois", ppois(psn[i, 1], psn[i, 2]), psn[i, 1], psn[i, 2])
bin <- rbind(c(0, 10, 0.3), c(3, 10, 0.3), c(5, 10, 0.5), c(50, 100, 0.45), c(1, 1000, 0.2),
             c(999, 1000, 0.5), c(7, 20, 0.05), c(0, 500, 0.7), c(10.7, 30, 0.25),
             c(400, 1000, 0.5))
for (i in seq_len(nrow(bin)))
  add("pbinom", pbinom(bin[i, 1], bin[i, 2], bin[i, 3]), bin[i, 1], bin[i, 2], bin[i, 3])

# Normal quantiles: the body, the two points at 1e-10 and 1 - 1e-10, and a
# grid for the rational approximation of the upper deviate.
for (p in c(0.975, 0.025, 0.5, 0.9, 0.3, 0.75, 1e-5, 1e-10, 1 - 1e-10, 1e-100, 0.999999))
  add("qnorm", qnorm(p), p)
for (p in c(10^-(1:19), 2e-20, 0.05, 0.25, 0.4, 0.45, 0.6, 0.9, 0.99, 0.999999))
  add("qnorm_upper", qnorm(p, lower.tail = FALSE), p)

# The combined multiplicative generator (Wichmann and Hill) from R's own
# implementation: seed the three generators, then draw.  Seeds below each
# modulus, so R's start-up check leaves them alone.
wh_seeds <- rbind(c(12345, 29873, 25317), c(1, 1, 1), c(30000, 2, 30322))
RNGkind("Wichmann-Hill")
set.seed(1)
for (i in seq_len(nrow(wh_seeds))) {
  s <- wh_seeds[i, ]
  seed <- get(".Random.seed", envir = .GlobalEnv)
  seed[2:4] <- as.integer(s)
  assign(".Random.seed", seed, envir = .GlobalEnv)
  u <- runif(6)
  for (k in seq_along(u)) add("wh_uniform", u[k], s[1], s[2], s[3], k)
}
# A negative first seed: the same recurrences with a remainder that
# truncates toward zero (R's own generator refuses such a seed).
tmod <- function(a, b) a - b * trunc(a / b)
s <- c(-5000, 29873, 25317)
for (k in 1:6) {
  s[1] <- tmod(tmod(s[1], 30269) * 171, 30269)
  s[2] <- tmod(tmod(s[2], 30307) * 172, 30307)
  s[3] <- tmod(tmod(s[3], 30323) * 170, 30323)
  t <- s[1] / 30269 + s[2] / 30307 + s[3] / 30323
  add("wh_uniform_negative", t - trunc(t), -5000, 29873, 25317, k)
}

writeLines(c("routine,a1,a2,a3,a4,value", unlist(rows)), "kernel_refs.csv")

/*
 * anvlwtq.h - the one entry point of the ANVLWTQ exact inference engine.
 *
 * The engine computes exact, Monte Carlo and asymptotic p-values for two-way
 * tables, rank tests and the binomial test.  A host makes one call of
 * TQCALLER per test; the call runs on the host's thread and leaves its
 * results in a record of 50 doubles.  The engine prints nothing: it reports
 * by the record, by short progress lines sent to the host's text routine,
 * and (for a time limit) by one line on standard error.
 *
 * Re-entrancy: every piece of state of a run lives in storage of the calling
 * thread, so two threads may call TQCALLER at once, provided they give
 * different spill paths (or empty ones).
 */
#ifndef ANVLWTQ_H
#define ANVLWTQ_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Poll routine.  The engine sets *flag to 0 and calls the routine from its
 * long loops; the host sets the lowest bit of *flag to ask the run to stop
 * (any value with bit 0 clear asks for nothing).  After a stop the engine
 * calls it once more with *flag = -1.  May be NULL: no stop can then come
 * from the host.
 */
typedef void (*TqPollRoutine)(int64_t *flag);

/*
 * Text routine.  Receives progress text: at most the last 16 characters of
 * a line (where its numbers stand), not NUL-terminated; *length and
 * textLength both hold the number of characters; *counter counts the lines
 * sent during the call.  May be NULL: lines are then dropped.
 */
typedef void (*TqTextRoutine)(const char *text, int32_t *length, int64_t *counter,
                              int64_t textLength);

/*
 * Procedure codes (IntParams[0]).  Every other value is refused with field
 * 48 = -1003.0.  A valid code whose test is not built in this release is
 * refused in the same way.
 */
enum {
  TQ_PROC_SCORES_EQUAL = 1,     /* equally spaced scores / sign test          */
  TQ_PROC_WILCOXON = 2,         /* Wilcoxon rank-sum / signed-rank test       */
  TQ_PROC_MANN_WHITNEY = 502,   /* as 2, record in Mann-Whitney form          */
  TQ_PROC_KS_ONE_SAMPLE = 6,    /* one-sample Kolmogorov-Smirnov test         */
  TQ_PROC_CHISQ = 7,            /* Pearson chi-square                         */
  TQ_PROC_CHISQ_SHORT = 507,    /* as 7, shorter record                       */
  TQ_PROC_MEDIAN = 31,          /* median test                                */
  TQ_PROC_NOMINAL = 42,         /* phi, Cramer's V, contingency coefficients  */
  TQ_PROC_BINOMIAL = 9,         /* binomial test                              */
  TQ_PROC_MARGINAL_HOMOG = 10,  /* marginal homogeneity                       */
  TQ_PROC_MARGINAL_HOMOG_LONG = 510,
  TQ_PROC_RUNS = 11,            /* one-sample runs test                       */
  TQ_PROC_WALD_WOLFOWITZ = 19,  /* two-sample runs test                       */
  TQ_PROC_KS_TWO_SAMPLE = 18,   /* two-sample Kolmogorov-Smirnov test         */
  TQ_PROC_JONCKHEERE = 20,      /* Jonckheere-Terpstra test                   */
  TQ_PROC_KRUSKAL_WALLIS = 21,  /* Kruskal-Wallis test                        */
  TQ_PROC_FRIEDMAN = 24,        /* Friedman test                              */
  TQ_PROC_COCHRAN_Q = 26,       /* Cochran's Q                                */
  TQ_PROC_KENDALL_W = 51,       /* Kendall's coefficient of concordance       */
  TQ_PROC_FISHER = 32,          /* Fisher's exact test on r x c               */
  TQ_PROC_LIKELIHOOD_RATIO = 40,/* likelihood-ratio test                      */
  TQ_PROC_UNCERTAINTY = 45,     /* uncertainty coefficients                   */
  TQ_PROC_LINEAR_BY_LINEAR = 41,/* linear-by-linear association               */
  TQ_PROC_PEARSON_R = 47,       /* Pearson's correlation                      */
  TQ_PROC_SPEARMAN = 48,        /* Spearman's correlation                     */
  TQ_PROC_KAPPA = 43,           /* Cohen's kappa                              */
  TQ_PROC_GK_TAU = 46,          /* Goodman and Kruskal's tau                  */
  TQ_PROC_KENDALL_TAU = 49,     /* Kendall's tau-a, tau-b, tau-c, Somers' d   */
  TQ_PROC_GAMMA = 50            /* Goodman and Kruskal's gamma                */
};

/* Method codes (IntParams[1]).  Other values act as 3 for most procedures. */
enum { TQ_METHOD_EXACT = 1, TQ_METHOD_MONTE_CARLO = 2, TQ_METHOD_ASYMPTOTIC = 3 };

/*
 * IntParams: at least 10 signed 64-bit words.
 *   [0] ProcedureCode       selects the test (codes above)
 *   [1] MethodCode          1 exact, 2 Monte Carlo, 3 asymptotic only
 *   [2] DataFormCode        1: data in Table; any other value: in CaseData
 *   [3] McSeedField         first seed of the random stream (MethodCode 2)
 *   [4] McSamplesField      number of Monte Carlo tables (MethodCode 2)
 *   [5] Option11Field       procedure 11: 1, 2, 3 or 13 (else not given)
 *   [6] ModelSelector       procedure 6: 1, 3, 4 or 6 (else not given)
 *   [7] CutRuleField        procedure 31: 13 = cut point in RealParams[5];
 *                           any other value cuts at 0.0
 *   [8] TimeLimitField      time limit in minutes; 0 or below: none
 *   [9] MemoryField         memory limit in kilobytes; -1: free physical
 *                           memory.  The working store of a network run is
 *                           clamped to 2 MiB .. the ceiling, whatever is
 *                           asked.  The ceiling is 16 MiB unless the host
 *                           lifts it for its process with the environment
 *                           variable ANVLWTQ_MEMORY_CEILING: a whole number
 *                           of mebibytes, read at every call (unset, empty
 *                           or anything else means 16), never above half
 *                           the machine's physical memory.  A caller that
 *                           wants 1 GiB sets ANVLWTQ_MEMORY_CEILING=1024
 *                           and passes MemoryField 1048576.  A run whose
 *                           budget is too small ends with field 48 =
 *                           -1001.0.
 *
 * Threads: an exact Fisher run (procedure 32) shares its larger stages
 * among threads; only the calling thread calls the host's routines.  The
 * environment variable ANVLWTQ_THREADS, read at every call, sets their
 * number, the calling thread included (1: the calling thread alone; unset,
 * empty or not a whole number from 1 on: the machine's cores, at most 8).
 * The results are the same whatever the number.
 */
enum {
  TQ_INT_PROCEDURE = 0, TQ_INT_METHOD = 1, TQ_INT_DATA_FORM = 2, TQ_INT_MC_SEED = 3,
  TQ_INT_MC_SAMPLES = 4, TQ_INT_OPTION11 = 5, TQ_INT_MODEL = 6, TQ_INT_CUT_RULE = 7,
  TQ_INT_TIME_LIMIT = 8, TQ_INT_MEMORY = 9, TQ_INT_COUNT = 10
};

/*
 * RealParams: at least 9 doubles.
 *   [0] confidence level of the Monte Carlo intervals (MethodCode 2)
 *   [1] [2] first and second parameter of the distribution (procedure 6,
 *           ModelSelector 1)
 *   [3] first parameter (procedure 6, ModelSelector 3, 4 or 6)
 *   [4] second parameter (procedure 6, ModelSelector 4)
 *   [5] cut point of the median test (procedure 31, CutRuleField 13)
 *   [6] null proportion of the binomial test (procedure 9)
 *   [7] real parameter of option 13 of the runs test (procedure 11)
 *   [8] MissingValue: the filler of every record field not published
 */
enum {
  TQ_REAL_MC_LEVEL = 0, TQ_REAL_PARAM1 = 1, TQ_REAL_PARAM2 = 2, TQ_REAL_PARAM3 = 3,
  TQ_REAL_PARAM4 = 4, TQ_REAL_MEDIAN_CUT = 5, TQ_REAL_P0 = 6, TQ_REAL_OPTION11 = 7,
  TQ_REAL_MISSING = 8, TQ_REAL_COUNT = 9
};

/*
 * ResultRecord: 50 doubles, written.  Fields that a run doesn't publish hold
 * MissingValue.  The general sense of each field (procedures differ in what
 * they put into the blocks; README.md lists them per procedure):
 *   0        first statistic or measure      1   its standardised value
 *   2        its null mean                   3   its sd or asymptotic s.e.
 *   4, 5     never published
 *   6..11    second block: statistic, standardised value, mean, sd,
 *            largest and smallest value
 *   12       side of the one-sided p-value: 1.0 when the statistic is not
 *            above its mean, 2.0 when it is
 *   13, 14   asymptotic p-value, one- and two-sided
 *   15, 16   exact p-value, one- and two-sided
 *   17       exact point probability
 *   18..20   Monte Carlo one-sided p-value with lower and upper limit
 *   21..23   Monte Carlo two-sided p-value with lower and upper limit
 *   24..35   further measures, blocks of four (value, standardised, -, s.e.)
 *   36..41   second copy of fields 12..20 for a second statistic
 *   42, 43   elapsed hours and minutes (whole numbers)
 *   44       elapsed seconds, with fraction
 *   45, 46   columns and rows of the table
 *   47       total count
 *   48       0.0 on success; otherwise the failure value, that is the
 *            engine's failure code minus 1000 (for example -1006.0 stopped
 *            by the host, -1007.0 time limit, -1001.0 no memory or an empty
 *            row or column, -1003.0 unknown or unbuilt procedure code,
 *            -1009.0 the spill file can't be created, -99.0 a table with one
 *            row or column).  On failure fields 0..41 and 45..47 hold
 *            MissingValue whatever the run had published.
 *   49       0.0
 */
enum {
  TQ_REC_STATISTIC = 0, TQ_REC_SIDE = 12, TQ_REC_ASYM_ONE = 13, TQ_REC_ASYM_TWO = 14,
  TQ_REC_EXACT_ONE = 15, TQ_REC_EXACT_TWO = 16, TQ_REC_POINT = 17, TQ_REC_MC_ONE = 18,
  TQ_REC_MC_TWO = 21, TQ_REC_HOURS = 42, TQ_REC_MINUTES = 43, TQ_REC_SECONDS = 44,
  TQ_REC_COLUMNS = 45, TQ_REC_ROWS = 46, TQ_REC_TOTAL = 47, TQ_REC_FAILURE = 48,
  TQ_RECORD_LENGTH = 50
};

/*
 * The engine.  Arguments:
 *   poll, text     host routines (above)
 *   intParams      IntParams (above)
 *   realParams     RealParams (above)
 *   table          Rows x Cols signed 64-bit counts, row index fastest
 *                  (column-major): cell (i, j) is table[i + j * rows]
 *   rowScores      Rows doubles (procedures 41, 47, 48; NULL scores the
 *                  rows 1, 2, ...; 48 ranks the margins and reads neither
 *                  score array; a score that isn't finite gives -1003.0)
 *   scores         Cols doubles (1, 2, 502, 31, 41, 47, 48) or Rows
 *                  doubles (10, 510)
 *   caseData       CaseRows x CaseCols doubles, row index fastest; read,
 *                  except by procedures 24, 26 and 51 that compact it:
 *                  their CaseRows treatments by CaseCols blocks lose, in
 *                  place, every block whose values are all equal, the later
 *                  blocks moving forward.  Procedures 7 and 507 on case data
 *                  (one-way goodness of fit, CaseRows 1): the K = CaseCols
 *                  expected counts, positive, adding up to the observed total
 *   caseWeights    one weight per column of caseData; for 7 and 507 on case
 *                  data the K observed counts
 *   resultRecord   50 doubles, written
 *   spillPath      path of the spill file of the network runs, at most 255
 *                  characters; NULL or "" means a private temporary file.
 *                  The file is created, used and deleted within the call.
 * Array arguments that the procedure doesn't read may be NULL.
 */
void TQCALLER(TqPollRoutine poll, TqTextRoutine text, const int64_t *intParams,
              const double *realParams, const int64_t *table, int64_t rows, int64_t cols,
              const double *rowScores, const double *scores, double *caseData,
              int64_t caseCols, int64_t caseRows, const int64_t *caseWeights,
              double *resultRecord, const char *spillPath);

#ifdef __cplusplus
}
#endif

#endif /* ANVLWTQ_H */

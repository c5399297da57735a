// tq_options.cpp - the shared options and the readers of sizes, durations
// and near misses.
#include "tq_options.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "tq_catalog.h"
#include "tq_data.h"

namespace tq {
namespace {

// Longest spill path the engine reads.
constexpr size_t kSpillPathMax = 255;
constexpr int64_t kKiBPerMiB = 1024;
// The library's own ceiling of the memory budget, in MiB.
constexpr int64_t kLibraryCeilingMiB = 16;

std::string Lower(std::string s) {
  for (char& ch : s) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
  return s;
}

std::string Gib(int64_t kib) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.1f GiB", static_cast<double>(kib) / (kKiBPerMiB * kKiBPerMiB));
  return buf;
}

}  // namespace

int64_t MachineMemoryKiB() {
  const long pages = sysconf(_SC_PHYS_PAGES), page = sysconf(_SC_PAGESIZE);
  if (pages <= 0 || page <= 0) return 4 * kKiBPerMiB * kKiBPerMiB;  // unknown: assume 4 GiB
  return static_cast<int64_t>(pages) / 1024 * page;
}

int64_t DefaultCeilingMiB() {
  if (const char* env = std::getenv("ANVLWTQ_MEMORY_CEILING"); env != nullptr && *env != '\0') {
    char* end = nullptr;
    const long long mib = std::strtoll(env, &end, 10);
    if (*end == '\0' && mib > 0) return mib;
  }
  return std::max(kLibraryCeilingMiB, MachineMemoryKiB() / 4 / kKiBPerMiB);
}

int64_t ParseMemoryKiB(const std::string& text) {
  const std::string hint = "--memory: '" + text +
                           "' is not a size; give a number with a unit, such as 512M or 2G "
                           "(16M is the library's default)";
  if (text == "-1" || Lower(text) == "free") return -1;
  char* end = nullptr;
  const double number = std::strtod(text.c_str(), &end);
  if (end == text.c_str() || !std::isfinite(number) || !std::isdigit(static_cast<unsigned char>(text[0]))) Fail(hint);
  const std::string unit = Lower(end);
  double kib = 0.0;
  if (unit.empty() || unit == "k" || unit == "kb" || unit == "kib")
    kib = number;
  else if (unit == "m" || unit == "mb" || unit == "mib")
    kib = number * kKiBPerMiB;
  else if (unit == "g" || unit == "gb" || unit == "gib")
    kib = number * kKiBPerMiB * kKiBPerMiB;
  else if (unit == "t" || unit == "tb" || unit == "tib")
    kib = number * kKiBPerMiB * kKiBPerMiB * kKiBPerMiB;
  else
    Fail(hint);
  if (unit.empty() && text.find_first_not_of("0123456789") != std::string::npos) Fail(hint);
  if (kib < 1.0) Fail("--memory: '" + text + "' is less than one kilobyte");
  const int64_t half = MachineMemoryKiB() / 2;
  if (kib > static_cast<double>(half))
    Fail("--memory: '" + text + "' is more than half of this machine's memory (at most " + Gib(half) + ")");
  return static_cast<int64_t>(std::ceil(kib));
}

double ParseDurationSeconds(const std::string& text) {
  if (text == "0") return 0.0;  // no limit, as the engine reads 0
  char* end = nullptr;
  const double number = std::strtod(text.c_str(), &end);
  const std::string unit = Lower(end);
  double seconds = -1.0;
  if (end != text.c_str() && std::isfinite(number) && number > 0.0) {
    if (unit == "s" || unit == "sec")
      seconds = number;
    else if (unit.empty() || unit == "m" || unit == "min")
      seconds = number * 60.0;
    else if (unit == "h")
      seconds = number * 3600.0;
  }
  if (seconds <= 0.0 || seconds > 1e9)
    Fail("--time-limit: '" + text + "' is not a duration; give for example 30s, 5m or 1h (a bare number is minutes)");
  return seconds;
}

namespace {

// Width of the column of option names, and of the text beside it.
constexpr size_t kNameColumn = 30;
constexpr size_t kTextColumn = 48;

class Help : public CLI::Formatter {
 public:
  Help() { column_width(kNameColumn); }
  std::string make_option_opts(const CLI::Option* opt) const override {
    return opt->get_type_size() != 0 ? " " + opt->get_type_name() : std::string();
  }
  std::string make_option_desc(const CLI::Option* opt) const override {
    std::string text = opt->get_description();
    const std::string def = opt->get_default_str();
    if (!def.empty() && text.find("[default") == std::string::npos) text += " [default: " + def + "]";
    // Wrap at blanks; CLI11 indents the lines after a newline.
    std::string out;
    size_t line = 0;
    for (size_t i = 0; i < text.size();) {
      const size_t end = std::min(text.find(' ', i), text.size());
      const std::string word = text.substr(i, end - i);
      if (line > 0 && line + 1 + word.size() > kTextColumn) {
        out += "\n";
        line = 0;
      } else if (line > 0) {
        out += ' ';
        ++line;
      }
      out += word;
      line += word.size();
      i = end + 1;
    }
    return out;
  }
};

}  // namespace

std::shared_ptr<CLI::Formatter> HelpFormatter() { return std::make_shared<Help>(); }

std::string Nearest(const std::string& word, const std::vector<std::string>& candidates) {
  std::string best;
  size_t best_distance = std::numeric_limits<size_t>::max();
  for (const std::string& c : candidates) {
    // Edit distance with one row of the table.
    std::vector<size_t> row(c.size() + 1);
    for (size_t j = 0; j <= c.size(); ++j) row[j] = j;
    for (size_t i = 1; i <= word.size(); ++i) {
      size_t diagonal = row[0];
      row[0] = i;
      for (size_t j = 1; j <= c.size(); ++j) {
        const size_t up = row[j];
        row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (word[i - 1] == c[j - 1] ? 0 : 1)});
        diagonal = up;
      }
    }
    if (row[c.size()] < best_distance) {
      best_distance = row[c.size()];
      best = c;
    }
  }
  return best;
}

void AddSharedOptions(CLI::App& app, const Test& test, SharedOptions& s) {
  const char* kMethod = "Method";
  if (test.reads & kExactOnly) {
    app.add_flag_callback(
           "--exact", [] {}, "exact p-values (the only method of this test)")
        ->group(kMethod);
  } else {
    auto* exact = app.add_flag_callback(
                         "--exact", [&s] { s.method = Method::kExact; }, "exact p-values (default)")
                      ->group(kMethod);
    auto* mc = app.add_flag_callback(
                      "--monte-carlo", [&s] { s.method = Method::kMonteCarlo; },
                      "Monte Carlo estimates with confidence intervals")
                   ->group(kMethod);
    auto* asym = app.add_flag_callback(
                        "--asymptotic", [&s] { s.method = Method::kAsymptotic; }, "asymptotic p-values only")
                     ->group(kMethod);
    exact->excludes(mc)->excludes(asym);
    mc->excludes(asym);
    app.add_option("--samples", s.samples, "Monte Carlo tables")
        ->type_name("N")
        ->check(CLI::PositiveNumber.description(""))
        ->capture_default_str()
        ->group(kMethod)
        ->needs(mc);
    app.add_option("--seed", s.seed, "first seed of the random stream")
        ->type_name("N")
        ->capture_default_str()
        ->group(kMethod)
        ->needs(mc);
    app.add_option("--level", s.level, "level of the Monte Carlo intervals, in (0, 1)")
        ->type_name("L")
        ->check(CLI::Range(1e-9, 1.0 - 1e-9).description(""))
        ->capture_default_str()
        ->group(kMethod)
        ->needs(mc);
  }
  const char* kLimits = "Limits";
  app.add_option("--time-limit", s.time_limit,
                 "stop the run after this time: 30s, 5m, 1h; a bare number is "
                 "minutes; 0 is none [default: none]")
      ->type_name("TIME")
      ->group(kLimits);
  if (!(test.reads & kExactOnly))
    app.add_option("--memory", s.memory,
                   "memory of the network runs: 512M, 2G, ...; 16M is the library's own default; a bare number is "
                   "kilobytes [default: a quarter of this machine, " +
                       Gib(DefaultCeilingMiB() * kKiBPerMiB) + "]")
        ->type_name("SIZE")
        ->group(kLimits);
  if (test.reads & kNetwork)
    app.add_option("--spill", s.spill, "spill file of the network run [default: a private temporary file]")
        ->type_name("PATH")
        ->group(kLimits);
  const char* kOutput = "Output";
  auto* json = app.add_flag_callback(
                      "--json", [&s] { s.output = Output::kJson; }, "one JSON object (keys: README)")
                   ->group(kOutput);
  auto* record = app.add_flag_callback(
                        "--record", [&s] { s.output = Output::kRecord; }, "the raw record: 50 lines 'field value'")
                     ->group(kOutput);
  json->excludes(record);
  app.add_option("--missing", s.missing, "filler of unpublished record fields; fields equal to it are not shown")
      ->type_name("X")
      ->capture_default_str()
      ->group(kOutput);
  app.add_flag("--quiet", s.quiet, "no progress on standard error")->group(kOutput);
}

void ApplySharedOptions(const Test& test, const SharedOptions& s, Call& c) {
  c.ints[TQ_INT_PROCEDURE] = test.code;
  c.ints[TQ_INT_METHOD] = static_cast<int64_t>(s.method);
  c.ints[TQ_INT_DATA_FORM] = c.table_form ? 1 : 2;
  c.ints[TQ_INT_MC_SEED] = s.seed;
  c.ints[TQ_INT_MC_SAMPLES] = s.samples;
  c.reals[TQ_REAL_MC_LEVEL] = s.level;
  c.reals[TQ_REAL_MISSING] =
      Lower(s.missing) == "nan" ? std::numeric_limits<double>::quiet_NaN() : ParseReal(s.missing, "--missing");
  if (!s.time_limit.empty() && (c.time_limit_seconds = ParseDurationSeconds(s.time_limit)) > 0.0) {
    // The engine's own limit, in whole minutes, is a backstop a minute
    // after tq's own, which stops the run through the poll routine.
    c.ints[TQ_INT_TIME_LIMIT] = static_cast<int64_t>(std::ceil(c.time_limit_seconds / 60.0)) + 1;
  }
  const int64_t kib = s.memory.empty() ? DefaultCeilingMiB() * kKiBPerMiB : ParseMemoryKiB(s.memory);
  c.ints[TQ_INT_MEMORY] = kib;
  c.memory_ceiling_mib = kib < 0 ? DefaultCeilingMiB() : std::max<int64_t>(1, (kib + kKiBPerMiB - 1) / kKiBPerMiB);
  if (s.spill.size() > kSpillPathMax) Fail("--spill: the path is longer than 255 characters");
  c.spill = s.spill;
}

}  // namespace tq

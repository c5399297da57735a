// tq_report.cpp - the report, the JSON object and the raw record.
#include "tq_report.h"

#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

#include "tq_catalog.h"
#include "tq_data.h"

namespace tq {
namespace {

using Json = nlohmann::ordered_json;

// Width of the label column of the report.
constexpr int kLabelWidth = 36;

bool IsMissing(double value, double missing) { return std::isnan(missing) ? std::isnan(value) : value == missing; }

std::string Number(double v, Kind kind) {
  if (kind == Kind::kCount && std::fabs(v) < 1e15 && v == std::floor(v)) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.0f", v);
    return buf;
  }
  return FormatNumber(v);
}

const char* MethodName(Method m) {
  switch (m) {
    case Method::kExact:
      return "exact";
    case Method::kMonteCarlo:
      return "monte-carlo";
    case Method::kAsymptotic:
      return "asymptotic";
  }
  return "";
}

double ElapsedSeconds(const Record& r) {
  return r[TQ_REC_HOURS] * 3600.0 + r[TQ_REC_MINUTES] * 60.0 + r[TQ_REC_SECONDS];
}

std::string ElapsedText(const Record& r) {
  char buf[96];
  if (r[TQ_REC_HOURS] > 0.0)
    std::snprintf(buf, sizeof buf, "%.0f h %.0f min %.2f s", r[TQ_REC_HOURS], r[TQ_REC_MINUTES], r[TQ_REC_SECONDS]);
  else if (r[TQ_REC_MINUTES] > 0.0)
    std::snprintf(buf, sizeof buf, "%.0f min %.2f s", r[TQ_REC_MINUTES], r[TQ_REC_SECONDS]);
  else
    std::snprintf(buf, sizeof buf, "%.2f s", r[TQ_REC_SECONDS]);
  return buf;
}

int64_t Total(const std::vector<int64_t>& v) {
  int64_t total = 0;
  for (int64_t x : v) total += x;
  return total;
}

std::string DataText(const Call& c) {
  char buf[160];
  if (c.table_form)
    std::snprintf(buf, sizeof buf, "%" PRId64 " x %" PRId64 " table, total %" PRId64, c.rows, c.cols, Total(c.table));
  else
    std::snprintf(buf, sizeof buf, "%" PRId64 " x %" PRId64 " case values, total weight %" PRId64, c.case_rows,
                  c.case_cols, Total(c.weights));
  return buf;
}

void Line(std::string& out, const std::string& label, const std::string& value) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "  %-*s ", kLabelWidth, label.c_str());
  out += buf + value + "\n";
}

// The published fields of a record as report lines.
void FieldLines(std::string& out, const std::vector<Field>& fields, const Record& r, double missing, double level) {
  int shown = 0;
  for (const Field& f : fields) {
    const double v = r[f.index];
    if (IsMissing(v, missing)) continue;
    ++shown;
    std::string text = Number(v, f.kind);
    if (f.kind == Kind::kSide) {
      text = v == 1.0   ? "lower tail (statistic not above its mean)"
             : v == 2.0 ? "upper tail (statistic above its mean)"
                        : text;
    } else if (f.kind == Kind::kMc && !IsMissing(r[f.index + 1], missing) && !IsMissing(r[f.index + 2], missing)) {
      char buf[128];
      std::snprintf(buf, sizeof buf, "  (%g%% interval %s .. %s)", level * 100.0,
                    Number(r[f.index + 1], Kind::kP).c_str(), Number(r[f.index + 2], Kind::kP).c_str());
      text += buf;
    }
    Line(out, f.label, text);
  }
  if (shown == 0) out += "  (the run published no results for these data)\n";
}

// The published fields of a record as one JSON object.
Json FieldObject(const std::vector<Field>& fields, const Record& r, double missing) {
  Json j = Json::object();
  for (const Field& f : fields) {
    if (IsMissing(r[f.index], missing)) continue;
    j[f.key] = r[f.index];
    if (f.kind != Kind::kMc) continue;
    if (!IsMissing(r[f.index + 1], missing)) j[std::string(f.key) + "_lower"] = r[f.index + 1];
    if (!IsMissing(r[f.index + 2], missing)) j[std::string(f.key) + "_upper"] = r[f.index + 2];
  }
  return j;
}

const char* StopName(StopReason s) {
  return s == StopReason::kInterrupt ? "Ctrl-C" : s == StopReason::kTimeLimit ? "time limit" : nullptr;
}

std::string Report(const Test& t, const Call& c, Method method, const RunResult& run) {
  const double missing = c.reals[TQ_REAL_MISSING];
  const double level = c.reals[TQ_REAL_MC_LEVEL];
  const std::vector<Field> fields = FieldsFor(t, c);
  std::string out = std::string(t.title) + " (" + t.name + ", procedure " + std::to_string(t.code) + "), " +
                    MethodName(method) + "\n";
  Line(out, "data", DataText(c));
  for (const Setting& s : c.settings) Line(out, s.label, s.text);
  const Outcome& o = run.outcome;
  if (o.ok) {
    FieldLines(out, fields, run.record, missing, level);
  } else {
    if (run.standing) {
      out += "what stands, from the asymptotic route:\n";
      FieldLines(out, fields, *run.standing, missing, level);
    }
    char buf[64];
    std::snprintf(buf, sizeof buf, " (code %" PRId64 ", field 48 = %.1f)", o.code, o.value);
    out += std::string(o.stop != StopReason::kNone ? "stopped: " : "failed: ") + o.message + buf + "\n";
  }
  Line(out, "elapsed time", ElapsedText(run.record));
  return out;
}

Json JsonObject(const Test& t, const Call& c, const SharedOptions& s, const RunResult& run) {
  const double missing = c.reals[TQ_REAL_MISSING];
  const std::vector<Field> fields = FieldsFor(t, c);
  const Outcome& o = run.outcome;
  Json j;
  j["test"] = t.name;
  j["procedure"] = t.code;
  j["method"] = MethodName(s.method);
  if (s.method == Method::kMonteCarlo)
    j["monte_carlo"] = {{"samples", s.samples}, {"seed", s.seed}, {"level", s.level}};
  if (c.table_form)
    j["data"] = {{"form", "table"}, {"rows", c.rows}, {"cols", c.cols}, {"total", Total(c.table)}};
  else
    j["data"] = {{"form", "cases"}, {"rows", c.case_rows}, {"cols", c.case_cols}, {"total", Total(c.weights)}};
  j["settings"] = Json::object();
  for (const Setting& st : c.settings) j["settings"][st.key] = st.number ? Json(*st.number) : Json(st.text);
  j["status"] = o.ok ? "ok" : o.stop != StopReason::kNone ? "stopped" : "failed";
  j["results"] = o.ok ? FieldObject(fields, run.record, missing) : Json::object();
  if (run.standing) j["asymptotic_results"] = FieldObject(fields, *run.standing, missing);
  if (o.ok) {
    j["failure"] = nullptr;
  } else {
    j["failure"] = {{"code", o.code}, {"value", o.value}, {"message", o.message}};
    if (const char* by = StopName(o.stop)) j["failure"]["stopped_by"] = by;
  }
  j["elapsed_seconds"] = ElapsedSeconds(run.record);
  return j;
}

}  // namespace

void PrintResult(const Test& test, const Call& call, const SharedOptions& shared, const RunResult& run) {
  std::string out;
  switch (shared.output) {
    case Output::kReport:
      out = Report(test, call, shared.method, run);
      break;
    case Output::kJson:
      out = JsonObject(test, call, shared, run).dump() + "\n";
      break;
    case Output::kRecord:
      for (int i = 0; i < TQ_RECORD_LENGTH; ++i) {
        char buf[64];
        std::snprintf(buf, sizeof buf, "%d %.17g\n", i, run.record[i]);
        out += buf;
      }
      break;
  }
  // One write, after the progress display has gone.
  std::fwrite(out.data(), 1, out.size(), stdout);
  std::fflush(stdout);
}

}  // namespace tq

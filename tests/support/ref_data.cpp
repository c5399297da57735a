#include "support/ref_data.h"

#include <cmath>
#include <fstream>
#include <sstream>
#include <stdexcept>

#ifndef ANVL_TEST_DATA
#error "ANVL_TEST_DATA must name the directory of the test data files"
#endif

namespace anvl::support {
namespace {

std::vector<std::string> Split(const std::string& line) {
  std::vector<std::string> out;
  std::string field;
  std::istringstream in(line);
  while (std::getline(in, field, ',')) out.push_back(field);
  if (!line.empty() && line.back() == ',') out.emplace_back();
  return out;
}

template <class T>
std::vector<T> Numbers(const CsvRow& row, const std::string& name) {
  std::istringstream in(row.Text(name));
  std::vector<T> out;
  for (T x{}; in >> x;) out.push_back(x);
  if (!in.eof()) throw std::runtime_error(row.file + ": bad field " + name + ": '" + row.Text(name) + "'");
  return out;
}

// The id, shape and column-major cells that every table file starts with.
template <class Ref>
Ref TableRef(const CsvRow& row) {
  Ref r;
  r.id = row.Text("id");
  r.rows = row.Int("rows");
  r.cols = row.Int("cols");
  r.cells = row.Ints("cells");
  if (r.cells.size() != static_cast<size_t>(r.rows) * r.cols) throw std::runtime_error(row.file + ": cells of " + r.id);
  return r;
}

}  // namespace

std::string TestDataDir() { return ANVL_TEST_DATA; }

const std::string& CsvRow::Text(const std::string& name) const {
  const auto it = field.find(name);
  if (it == field.end()) throw std::runtime_error(file + ": no column " + name);
  return it->second;
}

std::vector<double> CsvRow::Reals(const std::string& name) const { return Numbers<double>(*this, name); }
std::vector<int64_t> CsvRow::Ints(const std::string& name) const { return Numbers<int64_t>(*this, name); }

double CsvRow::Real(const std::string& name) const {
  if (Text(name) == "NA") return NAN;
  const std::vector<double> v = Reals(name);
  if (v.size() != 1) throw std::runtime_error(file + ": bad field " + name + ": '" + Text(name) + "'");
  return v[0];
}

int CsvRow::Int(const std::string& name) const {
  const double v = Real(name);
  if (v != static_cast<int>(v)) throw std::runtime_error(file + ": bad field " + name + ": '" + Text(name) + "'");
  return static_cast<int>(v);
}

std::vector<CsvRow> LoadCsv(const std::string& name) {
  const std::string path = TestDataDir() + "/" + name;
  std::ifstream in(path);
  std::string line;
  if (!in || !std::getline(in, line)) throw std::runtime_error("cannot read " + path);
  const std::vector<std::string> header = Split(line);
  std::vector<CsvRow> rows;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty()) continue;
    const std::vector<std::string> f = Split(line);
    if (f.size() != header.size()) throw std::runtime_error(path + ": wrong number of fields in: " + line);
    CsvRow row{path, {}};
    for (size_t k = 0; k < f.size(); ++k) row.field[header[k]] = f[k];
    rows.push_back(std::move(row));
  }
  return rows;
}

std::vector<ChisqRef> LoadChisqRefs() {
  std::vector<ChisqRef> out;
  for (const CsvRow& row : LoadCsv("chisq_refs.csv")) {
    ChisqRef r = TableRef<ChisqRef>(row);
    r.x2 = row.Real("X2");
    r.df = row.Int("df");
    r.p = row.Real("p");
    r.phi = row.Real("phi");
    r.contingency = row.Real("contingency");
    r.cramerV = row.Real("cramer_v");
    out.push_back(std::move(r));
  }
  return out;
}

std::vector<FisherRef> LoadFisherRefs() {
  std::vector<FisherRef> out;
  for (const CsvRow& row : LoadCsv("fisher_refs.csv")) {
    FisherRef r = TableRef<FisherRef>(row);
    r.p = row.Real("p");
    out.push_back(std::move(r));
  }
  return out;
}

std::vector<MedianRef> LoadMedianRefs() {
  std::vector<MedianRef> out;
  for (const CsvRow& row : LoadCsv("median_refs.csv")) {
    MedianRef r = TableRef<MedianRef>(row);
    r.scores = row.Reals("scores");
    r.cut = row.Real("cut");
    r.collapsed = row.Ints("collapsed");
    r.x2 = row.Real("X2");
    r.df = row.Int("df");
    r.p = row.Real("p");
    if (r.scores.size() != static_cast<size_t>(r.cols) || r.collapsed.size() != static_cast<size_t>(r.rows) * 2)
      throw std::runtime_error("median_refs.csv: scores or collapsed cells of " + r.id);
    out.push_back(std::move(r));
  }
  return out;
}

std::vector<KernelRef> LoadKernelRefs(const std::string& routine) {
  std::vector<KernelRef> out;
  for (const CsvRow& row : LoadCsv("kernel_refs.csv")) {
    if (row.Text("routine") != routine) continue;
    KernelRef r{routine, {}, row.Real("value")};
    for (int i = 0; i < 4; ++i) r.a[i] = row.Real("a" + std::to_string(i + 1));
    out.push_back(std::move(r));
  }
  if (out.empty()) throw std::runtime_error("kernel_refs.csv: no rows of " + routine);
  return out;
}

}  // namespace anvl::support

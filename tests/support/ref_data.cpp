#include "support/ref_data.h"

#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>

#ifndef ANVL_TEST_DATA
#error "ANVL_TEST_DATA must name the directory of the test data files"
#endif

namespace anvl::support {
namespace {

// One CSV file with a header line; fields hold no commas or quotes.
class CsvFile {
 public:
  explicit CsvFile(const std::string& name) : path_(TestDataDir() + "/" + name) {
    std::ifstream in(path_);
    if (!in) throw std::runtime_error("cannot open " + path_);
    std::string line;
    if (!std::getline(in, line)) throw std::runtime_error("empty file " + path_);
    const std::vector<std::string> header = Split(line);
    for (size_t k = 0; k < header.size(); ++k) column_[header[k]] = k;
    while (std::getline(in, line)) {
      if (!line.empty() && line.back() == '\r') line.pop_back();
      if (line.empty()) continue;
      std::vector<std::string> fields = Split(line);
      if (fields.size() != header.size())
        throw std::runtime_error(path_ + ": wrong number of fields in: " + line);
      lines_.push_back(std::move(fields));
    }
  }

  size_t size() const { return lines_.size(); }

  const std::string& Text(size_t line, const std::string& name) const {
    auto it = column_.find(name);
    if (it == column_.end()) throw std::runtime_error(path_ + ": no column " + name);
    return lines_[line][it->second];
  }

  double Real(size_t line, const std::string& name) const {
    const std::string& s = Text(line, name);
    size_t used = 0;
    double v = 0;
    try {
      v = std::stod(s, &used);
    } catch (const std::exception&) {
      used = 0;
    }
    if (used == 0 || used != s.size()) Fail(line, name);
    return v;
  }

  int Int(size_t line, const std::string& name) const {
    const double v = Real(line, name);
    if (v != static_cast<int>(v)) Fail(line, name);
    return static_cast<int>(v);
  }

  std::vector<int64_t> Counts(size_t line, const std::string& name, size_t expected) const {
    std::istringstream in(Text(line, name));
    std::vector<int64_t> out;
    int64_t x = 0;
    while (in >> x) out.push_back(x);
    if (!in.eof() || out.size() != expected) Fail(line, name);
    return out;
  }

  std::vector<double> Reals(size_t line, const std::string& name, size_t expected) const {
    std::istringstream in(Text(line, name));
    std::vector<double> out;
    double x = 0;
    while (in >> x) out.push_back(x);
    if (!in.eof() || out.size() != expected) Fail(line, name);
    return out;
  }

 private:
  static std::vector<std::string> Split(const std::string& line) {
    std::vector<std::string> out;
    std::string field;
    std::istringstream in(line);
    while (std::getline(in, field, ',')) out.push_back(field);
    if (!line.empty() && line.back() == ',') out.emplace_back();
    return out;
  }

  [[noreturn]] void Fail(size_t line, const std::string& name) const {
    throw std::runtime_error(path_ + ": bad field " + name + " on data line " +
                             std::to_string(line + 1) + ": '" + Text(line, name) + "'");
  }

  std::string path_;
  std::map<std::string, size_t> column_;
  std::vector<std::vector<std::string>> lines_;
};

}  // namespace

std::string TestDataDir() { return ANVL_TEST_DATA; }

std::vector<ChisqRef> LoadChisqRefs() {
  CsvFile f("chisq_refs.csv");
  std::vector<ChisqRef> out;
  for (size_t k = 0; k < f.size(); ++k) {
    ChisqRef r;
    r.id = f.Text(k, "id");
    r.rows = f.Int(k, "rows");
    r.cols = f.Int(k, "cols");
    r.cells = f.Counts(k, "cells", static_cast<size_t>(r.rows) * r.cols);
    r.x2 = f.Real(k, "X2");
    r.df = f.Int(k, "df");
    r.p = f.Real(k, "p");
    r.phi = f.Real(k, "phi");
    r.contingency = f.Real(k, "contingency");
    r.cramerV = f.Real(k, "cramer_v");
    out.push_back(std::move(r));
  }
  return out;
}

std::vector<FisherRef> LoadFisherRefs() {
  CsvFile f("fisher_refs.csv");
  std::vector<FisherRef> out;
  for (size_t k = 0; k < f.size(); ++k) {
    FisherRef r;
    r.id = f.Text(k, "id");
    r.rows = f.Int(k, "rows");
    r.cols = f.Int(k, "cols");
    r.cells = f.Counts(k, "cells", static_cast<size_t>(r.rows) * r.cols);
    r.p = f.Real(k, "p");
    out.push_back(std::move(r));
  }
  return out;
}

std::vector<MedianRef> LoadMedianRefs() {
  CsvFile f("median_refs.csv");
  std::vector<MedianRef> out;
  for (size_t k = 0; k < f.size(); ++k) {
    MedianRef r;
    r.id = f.Text(k, "id");
    r.rows = f.Int(k, "rows");
    r.cols = f.Int(k, "cols");
    r.cells = f.Counts(k, "cells", static_cast<size_t>(r.rows) * r.cols);
    r.scores = f.Reals(k, "scores", static_cast<size_t>(r.cols));
    r.cut = f.Real(k, "cut");
    r.collapsed = f.Counts(k, "collapsed", static_cast<size_t>(r.rows) * 2);
    r.x2 = f.Real(k, "X2");
    r.df = f.Int(k, "df");
    r.p = f.Real(k, "p");
    out.push_back(std::move(r));
  }
  return out;
}

}  // namespace anvl::support

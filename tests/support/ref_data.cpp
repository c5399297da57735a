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

std::vector<std::string> Split(const std::string& line) {
  std::vector<std::string> out;
  std::string field;
  std::istringstream in(line);
  while (std::getline(in, field, ',')) out.push_back(field);
  if (!line.empty() && line.back() == ',') out.emplace_back();
  return out;
}

// One CSV file with a header line; fields hold no commas or quotes. Every
// accessor throws on a field that doesn't parse in full.
class CsvFile {
 public:
  explicit CsvFile(const std::string& name) : path_(TestDataDir() + "/" + name) {
    std::ifstream in(path_);
    std::string line;
    if (!in || !std::getline(in, line)) throw std::runtime_error("cannot read " + path_);
    const std::vector<std::string> header = Split(line);
    for (size_t k = 0; k < header.size(); ++k) column_[header[k]] = k;
    while (std::getline(in, line)) {
      if (!line.empty() && line.back() == '\r') line.pop_back();
      if (line.empty()) continue;
      lines_.push_back(Split(line));
      if (lines_.back().size() != header.size())
        throw std::runtime_error(path_ + ": wrong number of fields in: " + line);
    }
  }

  size_t size() const { return lines_.size(); }

  const std::string& Text(size_t line, const std::string& name) const {
    auto it = column_.find(name);
    if (it == column_.end()) throw std::runtime_error(path_ + ": no column " + name);
    return lines_[line][it->second];
  }

  // A blank-separated list of `expected` numbers.
  template <class T>
  std::vector<T> List(size_t line, const std::string& name, size_t expected) const {
    std::istringstream in(Text(line, name));
    std::vector<T> out;
    T x{};
    while (in >> x) out.push_back(x);
    if (!in.eof() || out.size() != expected) Fail(line, name);
    return out;
  }

  double Real(size_t line, const std::string& name) const { return List<double>(line, name, 1)[0]; }

  int Int(size_t line, const std::string& name) const {
    const double v = Real(line, name);
    if (v != static_cast<int>(v)) Fail(line, name);
    return static_cast<int>(v);
  }

  // The id, shape and column-major cells that every table file starts with.
  template <class Ref>
  Ref Table(size_t line) const {
    Ref r;
    r.id = Text(line, "id");
    r.rows = Int(line, "rows");
    r.cols = Int(line, "cols");
    r.cells = List<int64_t>(line, "cells", static_cast<size_t>(r.rows) * r.cols);
    return r;
  }

 private:
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
    ChisqRef r = f.Table<ChisqRef>(k);
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
    FisherRef r = f.Table<FisherRef>(k);
    r.p = f.Real(k, "p");
    out.push_back(std::move(r));
  }
  return out;
}

std::vector<MedianRef> LoadMedianRefs() {
  CsvFile f("median_refs.csv");
  std::vector<MedianRef> out;
  for (size_t k = 0; k < f.size(); ++k) {
    MedianRef r = f.Table<MedianRef>(k);
    r.scores = f.List<double>(k, "scores", static_cast<size_t>(r.cols));
    r.cut = f.Real(k, "cut");
    r.collapsed = f.List<int64_t>(k, "collapsed", static_cast<size_t>(r.rows) * 2);
    r.x2 = f.Real(k, "X2");
    r.df = f.Int(k, "df");
    r.p = f.Real(k, "p");
    out.push_back(std::move(r));
  }
  return out;
}

std::vector<KernelRef> LoadKernelRefs(const std::string& routine) {
  CsvFile f("kernel_refs.csv");
  std::vector<KernelRef> out;
  for (size_t k = 0; k < f.size(); ++k) {
    if (f.Text(k, "routine") != routine) continue;
    KernelRef r{routine, {}, f.Real(k, "value")};
    for (int i = 0; i < 4; ++i) r.a[i] = f.Real(k, "a" + std::to_string(i + 1));
    out.push_back(std::move(r));
  }
  if (out.empty()) throw std::runtime_error("kernel_refs.csv: no rows of " + routine);
  return out;
}

}  // namespace anvl::support

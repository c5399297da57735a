// Memory budget and the spill file: record round trips, failures and
// cleanup.  That each thread has its own file is held in entry_test (two
// network runs at once).
#include "frame/spill.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "frame/failure_codes.h"
#include "frame/progress.h"
#include "frame/run_store.h"

namespace anvl {
namespace {

// The size of the file at `path`, -1 when there is none.
int64_t FileSize(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 ? static_cast<int64_t>(st.st_size) : -1;
}
bool FileExists(const std::string& path) { return FileSize(path) >= 0; }

std::string TempPath(const std::string& leaf) {
  return ::testing::TempDir() + "spill_test_" + std::to_string(::getpid()) + "_" + leaf;
}

// The four record forms, as one interface for the round-trip tests.
enum class Form { kWords, kStage, kPair, kStagePair };
const char* const kFormNames[] = {"Words", "StageWords", "WordsPair", "StageWordsPair"};
bool HasStage(Form f) { return f == Form::kStage || f == Form::kStagePair; }
bool HasPair(Form f) { return f == Form::kPair || f == Form::kStagePair; }
int64_t RecordBytes(Form f, int count) { return (HasStage(f) ? 1 : 0) + 8 * count + (HasPair(f) ? 16 : 0); }

// Contents of record r: distinct words, stage byte and pair derived from r.
struct Record {
  int8_t stage = 0;
  std::vector<int64_t> words;
  double a = 0, b = 0;
};
Record Make(int64_t r, int count, uint64_t salt) {
  Record rec;
  rec.stage = static_cast<int8_t>((r * 7 + static_cast<int64_t>(salt)) % 256 - 128);
  for (int i = 0; i < count; ++i)
    rec.words.push_back(static_cast<int64_t>((static_cast<uint64_t>(r) * 0x9E3779B97F4A7C15ull) ^
                                             (salt + static_cast<uint64_t>(i) * 1000003ull)));
  rec.a = 1.0 / static_cast<double>(r) + static_cast<double>(salt);
  rec.b = -static_cast<double>(r) * 0.1;
  return rec;
}

int Write(Form f, const Record& rec, int64_t r) {
  const int n = static_cast<int>(rec.words.size());
  switch (f) {
    case Form::kWords: return WriteWords(rec.words.data(), n, r);
    case Form::kStage: return WriteStageWords(rec.stage, rec.words.data(), n, r);
    case Form::kPair: return WriteWordsPair(rec.words.data(), n, rec.a, rec.b, r);
    case Form::kStagePair: return WriteStageWordsPair(rec.stage, rec.words.data(), n, rec.a, rec.b, r);
  }
  return 1;
}

int Read(Form f, Record& rec, int count, int64_t r) {
  rec.words.assign(count, 0);
  switch (f) {
    case Form::kWords: return ReadWords(rec.words.data(), count, r);
    case Form::kStage: return ReadStageWords(&rec.stage, rec.words.data(), count, r);
    case Form::kPair: return ReadWordsPair(rec.words.data(), count, &rec.a, &rec.b, r);
    case Form::kStagePair: return ReadStageWordsPair(&rec.stage, rec.words.data(), count, &rec.a, &rec.b, r);
  }
  return 1;
}

// Reads record r and compares it with what Make wrote; returns a message
// on a mismatch, empty when it agrees.
std::string Check(Form f, int64_t r, int count, uint64_t salt) {
  Record got;
  const int code = Read(f, got, count, r);
  if (code != 0) return "read failed with " + std::to_string(code);
  const Record want = Make(r, count, salt);
  if (got.words != want.words) return "words differ";
  if (HasStage(f) && got.stage != want.stage) return "stage differs";
  if (HasPair(f) && (got.a != want.a || got.b != want.b)) return "pair differs";
  return "";
}

// With no file open, every write fails with -10 and every read with -11.
void ExpectNoFile(const char* why) {
  EXPECT_FALSE(NodeFileIsOpen()) << why;
  int64_t w[2] = {1, 2};
  EXPECT_EQ(WriteWords(w, 2, 1), fail::kSpillWrite) << why;
  EXPECT_EQ(ReadWords(w, 2, 1), fail::kSpillRead) << why;
}

class SpillTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetStore();
    Host() = HostContact{};
    path_ = TempPath("node.bin");
    Host().spill_path = path_;
  }
  void TearDown() override {
    CloseNodeFile();
    Host() = HostContact{};
    std::remove(path_.c_str());
  }
  std::string path_;
};

TEST(SpillBudget, MemoryFieldThroughTheClamp) {
  struct Case {
    double memory_kb;
    int64_t expected;  // 0: the free memory, anywhere inside the clamp
    const char* source;
  } cases[] = {
      {100.0, kBudgetFloor, "100 KB is below the 2 MiB floor"},
      {20000.0, kBudgetCeiling, "20000 KB is above the 16 MiB ceiling"},
      {2048.0, 2097152, "exactly the floor"},
      {16384.0, 16777216, "exactly the ceiling"},
      {4096.9, 4194304, "integer part of 4096.9 KB, times 1024"},
      {1.0, kBudgetFloor, "1 KB still counts as given"},
      {0.0, 0, "0: free physical memory"},
      {-1.0, 0, "-1: free physical memory"},
      {0.7, 0, "integer part 0: free physical memory"},
  };
  for (const Case& c : cases) {
    ResetStore();
    SetSetting(setting::kMemoryLimit, c.memory_kb);
    const int64_t budget = MemoryBudget();
    if (c.expected != 0) {
      EXPECT_EQ(budget, c.expected) << c.source << ": MemoryLimit " << c.memory_kb;
    } else {
      EXPECT_GE(budget, kBudgetFloor) << c.source;
      EXPECT_LE(budget, kBudgetCeiling) << c.source;
    }
  }
}

// Every form round trips in any order: reads in file order and at random,
// then rewrites in place, interleaved with reads of their neighbours or
// back to back over skipped records, which keep their contents wherever
// their bytes are held: 6000 records cross the in-memory window many
// times, 20000 of 16 bytes hold more than it, and records of 80 KB are
// larger than it.  Reads from the empty file, past the last record or
// longer than it fail; a short read of a record's head, then the whole
// record rewritten: the head reads the new words.
TEST_F(SpillTest, EveryFormRoundTripsInAnyOrder) {
  struct Case {
    Form form;
    int words;
    int64_t records;
    std::vector<int64_t> rewritten;  // in this order; empty: 500 at random
  };
  std::vector<Case> cases;
  for (Form f : {Form::kWords, Form::kStage, Form::kPair, Form::kStagePair})
    for (int count : {0, 1, 5})
      if (count != 0 || f != Form::kWords) cases.push_back({f, count, 6000, {}});  // an empty record holds nothing
  cases.push_back({Form::kWords, 2, 20000, {1, 3, 6, 2000, 2002}});
  cases.push_back({Form::kStagePair, 10000, 4, {2, 1}});
  cases.push_back({Form::kWords, 10000, 2, {2}});
  for (Case& c : cases) {
    SCOPED_TRACE(std::string(kFormNames[static_cast<int>(c.form)]) + " with " + std::to_string(c.words) + " words");
    ASSERT_EQ(OpenNodeFile(RecordBytes(c.form, c.words)), 0);
    Record dummy;
    EXPECT_EQ(Read(c.form, dummy, c.words, 1), fail::kSpillRead) << "empty file";
    for (int64_t r = 1; r <= c.records; ++r) ASSERT_EQ(Write(c.form, Make(r, c.words, 1), r), 0) << r;
    EXPECT_EQ(Read(c.form, dummy, c.words, c.records + 1), fail::kSpillRead) << "one past the end";
    EXPECT_EQ(Read(c.form, dummy, c.words, c.records + 1000), fail::kSpillRead) << "far past the end";
    EXPECT_EQ(Read(c.form, dummy, c.words + 1, c.records), fail::kSpillRead) << "last record read too long";
    for (int64_t r = 1; r <= c.records; ++r) ASSERT_EQ(Check(c.form, r, c.words, 1), "") << "record " << r;
    std::vector<int64_t> order(c.records);
    std::iota(order.begin(), order.end(), 1);
    std::shuffle(order.begin(), order.end(), std::mt19937(12345));
    for (int64_t r : order) ASSERT_EQ(Check(c.form, r, c.words, 1), "") << "random read of " << r;
    const bool interleave = c.rewritten.empty();  // else rewrites back to back, skipping records
    if (interleave) c.rewritten.assign(order.begin(), order.begin() + 500);
    std::vector<bool> again(c.records + 1, false);
    for (int64_t r : c.rewritten) {
      const int64_t next = r % c.records + 1;
      ASSERT_EQ(Write(c.form, Make(r, c.words, 2), r), 0) << r;
      again[r] = true;
      if (interleave) {
        ASSERT_EQ(Check(c.form, next, c.words, again[next] ? 2 : 1), "") << "neighbour " << next;
      }
    }
    for (int64_t r = 1; r <= c.records; ++r)
      ASSERT_EQ(Check(c.form, r, c.words, again[r] ? 2 : 1), "") << "after overwrite, record " << r;
    if (c.words > 0) {
      const Form head = HasStage(c.form) ? Form::kStage : Form::kWords;
      ASSERT_EQ(Check(head, 1, 1, again[1] ? 2 : 1), "") << "head of record 1";
      ASSERT_EQ(Write(c.form, Make(1, c.words, 5), 1), 0);
      EXPECT_EQ(Check(head, 1, 1, 5), "") << "head after rewrite";
    }
    EXPECT_EQ(Write(c.form, Make(1, c.words, 1), 0), fail::kSpillWrite) << "record 0";
    EXPECT_EQ(Read(c.form, dummy, c.words, -3), fail::kSpillRead) << "record -3";
    CloseNodeFile();
  }
}

// Record r at (r - 1) x 32; words and doubles as 8 machine-order bytes,
// the stage as one.  Record 1 is longer than its slot (33 bytes), record 2
// is never written: the gap reads as zeros.  A further megabyte of records
// pushes the first ones out of any in-memory buffer.  No offset goes past
// 2 GiB.
TEST_F(SpillTest, RecordsStandAtTheirOffsetsBelowTwoGigabytes) {
  ASSERT_EQ(OpenNodeFile(32), 0);
  const int64_t w1[2] = {0x0102030405060708, -2};
  ASSERT_EQ(WriteStageWordsPair(5, w1, 2, 0.5, -0.25, 1), 0);
  const int64_t w3[1] = {77};
  ASSERT_EQ(WriteWords(w3, 1, 3), 0);
  for (int64_t r = 4; r < 4 + (1 << 15); ++r) ASSERT_EQ(WriteWords(w3, 1, r), 0);
  std::FILE* f = std::fopen(path_.c_str(), "rb");
  ASSERT_NE(f, nullptr);
  unsigned char bytes[72] = {};
  ASSERT_EQ(std::fread(bytes, 1, sizeof bytes, f), sizeof bytes);
  std::fclose(f);
  auto at = [&](int offset, auto value) {
    std::memcpy(&value, bytes + offset, 8);
    return value;
  };
  EXPECT_EQ(bytes[0], 5);
  EXPECT_EQ(at(1, int64_t{}), w1[0]);
  EXPECT_EQ(at(9, int64_t{}), -2);
  EXPECT_EQ(at(17, double{}), 0.5);
  EXPECT_EQ(at(25, double{}), -0.25);
  for (int i = 33; i < 64; ++i) EXPECT_EQ(bytes[i], 0) << "gap byte " << i;
  EXPECT_EQ(at(64, int64_t{}), 77);
  CloseNodeFile();

  // Record length 1 MiB: record 2048 starts at 2^31 - 2^20, record 2049
  // at 2^31, one past the largest 32-bit signed offset.
  constexpr int64_t kMiB = 1 << 20;
  ASSERT_EQ(OpenNodeFile(kMiB), 0);
  const int64_t nine = 9;
  int64_t back = 0;
  EXPECT_EQ(WriteWords(&nine, 1, 2048), 0);
  EXPECT_EQ(ReadWords(&back, 1, 2048), 0);
  EXPECT_EQ(back, 9);
  EXPECT_EQ(WriteWords(&nine, 1, 2049), fail::kSpillWrite);
  EXPECT_EQ(ReadWords(&back, 1, 2049), fail::kSpillRead);
  EXPECT_EQ(WriteWords(&nine, 1, INT64_C(1) << 50), fail::kSpillWrite) << "offset overflows 64 bits";
  EXPECT_EQ(ReadWords(&back, 1, INT64_C(1) << 50), fail::kSpillRead);
  // A record that starts below 2 GiB but would end past it.
  std::vector<int64_t> big(kMiB / 8 + 1, 1);
  EXPECT_EQ(WriteWords(big.data(), static_cast<int>(big.size()), 2048), fail::kSpillWrite);
}

// Opening truncates a file of the same name (trailing blanks are not part
// of it) or makes an unnamed private one; closing deletes, and a second
// close is harmless.
TEST_F(SpillTest, FilesAreReplacedPrivateAndDeleted) {
  CloseNodeFile();  // never opened: nothing happens
  ExpectNoFile("before any open");
  Host().spill_path = "/nonexistent-dir/x";
  EXPECT_EQ(OpenNodeFile(16), fail::kSpillCreate);
  ExpectNoFile("after a failed open");

  std::FILE* f = std::fopen(path_.c_str(), "wb");
  ASSERT_NE(f, nullptr);
  std::fputs(std::string(1000, 'z').c_str(), f);
  std::fclose(f);
  ASSERT_EQ(FileSize(path_), 1000);
  Host().spill_path = path_ + "   ";
  ASSERT_EQ(OpenNodeFile(8), 0);
  EXPECT_TRUE(NodeFileIsOpen());
  EXPECT_EQ(NodeFilePathForTesting(), path_);
  EXPECT_EQ(FileSize(path_), 0) << "truncated at opening";
  int64_t w = 0;
  EXPECT_EQ(ReadWords(&w, 1, 1), fail::kSpillRead) << "old contents must be gone";
  CloseNodeFile();
  EXPECT_FALSE(FileExists(path_));
  ExpectNoFile("after the close");
  CloseNodeFile();
  ExpectNoFile("after a second close");

  // No path: a private file, unnamed while open, so that even a killed
  // process leaves nothing behind.
  Host().spill_path = "";
  ASSERT_EQ(OpenNodeFile(8), 0);
  const std::string name = NodeFilePathForTesting();
  const char* tmpdir = std::getenv("TMPDIR");
  EXPECT_EQ(name.rfind(std::string(tmpdir && *tmpdir ? tmpdir : "/tmp") + "/anvlwtq-", 0), 0u) << name;
  EXPECT_FALSE(FileExists(name)) << name;
  const int64_t answer = 42;
  ASSERT_EQ(WriteWords(&answer, 1, 1), 0);
  ASSERT_EQ(ReadWords(&w, 1, 1), 0);
  EXPECT_EQ(w, 42);
  CloseNodeFile();
  EXPECT_FALSE(FileExists(name)) << name;
}

}  // namespace
}  // namespace anvl

#include "frame/spill.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <string>

#include "frame/failure_codes.h"
#include "frame/progress.h"
#include "frame/run_store.h"

namespace anvl {
namespace {

// Bytes per kilobyte of the MemoryLimit setting.
constexpr int64_t kBytesPerKilobyte = 1024;
constexpr double kBytesPerMebibyte = 1048576.0;
// Larger ceilings than this many mebibytes (1 PiB) are all the same: the
// machine's memory caps them.
constexpr int64_t kLargestCeilingMib = int64_t{1} << 30;
// Positions go through a 32-bit signed offset: the file can't pass 2 GiB.
constexpr int64_t kLargestOffset = std::numeric_limits<int32_t>::max();
// The spill name holds at most this many characters.
constexpr size_t kSpillNameLength = 255;
// Bytes of the file kept in memory: the passes write records in order and
// read whole stages in ascending order, so one window serves many records.
constexpr int64_t kWindowBytes = 64 * 1024;
// A record is at most one stage byte, its words and a pair of doubles.
constexpr int64_t kPairBytes = 2 * static_cast<int64_t>(sizeof(double));

// The spill file of the calling thread's run.  The window is one stretch
// of the file [window_start, window_start + window_length) held in memory:
// either a clean copy of the bytes on disk (after a read) or bytes written
// but not yet on disk (dirty).  disk_size is the file's length on disk.
struct NodeFile {
  int fd = -1;
  int64_t record_length = 0;
  std::string name;
  bool named = false;  // the name is in the directory until Close
  std::unique_ptr<char[]> window;
  int64_t window_start = 0;
  int64_t window_length = 0;
  bool dirty = false;
  int64_t disk_size = 0;

  ~NodeFile() { Close(); }

  // Closes and deletes the file; nothing is written back, the file goes.
  void Close() {
    if (fd < 0) return;
    ::close(fd);
    if (named) ::unlink(name.c_str());
    fd = -1;
    named = false;
    name.clear();
    window.reset();
    window_length = 0;
    dirty = false;
    disk_size = 0;
  }

  // Writes all of [data, data + n) at `offset`; false on a short write.
  bool WriteThrough(const char* data, int64_t n, int64_t offset) {
    while (n > 0) {
      const ssize_t done = ::pwrite(fd, data, static_cast<size_t>(n), offset);
      if (done < 0 && errno == EINTR) continue;
      if (done <= 0) return false;
      data += done;
      n -= done;
      offset += done;
    }
    if (offset > disk_size) disk_size = offset;
    return true;
  }

  // Reads up to n bytes at `offset`, stopping at the end of the file;
  // returns the bytes read, or -1 on an error.
  int64_t ReadThrough(char* data, int64_t n, int64_t offset) {
    int64_t got = 0;
    while (got < n) {
      const ssize_t done = ::pread(fd, data + got, static_cast<size_t>(n - got), offset + got);
      if (done < 0 && errno == EINTR) continue;
      if (done < 0) return -1;
      if (done == 0) break;
      got += done;
    }
    return got;
  }

  // Puts the dirty window on disk; it stays as a clean copy.
  bool Flush() {
    if (!dirty) return true;
    if (!WriteThrough(window.get(), window_length, window_start)) return false;
    dirty = false;
    return true;
  }

  // Writes n bytes at `offset` through the window.  Consecutive writes
  // gather in the window; a write elsewhere flushes it first.
  bool Write(const char* data, int64_t n, int64_t offset) {
    const int64_t end = window_start + window_length;
    if (dirty && offset >= window_start && offset + n - window_start <= kWindowBytes) {
      if (offset <= end) {
        std::memcpy(window.get() + (offset - window_start), data, n);
        if (offset + n > end) window_length = offset + n - window_start;
        return true;
      }
      if (end >= disk_size) {  // the gap lies past the file's end: it reads as zeros
        std::memset(window.get() + window_length, 0, offset - end);
        std::memcpy(window.get() + (offset - window_start), data, n);
        window_length = offset + n - window_start;
        return true;
      }
    }
    if (!Flush()) return false;
    window_length = 0;  // a clean copy may overlap the new bytes: drop it
    if (n > kWindowBytes) return WriteThrough(data, n, offset);
    std::memcpy(window.get(), data, n);
    window_start = offset;
    window_length = n;
    dirty = true;
    return true;
  }

  // Reads n bytes at `offset`: from the window when it holds them, else
  // from disk, refilling the window with what follows.  False on a short read.
  bool Read(char* data, int64_t n, int64_t offset) {
    if (window_length > 0 && offset >= window_start &&
        offset + n <= window_start + window_length) {
      std::memcpy(data, window.get() + (offset - window_start), n);
      return true;
    }
    if (!Flush()) return false;
    window_length = 0;
    if (n > kWindowBytes) return ReadThrough(data, n, offset) == n;
    const int64_t got = ReadThrough(window.get(), kWindowBytes, offset);
    if (got < 0) return false;
    window_start = offset;
    window_length = got;
    if (got < n) return false;
    std::memcpy(data, window.get(), n);
    return true;
  }
};

thread_local NodeFile t_file;

// Offset of record r, or -1 when it doesn't go through a 32-bit signed
// offset (or r is below 1): the position step fails.
int64_t RecordOffset(int64_t r) {
  if (r < 1) return -1;
  const int64_t length = t_file.record_length;
  if (length > 0 && r - 1 > kLargestOffset / length) return -1;
  const int64_t offset = (r - 1) * length;
  return offset > kLargestOffset ? -1 : offset;
}

// Byte layout of one record: [stage byte] words [a b].
struct RecordShape {
  bool stage;
  bool pair;
};

// Writes one record at r from its parts; 0 or -10.
int WriteRecord(RecordShape shape, int8_t stage, const int64_t* words, int count, double a,
                double b, int64_t r) {
  if (t_file.fd < 0 || count < 0 || (count > 0 && words == nullptr)) return fail::kSpillWrite;
  const int64_t offset = RecordOffset(r);
  if (offset < 0) return fail::kSpillWrite;
  const int64_t word_bytes = static_cast<int64_t>(count) * 8;
  const int64_t n = (shape.stage ? 1 : 0) + word_bytes + (shape.pair ? kPairBytes : 0);
  if (offset + n > kLargestOffset + 1) return fail::kSpillWrite;  // would pass 2 GiB
  // Sequential case: the record continues the window, so its bytes go
  // straight into it.
  const int64_t end = t_file.window_start + t_file.window_length;
  if (t_file.dirty && offset == end && offset + n - t_file.window_start <= kWindowBytes) {
    char* p = t_file.window.get() + t_file.window_length;
    if (shape.stage) *p++ = static_cast<char>(stage);
    if (word_bytes > 0) std::memcpy(p, words, static_cast<size_t>(word_bytes));
    p += word_bytes;
    if (shape.pair) {
      std::memcpy(p, &a, sizeof a);
      std::memcpy(p + sizeof a, &b, sizeof b);
    }
    t_file.window_length += n;
    return 0;
  }
  // Elsewhere: part by part; the first part moves the window here.
  int64_t at = offset;
  if (shape.stage) {
    if (!t_file.Write(reinterpret_cast<const char*>(&stage), 1, at)) return fail::kSpillWrite;
    at += 1;
  }
  if (word_bytes > 0 && !t_file.Write(reinterpret_cast<const char*>(words), word_bytes, at))
    return fail::kSpillWrite;
  at += word_bytes;
  if (shape.pair) {
    const double pair[2] = {a, b};
    if (!t_file.Write(reinterpret_cast<const char*>(pair), kPairBytes, at))
      return fail::kSpillWrite;
  }
  return 0;
}

// Reads one record at r into its parts; 0 or -11.
int ReadRecord(RecordShape shape, int8_t* stage, int64_t* words, int count, double* a, double* b,
               int64_t r) {
  if (t_file.fd < 0 || count < 0 || (count > 0 && words == nullptr)) return fail::kSpillRead;
  const int64_t offset = RecordOffset(r);
  if (offset < 0) return fail::kSpillRead;
  const int64_t word_bytes = static_cast<int64_t>(count) * 8;
  const int64_t n = (shape.stage ? 1 : 0) + word_bytes + (shape.pair ? kPairBytes : 0);
  if (offset + n > kLargestOffset + 1) return fail::kSpillRead;
  int64_t at = offset;
  if (shape.stage) {
    char c = 0;
    if (!t_file.Read(&c, 1, at)) return fail::kSpillRead;
    if (stage) *stage = static_cast<int8_t>(c);
    at += 1;
  }
  if (word_bytes > 0 && !t_file.Read(reinterpret_cast<char*>(words), word_bytes, at))
    return fail::kSpillRead;
  at += word_bytes;
  if (shape.pair) {
    double pair[2];
    if (!t_file.Read(reinterpret_cast<char*>(pair), kPairBytes, at)) return fail::kSpillRead;
    if (a) *a = pair[0];
    if (b) *b = pair[1];
  }
  return 0;
}


// Creates a private temporary file "anvlwtq-XXXXXX" under $TMPDIR or
// /tmp and removes its name at once: the open file is the run's alone and
// can't outlive the process, even one that is killed.
int CreatePrivateFile(std::string& name) {
  const char* dir = std::getenv("TMPDIR");
  if (dir == nullptr || *dir == '\0') dir = "/tmp";
  std::string pattern = std::string(dir) + "/anvlwtq-XXXXXX";
  const int fd = ::mkostemp(pattern.data(), O_CLOEXEC);
  if (fd >= 0) {
    ::unlink(pattern.c_str());
    name = pattern;
  }
  return fd;
}

}  // namespace

// Free physical memory in bytes: MemAvailable of the kernel, else the
// free pages; 0 when neither can be read.
int64_t FreePhysicalMemory() {
  if (std::FILE* f = std::fopen("/proc/meminfo", "r")) {
    char line[256];
    long long kb = -1;
    while (std::fgets(line, sizeof line, f))
      if (std::sscanf(line, "MemAvailable: %lld kB", &kb) == 1) break;
    std::fclose(f);
    if (kb >= 0) return kb * kBytesPerKilobyte;
  }
  const long pages = ::sysconf(_SC_AVPHYS_PAGES);
  const long page_size = ::sysconf(_SC_PAGESIZE);
  if (pages > 0 && page_size > 0) return static_cast<int64_t>(pages) * page_size;
  return 0;
}

// m = integer part of the MemoryLimit setting; m >= 1 gives m kilobytes,
// else the machine's free physical memory.  Clamped to 2 MiB .. 16 MiB,
// so that the caller can lower the budget but never raise it past 16 MiB.
int64_t MemoryBudget() {
  const double m = std::trunc(Setting(setting::kMemoryLimit));
  double bytes = 0.0;
  if (m >= 1.0) {
    bytes = m * static_cast<double>(kBytesPerKilobyte);
  } else {
    bytes = static_cast<double>(FreePhysicalMemory());
  }
  const int64_t ceiling = MemoryCeiling();
  if (bytes < static_cast<double>(kBudgetFloor)) return kBudgetFloor;
  if (bytes > static_cast<double>(ceiling)) return ceiling;
  return static_cast<int64_t>(bytes);
}

int64_t EnvironmentWholeNumber(const char* name, int64_t largest) {
  const char* text = std::getenv(name);
  if (text == nullptr || *text == '\0') return 0;
  int64_t v = 0;
  for (const char* c = text; *c != '\0'; ++c) {
    if (*c < '0' || *c > '9') return 0;
    v = std::min(v * 10 + (*c - '0'), largest);
  }
  return v;
}

int64_t MemoryCeiling() {
  // Saturated: the cap below decides.
  const int64_t mib = EnvironmentWholeNumber(kCeilingVariable, kLargestCeilingMib);
  if (mib < 1) return kBudgetCeiling;
  const double physical = static_cast<double>(::sysconf(_SC_PHYS_PAGES)) *
                          static_cast<double>(::sysconf(_SC_PAGESIZE));
  const double bytes = std::min(static_cast<double>(mib) * kBytesPerMebibyte, physical / 2.0);
  return std::max(kBudgetFloor, static_cast<int64_t>(bytes));
}

// Creates the spill file for reading and writing, replacing any file of
// that name: at the host's path (trailing blanks dropped, at most 255
// characters) or, with none, a private temporary file.  An open file of
// this thread is closed and deleted first.  Returns 0, -9 when the file
// can't be created, or -1 when its window can't be allocated.
int OpenNodeFile(int64_t record_length) {
  CloseNodeFile();
  if (record_length < 1) return static_cast<int>(fail::kSpillCreate);
  std::string name = Host().spill_path.substr(0, kSpillNameLength);
  while (!name.empty() && name.back() == ' ') name.pop_back();
  int fd = -1;
  const bool private_file = name.empty();
  if (private_file) {
    fd = CreatePrivateFile(name);
  } else {
    fd = ::open(name.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  }
  if (fd < 0) return static_cast<int>(fail::kSpillCreate);
  t_file.window.reset(new (std::nothrow) char[kWindowBytes]);
  t_file.fd = fd;
  t_file.name = name;
  t_file.named = !private_file;
  t_file.record_length = record_length;
  t_file.window_start = 0;
  t_file.window_length = 0;
  t_file.dirty = false;
  t_file.disk_size = 0;
  if (!t_file.window) {
    t_file.Close();
    return static_cast<int>(fail::kNoMemory);
  }
  return 0;
}

void CloseNodeFile() { t_file.Close(); }

bool NodeFileIsOpen() { return t_file.fd >= 0; }

const std::string& NodeFilePathForTesting() { return t_file.name; }

int WriteWords(const int64_t* words, int count, int64_t r) {
  return WriteRecord({false, false}, 0, words, count, 0.0, 0.0, r);
}
int WriteStageWords(int8_t stage, const int64_t* words, int count, int64_t r) {
  return WriteRecord({true, false}, stage, words, count, 0.0, 0.0, r);
}
int WriteWordsPair(const int64_t* words, int count, double a, double b, int64_t r) {
  return WriteRecord({false, true}, 0, words, count, a, b, r);
}
int WriteStageWordsPair(int8_t stage, const int64_t* words, int count, double a, double b,
                        int64_t r) {
  return WriteRecord({true, true}, stage, words, count, a, b, r);
}
int ReadWords(int64_t* words, int count, int64_t r) {
  return ReadRecord({false, false}, nullptr, words, count, nullptr, nullptr, r);
}
int ReadStageWords(int8_t* stage, int64_t* words, int count, int64_t r) {
  return ReadRecord({true, false}, stage, words, count, nullptr, nullptr, r);
}
int ReadWordsPair(int64_t* words, int count, double* a, double* b, int64_t r) {
  return ReadRecord({false, true}, nullptr, words, count, a, b, r);
}
int ReadStageWordsPair(int8_t* stage, int64_t* words, int count, double* a, double* b, int64_t r) {
  return ReadRecord({true, true}, stage, words, count, a, b, r);
}

}  // namespace anvl

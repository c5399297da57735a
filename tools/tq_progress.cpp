// tq_progress.cpp - progress display and stops.
#include "tq_progress.h"

#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <boost/math/distributions/normal.hpp>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <thread>

namespace tq {
namespace {

using Clock = std::chrono::steady_clock;

// A run that ends within this many seconds shows no progress at all.
constexpr double kQuietStart = 0.5;

// Set by the SIGINT handler and by the clock of --time-limit; read by the
// poll routine, which the engine calls from its inner loops.
std::atomic<int> g_stop{0};
static_assert(std::atomic<int>::is_always_lock_free, "the signal handler writes g_stop");

extern "C" void OnInterrupt(int) {
  int expected = 0;
  g_stop.compare_exchange_strong(expected, static_cast<int>(StopReason::kInterrupt));
}

// Digits with a comma every three places: 784,644.
std::string Grouped(int64_t n) {
  std::string digits = std::to_string(n);
  for (int i = static_cast<int>(digits.size()) - 3; i > (n < 0 ? 1 : 0); i -= 3) digits.insert(i, ",");
  return digits;
}

std::string Elapsed(double seconds) {
  char buf[32];
  const long s = static_cast<long>(seconds);
  if (s >= 3600)
    std::snprintf(buf, sizeof buf, "%ld:%02ld:%02ld", s / 3600, s / 60 % 60, s % 60);
  else
    std::snprintf(buf, sizeof buf, "%ld:%02ld", s / 60, s % 60);
  return buf;
}

// The display of one run: the options, what the engine said last, and a
// clock thread that redraws the terminal line and watches the time limit.
struct Display {
  ProgressOptions options;
  enum class Mode { kOff, kTerminal, kPlain } mode = Mode::kOff;
  ProgressState state;
  Clock::time_point start;
  Clock::time_point last_plain{};
  bool held = false;  // plain: the engine's last words came within a second of a line, unshown
  bool drawn = false;
  std::string last_drawn;
  bool stop_noted = false;
  std::mutex mutex;  // guards everything above and standard error
  std::condition_variable wake;
  bool done = false;
  std::thread clock;

  double Seconds() const { return std::chrono::duration<double>(Clock::now() - start).count(); }

  std::string StopNote() const {
    switch (static_cast<StopReason>(g_stop.load())) {
      case StopReason::kInterrupt:
        return "stopping (Ctrl-C; press it again to quit at once)";
      case StopReason::kTimeLimit:
        return "stopping (time limit)";
      case StopReason::kNone:
        break;
    }
    return {};
  }

  void Draw() {  // holds the mutex
    std::string line = "tq " + options.test + "  " + Elapsed(Seconds());
    const std::string note = StopNote();
    const std::string words = note.empty() ? state.text : note;
    if (!words.empty()) line += "  " + words;
    winsize ws{};
    const size_t width = ioctl(STDERR_FILENO, TIOCGWINSZ, &ws) == 0 && ws.ws_col > 1 ? ws.ws_col - 1 : 79;
    if (line.size() > width) line.resize(width);
    if (line == last_drawn) return;
    last_drawn = line;
    std::fprintf(stderr, "\r%s\x1b[K", line.c_str());
    std::fflush(stderr);
    drawn = true;
  }

  void PrintPlain(const std::string& words) {  // holds the mutex
    const std::time_t now = std::time(nullptr);
    std::tm tm{};
    localtime_r(&now, &tm);
    char stamp[16];
    std::strftime(stamp, sizeof stamp, "%H:%M:%S", &tm);
    std::fprintf(stderr, "tq: %s %s %s  %s\n", stamp, options.test.c_str(), Elapsed(Seconds()).c_str(), words.c_str());
    std::fflush(stderr);
    last_plain = Clock::now();
  }

  void Tick() {  // the clock thread, every fifth of a second; holds the mutex
    if (options.time_limit_seconds > 0.0 && Seconds() >= options.time_limit_seconds) {
      int expected = 0;
      g_stop.compare_exchange_strong(expected, static_cast<int>(StopReason::kTimeLimit));
    }
    if (mode == Mode::kTerminal && Seconds() >= kQuietStart) Draw();
    if (mode == Mode::kPlain && !stop_noted && g_stop.load() != 0) PrintPlain(StopNote());
    // Words held back are shown when their second is up, so that a line
    // doesn't wait for the engine's next report.
    if (mode == Mode::kPlain && held && g_stop.load() == 0 &&
        Clock::now() - last_plain >= std::chrono::seconds(1)) {
      PrintPlain(state.text);
      held = false;
    }
    if (g_stop.load() != 0) stop_noted = true;
  }
};

Display* g_display = nullptr;

}  // namespace

bool Describe(std::string_view tail, ProgressState& s) {
  const size_t a = tail.find_first_not_of(' ');
  if (a == std::string_view::npos) return false;
  const std::string t(tail.substr(a));
  // The number that ends the tail, if any.
  const size_t digits = t.find_last_not_of("0123456789");
  const bool ends_in_number = digits != t.size() - 1;
  const int64_t number = ends_in_number ? std::atoll(t.c_str() + (digits == std::string::npos ? 0 : digits + 1)) : 0;
  const auto of_stages = [&](int64_t k) {
    return s.stages > 0 ? "stage " + std::to_string(k) + " of " + std::to_string(s.stages)
                        : "stage " + std::to_string(k);
  };
  double low = 0.0, high = 0.0;
  if (ends_in_number && t.find("ssing stage") != std::string::npos) {  // path bounds, from the last stage down
    if (s.phase != "bounds" || number != s.stage) s.nodes = -1;
    s.phase = "bounds";
    s.stage = number;
  } else if (ends_in_number && t.rfind("ated:", 0) == 0) {  // nodes still to be created
    s.nodes = number;
  } else if (ends_in_number && t.find("to stage") != std::string::npos) {  // the distribution, stage by stage
    s.phase = "distribution";
    s.stage = number;
    s.nodes = -1;
  } else if (std::sscanf(t.c_str(), "%lf,%lf)", &low, &high) == 2 && t.back() == ')') {
    char buf[160];
    if (s.method != Method::kMonteCarlo) {
      std::snprintf(buf, sizeof buf, "exact p-value between %.4f and %.4f so far", low, high);
    } else {
      // The interval is p -+ z sqrt(p (1 - p) / m) after m tables: its width
      // tells m, to the precision of its four decimals.
      const double p = (low + high) / 2, half = (high - low) / 2;
      const double z = boost::math::quantile(boost::math::normal(), (1.0 + s.level) / 2.0);
      std::string done;
      if (low > 0.0 && high < 1.0 && half > 0.0) {
        const double m = z * z * p * (1.0 - p) / (half * half);
        const double unit = std::pow(10.0, std::floor(std::log10(m)) - 1);  // two significant digits
        done = "about " + Grouped(static_cast<int64_t>(std::round(m / unit) * unit)) + " of " + Grouped(s.samples) +
               " tables, ";
      }
      std::snprintf(buf, sizeof buf, "Monte Carlo: %sp-value %.4f (%.4f .. %.4f) so far", done.c_str(), p, low, high);
    }
    s.text = buf;
    return true;
  } else if (t == "Processing..." || t == ".") {
    s.text = "processing";
    return true;
  } else if (t.find("p-value") != std::string::npos) {
    s.text = "calculating the p-value";
    return true;
  } else if (t.find("to solve.") != std::string::npos) {
    s.text = "a long exact run: it may take a while";
    return true;
  } else {
    s.text = "engine says: ..." + t;
    return true;
  }
  if (s.phase == "bounds") {
    // Bounds run from stage S-1 down to 0: the k-th stage done is S - t.
    s.text = "path bounds, " + (s.stages > 0 ? of_stages(s.stages - s.stage) : of_stages(s.stage));
    if (s.nodes >= 0) s.text += ", " + Grouped(s.nodes) + " nodes remaining";
  } else {
    s.text = "summing the distribution, " + (s.stages > 0 ? of_stages(s.stage + 1) : of_stages(s.stage));
  }
  return true;
}

void BeginProgress(const ProgressOptions& options) {
  g_stop.store(0);
  auto* d = new Display;
  d->options = options;
  d->state.method = options.method;
  d->state.stages = options.stages;
  d->state.level = options.level;
  d->state.samples = options.samples;
  const char* term = std::getenv("TERM");
  if (!options.quiet)
    d->mode = isatty(STDERR_FILENO) && !(term != nullptr && std::string(term) == "dumb") ? Display::Mode::kTerminal
                                                                                         : Display::Mode::kPlain;
  d->start = Clock::now();
  d->last_plain = d->start;  // the first plain line comes after a second
  g_display = d;
  struct sigaction action {};
  action.sa_handler = OnInterrupt;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESETHAND;  // a second Ctrl-C ends tq at once
  sigaction(SIGINT, &action, nullptr);
  d->clock = std::thread([d] {
    std::unique_lock<std::mutex> lock(d->mutex);
    while (!d->wake.wait_for(lock, std::chrono::milliseconds(200), [d] { return d->done; })) d->Tick();
  });
}

void EndProgress() {
  Display* d = g_display;
  if (d == nullptr) return;
  g_display = nullptr;
  {
    std::lock_guard<std::mutex> lock(d->mutex);
    d->done = true;
  }
  d->wake.notify_all();
  d->clock.join();
  signal(SIGINT, SIG_DFL);
  if (d->drawn) {
    std::fputs("\r\x1b[K", stderr);
    std::fflush(stderr);
  }
  delete d;
}

StopReason RequestedStop() { return static_cast<StopReason>(g_stop.load()); }

extern "C" void PollForStop(int64_t* flag) {
  if (flag != nullptr && *flag != -1 && g_stop.load(std::memory_order_relaxed) != 0) *flag = 1;
}

extern "C" void ReceiveText(const char* text, int32_t* length, int64_t*, int64_t text_length) {
  Display* d = g_display;
  int64_t n = text_length;
  if (length != nullptr && *length < n) n = *length;
  if (d == nullptr || text == nullptr || n <= 0 || d->mode == Display::Mode::kOff) return;
  std::lock_guard<std::mutex> lock(d->mutex);
  if (!Describe(std::string_view(text, static_cast<size_t>(n)), d->state)) return;
  if (d->mode != Display::Mode::kPlain) return;
  d->held = Clock::now() - d->last_plain < std::chrono::seconds(1);
  if (!d->held) d->PrintPlain(d->state.text);
}

}  // namespace tq

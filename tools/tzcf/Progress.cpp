#include "Progress.h"

#include <unistd.h>

#include <cstdio>
#include <fstream>

namespace tzcf {

namespace {

constexpr auto kFirstDraw = std::chrono::milliseconds(500);
constexpr auto kRedraw = std::chrono::milliseconds(100);
constexpr int kBarWidth = 20;

bool ShowOnStderr(bool quiet) { return !quiet && ::isatty(STDERR_FILENO) == 1; }

// A progress line that cannot be drawn has nowhere to be reported, and the
// command goes on without it: the results are ignored on purpose.
void DrawLine(const std::string& text) {
  (void)std::fprintf(stderr, "\r%s\x1b[K", text.c_str());
  (void)std::fflush(stderr);
}
void WipeLine() {
  (void)std::fputs("\r\x1b[K", stderr);
  (void)std::fflush(stderr);
}

std::string ClockText(double seconds) {
  const long s = static_cast<long>(seconds);
  char text[32];  // room for any long: snprintf cannot fail or cut here
  if (s >= 3600) {
    (void)std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", s / 3600, s / 60 % 60, s % 60);
  } else {
    (void)std::snprintf(text, sizeof text, "%ld:%02ld", s / 60, s % 60);
  }
  return text;
}

// The bytes this process has handed to write calls so far, from
// /proc/self/io; false where the system does not tell.
bool BytesWritten(std::uint64_t* bytes) {
  std::ifstream io("/proc/self/io");
  std::string key;
  std::uint64_t value = 0;
  while (io >> key >> value) {
    if (key == "wchar:") {
      *bytes = value;
      return true;
    }
  }
  return false;
}

}  // namespace

std::string HumanBytes(std::uint64_t bytes) {
  static const char* const kUnits[] = {"KiB", "MiB", "GiB", "TiB"};
  if (bytes < 1024) return std::to_string(bytes) + " B";
  double value = static_cast<double>(bytes) / 1024;
  int unit = 0;
  while (value >= 1024 && unit < 3) {
    value /= 1024;
    ++unit;
  }
  char text[32];  // value < 1024 here: snprintf cannot fail or cut
  (void)std::snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
  return text;
}

Progress::Progress(const std::string& label, std::uint64_t total, bool quiet)
    : enabled_(ShowOnStderr(quiet)), label_(label), total_(total), start_(Clock::now()), last_(start_) {}

Progress::~Progress() { Done(); }

void Progress::Add(std::uint64_t bytes) {
  done_ += bytes;
  if (!enabled_) return;
  const Clock::time_point now = Clock::now();
  if (now - start_ < kFirstDraw || now - last_ < kRedraw) return;
  last_ = now;
  const double seconds = std::chrono::duration<double>(now - start_).count();
  const double rate = static_cast<double>(done_) / seconds;
  const std::uint64_t shown = done_ < total_ ? done_ : total_;
  const int filled = total_ == 0 ? kBarWidth : static_cast<int>(shown * kBarWidth / total_);
  std::string text = label_ + " [" + std::string(filled, '#') + std::string(kBarWidth - filled, '.') +
                     "] " + HumanBytes(shown) + " / " + HumanBytes(total_) + "  " +
                     HumanBytes(static_cast<std::uint64_t>(rate)) + "/s  ";
  text += rate > 0 ? ClockText(static_cast<double>(total_ - shown) / rate) + " left" : "--:-- left";
  DrawLine(text);
  drawn_ = true;
}

void Progress::Clear() {
  if (drawn_) WipeLine();
  drawn_ = false;
}

void Progress::Done() {
  Clear();
  enabled_ = false;
}

BusyLine::BusyLine(const std::string& label, std::uint64_t total, bool quiet, std::uint64_t writes) {
  if (ShowOnStderr(quiet)) thread_ = std::thread(&BusyLine::Run, this, label, total, writes);
}

BusyLine::~BusyLine() {
  if (!thread_.joinable()) return;
  {
    std::lock_guard<std::mutex> hold(mutex_);
    stop_ = true;
  }
  wake_.notify_all();
  thread_.join();
}

void BusyLine::Run(const std::string& label, std::uint64_t total, std::uint64_t writes) {
  const auto start = std::chrono::steady_clock::now();
  std::unique_lock<std::mutex> hold(mutex_);
  std::uint64_t last = 0;
  if (writes > 0 && BytesWritten(&last)) {
    Progress bar(label, writes, false);
    while (!wake_.wait_for(hold, kRedraw, [this] { return stop_; })) {
      std::uint64_t now = 0;
      if (!BytesWritten(&now)) break;
      bar.Add(now - last);
      last = now;
    }
    return;  // the bar wipes its line
  }
  const std::string text = label + " " + HumanBytes(total);
  bool drawn = false;
  if (!wake_.wait_for(hold, kFirstDraw, [this] { return stop_; })) {
    do {
      const double seconds =
          std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      DrawLine(text + "  " + ClockText(seconds) + " so far");
      drawn = true;
    } while (!wake_.wait_for(hold, std::chrono::milliseconds(250), [this] { return stop_; }));
  }
  if (drawn) WipeLine();
}

}  // namespace tzcf

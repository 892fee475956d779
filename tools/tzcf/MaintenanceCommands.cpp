// compact (in place) and scrub: the commands that work on the blocks no
// stream holds, through the library's passes. Neither needs a password:
// blocks move and are cleared as they lie, so an encrypted file stays
// encrypted. Both refuse a file whose chains are damaged (check lists
// what is wrong, salvage copies out what can be had).
//
// A first SIGINT, SIGTERM or SIGHUP stops a compaction after the batch of
// moves under way; the file is then sound and shorter by what was done.
#include <signal.h>

#include <csignal>
#include <iostream>
#include <memory>

#include <boost/filesystem.hpp>

#include <tesselzostream/CompoundFile.h>
#include <tesselzostream/FormatFacts.h>

#include "Commands.h"
#include "Progress.h"

namespace fs = boost::filesystem;

namespace tzcf {

namespace {

volatile std::sig_atomic_t stopAsked = 0;

void AskStop(int) { stopAsked = 1; }

// Turns the first of the three signals into a request to stop; the handlers
// go back to what they were when it ends. A signal the process was started
// with ignored stays ignored.
class StopOnSignal {
 public:
  StopOnSignal() {
    stopAsked = 0;
    struct sigaction action = {};
    action.sa_handler = AskStop;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESETHAND;  // a second signal ends the process
    for (int i = 0; i < 3; ++i) {
      sigaction(kSignals[i], nullptr, &old_[i]);
      if (old_[i].sa_handler != SIG_IGN) sigaction(kSignals[i], &action, nullptr);
    }
  }
  ~StopOnSignal() {
    for (int i = 0; i < 3; ++i) sigaction(kSignals[i], &old_[i], nullptr);
  }
  StopOnSignal(const StopOnSignal&) = delete;
  StopOnSignal& operator=(const StopOnSignal&) = delete;

 private:
  static constexpr int kSignals[3] = {SIGINT, SIGTERM, SIGHUP};
  struct sigaction old_[3];
};

// The bar, made at the first batch, when the bytes to move are known.
struct Watch {
  bool quiet;
  std::unique_ptr<Progress> bar;
  std::uint64_t shown = 0;
};

bool OnBatch(const CompactProgress& progress, void* context) {
  Watch& watch = *static_cast<Watch*>(context);
  if (!watch.bar) {
    watch.bar.reset(new Progress("compacting", std::uint64_t{progress.toMove} * tzformat::kBlockSize, watch.quiet));
  }
  const std::uint64_t done = std::uint64_t{progress.moved} * tzformat::kBlockSize;
  watch.bar->Add(done - watch.shown);
  watch.shown = done;
  return stopAsked == 0;
}

// Why a pass that returned `status` did not run, for one line.
std::string Refusal(ZoStreamE::Status status) {
  if (status == ZoStreamE::StatusFailed) return "its chains are damaged or a write failed (tzcf check tells which)";
  return "the file failed (status " + std::to_string(status) + ")";
}

bool OpenForPass(CompoundFile& archive, const std::string& file) {
  if (!OpenFile(archive, file, ZoStreamE::OpenReadWrite, true)) return false;
  const ZoStreamE::Status status = archive.GetStatus();
  return status == ZoStreamE::StatusOk || status == ZoStreamE::StatusPasswordNeeded;
}

}  // namespace

Exit Compact(const std::string& file, const Options& options) {
  if (options.copy) return CompactByCopy(file, options);
  CompoundFile archive;
  if (!OpenForPass(archive, file)) return kError;
  boost::system::error_code ec;
  const std::uint64_t before = fs::file_size(file, ec);
  CompactProgress result;
  ZoStreamE::Status status;
  {
    StopOnSignal stop;
    Watch watch{options.quiet, nullptr};
    status = archive.CompactInPlace(&result, 0, OnBatch, &watch);
    if (watch.bar) watch.bar->Done();
  }
  const bool closed = archive.Close() == status;
  if ((status != ZoStreamE::StatusOk && status != ZoStreamE::StatusPasswordNeeded) || !closed) {
    Report(file + ": not compacted: " + Refusal(status));
    return kError;
  }
  const std::uint64_t after = fs::file_size(file, ec);
  if (!options.quiet) {
    std::cout << file << ": " << HumanBytes(before) << " -> " << HumanBytes(after) << ", " << result.moved
              << " blocks moved" << (result.finished ? "" : " (stopped early: run it again to go on)") << "\n";
  }
  return result.finished ? kOk : kProblem;
}

Exit Scrub(const std::string& file, const Options& options) {
  CompoundFile archive;
  if (!OpenForPass(archive, file)) return kError;
  std::uint32_t scrubbed = 0;
  ZoStreamE::Status status;
  {
    boost::system::error_code ec;
    BusyLine busy("scrubbing", fs::file_size(file, ec), options.quiet);
    status = archive.ScrubFreeBlocks(&scrubbed);
  }
  const bool closed = archive.Close() == status;
  if ((status != ZoStreamE::StatusOk && status != ZoStreamE::StatusPasswordNeeded) || !closed) {
    Report(file + ": not scrubbed: " + Refusal(status));
    return kError;
  }
  if (!options.quiet) std::cout << file << ": " << scrubbed << " free blocks overwritten\n";
  return kOk;
}

}  // namespace tzcf

// The OLE2 system ("ole2"): a compound document through libgsf (default
// sector sizes); its reader recurses, so the children raise their stack
// limit first. Built only where pkg-config finds libgsf-1.
// Registered with System.h's registry; see CompareBench.cpp for what it
// does in each phase.
#include <sys/resource.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gsf/gsf-infile-msole.h>
#include <gsf/gsf-infile.h>
#include <gsf/gsf-input-stdio.h>
#include <gsf/gsf-outfile-msole.h>
#include <gsf/gsf-outfile.h>
#include <gsf/gsf-output-stdio.h>
#include <gsf/gsf-utils.h>

#include "bench/compare/System.h"

namespace tzcompare {
namespace {

// Lets the main thread's stack grow to `bytes` (or the hard limit).
void RaiseStackLimit(rlim_t bytes) {
  rlimit limit{};
  if (::getrlimit(RLIMIT_STACK, &limit) != 0) return;
  if (limit.rlim_cur != RLIM_INFINITY && limit.rlim_cur < bytes) {
    limit.rlim_cur = limit.rlim_max == RLIM_INFINITY ? bytes : std::min(bytes, limit.rlim_max);
    ::setrlimit(RLIMIT_STACK, &limit);
  }
}

class Ole2 : public System {
 public:
  Ole2() : System("ole2") {}
  fs::path Store(const fs::path& folder) const override { return folder / "streams.ole2"; }

  void Write(const fs::path& store, const Pattern& p, const Contents& c, Clock& clock) const override {
    Start();
    clock.Start();
    GsfOutfile* ole = NewDocument(store);
    for (std::size_t i = 0; i < c.streams; ++i) {
      if (c.Has(i)) WriteChild(ole, p, i, c.version[i], c.size);
    }
    CloseDocument(ole);
    clock.Stop();
  }

  std::uint64_t Read(const fs::path& store, const Contents& c, Clock& clock) const override {
    Start();
    Tally tally(c);
    std::vector<char> buffer(kChunk);
    clock.Start();
    GsfInfile* ole = OpenDocument(store);
    const int children = gsf_infile_num_children(ole);
    for (int j = 0; j < children; ++j) {
      GsfInput* child = gsf_infile_child_by_index(ole, j);
      if (child == nullptr) Fail("libgsf: child " + std::to_string(j) + " cannot be opened");
      const std::size_t i = StreamIndex(gsf_input_name(child));
      if (i == SIZE_MAX) {
        tally.Unexpected();
      } else {
        const auto size = static_cast<std::uint64_t>(gsf_input_size(child));
        std::uint64_t got = 0;
        const std::uint64_t sum = SumStream(c.size, buffer.data(), [&](char* b, std::size_t n) -> std::size_t {
          const std::size_t take = static_cast<std::size_t>(std::min<gsf_off_t>(static_cast<gsf_off_t>(n), gsf_input_remaining(child)));
          if (take == 0) return 0;
          if (gsf_input_read(child, take, reinterpret_cast<guint8*>(b)) == nullptr) Fail("libgsf: read failed");
          return take;
        }, &got);
        tally.Found(i, sum, size);
      }
      g_object_unref(child);
    }
    g_object_unref(ole);
    clock.Stop();
    return tally.Finish();
  }

  void Edit(const fs::path& store, const Pattern& p, const Contents& before, const Contents& after,
            Clock& clock) const override {
    Start();
    clock.Start();
    Rewrite(store, p, before, after);
    clock.Stop();
  }

  const char* CompactHow() const override { return "rewrite the document without the deleted streams"; }
  void Compact(const fs::path& store, const Pattern& p, const Contents& before, const Contents& after,
               Clock& clock) const override {
    Start();
    clock.Start();
    Rewrite(store, p, before, after);
    clock.Stop();
  }

 private:
  // Every ole2 phase runs in its own child: see the head of this file on the stack.
  static void Start() {
    RaiseStackLimit(rlim_t(512) * kMiB);
    gsf_init();
  }
  static std::string Message(GError* err) {
    std::string text = err != nullptr ? err->message : "unknown error";
    if (err != nullptr) g_error_free(err);
    return text;
  }
  static GsfOutfile* NewDocument(const fs::path& path) {
    GError* err = nullptr;
    GsfOutput* sink = gsf_output_stdio_new(path.c_str(), &err);
    if (sink == nullptr) Fail("libgsf: cannot create " + path.string() + ": " + Message(err));
    GsfOutfile* ole = gsf_outfile_msole_new(sink);
    g_object_unref(sink);
    if (ole == nullptr) Fail("libgsf: no OLE2 writer");
    return ole;
  }
  static void CloseDocument(GsfOutfile* ole) {
    const bool ok = gsf_output_close(GSF_OUTPUT(ole));
    g_object_unref(ole);
    if (!ok) Fail("libgsf: the document could not be closed");
  }
  static GsfInfile* OpenDocument(const fs::path& path) {
    GError* err = nullptr;
    GsfInput* input = gsf_input_stdio_new(path.c_str(), &err);
    if (input == nullptr) Fail("libgsf: cannot open " + path.string() + ": " + Message(err));
    GsfInfile* ole = gsf_infile_msole_new(input, &err);
    g_object_unref(input);
    if (ole == nullptr) Fail("libgsf: not an OLE2 document: " + Message(err));
    return ole;
  }
  static void WriteChild(GsfOutfile* ole, const Pattern& p, std::size_t i, int version, std::size_t size) {
    GsfOutput* child = gsf_outfile_new_child(ole, StreamName(i).c_str(), FALSE);
    if (child == nullptr) Fail("libgsf: cannot add a stream");
    ForEachChunk(size, [&](std::size_t k, std::size_t n) {
      if (!gsf_output_write(child, n, reinterpret_cast<const guint8*>(p.Chunk(i, k, version)))) {
        Fail("libgsf: write failed");
      }
    });
    const bool ok = gsf_output_close(child);
    g_object_unref(child);
    if (!ok) Fail("libgsf: a stream could not be closed");
  }
  // libgsf writes a document once: a change is a new document, written
  // beside the old one and renamed over it.
  static void Rewrite(const fs::path& store, const Pattern& p, const Contents& before, const Contents& after) {
    const fs::path next = store.string() + ".new";
    GsfInfile* in = OpenDocument(store);
    GsfOutfile* out = NewDocument(next);
    std::vector<char> buffer(kChunk);
    const int children = gsf_infile_num_children(in);
    for (int j = 0; j < children; ++j) {
      const std::size_t i = StreamIndex(gsf_infile_name_by_index(in, j));
      if (i >= after.streams || !after.Has(i)) continue;
      if (after.version[i] != before.version[i]) {
        WriteChild(out, p, i, after.version[i], after.size);
        continue;
      }
      GsfInput* from = gsf_infile_child_by_index(in, j);
      GsfOutput* to = gsf_outfile_new_child(out, StreamName(i).c_str(), FALSE);
      if (from == nullptr || to == nullptr) Fail("libgsf: cannot copy a stream");
      for (gsf_off_t left = gsf_input_size(from); left > 0;) {
        const auto n = static_cast<std::size_t>(std::min<gsf_off_t>(left, static_cast<gsf_off_t>(kChunk)));
        const guint8* bytes = gsf_input_read(from, n, reinterpret_cast<guint8*>(buffer.data()));
        if (bytes == nullptr || !gsf_output_write(to, n, bytes)) Fail("libgsf: copy failed");
        left -= static_cast<gsf_off_t>(n);
      }
      const bool ok = gsf_output_close(to);
      g_object_unref(to);
      g_object_unref(from);
      if (!ok) Fail("libgsf: a stream could not be closed");
    }
    CloseDocument(out);
    g_object_unref(in);
    fs::rename(next, store);
  }
};

}  // namespace

const Registration kRegisterOle2(3, [] { return std::unique_ptr<System>(new Ole2); });

}  // namespace tzcompare

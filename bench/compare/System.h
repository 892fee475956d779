// A system the compare benchmark measures, behind one small interface, and
// the registry that lists the systems this build has.
//
// Each system lives in a file of its own (PlainSystem.cpp, SqliteSystem.cpp,
// ...) that registers it with a Registration at namespace scope; a file is
// compiled only where its library was found, so a missing library drops its
// system and nothing else.
//
// Invariants:
// (1) Systems() lists every registered system once, in the order of their
//     `order` numbers (the order of the tables), whatever the link order.
// (2) A system keeps no state between calls: every phase runs in a child
//     process and gets all it needs as arguments.
// Ownership: the registry owns the systems for the life of the process.
// Thread safety: registrations run before main; Systems() is called from
// the benchmark's one thread.
#ifndef TESSELZOSTREAM_BENCH_COMPARE_SYSTEM_H_
#define TESSELZOSTREAM_BENCH_COMPARE_SYSTEM_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "bench/compare/Child.h"
#include "bench/compare/Workload.h"

namespace tzcompare {

class System {
 public:
  explicit System(const char* key) : key_(key) {}
  virtual ~System() = default;
  const char* Key() const { return key_; }
  // Where the streams go inside the system's own folder.
  virtual fs::path Store(const fs::path& folder) const = 0;
  virtual void Write(const fs::path& store, const Pattern& p, const Contents& c, Clock& clock) const = 0;
  // Reads and checks every stream; the number of wrong ones.
  virtual std::uint64_t Read(const fs::path& store, const Contents& c, Clock& clock) const = 0;
  // Turns a store holding `before` into one holding `after`, where some
  // streams have a new version, and saves it.
  virtual void Edit(const fs::path& store, const Pattern& p, const Contents& before, const Contents& after,
                    Clock& clock) const = 0;
  // What compaction means here; null when the system has none.
  virtual const char* CompactHow() const { return nullptr; }
  // Removes the streams `after` lacks and gives their room back.
  virtual void Compact(const fs::path&, const Pattern&, const Contents&, const Contents&, Clock&) const {}
  // Opens the store (for writing when `write`), finds stream i and reads its
  // first byte: the wait before an application's first look-up. Only
  // systems for which Opens() is true have this phase.
  virtual bool Opens() const { return false; }
  virtual void OpenAndFind(const fs::path&, std::size_t /*i*/, bool /*write*/, Clock&) const {}
  // True for a system that only edits and compacts a copy of another's
  // store (the working-folder source) and has no write or read run.
  virtual bool EditsOnly() const { return false; }

 private:
  const char* key_;
};

using SystemFactory = std::unique_ptr<System> (*)();

// Adds a system to the registry; `order` places it among the others.
struct Registration {
  Registration(int order, SystemFactory make);
};

// Every registered system, in order.
const std::vector<const System*>& Systems();

}  // namespace tzcompare

#endif  // TESSELZOSTREAM_BENCH_COMPARE_SYSTEM_H_

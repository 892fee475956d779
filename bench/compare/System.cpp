#include "bench/compare/System.h"

#include <algorithm>
#include <utility>

namespace tzcompare {

namespace {

struct Entry {
  int order;
  std::unique_ptr<System> system;
};

// A function's static, so that registrations from other files' static
// initialisers find it made whatever their order.
std::vector<Entry>& Entries() {
  static std::vector<Entry> entries;
  return entries;
}

}  // namespace

Registration::Registration(int order, SystemFactory make) {
  std::vector<Entry>& entries = Entries();
  Entry entry{order, make()};
  const auto at = std::upper_bound(entries.begin(), entries.end(), order,
                                   [](int o, const Entry& e) { return o < e.order; });
  entries.insert(at, std::move(entry));
}

const std::vector<const System*>& Systems() {
  static const std::vector<const System*> systems = [] {
    std::vector<const System*> list;
    for (const Entry& e : Entries()) list.push_back(e.system.get());
    return list;
  }();
  return systems;
}

}  // namespace tzcompare

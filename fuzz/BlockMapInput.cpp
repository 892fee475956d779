#include "fuzz/BlockMapInput.h"

#include <cstdio>
#include <functional>
#include <memory>

#include <boost/filesystem.hpp>

#include "fuzz/FuzzUtil.h"
#include "testsupport/FileBytes.h"
#include "testsupport/TestData.h"
#include "utility/Endian.h"

namespace tzfuzz::blockmap {

namespace {

// One session of writes and deletions, closed with StatusOk.
template <typename Steps>
void Session(std::map<std::string, std::string>* streams, Steps steps) {
  CompoundFile file;
  if (OpenFile(file, ZoStreamE::OpenReadWrite) != ZoStreamE::StatusOk) Fail("template: open failed");
  auto put = [&](const std::string& name, std::size_t length) {
    const std::string text = Text(length, Seed(name));
    if (!Put(file, name, text)) Fail("template: write failed");
    (*streams)[name] = text;
  };
  auto remove = [&](const std::string& name) {
    if (!file.DeleteCFFile(name.c_str())) Fail("template: delete failed");
    streams->erase(name);
  };
  steps(put, remove);
  if (file.Close() != ZoStreamE::StatusOk) Fail("template: close failed");
}

Template Build(unsigned which) {
  Template t;
  RemoveTemp();
  using Put = std::function<void(const std::string&, std::size_t)>;
  using Remove = std::function<void(const std::string&)>;
  switch (which) {
    case 0:  // holes left by deletions, one of them filled again
      Session(&t.streams, [](Put put, Remove) {
        put("alpha", 2500), put("beta", 10), put("gamma", 5000), put("delta", 1200), put("eps", 3100);
      });
      Session(&t.streams, [](Put put, Remove remove) { remove("beta"), remove("delta"), put("zeta", 700); });
      break;
    case 1:  // four directory blocks
      Session(&t.streams, [](Put put, Remove) {
        for (int i = 0; i < 10; ++i) put("dir/s" + std::to_string(i), static_cast<std::size_t>(i) * 400);
      });
      Session(&t.streams, [](Put, Remove remove) { remove("dir/s3"), remove("dir/s7"); });
      break;
    case 2:  // one small stream
      Session(&t.streams, [](Put put, Remove) { put("x", 40); });
      break;
    default:  // more blocks than the map's first block has room for, most of them free
      Session(&t.streams, [](Put put, Remove) { put("bulk", 1010000), put("s1", 3000), put("s2", 10); });
      Session(&t.streams, [](Put put, Remove remove) { remove("bulk"), put("s3", 500); });
      break;
  }
  t.bytes = tzsupport::ReadFileBytes(Path());
  t.held.assign(t.Blocks() + 1, false);
  for (std::uint32_t n = 1; n <= t.Blocks(); ++n) {
    bf::BlockHead head;
    bf::DecodeHead(&t.bytes[std::size_t{n - 1} * bf::kBlockSize], &head);
    if (head.blockNumber != n || !bf::HasSignature(head)) Fail("template: a damaged head");
    t.held[n] = head.inUse != 0;
  }
  CompoundFile file;
  if (OpenFile(file, ZoStreamE::OpenReadOnly) != ZoStreamE::StatusOk) Fail("template: reopen failed");
  const DirEntry* entry = file.FindDirEntry(bf::kFreeListName);
  if (entry == nullptr) Fail("template: no saved map");
  for (std::uint32_t n = entry->firstBlock; n != 0 && t.mapChain.size() < t.Blocks();) {
    t.mapChain.push_back(n);
    bf::BlockHead head;
    bf::DecodeHead(&t.bytes[std::size_t{n - 1} * bf::kBlockSize], &head);
    n = head.nextBlock;
  }
  file.Close();
  // The file's own map says what its heads say.
  const std::uint32_t h = tz::DecodeFixed32(&t.bytes[t.MapByte(kOffH)]);
  if (h > t.Blocks()) Fail("template: H beyond the file");
  for (std::uint32_t n = 1; n <= h; ++n) {
    if ((t.bytes[t.MapByte(kOffTable + n)] != 0) != t.held[n]) Fail("template: map and heads disagree");
  }
  RemoveTemp();
  return t;
}

}  // namespace

const std::string& Path() {
  static const std::string path = tzfuzz::ScratchPath("tz-blockmap-fuzz") + ".cf";
  return path;
}

void RemoveTemp() { std::remove(Path().c_str()); }

std::string Text(std::size_t length, std::uint32_t seed) { return tzsupport::LcgBytes(length, seed); }

std::uint32_t Seed(const std::string& name) {
  std::uint32_t h = 5381;
  for (const char c : name) h = h * 33 + static_cast<unsigned char>(c);
  return h;
}

ZoStreamE::Status OpenFile(CompoundFile& file, ZoStreamE::OpenMode mode) {
  try {
    return file.Open(Path().c_str(), mode);
  } catch (ZoStreamE::Status thrown) {
    return thrown;
  } catch (const boost::filesystem::filesystem_error&) {
    return ZoStreamE::StatusFailed;
  }
}

bool Put(CompoundFile& file, const std::string& name, const std::string& text) {
  std::unique_ptr<std::iostream> out(file.GetIOStream(name.c_str(), "wb"));
  if (!out) return false;
  out->write(text.data(), static_cast<std::streamsize>(text.size()));
  out->flush();
  return static_cast<bool>(*out);
}

const std::vector<Template>& Templates() {
  static const std::vector<Template> all = [] {
    std::vector<Template> built;
    for (unsigned i = 0; i < kTemplates; ++i) built.push_back(Build(i));
    return built;
  }();
  return all;
}

}  // namespace tzfuzz::blockmap

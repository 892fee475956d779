// A scratch folder with one compound file and the working directory a
// CompoundFileStreamSource would use for it.
#ifndef TESSELZOSTREAM_TESTS_SOURCES_SOURCEFIXTURE_H_
#define TESSELZOSTREAM_TESTS_SOURCES_SOURCEFIXTURE_H_

#include <algorithm>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include "tests/TestUtil.h"

namespace fs = boost::filesystem;
using Source = CompoundFileStreamSource;

class SourceFixture : public ::testing::Test {
 protected:
  using Streams = std::map<std::string, std::string>;
  tztest::ScratchDir dir;
  const std::string file = dir.Path("doc.tzcf");
  const std::string work =
      Source::GetTempFolderName(dir.path().c_str(), "doc.tzcf");

  // Makes the compound file with these streams.
  void Store(const Streams& streams) {
    tztest::MakeFile(file, tztest::StreamList(streams.begin(), streams.end()));
  }
  // The streams of a compound file (ours by default) in directory order,
  // the saved block map left out.
  std::vector<std::string> StoredNames(const std::string& path = "") {
    CompoundFile cf;
    EXPECT_EQ(ZoStreamE::StatusOk, cf.Open((path.empty() ? file : path).c_str(), ZoStreamE::OpenReadOnly));
    std::vector<std::string> names = tztest::ListNames(cf);
    names.erase(std::remove(names.begin(), names.end(), "zorvanet_block_file_free_list"), names.end());
    return names;
  }
  // The same streams with their content.
  Streams Stored(const std::string& path = "") {
    Streams result;
    tztest::OpenedFile cf(path.empty() ? file : path, ZoStreamE::OpenReadOnly);
    for (const std::string& n : StoredNames(path)) result[n] = tztest::GetStream(cf, n.c_str());
    return result;
  }
  // A source on our file and working folder, opened with a new folder.
  std::unique_ptr<Source> Opened(bool readOnly = false) {
    std::unique_ptr<Source> source(new Source(file.c_str(), work.c_str()));
    EXPECT_EQ(Source::NoError, source->Open(Source::NewDirectory, readOnly));
    return source;
  }
  // Reads the rest of a stream and deletes it; "<null>" for null.
  static std::string Drain(std::istream* in) {
    if (in == nullptr) return "<null>";
    std::ostringstream text;
    text << in->rdbuf();
    delete in;
    return text.str();
  }
  // Writes and deletes a stream; false for null or a failed write.
  static bool Fill(std::ostream* out, const std::string& content) {
    if (out == nullptr) return false;
    out->write(content.data(), static_cast<std::streamsize>(content.size()));
    const bool ok = out->good();
    delete out;
    return ok;
  }
  // Removes the temporary files a compaction may leave beside the file.
  void RemoveCompactionLeftovers() const {
    for (char letter = 'A'; letter <= 'Y'; ++letter) fs::remove(dir.Path(std::string("kelvoptmp") + letter + ".zvp"));
  }
  bool InWork(const std::string& name) const {
    return fs::exists(work + "/" + name);
  }
};

#endif  // TESSELZOSTREAM_TESTS_SOURCES_SOURCEFIXTURE_H_

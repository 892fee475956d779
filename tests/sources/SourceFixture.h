// A scratch folder with one compound file and the working directory a
// CompoundFileStreamSource would use for it.
#ifndef TESSELZOSTREAM_TESTS_SOURCES_SOURCEFIXTURE_H_
#define TESSELZOSTREAM_TESTS_SOURCES_SOURCEFIXTURE_H_

#include <map>
#include <memory>
#include <sstream>
#include <string>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include "tests/TestUtil.h"

class SourceFixture : public ::testing::Test {
 protected:
  tztest::ScratchDir dir;
  const std::string file = dir.Path("doc.tzcf");
  const std::string work =
      CompoundFileStreamSource::GetTempFolderName(dir.path().c_str(), "doc.tzcf");

  // Makes the compound file with these streams.
  void Store(const std::map<std::string, std::string>& streams) {
    CompoundFile cf;
    ASSERT_EQ(ZoStreamE::StatusOk, cf.Open(file.c_str(), ZoStreamE::OpenReadWrite));
    for (const auto& s : streams) ASSERT_TRUE(tztest::PutStream(cf, s.first.c_str(), s.second));
  }
  // Every stream of the compound file but the saved block map, with content.
  std::map<std::string, std::string> Stored() {
    std::map<std::string, std::string> result;
    CompoundFile cf;
    EXPECT_EQ(ZoStreamE::StatusOk, cf.Open(file.c_str(), ZoStreamE::OpenReadOnly));
    unsigned long cursor = 0;
    for (const char* n = cf.GetFirstDirName(&cursor); n != nullptr; n = cf.GetNextDirName(&cursor)) {
      if (std::string(n) != "zorvanet_block_file_free_list") result[n] = tztest::GetStream(cf, n);
    }
    return result;
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
  bool InWork(const std::string& name) const {
    return boost::filesystem::exists(work + "/" + name);
  }
};

#endif  // TESSELZOSTREAM_TESTS_SOURCES_SOURCEFIXTURE_H_

// End-to-end tests of the tzcf tool: the built program in a scratch folder,
// judged by exit status, output and the files it left. Compound files with
// names no honest folder gives are made with the library.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include <tesselzostream/tesselzostream.h>

#include "tests/TestUtil.h"

namespace fs = boost::filesystem;

namespace {

struct Result {
  int code;
  std::string out;
  std::string err;
};

std::string Quote(const std::string& text) {
  std::string quoted = "'";
  for (const char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path.string(), std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteFile(const fs::path& path, const std::string& bytes) {
  fs::create_directories(path.parent_path());
  std::ofstream out(path.string(), std::ios::binary | std::ios::trunc);
  out << bytes;
}

// Every regular file below `root` by relative path, with its content.
std::map<std::string, std::string> Snapshot(const fs::path& root) {
  std::map<std::string, std::string> files;
  for (fs::recursive_directory_iterator it(root), end; it != end; ++it) {
    if (fs::is_regular_file(it->symlink_status())) {
      files[it->path().lexically_relative(root).generic_string()] = ReadFile(it->path());
    }
  }
  return files;
}

using tztest::Pattern;

class TzcfTest : public ::testing::Test {
 protected:
  fs::path Path(const std::string& name) const { return dir_ / name; }

  // Runs tzcf in the scratch folder with `input` on stdin and no password
  // in the environment unless `env` ("NAME=value ...") sets one.
  Result Run(const std::vector<std::string>& args, const std::string& input = "", const std::string& env = "") {
    WriteFile(Path(".stdin"), input);
    std::string command = "cd " + Quote(dir_.string()) + " && env -u TZCF_PASSWORD -u TZCF_NEW_PASSWORD " +
                          env + " " + Quote(TZCF_BINARY);
    for (const std::string& arg : args) command += " " + Quote(arg);
    command += " <.stdin >.stdout 2>.stderr";
    const int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadFile(Path(".stdout")), ReadFile(Path(".stderr"))};
  }

  // A compound file `name` holding `streams`, made with the library.
  void MakeFile(const std::string& name, const tztest::StreamList& streams) {
    tztest::MakeFile(Path(name).string(), streams);
  }

  tztest::ScratchDir scratch_;
  const fs::path dir_ = scratch_.path();
};

TEST_F(TzcfTest, PackAndUnpackGiveBackEveryFileByteForByte) {
  const std::map<std::string, std::string> files = {
      {"binary.bin", Pattern(3 * 1003 + 7, 1)},
      {"one-payload", Pattern(1003, 2)},
      {"empty", ""},
      {"large.bin", Pattern(300 * 1024 + 5, 3)},  // several copy buffers
      {"d1/d2/d3/d4/d5/d6/d7/d8/d9/d10/d11/deep.txt", "deep\n"},
      {"name with spaces/file name.txt", "spaced\n"},
  };
  for (const auto& f : files) WriteFile(Path("in") / f.first, f.second);

  const Result pack = Run({"pack", "in", "a.tzcf"});
  ASSERT_EQ(pack.code, 0) << pack.err;
  EXPECT_EQ(pack.err, "");  // no progress bar: stderr is no terminal

  const Result unpack = Run({"unpack", "a.tzcf", "out"});
  ASSERT_EQ(unpack.code, 0) << unpack.err;
  EXPECT_EQ(Snapshot(Path("out")), files);

  // The names, sorted as packed, without the saved block map.
  std::string names;
  for (const auto& f : files) names += f.first + "\n";
  EXPECT_EQ(Run({"ls", "a.tzcf"}).out, names);
  EXPECT_EQ(Run({"cat", "a.tzcf", "binary.bin"}).out, files.at("binary.bin"));
}

TEST_F(TzcfTest, ListingShowsSizesAndChainBlocks) {
  MakeFile("a.tzcf", {{"zero", ""}, {"full", Pattern(1003, 0)}, {"short", Pattern(1002, 0)}, {"quote\"d", "x"}});
  const Result details = Run({"ls", "-l", "a.tzcf"});
  ASSERT_EQ(details.code, 0) << details.err;
  EXPECT_NE(details.out.find("      1003       2  "), std::string::npos) << details.out;
  EXPECT_NE(details.out.find("      1002       1  "), std::string::npos) << details.out;
  EXPECT_NE(details.out.find("         0       1  "), std::string::npos) << details.out;

  const Result json = Run({"ls", "--json", "a.tzcf"});
  ASSERT_EQ(json.code, 0) << json.err;
  EXPECT_NE(json.out.find("{\"name\": \"full\", \"size\": 1003, \"blocks\": 2, \"created\": \""), std::string::npos)
      << json.out;
  EXPECT_NE(json.out.find("\"name\": \"quote\\\"d\""), std::string::npos) << json.out;
  EXPECT_EQ(json.out.find("zorvanet"), std::string::npos);
  EXPECT_EQ(json.out.find("\\u000a"), std::string::npos);  // times without their line end
}

TEST_F(TzcfTest, PackSkipsAndReportsWhatItCannotStoreFaithfully) {
  const std::string longName = std::string(200, 'd') + "/" + std::string(56, 'f');  // 257 characters
  WriteFile(Path("in") / longName, "long");
  WriteFile(Path("in") / "README", "upper");
  WriteFile(Path("in") / "readme", "lower");
  WriteFile(Path("in") / "kept.txt", "kept");
  fs::create_symlink("/etc/hostname", Path("in") / "link");

  const Result pack = Run({"pack", "in", "a.tzcf"});
  EXPECT_EQ(pack.code, 1);
  EXPECT_NE(pack.err.find("longer than 256"), std::string::npos) << pack.err;
  EXPECT_NE(pack.err.find("'readme': same name as 'README' apart from case"), std::string::npos) << pack.err;
  EXPECT_NE(pack.err.find("'link': not a regular file"), std::string::npos) << pack.err;
  EXPECT_EQ(Run({"ls", "a.tzcf"}).out, "README\nkept.txt\n");

  // A name of exactly 256 characters is no problem.
  fs::remove_all(Path("in"));
  WriteFile(Path("in") / (std::string(200, 'd') + "/" + std::string(55, 'f')), "fits");
  EXPECT_EQ(Run({"pack", "in", "a.tzcf"}).code, 2);  // exists, and no --force
  const Result again = Run({"pack", "--force", "in", "a.tzcf"});
  EXPECT_EQ(again.code, 0) << again.err;
  EXPECT_EQ(Run({"ls", "a.tzcf"}).out.size(), 257u);
}

TEST_F(TzcfTest, UsageErrorsAndMissingFilesExitWithTwo) {
  EXPECT_EQ(Run({}).code, 2);
  EXPECT_EQ(Run({"frobnicate", "a.tzcf"}).code, 2);
  EXPECT_EQ(Run({"cat", "a.tzcf"}).code, 2);
  EXPECT_EQ(Run({"ls", "--bogus", "a.tzcf"}).code, 2);

  const Result missing = Run({"ls", "missing.tzcf"});
  EXPECT_EQ(missing.code, 2);
  EXPECT_NE(missing.err.find("missing.tzcf: no such file"), std::string::npos) << missing.err;
  EXPECT_FALSE(fs::exists(Path("missing.tzcf")));  // not created by the open
  for (const char* command : {"unpack", "cat", "rm", "check", "info", "compact", "encrypt", "decrypt", "passwd"}) {
    EXPECT_EQ(Run({command, "missing.tzcf", "x"}).code, 2) << command;
    EXPECT_FALSE(fs::exists(Path("missing.tzcf"))) << command;
  }

  WriteFile(Path("junk.tzcf"), "not a compound file");
  EXPECT_EQ(Run({"ls", "junk.tzcf"}).code, 2);
  MakeFile("a.tzcf", {{"s", "x"}});
  EXPECT_EQ(Run({"cat", "a.tzcf", "nothing"}).code, 2);

  for (const char* command : {"pack", "unpack", "ls", "cat", "put", "rm", "check", "info", "compact", "encrypt",
                              "decrypt", "passwd"}) {
    const Result help = Run({command, "--help"});
    EXPECT_EQ(help.code, 0) << command;
    EXPECT_NE(help.out.find("Usage: tzcf " + std::string(command)), std::string::npos) << help.out;
  }
}

TEST_F(TzcfTest, PutCatAndRemoveStreams) {
  const std::string bytes = Pattern(5000, 9);
  WriteFile(Path("source.bin"), bytes);
  ASSERT_EQ(Run({"put", "a.tzcf", "from/file", "source.bin"}).code, 0);  // creates the file
  ASSERT_EQ(Run({"put", "a.tzcf", "dash", "-"}, "via dash").code, 0);
  ASSERT_EQ(Run({"put", "a.tzcf", "absent"}, "no source given").code, 0);
  EXPECT_EQ(Run({"cat", "a.tzcf", "from/file"}).out, bytes);
  EXPECT_EQ(Run({"cat", "a.tzcf", "DASH"}).out, "via dash");  // names compare without case
  ASSERT_EQ(Run({"put", "a.tzcf", "dash"}, "replaced").code, 0);
  EXPECT_EQ(Run({"cat", "a.tzcf", "dash"}).out, "replaced");

  // The saved block map is the library's: never written or removed.
  EXPECT_EQ(Run({"put", "a.tzcf", "Zorvanet_Block_File_Free_List"}, "x").code, 2);
  EXPECT_EQ(Run({"rm", "a.tzcf", "zorvanet_block_file_free_list"}).code, 2);
  EXPECT_EQ(Run({"put", "a.tzcf", std::string(257, 'n')}, "x").code, 2);

  const Result rm = Run({"rm", "a.tzcf", "absent", "nothing-such"});
  EXPECT_EQ(rm.code, 1);
  EXPECT_NE(rm.err.find("no stream 'nothing-such'"), std::string::npos) << rm.err;
  EXPECT_EQ(Run({"ls", "a.tzcf"}).out, "from/file\ndash\n");

  CompoundFile file;
  ASSERT_EQ(file.Open(Path("a.tzcf").c_str(), ZoStreamE::OpenReadOnly), ZoStreamE::StatusOk);
  EXPECT_TRUE(file.Exists("zorvanet_block_file_free_list"));
}

TEST_F(TzcfTest, UnpackWritesNothingOutsideItsFolder) {
  const fs::path outside = Path("outside");
  fs::create_directories(outside);
  WriteFile(outside / "victim", "untouched");
  fs::create_directories(Path("out"));
  fs::create_symlink(outside, Path("out") / "link");
  fs::create_symlink(outside / "victim", Path("out") / "file-link");
  fs::create_hard_link(outside / "victim", Path("out") / "hard-link");

  MakeFile("hostile.tzcf", {{(outside / "absolute").string(), "a"},
                            {"../up", "b"},
                            {"a/../../up-again", "c"},
                            {"a//b", "d"},
                            {"trailing/", "e"},
                            {"./dot", "f"},
                            {"link/through", "g"},
                            {"link/../../../escaped", "h"},
                            {"file-link", "replaces the link"},
                            {"hard-link", "replaces the link"},
                            {"good/name.txt", "kept"}});
  const Result unpack = Run({"unpack", "hostile.tzcf", "out"});
  EXPECT_EQ(unpack.code, 1);
  for (const std::string& refused : {(outside / "absolute").string(), std::string("../up"),
                                    std::string("a/../../up-again"), std::string("a//b"), std::string("trailing/"),
                                    std::string("./dot"), std::string("link/through")}) {
    EXPECT_NE(unpack.err.find("refused '" + refused + "'"), std::string::npos) << refused << "\n" << unpack.err;
  }

  // Every regular file of the scratch folder is one the test made, or one
  // unpack made inside its folder.
  std::vector<std::string> written;
  for (const auto& file : Snapshot(dir_)) written.push_back(file.first);
  EXPECT_EQ(written, (std::vector<std::string>{".stderr", ".stdin", ".stdout", "hostile.tzcf", "out/file-link",
                                               "out/good/name.txt", "out/hard-link", "outside/victim"}));
  EXPECT_EQ(ReadFile(outside / "victim"), "untouched");
  EXPECT_EQ(ReadFile(Path("out/good/name.txt")), "kept");
  EXPECT_EQ(ReadFile(Path("out/file-link")), "replaces the link");
  EXPECT_FALSE(fs::is_symlink(Path("out/file-link")));
  EXPECT_EQ(ReadFile(Path("out/hard-link")), "replaces the link");
}

// Runs tzcf on a pseudo-terminal, answering each prompt with the next of
// `answers`; returns the exit status and all the terminal showed.
Result RunOnTerminal(const std::vector<std::string>& args, const std::vector<std::string>& answers) {
  int terminal = -1;
  const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
  if (child == 0) {
    unsetenv("TZCF_PASSWORD");
    std::vector<char*> argv{const_cast<char*>(TZCF_BINARY)};
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    execv(TZCF_BINARY, argv.data());
    _exit(127);
  }
  Result result{-1, "", ""};
  if (child < 0) return result;
  std::size_t answered = 0;
  for (;;) {
    pollfd wait{terminal, POLLIN, 0};
    if (poll(&wait, 1, 10000) <= 0) {  // nothing for ten seconds: give up
      kill(child, SIGKILL);
      break;
    }
    char buffer[256];
    const ssize_t n = read(terminal, buffer, sizeof buffer);
    if (n <= 0) break;  // the child has gone
    result.out.append(buffer, static_cast<std::size_t>(n));
    // Each prompt ends with ": "; answer it once it shows.
    std::size_t prompts = 0;
    for (std::size_t at = result.out.find(": "); at != std::string::npos; at = result.out.find(": ", at + 1)) ++prompts;
    while (answered < prompts && answered < answers.size()) {
      const std::string line = answers[answered++] + "\n";
      if (write(terminal, line.data(), line.size()) < 0) break;
    }
  }
  int status = 0;
  waitpid(child, &status, 0);
  close(terminal);
  result.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

TEST_F(TzcfTest, PasswordsComeFromAFileTheEnvironmentOrATerminal) {
  MakeFile("a.tzcf", {{"secret.txt", "the content"}});
  ASSERT_EQ(Run({"encrypt", "a.tzcf"}, "", "TZCF_PASSWORD=one").code, 0);
  EXPECT_EQ(Run({"encrypt", "a.tzcf"}, "", "TZCF_PASSWORD=one").code, 2);  // already encrypted
  EXPECT_EQ(Run({"ls", "a.tzcf"}).out, "secret.txt\n");                     // names stay readable

  const Result none = Run({"cat", "a.tzcf", "secret.txt"});
  EXPECT_EQ(none.code, 2);
  EXPECT_NE(none.err.find("is encrypted"), std::string::npos) << none.err;
  EXPECT_EQ(Run({"cat", "a.tzcf", "secret.txt"}, "", "TZCF_PASSWORD=two").code, 2);
  EXPECT_EQ(Run({"cat", "a.tzcf", "secret.txt"}, "", "TZCF_PASSWORD=one").out, "the content");
  WriteFile(Path("pw"), "one\r\nsecond line ignored\n");
  EXPECT_EQ(Run({"cat", "--password-file", "pw", "a.tzcf", "secret.txt"}).out, "the content");

  ASSERT_EQ(Run({"passwd", "a.tzcf"}, "", "TZCF_PASSWORD=one TZCF_NEW_PASSWORD=two").code, 0);
  EXPECT_EQ(Run({"cat", "a.tzcf", "secret.txt"}, "", "TZCF_PASSWORD=one").code, 2);
  const Result unpack = Run({"unpack", "a.tzcf", "out"}, "", "TZCF_PASSWORD=two");
  EXPECT_EQ(unpack.code, 0) << unpack.err;
  EXPECT_EQ(ReadFile(Path("out/secret.txt")), "the content");
  EXPECT_EQ(Run({"compact", "a.tzcf"}).code, 2);  // a rewrite would come out clear

  const Result prompted = RunOnTerminal({"cat", Path("a.tzcf").string(), "secret.txt"}, {"two"});
  EXPECT_EQ(prompted.code, 0) << prompted.out;
  EXPECT_NE(prompted.out.find("Password for "), std::string::npos) << prompted.out;
  EXPECT_NE(prompted.out.find("the content"), std::string::npos) << prompted.out;
  EXPECT_EQ(prompted.out.find("two"), std::string::npos) << "echoed: " << prompted.out;

  ASSERT_EQ(Run({"decrypt", "a.tzcf"}, "", "TZCF_PASSWORD=two").code, 0);
  EXPECT_EQ(Run({"cat", "a.tzcf", "secret.txt"}).out, "the content");
  EXPECT_EQ(Run({"decrypt", "a.tzcf"}, "", "TZCF_PASSWORD=two").code, 2);  // not encrypted

  // A new password is asked twice on a terminal, and must be the same.
  EXPECT_EQ(RunOnTerminal({"encrypt", Path("a.tzcf").string()}, {"three", "four"}).code, 2);
  EXPECT_EQ(Run({"cat", "a.tzcf", "secret.txt"}).out, "the content");
  EXPECT_EQ(RunOnTerminal({"encrypt", Path("a.tzcf").string()}, {"three", "three"}).code, 0);
  EXPECT_EQ(Run({"cat", "a.tzcf", "secret.txt"}, "", "TZCF_PASSWORD=three").out, "the content");
}

TEST_F(TzcfTest, CheckFindsADamagedChainAndNamesItsBlock) {
  MakeFile("a.tzcf", {{"first", Pattern(2500, 1)}, {"second", Pattern(4000, 2)}});
  const Result sound = Run({"check", "a.tzcf"});
  EXPECT_EQ(sound.code, 0) << sound.out << sound.err;
  EXPECT_NE(sound.out.find("a.tzcf: sound\n"), std::string::npos) << sound.out;

  tztest::FileBytes bytes = tztest::ReadAll(Path("a.tzcf").string());
  const std::uint32_t second = tztest::FirstBlockOf(bytes, "second");
  bytes[tztest::BlockAt(second) + 5] = 'X';  // the head's signature
  tztest::WriteAll(Path("a.tzcf").string(), bytes);
  const Result damaged = Run({"check", "a.tzcf"});
  EXPECT_EQ(damaged.code, 1) << damaged.out << damaged.err;
  // One line names both the stream and the block.
  const std::string block = "block " + std::to_string(second) + " ";
  std::istringstream text(damaged.out);
  std::size_t lines = 0;
  for (std::string line; std::getline(text, line);) {
    lines += line.find("second") != std::string::npos && line.find(block) != std::string::npos;
  }
  EXPECT_EQ(lines, 1u) << damaged.out;
  EXPECT_NE(damaged.out.find(" problems\n"), std::string::npos) << damaged.out;  // the summary
  EXPECT_EQ(Run({"check", "missing.tzcf"}).code, 2);
}

TEST_F(TzcfTest, CompactGivesBackTheSpaceOfRemovedStreams) {
  WriteFile(Path("in/big.bin"), Pattern(100 * 1003, 4));
  WriteFile(Path("in/nested/kept.txt"), "kept\n");
  WriteFile(Path("in/top.txt"), "top\n");
  ASSERT_EQ(Run({"pack", "in", "a.tzcf"}).code, 0);
  ASSERT_EQ(Run({"rm", "a.tzcf", "big.bin"}).code, 0);
  fs::remove(Path("in/big.bin"));

  const Result before = Run({"info", "a.tzcf"});
  ASSERT_EQ(before.code, 0) << before.err;
  EXPECT_NE(before.out.find("encrypted:     no"), std::string::npos) << before.out;
  EXPECT_NE(before.out.find("reclaimable:   103424 bytes"), std::string::npos) << before.out;  // 101 blocks

  const std::uintmax_t size = fs::file_size(Path("a.tzcf"));
  const Result compact = Run({"compact", "a.tzcf"});
  ASSERT_EQ(compact.code, 0) << compact.err;
  EXPECT_LE(fs::file_size(Path("a.tzcf")), size - 103424);
  EXPECT_NE(Run({"info", "a.tzcf"}).out.find("reclaimable:   0 bytes"), std::string::npos);
  ASSERT_EQ(Run({"unpack", "a.tzcf", "out"}).code, 0);
  EXPECT_EQ(Snapshot(Path("out")), Snapshot(Path("in")));
  // No temporary file is left beside the compacted one.
  for (fs::directory_iterator it(dir_), end; it != end; ++it) {
    EXPECT_EQ(it->path().filename().string().find("kelvoptmp"), std::string::npos);
  }
}

}  // namespace

// End-to-end tests of the tzcf tool: the built program in a scratch folder,
// judged by exit status, output and the files it left. Compound files with
// names no honest folder gives are made with the library.
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <signal.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
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

#include "blockstore/BlockFormat.h"
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
                          env + " " + runAs_ + Quote(TZCF_BINARY);
    for (const std::string& arg : args) command += " " + Quote(arg);
    command += " <.stdin >.stdout 2>.stderr";
    const int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadFile(Path(".stdout")), ReadFile(Path(".stderr"))};
  }

  // A compound file `name` holding `streams`, made with the library.
  void MakeFile(const std::string& name, const tztest::StreamList& streams) {
    tztest::MakeFile(Path(name).string(), streams);
  }

  // Makes Run's commands run as a user whom permissions bind (nobody, when
  // the tests run as root); false when that cannot be had.
  bool RunAsUnprivileged() {
    if (geteuid() != 0) return true;
    if (std::system("command -v setpriv >/dev/null") != 0) return false;
    fs::permissions(dir_, fs::perms::all_all);
    runAs_ = "setpriv --reuid=65534 --regid=65534 --clear-groups ";
    return true;
  }

  // A tmpfs of `kib` KiB mounted at `name` in the scratch folder, unmounted
  // at the test's end; false when it cannot be mounted (not root).
  bool MountSmallDisk(const std::string& name, unsigned kib) {
    fs::create_directories(Path(name));
    const std::string options = "size=" + std::to_string(kib) + "k";
    if (mount("tzcf-test", Path(name).c_str(), "tmpfs", 0, options.c_str()) != 0) return false;
    mounted_.push_back(Path(name).string());
    return true;
  }
  ~TzcfTest() override {
    for (const std::string& path : mounted_) umount2(path.c_str(), MNT_DETACH);
  }

  tztest::ScratchDir scratch_;
  const fs::path dir_ = scratch_.path();
  std::string runAs_;
  std::vector<std::string> mounted_;
};

// Names of what a directory holds.
std::vector<std::string> Entries(const fs::path& dir) {
  std::vector<std::string> names;
  for (fs::directory_iterator it(dir), end; it != end; ++it) names.push_back(it->path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

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
  EXPECT_NE(pack.err.find("'link': a symbolic link (--dereference follows it)"), std::string::npos) << pack.err;
  EXPECT_EQ(Run({"ls", "a.tzcf"}).out, "README\nkept.txt\n");
  WriteFile(Path("target"), "through the link");
  fs::create_symlink(Path("target"), Path("in") / "link2");
  EXPECT_EQ(Run({"pack", "--force", "--dereference", "in", "a.tzcf"}).code, 1);
  EXPECT_EQ(Run({"cat", "a.tzcf", "link2"}).out, "through the link");

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
  EXPECT_NE(missing.err.find("missing.tzcf: cannot open: No such file or directory"), std::string::npos)
      << missing.err;
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
  EXPECT_EQ(Run({"compact", "--copy", "a.tzcf"}).code, 2);  // a rewrite would come out clear
  const Result inPlace = Run({"compact", "a.tzcf"});          // moves blocks as they lie
  EXPECT_EQ(inPlace.code, 0) << inPlace.err;
  EXPECT_EQ(Run({"cat", "a.tzcf", "secret.txt"}, "", "TZCF_PASSWORD=two").out, "the content");

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

// In place and through a copy; scrub leaves the length and clears what
// the removed stream held.
TEST_F(TzcfTest, CompactGivesBackTheSpaceOfRemovedStreams) {
  const std::string big = Pattern(100 * 1003, 4);
  auto holdsBig = [&]() {
    const tztest::FileBytes raw = tztest::ReadAll(Path("a.tzcf").string());
    return std::string(raw.begin(), raw.end()).find(big.substr(5100, 400)) != std::string::npos;
  };
  for (const std::vector<std::string>& command :
       {std::vector<std::string>{"compact", "a.tzcf"}, {"compact", "--copy", "a.tzcf"}, {"scrub", "a.tzcf"}}) {
    SCOPED_TRACE(command[1]);
    fs::remove_all(Path("in"));
    fs::remove_all(Path("out"));
    fs::remove(Path("a.tzcf"));
    WriteFile(Path("in/big.bin"), big);
    WriteFile(Path("in/nested/kept.txt"), "kept\n");
    WriteFile(Path("in/top.txt"), "top\n");
    ASSERT_EQ(Run({"pack", "in", "a.tzcf"}).code, 0);
    ASSERT_EQ(Run({"rm", "a.tzcf", "big.bin"}).code, 0);
    fs::remove(Path("in/big.bin"));
    ASSERT_TRUE(holdsBig());

    const Result before = Run({"info", "a.tzcf"});
    ASSERT_EQ(before.code, 0) << before.err;
    EXPECT_NE(before.out.find("encrypted:     no"), std::string::npos) << before.out;
    EXPECT_NE(before.out.find("reclaimable:   103424 bytes"), std::string::npos) << before.out;  // 101 blocks

    const std::uintmax_t size = fs::file_size(Path("a.tzcf"));
    const Result run = Run(command);
    ASSERT_EQ(run.code, 0) << run.err;
    EXPECT_FALSE(holdsBig());
    if (command[0] == "scrub") {
      // Of the 101 free blocks one is a skipped block already.
      EXPECT_EQ(run.out, "a.tzcf: 100 free blocks overwritten\n");
      EXPECT_EQ(fs::file_size(Path("a.tzcf")), size);
    } else {
      EXPECT_LE(fs::file_size(Path("a.tzcf")), size - 103424);
      EXPECT_NE(Run({"info", "a.tzcf"}).out.find("reclaimable:   0 bytes"), std::string::npos);
    }
    EXPECT_EQ(Run({"check", "a.tzcf"}).code, 0);
    ASSERT_EQ(Run({"unpack", "a.tzcf", "out"}).code, 0);
    EXPECT_EQ(Snapshot(Path("out")), Snapshot(Path("in")));
    // No temporary file is left beside the compacted one.
    for (fs::directory_iterator it(dir_), end; it != end; ++it) {
      EXPECT_EQ(it->path().filename().string().find("kelvoptmp"), std::string::npos);
    }
  }
}

TEST_F(TzcfTest, UnpackWritesEveryIntactStreamAroundADamagedOne) {
  tztest::StreamList streams;
  for (int i = 0; i < 30; ++i) streams.push_back({"s" + std::to_string(100 + i), Pattern(2500, i)});
  MakeFile("a.tzcf", streams);
  tztest::FileBytes bytes = tztest::ReadAll(Path("a.tzcf").string());
  const std::uint32_t first = tztest::FirstBlockOf(bytes, "s105");
  tztest::Put32(bytes, tztest::BlockAt(first) + blockformat::kOffNextBlock, 0x7FFFFFF0);  // a link past the end
  tztest::WriteAll(Path("a.tzcf").string(), bytes);
  const Result unpack = Run({"unpack", "a.tzcf", "out"});
  EXPECT_EQ(unpack.code, 1) << unpack.err;
  EXPECT_EQ(unpack.err, "tzcf: a.tzcf: stream 's105' is damaged; not unpacked\n");
  EXPECT_EQ(Snapshot(Path("out")).size(), 29u);
  EXPECT_TRUE(ReadFile(Path("out/s129")) == streams.back().second);
}

TEST_F(TzcfTest, AFailedPutKeepsTheOldContentAndTheFileSound) {
  MakeFile("a.tzcf", {{"s", "old"}});
  fs::create_directories(Path("folder"));
  for (const char* source : {"folder", "missing"}) {
    const Result put = Run({"put", "a.tzcf", "s", source});
    EXPECT_EQ(put.code, 2) << source;
    EXPECT_NE(put.err.find(source == std::string("folder") ? "Is a directory" : "No such file"), std::string::npos)
        << put.err;
    EXPECT_EQ(Run({"cat", "a.tzcf", "s"}).out, "old") << source;
  }
  if (!MountSmallDisk("disk", 256)) GTEST_SKIP() << "no tmpfs to fill (not root)";
  MakeFile("disk/a.tzcf", {{"s", "old"}});
  WriteFile(Path("big"), Pattern(300 * 1024, 1));
  const Result full = Run({"put", "disk/a.tzcf", "s", "big"});
  EXPECT_EQ(full.code, 2);
  EXPECT_NE(full.err.find("No space left on device"), std::string::npos) << full.err;
  EXPECT_EQ(Run({"cat", "disk/a.tzcf", "s"}).out, "old");
  EXPECT_EQ(Run({"check", "disk/a.tzcf"}).code, 0);
  EXPECT_EQ(Entries(Path("disk")), std::vector<std::string>{"a.tzcf"});
}

TEST_F(TzcfTest, AnInterruptedOrFailedPackLeavesNothingBehind) {
  const std::string bytes = Pattern(4 << 20, 1);
  for (int i = 0; i < 40; ++i) WriteFile(Path("in") / ("f" + std::to_string(i)), bytes);
  for (const int sent : {SIGINT, SIGTERM}) {
    // The signal comes once the new file has been made.
    // The signal comes once the new file has been made.
    const pid_t child = fork();
    if (child == 0) {
      ::signal(SIGINT, SIG_DFL);
      execl(TZCF_BINARY, TZCF_BINARY, "pack", "-q", Path("in").c_str(), Path("a.tzcf").c_str(), nullptr);
      _exit(127);
    }
    int status = 0;
    pid_t ended = 0;
    while ((ended = waitpid(child, &status, WNOHANG)) == 0 && Entries(dir_).size() < 2) usleep(100);
    if (ended == 0) {
      kill(child, sent);
      waitpid(child, &status, 0);
    }
    EXPECT_TRUE(WIFSIGNALED(status)) << status;
    EXPECT_EQ(Entries(dir_), std::vector<std::string>{"in"}) << sent;
  }
  if (!MountSmallDisk("disk", 4096)) GTEST_SKIP() << "no tmpfs to fill (not root)";
  MakeFile("disk/a.tzcf", {{"s", "old"}});
  const Result full = Run({"pack", "--force", "in", "disk/a.tzcf"});
  EXPECT_EQ(full.code, 2);
  EXPECT_NE(full.err.find("No space left on device"), std::string::npos) << full.err;
  EXPECT_EQ(Entries(Path("disk")), std::vector<std::string>{"a.tzcf"});
  EXPECT_EQ(Run({"cat", "disk/a.tzcf", "s"}).out, "old");  // --force replaces only once the new file is whole
}

TEST_F(TzcfTest, AFullDiskStopsUnpackWithOneLineAndRepeatsAreCapped) {
  fs::create_directories(Path("in"));
  for (int i = 0; i < 30; ++i) fs::create_symlink("nowhere", Path("in") / ("link" + std::to_string(i)));
  WriteFile(Path("in/big"), Pattern(600 * 1024, 1));
  for (int i = 0; i < 30; ++i) WriteFile(Path("in") / ("small" + std::to_string(i)), Pattern(30 * 1024, i));
  const Result pack = Run({"pack", "in", "a.tzcf"});
  EXPECT_EQ(pack.code, 1);
  EXPECT_EQ(std::count(pack.err.begin(), pack.err.end(), '\n'), 21) << pack.err;
  EXPECT_NE(pack.err.find("tzcf: 10 more problems like the above not shown (30 in all)\n"), std::string::npos)
      << pack.err;
  if (!MountSmallDisk("disk", 512)) GTEST_SKIP() << "no tmpfs to fill (not root)";
  const Result unpack = Run({"unpack", "a.tzcf", "disk/out"});
  EXPECT_EQ(unpack.code, 2);
  EXPECT_EQ(unpack.err, "tzcf: disk/out/big: No space left on device; unpack stopped\n");
}

TEST_F(TzcfTest, EveryWritingCommandTakesThePassword) {
  MakeFile("a.tzcf", {{"one", "1"}, {"two", "2"}, {"three", "3"}});
  ASSERT_EQ(Run({"encrypt", "a.tzcf"}, "", "TZCF_PASSWORD=pw").code, 0);
  const Result none = Run({"rm", "a.tzcf", "one"});
  EXPECT_EQ(none.code, 2);
  EXPECT_NE(none.err.find("is encrypted"), std::string::npos) << none.err;
  const Result rm = Run({"rm", "a.tzcf", "one"}, "", "TZCF_PASSWORD=pw");
  EXPECT_EQ(rm.code, 0) << rm.err;
  EXPECT_EQ(Run({"put", "a.tzcf", "four"}, "4", "TZCF_PASSWORD=pw").code, 0);
  WriteFile(Path("five"), "5");
  EXPECT_EQ(Run({"add", "a.tzcf", "five"}, "", "TZCF_PASSWORD=pw").code, 0);
  EXPECT_EQ(Run({"ls", "a.tzcf"}).out, "two\nthree\nfour\nfive\n");
  EXPECT_EQ(Run({"cat", "a.tzcf", "two", "five"}, "", "TZCF_PASSWORD=pw").out, "25");
  EXPECT_EQ(Run({"check", "a.tzcf"}, "", "TZCF_PASSWORD=pw").code, 0);
}

TEST_F(TzcfTest, EachFailureToOpenSaysWhy) {
  WriteFile(Path("text"), "root:x:0:0:root:/root:/bin/bash\n");
  WriteFile(Path("random"), Pattern(4096, 7));
  fs::create_directories(Path("folder"));
  MakeFile("a.tzcf", {{"s", "x"}});
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"ls", "text"}, "text: cannot open: not a compound file"},
      {{"ls", "random"}, "random: cannot open: not a compound file"},
      {{"ls", "nofolder/a.tzcf"}, "nofolder/a.tzcf: cannot open: No such file or directory"},
      {{"put", "nofolder/a.tzcf", "s", "text"}, "No such file or directory"},
      {{"ls", "folder"}, "folder: cannot open: Is a directory"},
      {{"check", "nosuch"}, "nosuch: cannot open: No such file or directory"},
      {{"pack", "nosuchdir", "b.tzcf"}, "nosuchdir: cannot pack: No such file or directory"},
      {{"encrypt", "--password-file", "folder", "a.tzcf"}, "password file folder: Is a directory"},
      {{"frobnicate", "a.tzcf"}, "unknown command 'frobnicate'"},
      {{"ls", "--bogus", "a.tzcf"}, "--bogus"},
  };
  for (const auto& c : cases) {
    const Result r = Run(c.first);
    EXPECT_EQ(r.code, 2) << c.second;
    EXPECT_NE(r.err.find(c.second), std::string::npos) << r.err;
  }
  EXPECT_EQ(Run({"-V"}).out, Run({"--version"}).out);
  EXPECT_NE(Run({"help"}).out.find("Usage: tzcf"), std::string::npos);
  EXPECT_NE(Run({"help", "ls"}).out.find("Usage: tzcf ls"), std::string::npos);

  // Another process holds the file.
  const int held = open(Path("a.tzcf").c_str(), O_RDONLY);
  ASSERT_EQ(flock(held, LOCK_EX), 0);
  const Result busy = Run({"ls", "a.tzcf"});
  close(held);
  EXPECT_NE(busy.err.find("a.tzcf: cannot open: in use by another process"), std::string::npos) << busy.err;

  if (!RunAsUnprivileged()) GTEST_SKIP() << "no unprivileged user";
  fs::permissions(Path("a.tzcf"), fs::perms::owner_read | fs::perms::group_read | fs::perms::others_read);
  const Result readOnly = Run({"rm", "a.tzcf", "s"});
  EXPECT_NE(readOnly.err.find("a.tzcf: cannot open: Permission denied"), std::string::npos) << readOnly.err;
  // info and check only read.
  EXPECT_NE(Run({"info", "a.tzcf"}).out.find("blocks in use: 3\n"), std::string::npos);
  EXPECT_EQ(Run({"check", "a.tzcf"}).code, 0);
  fs::permissions(Path("folder"), fs::perms::owner_all | fs::perms::group_read | fs::perms::others_read |
                                      fs::perms::group_exe | fs::perms::others_exe);
  const Result unwritable = Run({"pack", "folder", "folder/b.tzcf"});
  EXPECT_NE(unwritable.err.find("Permission denied"), std::string::npos) << unwritable.err;
}

TEST_F(TzcfTest, EmptyNewPasswordsAreRefused) {
  MakeFile("a.tzcf", {{"s", "x"}});
  EXPECT_EQ(Run({"encrypt", "a.tzcf"}, "", "TZCF_PASSWORD=").err, "tzcf: an empty password is refused\n");
  ASSERT_EQ(Run({"encrypt", "a.tzcf"}, "", "TZCF_PASSWORD=pw").code, 0);
  EXPECT_EQ(Run({"passwd", "a.tzcf"}, "", "TZCF_PASSWORD=pw TZCF_NEW_PASSWORD=").code, 2);
  EXPECT_EQ(Run({"cat", "a.tzcf", "s"}, "", "TZCF_PASSWORD=pw").out, "x");
}

TEST_F(TzcfTest, JsonIsValidForAnyNameAndGivesIsoTimes) {
  MakeFile("a.tzcf", {{"bad\xFFname", "x"}, {"caf\xC3\xA9", "y"}, {"line\nend", "z"}});
  EXPECT_NE(Run({"ls", "-l", "--human", "a.tzcf"}).out.find("       1 B       1  "), std::string::npos);
  EXPECT_NE(Run({"ls", "-l", "a.tzcf"}).out.find("  \"line\\nend\"\n"), std::string::npos);
  const Result json = Run({"ls", "--json", "a.tzcf"});
  ASSERT_EQ(json.code, 0) << json.err;
  EXPECT_NE(json.out.find("\"name\": \"bad\\ufffdname\", \"name_hex\": \"626164ff6e616d65\""), std::string::npos)
      << json.out;
  EXPECT_NE(json.out.find("\"name\": \"caf\xC3\xA9\", \"size\""), std::string::npos) << json.out;
  EXPECT_NE(json.out.find("\"created_iso\": \"20"), std::string::npos) << json.out;
  EXPECT_EQ(json.out.find('\xFF'), std::string::npos);
  const Result info = Run({"info", "--json", "a.tzcf"});
  EXPECT_NE(info.out.find("\"blocks_in_use\": "), std::string::npos) << info.out;
  EXPECT_NE(Run({"check", "--json", "a.tzcf"}).out.find("\"sound\": true"), std::string::npos);
}

TEST_F(TzcfTest, NamesAndPatternsSelectStreams) {
  MakeFile("a.tzcf", {{"doc/a.txt", "a"}, {"doc/b.md", "b"}, {"src/c.txt", "c"}, {"top", "t"}});
  EXPECT_EQ(Run({"ls", "a.tzcf", "*.txt"}).out, "doc/a.txt\nsrc/c.txt\n");
  EXPECT_EQ(Run({"ls", "a.tzcf", "DOC"}).out, "doc/a.txt\ndoc/b.md\n");
  const Result unpack = Run({"unpack", "a.tzcf", "out", "top", "src", "none*"});
  EXPECT_EQ(unpack.code, 1);
  EXPECT_NE(unpack.err.find("no stream matches 'none*'"), std::string::npos) << unpack.err;
  EXPECT_EQ(Entries(Path("out")), (std::vector<std::string>{"src", "top"}));
  EXPECT_EQ(Run({"rm", "a.tzcf", "doc/*"}).code, 0);
  EXPECT_EQ(Run({"ls", "a.tzcf"}).out, "src/c.txt\ntop\n");
  fs::create_directories(Path("add/d"));
  WriteFile(Path("add/d/TOP"), "new");
  const Result add = Run({"add", "a.tzcf", "add/d/TOP"});
  EXPECT_EQ(add.code, 0) << add.err;
  const Result addFolder = Run({"add", "a.tzcf", "add"});
  EXPECT_EQ(addFolder.code, 0) << addFolder.err;
  EXPECT_NE(addFolder.err.find("replacing 'add/d/TOP'"), std::string::npos) << addFolder.err;
  EXPECT_EQ(Run({"ls", "a.tzcf"}).out, "src/c.txt\ntop\nadd/d/TOP\n");
}

}  // namespace

TEST_F(TzcfTest, SalvageSaysWhatWasLostAndExitsByIt) {
  MakeFile("a.tzcf", {{"first", Pattern(2500, 1)}, {"second", Pattern(4000, 2)}});
  const Result whole = Run({"salvage", "a.tzcf", "whole.tzcf"});
  EXPECT_EQ(whole.code, 0) << whole.err;
  EXPECT_EQ(whole.out, "whole.tzcf: 2 streams whole, 0 damaged (0 bytes lost), 0 chains in lost+found\n");
  const Result again = Run({"salvage", "a.tzcf", "whole.tzcf"});
  EXPECT_EQ(again.code, 2);
  EXPECT_NE(again.err.find("exists already"), std::string::npos) << again.err;

  tztest::FileBytes bytes = tztest::ReadAll(Path("a.tzcf").string());
  const std::uint32_t second = tztest::FirstBlockOf(bytes, "second");
  tztest::Put32(bytes, tztest::BlockAt(second) + blockformat::kOffNextBlock, 0);  // cut after one block
  tztest::WriteAll(Path("a.tzcf").string(), bytes);
  const Result cut = Run({"salvage", "a.tzcf", "cut.tzcf"});
  EXPECT_EQ(cut.code, 1) << cut.err;
  ASSERT_LT(second + 1, 10u);  // the rest of its chain follows it
  const std::string found = "lost+found/block-" + std::string(5, '0') + std::to_string(second + 1);
  EXPECT_EQ(cut.out, "damaged 'second': 1003 bytes recovered, 2997 lost: the chain ends after 1 block\n"
                     "found '" + found + "': 2997 bytes from block " + std::to_string(second + 1) +
                     ": no entry reaches its chain of 3 blocks\n"
                     "cut.tzcf: 1 streams whole, 1 damaged (2997 bytes lost), 1 chains in lost+found\n");
  EXPECT_EQ(Run({"cat", "cut.tzcf", "second", found}).out, Pattern(4000, 2));
  EXPECT_EQ(Run({"check", "cut.tzcf"}).code, 0);
  const Result json = Run({"salvage", "--json", "a.tzcf", "json.tzcf"});
  EXPECT_EQ(json.code, 1);
  EXPECT_NE(json.out.find("\"complete\": false"), std::string::npos) << json.out;
  // Nothing but the new files was written.
  EXPECT_EQ(Entries(dir_), (std::vector<std::string>{".stderr", ".stdin", ".stdout", "a.tzcf", "cut.tzcf",
                                                     "json.tzcf", "whole.tzcf"}));
  EXPECT_EQ(Run({"salvage", "missing.tzcf", "m.tzcf"}).code, 2);
  EXPECT_FALSE(fs::exists(Path("m.tzcf")));
}

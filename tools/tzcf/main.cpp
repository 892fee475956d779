// tzcf: a command-line tool for compound files.
//
// Parses the command line and runs one command. Every subcommand answers
// --help. Exit status: 0 done, 1 problems found (a damaged file, names
// refused or skipped), 2 usage errors, missing files, wrong passwords and
// I/O errors. Errors go to stderr as one line each.
#include <cstdio>
#include <exception>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "Commands.h"

namespace {

constexpr char kFooter[] =
    "Exit status: 0 done; 1 problems found, names refused or skipped; 2 usage or I/O error.\n"
    "Passwords come from --password-file, TZCF_PASSWORD, or a prompt on the terminal.";

int Main(int argc, char** argv) {
  CLI::App app{"Packs, lists, reads, writes, checks and compacts compound files.", "tzcf"};
  app.require_subcommand(1);
  app.footer(kFooter);
  app.set_version_flag("--version", std::string("tzcf ") + TZ_VERSION);

  tzcf::Options options;
  std::string file, folder, name, source;
  std::vector<std::string> names;
  bool force = false, details = false, json = false;
  std::function<tzcf::Exit()> run;

  const auto quiet = [&](CLI::App* command) {
    command->add_flag("-q,--quiet", options.quiet, "Show no progress bar and no summary");
  };
  const auto password = [&](CLI::App* command) {
    command->add_option("--password-file", options.passwordFile, "Read the password from the first line of PATH")
        ->type_name("PATH");
  };
  const auto fileArgument = [&](CLI::App* command) {
    command->add_option("FILE", file, "The compound file")->required();
  };

  CLI::App* pack = app.add_subcommand("pack", "Store every regular file under FOLDER as a stream of a new FILE");
  pack->add_option("FOLDER", folder, "The folder to pack")->required();
  fileArgument(pack);
  pack->add_flag("-f,--force", force, "Replace FILE if it exists");
  quiet(pack);
  pack->callback([&] { run = [&] { return tzcf::Pack(folder, file, force, options); }; });

  CLI::App* unpack = app.add_subcommand("unpack", "Write every stream of FILE below FOLDER, and nowhere else");
  fileArgument(unpack);
  unpack->add_option("FOLDER", folder, "The folder to write into (created when missing)")->required();
  quiet(unpack);
  password(unpack);
  unpack->callback([&] { run = [&] { return tzcf::Unpack(file, folder, options); }; });

  CLI::App* ls = app.add_subcommand("ls", "List the streams of FILE");
  fileArgument(ls);
  ls->add_flag("-l", details, "Show size, blocks, created and modified times");
  ls->add_flag("--json", json, "Print a JSON array with every detail, for scripts");
  ls->callback([&] { run = [&] { return tzcf::List(file, details, json); }; });

  CLI::App* cat = app.add_subcommand("cat", "Write stream NAME of FILE to standard output");
  fileArgument(cat);
  cat->add_option("NAME", name, "The stream")->required();
  password(cat);
  cat->callback([&] { run = [&] { return tzcf::Cat(file, name, options); }; });

  CLI::App* put = app.add_subcommand("put", "Store SOURCE (standard input when - or absent) as stream NAME of FILE");
  fileArgument(put);
  put->add_option("NAME", name, "The stream, replaced if it exists")->required();
  put->add_option("SOURCE", source, "The file to store, or - for standard input");
  password(put);
  put->callback([&] { run = [&] { return tzcf::Put(file, name, source, options); }; });

  CLI::App* rm = app.add_subcommand("rm", "Remove streams from FILE");
  fileArgument(rm);
  rm->add_option("NAME", names, "The streams")->required();
  rm->callback([&] { run = [&] { return tzcf::Remove(file, names); }; });

  CLI::App* check = app.add_subcommand("check", "Check FILE without changing it; list every problem found");
  fileArgument(check);
  quiet(check);
  password(check);
  check->callback([&] { run = [&] { return tzcf::Check(file, options); }; });

  CLI::App* info = app.add_subcommand("info", "Show blocks, saved map, reclaimable space and encryption of FILE");
  fileArgument(info);
  quiet(info);
  password(info);
  info->callback([&] { run = [&] { return tzcf::Info(file, options); }; });

  CLI::App* compact = app.add_subcommand("compact", "Rewrite FILE without its unused blocks");
  fileArgument(compact);
  quiet(compact);
  compact->callback([&] { run = [&] { return tzcf::Compact(file, options); }; });

  CLI::App* encrypt = app.add_subcommand("encrypt", "Encrypt the streams of FILE under a new password");
  fileArgument(encrypt);
  password(encrypt);
  encrypt->callback([&] { run = [&] { return tzcf::Encrypt(file, options); }; });

  CLI::App* decrypt = app.add_subcommand("decrypt", "Make an encrypted FILE clear again");
  fileArgument(decrypt);
  password(decrypt);
  decrypt->callback([&] { run = [&] { return tzcf::Decrypt(file, options); }; });

  CLI::App* passwd = app.add_subcommand("passwd", "Change the password of an encrypted FILE");
  fileArgument(passwd);
  password(passwd);
  passwd->add_option("--new-password-file", options.newPasswordFile,
                     "Read the new password from the first line of PATH (else TZCF_NEW_PASSWORD, else a prompt)")
      ->type_name("PATH");
  passwd->callback([&] { run = [&] { return tzcf::ChangePassword(file, options); }; });

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);  // --help, --version
    tzcf::Report(std::string(e.what()) + " (see tzcf --help)");
    return tzcf::kError;
  }
  try {
    return run();
  } catch (const std::exception& e) {
    tzcf::Report(e.what());
    return tzcf::kError;
  }
}

}  // namespace

int main(int argc, char** argv) {
  // Failures of the commands are reported inside; anything else that comes
  // out (no memory left to read the command line or to report a failure,
  // an exception of no standard type) ends the tool with the error status
  // rather than an abort.
  try {
    return Main(argc, argv);
  } catch (...) {
    (void)std::fputs("tzcf: internal error\n", stderr);
    return tzcf::kError;
  }
}

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

constexpr char kDropped[] =
    "A compound file keeps bytes and names only: file modes, owners and times, empty folders and\n"
    "symbolic links are not stored (links are skipped and reported unless --dereference follows them).";

int Main(int argc, char** argv) {
  CLI::App app{"Packs, lists, reads, writes, checks and compacts compound files.", "tzcf"};
  app.require_subcommand(1);
  app.footer(kFooter);
  app.set_version_flag("-V,--version", std::string("tzcf ") + TZ_VERSION);

  tzcf::Options options;
  std::string file, folder, name, source;
  std::vector<std::string> names;
  bool force = false;
  std::function<tzcf::Exit()> run;

  const auto quiet = [&](CLI::App* command) {
    command->add_flag("-q,--quiet", options.quiet, "Show no progress line and no summary");
  };
  const auto password = [&](CLI::App* command) {
    command->add_option("--password-file", options.passwordFile, "Read the password from the first line of PATH")
        ->type_name("PATH");
  };
  const auto json = [&](CLI::App* command, const char* what) { command->add_flag("--json", options.json, what); };
  const auto fileArgument = [&](CLI::App* command) {
    command->add_option("FILE", file, "The compound file")->required();
  };
  const auto dereference = [&](CLI::App* command) {
    command->add_flag("-L,--dereference", options.dereference, "Follow symbolic links and store what they lead to");
  };

  CLI::App* pack = app.add_subcommand("pack", "Store every regular file under FOLDER as a stream of a new FILE");
  pack->add_option("FOLDER", folder, "The folder to pack")->required();
  fileArgument(pack);
  pack->add_flag("-f,--force", force, "Replace FILE if it exists");
  dereference(pack);
  quiet(pack);
  pack->footer(kDropped);
  pack->callback([&] { run = [&] { return tzcf::Pack(folder, file, force, options); }; });

  CLI::App* add = app.add_subcommand("add", "Store files and folders as streams of an existing FILE, new or replacing");
  fileArgument(add);
  add->add_option("PATH", names, "Files and folders; a stream is named by the path as given")->required();
  dereference(add);
  quiet(add);
  password(add);
  add->footer(kDropped);
  add->callback([&] { run = [&] { return tzcf::Add(file, names, options); }; });

  CLI::App* unpack = app.add_subcommand("unpack", "Write the streams of FILE below FOLDER, and nowhere else");
  fileArgument(unpack);
  unpack->add_option("FOLDER", folder, "The folder to write into (created when missing)")->required();
  unpack->add_option("NAME", names, "Only these streams: names, shell patterns or folders");
  quiet(unpack);
  password(unpack);
  unpack->callback([&] { run = [&] { return tzcf::Unpack(file, folder, names, options); }; });

  CLI::App* ls = app.add_subcommand("ls", "List the streams of FILE");
  fileArgument(ls);
  ls->add_option("NAME", names, "Only these streams: names, shell patterns or folders");
  ls->add_flag("-l", options.details, "Show size, blocks, created and modified times");
  ls->add_flag("--human", options.human, "With -l, sizes as 1.5 MiB and the like");
  json(ls, "Print a JSON array with every detail, for scripts");
  ls->callback([&] { run = [&] { return tzcf::List(file, names, options); }; });

  CLI::App* cat = app.add_subcommand("cat", "Write streams of FILE to standard output, one after another");
  fileArgument(cat);
  cat->add_option("NAME", names, "The streams")->required();
  password(cat);
  cat->callback([&] { run = [&] { return tzcf::Cat(file, names, options); }; });

  CLI::App* put = app.add_subcommand("put", "Store SOURCE (standard input when - or absent) as stream NAME of FILE");
  fileArgument(put);
  put->add_option("NAME", name, "The stream, replaced if it exists")->required();
  put->add_option("SOURCE", source, "The file to store, or - for standard input");
  password(put);
  put->callback([&] { run = [&] { return tzcf::Put(file, name, source, options); }; });

  CLI::App* rm = app.add_subcommand("rm", "Remove streams from FILE");
  fileArgument(rm);
  rm->add_option("NAME", names, "The streams: names, shell patterns or folders")->required();
  password(rm);
  rm->callback([&] { run = [&] { return tzcf::Remove(file, names, options); }; });

  CLI::App* check = app.add_subcommand("check", "Check FILE without changing it; list every problem found");
  fileArgument(check);
  quiet(check);
  password(check);
  json(check, "Print the report as a JSON object, for scripts");
  check->callback([&] { run = [&] { return tzcf::Check(file, options); }; });

  CLI::App* info = app.add_subcommand("info", "Show blocks, saved map, reclaimable space and encryption of FILE");
  fileArgument(info);
  quiet(info);
  password(info);
  json(info, "Print a JSON object, for scripts");
  info->callback([&] { run = [&] { return tzcf::Info(file, options); }; });

  CLI::App* compact = app.add_subcommand(
      "compact", "Move the used blocks of FILE into its free ones and cut it short (encrypted files too)");
  fileArgument(compact);
  quiet(compact);
  compact->add_flag("--copy", options.copy,
                    "Rewrite FILE through a copy beside it instead (needs its size free; not for encrypted files)");
  compact->callback([&] { run = [&] { return tzcf::Compact(file, options); }; });

  CLI::App* scrub = app.add_subcommand("scrub", "Overwrite the free blocks of FILE, so that deleted content is gone");
  fileArgument(scrub);
  quiet(scrub);
  scrub->callback([&] { run = [&] { return tzcf::Scrub(file, options); }; });

  CLI::App* encrypt = app.add_subcommand("encrypt", "Encrypt the streams of FILE under a new password");
  fileArgument(encrypt);
  quiet(encrypt);
  password(encrypt);
  encrypt->callback([&] { run = [&] { return tzcf::Encrypt(file, options); }; });

  CLI::App* decrypt = app.add_subcommand("decrypt", "Make an encrypted FILE clear again");
  fileArgument(decrypt);
  quiet(decrypt);
  password(decrypt);
  decrypt->callback([&] { run = [&] { return tzcf::Decrypt(file, options); }; });

  CLI::App* passwd = app.add_subcommand("passwd", "Change the password of an encrypted FILE");
  fileArgument(passwd);
  quiet(passwd);
  password(passwd);
  passwd->add_option("--new-password-file", options.newPasswordFile,
                     "Read the new password from the first line of PATH (else TZCF_NEW_PASSWORD, else a prompt)")
      ->type_name("PATH");
  passwd->callback([&] { run = [&] { return tzcf::ChangePassword(file, options); }; });

  std::string out;
  CLI::App* salvage =
      app.add_subcommand("salvage", "Copy what still reads out of a damaged FILE into a new compound file OUT");
  fileArgument(salvage);
  salvage->add_option("OUT", out, "The new file (must not exist)")->required();
  quiet(salvage);
  password(salvage);
  json(salvage, "Print the report as a JSON object, for scripts");
  salvage->footer("Exit status: 0 every stream whole; 1 something damaged, lost or found without a name; 2 error.");
  salvage->callback([&] { run = [&] { return tzcf::Salvage(file, out, options); }; });

  app.add_subcommand("help", "Show this help, or a command's: tzcf help COMMAND")->allow_extras();

  // What CLI11 would answer with "A subcommand is required": a first word
  // that names no command, and help.
  if (argc > 1 && argv[1][0] != '-') {
    const std::string command = argv[1];
    CLI::App* known = nullptr;
    try {
      known = app.get_subcommand(command);
    } catch (const CLI::OptionNotFound&) {
    }
    if (known == nullptr) {
      tzcf::Report("unknown command " + tzcf::Quote(command) + " (see tzcf --help)");
      return tzcf::kError;
    }
    if (command == "help") {
      if (argc == 2) {
        std::cout << app.help();
        return tzcf::kOk;
      }
      // "tzcf help ls" is "tzcf ls --help".
      char help[] = "--help";
      char* again[] = {argv[0], argv[2], help, nullptr};
      if (std::string(argv[2]) == "help") again[1] = help;
      return Main(3, again);
    }
  }

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);  // --help, --version
    std::string text = e.what();
    if (text.rfind("The following argument", 0) == 0) text = "unknown option or extra argument: " + text;
    if (text.rfind("A subcommand is required", 0) == 0) text = "a command is required";
    tzcf::Report(text + " (see tzcf --help)");
    return tzcf::kError;
  }
  tzcf::Exit exit = tzcf::kError;
  try {
    exit = run();
  } catch (const std::exception& e) {
    tzcf::Report(e.what());
  }
  tzcf::FinishReports();
  return exit;
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

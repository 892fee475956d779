// The tzcf commands, one function each, called by main with their parsed
// arguments. Each returns its exit status (Common.h) and has written every
// error as one line on stderr.
#ifndef TESSELZOSTREAM_TOOLS_TZCF_COMMANDS_H_
#define TESSELZOSTREAM_TOOLS_TZCF_COMMANDS_H_

#include <string>
#include <vector>

#include "Common.h"

namespace tzcf {

// Streams (StreamCommands.cpp).
// A pattern list selects the streams whose name it matches as a shell
// pattern (fnmatch, '*' also matching '/', without regard to ASCII case)
// or that lie below it as a folder; an empty list selects every stream.
Exit Pack(const std::string& folder, const std::string& file, bool force, const Options& options);
Exit Add(const std::string& file, const std::vector<std::string>& paths, const Options& options);
Exit Unpack(const std::string& file, const std::string& folder, const std::vector<std::string>& patterns,
            const Options& options);
// Every stream (what the fuzz target of unpack calls).
inline Exit Unpack(const std::string& file, const std::string& folder, const Options& options) {
  return Unpack(file, folder, {}, options);
}
Exit List(const std::string& file, const std::vector<std::string>& patterns, const Options& options);
Exit Cat(const std::string& file, const std::vector<std::string>& names, const Options& options);
Exit Put(const std::string& file, const std::string& name, const std::string& source, const Options& options);
Exit Remove(const std::string& file, const std::vector<std::string>& patterns, const Options& options);

// The file as a whole (FileCommands.cpp).
Exit Check(const std::string& file, const Options& options);
Exit Info(const std::string& file, const Options& options);
// compact moves blocks in place (MaintenanceCommands.cpp), or, with
// --copy, rewrites the file through the library's SaveAs (CompactByCopy).
Exit Compact(const std::string& file, const Options& options);
Exit CompactByCopy(const std::string& file, const Options& options);
Exit Scrub(const std::string& file, const Options& options);
Exit Encrypt(const std::string& file, const Options& options);
Exit Decrypt(const std::string& file, const Options& options);
Exit ChangePassword(const std::string& file, const Options& options);

// What still reads out of a damaged FILE, into a new file OUT (SalvageCommand.cpp).
Exit Salvage(const std::string& file, const std::string& out, const Options& options);

}  // namespace tzcf

#endif  // TESSELZOSTREAM_TOOLS_TZCF_COMMANDS_H_

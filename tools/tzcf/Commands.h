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
Exit Pack(const std::string& folder, const std::string& file, bool force, const Options& options);
Exit Unpack(const std::string& file, const std::string& folder, const Options& options);
Exit List(const std::string& file, bool details, bool json);
Exit Cat(const std::string& file, const std::string& name, const Options& options);
Exit Put(const std::string& file, const std::string& name, const std::string& source, const Options& options);
Exit Remove(const std::string& file, const std::vector<std::string>& names);

// The file as a whole (FileCommands.cpp).
Exit Check(const std::string& file, const Options& options);
Exit Info(const std::string& file, const Options& options);
Exit Compact(const std::string& file, const Options& options);
Exit Encrypt(const std::string& file, const Options& options);
Exit Decrypt(const std::string& file, const Options& options);
Exit ChangePassword(const std::string& file, const Options& options);

}  // namespace tzcf

#endif  // TESSELZOSTREAM_TOOLS_TZCF_COMMANDS_H_

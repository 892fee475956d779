// Passwords for encrypted compound files, never from the command line
// (where other users could read them in the process list).
//
// A password comes from, in this order: the first line of a file named by an
// option, an environment variable, or a prompt on the terminal with echo
// turned off when standard input is one. A password is at most
// kMaxPasswordLength bytes; a line end ("\n" or "\r\n") is not part of it.
// The terminal's settings are restored after the prompt, also when the
// process is interrupted at it.
//
// Thread safety: the prompt owns the terminal while it runs; call it from
// one thread at a time.
#ifndef TESSELZOSTREAM_TOOLS_TZCF_PASSWORD_H_
#define TESSELZOSTREAM_TOOLS_TZCF_PASSWORD_H_

#include <string>

namespace tzcf {

constexpr std::size_t kMaxPasswordLength = 1024;
constexpr char kPasswordVariable[] = "TZCF_PASSWORD";
constexpr char kNewPasswordVariable[] = "TZCF_NEW_PASSWORD";

// Fills `password` from `file` (when not empty), else from the variable
// `variable` (when set), else from the terminal after `prompt`. With
// `isNew` (a password about to be set) the terminal is asked twice and both
// answers must agree, and an empty password is refused. False with a
// one-line reason in `error` when there is no password to be had.
bool GetPassword(const std::string& file, const char* variable, const std::string& prompt,
                 bool isNew, std::string* password, std::string* error);

}  // namespace tzcf

#endif  // TESSELZOSTREAM_TOOLS_TZCF_PASSWORD_H_

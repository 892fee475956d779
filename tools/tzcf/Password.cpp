#include "Password.h"

#include <signal.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <system_error>

namespace tzcf {

namespace {

// The terminal settings to put back if a signal ends the process at the
// prompt. Only touched by one prompt at a time.
struct termios gSaved;
volatile sig_atomic_t gEchoOff = 0;

// The process is on its way out: a failure here has no one to be told to.
void RestoreAndDie(int signal) {
  if (gEchoOff) (void)tcsetattr(STDIN_FILENO, TCSAFLUSH, &gSaved);
  (void)::signal(signal, SIG_DFL);
  (void)::raise(signal);
}

// Reads one line of at most kMaxPasswordLength bytes from `fd`, dropping the
// line end. The rest of a longer line is read and dropped too, so the bytes
// after it stay for whoever reads next. False at end of input before a line
// end when nothing was read, or for an over-long line.
bool ReadLine(int fd, std::string* line, bool* tooLong) {
  line->clear();
  *tooLong = false;
  bool any = false;
  for (;;) {
    char c;
    const ssize_t n = ::read(fd, &c, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    any = true;
    if (c == '\n') break;
    if (line->size() < kMaxPasswordLength) {
      line->push_back(c);
    } else {
      *tooLong = true;
    }
  }
  if (!line->empty() && line->back() == '\r') line->pop_back();
  return any && !*tooLong;
}

bool Prompt(const std::string& prompt, std::string* answer, std::string* error) {
  struct termios quiet;
  if (tcgetattr(STDIN_FILENO, &gSaved) != 0) {
    *error = "cannot set up the terminal";
    return false;
  }
  quiet = gSaved;
  quiet.c_lflag &= static_cast<tcflag_t>(~(ECHO | ECHONL));
  struct sigaction restore = {}, oldInt = {}, oldTerm = {}, oldHup = {};
  restore.sa_handler = RestoreAndDie;
  sigaction(SIGINT, &restore, &oldInt);
  sigaction(SIGTERM, &restore, &oldTerm);
  sigaction(SIGHUP, &restore, &oldHup);
  gEchoOff = 1;
  // Echo goes off before the prompt shows, so nothing typed in answer to it
  // is echoed or thrown away by the flush.
  tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
  if (::write(STDERR_FILENO, prompt.data(), prompt.size()) < 0) {
    // Nothing to be done about a prompt that cannot be shown; the read below
    // still works.
  }
  bool tooLong = false;
  const bool ok = ReadLine(STDIN_FILENO, answer, &tooLong);
  tcsetattr(STDIN_FILENO, TCSAFLUSH, &gSaved);
  gEchoOff = 0;
  sigaction(SIGINT, &oldInt, nullptr);
  sigaction(SIGTERM, &oldTerm, nullptr);
  sigaction(SIGHUP, &oldHup, nullptr);
  if (::write(STDERR_FILENO, "\n", 1) < 0) {
    // As above.
  }
  if (!ok) *error = tooLong ? "password too long" : "no password given";
  return ok;
}

}  // namespace

namespace {

bool GetAny(const std::string& file, const char* variable, const std::string& prompt, bool confirm,
            std::string* password, std::string* error) {
  if (!file.empty()) {
    // A folder opens as a stream that reads nothing, which would pass for
    // an empty password.
    struct stat info;
    const bool folder = ::stat(file.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
    std::ifstream in;
    if (!folder) in.open(file, std::ios::binary);
    if (!in.is_open()) {
      *error = "cannot read the password file " + file + ": " +
               std::generic_category().message(folder ? EISDIR : errno);
      return false;
    }
    password->clear();
    char c;
    while (in.get(c) && c != '\n') {
      if (password->size() == kMaxPasswordLength) {
        *error = "the password in " + file + " is too long";
        return false;
      }
      password->push_back(c);
    }
    if (!password->empty() && password->back() == '\r') password->pop_back();
    return true;
  }
  if (const char* value = std::getenv(variable)) {
    *password = value;
    if (password->size() > kMaxPasswordLength) {
      *error = std::string("the password in ") + variable + " is too long";
      return false;
    }
    return true;
  }
  if (!::isatty(STDIN_FILENO)) {
    *error = std::string("give the password with a password file, in ") + variable +
             ", or on a terminal";
    return false;
  }
  if (!Prompt(prompt, password, error)) return false;
  if (confirm) {
    std::string again;
    if (!Prompt("Again: ", &again, error)) return false;
    if (again != *password) {
      *error = "the two passwords differ";
      return false;
    }
  }
  return true;
}

}  // namespace

bool GetPassword(const std::string& file, const char* variable, const std::string& prompt,
                 bool isNew, std::string* password, std::string* error) {
  if (!GetAny(file, variable, prompt, isNew, password, error)) return false;
  if (isNew && password->empty()) {
    *error = "an empty password is refused";
    return false;
  }
  return true;
}

}  // namespace tzcf

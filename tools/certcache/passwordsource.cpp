#include "passwordsource.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

#include "base/filedescriptor.h"
#include "secretmemory.h"
#include "toolerror.h"

namespace tavik {
namespace cli {

namespace {

// Far longer than any password a person types or a file holds; a source that
// goes on past this is not a password file.
constexpr std::size_t kMaxPasswordBytes = std::size_t{64} * 1024;

const char kSourceForms[] = "pass:TEXT, env:VAR, file:PATH, fd:N or stdin";

// Reads one line from `fd`, a byte at a time so that nothing after the line is
// consumed (the rest of standard input may still be wanted) and no buffer but
// the line holds the password. `what` names the source in an error message.
SecretString readLine(int fd, const std::string& what) {
  SecretString line;
  for (;;) {
    char byte;
    const ssize_t got = ::read(fd, &byte, 1);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      throw ToolError(kExitNoInput,
                      "cannot read the password from " + what + ": " + std::strerror(errno));
    }
    if (got == 0 || byte == '\n') break;
    if (line.size() == kMaxPasswordBytes) {
      throw ToolError(kExitUsage, "the password from " + what + " is longer than " +
                                      std::to_string(kMaxPasswordBytes) + " bytes");
    }
    line.push_back(byte);
  }
  if (!line.empty() && line.str().back() == '\r') line.pop_back();
  return line;
}

SecretString readFromFile(const std::string& path) {
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  if (!file.isOpen()) {
    throw ToolError(kExitNoInput,
                    "cannot read the password file " + path + ": " + std::strerror(errno));
  }
  return readLine(file.get(), "the file " + path);
}

SecretString readFromDescriptor(const std::string& number) {
  if (number.empty() || number.size() > 9 ||
      number.find_first_not_of("0123456789") != std::string::npos) {
    throw ToolError(kExitUsage, "--passin fd: takes a file descriptor number, as in fd:3");
  }
  return readLine(std::atoi(number.c_str()), "file descriptor " + number);
}

// Switches the terminal's echo off for as long as it lives.
class EchoOff {
 public:
  explicit EchoOff(int fd) : fd_(fd) {
    if (::tcgetattr(fd_, &saved_) != 0) return;
    termios quiet = saved_;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    restore_ = ::tcsetattr(fd_, TCSAFLUSH, &quiet) == 0;
  }
  ~EchoOff() {
    if (restore_) ::tcsetattr(fd_, TCSAFLUSH, &saved_);
  }
  EchoOff(const EchoOff&) = delete;
  EchoOff& operator=(const EchoOff&) = delete;

 private:
  int fd_;
  termios saved_{};
  bool restore_ = false;
};

SecretString ask(const char* prompt) {
  SecretString answer;
  {
    // Echo goes off before the prompt shows: switching it flushes what was
    // typed, and nothing typed after the prompt must be lost.
    EchoOff echoOff(STDIN_FILENO);
    std::fputs(prompt, stderr);
    std::fflush(stderr);
    answer = readLine(STDIN_FILENO, "the terminal");
  }
  std::fputs("\n", stderr);
  return answer;
}

SecretString prompt(bool confirm) {
  if (!::isatty(STDIN_FILENO)) {
    throw ToolError(kExitUsage, std::string("this command needs a password: give --passin (") +
                                    kSourceForms + ")");
  }
  SecretString password = ask("Password: ");
  if (confirm && ask("Password again: ").str() != password.str()) {
    throw ToolError(kExitUsage, "the two passwords entered differ");
  }
  return password;
}

bool startsWith(const std::string& text, const char* prefix, std::string& rest) {
  const std::size_t length = std::strlen(prefix);
  if (text.compare(0, length, prefix) != 0) return false;
  rest = text.substr(length);
  return true;
}

SecretString readFromSource(const std::string& passinSource, bool confirm) {
  std::string rest;
  if (passinSource.empty()) return prompt(confirm);
  if (startsWith(passinSource, "pass:", rest)) return SecretString(std::move(rest));
  if (startsWith(passinSource, "env:", rest)) {
    const char* value = rest.empty() ? nullptr : std::getenv(rest.c_str());
    if (value == nullptr) {
      throw ToolError(kExitNoInput, "the environment variable '" + rest + "' is not set");
    }
    return SecretString(std::string_view(value));
  }
  if (startsWith(passinSource, "file:", rest)) return readFromFile(rest);
  if (startsWith(passinSource, "fd:", rest)) return readFromDescriptor(rest);
  if (passinSource == "stdin") return readLine(STDIN_FILENO, "standard input");
  // The passinSource itself is not repeated: a mistyped "pass:" would put the password
  // on the screen.
  throw ToolError(kExitUsage, std::string("--passin takes ") + kSourceForms);
}

}  // namespace

SecretString readPassword(const std::string& passinSource, bool confirm) {
  // A password comes before every private key the tool opens or makes: the
  // key's numbers get their locked place first.
  startSecureHeap();
  SecretString password = readFromSource(passinSource, confirm);
  if (password.str().find('\0') != std::string::npos) {
    throw ToolError(kExitUsage, "the password holds a NUL byte, which cannot be used");
  }
  return password;
}

}  // namespace cli
}  // namespace tavik

// certcache: the command-line tool over the certificate file cache.
#include <sys/stat.h>

#include <boost/filesystem/exception.hpp>
#include <exception>
#include <iostream>
#include <new>
#include <set>
#include <string>

#include "commandline.h"
#include "commands.h"
#include "log/log.h"
#include "secretmemory.h"
#include "toolerror.h"

namespace {

using tavik::LogMask;

// The library's statements go to stderr from `level` up; "off" silences them.
// Down to info a line is the tool's own, "certcache: LEVEL: MESSAGE"; from
// debug on it carries the time and the source line, for whoever reads code.
void setUpLogging(const std::string& level) {
  if (level == "off") {
    tavik::LogFacility::setUp(false);
    return;
  }
  unsigned levels = LogMask::error;
  if (level != "error") levels |= LogMask::warning;
  if (level == "info" || level == "debug" || level == "trace") levels |= LogMask::info;
  if (level == "debug" || level == "trace") levels |= LogMask::debug;
  if (level == "trace") levels |= LogMask::trace;
  if ((levels & LogMask::debug) != 0u) {
    tavik::LogFacility::setSink(nullptr);
  } else {
    tavik::LogFacility::setSink([](const tavik::LogRecord& record) {
      std::cerr << "certcache: " << tavik::LogFacility::levelName(record.level) << ": "
                << record.message << '\n';
    });
  }
  tavik::LogFacility::setLevels(levels);
  tavik::LogFacility::setUp(true);
}

// Whether the run may read a password, and so open or make a private key. The
// commands named here read one only when --passin or --passout is given;
// every other command, a new one included, may ask for one.
bool mayReadPassword(const tavik::cli::Invocation& invocation) {
  static const std::set<std::string> withoutPassword = {
      "list",     "show",  "files",  "cancel-request", "rename",  "remove",  "recover",
      "expiring", "check", "verify", "watch",          "crl add", "crl list"};
  return !invocation.passin.empty() || !invocation.passout.empty() ||
         withoutPassword.count(invocation.command) == 0;
}

// Scrubs the stack when the command is done, however it ends.
struct StackScrub {
  StackScrub() = default;
  StackScrub(const StackScrub&) = delete;
  StackScrub& operator=(const StackScrub&) = delete;
  ~StackScrub() { tavik::cli::scrubStack(); }
};

int fail(const std::string& command, const char* message, int status) {
  std::cerr << "certcache: " << command << ": " << message << '\n';
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  // Before anything else: a key file must never be readable by others, not
  // even between its creation and the cache's restriction of it.
  ::umask(077);
  // No core, whatever happens from here on.
  tavik::cli::protectProcessMemory();

  tavik::cli::Invocation invocation;
  const int parsed = tavik::cli::parseCommandLine(argc, argv, invocation);
  if (parsed >= 0) return parsed;
  // Before OpenSSL allocates anything: its allocator can be set only then.
  if (mayReadPassword(invocation)) tavik::cli::cleanseOpenSSLMemory();

  try {
    setUpLogging(invocation.logLevel);
    tavik::cli::tellProtection();
    // OpenSSL's dead stack frames may hold what it did not cleanse.
    const StackScrub scrub;
    const int status = tavik::cli::runCommand(invocation, std::cout);
    std::cout.flush();
    if (!std::cout) {
      return fail(invocation.command, "cannot write to standard output", tavik::cli::kExitIoError);
    }
    return status;
  } catch (const tavik::cli::ToolError& error) {
    return fail(invocation.command, error.what(), error.status());
  } catch (const boost::filesystem::filesystem_error& error) {
    return fail(invocation.command, error.what(), tavik::cli::kExitIoError);
  } catch (const std::bad_alloc&) {
    return fail(invocation.command, "out of memory", tavik::cli::kExitIoError);
  } catch (const std::exception& error) {
    return fail(invocation.command, error.what(), tavik::cli::kExitIoError);
  }
}

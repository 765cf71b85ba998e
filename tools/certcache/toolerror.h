// The exit statuses of the certcache tool and the error that carries one.
//
// Every failure of the tool ends in one ToolError: main() prints its message as
// the one line of the tool's own on standard error and exits with its status.
// Messages are written in words for people and never hold a password.
#ifndef TAVIK_TOOLS_CERTCACHE_TOOLERROR_H_
#define TAVIK_TOOLS_CERTCACHE_TOOLERROR_H_

#include <stdexcept>
#include <string>

namespace tavik {
namespace cli {

// Exit statuses besides the cache's own result codes (1 to 13).
enum ExitStatus : int {
  kExitOk = 0,
  kExitDue = 20,          // `expiring` or `check` found something
  kExitLookupBase = 100,  // 100 to 104: the lookup codes 1000100 to 1000104
  kExitUsage = 64,        // the command line, a base name, an address or a password was not usable
  kExitDataError = 65,    // the input is not what the command needs
  kExitNoInput = 66,      // an input file, password source, store root or location is missing
  kExitIoError = 74,      // the environment failed: the store root, the file system, output
  kExitBusy = 75,         // another run held the store lock for longer than the tool waits
};

class ToolError : public std::runtime_error {
 public:
  ToolError(int status, const std::string& message)
      : std::runtime_error(message), status_(status) {}
  int status() const { return status_; }

 private:
  int status_;
};

}  // namespace cli
}  // namespace tavik

#endif  // TAVIK_TOOLS_CERTCACHE_TOOLERROR_H_

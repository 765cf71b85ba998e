// Getting a password the way the openssl tool's -passin takes one, or by
// asking the person at the terminal.
//
// The password is returned to the caller and goes nowhere else: it is never
// printed, logged, or put into an error message. It is read into a
// SecretString, which cleanses it when it goes; what the system keeps of it
// stays: the command line (pass:), the environment (env:).
#ifndef TAVIK_TOOLS_CERTCACHE_PASSWORDSOURCE_H_
#define TAVIK_TOOLS_CERTCACHE_PASSWORDSOURCE_H_

#include <string>

#include "base/secretstring.h"

namespace tavik {
namespace cli {

// Reads the password that `passinSource` names:
//   pass:TEXT  the text itself
//   env:VAR    the value of environment variable VAR
//   file:PATH  the first line of the file
//   fd:N       the first line read from file descriptor N
//   stdin      the first line of standard input
// A line ends at "\n" (a "\r" before it is dropped too). With an empty `passinSource`,
// the person at the terminal is asked, without echo, and asked twice when
// `confirm` is set (for commands that create a key); when standard input is no
// terminal that is a usage error.
//
// Throws ToolError: 64 for a passinSource of no known form, a missing password, a
// password holding a NUL byte or two entries that differ; 66 for a source that
// cannot be read.
SecretString readPassword(const std::string& passinSource, bool confirm);

}  // namespace cli
}  // namespace tavik

#endif  // TAVIK_TOOLS_CERTCACHE_PASSWORDSOURCE_H_

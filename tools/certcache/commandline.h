// The tool's command line: global options, one command, and the command's
// own options and arguments, parsed with CLI11.
#ifndef TAVIK_TOOLS_CERTCACHE_COMMANDLINE_H_
#define TAVIK_TOOLS_CERTCACHE_COMMANDLINE_H_

#include <string>
#include <vector>

#include "crypto/credentialprofile.h"
#include "storesession.h"

namespace tavik {
namespace cli {

// Everything one run of the tool was asked to do.
struct Invocation {
  // Global options.
  StoreOptions store;
  std::string passin;   // the --passin source; empty when none was given
  std::string passout;  // the --passout source, for export and import; empty: as --passin
  std::string logLevel = "error";  // after -v: off, error, warning, info, debug or trace
  int verbosity = 0;               // -v given this many times
  bool json = false;

  std::string command;  // list, show, files, self-signed, ...

  // The commands' options and arguments; each command reads its own.
  bool longList = false;
  bool pendingList = false;  // list --pending
  std::string id;            // show, renew, remove, install --id
  std::string baseName;      // files, rename
  std::string newBaseName;   // rename
  std::string email;
  std::string subject;
  std::string outFile;     // request --out, renew --out, export --out
  std::string inputFile;   // install FILE (empty: standard input), import FILE
  std::vector<std::string> inputFiles;  // crl add FILE...
  std::string caFile;      // verify --ca; empty: the store's own authorities
  std::string keyOutFile;  // export --pem --key-out
  bool chain = false;      // show --chain
  bool noChain = false;    // export --no-chain
  bool pemExport = false;  // export --pem
  bool overwrite = false;
  bool noTempKey = false;
  bool legacyPkcs12 = false;     // export --legacy
  bool legacyKey = false;        // --key legacy: the cache's members without a profile make them
  CredentialProfile credential;  // self-signed, request, renew, import: --key, self-signed --days
  int days = 30;
  bool initial = false;     // watch --initial
  long timeoutSeconds = 0;  // watch --timeout; 0: until a signal

  std::string crlCheck = "all";  // verify --crl-check: all, leaf or off
  bool requireCrl = false;       // verify --require-crl
};

// Parses the command line into `invocation`; options may stand before or after
// the command. Returns -1 when the command is to run; otherwise the status to
// exit with: 0 after printing help or the version, 64 after a usage error,
// whose one line it has printed on standard error.
int parseCommandLine(int argc, char** argv, Invocation& invocation);

}  // namespace cli
}  // namespace tavik

#endif  // TAVIK_TOOLS_CERTCACHE_COMMANDLINE_H_

// The fixture of the tool's tests: a fresh temporary directory holding the
// store, an authority made with the openssl command-line tool, and short ways
// to run the tool against that store.
#ifndef TAVIK_TESTS_TOOL_TOOLFIXTURE_H_
#define TAVIK_TESTS_TOOL_TOOLFIXTURE_H_

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/testsupport.h"
#include "tool/toolrunner.h"

namespace tavik {
namespace test {

class ToolTest : public ::testing::Test {
 protected:
  std::string store() const { return dir_ / "store"; }
  std::string userDir() const { return dir_ / "store/user"; }
  std::string path(const std::string& name) const { return dir_ / name; }

  // The tool on this test's store, with the library's log at its default level.
  ToolResult tool(std::vector<std::string> args, const std::string& input = "") const;
  // The same with the library's log off, so that standard error holds only the
  // tool's own lines.
  ToolResult quiet(std::vector<std::string> args, const std::string& input = "") const;

  // A self-signed pair for `email`, made by the tool under password "pw".
  void makeSelfSigned(const std::string& email) const;
  // An authority (ca.crt, ca.key) made by the openssl tool, once per test.
  void makeAuthority() const;
  // Signs the request file `csr` with the authority for `days`; the certificate's path.
  std::string signRequest(const std::string& csr, int days) const;

  // The regular files below the store's root, relative to it, sorted; none
  // when the root is missing.
  std::vector<std::string> storeFiles() const;
  // Every entry below the test's directory, to see that a command changed nothing.
  std::vector<std::string> tree() const { return listTree(dir_.path()); }

  static nlohmann::json parse(const std::string& text) { return nlohmann::json::parse(text); }

  TempDir dir_;
};

}  // namespace test
}  // namespace tavik

#endif  // TAVIK_TESTS_TOOL_TOOLFIXTURE_H_

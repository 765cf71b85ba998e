#include "tool/toolfixture.h"

#include <boost/filesystem/operations.hpp>

namespace tavik {
namespace test {

ToolResult ToolTest::tool(std::vector<std::string> args, const std::string& input) const {
  args.insert(args.begin(), {"--store", store()});
  return runTool(args, input);
}

ToolResult ToolTest::quiet(std::vector<std::string> args, const std::string& input) const {
  args.insert(args.begin(), {"--log", "off"});
  return tool(args, input);
}

void ToolTest::makeSelfSigned(const std::string& email) const {
  const ToolResult made = tool({"--passin", "pass:pw", "self-signed", "--email", email});
  ASSERT_EQ(made.status, 0) << made.err;
}

void ToolTest::makeAuthority() const {
  const std::string command = "openssl req -x509 -newkey rsa:2048 -nodes -keyout '" +
                              path("ca.key") + "' -out '" + path("ca.crt") +
                              "' -subj '/CN=Test Authority' -days 30 2>&1";
  std::string output;
  ASSERT_EQ(runCommand(command, &output), 0) << output;
}

std::string ToolTest::signRequest(const std::string& csr, int days) const {
  std::string cert = csr + ".crt";
  const std::string command = "openssl x509 -req -in '" + csr + "' -CA '" + path("ca.crt") +
                              "' -CAkey '" + path("ca.key") + "' -CAcreateserial -days " +
                              std::to_string(days) + " -out '" + cert + "' 2>&1";
  std::string output;
  EXPECT_EQ(runCommand(command, &output), 0) << output;
  return cert;
}

std::vector<std::string> ToolTest::storeFiles() const {
  std::vector<std::string> files;
  if (!boost::filesystem::is_directory(store())) return files;
  for (const std::string& entry : listTree(store())) {
    if (boost::filesystem::is_regular_file(store() + "/" + entry)) files.push_back(entry);
  }
  return files;
}

}  // namespace test
}  // namespace tavik

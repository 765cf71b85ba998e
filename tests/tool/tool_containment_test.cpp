// The certcache tool given hostile names in every argument that names files:
// nothing outside the store's cache directory may change, whatever the
// command and whatever its outcome, and every failure is an exit status with
// a line of the tool's own, never a crash. (Arguments cannot hold NUL; the
// library's own containment test covers that.)
#include <boost/filesystem.hpp>
#include <map>

#include "tool/toolfixture.h"

namespace tavik {
namespace test {
namespace {

namespace fs = boost::filesystem;

std::vector<std::string> hostileNames() {
  return {"..",
          ".",
          "../x",
          "../../outside/victim",
          "/etc/passwd",
          "a/b",
          "../user/evil",
          "\x01\x1b[31m\r\n\t",
          ".hidden",
          "%2E%2E%2Fx",
          "user",
          std::string(300, 'a'),
          std::string(150, 'b') + "@" + std::string(150, 'c'),
          std::string(100, '/')};
}

// Everything below a directory: relative path to kind, mode and content.
std::map<std::string, std::string> snapshot(const std::string& dir) {
  std::map<std::string, std::string> tree;
  for (fs::recursive_directory_iterator it(dir), end; it != end; ++it) {
    const fs::file_status status = it->symlink_status();
    std::string description = std::to_string(static_cast<int>(status.permissions())) + " ";
    description += fs::is_regular_file(status) ? "file " + readFile(it->path().string()) : "other";
    tree[fs::relative(it->path(), dir).string()] = description;
  }
  return tree;
}

class ToolContainmentTest : public ToolTest {
 protected:
  void SetUp() override {
    makeDirectories(path("outside"));
    writeFile(path("outside/victim"), "victim");
    makeDirectories(store() + "/ca");
    writeFile(store() + "/ca/passwd", "another cache directory");
    writeFile(store() + "/x.crt", "in the root");
    makeSelfSigned("existing@example.org");
    writeFile(path("cert.pem"), userCertPem("installed@example.org"));
  }

  // The tree outside the store's cache directory is as it was; the cache
  // directory holds only plain names directly in it.
  void expectContained(const std::map<std::string, std::string>& before, const std::string& what) {
    const std::string prefix = "store/user/";
    std::map<std::string, std::string> outsideBefore;
    std::map<std::string, std::string> outsideAfter;
    for (const auto& entry : before) {
      if (entry.first.rfind(prefix, 0) != 0) outsideBefore.insert(entry);
    }
    for (const auto& entry : snapshot(dir_.path())) {
      if (entry.first.rfind(prefix, 0) != 0) {
        outsideAfter.insert(entry);
        continue;
      }
      const std::string name = entry.first.substr(prefix.size());
      EXPECT_EQ(name.find('/'), std::string::npos) << what << " made " << name;
      EXPECT_NE(name[0], '.') << what << " made a hidden file " << name;
    }
    EXPECT_EQ(outsideAfter, outsideBefore) << what << " changed something outside";
  }

  void run(const std::vector<std::string>& args, const std::string& what) {
    const auto before = snapshot(dir_.path());
    const ToolResult result = quiet(args);
    const int status = result.status;
    EXPECT_TRUE((status >= 0 && status <= 13) || status == 64 || status == 66 || status == 74 ||
                (status >= 100 && status <= 104))
        << what << " exited " << status << ": " << result.err;
    if (status != 0) {
      EXPECT_FALSE(result.errLines().empty()) << what << " failed without a word";
    }
    expectContained(before, what);
  }
};

TEST_F(ToolContainmentTest, EveryCommandStaysInTheCacheDirectory) {
  for (const std::string& name : hostileNames()) {
    const std::string shown = ::testing::PrintToString(name);
    run({"--passin", "pass:pw", "self-signed", "--email", name, "--overwrite"},
        "self-signed --email " + shown);
    run({"--passin", "pass:pw", "self-signed", "--email", "a@example.org", "--subject", name},
        "self-signed --subject " + shown);
    run({"--passin", "pass:pw", "request", "--email", name}, "request --email " + shown);
    run({"--passin", "pass:pw", "request", "--email", "a@example.org", "--subject", name,
         "--no-temp-key", "--overwrite"},
        "request --subject " + shown);
    run({"cancel-request", "--email", name}, "cancel-request --email " + shown);
    run({"cancel-request", "--email", "a@example.org", "--subject", name},
        "cancel-request --subject " + shown);
    run({"install", "--id", name, "--overwrite", path("cert.pem")}, "install --id " + shown);
    run({"--no-keys", "install", "--id", name, path("cert.pem")},
        "install --no-keys --id " + shown);
    run({"rename", "existing_at_example.org", name}, "rename to " + shown);
    run({"rename", name, "elsewhere"}, "rename from " + shown);
    run({"files", name}, "files " + shown);
    run({"--passin", "pass:pw", "show", name}, "show " + shown);
    run({"remove", name}, "remove " + shown);
  }
}

}  // namespace
}  // namespace test
}  // namespace tavik

// The certcache tool's commands, run as a user would against temporary stores:
// what they print, what they leave on disk, and their exit statuses.
#include <sys/stat.h>

#include <algorithm>

#include "tool/toolfixture.h"

namespace tavik {
namespace test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

mode_t permissions(const std::string& path) {
  struct stat info {};
  EXPECT_EQ(::stat(path.c_str(), &info), 0) << path;
  return info.st_mode & 0777;
}

// The fingerprint as the openssl tool computes it, lower-case without colons.
std::string opensslSha256(const std::string& certFile) {
  std::string output;
  EXPECT_EQ(runCommand("openssl x509 -noout -fingerprint -sha256 -in '" + certFile + "'", &output),
            0);
  std::string hex = output.substr(output.find('=') + 1);
  hex.erase(std::remove_if(hex.begin(), hex.end(), [](char c) { return c == ':' || c == '\n'; }),
            hex.end());
  std::transform(hex.begin(), hex.end(), hex.begin(), ::tolower);
  return hex;
}

TEST_F(ToolTest, SelfSignedPairIsListedShownAndFound) {
  makeSelfSigned("alice@example.org");
  makeSelfSigned("bob@example.org");

  ToolResult list = tool({"list"});
  EXPECT_EQ(list.status, 0);
  EXPECT_EQ(list.out, "alice@example.org\nbob@example.org\n");
  list = tool({"list", "--long"});
  EXPECT_EQ(list.out,
            "alice@example.org\talice_at_example.org\nbob@example.org\tbob_at_example.org\n");
  EXPECT_EQ(parse(tool({"--json", "list"}).out),
            nlohmann::json::parse(R"(["alice@example.org", "bob@example.org"])"));
  EXPECT_EQ(
      parse(tool({"--json", "list", "--long"}).out)[1],
      nlohmann::json::parse(R"({"id": "bob@example.org", "base_name": "bob_at_example.org"})"));

  const ToolResult files = tool({"files", "alice_at_example.org"});
  EXPECT_EQ(files.status, 0);
  EXPECT_EQ(files.out, "certificate: " + userDir() + "/alice_at_example.org.crt\nkey: " +
                           userDir() + "/alice_at_example.org.key\n");
  const nlohmann::json filesJson = parse(tool({"--json", "files", "alice_at_example.org"}).out);
  EXPECT_EQ(filesJson["certificate"], userDir() + "/alice_at_example.org.crt");
  EXPECT_EQ(filesJson["key"], userDir() + "/alice_at_example.org.key");

  const ToolResult show = tool({"show", "alice@example.org"});
  EXPECT_EQ(show.status, 0);
  EXPECT_THAT(show.out, HasSubstr("subject: CN=alice@example.org\n"));
  EXPECT_THAT(show.out, HasSubstr("not_after: 2037-01-01T00:00:00Z\n"));
  EXPECT_THAT(show.out, HasSubstr("has_key: false\n"));

  const nlohmann::json shown = parse(tool({"--json", "show", "alice@example.org"}).out);
  EXPECT_EQ(shown["id"], "alice@example.org");
  EXPECT_EQ(shown["base_name"], "alice_at_example.org");
  EXPECT_EQ(shown["subject"], "CN=alice@example.org");
  EXPECT_EQ(shown["issuer"], "CN=alice@example.org");
  EXPECT_EQ(shown["serial"], "01");
  EXPECT_EQ(shown["not_before"], "2010-01-01T00:00:00Z");
  EXPECT_EQ(shown["not_after"], "2037-01-01T00:00:00Z");
  EXPECT_EQ(shown["expired"], false);
  EXPECT_EQ(shown["not_yet_valid"], false);
  EXPECT_EQ(shown["has_key"], false);
  EXPECT_EQ(shown["sha256"], opensslSha256(userDir() + "/alice_at_example.org.crt"));

  const ToolResult withKey = tool({"--json", "--passin", "pass:pw", "show", "alice@example.org"});
  EXPECT_EQ(withKey.status, 0) << withKey.err;
  EXPECT_EQ(parse(withKey.out)["has_key"], true);
}

TEST_F(ToolTest, KeysAndDirectoriesAreOwnerOnlyWhateverTheCallersUmask) {
  const mode_t previous = ::umask(0);
  makeSelfSigned("alice@example.org");
  ::umask(previous);
  EXPECT_EQ(permissions(store()), 0700u);
  EXPECT_EQ(permissions(userDir()), 0700u);
  EXPECT_EQ(permissions(userDir() + "/alice_at_example.org.key"), 0600u);
  EXPECT_EQ(permissions(userDir() + "/alice_at_example.org.crt") & 077, 0u);
}

TEST_F(ToolTest, ShowWithPasswordFailsAsTheLookupDoes) {
  makeSelfSigned("alice@example.org");
  const ToolResult wrong = quiet({"--passin", "pass:nope", "show", "alice@example.org"});
  EXPECT_EQ(wrong.status, 103);
  EXPECT_THAT(wrong.errLines(), ElementsAre(HasSubstr("cannot be read with this password")));
  EXPECT_EQ(wrong.out, "");

  EXPECT_EQ(quiet({"--passin", "pass:pw", "show", "nobody@example.org"}).status, 100);
  EXPECT_EQ(quiet({"show", "nobody@example.org"}).status, 100);

  // A second location holds the certificate without its key; it is searched
  // after the root, whose key does not open with the wrong password.
  const std::string other = path("other");
  makeDirectories(other + "/user");
  writeFile(other + "/user/alice_at_example.org.crt",
            readFile(userDir() + "/alice_at_example.org.crt"));
  const ToolResult missing = quiet({"--location", store(), "--location", other, "--passin",
                                    "pass:nope", "show", "alice@example.org"});
  EXPECT_EQ(missing.status, 104);
  EXPECT_THAT(missing.errLines(),
              ElementsAre(HasSubstr("key file of 'alice@example.org' is missing")));
}

TEST_F(ToolTest, RequestSignedByAnAuthorityIsInstalledWithItsKey) {
  makeAuthority();
  const ToolResult request = tool(
      {"--passin", "pass:pw", "request", "--email", "bob@example.org", "--out", path("bob.csr")});
  ASSERT_EQ(request.status, 0) << request.err;
  EXPECT_THAT(storeFiles(), ElementsAre("user/bob_at_example.org.tpk"));
  std::string verified;
  EXPECT_EQ(runCommand("openssl req -verify -noout -in '" + path("bob.csr") + "' 2>&1", &verified),
            0)
      << verified;

  const std::string cert = signRequest(path("bob.csr"), 10);
  const ToolResult install = tool({"install"}, readFile(cert));
  EXPECT_EQ(install.status, 0) << install.err;
  EXPECT_THAT(storeFiles(),
              ElementsAre("user/bob_at_example.org.crt", "user/bob_at_example.org.key"));

  const ToolResult shown = tool({"--json", "--passin", "pass:pw", "show", "bob@example.org"});
  ASSERT_EQ(shown.status, 0) << shown.err;
  const nlohmann::json record = parse(shown.out);
  EXPECT_EQ(record["issuer"], "CN=Test Authority");
  EXPECT_EQ(record["subject"], "emailAddress=bob@example.org");
  EXPECT_EQ(record["has_key"], true);

  // The same certificate again, from a file: the existing one is kept unless asked.
  EXPECT_EQ(quiet({"install", cert}).status, 2);
}

TEST_F(ToolTest, RequestOnStandardOutputAndWithoutTemporaryKey) {
  makeAuthority();
  const ToolResult request =
      tool({"--passin", "pass:pw", "request", "--email", "carol@example.org", "--no-temp-key"});
  ASSERT_EQ(request.status, 0) << request.err;
  EXPECT_THAT(request.out, HasSubstr("-----BEGIN CERTIFICATE REQUEST-----"));
  EXPECT_THAT(storeFiles(), ElementsAre("user/carol_at_example.org.key"));

  // No pending key to promote: the cache refuses and keeps no certificate file.
  writeFile(path("carol.csr"), request.out);
  const ToolResult install = quiet({"install", signRequest(path("carol.csr"), 10)});
  EXPECT_EQ(install.status, 10);
  EXPECT_THAT(storeFiles(), ElementsAre("user/carol_at_example.org.key"));

  // A second request for the address finds the key and stops.
  EXPECT_EQ(quiet({"--passin", "pass:pw", "request", "--email", "carol@example.org"}).status, 2);
}

TEST_F(ToolTest, RequestWithSubjectIsInstalledUnderThatName) {
  makeAuthority();
  ASSERT_EQ(tool({"--passin", "pass:pw", "request", "--email", "erin@example.org", "--subject",
                  "laptop", "--out", path("erin.csr")})
                .status,
            0);
  const std::string cert = signRequest(path("erin.csr"), 10);
  // Named after the certificate's identifier, the pending key is not found.
  EXPECT_EQ(quiet({"install", cert}).status, 10);
  EXPECT_EQ(tool({"install", "--id", "laptop", cert}).status, 0);
  EXPECT_THAT(storeFiles(), ElementsAre("user/laptop.crt", "user/laptop.key"));
  EXPECT_EQ(tool({"list", "--long"}).out, "erin@example.org\tlaptop\n");
}

TEST_F(ToolTest, FailedRequestLeavesNoOutputFile) {
  const ToolResult request = quiet({"--no-keys", "--passin", "pass:pw", "request", "--email",
                                    "dave@example.org", "--out", path("dave.csr")});
  EXPECT_EQ(request.status, 9);
  EXPECT_FALSE(fileExists(path("dave.csr")));
}

TEST_F(ToolTest, AbandonedRequestIsCancelled) {
  ASSERT_EQ(
      tool({"--passin", "pass:pw", "request", "--email", "erin@example.org", "--subject", "laptop"})
          .status,
      0);
  EXPECT_THAT(storeFiles(), ElementsAre("user/laptop.tpk"));
  EXPECT_EQ(tool({"cancel-request", "--email", "erin@example.org", "--subject", "laptop"}).status,
            0);
  EXPECT_TRUE(storeFiles().empty());
  const ToolResult again =
      quiet({"cancel-request", "--email", "erin@example.org", "--subject", "laptop"});
  EXPECT_EQ(again.status, 11);
  EXPECT_EQ(again.errLines().size(), 1u);
}

TEST_F(ToolTest, RenameAndRemove) {
  makeSelfSigned("alice@example.org");
  EXPECT_EQ(tool({"rename", "alice_at_example.org", "alice-2026"}).status, 0);
  EXPECT_THAT(storeFiles(), ElementsAre("user/alice-2026.crt", "user/alice-2026.key"));
  EXPECT_EQ(tool({"list", "--long"}).out, "alice@example.org\talice-2026\n");
  EXPECT_EQ(quiet({"rename", "alice_at_example.org", "other"}).status, 1);
  EXPECT_EQ(quiet({"files", "alice_at_example.org"}).status, 6);

  EXPECT_EQ(tool({"remove", "alice@example.org"}).status, 0);
  EXPECT_TRUE(storeFiles().empty());
  const ToolResult again = quiet({"remove", "alice@example.org"});
  EXPECT_EQ(again.status, 4);
  EXPECT_THAT(again.errLines(), ElementsAre(HasSubstr("no certificate has that identifier")));
}

TEST_F(ToolTest, ExpiringReportsExpiredAndDueCertificates) {
  makeSelfSigned("long@example.org");  // valid until 2037
  writeUserPair(userDir(), "old", "old@example.org", "pw");
  {
    CertOptions expired;
    expired.email = "old@example.org";
    expired.validDays = -3;
    writeFile(userDir() + "/old.crt", toPem(makeCertificate(expired).get()));
  }
  makeAuthority();
  ASSERT_EQ(tool({"--passin", "pass:pw", "request", "--email", "soon@example.org", "--out",
                  path("soon.csr")})
                .status,
            0);
  ASSERT_EQ(tool({"install", signRequest(path("soon.csr"), 10)}).status, 0);

  const ToolResult month = tool({"expiring"});
  EXPECT_EQ(month.status, 20);
  const std::vector<std::string> lines = [&] {
    std::vector<std::string> result;
    std::istringstream stream(month.out);
    for (std::string line; std::getline(stream, line);) result.push_back(line);
    return result;
  }();
  EXPECT_THAT(lines, ElementsAre(::testing::MatchesRegex("old@example.org\t[-0-9T:]+Z\texpired"),
                                 ::testing::MatchesRegex("soon@example.org\t[-0-9T:]+Z\tdue")));

  const nlohmann::json json = parse(tool({"--json", "expiring", "--days", "5"}).out);
  ASSERT_EQ(json.size(), 1u);
  EXPECT_EQ(json[0]["id"], "old@example.org");
  EXPECT_EQ(json[0]["expired"], true);

  const ToolResult decade = tool({"--json", "expiring", "--days", "36500"});
  EXPECT_EQ(parse(decade.out).size(), 3u);

  // A certificate outside the root cannot be read alone; the others are still told.
  const std::string other = path("other");
  writeUserPair(other + "/user", "far_at_example.org", "far@example.org", "pw");
  const ToolResult partial =
      quiet({"--location", store(), "--location", other, "expiring", "--days", "5"});
  EXPECT_EQ(partial.status, 6);  // the root holds no key file of that name
  EXPECT_THAT(partial.out, HasSubstr("old@example.org\t"));
  EXPECT_THAT(partial.errLines(), ElementsAre(HasSubstr("'far@example.org'")));
}

TEST_F(ToolTest, CacheWithoutKeysListsBaseNamesAndRefusesRequests) {
  writeUserPair(userDir(), "cam.front", "cam@example.org", "pw");
  EXPECT_EQ(tool({"--no-keys", "list"}).out, "cam.front\n");
  EXPECT_EQ(tool({"--no-keys", "files", "cam.front"}).out,
            "certificate: " + userDir() + "/cam.front.crt\n");
  EXPECT_TRUE(parse(tool({"--no-keys", "--json", "files", "cam.front"}).out)["key"].is_null());
  EXPECT_EQ(parse(tool({"--no-keys", "--json", "show", "cam.front"}).out)["has_key"], false);
  EXPECT_EQ(
      quiet({"--no-keys", "--passin", "pass:pw", "request", "--email", "x@example.org"}).status, 9);
}

TEST_F(ToolTest, AuthoritiesLiveInTheirOwnSubdirectory) {
  makeAuthority();
  ASSERT_EQ(tool({"--kind", "ca", "--no-keys", "install", path("ca.crt")}).status, 0);
  EXPECT_THAT(storeFiles(), ElementsAre("ca/Test%20Authority.crt"));
  EXPECT_EQ(tool({"--kind", "ca", "--no-keys", "list"}).out, "Test%20Authority\n");
  EXPECT_EQ(tool({"list"}).out, "");
}

TEST_F(ToolTest, LocationsAreSearchedButTheRootIsWritten) {
  makeSelfSigned("alice@example.org");
  const std::string other = path("other");
  writeUserPair(other + "/user", "zed_at_example.org", "zed@example.org", "pw");
  const ToolResult list = tool({"--location", other, "--location", store(), "list"});
  EXPECT_EQ(list.out, "alice@example.org\nzed@example.org\n");
  const ToolResult shown = tool({"--location", other, "--location", store(), "--passin", "pass:pw",
                                 "--json", "show", "zed@example.org"});
  EXPECT_EQ(shown.status, 0) << shown.err;
}

TEST_F(ToolTest, LogLevelChoosesTheLibrarysStatements) {
  makeSelfSigned("alice@example.org");
  const ToolResult info = tool({"--log", "debug", "list"});
  EXPECT_EQ(info.status, 0);
  EXPECT_THAT(info.err, HasSubstr(" info src/crypto/certificatefilecache.cpp:"));
  EXPECT_THAT(tool({"list"}).err, Not(HasSubstr(" info ")));
  const ToolResult off =
      tool({"--log", "off", "--passin", "pass:wrong", "show", "alice@example.org"});
  EXPECT_EQ(off.errLines().size(), 1u) << off.err;
  const ToolResult warning = tool({"--passin", "pass:wrong", "show", "alice@example.org"});
  EXPECT_THAT(warning.err, HasSubstr(" warning "));
}

TEST_F(ToolTest, HelpExplainsEveryCommandWithExamples) {
  const ToolResult help = runTool({"--help"});
  EXPECT_EQ(help.status, 0);
  for (const char* command : {"list", "show", "files", "self-signed", "request", "cancel-request",
                              "install", "rename", "remove", "expiring", "--passin", "--store"}) {
    EXPECT_THAT(help.out, HasSubstr(command));
  }
  const ToolResult requestHelp = runTool({"request", "--help"});
  EXPECT_EQ(requestHelp.status, 0);
  EXPECT_THAT(requestHelp.out, HasSubstr("--no-temp-key"));
  EXPECT_THAT(requestHelp.out, HasSubstr("e.g. --out"));
}

TEST_F(ToolTest, DefaultStoreComesFromTheEnvironment) {
  ToolRun run;
  run.args = {"--passin", "pass:pw", "self-signed", "--email", "a@example.org"};
  run.env["CERTCACHE_STORE"] = store();
  ASSERT_EQ(runTool(run).status, 0);
  EXPECT_THAT(storeFiles(), ElementsAre("user/a_at_example.org.crt", "user/a_at_example.org.key"));

  run.args = {"list"};
  run.env.clear();
  run.env["XDG_DATA_HOME"] = path("data");
  makeDirectories(path("data/certcache/user"));
  writeUserPair(path("data/certcache/user"), "b_at_example.org", "b@example.org", "pw");
  EXPECT_EQ(runTool(run).out, "b@example.org\n");
}

TEST_F(ToolTest, OutputThatCannotBeWrittenIsAFailure) {
  makeSelfSigned("alice@example.org");
  ToolRun run;
  run.args = {"--store", store(), "list"};
  run.stdoutPath = "/dev/full";
  const ToolResult full = runTool(run);
  EXPECT_EQ(full.status, 74);
  EXPECT_THAT(full.errLines(), ElementsAre(HasSubstr("cannot write to standard output")));
}

}  // namespace
}  // namespace test
}  // namespace tavik

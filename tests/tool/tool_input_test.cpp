// What the certcache tool does with what people type: password sources and
// prompts, and bad input, which must give its exit status, one line of the
// tool's own on standard error, and no change on disk.
#include "tool/toolfixture.h"

namespace tavik {
namespace test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

const char kPassword[] = "Sesame-4711";

// The key of alice@example.org opens with `password`.
void expectKeyOpensWith(const std::string& keyFile, const std::string& password) {
  std::string output;
  EXPECT_EQ(
      runCommand("openssl pkey -noout -in '" + keyFile + "' -passin pass:'" + password + "' 2>&1",
                 &output),
      0)
      << output;
}

TEST_F(ToolTest, EveryPasswordSourceIsRead) {
  struct Source {
    std::string passin;
    ToolRun run;
  };
  std::vector<Source> sources(5);
  sources[0].passin = std::string("pass:") + kPassword;
  sources[1].passin = "env:CERT_PW";
  sources[1].run.env["CERT_PW"] = kPassword;
  sources[2].passin = "file:" + path("pw.txt");
  writeFile(path("pw.txt"), std::string(kPassword) + "\r\nsecond line\n");
  sources[3].passin = "fd:5";
  sources[3].run.descriptors[5] = std::string(kPassword) + "\n";
  sources[4].passin = "stdin";
  sources[4].run.input = kPassword;

  int n = 0;
  for (Source& source : sources) {
    const std::string email = "user" + std::to_string(n++) + "@example.org";
    source.run.args = {"--store",     store(),   "--passin", source.passin,
                       "self-signed", "--email", email};
    const ToolResult made = runTool(source.run);
    ASSERT_EQ(made.status, 0) << source.passin << ": " << made.err;
    expectKeyOpensWith(userDir() + "/user" + std::to_string(n - 1) + "_at_example.org.key",
                       kPassword);
  }
}

TEST_F(ToolTest, TerminalIsAskedTwiceWithoutEchoForNewKeys) {
  std::string screen;
  const ToolResult made =
      runToolOnTerminal({"--store", store(), "self-signed", "--email", "alice@example.org"},
                        {kPassword, kPassword}, screen);
  EXPECT_EQ(made.status, 0) << screen;
  EXPECT_THAT(screen, HasSubstr("Password again: "));
  EXPECT_THAT(screen, Not(HasSubstr(kPassword)));
  expectKeyOpensWith(userDir() + "/alice_at_example.org.key", kPassword);

  screen.clear();
  const ToolResult differ = runToolOnTerminal(
      {"--store", store(), "request", "--email", "bob@example.org"}, {kPassword, "other"}, screen);
  EXPECT_EQ(differ.status, 64);
  EXPECT_THAT(screen, HasSubstr("differ"));
  EXPECT_THAT(storeFiles(),
              ElementsAre("user/alice_at_example.org.crt", "user/alice_at_example.org.key"));

  screen.clear();
  const ToolResult shown =
      runToolOnTerminal({"--store", store(), "--json", "show", "alice@example.org"}, {}, screen);
  EXPECT_EQ(shown.status, 0) << "show asks for nothing without --passin";
  EXPECT_THAT(screen, Not(HasSubstr("Password")));
}

TEST_F(ToolTest, PasswordNeverAppearsInOutputOrLog) {
  makeSelfSigned("alice@example.org");
  const std::vector<std::vector<std::string>> commands = {
      {"--log", "trace", "--passin", std::string("pass:") + kPassword, "self-signed", "--email",
       "bob@example.org"},
      {"--log", "trace", "--passin", std::string("pass:") + kPassword, "show", "alice@example.org"},
      {"--log", "trace", "--passin", std::string("pass:") + kPassword, "request", "--email",
       "carol@example.org"},
      {"--passin", std::string("pas:") + kPassword, "show", "alice@example.org"},
      // Global options after the command are refused, and not repeated.
      {"show", "alice@example.org", "--passin", std::string("pass:") + kPassword},
      {"list", std::string("--passin=pass:") + kPassword},
      {std::string("pass:") + kPassword},
  };
  for (const std::vector<std::string>& args : commands) {
    const ToolResult result = tool(args);
    EXPECT_THAT(result.out + result.err, Not(HasSubstr(kPassword))) << args.back();
  }
}

struct BadInput {
  const char* name;
  std::vector<std::string> args;  // after --store STORE --log off
  int status;
  const char* words;  // what the one line of stderr says
  std::string input = "";
};

void PrintTo(const BadInput& input, std::ostream* out) { *out << input.name; }

class ToolBadInputTest : public ToolTest, public ::testing::WithParamInterface<BadInput> {};

TEST_P(ToolBadInputTest, GivesItsStatusOneLineAndNoChange) {
  makeSelfSigned("alice@example.org");
  // A directory opens but cannot be read, for root as for anyone.
  makeDirectories(path("pw-directory"));
  writeFile(path("pw-nul"), std::string("pw\0more\n", 8));
  writeFile(path("pw-empty"), "\n");
  writeFile(path("plainfile"), "not a directory");
  const std::vector<std::string> before = tree();

  std::vector<std::string> args = GetParam().args;
  for (std::string& arg : args) {
    const std::size_t at = arg.find("PATH/");
    if (at != std::string::npos) arg = arg.substr(0, at) + path(arg.substr(at + 5));
  }
  const ToolResult result = quiet(args, GetParam().input);
  EXPECT_EQ(result.status, GetParam().status) << result.err;
  EXPECT_THAT(result.errLines(),
              ElementsAre(AllOf(StartsWith("certcache: "), HasSubstr(GetParam().words))));
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(tree(), before);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ToolBadInputTest,
    ::testing::Values(
        BadInput{"UnknownCommand", {"frobnicate"}, 64, "unknown command 'frobnicate'"},
        BadInput{"NoCommand", {}, 64, "subcommand is required"},
        BadInput{"UnknownOption", {"list", "--colour"}, 64, "--colour"},
        BadInput{"GlobalOptionAfterCommand", {"list", "--json"}, 64, "--json"},
        BadInput{"MissingArgument", {"show"}, 64, "ID is required"},
        BadInput{"MissingEmail", {"--passin", "pass:pw", "self-signed"}, 64, "--email is required"},
        BadInput{"UnknownKind", {"--kind", "server", "list"}, 64, "server"},
        BadInput{"BadDays", {"expiring", "--days", "soon"}, 64, "soon"},
        BadInput{"BaseNameWithSlash", {"files", "user/alice_at_example.org"}, 64, "base name"},
        BadInput{"BaseNameDotDot", {"rename", "alice_at_example.org", ".."}, 64, "base name"},
        BadInput{"BaseNameDot", {"rename", ".", "x"}, 64, "base name"},
        BadInput{"BaseNameEmpty", {"files", ""}, 64, "base name"},
        BadInput{"UnreadablePasswordFile",
                 {"--passin", "file:PATH/pw-directory", "self-signed", "--email", "b@x.org"},
                 66,
                 "cannot read the password"},
        BadInput{"MissingPasswordFile",
                 {"--passin", "file:PATH/none", "self-signed", "--email", "b@x.org"},
                 66,
                 "cannot read the password file"},
        BadInput{"UnsetPasswordVariable",
                 {"--passin", "env:CERTCACHE_TEST_UNSET", "self-signed", "--email", "b@x.org"},
                 66,
                 "not set"},
        BadInput{"UnknownPasswordSource",
                 {"--passin", "secret", "self-signed", "--email", "b@x.org"},
                 64,
                 "--passin takes"},
        BadInput{"NoPasswordAndNoTerminal",
                 {"self-signed", "--email", "b@x.org"},
                 64,
                 "needs a password"},
        BadInput{"EmptyPassword",
                 {"--passin", "file:PATH/pw-empty", "self-signed", "--email", "b@x.org"},
                 12,
                 "password is empty"},
        BadInput{"NulInPassword",
                 {"--passin", "file:PATH/pw-nul", "request", "--email", "b@x.org"},
                 64,
                 "NUL"},
        BadInput{"StoreRootIsAFile", {"--store", "PATH/plainfile", "list"}, 74, "not a directory"},
        BadInput{"StoreRootIsAFileWhenCreating",
                 {"--store", "PATH/plainfile", "--passin", "pass:pw", "self-signed", "--email",
                  "b@x.org"},
                 74,
                 "not a directory"},
        BadInput{"UnknownIdentifier", {"show", "nobody@example.org"}, 100, "nobody@example.org"},
        BadInput{"UnknownIdentifierToRemove", {"remove", "nobody@example.org"}, 4, "identifier"},
        BadInput{"UnknownBaseName", {"files", "nobody"}, 6, "does not exist"},
        BadInput{
            "NotACertificateOnStdin",
            {"install"},
            1,
            "not a certificate",
            "-----BEGIN CERTIFICATE-----\nbm90IGEgY2VydGlmaWNhdGU=\n-----END CERTIFICATE-----\n"},
        BadInput{"UnreadableCertificateFile", {"install", "PATH/none.crt"}, 66, "cannot read"},
        BadInput{"ExistingPairWithoutOverwrite",
                 {"--passin", "pass:pw", "self-signed", "--email", "alice@example.org"},
                 2,
                 "--overwrite"},
        BadInput{"CancelWithoutRequest",
                 {"cancel-request", "--email", "alice@example.org"},
                 11,
                 "pending"}),
    [](const ::testing::TestParamInfo<BadInput>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace test
}  // namespace tavik

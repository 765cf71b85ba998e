#include "commandline.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <iterator>
#include <memory>

#include "toolerror.h"

namespace tavik {
namespace cli {

namespace {

const char kDescription[] =
    "Keeps X.509 certificates and their password-protected keys as PEM files in a certificate "
    "store: lists, shows, checks and verifies them, makes self-signed pairs and certificate "
    "requests, installs signed certificates, moves credentials in and out as PKCS#12, renames "
    "and removes them. Options may stand before or after the command; certcache COMMAND --help "
    "tells one command.";

const char kExitStatuses[] =
    "Exit status:\n"
    "  0        done\n"
    "  1-13     the cache's result code (2: a file exists, add --overwrite; 10: no pending\n"
    "           request for the certificate; 12: the password is empty)\n"
    "  20       expiring or check found something\n"
    "  64       usage error (a needed password that was not given, a --key or --days\n"
    "           that the command does not take, included)\n"
    "  65       the input is not what the command needs (a certificate for another key,\n"
    "           a request given to install, a chain that does not verify, a revoked\n"
    "           certificate)\n"
    "  66       an input file, password source, store root or location is missing or\n"
    "           unreadable\n"
    "  74       any other failure of the environment\n"
    "  75       the store is busy (locked by another run for 10 seconds, or\n"
    "           $CERTCACHE_LOCK_WAIT seconds)\n"
    "  100-104  the lookup failed (100: no such identifier; 103: the key does not open with\n"
    "           the password; 104: the key file is missing)\n";

const char kExamples[] =
    "Examples:\n"
    "  $ certcache --store /tmp/store --passin env:PW self-signed --email alice@example.org\n"
    "  $ certcache --store /tmp/store list --long\n"
    "  $ certcache --store /tmp/store --passin file:pw.txt request --email bob@example.org "
    "--out bob.csr\n"
    "  $ certcache --store /tmp/store --passin file:pw.txt install bob.crt\n"
    "  $ certcache --store /tmp/store check --days 60 || mail -s 'certificates' root\n"
    "  $ certcache --store /tmp/store crl add ca.crl && certcache --store /tmp/store verify "
    "bob@example.org\n"
    "  $ certcache --store /tmp/store --passin env:PW export bob@example.org --out bob.p12\n";

// The commands are what the tool is for, so its help names them before the
// options; a manual page made from it keeps the order of a manual's sections.
class CommandsFirst : public CLI::Formatter {
 public:
  CommandsFirst() { label("SUBCOMMAND", "COMMAND"); }
  std::string make_help(const CLI::App* app, std::string name,
                        CLI::AppFormatMode mode) const override {
    if (mode == CLI::AppFormatMode::Sub) return make_expanded(app);
    return make_description(app) + make_usage(app, name) + make_positionals(app) +
           make_subcommands(app, mode) + make_groups(app, mode) + '\n' + make_footer(app);
  }
};

// A command's own help page: what it is for, its options, one example, and
// where the global options are told.
void describeCommand(CLI::App& command, const std::string& example) {
  command.footer("Example:\n  $ certcache " + example +
                 "\n\nThe global options (--store, --passin, --json, --log, ...) may stand "
                 "before or after the command: see certcache --help.\n\n" +
                 kExitStatuses);
}

// CLI11's own membership check prints its set after the type name; the type
// name already says it.
CLI::Validator oneOf(std::vector<std::string> names) {
  return CLI::IsMember(std::move(names)).description("");
}

void addGlobalOptions(CLI::App& app, Invocation& invocation) {
  app.set_version_flag("--version", "certcache " TAVIK_CERTCACHE_VERSION,
                       "Print \"certcache VERSION\" and exit");
  app.add_option("--store", invocation.store.root,
                 "The store's root directory, e.g. --store /var/lib/myapp/certs. Default: "
                 "$CERTCACHE_STORE, else ${XDG_DATA_HOME:-$HOME/.local/share}/certcache")
      ->type_name("DIR")
      ->take_last();
  app.add_option("--location", invocation.store.locations,
                 "A base location to read from, repeatable, in search order, e.g. "
                 "--location /etc/certs --location /tmp/store. Default: the root alone")
      ->type_name("DIR")
      ->allow_extra_args(false);
  app.add_option_function<std::string>(
         "--kind",
         [&invocation](const std::string& kind) { invocation.store.authorities = kind == "ca"; },
         "Which certificates: user (end entities with an e-mail address, in user/) or ca "
         "(authorities, in ca/), e.g. --kind ca. Default: user")
      ->type_name("user|ca")
      ->check(oneOf({"user", "ca"}));
  app.add_flag_callback(
      "--no-keys", [&invocation]() { invocation.store.withKeys = false; },
      "A cache of certificates alone, listed by file base name, e.g. --no-keys list");
  app.add_option("--passin", invocation.passin,
                 "Where the password comes from: pass:TEXT, env:VAR, file:PATH (first line), "
                 "fd:N or stdin, e.g. --passin env:CERT_PW. Without it a terminal is asked")
      ->type_name("SOURCE");
  app.add_option("--passout", invocation.passout,
                 "The second password of export (the PKCS#12 file's) and import (the stored "
                 "key's), in the forms of --passin. Default: the --passin password")
      ->type_name("SOURCE");
  app.add_option("--log", invocation.logLevel,
                 "Log lines on stderr from this level up: off|error|warning|info|debug|trace, "
                 "e.g. --log debug; from debug on with time and source line. Default: error")
      ->type_name("LEVEL")
      ->check(oneOf({"off", "error", "warning", "info", "debug", "trace"}));
  app.add_flag("-v,--verbose", invocation.verbosity,
               "One log level more per use: -v warning, -vv info, -vvv debug");
  app.add_flag(
      "--json", invocation.json,
      "Machine-readable output for list, show, files, expiring, check, verify, watch and crl "
      "list");
}

void addEmailOptions(CLI::App& command, Invocation& invocation, const char* verb) {
  command
      .add_option("--email", invocation.email,
                  std::string("The e-mail address ") + verb + ", e.g. --email alice@example.org")
      ->type_name("E")
      ->required();
  command
      .add_option("--subject", invocation.subject,
                  "A name for the files instead of the address, e.g. --subject laptop")
      ->type_name("S");
}

// The names --key takes for the profile's keys.
const std::pair<const char*, CredentialProfile::Key> kKeyNames[] = {
    {"rsa:2048", CredentialProfile::Key::rsa2048}, {"rsa:3072", CredentialProfile::Key::rsa3072},
    {"rsa:4096", CredentialProfile::Key::rsa4096}, {"ec:P-256", CredentialProfile::Key::ecP256},
    {"ec:P-384", CredentialProfile::Key::ecP384},
};
const char kLegacyKey[] = "legacy";

void addKeyOption(CLI::App& command, Invocation& invocation) {
  std::vector<std::string> names;
  for (const auto& name : kKeyNames) names.push_back(name.first);
  names.push_back(kLegacyKey);
  command
      .add_option_function<std::string>(
          "--key",
          [&invocation](const std::string& value) {
            invocation.legacyKey = value == kLegacyKey;
            for (const auto& name : kKeyNames) {
              if (value == name.first) invocation.credential.key = name.second;
            }
          },
          "The key to make: rsa:2048, rsa:3072, rsa:4096, ec:P-256 or ec:P-384, signed with "
          "SHA-256 (SHA-384 with ec:P-384), in a key file under AES-256 and PBKDF2; or legacy: "
          "RSA 1024, a SHA-1 request, a Triple-DES key file and the fixed self-signed "
          "certificate, for stores shared with programs that expect those. Default: rsa:3072")
      ->type_name("KEY")
      ->check(oneOf(names));
}

void addIdArgument(CLI::App& command, Invocation& invocation) {
  command.add_option("ID", invocation.id, "The identifier, e.g. alice@example.org")->required();
}

CLI::Option* addOutOption(CLI::App& command, Invocation& invocation, const std::string& what) {
  return command.add_option("--out", invocation.outFile, "Write " + what)->type_name("FILE");
}

void addCommands(CLI::App& app, Invocation& invocation) {
  CLI::App* list = app.add_subcommand("list", "The identifiers, one a line");
  list->add_flag("--long", invocation.longList, "Each with its file base name: ID<TAB>BASENAME");
  list->add_flag("--pending", invocation.pendingList,
                 "The requests waiting for a certificate instead: BASENAME<TAB>SINCE");
  describeCommand(*list, "--store /tmp/store list --long");

  CLI::App* show = app.add_subcommand(
      "show",
      "One certificate, its key type, signature and CRL distribution points; with --passin its "
      "key is read too");
  addIdArgument(*show, invocation);
  show->add_flag("--chain", invocation.chain,
                 "Then the path of authorities above it, up to its root or to where it breaks");
  describeCommand(*show, "--store /tmp/store --json show alice@example.org");

  CLI::App* files =
      app.add_subcommand("files", "The certificate and key file paths of a file base name");
  files->add_option("BASENAME", invocation.baseName, "The file base name, e.g. alice_at_x")
      ->required();
  describeCommand(*files, "--store /tmp/store files alice_at_example.org");

  CLI::App* selfSigned = app.add_subcommand(
      "self-signed",
      "Make a new key (--key, default rsa:3072) and a self-signed certificate valid for --days "
      "(default 365) for an e-mail address");
  addEmailOptions(*selfSigned, invocation, "of the certificate");
  selfSigned->add_flag("--overwrite", invocation.overwrite,
                       "Replace an existing key and certificate");
  addKeyOption(*selfSigned, invocation);
  selfSigned
      ->add_option("--days", invocation.credential.validityDays,
                   "How many days from now the certificate is valid, 1 to 3650, e.g. --days 730; "
                   "not with --key legacy, whose validity is fixed. Default: 365")
      ->type_name("N")
      ->check(CLI::Range(1, 3650).description(""));
  describeCommand(
      *selfSigned,
      "--passin env:PW self-signed --email alice@example.org --key ec:P-256 --days 730");

  CLI::App* request = app.add_subcommand(
      "request",
      "Make a new key (--key, default rsa:3072) and a certificate request; the key waits until "
      "install");
  addEmailOptions(*request, invocation, "to request a certificate for");
  request->add_flag("--overwrite", invocation.overwrite,
                    "Go on even though a key of that name exists or a request is pending, "
                    "replacing the pending key");
  request->add_flag("--no-temp-key", invocation.noTempKey,
                    "Store the key as the final key at once instead of a pending one");
  addKeyOption(*request, invocation);
  addOutOption(*request, invocation, "the request's PEM to FILE instead of stdout");
  describeCommand(*request, "--passin file:pw.txt request --email bob@example.org --out bob.csr");

  CLI::App* renew = app.add_subcommand(
      "renew",
      "A request with a new key (--key) for an installed certificate, under its base name; "
      "the installed pair keeps working until install --overwrite replaces both");
  addIdArgument(*renew, invocation);
  renew->add_flag("--overwrite", invocation.overwrite,
                  "Replace the key of a request that is already pending");
  addKeyOption(*renew, invocation);
  addOutOption(*renew, invocation, "the request's PEM to FILE instead of stdout");
  describeCommand(*renew, "--passin file:pw.txt renew bob@example.org --out bob-2027.csr");

  CLI::App* cancel =
      app.add_subcommand("cancel-request", "Delete the pending key of an abandoned request");
  addEmailOptions(*cancel, invocation, "that the request was made for");
  describeCommand(*cancel, "cancel-request --email bob@example.org");

  CLI::App* install = app.add_subcommand(
      "install",
      "Install a signed certificate from FILE or stdin (PEM with text around it, a PEM "
      "bundle, DER or base64) beside its key; a key-holding store needs the password, and "
      "a certificate for another key is refused");
  install
      ->add_option("--id", invocation.id,
                   "Name the files after this (the --subject of the request) instead of the "
                   "certificate's identifier, e.g. --id laptop")
      ->type_name("ID");
  install->add_flag("--overwrite", invocation.overwrite,
                    "Replace an installed certificate (a renewal, a re-issue)");
  install->add_option("FILE", invocation.inputFile, "The certificate file, e.g. alice.crt");
  describeCommand(*install, "--passin file:pw.txt install bob.crt");

  CLI::App* rename = app.add_subcommand("rename", "Rename a certificate's files");
  rename->add_option("BASENAME", invocation.baseName, "The current file base name")->required();
  rename->add_option("NEWBASENAME", invocation.newBaseName, "The new file base name")->required();
  rename->add_flag("--overwrite", invocation.overwrite, "Replace files of NEWBASENAME that exist");
  describeCommand(*rename, "rename alice_at_example.org alice-2026");

  CLI::App* remove = app.add_subcommand("remove", "Delete a certificate and its key");
  addIdArgument(*remove, invocation);
  describeCommand(*remove, "remove alice@example.org");

  CLI::App* recover = app.add_subcommand(
      "recover",
      "Complete a change that a killed or crashed run left unfinished (any other command "
      "but check does this first by itself)");
  describeCommand(*recover, "recover");

  CLI::App* expiring = app.add_subcommand(
      "expiring", "What has expired or expires within N days; exit 20 when there is any");
  CLI::App* check = app.add_subcommand(
      "check",
      "What needs a person: keys without certificate, certificates without key, stale "
      "requests, key files others may read, files the scan refuses, expired and due "
      "certificates, weak keys, signatures and key-file protection, certificates whose issuer "
      "the store lacks or whose issuer's kept list revokes them, kept lists past their "
      "nextUpdate, a change a dead run left unfinished, and with --passin keys that are not "
      "their certificate's; exit 20 when anything is found");
  for (CLI::App* command : {expiring, check}) {
    command
        ->add_option("--days", invocation.days,
                     "The window in days from now (and the age of a stale request), e.g. "
                     "--days 60. Default: 30")
        ->type_name("N")
        ->check(CLI::Range(0, 100000).description(""));
  }
  describeCommand(*expiring, "expiring --days 60 || echo 'something is due'");
  describeCommand(*check, "--passin env:PW check --days 14 || echo 'the store needs a look'");

  CLI::App* verify = app.add_subcommand(
      "verify",
      "Whether a certificate chains to an authority of the store (its self-signed ones "
      "trusted, the others as intermediates), or with --ca to one in FILE (PEM), and whether "
      "the revocation lists kept in the store (crl add) revoke any certificate of its path "
      "(--crl-check leaf: the certificate alone; off: none); exit 65 if it does not chain or is "
      "revoked, and with --require-crl where no current list tells");
  addIdArgument(*verify, invocation);
  verify
      ->add_option("--ca", invocation.caFile,
                   "The authorities' certificates to trust instead, e.g. --ca ca.pem; the store's "
                   "revocation lists still apply")
      ->type_name("FILE");
  verify
      ->add_option("--crl-check", invocation.crlCheck,
                   "Which certificates of the path are checked against their issuer's list: all "
                   "(the root too, against its own list, as openssl verify -crl_check_all does), "
                   "leaf (the certificate alone) or off, e.g. --crl-check leaf. Default: all")
      ->type_name("all|leaf|off")
      ->check(oneOf({"all", "leaf", "off"}));
  verify->add_flag("--require-crl", invocation.requireCrl,
                   "Fail (65) when revocation is unknown: a certificate checked whose issuer has "
                   "no list kept, or one past its nextUpdate; without it that is no failure");
  describeCommand(*verify, "verify alice@example.org --require-crl");

  CLI::App* exportCommand = app.add_subcommand(
      "export",
      "A certificate and its key as a PKCS#12 file (AES-256, PBKDF2 and a SHA-256 MAC; "
      "--legacy: Triple-DES and SHA-1) for browsers and mail clients; --passin opens the key, "
      "--passout protects the file");
  addIdArgument(*exportCommand, invocation);
  addOutOption(*exportCommand, invocation, "the PKCS#12 file to FILE, e.g. --out alice.p12")
      ->required();
  exportCommand->add_flag("--legacy", invocation.legacyPkcs12,
                          "Protect key and certificate with PBE-SHA1-3DES and a SHA-1 MAC instead, "
                          "for software that reads nothing newer (older mail clients and systems)");
  exportCommand->add_flag("--no-chain", invocation.noChain,
                          "Leave out the authorities above the certificate, which go with it "
                          "otherwise (the root too when the store holds it)");
  CLI::Option* pem = exportCommand->add_flag(
      "--pem", invocation.pemExport,
      "Write the certificate and its authorities as PEM instead, the root last");
  exportCommand
      ->add_option("--key-out", invocation.keyOutFile,
                   "With --pem, the key to FILE as one ENCRYPTED PRIVATE KEY block (AES-256, "
                   "under --passout), readable by its owner alone")
      ->type_name("FILE")
      ->needs(pem);
  exportCommand->get_option("--legacy")->excludes(pem);
  describeCommand(*exportCommand,
                  "--passin env:PW --passout env:P12PW export alice@example.org --out a.p12");

  CLI::App* import = app.add_subcommand(
      "import",
      "A certificate and its key from a PKCS#12 file; --passin opens the file, --passout "
      "protects the stored key");
  import->add_option("FILE", invocation.inputFile, "The PKCS#12 file, e.g. alice.p12")->required();
  import
      ->add_option("--id", invocation.id,
                   "Name the files after this instead of the certificate's identifier")
      ->type_name("ID");
  import->add_flag("--overwrite", invocation.overwrite, "Replace a pair that is installed");
  describeCommand(*import, "--passin file:p12pw.txt --passout env:PW import alice.p12");

  CLI::App* watch = app.add_subcommand(
      "watch",
      "What changes in the store, as it happens: added, removed and changed lines "
      "(ID<TAB>BASENAME), each within a second of the change; ends on SIGINT or SIGTERM. "
      "Takes no lock");
  watch->add_flag("--initial", invocation.initial, "First an added line for everything there");
  watch
      ->add_option("--timeout", invocation.timeoutSeconds,
                   "End after SECONDS, e.g. --timeout 60. Default: at a signal only")
      ->type_name("SECONDS")
      ->check(CLI::Range(1L, 100000000L).description(""));
  describeCommand(*watch, "--kind ca --no-keys watch --initial --json");

  CLI::App* crl = app.add_subcommand(
      "crl",
      "The authorities' revocation lists in the store: crl add FILE... keeps lists (PEM or DER) "
      "that an authority of the store issued, each over an older one of its issuer; crl list "
      "tells those kept: ISSUER<TAB>THIS_UPDATE<TAB>NEXT_UPDATE<TAB>ENTRIES");
  crl->require_subcommand(1);
  crl->fallthrough();
  CLI::App* crlAdd = crl->add_subcommand(
      "add",
      "Keep the revocation lists in FILE... in one change, or none of them: a file that is no "
      "list, a list that no authority of the store issued or whose signature does not verify, "
      "and one older than the list kept for its issuer exit 65; the same list again is no change");
  crlAdd->add_option("FILE", invocation.inputFiles, "A revocation list file, e.g. ca.crl")
      ->required();
  crlAdd->fallthrough();
  describeCommand(*crlAdd, "--store /tmp/store crl add ca.crl intermediate.crl");
  CLI::App* crlList = crl->add_subcommand("list", "The revocation lists kept, one a line");
  crlList->fallthrough();
  describeCommand(*crlList, "--store /tmp/store --json crl list");
}

// CLI11's messages are one line already; this keeps it so whatever they hold.
std::string oneLine(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  return text;
}

// CLI11 repeats arguments it did not expect, and a misplaced "pass:TEXT" would
// put a password on the screen: every pass: argument of the command line is
// hidden in the message.
std::string hidePasswords(std::string message, int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    std::string secret = argv[i];
    const std::size_t equals = secret.find('=');
    if (secret.compare(0, 2, "--") == 0 && equals != std::string::npos) {
      secret.erase(0, equals + 1);  // --passin=pass:TEXT, --passout=pass:TEXT
    }
    if (secret.compare(0, 5, "pass:") != 0 || secret.size() == 5) continue;
    for (std::size_t found = message.find(secret); found != std::string::npos;
         found = message.find(secret, found)) {
      message.replace(found, secret.size(), "pass:(hidden)");
    }
  }
  return message;
}

// --log names the level; each -v raises it by one.
std::string raisedLevel(const std::string& level, int steps) {
  static const char* const kLevels[] = {"off", "error", "warning", "info", "debug", "trace"};
  const int count = static_cast<int>(std::size(kLevels));
  const int at = static_cast<int>(std::find(kLevels, kLevels + count, level) - kLevels);
  return kLevels[std::min(at + steps, count - 1)];
}

}  // namespace

int parseCommandLine(int argc, char** argv, Invocation& invocation) {
  CLI::App app(kDescription, "certcache");
  app.formatter(std::make_shared<CommandsFirst>());
  app.footer(std::string(kExitStatuses) + '\n' + kExamples);
  app.require_subcommand(1);
  app.fallthrough();  // options of the tool also after the command
  addGlobalOptions(app, invocation);
  addCommands(app, invocation);
  for (CLI::App* command : app.get_subcommands({})) command->group("Commands");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);  // --help, --version
    std::string message = oneLine(error.what());
    // A mistyped command is left over as an argument, and CLI11 reports only
    // that no command came; name the word that was not one.
    const std::vector<std::string> leftOver = app.remaining();
    if (app.get_subcommands().empty() && !leftOver.empty()) {
      message = "unknown command '" + leftOver.front() + "'";
    }
    std::cerr << "certcache: " << hidePasswords(message, argc, argv) << " (see certcache --help)\n";
    return kExitUsage;
  }
  const CLI::App* chosen = app.get_subcommands().front();
  invocation.command = chosen->get_name();
  if (!chosen->get_subcommands().empty()) {  // crl add, crl list
    invocation.command += " " + chosen->get_subcommands().front()->get_name();
  }
  // The legacy certificate's validity is fixed, so a --days beside it would be
  // silently ignored.
  if (invocation.legacyKey && invocation.command == "self-signed" &&
      app.get_subcommands().front()->count("--days") > 0) {
    std::cerr << "certcache: --days cannot go with --key legacy, whose certificate is valid from "
                 "2010 to 2037 (see certcache --help)\n";
    return kExitUsage;
  }
  invocation.logLevel = raisedLevel(invocation.logLevel, invocation.verbosity);
  return -1;
}

}  // namespace cli
}  // namespace tavik

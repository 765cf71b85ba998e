#include "commandline.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>

#include "toolerror.h"

namespace tavik {
namespace cli {

namespace {

const char kDescription[] =
    "Keeps X.509 certificates and their password-protected RSA keys as PEM files in a "
    "certificate store: lists and shows them, makes self-signed pairs and certificate "
    "requests, installs signed certificates, renames and removes them.";

const char kFooter[] =
    "Examples:\n"
    "  certcache --store /tmp/store --passin env:PW self-signed --email alice@example.org\n"
    "  certcache --store /tmp/store list --long\n"
    "  certcache --store /tmp/store --json show alice@example.org\n"
    "  certcache --store /tmp/store --passin file:pw.txt request --email bob@example.org "
    "--out bob.csr\n"
    "  certcache --store /tmp/store --passin file:pw.txt install bob.crt\n"
    "  certcache --store /tmp/store --passin file:pw.txt renew bob@example.org --out bob2.csr\n"
    "  certcache --store /tmp/store expiring --days 60 || echo 'something is due'\n"
    "\n"
    "Exit status: 0 done; 1-13 the cache's result code (2: exists, add --overwrite); "
    "20 expiring found something; 64 usage error; 65 the input is not what the command "
    "needs (a certificate for another key, a request given to install); 66 an input, "
    "password source, store root or location is missing or unreadable; 74 other failure; "
    "75 the store is busy (locked by another run for 10 seconds, or $CERTCACHE_LOCK_WAIT); "
    "100-104 lookup failures (100: no such identifier, 103: the key does not open with "
    "the password).";

void addGlobalOptions(CLI::App& app, Invocation& invocation) {
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
      ->check(CLI::IsMember({"user", "ca"}));
  app.add_flag_callback(
      "--no-keys", [&invocation]() { invocation.store.withKeys = false; },
      "A cache of certificates alone, listed by file base name, e.g. --no-keys list");
  app.add_option("--passin", invocation.passin,
                 "Where the password comes from: pass:TEXT, env:VAR, file:PATH (first line), "
                 "fd:N or stdin, e.g. --passin env:CERT_PW. Without it a terminal is asked")
      ->type_name("SOURCE");
  app.add_option("--log", invocation.logLevel,
                 "The library's log statements on stderr from this level up: "
                 "off|error|warning|info|debug|trace, e.g. --log debug. Default: warning")
      ->type_name("LEVEL")
      ->check(CLI::IsMember({"off", "error", "warning", "info", "debug", "trace"}));
  app.add_flag("--json", invocation.json,
               "Machine-readable output for list, show, files and expiring, e.g. --json list");
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

void addCommands(CLI::App& app, Invocation& invocation) {
  CLI::App* list = app.add_subcommand("list", "The identifiers, one a line");
  list->add_flag("--long", invocation.longList,
                 "Each with its file base name: ID<TAB>BASENAME, e.g. list --long");
  list->add_flag("--pending", invocation.pendingList,
                 "The requests waiting for a certificate instead: BASENAME<TAB>SINCE, e.g. "
                 "list --pending");

  CLI::App* show = app.add_subcommand(
      "show", "One certificate; with --passin its key is read too, e.g. show alice@example.org");
  show->add_option("ID", invocation.id, "The identifier, e.g. alice@example.org")->required();

  CLI::App* files = app.add_subcommand(
      "files", "The certificate and key file paths of a file base name, e.g. files alice_at_x");
  files->add_option("BASENAME", invocation.baseName, "The file base name, e.g. alice_at_x")
      ->required();

  CLI::App* selfSigned = app.add_subcommand(
      "self-signed", "Make a new key and a self-signed certificate for an e-mail address");
  addEmailOptions(*selfSigned, invocation, "of the certificate");
  selfSigned->add_flag("--overwrite", invocation.overwrite,
                       "Replace an existing key and certificate, e.g. --overwrite");

  CLI::App* request = app.add_subcommand(
      "request", "Make a new key and a certificate request; the key waits until install");
  addEmailOptions(*request, invocation, "to request a certificate for");
  request->add_flag("--overwrite", invocation.overwrite,
                    "Go on even though a key of that name exists or a request is pending, "
                    "replacing the pending key, e.g. --overwrite");
  request->add_flag("--no-temp-key", invocation.noTempKey,
                    "Store the key as the final key at once instead of a pending one, "
                    "e.g. --no-temp-key");
  request
      ->add_option("--out", invocation.outFile,
                   "Write the request's PEM to FILE instead of stdout, e.g. --out alice.csr")
      ->type_name("FILE");

  CLI::App* renew = app.add_subcommand(
      "renew",
      "A request with a new key for an installed certificate, under its base name; "
      "the installed pair keeps working until install --overwrite replaces both");
  renew->add_option("ID", invocation.id, "The identifier, e.g. alice@example.org")->required();
  renew->add_flag("--overwrite", invocation.overwrite,
                  "Replace the key of a request that is already pending, e.g. --overwrite");
  renew
      ->add_option("--out", invocation.outFile,
                   "Write the request's PEM to FILE instead of stdout, e.g. --out alice.csr")
      ->type_name("FILE");

  CLI::App* cancel =
      app.add_subcommand("cancel-request", "Delete the pending key of an abandoned request");
  addEmailOptions(*cancel, invocation, "that the request was made for");

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
                    "Replace an installed certificate (a renewal, a re-issue), e.g. --overwrite");
  install->add_option("FILE", invocation.inputFile, "The certificate file, e.g. alice.crt");

  CLI::App* rename = app.add_subcommand(
      "rename", "Rename a certificate's files, e.g. rename alice_at_x alice-old");
  rename->add_option("BASENAME", invocation.baseName, "The current file base name")->required();
  rename->add_option("NEWBASENAME", invocation.newBaseName, "The new file base name")->required();
  rename->add_flag("--overwrite", invocation.overwrite,
                   "Replace files of NEWBASENAME that exist, e.g. --overwrite");

  CLI::App* remove = app.add_subcommand(
      "remove", "Delete a certificate and its key, e.g. remove alice@example.org");
  remove->add_option("ID", invocation.id, "The identifier, e.g. alice@example.org")->required();

  CLI::App* expiring = app.add_subcommand(
      "expiring", "What has expired or expires within N days; exit 20 when there is any");
  expiring
      ->add_option("--days", invocation.days,
                   "The window in days from now, e.g. --days 60. Default: 30")
      ->type_name("N")
      ->check(CLI::Range(0, 100000));
}

// CLI11's messages are one line already; this keeps it so whatever they hold.
std::string oneLine(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  return text;
}

// CLI11 repeats arguments it did not expect, and a misplaced "--passin
// pass:TEXT" would put the password on the screen: every pass: argument of the
// command line is hidden in the message.
std::string hidePasswords(std::string message, int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const std::size_t at = arg.find("pass:");
    if (at == std::string::npos || (at != 0 && arg.compare(0, at, "--passin=") != 0)) continue;
    const std::string secret = arg.substr(at);
    if (secret.size() == 5) continue;
    for (std::size_t found = message.find(secret); found != std::string::npos;
         found = message.find(secret, found)) {
      message.replace(found, secret.size(), "pass:(hidden)");
    }
  }
  return message;
}

}  // namespace

int parseCommandLine(int argc, char** argv, Invocation& invocation) {
  CLI::App app(kDescription, "certcache");
  app.footer(kFooter);
  app.require_subcommand(1);
  addGlobalOptions(app, invocation);
  addCommands(app, invocation);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);  // --help
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
  invocation.command = app.get_subcommands().front()->get_name();
  return -1;
}

}  // namespace cli
}  // namespace tavik

// The one store fixture: a temporary store with a root and a second location, files made from
// short descriptions, calls made from short scripts, and a transcript of every log statement
// and every result.
#ifndef TAVIK_TESTS_SUPPORT_STORETEST_H_
#define TAVIK_TESTS_SUPPORT_STORETEST_H_

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <boost/filesystem.hpp>
#include <boost/make_shared.hpp>
#include <fstream>
#include <future>
#include <iomanip>
#include <map>
#include <optional>
#include <set>
#include <sstream>

#include "base/environment.h"
#include "crypto/certificatechain.h"
#include "crypto/certificatefilecache.h"
#include "crypto/revocationlists.h"
#include "log/log.h"
#include "support/certbuilder.h"

namespace tavik {
namespace test {

namespace fs = boost::filesystem;

inline std::string operator""_b(const char* bytes, std::size_t size) { return {bytes, size}; }
inline std::string quote(const std::string& text) { return "'" + text + "'"; }  // no "'" in paths
inline std::vector<std::string> words(const std::string& text) {
  std::istringstream in(text);
  return {std::istream_iterator<std::string>(in), std::istream_iterator<std::string>()};
}
inline std::vector<std::string> words(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::istringstream in(text);
  for (std::string part; std::getline(in, part, separator);) parts.push_back(part);
  return parts;
}
inline std::vector<std::string> concat(std::initializer_list<std::vector<std::string>> parts) {
  std::vector<std::string> all;
  for (const std::vector<std::string>& part : parts)
    all.insert(all.end(), part.begin(), part.end());
  return all;
}
inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}
inline void writeFile(const std::string& path, const std::string& contents) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << contents;
}
// Everything below `dir` (nothing when it is missing): relative path to mode, type and content.
inline std::map<std::string, std::string> snapshot(const std::string& dir) {
  std::map<std::string, std::string> tree;
  boost::system::error_code error;
  for (fs::recursive_directory_iterator it(dir, error), end; !error && it != end;
       it.increment(error)) {
    const fs::file_status status = it->symlink_status();
    tree[fs::relative(it->path(), dir).string()] =
        std::to_string(status.permissions()) + std::to_string(status.type()) +
        (fs::is_regular_file(status) ? readFile(it->path().string()) : "");
  }
  return tree;
}
// Runs a shell command: its exit status, and its standard output in `out`.
inline int shell(const std::string& command, std::string* out = nullptr) {
  FILE* pipe = ::popen(command.c_str(), "r");
  char buffer[4096];
  std::string text;
  for (std::size_t got; pipe && (got = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;)
    text.append(buffer, got);
  const int status = pipe ? ::pclose(pipe) : -1;
  if (out != nullptr) *out = text;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class StoreTest : public ::testing::Test {
 public:
  void SetUp() override {
    // '"' and '&' in every path check how statements quote paths.
    std::string pattern = (fs::temp_directory_path() / "tavik\"&XXXXXX").string();
    if (::mkdtemp(&pattern[0]) == nullptr) throw std::runtime_error("mkdtemp failed");
    dir_ = pattern, root_ = dir_ + "/root", second_ = dir_ + "/second";
    fs::create_directories(root_ + "/user");
    LogFacility::setLevels(0x3E);
    ERR_clear_error();
    // Every statement of the cache, wherever its code lives, names the cache's source file.
    LogFacility::setSink([this](const LogRecord& record) {
      log_.push_back((record.file == "src/crypto/certificatefilecache.cpp" ? "" : record.file) +
                     LogFacility::levelName(record.level) + (": " + record.message));
    });
  }
  void TearDown() override {
    cache_.reset(), requestKey_ = PkeyHandle();
    LogFacility::setSink(nullptr);
    LogFacility::setLevels(LogMask::error | LogMask::warning);
    LogFacility::setUp(true);
    Environment::setInstance(nullptr);
    boost::system::error_code error;
    if (fs::remove_all(dir_, error) == 0 || error)
      shell("chmod -R u+rwx " + quote(dir_) + "; rm -rf " + quote(dir_));
  }

  // A file in the root's cache directory ("a.crt"), or in the second location's ("2:a.crt");
  // "ca/a.crt" and "2:ca/a.crt" are in the authorities' directories, "crl/a.crl" in the lists'.
  std::string path(const std::string& where) const {
    const bool second = where.compare(0, 2, "2:") == 0;
    const std::string name = where.substr(2 * second);
    const bool beside = name.compare(0, 3, "ca/") == 0 || name.compare(0, 4, "crl/") == 0;
    return (second ? second_ : root_) + (beside ? "" : "/user") + (name.empty() ? "" : "/" + name);
  }

  // Makes files named as path() names them ("x/": a directory holding a file). After '=' comes
  // the content: "key:N[:PASSWORD]" (testKey(N) under "pw" or PASSWORD), "email:ADDRESS" (a user
  // certificate), "der", "ca:SUBJECT" (an authority), "cert:SUBJECT" (no extensions; SUBJECT as
  // "CN=a/emailAddress=b"), "by:CN:N:ISSUER:M[:FLAGS]" (an authority CN=CN of testKey(N), serial
  // 100+N, issued by CN=ISSUER with testKey(M); FLAGS "n": CA:FALSE, "x": expired, "k": a key
  // usage without the right to sign lists),
  // "crl:ISSUER:M[:ENTRIES[:FLAGS]]" (a list of CN=ISSUER signed with testKey(M); ENTRIES
  // "SERIAL[/REASON],..." or "-"; FLAGS "s": past its nextUpdate, "f": thisUpdate tomorrow, "o":
  // thisUpdate two days ago rather than one, "d":
  // delta, "i": indirect, "b": DER, digits: its number) or text. By default a ".crt" is a user
  // certificate whose address is the base name with "_at_" read as "@" (else "@x" appended), and
  // any other file is testKey(0).
  void put(const std::vector<std::string>& entries) {
    for (const std::string& entry : entries) {
      const std::string name = entry.substr(0, entry.find('='));
      std::string content = entry.substr(std::min(entry.size(), name.size() + 1));
      std::string email = fs::path(path(name)).stem().string();
      const std::size_t at = email.find("_at_");
      email = at != std::string::npos ? email.replace(at, 4, "@") : email + "@x";
      if (content.compare(0, 6, "email:") == 0) email = content.substr(6), content = "";
      const std::string extension = fs::path(name).extension().string();
      const bool crt = extension == ".crt" || extension == ".CRT";
      if (content.empty() && !crt) content = "key:0";
      if (content.compare(0, 4, "key:") == 0) {
        const std::size_t colon = content.find(':', 4);
        content = encryptedKeyPem(testKey(std::stoi(content.substr(4))),
                                  colon == std::string::npos ? "pw" : content.substr(colon + 1));
      }
      static std::map<std::string, std::string> made;  // signing is slow
      if (!made[content].empty()) content = made[content];
      if (content.compare(0, 3, "by:") == 0) {
        const std::vector<std::string> part = words(content.substr(3) + ": ", ':');
        const X509Ptr issuer = makeCertificate({{{"CN", part[2]}}, {}, testKey(std::stoi(part[3]))});
        CertRecipe recipe{{{"CN", part[0]}},
                          {{NID_basic_constraints, part[4][0] == 'n' ? "CA:FALSE" : "CA:TRUE"}},
                          testKey(std::stoi(part[1])),
                          part[4][0] == 'x' ? -1 : 365,
                          testKey(std::stoi(part[3])),
                          issuer.get(),
                          100 + std::stol(part[1])};
        if (part[4][0] == 'k') recipe.extensions.emplace_back(NID_key_usage, "keyCertSign");
        content = made[content] = toPem(makeCertificate(recipe).get());
      }
      if (content.compare(0, 4, "crl:") == 0) content = made[content] = list(content.substr(4));
      if (content.compare(0, 3, "ca:") == 0 || content.compare(0, 5, "cert:") == 0) {
        CertRecipe recipe;
        std::istringstream parts(content.substr(content.find(':') + 1));
        for (std::string part; std::getline(parts, part, '/');)
          recipe.subject.emplace_back(part.substr(0, part.find('=')),
                                      part.substr(part.find('=') + 1));
        if (content[1] == 'a') recipe.extensions = {{NID_basic_constraints, "CA:TRUE"}};
        content = made[content] = toPem(makeCertificate(recipe).get());
      }
      if (content.empty() || content == "der") {
        content = content == "der" ? toDer(userCertificate(email)) : pem(email);
      }
      writeFile(path(name) + (name.back() == '/' ? "f" : ""), content);
      written_[content] = name;
    }
  }

  // The text of a "crl:" entry (see put()).
  static std::string list(const std::string& recipe) {
    const std::vector<std::string> part = words(recipe + ":-: :", ':');
    const X509Ptr issuer = makeCertificate({{{"CN", part[0]}}, {}, testKey(std::stoi(part[1]))});
    CrlRecipe made;
    made.issuer = X509_get_subject_name(issuer.get()), made.signer = testKey(std::stoi(part[1]));
    for (const std::string& entry : words(part[2] == "-" ? "" : part[2], ',')) {
      const std::size_t slash = entry.find('/');
      made.revoked.emplace_back(std::stol(entry),
                                slash == entry.npos ? -1 : std::stoi(entry.substr(slash + 1)));
    }
    const std::string& flags = part[3];
    if (flags.find_first_of("0123456789") != flags.npos)
      made.number = std::stol(flags.substr(flags.find_first_of("0123456789")));
    if (flags.find('s') != flags.npos) made.thisUpdateDays = -9, made.nextUpdateDays = -1;
    if (flags.find('f') != flags.npos) made.thisUpdateDays = 1;
    if (flags.find('o') != flags.npos) made.thisUpdateDays = -2;
    made.delta = flags.find('d') != flags.npos, made.indirect = flags.find('i') != flags.npos;
    const X509CrlPtr crl = makeRevocationList(made);
    return flags.find('b') != flags.npos ? toDer(crl.get()) : toPem(crl.get());
  }

  // The cache directories' entries, sorted and named as put() names them; a file holding what
  // put() wrote to another shows as "b.key=a.key", one holding pem(EMAIL) as "b.crt=pem:EMAIL",
  // any other new content as "b.key*".
  std::vector<std::string> files() const {
    std::vector<std::string> names;
    for (const std::string location : {"", "2:"}) {
      boost::system::error_code error;
      for (fs::directory_iterator it(path(location), error), end; !error && it != end; ++it) {
        std::string name = location + it->path().filename().string();
        const fs::file_type type = it->symlink_status().type();
        const std::string text = type == fs::regular_file ? readFile(it->path().string()) : "";
        const auto origin = written_.find(text);
        const auto made = std::find_if(pems().begin(), pems().end(),
                                       [&text](const auto& e) { return e.second == text; });
        if (type == fs::directory_file) name += "/";
        if (type == fs::regular_file && origin == written_.end()) {
          name += made == pems().end() ? "*" : "=pem:" + made->first;
        } else if (type == fs::regular_file && origin->second != name) {
          name += "=" + origin->second;
        }
        names.push_back(name);
      }
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  // A new cache: "keys" or "plain", then '2' (a second location), '0' (no location), 'c' (of
  // authorities), 'q' (its loading is not logged).
  CertFileCache& open(const std::string& kind) {
    cache_.reset();
    std::vector<std::string> locations;
    if (kind.find('0') == std::string::npos) locations.push_back(root_);
    if (kind.find('2') != std::string::npos) locations.push_back(second_);
    store_ = std::make_unique<CertificateStore>(root_, locations);
    if (kind.find('c') != std::string::npos)
      filter_ = boost::make_shared<AuthorityCertificateFilter>();
    LogFacility::setUp(kind.back() != 'q');
    cache_ = std::make_unique<CertFileCache>(*store_, filter_, kind[0] == 'k');
    LogFacility::setUp(true);
    return *cache_;
  }
  std::vector<std::string> index() const {  // "id=base", in order
    std::vector<std::string> ids;
    if (cache_) cache_->listIds(ids);
    for (std::string& id : ids) id += "=" + cache_->getFileBaseName(id);
    return ids;
  }
  void note(const std::string& what) { log_.push_back(what), notes_.push_back(what); }
  void note(int result) { note("-> " + std::to_string(result)); }

  // Runs calls separated by ';', noting each result. "open KIND" (see open()), "load", "lookup ID
  // PASSWORD", "only ID", "lazy ID" (the loadFlag false; noted -1 when the certificate then does
  // not decode), "fileinfo BASE", "listids", "renamefile BASE EXT NEWBASE NEWEXT ALLOWMISSING",
  // "renamecert BASE NEWBASE", "remove ID", "writekey FILE PASSWORD N|empty", "writecert FILE
  // EMAIL", "selfsigned SUBJECT EMAIL PASSWORD FLAGS", "csr SUBJECT EMAIL PASSWORD FLAGS",
  // "cleanup SUBJECT EMAIL", "install ID EMAIL|junk|garbage|nomail OVERWRITE", "request EMAIL"
  // (CertReq), "verify KEYFILE|-", "put ENTRY", "cadir", "unlink FILE", "chmod FILE MODE",
  // "umask MODE", "fsize N", "mode FILE", "chain FILE" (CertificateChain over both locations),
  // "revocation FILE all|leaf [alone]" (RevocationLists over both locations: each certificate's
  // status; alone: without the same checks again unverified and from other threads),
  // "seed" (an error on OpenSSL's queue), "queue" (noted
  // whether errors are left on it, which it then clears). "-" is the empty string.
  void script(const std::string& text) {
    std::istringstream calls(text);
    for (std::string call; std::getline(calls, call, ';');) {
      std::vector<std::string> a = words(call);
      for (std::string& word : a) word = word == "-" ? "" : word;
      a.resize(8);
      const std::string& c = a[0];
      struct stat info {};
      if (c == "lookup" || c == "only" || c == "lazy") {
        int code = -1;
        std::shared_ptr<Certificate> found =
            c == "only" ? cache_->getCertificateOnly(a[1], code, true)
                        : cache_->getCertificate(a[1], a[2], code, c != "lazy");
        note("-> " + std::to_string(found && !found->getX509() ? -1 : code) +
             (found ? " " + found->identity().email : "") +
             (found && found->getPrivateKey() ? " with key" : ""));
      }
      try {  // the errors of the file system that escape, as Boost.Filesystem's do
        if (c == "open") open(a[1]);
        if (c == "load") cache_->load();
        if (c == "fileinfo")
          note(std::to_string(cache_->getFileInfo(a[1], key_, cert_)) + " " + key_ + " " + cert_);
      } catch (const fs::filesystem_error&) {
        note("throws");
      }
      std::vector<std::string> ids = {"stale"};
      const std::size_t listed = c == "listids" ? cache_->listIds(ids) : 0;
      if (c == "listids") note(std::to_string(listed) + ":" + ::testing::PrintToString(ids));
      if (c == "renamefile")
        note(cache_->renameFile(a[1], a[2].c_str(), a[3], a[4].c_str(), a[5] == "1"));
      if (c == "renamecert") note(cache_->renameCert(a[1], a[2]));
      if (c == "remove") note(cache_->removeCert(a[1]));
      PkeyHandle empty(c == "writekey" ? EVP_PKEY_new() : nullptr);
      EVP_PKEY* key = c != "writekey"   ? nullptr
                      : a[3] == "empty" ? empty.get()
                                        : testKey(std::stoi(a[3]));
      if (c == "writekey")
        note(a[4].empty() ? cache_->writePrivateKey(path(a[1]), a[2], key)
                          : cache_->writePrivateKey(path(a[1]), a[2], key, profile(a[4])));
      if (c == "writecert") note(cache_->writeCert(path(a[1]), (pem(a[2]), userCertificate(a[2]))));
      if (c == "selfsigned")
        note(a[5].empty() ? cache_->createSelfSignedKeyPair(a[1], a[2], a[3], std::stoi(a[4]))
                          : cache_->createSelfSignedKeyPair(a[1], a[2], a[3], std::stoi(a[4]),
                                                            profile(a[5])));
      if (c == "csr")
        note(a[5].empty()
                 ? cache_->createCsr(a[1], a[2], a[3], std::stoi(a[4]), csr_)
                 : cache_->createCsr(a[1], a[2], a[3], std::stoi(a[4]), csr_, profile(a[5])));
      if (c == "describe") note(describe(a[1]));
      if (c == "chain") {  // the path above the certificate in FILE, by common names
        CertificateStore store(root_, {root_, second_});
        std::string names;
        const auto steps = CertificateChain(store).build(Certificate::createFromFile(path(a[1]), 1));
        for (const auto& step : steps) names += step->identity().name + " ";
        note("-> " + names + (CertificateChain::isComplete(steps) ? "complete" : "open"));
      }
      if (c == "revocation") {  // the statuses of the path above the certificate in FILE
        CertificateStore store(root_, {root_, second_}), none(root_, {});
        const CertificateChain chain(store);
        const std::vector<std::shared_ptr<Certificate>> steps =
            chain.build(Certificate::createFromFile(path(a[1]), 1));
        const RevocationScope scope = a[2] == "leaf" ? RevocationScope::leaf : RevocationScope::all;
        const std::string statuses = describe(RevocationLists(store, chain).check(steps, scope));
        if (a[3] == "alone") {  // one check in this thread, as when allocations are counted
          note("->" + statuses);
          continue;
        }
        // Lists that no authority of the index verified go through OpenSSL's own check of a list
        // each time: the same answers, without the signatures verified once. And one index
        // answers any number of threads at once alike.
        LogFacility::setUp(false);
        const std::string own =
            describe(RevocationLists(store, CertificateChain(none)).check(steps, scope));
        const RevocationLists shared(store, chain);
        std::vector<std::future<bool>> threads(4);
        for (std::future<bool>& thread : threads)
          thread = std::async(std::launch::async, [&] {
            bool alike = true;
            for (int round = 0; round < 20; ++round)
              alike = alike && describe(shared.check(steps, scope)) == statuses;
            return alike;
          });
        bool alike = true;
        for (std::future<bool>& thread : threads) alike = thread.get() && alike;
        LogFacility::setUp(true);
        note("->" + statuses + (own == statuses ? "" : " but OpenSSL's own check:" + own) +
             (alike ? "" : " but not in every thread"));
      }
      if (c == "cleanup") note(cache_->cleanupCsr(a[1], a[2]));
      if (c == "install") {
        const std::string text = a[2] == "junk"      ? "not a certificate"
                                 : a[2] == "garbage" ? pem("t@x") + "garbage"
                                 : a[2] == "nomail"
                                     ? toPem(makeCertificate({{{"CN", "No Mail"}}, {}}).get())
                                     : pem(a[2]);
        note(cache_->saveCert(a[1], text, a[3] == "1"));
      }
      if (c == "request") {
        csr_ = "untouched";
        std::optional<CertReq> made;
        a[2].empty() ? (void)made.emplace(a[1], csr_, 1024)
                     : (void)made.emplace(a[1], csr_, profile(a[2]));
        CertReq& request = *made;
        note(std::to_string(request.generated) + std::to_string(!!request.pkey) + " " +
             csr_.substr(0, 35));
        requestKey_ = std::move(request.pkey);
      }
      if (c == "verify") {  // the last request is signed by the key in KEYFILE, "-": the builder's
        BioPtr request(BIO_new_mem_buf(csr_.data(), -1)),
            key(a[1].empty() ? nullptr : BIO_new_file(path(a[1]).c_str(), "r"));
        X509ReqPtr req(request ? PEM_read_bio_X509_REQ(request.get(), nullptr, nullptr, nullptr)
                               : nullptr);
        PkeyHandle pkey = key ? PkeyHandle(PEM_read_bio_PrivateKey(key.get(), nullptr, nullptr,
                                                                   const_cast<char*>("pw")))
                              : std::move(requestKey_);
        note(req && pkey && X509_REQ_verify(req.get(), pkey.get()) == 1 ? "verifies"
                                                                        : "does not verify");
      }
      if (c == "seed") ERR_raise_data(ERR_LIB_USER, 1, "seed");
      if (c == "queue") note(ERR_peek_error() != 0 ? "errors left" : "no errors left");
      if (c == "queue") ERR_clear_error();
      if (c == "put") put({a[1]});
      if (c == "cadir") fs::create_directory_symlink("user", root_ + "/ca");  // the same files
      if (c == "unlink") fs::remove(path(a[1]));
      if (c == "chmod") ::chmod(path(a[1]).c_str(), std::stoi(a[2], nullptr, 8));
      if (c == "umask") ::umask(std::stoi(a[1], nullptr, 8));
      if (c == "fsize") {  // past N bytes (0: any size) a write to a file fails
        const rlimit limit{a[1] == "0" ? RLIM_INFINITY : std::stoul(a[1]), RLIM_INFINITY};
        ::signal(SIGXFSZ, SIG_IGN), ::setrlimit(RLIMIT_FSIZE, &limit);
      }
      if (c == "mode" && ::stat(path(a[1]).c_str(), &info) == 0) {
        note(a[1] + " " + std::to_string(info.st_mode & 0777));
      }
    }
  }

  // "rsa2048", "rsa3072", "rsa4096", "ec256" or "ec384" (any other: a key type out of range), then
  // "/dDAYS" and "/iITERATIONS".
  static CredentialProfile profile(const std::string& text) {
    static const std::vector<std::string> keys = {"rsa2048", "rsa3072", "rsa4096", "ec256",
                                                  "ec384"};
    CredentialProfile made;
    std::istringstream parts(text);
    std::string part;
    std::getline(parts, part, '/');
    made.key = CredentialProfile::Key(std::find(keys.begin(), keys.end(), part) - keys.begin());
    while (std::getline(parts, part, '/'))
      (part[0] == 'd' ? made.validityDays : made.kdfIterations) = std::stoi(part.substr(1));
    return made;
  }

  static std::string describe(const std::vector<RevocationStatus>& statuses) {
    std::string text;
    for (const RevocationStatus& status : statuses) {
      char date[16] = "";
      std::tm broken{};
      std::strftime(date, sizeof date, " %Y-%m-%d", ::gmtime_r(&status.revokedAt, &broken));
      text += status.state == RevocationStatus::State::good ? " good"
              : status.state == RevocationStatus::State::unknown
                  ? " unknown"
                  : " revoked " + status.reason + date;
      text += status.stale ? " (stale)" : "";
    }
    return text;
  }

  // A key file's protection as the openssl tool reads it and its mode; or a certificate's (FILE)
  // or the last request's ("-") version, key, signature, serial, validity and extensions.
  std::string describe(const std::string& name) {
    const std::string file = name.empty() ? "" : path(name);
    std::string text;
    if (fs::path(file).extension() != ".crt" && !name.empty()) {
      shell("openssl asn1parse -in " + quote(file) +
                " | grep -oE 'PBES2|hmacWithSHA256|aes-256-cbc"
                "|des-ede3-cbc|INTEGER +:[0-9A-F]+$' | tr -s ' \\n' ' '",
            &text);
      struct stat info {};
      ::stat(file.c_str(), &info);
      return text + "mode " + std::to_string(info.st_mode & 0777);
    }
    BioPtr in(name.empty() ? BIO_new_mem_buf(csr_.data(), -1) : BIO_new_file(file.c_str(), "r"));
    X509Ptr cert(name.empty() ? nullptr : PEM_read_bio_X509(in.get(), nullptr, nullptr, nullptr));
    X509ReqPtr req(cert ? nullptr : PEM_read_bio_X509_REQ(in.get(), nullptr, nullptr, nullptr));
    if (!cert && !req) return "unreadable";
    EVP_PKEY* key = cert ? X509_get0_pubkey(cert.get()) : X509_REQ_get0_pubkey(req.get());
    char group[32] = "";
    std::size_t length = 0;
    const bool ec = EVP_PKEY_get_group_name(key, group, sizeof group, &length) == 1;
    text = (ec ? std::string("EC ") + group : "RSA " + std::to_string(EVP_PKEY_get_bits(key))) +
           " " +
           OBJ_nid2ln(cert ? X509_get_signature_nid(cert.get())
                           : X509_REQ_get_signature_nid(req.get()));
    X509ExtensionsPtr requested(req ? X509_REQ_get_extensions(req.get()) : nullptr);
    const STACK_OF(X509_EXTENSION)* extensions =
        cert ? X509_get0_extensions(cert.get()) : requested.get();
    if (cert) {
      const ASN1_INTEGER* serial = X509_get0_serialNumber(cert.get());
      const std::string octets(reinterpret_cast<const char*>(ASN1_STRING_get0_data(serial)),
                               ASN1_STRING_length(serial));
      int days = 0, seconds = 0, ago = 0, agoSeconds = 0;
      ASN1_TIME_diff(&days, &seconds, X509_get0_notBefore(cert.get()),
                     X509_get0_notAfter(cert.get()));
      ASN1_TIME_diff(&ago, &agoSeconds, X509_get0_notBefore(cert.get()), nullptr);
      text = "v" + std::to_string(X509_get_version(cert.get()) + 1) + " " + text + " serial " +
             std::to_string(octets.size()) +
             (serials_.insert(octets).second ? " new " : " again ") + std::to_string(days) + "d" +
             (ago == 0 && agoSeconds < 120 ? " from now" : "");
    }
    for (int i = 0; i < sk_X509_EXTENSION_num(extensions); ++i) {
      X509_EXTENSION* extension = sk_X509_EXTENSION_value(extensions, i);
      const int nid = OBJ_obj2nid(X509_EXTENSION_get_object(extension));
      text +=
          std::string(" ") + OBJ_nid2sn(nid) + (X509_EXTENSION_get_critical(extension) ? "!" : "");
      if (nid != NID_subject_key_identifier)
        text += "=" + written([extension](BIO* b) { return X509V3_EXT_print(b, extension, 0, 0); });
    }
    return text;
  }

  // A user certificate for `email`, and its PEM, made once: signing is slow, and nothing may be
  // made while allocations are being failed.
  static X509* userCertificate(const std::string& email) {
    static std::map<std::string, X509Ptr> made;
    if (!made[email]) made[email] = makeCertificate(userRecipe(email));
    return made[email].get();
  }
  static std::map<std::string, std::string>& pems() {
    static std::map<std::string, std::string> made;
    return made;
  }
  static const std::string& pem(const std::string& email) {
    if (pems()[email].empty()) pems()[email] = toPem(userCertificate(email));
    return pems()[email];
  }

  // `text` with %D and %S (the root's and the second's cache directories), %R and %L (the root
  // and the second location) replaced, and <...> as statements quote a path.
  std::string expand(std::string text) const {
    const std::string with[] = {path(""), path("2:"), root_, second_};
    for (std::size_t at = 0; (at = text.find_first_of("%<", at)) != std::string::npos;) {
      const std::size_t which = std::string("DSRL").find(text[at + 1]), close = text.find('>', at);
      std::ostringstream quoted;
      if (text[at] == '<')
        quoted << std::quoted(expand(text.substr(at + 1, close - at - 1)), '"', '&');
      const std::string by = text[at] == '<' ? quoted.str() : which < 4 ? with[which] : "%";
      text.replace(at, text[at] == '<' ? close - at + 1 : which < 4 ? 2 : 1, by);
      at += by.size();
    }
    return text;
  }

  std::string dir_, root_, second_;
  std::vector<std::string> log_, notes_;        // statements and results; the results alone
  std::map<std::string, std::string> written_;  // content -> the file put() wrote it to
  std::unique_ptr<CertificateStore> store_;
  boost::shared_ptr<CertificateFilter> filter_ = boost::make_shared<UserCertificateFilter>();
  std::unique_ptr<CertFileCache> cache_;
  std::string key_ = "k?", cert_ = "c?", csr_;  // what the script's calls fill in
  PkeyHandle requestKey_;
  std::set<std::string> serials_;  // of the certificates described
};

}  // namespace test
}  // namespace tavik

#endif  // TAVIK_TESTS_SUPPORT_STORETEST_H_

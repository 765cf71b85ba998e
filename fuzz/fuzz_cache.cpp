// One fuzz target for what the cache takes from outside. The first byte says what the rest is:
// 0 or 1 a certificate file or an authority's reply, 2 a password, a certificate and a key,
// 3 a file name, 4 a store (see store()), 5 a revocation list file. Each mode checks properties,
// not only that nothing crashes. Built with TAVIK_FUZZ_REPLAY it is a program that runs the files
// it is given.
#include <openssl/err.h>
#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <cstdio>
#include <fstream>
#include <set>

#include "base/certificateidentity.h"
#include "base/filename.h"
#include "crypto/certificatefilecache.h"
#include "crypto/revocationlists.h"
#include "log/log.h"

namespace tavik {
namespace {

namespace fs = boost::filesystem;

void check(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "property violated: %s\n", what);
  std::abort();
}

// The input read front to back; past its end, bytes are 0 and strings come short.
struct Input {
  std::string data;
  std::size_t at = 0;
  std::size_t byte() { return at < data.size() ? std::uint8_t(data[at++]) : 0; }
  std::size_t length() { return byte() | byte() << 8; }  // little-endian
  std::string bytes(std::size_t n) {
    return data.substr(std::exchange(at, std::min(at + n, data.size())), n);
  }
  std::string rest() { return bytes(data.size()); }
};

// A path in this process's scratch directory; with `bytes`, the file is written first.
std::string scratch(const std::string& name, const std::string* bytes = nullptr) {
  static const fs::path dir = fs::temp_directory_path() / fs::unique_path("tavik-fuzz-%%%%%%%%");
  fs::create_directories(dir);
  if (bytes != nullptr) std::ofstream((dir / name).c_str(), std::ios::binary) << *bytes;
  return (dir / name).string();
}

std::string who(const CertificateIdentity& id) {
  return std::to_string(id.authority) + "|" + id.email + "|" + id.name;
}

// What every read of one certificate agrees on: its bytes and whom it identifies.
std::string facts(const Certificate& cert) { return cert.der() + "|" + who(cert.identity()); }

void certificate(const std::string& bytes) {
  const std::string path = scratch("input.crt", &bytes);
  std::shared_ptr<Certificate> whole = Certificate::createFromFile(path, true),
                               lazy = Certificate::createFromFile(path, false);
  check(!whole || whole->getX509() != nullptr, "a whole read has no X509");
  check(!whole || !lazy || facts(*whole) == facts(*lazy), "whole and lazy reads differ");
  // The deferred decoding may fail; when it does not, it names whom the lazy read found.
  X509* x509 = lazy ? lazy->getX509() : nullptr;
  CertificateIdentity id;
  if (x509 && readCertificateIdentity(X509_get_subject_name(x509), X509_get0_extensions(x509), id))
    check(who(id) == who(lazy->identity()), "the deferred decoding names someone else");
  // An accepted reply is saved as the next scan reads it back: the same certificate and identity.
  std::shared_ptr<Certificate> reply = Certificate::createFromBase64(bytes);
  if (!reply) return;
  check(reply->getX509() && reply->saveToFile(scratch("saved.crt")), "a reply does not save");
  whole = Certificate::createFromFile(scratch("saved.crt"), true);
  lazy = Certificate::createFromFile(scratch("saved.crt"), false);
  check(whole && facts(*whole) == facts(*reply), "a saved reply reads back different");
  check(lazy && facts(*lazy) == facts(*reply), "a saved reply is found as someone else");
}

void keyPair(Input& in) {
  const std::string password = in.bytes(in.byte()), cert = in.bytes(in.length());
  const bool loadFlag = in.byte() & 1;
  const std::string key = in.rest();
  std::shared_ptr<Certificate> read = Certificate::createFromFileWithKey(
      scratch("pair.crt", &cert), scratch("pair.key", &key), password, loadFlag);
  check(!read || (read->getX509() && read->getPrivateKey() &&
                  X509_check_private_key(read->getX509(), read->getPrivateKey())),
        "a certificate comes with a key that is not its own");
}

void fileName(const std::string& name) {
  for (const std::string& original : {name, decodeFilename(name)}) {
    const std::string encoded = encodeFilename(original);
    check(decodeFilename(encoded) == original, "decodeFilename does not invert encodeFilename");
    check(encoded.empty() == original.empty() && encoded[0] != '.', "an empty or hidden name");
    check(encoded.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                    "0123456789._-@+%") == std::string::npos,
          "a byte outside the file-name set");
  }
}

// Flags (bit 0 keys, 1 authorities, 2 a second location, 3 the lookups' load flag), a password,
// then entries: kind (bits 0-1 file, directory, link, FIFO; bit 2 in the second location; bit 3
// in the location itself), name (1 length byte), content (2 length bytes).
void store(Input& in) {
  const std::size_t flags = in.byte();
  const std::string password = in.bytes(in.byte()), top = scratch("store");
  boost::shared_ptr<CertificateFilter> filter(new UserCertificateFilter);
  if (flags & 2) filter.reset(new AuthorityCertificateFilter);
  std::vector<std::string> locations = {top + "/1"};
  if (flags & 4) locations.push_back(top + "/2");
  fs::remove_all(top);
  std::set<std::string> made;  // names in the cache directories, the extension in lower case
  while (in.at < in.data.size()) {
    const std::size_t kind = in.byte();
    const std::string name = in.bytes(in.byte()), content = in.bytes(in.length());
    const fs::path dir = fs::path(kind & 4 ? locations.back() : locations[0]) /
                         (kind & 8 ? "" : filter->subdirectory());
    // Nothing is made outside the store: not through a link, nor by a name that is a path.
    if (name.empty() || name == "." || name == ".." || fs::is_symlink(dir) ||
        name.find_first_of(std::string("/\0", 2)) != name.npos)
      continue;
    boost::system::error_code error;  // what the input made before may stand in the way
    fs::create_directories(dir, error);
    fs::remove(dir / name, error);  // an entry replaces one of its name, even a link or FIFO
    if ((kind & 3) == 0) std::ofstream((dir / name).c_str(), std::ios::binary) << content;
    if ((kind & 3) == 1) fs::create_directory(dir / name, error);
    if ((kind & 3) == 2) fs::create_symlink(content, dir / name, error);
    if ((kind & 3) == 3) ::mkfifo((dir / name).c_str(), 0600);
    const std::size_t stem = name.size() > 4 ? name.size() - 4 : 0;
    if (!(kind & 8)) made.insert(name.substr(0, stem) + to_lowercase(name.substr(stem)));
  }
  CertificateStore certificates(locations[0], locations);
  const bool withKeys = flags & 1, loadFlag = flags & 8;
  try {
    CertFileCache cache(certificates, filter, withKeys);
    std::vector<std::string> ids, again;
    check(cache.listIds(ids) == ids.size() && std::is_sorted(ids.begin(), ids.end()), "ids listed");
    for (const std::string& id : ids) {
      const std::string base = cache.getFileBaseName(id);
      check(made.count(base + ".crt") && (withKeys || id == base), "an indexed file was not made");
      for (const bool only : {false, true}) {
        int code = -1;
        const auto cert = only ? cache.getCertificateOnly(id, code, loadFlag)
                               : cache.getCertificate(id, password, code, loadFlag);
        check(code == 0 || (code >= (only ? 1000100 : 1000101) && code <= 1000104),
              "a lookup code that is no LookupError");
        check(!cert || (withKeys ? cert->getPrivateKey() && cert->getX509()
                                 : !loadFlag || cert->getX509()),
              "a lookup gave less than it should");
      }
    }
    int code = -1;
    check(!cache.getFileBaseName("\x01").empty() ||
              (!cache.getCertificate("\x01", password, code, loadFlag) && code == 1000100),
          "an absent identifier is not reported as such");
    cache.load();
    cache.listIds(again);
    check(std::includes(again.begin(), again.end(), ids.begin(), ids.end()), "a reload lost an id");
  } catch (const fs::filesystem_error&) {  // an entry of unreadable type ends a scan, by design
  }
}

// Whatever read() takes reads back as the same lists from their DER and their PEM, leaves
// OpenSSL's queue as it was, and is what a store's index takes from the same file.
void revocationLists(const std::string& bytes) {
  using Lists = std::vector<std::shared_ptr<const RevocationList>>;
  ERR_clear_error();
  Lists lists, again;
  const std::string refusal = RevocationList::read(bytes, lists);
  check(refusal.empty() != lists.empty(), "a list read and refused, or neither");
  check(ERR_peek_error() == 0, "reading a list leaves errors on OpenSSL's queue");
  for (const std::shared_ptr<const RevocationList>& list : lists) {
    for (const std::string& form : {list->der(), list->pem()}) {
      check(RevocationList::read(form, again).empty() && again.size() == 1 &&
                again[0]->der() == list->der() && again[0]->issuer() == list->issuer() &&
                RevocationList::compare(*again[0], *list) == 0,
            "a list does not read back as itself");
    }
  }
  const std::string top = scratch("lists");
  fs::remove_all(top);
  fs::create_directories(top + "/crl");
  std::ofstream((top + "/crl/x.crl").c_str(), std::ios::binary) << bytes;
  CertificateStore store(top, {top}), none(top, {});
  const RevocationLists index(store, CertificateChain(none));
  const bool used = lists.size() == 1 && lists[0]->unusedKind().empty();
  check(index.lists().size() == (used ? 1u : 0u) &&
            (!used || index.lists()[0].list->der() == lists[0]->der()),
        "the store's index and read() disagree");
}

int run(Input in) {
  static const bool logging =
      (LogFacility::setLevels(0x3E), LogFacility::setSink([](auto&) {}), true);
  const std::size_t mode = in.byte();
  if (mode <= 1) certificate(in.rest());
  if (mode == 2) keyPair(in);
  if (mode == 3) fileName(in.rest());
  if (mode == 4) store(in);
  if (mode == 5) revocationLists(in.rest());
  return logging ? 0 : 1;
}

}  // namespace
}  // namespace tavik

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  return tavik::run({std::string(reinterpret_cast<const char*>(data), size)});
}

#ifdef TAVIK_FUZZ_REPLAY
int main(int argc, char** argv) {  // each argument a file, run as one input
  for (int i = 1; i < argc; ++i)
    tavik::run({std::string(std::istreambuf_iterator<char>(std::ifstream(argv[i]).rdbuf()), {})});
  tavik::fs::remove_all(tavik::fs::path(tavik::scratch("x")).parent_path());
  std::printf("%d inputs replayed, every property held\n", argc - 1);
  return argc > 1 ? 0 : 1;
}
#endif

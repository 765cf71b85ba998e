#include <sys/stat.h>

#include <boost/filesystem/operations.hpp>
#include <boost/make_shared.hpp>
#include <iostream>

#include "crypto/certificatefilecache.h"

int main(int argc, char** argv) {
  ::umask(077);  // before any key is written: no key file is ever readable by others
  const std::string root = argc > 1 ? argv[1] : "certstore";
  boost::filesystem::create_directories(root + "/user");  // the cache makes no directories
  tavik::CertificateStore store(root, {root});
  auto users = boost::make_shared<tavik::UserCertificateFilter>();
  tavik::CredentialProfile profile;  // RSA 3072, SHA-256, an AES-256 key file: what TLS accepts
  tavik::CertFileCache(store, users, true)
      .createSelfSignedKeyPair("", "me@example.org", "pw", 0, profile);
  tavik::CertFileCache cache(store, users, true);  // a new cache indexes the new pair
  int error = 0;
  auto cert = cache.getCertificate("me@example.org", "pw", error, true);
  std::cout << (cert && cert->getPrivateKey() ? "certificate and key loaded\n" : "not found\n");
  return cert ? 0 : 1;
}

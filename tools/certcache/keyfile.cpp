#include "keyfile.h"

#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <string>
#include <vector>

#include "base/filecontents.h"
#include "base/pemblocks.h"
#include "crypto/certificatefilecache.h"
#include "resultwords.h"
#include "toolerror.h"

namespace tavik {
namespace cli {

namespace {

using X509SigPtr = OpenSSLPtr<X509_SIG, X509_SIG_free>;
using Pbe2ParamPtr = OpenSSLPtr<PBE2PARAM, PBE2PARAM_free>;
using Pbkdf2ParamPtr = OpenSSLPtr<PBKDF2PARAM, PBKDF2PARAM_free>;

// Fewer PBKDF2 iterations than this make guessing a key file's password cheap.
constexpr long kLeastIterations = 10000;

// The ciphers that no key file should be encrypted with any more, by the names
// people know them by; null for the others.
const char* weakCipherName(int nid) {
  switch (nid) {
    case NID_des_ede3_cbc:
      return "Triple-DES";
    case NID_des_cbc:
      return "DES";
    case NID_rc2_cbc:
      return "RC2";
    default:
      return nullptr;
  }
}

// The parameters of `algorithm` as the ASN.1 type `item`, owned; null when
// they are not that type.
template <typename T, void (*Free)(T*)>
OpenSSLPtr<T, Free> unpackParameters(const X509_ALGOR* algorithm, const ASN1_ITEM* item) {
  int type = V_ASN1_UNDEF;
  const void* value = nullptr;
  X509_ALGOR_get0(nullptr, &type, &value, algorithm);
  if (type != V_ASN1_SEQUENCE || value == nullptr) return nullptr;
  return OpenSSLPtr<T, Free>(
      static_cast<T*>(ASN1_item_unpack(static_cast<const ASN1_STRING*>(value), item)));
}

int algorithmNid(const X509_ALGOR* algorithm) {
  const ASN1_OBJECT* name = nullptr;
  X509_ALGOR_get0(&name, nullptr, nullptr, algorithm);
  return OBJ_obj2nid(name);
}

// The weak parts of a PKCS#8 "ENCRYPTED PRIVATE KEY": its cipher and its
// PBKDF2 iterations under PBES2; any older scheme by its name.
std::vector<std::string> pkcs8Weaknesses(const unsigned char* der, long length) {
  X509SigPtr encrypted(d2i_X509_SIG(nullptr, &der, length));
  if (!encrypted) return {};
  const X509_ALGOR* scheme = nullptr;
  X509_SIG_get0(encrypted.get(), &scheme, nullptr);
  if (algorithmNid(scheme) != NID_pbes2) {
    const ASN1_OBJECT* name = nullptr;
    X509_ALGOR_get0(&name, nullptr, nullptr, scheme);
    char text[80];
    if (OBJ_obj2txt(text, sizeof text, name, 0) <= 0) return {"encrypted with an old scheme"};
    return {std::string("encrypted with the old scheme ") + text};
  }
  const Pbe2ParamPtr parameters =
      unpackParameters<PBE2PARAM, PBE2PARAM_free>(scheme, ASN1_ITEM_rptr(PBE2PARAM));
  if (!parameters) return {};
  std::vector<std::string> weaknesses;
  if (const char* cipher = weakCipherName(algorithmNid(parameters->encryption))) {
    weaknesses.push_back(std::string("encrypted with ") + cipher);
  }
  if (algorithmNid(parameters->keyfunc) == NID_id_pbkdf2) {
    const Pbkdf2ParamPtr derivation = unpackParameters<PBKDF2PARAM, PBKDF2PARAM_free>(
        parameters->keyfunc, ASN1_ITEM_rptr(PBKDF2PARAM));
    const long iterations = derivation ? ASN1_INTEGER_get(derivation->iter) : -1;
    if (iterations >= 0 && iterations < kLeastIterations) {
      weaknesses.push_back("protected with " + std::to_string(iterations) + " PBKDF2 iterations");
    }
  }
  return weaknesses;
}

// The weak parts of a traditional PEM key ("Proc-Type: 4,ENCRYPTED"): its
// cipher, and a key derived from the password by one round of MD5 whatever the
// cipher.
std::vector<std::string> traditionalWeaknesses(char* header) {
  EVP_CIPHER_INFO info;
  if (PEM_get_EVP_CIPHER_INFO(header, &info) != 1) return {};
  if (info.cipher == nullptr) return {"not encrypted"};
  std::vector<std::string> weaknesses;
  if (const char* cipher = weakCipherName(EVP_CIPHER_get_nid(info.cipher))) {
    weaknesses.push_back(std::string("encrypted with ") + cipher);
  }
  weaknesses.push_back("protected with one MD5 round of traditional PEM encryption");
  return weaknesses;
}

}  // namespace

PkeyHandle readKeyFile(const std::string& path, const std::string& password) {
  BioPtr file(BIO_new_file(path.c_str(), "r"));
  if (!file) {
    ERR_clear_error();
    throw ToolError(kExitIoError, "cannot read the key file " + path);
  }
  // The password reaches OpenSSL as the default callback's pass phrase, as the
  // cache's writer gave it.
  PkeyHandle key(
      PEM_read_bio_PrivateKey(file.get(), nullptr, nullptr, const_cast<char*>(password.c_str())));
  ERR_clear_error();
  if (!key) {
    throw ToolError(lookupExitStatus(CertFileCache::kKeyUnreadable),
                    "the key in " + path + " cannot be read with this password");
  }
  return key;
}

bool isKeyOf(X509* certificate, const EVP_PKEY* key) {
  const EVP_PKEY* certificateKey = certificate == nullptr ? nullptr : X509_get0_pubkey(certificate);
  const bool same = certificateKey != nullptr && EVP_PKEY_eq(certificateKey, key) == 1;
  ERR_clear_error();
  return same;
}

std::string keyFileWeakness(const std::string& path) {
  std::string contents;
  if (!readSmallRegularFile(path, kMaxCredentialFileSize, contents)) return "";
  std::vector<PemBlock> blocks;
  readPemBlocks(contents, blocks);
  if (blocks.empty()) return "";

  const std::string& kind = blocks.front().label;
  const std::string privateKey = "PRIVATE KEY";
  std::vector<std::string> weaknesses;
  if (kind == PEM_STRING_PKCS8) {
    weaknesses = pkcs8Weaknesses(reinterpret_cast<const unsigned char*>(blocks.front().der.data()),
                                 static_cast<long>(blocks.front().der.size()));
  } else if (kind.size() >= privateKey.size() &&
             kind.compare(kind.size() - privateKey.size(), privateKey.size(), privateKey) == 0) {
    weaknesses = traditionalWeaknesses(blocks.front().header.data());
  }
  ERR_clear_error();
  std::string words;
  for (const std::string& weakness : weaknesses) {
    words += (words.empty() ? "" : " and ") + weakness;
  }
  return words;
}

}  // namespace cli
}  // namespace tavik

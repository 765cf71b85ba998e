#include "certificateinput.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/pkcs7.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cctype>

#include "base/opensslutil.h"
#include "base/pemblocks.h"
#include "toolerror.h"

namespace tavik {
namespace cli {

namespace {

using Pkcs7Ptr = OpenSSLPtr<PKCS7, PKCS7_free>;

const char kPemStart[] = "-----BEGIN ";
const char kPkcs7[] = "PKCS#7 data that holds no certificate";

[[noreturn]] void notACertificate(const std::string& what) {
  throw ToolError(kExitDataError, "the input is not a certificate: " + what);
}

// True when `der` is exactly one object of the type that `Decode` reads.
template <typename T, T* (*Decode)(T**, const unsigned char**, long), void (*Free)(T*)>
bool decodesWhole(const std::string& der) {
  const auto* start = reinterpret_cast<const unsigned char*>(der.data());
  const unsigned char* next = start;
  OpenSSLPtr<T, Free> object(Decode(nullptr, &next, static_cast<long>(der.size())));
  ERR_clear_error();
  return object != nullptr && next == start + der.size();
}

std::string encodeBase64(const std::string& bytes) {
  std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&text[0]),
                                     reinterpret_cast<const unsigned char*>(bytes.data()),
                                     static_cast<int>(bytes.size()));
  text.resize(static_cast<std::size_t>(std::max(length, 0)));
  return text;
}

// Bare base64, line breaks and surrounding white space allowed; false when
// `text` is not that.
bool decodeBase64(const std::string& text, std::string& bytes) {
  std::string compact;
  for (const char c : text) {
    if (std::isspace(static_cast<unsigned char>(c)) == 0) compact.push_back(c);
  }
  if (compact.empty() || compact.size() % 4 != 0) return false;
  bytes.assign(compact.size() / 4 * 3, '\0');
  const int length = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(&bytes[0]),
                                     reinterpret_cast<const unsigned char*>(compact.data()),
                                     static_cast<int>(compact.size()));
  if (length < 0) return false;
  const std::size_t padding = compact.size() - compact.find_last_not_of('=') - 1;
  if (padding > 2) return false;
  bytes.resize(static_cast<std::size_t>(length) - padding);
  return true;
}

// What a DER object that is no certificate is, in words.
std::string describeDer(const std::string& der) {
  if (decodesWhole<X509, d2i_X509, X509_free>(der)) return "a certificate this tool cannot read";
  if (decodesWhole<X509_REQ, d2i_X509_REQ, X509_REQ_free>(der)) return "a certificate request";
  if (decodesWhole<X509_CRL, d2i_X509_CRL, X509_CRL_free>(der)) return "a revocation list";
  if (decodesWhole<PKCS7, d2i_PKCS7, PKCS7_free>(der)) return kPkcs7;
  if (decodesWhole<PKCS12, d2i_PKCS12, PKCS12_free>(der)) return "a PKCS#12 file";
  if (decodesWhole<X509_SIG, d2i_X509_SIG, X509_SIG_free>(der)) return "an encrypted private key";
  if (decodesWhole<EVP_PKEY, d2i_AutoPrivateKey, EVP_PKEY_free>(der)) return "a private key";
  if (decodesWhole<EVP_PKEY, d2i_PUBKEY, EVP_PKEY_free>(der)) return "a public key";
  return "neither PEM nor DER of anything known, nor base64 of it";
}

// What a PEM block that is no certificate is, by its label.
std::string describePemLabel(const std::string& label) {
  const auto endsWith = [&label](const std::string& tail) {
    return label.size() >= tail.size() &&
           label.compare(label.size() - tail.size(), tail.size(), tail) == 0;
  };
  if (endsWith("CERTIFICATE REQUEST")) return "a certificate request";
  if (endsWith("PRIVATE KEY")) return "a private key";
  if (endsWith("PUBLIC KEY")) return "a public key";
  if (label == "X509 CRL") return "a revocation list";
  return "a PEM block labelled " + label;
}

// The certificates of a PKCS#7 SignedData (a .p7b or .p7c file, the "certs-only"
// form authorities hand chains out in); false when `der` is no such thing.
bool addPkcs7(const std::string& der, CertificateInput& input) {
  const auto* at = reinterpret_cast<const unsigned char*>(der.data());
  Pkcs7Ptr container(d2i_PKCS7(nullptr, &at, static_cast<long>(der.size())));
  ERR_clear_error();
  if (!container || at != reinterpret_cast<const unsigned char*>(der.data()) + der.size() ||
      PKCS7_type_is_signed(container.get()) == 0 || container->d.sign == nullptr) {
    return false;
  }
  const STACK_OF(X509)* certificates = container->d.sign->cert;
  for (int i = 0; i < sk_X509_num(certificates); ++i) {
    unsigned char* bytes = nullptr;
    const int length = i2d_X509(sk_X509_value(certificates, i), &bytes);
    const OpenSSLBytesPtr owner(bytes);
    std::shared_ptr<Certificate> certificate =
        length > 0 ? Certificate::createFromContents(
                         std::string_view(reinterpret_cast<char*>(bytes), length), true)
                   : nullptr;
    if (!certificate)
      notACertificate("it holds PKCS#7 data with a certificate that does not decode");
    input.certificates.push_back(std::move(certificate));
  }
  ERR_clear_error();
  if (sk_X509_num(certificates) <= 0) input.others.push_back(kPkcs7);
  return true;
}

void addDer(const std::string& der, CertificateInput& input) {
  std::shared_ptr<Certificate> certificate = Certificate::createFromBase64(encodeBase64(der));
  if (certificate) {
    input.certificates.push_back(std::move(certificate));
  } else if (!addPkcs7(der, input)) {
    input.others.push_back(describeDer(der));
  }
}

void readPemInput(const std::string& text, CertificateInput& input) {
  std::vector<PemBlock> blocks;
  const bool ended = readPemBlocks(text, blocks);
  for (const PemBlock& block : blocks) {
    // A key pasted into a bundle by mistake, or a certificate that does not
    // decode, refuses the whole input: nothing in it is silently dropped.
    const std::string what = describePemLabel(block.label);
    if (block.label == "CERTIFICATE" || block.label == "X509 CERTIFICATE") {
      std::shared_ptr<Certificate> certificate =
          Certificate::createFromBase64(encodeBase64(block.der));
      if (!certificate) notACertificate("it holds a CERTIFICATE block that does not decode");
      input.certificates.push_back(std::move(certificate));
    } else if (block.label == "PKCS7") {
      if (!addPkcs7(block.der, input))
        notACertificate("it holds a PKCS7 block that does not decode");
    } else if (what == "a private key") {
      notACertificate("it holds a private key, which install never takes");
    } else {
      input.others.push_back(what);
    }
  }
  if (!ended) notACertificate("it holds a PEM block that is broken or cut short");
}

}  // namespace

CertificateInput readCertificateInput(const std::string& bytes) {
  CertificateInput input;
  if (bytes.find_first_not_of(" \t\r\n") == std::string::npos) notACertificate("it is empty");
  std::string der;
  if (bytes.find(kPemStart) != std::string::npos) {
    readPemInput(bytes, input);
  } else if (decodeBase64(bytes, der)) {
    addDer(der, input);
  } else {
    addDer(bytes, input);
  }
  if (input.certificates.empty()) {
    std::string held;
    for (const std::string& other : input.others) held += (held.empty() ? "" : ", ") + other;
    notACertificate(held.empty() ? "it holds no PEM block that can be read" : "it holds " + held);
  }
  return input;
}

std::string base64Of(const Certificate& certificate) { return encodeBase64(certificate.der()); }

}  // namespace cli
}  // namespace tavik

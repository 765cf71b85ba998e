#include "crypto/certreq.h"

#include <openssl/bn.h>
#include <openssl/pem.h>
#include <openssl/rand.h>

#include "crypto/cachelog.h"

namespace tavik {

namespace {

// The fixed validity of the original self-signed certificates, whatever the
// day they are made.
constexpr char kSelfSignedNotBefore[] = "20100101000000Z";
constexpr char kSelfSignedNotAfter[] = "20370101000000Z";

// Serials of 16 octets: the top bit clear keeps them positive, the next one set
// keeps them 16 octets long and never zero; the other 126 bits are random, so
// two certificates of one issuer never share a serial.
constexpr int kSerialOctets = 16;

using BignumPtr = OpenSSLPtr<BIGNUM, BN_free>;

bool setRandomSerial(X509* cert) {
  unsigned char octets[kSerialOctets];
  if (RAND_bytes(octets, sizeof octets) != 1) return false;
  octets[0] = static_cast<unsigned char>((octets[0] & 0x7F) | 0x40);
  BignumPtr serial(BN_bin2bn(octets, sizeof octets, nullptr));
  return serial && BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(cert)) != nullptr;
}

bool addExtensions(X509* cert, const std::string& email, const CredentialProfile& profile) {
  X509ExtensionsPtr extensions = credentialExtensions(email, profile, cert);
  if (!extensions) return false;
  for (int i = 0; i < sk_X509_EXTENSION_num(extensions.get()); ++i) {
    if (X509_add_ext(cert, sk_X509_EXTENSION_value(extensions.get(), i), -1) != 1) return false;
  }
  return true;
}

// The steps of both kinds of self-signed certificate, in their order; the
// profile's steps stand where the original ones would.
bool buildCertificate(const std::string& email, EVP_PKEY* key, const CredentialProfile* profile,
                      X509Ptr& cert) {
  cert.reset(X509_new());
  if (!cert) return false;
  if (profile != nullptr && X509_set_version(cert.get(), X509_VERSION_3) != 1) return false;
  X509_NAME* name = X509_get_subject_name(cert.get());
  if (X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                                 reinterpret_cast<const unsigned char*>(email.c_str()), -1, -1,
                                 0) != 1) {
    return false;
  }
  if (X509_set_subject_name(cert.get(), name) != 1 || X509_set_issuer_name(cert.get(), name) != 1) {
    return false;
  }
  if (X509_set_pubkey(cert.get(), key) != 1) {
    TAVIK_LOG_ERROR(cacheLogHandle()) << "Can't set pubkey";
    return false;
  }
  const bool serialSet = profile != nullptr
                             ? setRandomSerial(cert.get())
                             : ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 1) == 1;
  if (!serialSet) {
    TAVIK_LOG_ERROR(cacheLogHandle()) << "Can't set serial number";
    return false;
  }
  const bool notBeforeSet =
      profile != nullptr
          ? X509_gmtime_adj(X509_getm_notBefore(cert.get()), 0) != nullptr
          : ASN1_TIME_set_string(X509_getm_notBefore(cert.get()), kSelfSignedNotBefore) == 1;
  if (!notBeforeSet) {
    TAVIK_LOG_ERROR(cacheLogHandle()) << "Cant set not before property in certificate";
    return false;
  }
  const bool notAfterSet =
      profile != nullptr
          ? X509_time_adj_ex(X509_getm_notAfter(cert.get()), profile->validityDays, 0, nullptr) !=
                nullptr
          : ASN1_TIME_set_string(X509_getm_notAfter(cert.get()), kSelfSignedNotAfter) == 1;
  if (!notAfterSet) {
    TAVIK_LOG_ERROR(cacheLogHandle()) << "Can't set not after property in certificate";
    return false;
  }
  if (profile != nullptr && !addExtensions(cert.get(), email, *profile)) {
    TAVIK_LOG_ERROR(cacheLogHandle()) << "Can't add extensions to certificate";
    return false;
  }
  const EVP_MD* digest = profile != nullptr ? profileDigest(*profile) : EVP_sha256();
  return X509_sign(cert.get(), key, digest) != 0;
}

}  // namespace

CertReq::CertReq(const std::string& email, std::string& csr, int /*keyBits*/) : generated(false) {
  build(email, csr, nullptr);
}

CertReq::CertReq(const std::string& email, std::string& csr, const CredentialProfile& profile)
    : generated(false) {
  build(email, csr, &profile);
}

void CertReq::build(const std::string& email, std::string& csr, const CredentialProfile* profile) {
  pkey =
      profile != nullptr ? generateProfileKey(*profile) : OpenSSLUtil::generateRsaPkey(kRsaKeyBits);
  if (!pkey) {
    TAVIK_LOG_ERROR(cacheLogHandle()) << "Can't create pkey";
    return;
  }
  X509ReqPtr request(X509_REQ_new());
  if (!request) {
    TAVIK_LOG_ERROR(cacheLogHandle()) << "Can't create request";
    return;
  }
  bool made = makeReq(request.get(), pkey.get(), email, MBSTRING_UTF8);
  if (made && profile != nullptr) {
    // Asking for the extensions is part of making the profile's request.
    X509ExtensionsPtr extensions = credentialExtensions(email, *profile, nullptr);
    made = extensions && X509_REQ_add_extensions(request.get(), extensions.get()) == 1;
  }
  if (!made) {
    TAVIK_LOG_ERROR(cacheLogHandle()) << "Can't make request";
    return;
  }
  const EVP_MD* digest = profile != nullptr ? profileDigest(*profile) : EVP_sha1();
  if (X509_REQ_sign(request.get(), pkey.get(), digest) <= 0) {
    TAVIK_LOG_ERROR(cacheLogHandle()) << "Can't sign locally";
    return;
  }
  BioPtr buffer(BIO_new(BIO_s_mem()));
  // The buffer's failures have no message of their own: the build ends as failed.
  if (!buffer) return;
  BIO_set_close(buffer.get(), BIO_CLOSE);
  if (PEM_write_bio_X509_REQ(buffer.get(), request.get()) != 1) return;
  char* text = nullptr;
  const long length = BIO_get_mem_data(buffer.get(), &text);
  csr.assign(text, static_cast<std::size_t>(length));
  TAVIK_LOG_DEBUG(cacheLogHandle()) << "Created certificate request: \n" << csr;
  generated = true;
}

bool CertReq::makeReq(X509_REQ* req, EVP_PKEY* key, const std::string& email, unsigned long type) {
  if (X509_REQ_set_version(req, 0) != 1) {
    TAVIK_LOG_ERROR(cacheLogHandle()) << "Can't set version";
    return false;
  }
  X509NamePtr name(X509_NAME_new());
  if (!name) return false;
  if (X509_NAME_add_entry_by_txt(name.get(), "emailAddress", static_cast<int>(type),
                                 reinterpret_cast<const unsigned char*>(email.c_str()), -1, -1,
                                 0) != 1) {
    return false;
  }
  if (X509_REQ_set_subject_name(req, name.get()) != 1) return false;
  if (X509_REQ_set_pubkey(req, key) != 1) {
    TAVIK_LOG_ERROR(cacheLogHandle()) << "Can't set pubkey";
    return false;
  }
  TAVIK_LOG_DEBUG(cacheLogHandle()) << "Success making requests";
  return true;
}

bool buildSelfSignedCertificate(const std::string& email, EVP_PKEY* key, X509Ptr& cert) {
  return buildCertificate(email, key, nullptr, cert);
}

bool buildSelfSignedCertificate(const std::string& email, EVP_PKEY* key,
                                const CredentialProfile& profile, X509Ptr& cert) {
  return buildCertificate(email, key, &profile, cert);
}

}  // namespace tavik

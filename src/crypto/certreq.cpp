// The statements of this file name it by the path under which it registers.
#define TAVIK_LOG_SOURCE_FILE "src/crypto/certreq.cpp"

#include "crypto/certreq.h"

#include <openssl/pem.h>

#include "log/log.h"

namespace tavik {

namespace {

LogHandle logHandle(nullptr, 0, 2);
LogRegister logRegister(logHandle, TAVIK_LOG_SOURCE_FILE, __LINE__, 8);

// The fixed validity of self-signed certificates, whatever the day they are made.
constexpr char kSelfSignedNotBefore[] = "20100101000000Z";
constexpr char kSelfSignedNotAfter[] = "20370101000000Z";

}  // namespace

CertReq::CertReq(const std::string& email, std::string& csr, int /*keyBits*/) : generated(false) {
  pkey = OpenSSLUtil::generateRsaPkey(kRsaKeyBits);
  if (!pkey) {
    TAVIK_LOG_ERROR(logHandle) << "Can't create pkey";
    return;
  }
  X509ReqPtr request(X509_REQ_new());
  if (!request) {
    TAVIK_LOG_ERROR(logHandle) << "Can't create request";
    return;
  }
  if (!makeReq(request.get(), pkey.get(), email, MBSTRING_UTF8)) {
    TAVIK_LOG_ERROR(logHandle) << "Can't make request";
    return;
  }
  if (X509_REQ_sign(request.get(), pkey.get(), EVP_sha1()) <= 0) {
    TAVIK_LOG_ERROR(logHandle) << "Can't sign locally";
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
  TAVIK_LOG_DEBUG(logHandle) << "Created certificate request: \n" << csr;
  generated = true;
}

bool CertReq::makeReq(X509_REQ* req, EVP_PKEY* key, const std::string& email, unsigned long type) {
  if (X509_REQ_set_version(req, 0) != 1) {
    TAVIK_LOG_ERROR(logHandle) << "Can't set version";
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
    TAVIK_LOG_ERROR(logHandle) << "Can't set pubkey";
    return false;
  }
  TAVIK_LOG_DEBUG(logHandle) << "Success making requests";
  return true;
}

bool buildSelfSignedCertificate(const std::string& email, EVP_PKEY* key, X509Ptr& cert) {
  cert.reset(X509_new());
  if (!cert) return false;
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
    TAVIK_LOG_ERROR(logHandle) << "Can't set pubkey";
    return false;
  }
  if (ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 1) != 1) {
    TAVIK_LOG_ERROR(logHandle) << "Can't set serial number";
    return false;
  }
  if (ASN1_TIME_set_string(X509_getm_notBefore(cert.get()), kSelfSignedNotBefore) != 1) {
    TAVIK_LOG_ERROR(logHandle) << "Cant set not before property in certificate";
    return false;
  }
  if (ASN1_TIME_set_string(X509_getm_notAfter(cert.get()), kSelfSignedNotAfter) != 1) {
    TAVIK_LOG_ERROR(logHandle) << "Can't set not after property in certificate";
    return false;
  }
  if (X509_sign(cert.get(), key, EVP_sha256()) == 0) return false;
  return true;
}

}  // namespace tavik

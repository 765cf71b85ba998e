#include "base/certificateidentity.h"

#include <openssl/err.h>
#include <openssl/x509v3.h>

#include "base/opensslutil.h"

namespace tavik {

namespace {

// The text of an ASN.1 string as UTF-8; "" when it cannot be converted.
std::string utf8Text(const ASN1_STRING* value) {
  unsigned char* converted = nullptr;
  const int length = ASN1_STRING_to_UTF8(&converted, value);
  OpenSslBytesPtr owner(converted);
  if (length < 0) {
    ERR_clear_error();
    return std::string();
  }
  return std::string(reinterpret_cast<const char*>(converted), static_cast<std::size_t>(length));
}

// The first entry of `nid` in `name`, as UTF-8; "" when there is none.
std::string firstEntry(const X509_NAME* name, int nid) {
  const int position = X509_NAME_get_index_by_NID(name, nid, -1);
  if (position < 0) return std::string();
  return utf8Text(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, position)));
}

bool hasCaConstraint(const STACK_OF(X509_EXTENSION) * extensions) {
  BasicConstraintsPtr constraints(static_cast<BASIC_CONSTRAINTS*>(
      X509V3_get_d2i(extensions, NID_basic_constraints, nullptr, nullptr)));
  return constraints && constraints->ca != 0;
}

std::string firstRfc822AltName(const STACK_OF(X509_EXTENSION) * extensions) {
  GeneralNamesPtr names(static_cast<GENERAL_NAMES*>(
      X509V3_get_d2i(extensions, NID_subject_alt_name, nullptr, nullptr)));
  if (!names) return std::string();
  for (int i = 0; i < sk_GENERAL_NAME_num(names.get()); ++i) {
    const GENERAL_NAME* name = sk_GENERAL_NAME_value(names.get(), i);
    if (name->type == GEN_EMAIL) return utf8Text(name->d.rfc822Name);
  }
  return std::string();
}

std::string oneLine(const X509_NAME* name) {
  char* text = X509_NAME_oneline(name, nullptr, 0);
  if (text == nullptr) {
    ERR_clear_error();
    return std::string();
  }
  std::string copy(text);
  OPENSSL_free(text);
  return copy;
}

}  // namespace

CertificateIdentity readCertificateIdentity(const X509_NAME* subject,
                                            const STACK_OF(X509_EXTENSION) * extensions) {
  CertificateIdentity identity;
  if (extensions != nullptr) identity.authority = hasCaConstraint(extensions);

  identity.email = firstEntry(subject, NID_pkcs9_emailAddress);
  const std::string commonName = firstEntry(subject, NID_commonName);
  if (identity.email.empty() && extensions != nullptr) {
    identity.email = firstRfc822AltName(extensions);
  }
  if (identity.email.empty() && commonName.find('@') != std::string::npos) {
    identity.email = commonName;
  }
  identity.name = commonName.empty() ? oneLine(subject) : commonName;
  // Lookups of absent extensions leave nothing behind that matters; keep the
  // queue clean so that later readers of it see only their own errors.
  ERR_clear_error();
  return identity;
}

}  // namespace tavik

#include "base/certificateidentity.h"

#include <openssl/err.h>
#include <openssl/x509v3.h>

#include "base/opensslutil.h"

namespace tavik {

namespace {

// The text of an ASN.1 string as UTF-8; false when it cannot be converted
// (an encoding that is not valid, or no memory).
bool utf8Text(const ASN1_STRING* value, std::string& text) {
  unsigned char* converted = nullptr;
  const int length = ASN1_STRING_to_UTF8(&converted, value);
  OpenSslBytesPtr owner(converted);
  if (length < 0) return false;
  text.assign(reinterpret_cast<const char*>(converted), static_cast<std::size_t>(length));
  return true;
}

// The first entry of `nid` in `name`, as UTF-8, "" when there is none; false
// when there is one that cannot be read.
bool firstEntry(const X509_NAME* name, int nid, std::string& text) {
  text.clear();
  const int position = X509_NAME_get_index_by_NID(name, nid, -1);
  if (position < 0) return true;
  return utf8Text(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, position)), text);
}

// The decoded extension `nid`, or null. `failed` is set when the extension is
// there but cannot be decoded, or is there more than once: that is not the
// same as its absence.
void* decodedExtension(const STACK_OF(X509_EXTENSION) * extensions, int nid, bool& failed) {
  int critical = -1;
  void* decoded = X509V3_get_d2i(extensions, nid, &critical, nullptr);
  if (decoded == nullptr && critical != -1) failed = true;
  return decoded;
}

bool readCaConstraint(const STACK_OF(X509_EXTENSION) * extensions, bool& authority) {
  bool failed = false;
  BasicConstraintsPtr constraints(
      static_cast<BASIC_CONSTRAINTS*>(decodedExtension(extensions, NID_basic_constraints, failed)));
  authority = constraints && constraints->ca != 0;
  return !failed;
}

bool firstRfc822AltName(const STACK_OF(X509_EXTENSION) * extensions, std::string& text) {
  bool failed = false;
  GeneralNamesPtr names(
      static_cast<GENERAL_NAMES*>(decodedExtension(extensions, NID_subject_alt_name, failed)));
  if (!names) return !failed;
  for (int i = 0; i < sk_GENERAL_NAME_num(names.get()); ++i) {
    const GENERAL_NAME* name = sk_GENERAL_NAME_value(names.get(), i);
    if (name->type == GEN_EMAIL) return utf8Text(name->d.rfc822Name, text);
  }
  return true;
}

bool oneLine(const X509_NAME* name, std::string& text) {
  char* line = X509_NAME_oneline(name, nullptr, 0);
  if (line == nullptr) return false;
  text = line;
  OPENSSL_free(line);
  return true;
}

bool readParts(const X509_NAME* subject, const STACK_OF(X509_EXTENSION) * extensions,
               CertificateIdentity& identity) {
  if (extensions != nullptr && !readCaConstraint(extensions, identity.authority)) return false;
  std::string commonName;
  if (!firstEntry(subject, NID_pkcs9_emailAddress, identity.email) ||
      !firstEntry(subject, NID_commonName, commonName)) {
    return false;
  }
  if (identity.email.empty() && extensions != nullptr &&
      !firstRfc822AltName(extensions, identity.email)) {
    return false;
  }
  if (identity.email.empty() && commonName.find('@') != std::string::npos) {
    identity.email = commonName;
  }
  if (!commonName.empty()) {
    identity.name = commonName;
    return true;
  }
  return oneLine(subject, identity.name);
}

}  // namespace

bool readCertificateIdentity(const X509_NAME* subject, const STACK_OF(X509_EXTENSION) * extensions,
                             CertificateIdentity& identity) {
  identity = CertificateIdentity();
  const bool read = readParts(subject, extensions, identity);
  // Lookups of absent extensions leave nothing behind that matters; keep the
  // queue clean so that later readers of it see only their own errors.
  ERR_clear_error();
  return read;
}

}  // namespace tavik

#include "base/certificateidentity.h"

#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <cstring>

#include "base/derreader.h"
#include "base/opensslutil.h"

namespace tavik {

namespace {

// The text of an ASN.1 string as UTF-8; false when it cannot be converted
// (an encoding that is not valid, or no memory).
bool utf8Text(const ASN1_STRING* value, std::string& text) {
  unsigned char* converted = nullptr;
  const int length = ASN1_STRING_to_UTF8(&converted, value);
  OpenSSLBytesPtr owner(converted);
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

bool isCa(const BASIC_CONSTRAINTS* constraints) { return constraints && constraints->ca != 0; }

// The first rfc822Name, "" when there is none; false when it cannot be read.
bool firstRfc822Name(const GENERAL_NAMES* names, std::string& text) {
  text.clear();
  for (int i = 0; i < sk_GENERAL_NAME_num(names); ++i) {
    const GENERAL_NAME* name = sk_GENERAL_NAME_value(names, i);
    if (name->type == GEN_EMAIL) return utf8Text(name->d.rfc822Name, text);
  }
  return true;
}

// The decoded extension `nid`, or null. As OpenSSL looks one up, an extension
// that is there twice counts as none. `failed` is set when the extension is
// there once but cannot be decoded (also for want of memory): that is not the
// same as its absence.
void* decodedExtension(const STACK_OF(X509_EXTENSION) * extensions, int nid, bool& failed) {
  int critical = -1;
  void* decoded = X509V3_get_d2i(extensions, nid, &critical, nullptr);
  if (decoded == nullptr && critical >= 0) failed = true;
  return decoded;
}

bool readCaConstraint(const STACK_OF(X509_EXTENSION) * extensions, bool& authority) {
  bool failed = false;
  BasicConstraintsPtr constraints(
      static_cast<BASIC_CONSTRAINTS*>(decodedExtension(extensions, NID_basic_constraints, failed)));
  authority = isCa(constraints.get());
  return !failed;
}

bool firstRfc822AltName(const STACK_OF(X509_EXTENSION) * extensions, std::string& text) {
  bool failed = false;
  GeneralNamesPtr names(
      static_cast<GENERAL_NAMES*>(decodedExtension(extensions, NID_subject_alt_name, failed)));
  if (!names) return !failed;
  return firstRfc822Name(names.get(), text);
}

bool oneLine(const X509_NAME* name, std::string& text) {
  OpenSSLCharsPtr line(X509_NAME_oneline(name, nullptr, 0));
  if (!line) return false;
  text = line.get();
  return true;
}

// Object identifiers as they stand in a certificate.
constexpr unsigned char kOidEmailAddress[] = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x09, 0x01};
constexpr unsigned char kOidCommonName[] = {0x55, 0x04, 0x03};
constexpr unsigned char kOidBasicConstraints[] = {0x55, 0x1D, 0x13};
constexpr unsigned char kOidSubjectAltName[] = {0x55, 0x1D, 0x11};

template <std::size_t N>
bool isObject(const DerCursor& object, const unsigned char (&oid)[N]) {
  return object.size() == N && std::memcmp(object.data(), oid, N) == 0;
}

// What OpenSSL's decoder accepts as an object identifier: not empty, the last
// byte ends a sub-identifier, no sub-identifier starts with a padding byte.
bool wellFormedObject(const DerCursor& object) {
  if (object.empty()) return false;
  const unsigned char* p = object.data();
  if ((p[object.size() - 1] & 0x80) != 0) return false;
  for (std::size_t i = 0; i < object.size(); ++i) {
    if (p[i] == 0x80 && (i == 0 || (p[i - 1] & 0x80) == 0)) return false;
  }
  return true;
}

// A name value that OpenSSL keeps as it stands and turns into the same UTF-8:
// a UTF8String, PrintableString or IA5String of ASCII characters.
bool plainAsciiValue(unsigned char tag, const DerCursor& value) {
  if (tag != der::kUtf8String && tag != der::kPrintableString && tag != der::kIa5String) {
    return false;
  }
  for (std::size_t i = 0; i < value.size(); ++i) {
    if ((value.data()[i] & 0x80) != 0) return false;
  }
  return true;
}

std::string text(const DerCursor& value) {
  return std::string(reinterpret_cast<const char*>(value.data()), value.size());
}

// The content of the one value that `der` holds, when it has `tag`.
bool onlyValue(const unsigned char* der, std::size_t length, unsigned char tag,
               DerCursor& content) {
  DerCursor input(der, length);
  return input.next(tag, content) && input.empty();
}

struct PlainName {
  bool hasEmail = false;
  std::string email;  // the first emailAddress entry
  bool hasCommonName = false;
  std::string commonName;  // the first commonName entry
};

// Name ::= SEQUENCE OF SET OF SEQUENCE { type OBJECT IDENTIFIER, value }, every
// set non-empty and every value plain.
bool readPlainName(const unsigned char* der, std::size_t length, PlainName& name) {
  DerCursor sets;
  if (!onlyValue(der, length, der::kSequence, sets)) return false;
  while (!sets.empty()) {
    DerCursor entries;
    if (!sets.next(der::kSet, entries) || entries.empty()) return false;
    while (!entries.empty()) {
      DerCursor entry;
      DerCursor type;
      DerCursor value;
      unsigned char valueTag = 0;
      if (!entries.next(der::kSequence, entry) || !entry.next(der::kObject, type) ||
          !wellFormedObject(type) || !entry.nextAny(valueTag, value) || !entry.empty() ||
          !plainAsciiValue(valueTag, value)) {
        return false;
      }
      if (!name.hasEmail && isObject(type, kOidEmailAddress)) {
        name.hasEmail = true;
        name.email = text(value);
      } else if (!name.hasCommonName && isObject(type, kOidCommonName)) {
        name.hasCommonName = true;
        name.commonName = text(value);
      }
    }
  }
  return true;
}

// The value of an extension that occurs exactly once; as OpenSSL looks one up,
// a second occurrence means none.
struct ExtensionValue {
  int occurrences = 0;
  DerCursor value;  // the OCTET STRING's content
  bool once() const { return occurrences == 1; }
};

// Extensions ::= SEQUENCE OF SEQUENCE { extnID OBJECT IDENTIFIER, critical
// BOOLEAN OPTIONAL, extnValue OCTET STRING }.
bool readPlainExtensions(const unsigned char* der, std::size_t length,
                         ExtensionValue& basicConstraints, ExtensionValue& subjectAltName) {
  DerCursor extensions;
  if (!onlyValue(der, length, der::kSequence, extensions)) return false;
  while (!extensions.empty()) {
    DerCursor extension;
    DerCursor id;
    DerCursor critical;
    DerCursor value;
    if (!extensions.next(der::kSequence, extension) || !extension.next(der::kObject, id) ||
        !wellFormedObject(id)) {
      return false;
    }
    if (extension.next(der::kBoolean, critical) && critical.size() != 1) return false;
    if (!extension.next(der::kOctetString, value) || !extension.empty()) return false;
    ExtensionValue* wanted = isObject(id, kOidBasicConstraints) ? &basicConstraints
                             : isObject(id, kOidSubjectAltName) ? &subjectAltName
                                                                : nullptr;
    if (wanted != nullptr) {
      ++wanted->occurrences;
      wanted->value = value;
    }
  }
  return true;
}

// The cA flag of a basicConstraints extension found in the DER; false when
// the extension is there once but does not decode (also for want of memory),
// which OpenSSL's reading refuses as well.
bool caFromValue(const ExtensionValue& extension, bool& authority) {
  authority = false;
  if (!extension.once()) return true;
  const unsigned char* p = extension.value.data();
  BasicConstraintsPtr constraints(
      d2i_BASIC_CONSTRAINTS(nullptr, &p, static_cast<long>(extension.value.size())));
  if (!constraints) return false;
  authority = isCa(constraints.get());
  return true;
}

// The first rfc822Name of a subjectAltName extension found in the DER, ""
// when there is none; false as for caFromValue.
bool rfc822FromValue(const ExtensionValue& extension, std::string& text) {
  text.clear();
  if (!extension.once()) return true;
  const unsigned char* p = extension.value.data();
  GeneralNamesPtr names(d2i_GENERAL_NAMES(nullptr, &p, static_cast<long>(extension.value.size())));
  if (!names) return false;
  return firstRfc822Name(names.get(), text);
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

bool readCertificateIdentityFromDer(const unsigned char* subject, std::size_t subjectLength,
                                    const unsigned char* extensions, std::size_t extensionsLength,
                                    CertificateIdentity& identity) {
  PlainName name;
  if (!readPlainName(subject, subjectLength, name)) return false;
  // Without a common name, the name is the subject's one-line form: OpenSSL's.
  if (name.commonName.empty()) return false;
  ExtensionValue basicConstraints;
  ExtensionValue subjectAltName;
  if (extensions != nullptr &&
      !readPlainExtensions(extensions, extensionsLength, basicConstraints, subjectAltName)) {
    return false;
  }

  identity = CertificateIdentity();
  // Anything that OpenSSL's reading would refuse goes back to the caller,
  // which decodes with OpenSSL and so gives the same answer.
  if (!caFromValue(basicConstraints, identity.authority)) {
    ERR_clear_error();
    return false;
  }
  identity.email = name.email;
  if (identity.email.empty() && !rfc822FromValue(subjectAltName, identity.email)) {
    ERR_clear_error();
    return false;
  }
  if (identity.email.empty() && name.commonName.find('@') != std::string::npos) {
    identity.email = name.commonName;
  }
  identity.name = name.commonName;
  ERR_clear_error();
  return true;
}

}  // namespace tavik

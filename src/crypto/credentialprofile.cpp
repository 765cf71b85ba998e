#include "crypto/credentialprofile.h"

#include <openssl/x509v3.h>

#include <algorithm>

namespace tavik {

namespace {

constexpr int kMinValidityDays = 1;
constexpr int kMaxValidityDays = 3650;

bool isEc(CredentialProfile::Key key) {
  return key == CredentialProfile::Key::ecP256 || key == CredentialProfile::Key::ecP384;
}

using ExtensionPtr = OpenSSLPtr<X509_EXTENSION, X509_EXTENSION_free>;
using GeneralNamePtr = OpenSSLPtr<GENERAL_NAME, GENERAL_NAME_free>;
using Ia5StringPtr = OpenSSLPtr<ASN1_IA5STRING, ASN1_IA5STRING_free>;

// subjectAltName holding `email` alone. An rfc822Name is ASCII; anything else
// has no place in one.
ExtensionPtr alternativeName(const std::string& email) {
  if (std::any_of(email.begin(), email.end(), [](char c) { return (c & 0x80) != 0; })) {
    return nullptr;
  }
  Ia5StringPtr address(ASN1_IA5STRING_new());
  if (!address || ASN1_STRING_set(address.get(), email.data(), static_cast<int>(email.size())) != 1)
    return nullptr;
  GeneralNamePtr name(GENERAL_NAME_new());
  if (!name) return nullptr;
  GENERAL_NAME_set0_value(name.get(), GEN_EMAIL, address.release());
  GeneralNamesPtr names(GENERAL_NAMES_new());
  if (!names || sk_GENERAL_NAME_push(names.get(), name.get()) == 0) return nullptr;
  static_cast<void>(name.release());  // the list owns it now
  return ExtensionPtr(X509V3_EXT_i2d(NID_subject_alt_name, 0, names.get()));
}

// An extension from a fixed value in OpenSSL's configuration syntax.
ExtensionPtr fixedExtension(X509V3_CTX* context, int nid, const char* value) {
  return ExtensionPtr(X509V3_EXT_nconf_nid(nullptr, context, nid, value));
}

}  // namespace

std::string profileProblem(const CredentialProfile& profile, bool selfSigned) {
  if (profile.key < CredentialProfile::Key::rsa2048 || profile.key > CredentialProfile::Key::ecP384)
    return "unknown key type " + std::to_string(static_cast<int>(profile.key));
  if (profile.kdfIterations < 1)
    return std::to_string(profile.kdfIterations) + " PBKDF2 iterations; at least 1 is needed";
  if (selfSigned &&
      (profile.validityDays < kMinValidityDays || profile.validityDays > kMaxValidityDays)) {
    return "a validity of " + std::to_string(profile.validityDays) + " days is outside " +
           std::to_string(kMinValidityDays) + " to " + std::to_string(kMaxValidityDays);
  }
  return "";
}

PkeyHandle generateProfileKey(const CredentialProfile& profile) {
  switch (profile.key) {
    case CredentialProfile::Key::rsa2048:
      return OpenSSLUtil::generateRsaPkey(2048);
    case CredentialProfile::Key::rsa3072:
      return OpenSSLUtil::generateRsaPkey(3072);
    case CredentialProfile::Key::rsa4096:
      return OpenSSLUtil::generateRsaPkey(4096);
    case CredentialProfile::Key::ecP256:
      return OpenSSLUtil::generateEcPkey("P-256");
    case CredentialProfile::Key::ecP384:
      return OpenSSLUtil::generateEcPkey("P-384");
  }
  return PkeyHandle();
}

const EVP_MD* profileDigest(const CredentialProfile& profile) {
  return profile.key == CredentialProfile::Key::ecP384 ? EVP_sha384() : EVP_sha256();
}

X509ExtensionsPtr credentialExtensions(const std::string& email, const CredentialProfile& profile,
                                       X509* certificate) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
  const char* keyUsage = isEc(profile.key) ? "critical,digitalSignature,keyAgreement"
                                           : "critical,digitalSignature,keyEncipherment";
  ExtensionPtr made[5] = {
      alternativeName(email),
      fixedExtension(&context, NID_key_usage, keyUsage),
      fixedExtension(&context, NID_ext_key_usage, "emailProtection,clientAuth"),
  };
  std::size_t count = 3;
  if (certificate != nullptr) {
    made[count++] = fixedExtension(&context, NID_basic_constraints, "critical,CA:FALSE");
    made[count++] = fixedExtension(&context, NID_subject_key_identifier, "hash");
  }
  X509ExtensionsPtr extensions(sk_X509_EXTENSION_new_null());
  if (!extensions) return nullptr;
  for (std::size_t i = 0; i < count; ++i) {
    if (!made[i] || sk_X509_EXTENSION_push(extensions.get(), made[i].get()) == 0) return nullptr;
    static_cast<void>(made[i].release());  // the stack owns it now
  }
  return extensions;
}

}  // namespace tavik

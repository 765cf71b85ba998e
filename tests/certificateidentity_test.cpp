#include "base/certificateidentity.h"

#include <gtest/gtest.h>
#include <openssl/x509v3.h>

#include <string>
#include <utility>
#include <vector>

#include "base/certificate.h"
#include "base/certificateparser.h"
#include "support/testsupport.h"

namespace tavik {
namespace {

// One subject entry: its attribute, its ASN.1 string type (or an MBSTRING_
// input form that lets OpenSSL choose), its bytes, and whether it joins the
// previous RDN.
struct Entry {
  int nid;
  int type;
  std::string bytes;
  bool sameRdn = false;
};

struct Shape {
  const char* what;
  std::vector<Entry> subject;
  std::vector<std::pair<int, std::string>> extensions;  // nid, OpenSSL config value
  bool readInPlace;  // whether the DER reader takes it or leaves it to OpenSSL
};

std::string certificateDer(const Shape& shape) {
  X509Ptr cert(X509_new());
  X509_set_version(cert.get(), shape.extensions.empty() ? X509_VERSION_1 : X509_VERSION_3);
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 7);
  X509_NAME* name = X509_get_subject_name(cert.get());
  for (const Entry& entry : shape.subject) {
    X509_NAME_add_entry_by_NID(name, entry.nid, entry.type,
                               reinterpret_cast<const unsigned char*>(entry.bytes.data()),
                               static_cast<int>(entry.bytes.size()), -1, entry.sameRdn ? -1 : 0);
  }
  X509_set_issuer_name(cert.get(), name);
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), 0);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), 3600);
  X509_set_pubkey(cert.get(), test::testKey(0));
  X509V3_CTX context;
  X509V3_set_ctx(&context, cert.get(), cert.get(), nullptr, nullptr, 0);
  for (const auto& extension : shape.extensions) {
    X509_EXTENSION* made =
        X509V3_EXT_nconf_nid(nullptr, &context, extension.first, extension.second.c_str());
    EXPECT_NE(made, nullptr) << shape.what;
    X509_add_ext(cert.get(), made, -1);
    X509_EXTENSION_free(made);
  }
  EXPECT_GT(X509_sign(cert.get(), test::testKey(0), EVP_sha256()), 0) << shape.what;
  return test::toDer(cert.get());
}

void expectSameIdentity(const CertificateIdentity& read, const CertificateIdentity& expected,
                        const char* what) {
  EXPECT_EQ(read.authority, expected.authority) << what;
  EXPECT_EQ(read.email, expected.email) << what;
  EXPECT_EQ(read.name, expected.name) << what;
}

const int kUtf8 = V_ASN1_UTF8STRING;
const int kIa5 = V_ASN1_IA5STRING;
const int kPrintable = V_ASN1_PRINTABLESTRING;

// The identity read in place from the DER must be the one that OpenSSL's full
// decoding gives, and shapes the reader does not take must still be read, by
// OpenSSL, when a store is loaded.
TEST(CertificateIdentityTest, ReadingInPlaceAgreesWithOpenSslForEveryShape) {
  const std::vector<Shape> shapes = {
      {"plain user",
       {{NID_countryName, kPrintable, "DE"},
        {NID_commonName, kUtf8, "Some One"},
        {NID_pkcs9_emailAddress, kIa5, "one@example.org"}},
       {{NID_basic_constraints, "critical,CA:FALSE"},
        {NID_key_usage, "digitalSignature"},
        {NID_subject_alt_name, "email:alt@example.org"}},
       true},
      {"alternative name only",
       {{NID_commonName, kPrintable, "No Mail"}},
       {{NID_subject_alt_name, "DNS:host.example, email:alt@example.org"}},
       true},
      {"two alternative name extensions count as none",
       {{NID_commonName, kUtf8, "Twice"}},
       {{NID_subject_alt_name, "email:a@example.org"},
        {NID_subject_alt_name, "email:b@example.org"}},
       true},
      {"common name with @", {{NID_commonName, kUtf8, "cn@example.org"}}, {}, true},
      {"first of two addresses, in one RDN with the name",
       {{NID_commonName, kUtf8, "Multi"},
        {NID_pkcs9_emailAddress, kIa5, "first@example.org", true},
        {NID_pkcs9_emailAddress, kIa5, "second@example.org"}},
       {{NID_basic_constraints, "CA:FALSE"}},
       true},
      {"empty address falls back to the alternative name",
       {{NID_commonName, kUtf8, "Empty"}, {NID_pkcs9_emailAddress, kIa5, ""}},
       {{NID_subject_alt_name, "email:alt@example.org"}},
       true},
      {"authority",
       {{NID_commonName, kUtf8, "Root"}},
       {{NID_basic_constraints, "critical,CA:TRUE"}},
       true},
      {"two basic constraints count as none",
       {{NID_commonName, kUtf8, "Root"}},
       {{NID_basic_constraints, "CA:TRUE"}, {NID_basic_constraints, "CA:TRUE"}},
       true},
      {"no common name: the one-line form",
       {{NID_organizationName, kUtf8, "Org"}, {NID_pkcs9_emailAddress, kIa5, "o@example.org"}},
       {},
       false},
      {"empty subject", {}, {{NID_basic_constraints, "CA:TRUE"}}, false},
      {"non-ASCII common name",
       {{NID_commonName, MBSTRING_UTF8, "J\xC3\xBCrgen"}, {NID_pkcs9_emailAddress, kIa5, "j@x.de"}},
       {},
       false},
      {"BMPString common name",
       {{NID_commonName, V_ASN1_BMPSTRING, std::string("\0B\0m\0p", 6)}},
       {{NID_subject_alt_name, "email:bmp@example.org"}},
       false},
      {"Latin-1 byte in a PrintableString",
       {{NID_commonName, kUtf8, "Name"}, {NID_organizationName, kPrintable, "Caf\xE9"}},
       {},
       false},
  };
  test::TempDir dir;
  for (const Shape& shape : shapes) {
    const std::string der = certificateDer(shape);
    const auto* bytes = reinterpret_cast<const unsigned char*>(der.data());
    const unsigned char* cursor = bytes;
    X509Ptr whole(d2i_X509(nullptr, &cursor, static_cast<long>(der.size())));
    ASSERT_TRUE(whole) << shape.what;
    CertificateIdentity expected;
    ASSERT_TRUE(readCertificateIdentity(X509_get_subject_name(whole.get()),
                                        X509_get0_extensions(whole.get()), expected))
        << shape.what;

    CertificateLayout layout;
    ASSERT_TRUE(parseCertificateLayout(bytes, der.size(), layout)) << shape.what;
    CertificateIdentity inPlace;
    ASSERT_EQ(readCertificateIdentityFromDer(layout.subject, layout.subjectLength,
                                             layout.extensions, layout.extensionsLength, inPlace),
              shape.readInPlace)
        << shape.what;
    if (shape.readInPlace) expectSameIdentity(inPlace, expected, shape.what);

    test::writeFile(dir / "c.crt", der);
    std::shared_ptr<Certificate> lazy = Certificate::createFromFile(dir / "c.crt", false);
    ASSERT_TRUE(lazy) << shape.what;
    expectSameIdentity(lazy->identity(), expected, shape.what);
  }
}

// A subject that OpenSSL refuses (a UTF8String that is not UTF-8) makes the
// file unreadable at load, as it did before names were read in place.
TEST(CertificateIdentityTest, SubjectThatOpenSslRefusesIsRefusedAtLoad) {
  std::string der = certificateDer(
      {"plain",
       {{NID_commonName, kUtf8, "Refused"}, {NID_pkcs9_emailAddress, kIa5, "r@example.org"}},
       {{NID_basic_constraints, "CA:FALSE"}},
       true});
  const std::string::size_type at = der.rfind("Refused");
  ASSERT_NE(at, std::string::npos);
  der[at + 1] = '\xC3';
  der[at + 2] = '\x28';
  test::TempDir dir;
  test::writeFile(dir / "bad.crt", der);
  EXPECT_FALSE(Certificate::createFromFile(dir / "bad.crt", false));
  EXPECT_FALSE(Certificate::createFromFile(dir / "bad.crt", true));
}

}  // namespace
}  // namespace tavik

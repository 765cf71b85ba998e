// Certificates that OpenSSL would decode but that the cache must not take in
// one way and refuse in another: what saveCert installs has to be what the
// next scan finds, and an identity read only in part must not pass a filter.
// Found by the fuzz targets and the allocation-failure harness.
#include <gtest/gtest.h>
#include <openssl/x509v3.h>

#include "base/certificate.h"
#include "support/testsupport.h"

namespace tavik {
namespace {

class HostileCertificateTest : public test::StoreTest {
 protected:
  // The certificate's DER with its issuer Name encoded as a primitive
  // SEQUENCE, which is not DER but which d2i_X509 accepts.
  static std::string withPrimitiveIssuer(X509* cert) {
    std::string der = test::toDer(cert);
    unsigned char* name = nullptr;
    const int length = i2d_X509_NAME(X509_get_issuer_name(cert), &name);
    OpenSslBytesPtr owner(name);
    const std::size_t at = der.find(std::string(reinterpret_cast<char*>(name), length));
    EXPECT_NE(at, std::string::npos);
    der[at] = 0x10;
    return der;
  }

  static std::string base64(const std::string& der) {
    BioPtr encoder(BIO_new(BIO_f_base64()));
    BIO* memory = BIO_new(BIO_s_mem());
    BIO_push(encoder.get(), memory);
    BIO_write(encoder.get(), der.data(), static_cast<int>(der.size()));
    BIO_flush(encoder.get());
    char* text = nullptr;
    const long length = BIO_get_mem_data(memory, &text);
    return std::string(text, static_cast<std::size_t>(length));
  }

  // Reads `der` every way the library reads a certificate.
  void expectRefusedEverywhere(const std::string& der) {
    test::writeFile(file("x.crt"), der);
    EXPECT_EQ(Certificate::createFromFile(file("x.crt"), true), nullptr);
    EXPECT_EQ(Certificate::createFromFile(file("x.crt"), false), nullptr);
    EXPECT_EQ(Certificate::createFromBase64(base64(der)), nullptr);
  }
};

TEST_F(HostileCertificateTest, NonDerThatOpenSslDecodesIsNeitherInstalledNorLoaded) {
  test::CertOptions options;
  options.email = "a@example.org";
  X509Ptr cert = test::makeCertificate(options);
  const std::string der = withPrimitiveIssuer(cert.get());
  const auto* bytes = reinterpret_cast<const unsigned char*>(der.data());
  X509Ptr decoded(d2i_X509(nullptr, &bytes, static_cast<long>(der.size())));
  ASSERT_TRUE(decoded) << "OpenSSL no longer decodes the primitive SEQUENCE";

  expectRefusedEverywhere(der);

  // So installing it fails at once instead of leaving a file no scan reads.
  auto cache = makeCache(false);
  EXPECT_EQ(cache->saveCert("a", base64(der), false), CertFileCache::kFailed);
  EXPECT_EQ(files(), std::vector<std::string>{"x.crt"});
}

// Parts of the identity that are there but cannot be read are not taken for
// absent (the allocation-failure harness covers the same for want of memory).
TEST_F(HostileCertificateTest, IdentityThatCannotBeReadWholeRefusesTheCertificate) {
  // A basicConstraints extension whose value is no BASIC_CONSTRAINTS: read as
  // absent, the certificate would count as no CA and pass the user filter.
  test::CertOptions options;
  options.email = "a@example.org";
  X509Ptr cert = test::makeCertificate(options);
  X509_EXTENSION_free(
      X509_delete_ext(cert.get(), X509_get_ext_by_NID(cert.get(), NID_basic_constraints, -1)));
  const unsigned char notConstraints[] = {0x04, 0x00};
  ASN1_OCTET_STRING* value = ASN1_OCTET_STRING_new();
  ASN1_OCTET_STRING_set(value, notConstraints, sizeof(notConstraints));
  X509_EXTENSION* extension =
      X509_EXTENSION_create_by_NID(nullptr, NID_basic_constraints, 1, value);
  X509_add_ext(cert.get(), extension, -1);
  X509_EXTENSION_free(extension);
  ASN1_OCTET_STRING_free(value);
  X509_sign(cert.get(), test::testKey(0), EVP_sha256());
  expectRefusedEverywhere(test::toDer(cert.get()));
  // Which the user filter, reading it as no CA, would otherwise have listed.
  test::writeFile(file("x.key"), test::encryptedKeyPem(test::testKey(0), "pw"));
  EXPECT_TRUE(ids(*makeCache(true)).empty());
}

}  // namespace
}  // namespace tavik

// Signs a message with a credential of the store, as a mail program signs what
// it sends: the certificate, its key and the authorities above it come from
// CertificateChain::getCredential, the signature is OpenSSL's CMS carrying the
// chain, and the output is S/MIME (multipart/signed, the message readable as
// it stands) that any mail client or `openssl cms -verify` checks with the
// root alone.
//
//   certcache --store STORE --passin pass:PW self-signed --email me@example.org
//   cms_sign_example STORE me@example.org PW < message.txt > message.eml
//   openssl cms -verify -in message.eml -CAfile STORE/user/me_at_example.org.crt
#include <openssl/cms.h>
#include <openssl/err.h>

#include <boost/make_shared.hpp>
#include <iostream>
#include <iterator>
#include <string>

#include "base/opensslutil.h"
#include "crypto/certificatechain.h"
#include "crypto/certificatefilecache.h"

using CmsPtr = tavik::OpenSSLPtr<CMS_ContentInfo, CMS_ContentInfo_free>;

int main(int argc, char** argv) {
  if (argc != 4) {
    std::cerr << "usage: cms_sign_example STORE ID PASSWORD < MESSAGE > SIGNED\n";
    return 64;
  }
  const std::string root = argv[1];
  tavik::CertificateStore store(root, {root});
  tavik::CertFileCache cache(store, boost::make_shared<tavik::UserCertificateFilter>(), true);
  int error = 0;
  // The Certificate owns certificate and key; both stay valid while it is held.
  const tavik::ChainedCredential chained =
      tavik::CertificateChain(store).getCredential(cache, argv[2], argv[3], error);
  const std::shared_ptr<tavik::Certificate>& credential = chained.certificate;
  const tavik::X509StackPtr authorities = chained.authorityStack();
  if (!credential || !authorities) {
    std::cerr << "cms_sign_example: no credential for " << argv[2] << " (" << error << ")\n";
    return 1;
  }

  const std::string message(std::istreambuf_iterator<char>(std::cin), {});
  // Detached: the message goes out as it is, the signature beside it.
  // Streaming: CMS_sign only prepares the signature, and SMIME_write_CMS reads
  // the message once, writing it and computing its digest, then signs.
  const unsigned flags = CMS_DETACHED | CMS_STREAM;
  tavik::BioPtr in(BIO_new_mem_buf(message.data(), static_cast<int>(message.size())));
  tavik::BioPtr out(BIO_new_fp(stdout, BIO_NOCLOSE));
  if (!in || !out) return 1;
  // CMS_sign takes its own references to certificate, key and authorities.
  CmsPtr signedData(CMS_sign(credential->getX509(), credential->getPrivateKey(), authorities.get(),
                             in.get(), flags));
  if (!signedData || SMIME_write_CMS(out.get(), signedData.get(), in.get(), flags) != 1) {
    ERR_print_errors_fp(stderr);
    return 1;
  }
  return 0;
}

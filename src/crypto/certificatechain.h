// The path from a certificate up to the authority at its root, through the
// authorities that a store keeps beside its credentials.
//
// An authority rarely signs from its root: what comes back from one is the
// certificate and one or more intermediate authorities. The store keeps them
// in the `ca` subdirectory of its locations, and this class finds, for a
// certificate, the authorities above it, so that a program can present the
// whole chain to a TLS peer or put it into a signature, and a person can see
// where a chain breaks.
//
// The chain is built to be shown and handed on, not to decide trust: whether
// a certificate is to be trusted is OpenSSL's validator's answer
// (X509_verify_cert), which candidates() feeds.
//
// Failures. A location whose `ca` directory is missing or cannot be listed, and
// a file in it that cannot be read or holds no certificate, hold nothing; a
// path that cannot go on ends where it is. Nothing throws but std::bad_alloc,
// and from getCredential, what CertFileCache::getCertificate throws.
//
// Threads. A CertificateChain reads the store once, when it is made, and
// never changes afterwards: build(), candidates(), holds(), authoritiesNamed()
// and getCredential() may be called from any number of threads at once. Files
// added to the store later are not in it; a new CertificateChain sees them.
#ifndef TAVIK_CRYPTO_CERTIFICATECHAIN_H_
#define TAVIK_CRYPTO_CERTIFICATECHAIN_H_

#include <openssl/x509.h>

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/certificate.h"
#include "base/certificatestore.h"
#include "base/opensslutil.h"
#include "crypto/certificatefilecache.h"

namespace tavik {

// A credential with the authorities above it, as TLS and signed mail present it.
struct ChainedCredential {
  // The certificate, with its private key when it was read with one; null when
  // the lookup failed.
  std::shared_ptr<Certificate> certificate;
  // The path above it: its issuer first, the root last when the store holds it.
  std::vector<std::shared_ptr<Certificate>> authorities;
  // True when the path ends at a self-signed certificate.
  bool complete = false;

  // The authorities as a new stack that the caller owns, each certificate with
  // a reference of its own: what SSL_CTX_use_cert_and_key takes as its chain
  // and CMS_sign as its extra certificates. Null only when out of memory.
  X509StackPtr authorityStack() const;
};

class CertificateChain {
 public:
  // Steps above a certificate before a path is cut off.
  static constexpr int kMaxSteps = 10;

  // Indexes the authorities of `store` once: the certificates that the
  // authority filter accepts, in the `ca` subdirectory of every base location,
  // in search order (a certificate found again in a later location, the same
  // DER, counts once). Certificates there that the filter passes over are kept
  // aside only to say so when one poses as an issuer. The store is not kept.
  explicit CertificateChain(CertificateStore& store);

  // The path from `leaf` upward: `leaf` first, then each issuer found (by
  // issuer name, by authority and subject key identifier where present, and by
  // its signature), ending at a self-signed certificate or at the last
  // certificate whose issuer the store does not hold. An issuer that is no
  // authority, or whose validity excludes now while another candidate's does
  // not, is passed over with a log statement; a loop or more than kMaxSteps
  // steps ends the path with one. A leaf that cannot be decoded is the path
  // alone; no leaf (null), an empty path.
  std::vector<std::shared_ptr<Certificate>> build(const std::shared_ptr<Certificate>& leaf) const;

  // Whether `path` (as build() returns it) ends at a self-signed certificate.
  static bool isComplete(const std::vector<std::shared_ptr<Certificate>>& path);

  // Every authority of the index that could stand on a path above `leaf`: the
  // certificates named as its issuer, their issuers, and so on, by name alone.
  // What a validator needs to be given to find every path the store offers.
  std::vector<std::shared_ptr<Certificate>> candidates(
      const std::shared_ptr<Certificate>& leaf) const;

  // Whether the index holds a certificate of exactly these DER bytes.
  bool holds(const std::string& der) const;
  // Every authority of the index, in search order.
  std::vector<std::shared_ptr<Certificate>> authorities() const;

  // The authorities of the index whose subject is `name` (borrowed), in search
  // order: the candidates for the issuer of a certificate or of a revocation
  // list that names it.
  std::vector<std::shared_ptr<Certificate>> authoritiesNamed(const X509_NAME* name) const;

  // The credential of `id` from `cache` (CertFileCache::getCertificate with
  // `password`, decoded whole), with the path above it. On failure the
  // certificate is null and `errorCode` says why, as getCertificate says it.
  ChainedCredential getCredential(const CertFileCache& cache, const std::string& id,
                                  const std::string& password, int& errorCode) const;

 private:
  struct Authority {
    std::shared_ptr<Certificate> certificate;
    std::string path;
    bool accepted;  // by the authority filter
  };

  // The index's certificates whose subject is `name`, by the hash of its
  // canonical form (X509_NAME_hash_ex), in search order.
  std::vector<const Authority*> named(const X509_NAME* name) const;
  // The issuer of `certificate` to step to, or null; `path` is the path so far.
  const Authority* issuerOf(X509* certificate,
                            const std::vector<std::shared_ptr<Certificate>>& path) const;

  std::vector<Authority> authorities_;
  std::unordered_multimap<unsigned long, std::size_t> bySubject_;  // into authorities_
  std::unordered_multimap<std::size_t, std::size_t> byDer_;        // by the hash of the DER
};

}  // namespace tavik

#endif  // TAVIK_CRYPTO_CERTIFICATECHAIN_H_

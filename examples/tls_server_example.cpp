// A TLS server that authenticates its clients by the authorities of a `ca`
// store that a CertStoreWatcher follows, and refuses those that the store's
// revocation lists revoke: an authority installed with the tool is trusted
// from the next handshake, a removed one is refused, and a list kept with
// `certcache crl add` is in force from the next handshake, without a
// restart. A trust set that fails to build (no authority, one unreadable)
// leaves the last good one in force. Each client that is let in is answered
// "hello " and its certificate's common name (else its e-mail address); one
// refused is told in the output with OpenSSL's reason ("certificate
// revoked"). The server serves at most CONNECTIONS clients or SECONDS
// seconds, then ends by itself.
//
//   certcache --store CAS --kind ca --no-keys install ca.crt
//   certcache --store CAS crl add ca.crl
//   tls_server_example CAS server.crt server.key PORT CONNECTIONS SECONDS
//   openssl s_client -connect 127.0.0.1:PORT -cert user.crt -key user.key
#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <boost/make_shared.hpp>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "base/opensslutil.h"
#include "crypto/certstorewatcher.h"

using SslCtxPtr = tavik::OpenSSLPtr<SSL_CTX, SSL_CTX_free>;
using SslPtr = tavik::OpenSSLPtr<SSL, SSL_free>;
using X509StorePtr = tavik::OpenSSLPtr<X509_STORE, X509_STORE_free>;

// A client whose issuer keeps no list is let in: only a list that names it
// refuses it. Any other failure stands.
static int allowUnlisted(int ok, X509_STORE_CTX* context) {
  return ok == 1 || X509_STORE_CTX_get_error(context) == X509_V_ERR_UNABLE_TO_GET_CRL ? 1 : 0;
}

// Every authority of the moment's index, and its revocation lists checked for
// every certificate of a client's path; null when there is no authority or
// one cannot be read.
static X509StorePtr buildTrust(const tavik::StoreMoment& moment) {
  std::vector<std::string> ids;
  if (moment.index->listIds(ids) == 0) return nullptr;
  X509StorePtr trust(X509_STORE_new());
  for (const std::string& id : ids) {
    int error = 0;
    auto authority = moment.index->getCertificateOnly(id, error, true);
    if (!trust || !authority || X509_STORE_add_cert(trust.get(), authority->getX509()) != 1) {
      return nullptr;
    }
  }
  for (const tavik::KeptRevocationList& list : moment.revocationLists->lists()) {
    if (X509_STORE_add_crl(trust.get(), list.list->get()) != 1) return nullptr;
  }
  X509_STORE_set_flags(trust.get(), X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL);
  X509_STORE_set_verify_cb(trust.get(), allowUnlisted);
  return trust;
}

// The client certificate's common name, else its e-mail address.
static std::string clientName(SSL* ssl) {
  tavik::X509Ptr peer(SSL_get1_peer_certificate(ssl));
  char name[256] = "";
  X509_NAME* subject = peer ? X509_get_subject_name(peer.get()) : nullptr;
  if (subject && X509_NAME_get_text_by_NID(subject, NID_commonName, name, sizeof name) < 0) {
    X509_NAME_get_text_by_NID(subject, NID_pkcs9_emailAddress, name, sizeof name);
  }
  return name;
}

int main(int argc, char** argv) {
  if (argc != 7) {
    std::cerr << "usage: tls_server_example CA_STORE CERT KEY PORT CONNECTIONS SECONDS\n";
    return 64;
  }
  tavik::CertificateStore store(argv[1], {argv[1]});
  tavik::CertStoreWatcher watcher(store, boost::make_shared<tavik::AuthorityCertificateFilter>(),
                                  false);
  SslCtxPtr ctx(SSL_CTX_new(TLS_server_method()));
  if (!ctx || SSL_CTX_use_certificate_chain_file(ctx.get(), argv[2]) != 1 ||
      SSL_CTX_use_PrivateKey_file(ctx.get(), argv[3], SSL_FILETYPE_PEM) != 1) {
    ERR_print_errors_fp(stderr);
    return 1;
  }
  SSL_CTX_set_verify(ctx.get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);

  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(std::atoi(argv[4])));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      listen(listener, 8) != 0 ||
      getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    std::perror("tls_server_example");
    return 1;
  }
  std::cout << "port=" << ntohs(address.sin_port) << std::endl;

  std::uint64_t trusted = 0;  // the generation whose authorities the context trusts
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(std::atoi(argv[6]));
  for (int served = 0; served < std::atoi(argv[5]);) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    pollfd waiting{listener, POLLIN, 0};
    if (left.count() <= 0 || poll(&waiting, 1, static_cast<int>(left.count())) != 1) break;
    const int client = accept(listener, nullptr, nullptr);
    if (client < 0) continue;
    ++served;
    // Before the handshake: the authorities of the newest index, unless they fail to build.
    if (watcher.generation() != trusted) {
      const tavik::StoreMoment moment = watcher.moment();
      trusted = moment.generation;
      X509StorePtr trust = buildTrust(moment);
      if (trust) SSL_CTX_set1_cert_store(ctx.get(), trust.get());
      std::cout << (trust ? "trust: rebuilt" : "trust: kept the last good set") << std::endl;
    }
    SslPtr ssl(SSL_new(ctx.get()));
    if (ssl && SSL_set_fd(ssl.get(), client) == 1 && SSL_accept(ssl.get()) == 1) {
      const std::string line = "hello " + clientName(ssl.get()) + "\n";
      SSL_write(ssl.get(), line.data(), static_cast<int>(line.size()));
      SSL_shutdown(ssl.get());
      // Read until the client closes too (two seconds at most): a socket closed over unread
      // data resets the connection, and the reset can take the reply with it.
      const timeval patience{2, 0};
      setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
      char drained[256];
      while (SSL_read(ssl.get(), drained, sizeof drained) > 0) {
      }
      std::cout << line << std::flush;
    } else {
      // A certificate that did not verify says why; anything else, OpenSSL's error.
      const long verified = ssl ? SSL_get_verify_result(ssl.get()) : X509_V_OK;
      const char* reason = verified != X509_V_OK
                               ? X509_verify_cert_error_string(verified)
                               : ERR_reason_error_string(ERR_peek_last_error());
      std::cout << "refused: " << (reason ? reason : "no handshake") << std::endl;
    }
    ERR_clear_error();
    close(client);
  }
  close(listener);
  return 0;
}

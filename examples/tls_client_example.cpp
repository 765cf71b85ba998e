// A TLS client that authenticates itself with a credential of the store and
// presents the authorities above it, so that a server which trusts only the
// root accepts a certificate issued by an intermediate. Certificate, key and
// chain come from one call, CertificateChain::getCredential, and go to OpenSSL
// with SSL_CTX_use_cert_and_key. The server is checked against CA_FILE. It
// sends one HTTP request and prints what the server answers.
//
//   certcache --store STORE --passin pass:PW install leaf-and-intermediate.pem
//   openssl s_server -accept 4433 -Verify 2 -verify_return_error -CAfile root.crt -www ...
//   tls_client_example STORE alice@example.org PW 4433 server-ca.crt
#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <boost/make_shared.hpp>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>

#include "base/opensslutil.h"
#include "crypto/certificatechain.h"

using SslCtxPtr = tavik::OpenSSLPtr<SSL_CTX, SSL_CTX_free>;
using SslPtr = tavik::OpenSSLPtr<SSL, SSL_free>;

int main(int argc, char** argv) {
  if (argc != 6) {
    std::cerr << "usage: tls_client_example STORE ID PASSWORD PORT SERVER_CA_FILE\n";
    return 64;
  }
  tavik::CertificateStore store(argv[1], {argv[1]});
  tavik::CertFileCache cache(store, boost::make_shared<tavik::UserCertificateFilter>(), true);
  int error = 0;
  const tavik::ChainedCredential credential =
      tavik::CertificateChain(store).getCredential(cache, argv[2], argv[3], error);
  if (!credential.certificate) {
    std::cerr << "tls_client_example: no credential for " << argv[2] << " (" << error << ")\n";
    return 1;
  }
  std::cerr << "presenting " << argv[2] << " with " << credential.authorities.size()
            << " authorities" << (credential.complete ? ", up to its root" : "") << '\n';
  const tavik::X509StackPtr chain = credential.authorityStack();
  SslCtxPtr ctx(SSL_CTX_new(TLS_client_method()));
  // The context takes references of its own to certificate, key and chain.
  if (!ctx || !chain ||
      SSL_CTX_use_cert_and_key(ctx.get(), credential.certificate->getX509(),
                               credential.certificate->getPrivateKey(), chain.get(), 1) != 1 ||
      SSL_CTX_load_verify_locations(ctx.get(), argv[5], nullptr) != 1) {
    ERR_print_errors_fp(stderr);
    return 1;
  }
  SSL_CTX_set_verify(ctx.get(), SSL_VERIFY_PEER, nullptr);

  const int socket = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(std::atoi(argv[4])));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  SslPtr ssl(SSL_new(ctx.get()));
  if (connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || !ssl ||
      SSL_set_fd(ssl.get(), socket) != 1 || SSL_connect(ssl.get()) != 1) {
    ERR_print_errors_fp(stderr);
    close(socket);
    return 1;
  }
  const std::string request = "GET / HTTP/1.0\r\n\r\n";
  SSL_write(ssl.get(), request.data(), static_cast<int>(request.size()));
  char buffer[4096];
  for (int got; (got = SSL_read(ssl.get(), buffer, sizeof buffer)) > 0;) {
    std::cout.write(buffer, got);
  }
  ERR_clear_error();
  SSL_shutdown(ssl.get());
  close(socket);
  return 0;
}

// Compiles against every public name of the collaborators and of the logging
// facility, and constructs a cache over a store.
#include <boost/make_shared.hpp>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "base/certificate.h"
#include "base/certificatefilter.h"
#include "base/certificatestore.h"
#include "base/configurationinit.h"
#include "base/environment.h"
#include "base/opensslutil.h"
#include "base/stringutil.h"
#include "crypto/certificatefilecache.h"
#include "log/log.h"

namespace {

tavik::LogHandle handle(nullptr, 0, 2);
tavik::ConfigurationInit init;
tavik::LogRegister registration(handle, "embed/main.cpp", __LINE__, 8);

class AnyEmailFilter : public tavik::CertificateFilter {
 public:
  bool acceptsCertificate(std::shared_ptr<tavik::Certificate>) override { return true; }
  const std::string& certificateId(std::shared_ptr<tavik::Certificate>) override { return id_; }
  const char* subdirectory() override { return "any"; }

 private:
  std::string id_ = "any";
};

class QuietEnvironment : public tavik::Environment {
 public:
  bool setPrivateAccessMode(const std::string&) override { return true; }
};

}  // namespace

int main(int argc, char** argv) {
  const std::string root = argc > 1 ? argv[1] : "/nonexistent";
  int statements = 0;
  tavik::LogFacility::setSink([&statements](const tavik::LogRecord& record) {
    statements += record.message.empty() ? 0 : 1;
  });
  tavik::LogFacility::setLevels(tavik::LogMask::error | tavik::LogMask::warning |
                                tavik::LogMask::info | tavik::LogMask::debug |
                                tavik::LogMask::trace);
  tavik::LogFacility::setUp(true);
  if (tavik::LogMask* mask = handle.handle()) {
    tavik::Log(__FILE__, __LINE__, tavik::LogMask::info, mask).getEntry() << "embedded";
    tavik::Log(__FILE__, __LINE__, tavik::LogMask::info, mask)
        << std::string("code ") << boost::system::error_code();
  }

  QuietEnvironment quiet;
  tavik::Environment::setInstance(&quiet);
  const bool quietInstalled = tavik::Environment::accessInstance(false) == &quiet;
  tavik::Environment::setInstance(nullptr);

  tavik::CertificateStore store(root, {root});
  std::vector<std::string> locations;
  store.getBaseLocations(locations);
  tavik::CertFileCache users(store, boost::make_shared<tavik::UserCertificateFilter>(), true);
  tavik::CertFileCache authorities(store, boost::make_shared<tavik::AuthorityCertificateFilter>(),
                                   false);
  tavik::CertFileCache any(store, boost::make_shared<AnyEmailFilter>(), false);

  tavik::PkeyHandle key = tavik::OpenSSLUtil::generateRsaPkey(1024);
  std::shared_ptr<tavik::Certificate> none = tavik::Certificate::createFromBase64("none");
  std::shared_ptr<tavik::Certificate> file =
      tavik::Certificate::createFromFile(root + "/x.crt", false);
  std::shared_ptr<tavik::Certificate> pair =
      tavik::Certificate::createFromFileWithKey(root + "/x.crt", root + "/x.key", "pw", false);
  if (file) file->saveToFile(root + "/copy.crt");
  X509* x509 = file ? file->getX509() : nullptr;
  EVP_PKEY* privateKey = pair ? pair->getPrivateKey() : nullptr;

  const bool ok = key && !none && x509 == nullptr && privateKey == nullptr && quietInstalled &&
                  locations.size() == 1 && store.getRoot() == root && statements >= 2 &&
                  tavik::decodeFilename(tavik::encodeFilename("a@b")) == "a@b" &&
                  tavik::to_lowercase("A") == "a";
  tavik::LogFacility::setSink(nullptr);
  std::printf("%s\n", ok ? "embedded cache works" : "embedded cache failed");
  return ok ? 0 : 1;
}

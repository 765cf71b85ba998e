#include "base/environment.h"

#include <sys/stat.h>

#include <atomic>

namespace tavik {

namespace {

Environment defaultEnvironment;
std::atomic<Environment*> installed{nullptr};

}  // namespace

Environment::~Environment() = default;

Environment* Environment::accessInstance(bool /*create*/) {
  Environment* instance = installed.load();
  return instance != nullptr ? instance : &defaultEnvironment;
}

void Environment::setInstance(Environment* instance) { installed.store(instance); }

bool Environment::setPrivateAccessMode(const std::string& path) {
  return ::chmod(path.c_str(), S_IRUSR | S_IWUSR) == 0;
}

}  // namespace tavik

// The process-wide environment: the platform services the library needs that
// are not plain file I/O. Programs and tests may install their own instance.
// The instance pointer is atomic: accessInstance and setInstance may be called
// from any thread, and an instance's members are called from whichever thread
// writes a key file.
#ifndef TAVIK_BASE_ENVIRONMENT_H_
#define TAVIK_BASE_ENVIRONMENT_H_

#include <string>

namespace tavik {

class Environment {
 public:
  virtual ~Environment();

  // The current instance; never null, because a default instance always exists.
  // `create` is accepted for callers that ask for one to be made; the default
  // instance makes that unnecessary.
  static Environment* accessInstance(bool create);
  // Installs `instance` (not owned; it must outlive its use). nullptr restores the default.
  static void setInstance(Environment* instance);

  // Restricts the file at `path` to its owner; true on success. The default
  // leaves the owner read and write permission and nothing else.
  virtual bool setPrivateAccessMode(const std::string& path);
};

}  // namespace tavik

#endif  // TAVIK_BASE_ENVIRONMENT_H_

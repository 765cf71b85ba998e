// The directories of a certificate store: its root, where new files are made,
// and its base locations, which are searched in order when reading. A plain
// value that caches read and never change: caches in several threads may
// share one (getBaseLocations only reads, though it is not const).
#ifndef TAVIK_BASE_CERTIFICATESTORE_H_
#define TAVIK_BASE_CERTIFICATESTORE_H_

#include <string>
#include <vector>

namespace tavik {

class CertificateStore {
 public:
  CertificateStore(std::string root, std::vector<std::string> baseLocations);

  // The directory in which certificates are created, renamed and removed.
  const std::string& getRoot() const;
  // Appends the base locations to `locations`, in search order. The list may be empty.
  void getBaseLocations(std::vector<std::string>& locations);

 private:
  std::string root_;
  std::vector<std::string> baseLocations_;
};

}  // namespace tavik

#endif  // TAVIK_BASE_CERTIFICATESTORE_H_

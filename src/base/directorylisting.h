// One reading of a directory: the names and types of its entries as the
// listing gives them, and the directory kept open so that its files are opened
// relative to it. Loading a store walks its cache directories this way: no path
// is walked from the root again for each file, no entry's type costs a stat
// unless it is a link or the file system does not say, and whether a file of a
// given name is there is known from the listing.
//
// The listing is the directory as it was when it was read. A file made later
// is not in it; a file removed later still is, and opening it then fails as
// the file system says.
#ifndef TAVIK_BASE_DIRECTORYLISTING_H_
#define TAVIK_BASE_DIRECTORYLISTING_H_

#include <dirent.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tavik {

class DirectoryListing {
 public:
  // Lists `path`; empty when it cannot be opened. An error while reading the
  // listing is kept: the entries before it are there, and throwIfIncomplete()
  // reports it.
  explicit DirectoryListing(const std::string& path);

  bool isOpen() const { return directory_ != nullptr; }
  int fd() const;
  std::size_t size() const { return entries_.size(); }
  std::string_view name(std::size_t i) const;

  // Whether entry `i` is a regular file, links followed. Throws
  // boost::filesystem::filesystem_error when the type of a link cannot be read
  // for a reason other than its target's absence.
  bool isRegularFile(std::size_t i) const;
  // Whether anything is there under `name`; a link that leads nowhere counts as
  // nothing.
  bool exists(std::string_view name) const;
  // Throws boost::filesystem::filesystem_error when the listing stopped at an
  // error: a scan that could not see the whole directory must not pass for a
  // complete one.
  void throwIfIncomplete() const;

 private:
  struct Entry {
    std::uint32_t offset;  // into names_
    std::uint16_t length;
    unsigned char type;  // DT_*
  };
  struct CloseDirectory {
    void operator()(DIR* directory) const { ::closedir(directory); }
  };

  static constexpr std::uint32_t kNoEntry = 0xFFFFFFFF;

  std::string_view nameAt(std::uint32_t i) const;
  // The slot of `name` in slots_: where it is, or the free one where it would go.
  std::size_t slotOf(std::string_view name) const;
  bool followedStat(std::string_view name, unsigned& mode, int& error) const;

  std::string path_;
  std::unique_ptr<DIR, CloseDirectory> directory_;
  std::string names_;                 // every name, one after the other
  std::vector<Entry> entries_;        // in the listing's order
  std::vector<std::uint32_t> slots_;  // entries_ indices by the hash of their names
  int listingError_ = 0;
};

}  // namespace tavik

#endif  // TAVIK_BASE_DIRECTORYLISTING_H_

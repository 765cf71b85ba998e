#include "base/directorylisting.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <boost/filesystem/exception.hpp>
#include <boost/filesystem/path.hpp>
#include <boost/system/error_code.hpp>
#include <cerrno>
#include <cstring>
#include <functional>

namespace tavik {

namespace {

[[noreturn]] void throwError(const char* what, const boost::filesystem::path& path, int error) {
  throw boost::filesystem::filesystem_error(
      what, path, boost::system::error_code(error, boost::system::system_category()));
}

}  // namespace

DirectoryListing::DirectoryListing(const std::string& path)
    : path_(path), directory_(::opendir(path.c_str())) {
  if (!directory_) return;
  for (;;) {
    errno = 0;
    const dirent* entry = ::readdir(directory_.get());
    if (entry == nullptr) {
      listingError_ = errno;
      break;
    }
    const std::size_t length = std::strlen(entry->d_name);
    if (entry->d_name[0] == '.' && (length == 1 || (length == 2 && entry->d_name[1] == '.'))) {
      continue;
    }
    entries_.push_back(Entry{static_cast<std::uint32_t>(names_.size()),
                             static_cast<std::uint16_t>(length), entry->d_type});
    names_.append(entry->d_name, length);
  }
  // An open-addressing table at most half full: a lookup hashes the name once
  // and compares it with one or two listed names.
  std::size_t slots = 2;
  while (slots < 2 * entries_.size()) slots *= 2;
  slots_.assign(slots, kNoEntry);
  for (std::uint32_t i = 0; i < entries_.size(); ++i) slots_[slotOf(nameAt(i))] = i;
}

std::size_t DirectoryListing::slotOf(std::string_view name) const {
  const std::size_t mask = slots_.size() - 1;
  std::size_t slot = std::hash<std::string_view>()(name) & mask;
  while (slots_[slot] != kNoEntry && nameAt(slots_[slot]) != name) slot = (slot + 1) & mask;
  return slot;
}

int DirectoryListing::fd() const { return ::dirfd(directory_.get()); }

std::string_view DirectoryListing::nameAt(std::uint32_t i) const {
  return std::string_view(names_).substr(entries_[i].offset, entries_[i].length);
}

std::string_view DirectoryListing::name(std::size_t i) const {
  return nameAt(static_cast<std::uint32_t>(i));
}

bool DirectoryListing::followedStat(std::string_view name, unsigned& mode, int& error) const {
  struct stat info {};
  if (::fstatat(fd(), std::string(name).c_str(), &info, 0) != 0) {
    error = errno;
    return false;
  }
  mode = info.st_mode;
  return true;
}

bool DirectoryListing::isRegularFile(std::size_t i) const {
  const unsigned char type = entries_[i].type;
  if (type != DT_LNK && type != DT_UNKNOWN) return type == DT_REG;
  unsigned mode = 0;
  int error = 0;
  if (followedStat(name(i), mode, error)) return S_ISREG(mode);
  // As Boost.Filesystem's status(): an absent target is no file, any other
  // failure an error.
  if (error == ENOENT || error == ENOTDIR) return false;
  throwError("boost::filesystem::status", boost::filesystem::path(path_) / std::string(name(i)),
             error);
}

bool DirectoryListing::exists(std::string_view name) const {
  const std::uint32_t found = slots_[slotOf(name)];
  const bool listed = found != kNoEntry;
  // Past a listing that stopped early, only the file system knows.
  if (!listed && listingError_ == 0) return false;
  const unsigned char type = listed ? entries_[found].type : static_cast<unsigned char>(DT_UNKNOWN);
  unsigned mode = 0;
  int error = 0;
  return (type != DT_LNK && type != DT_UNKNOWN) || followedStat(name, mode, error);
}

void DirectoryListing::throwIfIncomplete() const {
  if (listingError_ != 0) {
    throwError("boost::filesystem::directory_iterator::operator++", path_, listingError_);
  }
}

}  // namespace tavik

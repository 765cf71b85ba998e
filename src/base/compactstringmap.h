// A map from strings to strings for many short entries that are rarely
// changed, kept in two flat arrays: the entries' bytes one after the other,
// and a table of their offsets, probed by the key's hash. An entry costs its
// bytes, eight bytes of lengths and about two table slots, a third of what a
// node-based hash map spends on small strings; the store watcher keeps what
// every certificate file of a store gave in one of these.
//
// Taking an entry out leaves its bytes behind until they outweigh the live
// ones; then the arrays are written anew. Not thread-safe; throws nothing but
// std::bad_alloc (and std::length_error past 4 GiB of entries).
#ifndef TAVIK_BASE_COMPACTSTRINGMAP_H_
#define TAVIK_BASE_COMPACTSTRINGMAP_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavik {

class CompactStringMap {
 public:
  std::size_t size() const { return size_; }
  // The value of `key`; none when `key` is absent. Valid until the next change.
  std::optional<std::string_view> find(std::string_view key) const;
  // Enters `key` with `value`, replacing a value it had.
  void set(std::string_view key, std::string_view value);
  // Takes `key` out; false when it was not there.
  bool erase(std::string_view key);
  void clear();
  // Every entry, in no particular order.
  template <typename Visit>
  void forEach(Visit visit) const {
    for (const std::uint32_t slot : slots_) {
      if (slot >= kFirstEntry) visit(keyAt(slot - kFirstEntry), valueAt(slot - kFirstEntry));
    }
  }

 private:
  static constexpr std::uint32_t kEmpty = 0;
  static constexpr std::uint32_t kErased = 1;
  static constexpr std::uint32_t kFirstEntry = 2;  // slot = offset + kFirstEntry

  std::string_view keyAt(std::uint32_t offset) const;
  std::string_view valueAt(std::uint32_t offset) const;
  // The slot that holds `key`, or where it would go (the first erased slot on
  // its way, else the empty one that ends it).
  std::size_t slotOf(std::string_view key, bool& found) const;
  // Writes the live entries into new arrays with room for `entries`.
  void rebuild(std::size_t entries);

  std::string bytes_;  // per entry: key length, value length (4 bytes each), key, value
  std::vector<std::uint32_t> slots_;  // kEmpty, kErased or an entry
  std::size_t size_ = 0;
  std::size_t erased_ = 0;  // slots marked kErased
  std::size_t dead_ = 0;    // bytes of entries taken out or replaced
};

}  // namespace tavik

#endif  // TAVIK_BASE_COMPACTSTRINGMAP_H_

// The index of a CertFileCache: identifier -> file base name, split by the
// identifier's hash into a fixed number of shards, each held through a shared
// pointer. An index that is shared (share()) hands out a second index over the
// same shards; from then on either of them copies a shard before it changes
// it, so one change costs one shard, not the whole index, and an index that
// was shared never sees the other's changes.
//
// This is what lets a store watcher publish a new immutable index for every
// change of a store of 100,000 certificates: the new one shares all but the
// shard of the identifier that changed with the last one. Until an index is
// first shared it is one table, which a plain cache (whose index is never
// shared) fills as fast as ever; sharing it the first time moves its entries
// into the shards, without copying them.
//
// Not thread-safe for changes: one thread changes an index; any number may
// read one that nobody changes. Shards are only ever changed by the index that
// made or copied them, and an index gives up that right for all its shards
// when it is shared, so readers of a shared index never meet a change.
#ifndef TAVIK_CRYPTO_CERTIFICATEINDEX_H_
#define TAVIK_CRYPTO_CERTIFICATEINDEX_H_

#include <array>
#include <bitset>
#include <cstddef>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace tavik {

class CertificateIndex {
 public:
  CertificateIndex() = default;
  CertificateIndex(CertificateIndex&&) = default;
  CertificateIndex& operator=(CertificateIndex&&) = default;
  // Copies happen only through share(), so that none is made by accident.
  CertificateIndex(const CertificateIndex&) = delete;
  CertificateIndex& operator=(const CertificateIndex&) = delete;

  // A second index over the same shards. Both copy a shard before they change it.
  CertificateIndex share();

  std::size_t size() const;
  // The base name of `id`; null when `id` is absent.
  const std::string* find(const std::string& id) const;
  // Enters `id` with `baseName` unless it is there; then its base name is
  // replaced and `replaced` (when given) receives the earlier one. True when
  // `id` was new.
  bool set(const std::string& id, const std::string& baseName, std::string* replaced = nullptr);
  // Takes `id` out; false when it was not there.
  bool erase(const std::string& id);
  // Room for `count` more entries in the one table; nothing once it is shared.
  void reserve(std::size_t count);
  // Every entry, in no particular order.
  template <typename Visit>
  void forEach(Visit visit) const {
    for (const auto& entry : whole_) visit(entry.first, entry.second);
    for (const auto& shard : shards_) {
      if (!shard) continue;
      for (const auto& entry : *shard) visit(entry.first, entry.second);
    }
  }

 private:
  static constexpr std::size_t kShards = 256;
  using Shard = std::unordered_map<std::string, std::string>;

  static std::size_t shardOf(const std::string& id);
  // The table that holds or takes `id`, as this index may change it: the one
  // table, or its shard, made or copied when it is shared.
  Shard& writable(const std::string& id);
  // Moves the entries of the one table into the shards.
  void split();

  Shard whole_;  // every entry until the index is first shared; empty after
  bool split_ = false;
  std::array<std::shared_ptr<Shard>, kShards> shards_;  // null: empty
  std::bitset<kShards> owned_;                          // shards no other index holds
};

}  // namespace tavik

#endif  // TAVIK_CRYPTO_CERTIFICATEINDEX_H_

#include "base/compactstringmap.h"

#include <cstring>
#include <functional>
#include <stdexcept>

namespace tavik {

namespace {

constexpr std::size_t kLengths = 2 * sizeof(std::uint32_t);

std::uint32_t lengthAt(const std::string& bytes, std::size_t at) {
  std::uint32_t length = 0;
  std::memcpy(&length, bytes.data() + at, sizeof length);
  return length;
}

}  // namespace

std::string_view CompactStringMap::keyAt(std::uint32_t offset) const {
  return {bytes_.data() + offset + kLengths, lengthAt(bytes_, offset)};
}

std::string_view CompactStringMap::valueAt(std::uint32_t offset) const {
  return {bytes_.data() + offset + kLengths + lengthAt(bytes_, offset),
          lengthAt(bytes_, offset + sizeof(std::uint32_t))};
}

std::size_t CompactStringMap::slotOf(std::string_view key, bool& found) const {
  const std::size_t mask = slots_.size() - 1;  // a power of two
  std::size_t free = slots_.size();
  for (std::size_t i = std::hash<std::string_view>()(key) & mask;; i = (i + 1) & mask) {
    const std::uint32_t slot = slots_[i];
    found = slot >= kFirstEntry && keyAt(slot - kFirstEntry) == key;
    if (found) return i;
    if (slot == kErased && free == slots_.size()) free = i;
    if (slot == kEmpty) return free != slots_.size() ? free : i;
  }
}

std::optional<std::string_view> CompactStringMap::find(std::string_view key) const {
  if (size_ == 0) return std::nullopt;
  bool found = false;
  const std::size_t i = slotOf(key, found);
  if (!found) return std::nullopt;
  return valueAt(slots_[i] - kFirstEntry);
}

void CompactStringMap::set(std::string_view key, std::string_view value) {
  // At most half the slots in use, erased ones counted, so that probes stay short.
  if (2 * (size_ + erased_ + 1) > slots_.size()) rebuild(2 * size_ + 2);
  bool found = false;
  const std::size_t i = slotOf(key, found);
  if (found) {
    const std::uint32_t offset = slots_[i] - kFirstEntry;
    dead_ += kLengths + keyAt(offset).size() + valueAt(offset).size();
  } else {
    erased_ -= slots_[i] == kErased ? 1 : 0;
    ++size_;
  }
  const std::size_t offset = bytes_.size();
  if (offset + kLengths + key.size() + value.size() + kFirstEntry > UINT32_MAX) {
    throw std::length_error("CompactStringMap");
  }
  const std::uint32_t lengths[2] = {static_cast<std::uint32_t>(key.size()),
                                    static_cast<std::uint32_t>(value.size())};
  bytes_.append(reinterpret_cast<const char*>(lengths), kLengths);
  bytes_.append(key).append(value);
  slots_[i] = static_cast<std::uint32_t>(offset) + kFirstEntry;
  if (dead_ > bytes_.size() / 2) rebuild(size_);
}

bool CompactStringMap::erase(std::string_view key) {
  if (size_ == 0) return false;
  bool found = false;
  const std::size_t i = slotOf(key, found);
  if (!found) return false;
  const std::uint32_t offset = slots_[i] - kFirstEntry;
  dead_ += kLengths + keyAt(offset).size() + valueAt(offset).size();
  slots_[i] = kErased;
  ++erased_;
  --size_;
  if (dead_ > bytes_.size() / 2) rebuild(size_);
  return true;
}

void CompactStringMap::clear() {
  bytes_ = std::string();
  slots_ = std::vector<std::uint32_t>();
  size_ = erased_ = dead_ = 0;
}

void CompactStringMap::rebuild(std::size_t entries) {
  std::size_t capacity = 16;
  while (capacity < 2 * entries + 2) capacity *= 2;
  CompactStringMap rebuilt;
  rebuilt.slots_.assign(capacity, kEmpty);
  rebuilt.bytes_.reserve(bytes_.size() - dead_);
  forEach([&rebuilt](std::string_view key, std::string_view value) { rebuilt.set(key, value); });
  *this = std::move(rebuilt);
}

}  // namespace tavik

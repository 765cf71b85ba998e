#include "crypto/certificateindex.h"

#include <functional>

namespace tavik {

std::size_t CertificateIndex::shardOf(const std::string& id) {
  // The high bits: each shard's table takes its buckets from the low ones.
  return (std::hash<std::string>()(id) >> 24) % kShards;
}

void CertificateIndex::split() {
  const std::size_t each = whole_.size() / kShards + whole_.size() / kShards / 8 + 1;
  for (auto& shard : shards_) {
    shard = std::make_shared<Shard>();
    shard->reserve(each);
  }
  owned_.set();
  for (auto it = whole_.begin(); it != whole_.end();) {
    auto node = whole_.extract(it++);
    shards_[shardOf(node.key())]->insert(std::move(node));
  }
  whole_ = Shard();
  split_ = true;
}

CertificateIndex CertificateIndex::share() {
  if (!split_) split();
  CertificateIndex other;
  other.split_ = true;
  other.shards_ = shards_;
  owned_.reset();
  return other;
}

std::size_t CertificateIndex::size() const {
  std::size_t size = whole_.size();
  for (const auto& shard : shards_) size += shard ? shard->size() : 0;
  return size;
}

const std::string* CertificateIndex::find(const std::string& id) const {
  const Shard* table = split_ ? shards_[shardOf(id)].get() : &whole_;
  if (table == nullptr) return nullptr;
  const auto found = table->find(id);
  return found == table->end() ? nullptr : &found->second;
}

CertificateIndex::Shard& CertificateIndex::writable(const std::string& id) {
  if (!split_) return whole_;
  const std::size_t i = shardOf(id);
  if (!owned_[i]) {
    shards_[i] = shards_[i] ? std::make_shared<Shard>(*shards_[i]) : std::make_shared<Shard>();
    owned_[i] = true;
  }
  return *shards_[i];
}

bool CertificateIndex::set(const std::string& id, const std::string& baseName,
                           std::string* replaced) {
  const auto inserted = writable(id).emplace(id, baseName);
  if (inserted.second) return true;
  if (replaced != nullptr) *replaced = inserted.first->second;
  inserted.first->second = baseName;
  return false;
}

bool CertificateIndex::erase(const std::string& id) {
  if (find(id) == nullptr) return false;
  writable(id).erase(id);
  return true;
}

void CertificateIndex::reserve(std::size_t count) {
  if (!split_) whole_.reserve(whole_.size() + count);
}

}  // namespace tavik

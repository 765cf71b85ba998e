#include "crypto/certificateindex.h"

#include <functional>

namespace tavik {

std::size_t CertificateIndex::shardOf(const std::string& id) {
  // The high bits: each shard's table takes its buckets from the low ones.
  return (std::hash<std::string>()(id) >> 24) % kShards;
}

CertificateIndex CertificateIndex::share() {
  CertificateIndex other;
  other.shards_ = shards_;
  other.size_ = size_;
  owned_.reset();
  return other;
}

const std::string* CertificateIndex::find(const std::string& id) const {
  const std::shared_ptr<Shard>& shard = shards_[shardOf(id)];
  if (!shard) return nullptr;
  const auto found = shard->find(id);
  return found == shard->end() ? nullptr : &found->second;
}

CertificateIndex::Shard& CertificateIndex::writable(std::size_t i) {
  if (!owned_[i]) {
    shards_[i] = shards_[i] ? std::make_shared<Shard>(*shards_[i]) : std::make_shared<Shard>();
    owned_[i] = true;
  }
  return *shards_[i];
}

bool CertificateIndex::set(const std::string& id, const std::string& baseName,
                           std::string* replaced) {
  const auto inserted = writable(shardOf(id)).emplace(id, baseName);
  if (inserted.second) {
    ++size_;
    return true;
  }
  if (replaced != nullptr) *replaced = inserted.first->second;
  inserted.first->second = baseName;
  return false;
}

bool CertificateIndex::erase(const std::string& id) {
  const std::size_t i = shardOf(id);
  if (!shards_[i] || shards_[i]->count(id) == 0) return false;
  writable(i).erase(id);
  --size_;
  return true;
}

void CertificateIndex::reserve(std::size_t count) {
  // Too few to matter: the shards grow as they fill.
  if (count < kShards) return;
  // A little over the mean, which the shards' sizes scatter around.
  const std::size_t each = count / kShards + count / kShards / 8 + 1;
  for (std::size_t i = 0; i < kShards; ++i) {
    Shard& shard = writable(i);
    shard.reserve(shard.size() + each);
  }
}

}  // namespace tavik

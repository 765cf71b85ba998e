#include "cleansingallocator.h"

#include <openssl/crypto.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace tavik {
namespace cli {

namespace {

// A block begins with a header that holds its room: the bytes it may be
// written in, which are the bytes cleansed when it goes. 16 bytes keep the
// block as aligned as malloc's.
constexpr std::size_t kHeader = 16;
// Small blocks have a room of 16 k + 8 bytes, which with the header fills one
// of malloc's chunks (a multiple of 16 bytes, 8 of them its own) to the byte;
// a kept block then serves any later request up to its room.
constexpr std::size_t kStep = 16;
constexpr std::size_t kSteps = 16;  // small: a room of up to 248 bytes
constexpr std::size_t kLargestSmall = (kSteps - 1) * kStep + 8;
constexpr unsigned kKeptPerStep = 4;

// Blocks are kept by the installing thread alone: its own lists need no lock,
// and it is the one thread that lives as long as the process, so no list is
// left behind by a thread that ends. Under the sanitizers every block comes
// from malloc and goes back to it, so that they see each one.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kKeepBlocks = false;
#else
constexpr bool kKeepBlocks = true;
#endif
thread_local bool keeping = false;
// Per step, a list of kept blocks, each holding the next one's address in its
// first bytes.
thread_local void* kept[kSteps];
thread_local unsigned keptCount[kSteps];

// Overwrites a block that goes. The compiler may drop a memset of memory that
// is freed right after, unless something may still read it: the empty asm
// statement may. OPENSSL_cleanse, which writes a byte or a word at a time,
// made opening a key file 6 % slower than this.
void cleanse(void* block, std::size_t size) {
  std::memset(block, 0, size);
  __asm__ __volatile__("" : : "r"(block) : "memory");
}

std::size_t roomFor(std::size_t size) {
  if (size > kLargestSmall) return size;
  return size <= 8 ? 8 : (size + kStep - 9) / kStep * kStep + 8;
}

// The list of kept blocks of a small room.
std::size_t stepOf(std::size_t room) { return room / kStep; }

unsigned char* headerOf(void* block) { return static_cast<unsigned char*>(block) - kHeader; }

std::size_t roomOf(void* block) {
  std::size_t room = 0;
  std::memcpy(&room, headerOf(block), sizeof room);
  return room;
}

void* allocate(std::size_t size, const char* /*file*/, int /*line*/) {
  const std::size_t room = roomFor(size);
  if (keeping && room <= kLargestSmall && kept[stepOf(room)] != nullptr) {
    void* block = kept[stepOf(room)];
    std::memcpy(&kept[stepOf(room)], block, sizeof block);
    --keptCount[stepOf(room)];
    return block;
  }
  if (room > SIZE_MAX - kHeader) return nullptr;
  auto* raw = static_cast<unsigned char*>(std::malloc(room + kHeader));
  if (raw == nullptr) return nullptr;
  std::memcpy(raw, &room, sizeof room);
  return raw + kHeader;
}

void release(void* block, const char* /*file*/, int /*line*/) {
  if (block == nullptr) return;
  const std::size_t room = roomOf(block);
  cleanse(block, room);
  if (keeping && room <= kLargestSmall && keptCount[stepOf(room)] < kKeptPerStep) {
    std::memcpy(block, &kept[stepOf(room)], sizeof block);
    kept[stepOf(room)] = block;
    ++keptCount[stepOf(room)];
    return;
  }
  std::free(headerOf(block));
}

// A block that moves leaves no copy behind where it was.
void* reallocate(void* block, std::size_t size, const char* file, int line) {
  if (block == nullptr) return allocate(size, file, line);
  if (size == 0) {
    release(block, file, line);
    return nullptr;
  }
  const std::size_t room = roomOf(block);
  if (size <= room) return block;
  void* moved = allocate(size, file, line);
  if (moved == nullptr) return nullptr;
  std::memcpy(moved, block, room);
  release(block, file, line);
  return moved;
}

}  // namespace

bool installCleansingAllocator() {
  if (CRYPTO_set_mem_functions(allocate, reallocate, release) != 1) return false;
  keeping = kKeepBlocks;
  return true;
}

}  // namespace cli
}  // namespace tavik

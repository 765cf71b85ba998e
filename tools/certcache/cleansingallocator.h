// The tool's allocator for OpenSSL: every block that OpenSSL frees, or moves
// by reallocating it, is cleansed first. OpenSSL 3.0 frees some buffers of
// decrypted key material without cleansing them (among them the output of
// PKCS12_pbe_crypt_ex and the DER that its key decoder reads); through this
// allocator none of them outlives its use.
//
// Cleansing every free costs time where OpenSSL allocates most: opening a key
// file protected with 100,000 PBKDF2 iterations allocates and frees a digest
// context 400,000 times. So that the tool is no slower for it, small blocks
// (up to 248 bytes) freed on the thread that installed the allocator are kept,
// already cleansed, for that thread's next allocation of their size rather
// than given back to malloc: four per size at most.
#ifndef TAVIK_TOOLS_CERTCACHE_CLEANSINGALLOCATOR_H_
#define TAVIK_TOOLS_CERTCACHE_CLEANSINGALLOCATOR_H_

namespace tavik {
namespace cli {

// Installs the allocator with CRYPTO_set_mem_functions. False when OpenSSL had
// allocated already, and keeps its own: call it before anything else does.
bool installCleansingAllocator();

}  // namespace cli
}  // namespace tavik

#endif  // TAVIK_TOOLS_CERTCACHE_CLEANSINGALLOCATOR_H_

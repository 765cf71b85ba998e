// What the tool does to its own process so that no password or private key
// outlives its use in memory or reaches a core dump: every block OpenSSL frees
// is cleansed first (OpenSSL 3.0 frees the decrypted DER of a key it reads
// without cleansing it), private key numbers live in OpenSSL's secure heap
// (locked pages that core dumps leave out), and the process is not dumpable
// (no core file, and no other process of the same user may read its memory
// through ptrace or /proc/PID/mem).
//
// The library does none of this: it is the host program's to decide.
#ifndef TAVIK_TOOLS_CERTCACHE_SECRETMEMORY_H_
#define TAVIK_TOOLS_CERTCACHE_SECRETMEMORY_H_

namespace tavik {
namespace cli {

// First thing in main(), before anything is allocated through OpenSSL: no
// core dump, not dumpable, OpenSSL's allocations cleansed when they are freed
// or moved, and OpenSSL's secure heap started. What could not be had is said
// at --log debug, once logging is set up (see tellProtection); the tool goes
// on without it.
void protectProcessMemory();

// Writes, as a debug statement, what protectProcessMemory could do.
void tellProtection();

}  // namespace cli
}  // namespace tavik

#endif  // TAVIK_TOOLS_CERTCACHE_SECRETMEMORY_H_

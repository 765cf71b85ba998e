// What the tool does to its own process so that no password or private key
// outlives its use in memory or reaches a core dump: every block OpenSSL frees
// is cleansed first (cleansingallocator.h), private key numbers live in
// OpenSSL's secure heap (locked pages that core dumps leave out), and the
// process is not dumpable (no core file, and no other process of the same user
// may read its memory through ptrace or /proc/PID/mem).
//
// The library does none of this: it is the host program's to decide.
#ifndef TAVIK_TOOLS_CERTCACHE_SECRETMEMORY_H_
#define TAVIK_TOOLS_CERTCACHE_SECRETMEMORY_H_

namespace tavik {
namespace cli {

// First thing in main(): no core dump, and not dumpable.
void protectProcessMemory();

// Before anything is allocated through OpenSSL (the command line is parsed
// without it): OpenSSL's allocations cleansed when they are freed or moved
// (cleansingallocator.h). A run that reads no password handles no private key
// and leaves OpenSSL's allocator as it is.
void cleanseOpenSSLMemory();

// Writes, as a debug statement, what the two above could do; the tool goes on
// without what it could not have.
void tellProtection();

// Starts OpenSSL's secure heap, once, and says at --log debug how it went:
// locked, not locked (the system refuses locked memory), or not started; the
// tool goes on in any case. It costs a process some 50 microseconds, so it is
// started when a password is first read: every command that opens or makes a
// private key reads one before the key exists.
void startSecureHeap();

// Overwrites the stack below the caller, as deep as OpenSSL's calls go: what
// dead frames hold is never cleansed by them. OpenSSL 3.0's key reading
// leaves the password in a stack buffer; a core taken after `check --passin`
// held its last 19 bytes. Called when a command is done.
void scrubStack();

}  // namespace cli
}  // namespace tavik

#endif  // TAVIK_TOOLS_CERTCACHE_SECRETMEMORY_H_

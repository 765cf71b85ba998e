// The cache's one log handle, for the cache's files other than its main one
// (the builders of requests and certificates). Their statements name the
// cache's source file and go through the cache's handle and module, as the
// cache's own statements do, so a program that keeps the cache's records by
// their file keeps every one of them, wherever the code behind it lives.
//
// Include this first in such a file: it sets the name its statements carry.
#ifndef TAVIK_CRYPTO_CACHELOG_H_
#define TAVIK_CRYPTO_CACHELOG_H_

#undef TAVIK_LOG_SOURCE_FILE
#define TAVIK_LOG_SOURCE_FILE "src/crypto/certificatefilecache.cpp"

#include "log/log.h"

namespace tavik {

// Registered with the cache's source file at start-up; it lives until the
// process ends.
LogHandle& cacheLogHandle();

}  // namespace tavik

#endif  // TAVIK_CRYPTO_CACHELOG_H_

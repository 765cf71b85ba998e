// Kept for code written against this header: the file-name encoding
// (encodeFilename, decodeFilename, to_lowercase) lives in base/filename.h.
#ifndef TAVIK_BASE_STRINGUTIL_H_
#define TAVIK_BASE_STRINGUTIL_H_

#include "base/filename.h"

#endif  // TAVIK_BASE_STRINGUTIL_H_

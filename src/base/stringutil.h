// String helpers for turning identifiers into file names and back.
#ifndef TAVIK_BASE_STRINGUTIL_H_
#define TAVIK_BASE_STRINGUTIL_H_

#include <string>

namespace tavik {

// Turns an identifier (an e-mail address, a subject) into a name that can serve
// as a file base name in a single directory. Bytes of A-Z a-z 0-9 . _ - @ + stay
// as they are, every other byte becomes %XX (upper-case hex), and a leading "."
// is escaped too. The result therefore never is "." or "..", never starts with a
// dot, and never holds "/" or NUL. The mapping is injective and the empty string
// maps to itself.
std::string encodeFilename(const std::string& name);

// The inverse of encodeFilename. A "%" that is not followed by two hex digits is
// kept as it stands.
std::string decodeFilename(const std::string& fileName);

// A copy of text with the ASCII letters A-Z lower-cased; other bytes unchanged.
std::string to_lowercase(const std::string& text);

}  // namespace tavik

#endif  // TAVIK_BASE_STRINGUTIL_H_

// The names of a store's files: how identifiers become file base names and
// back, which base names are safe to use, and the one place where the path of
// every file of a base name is built.
//
// In a store location, the certificates of one kind lie in the directory
// LOCATION/SUBDIRECTORY (the filter's subdirectory), and a base name B has up
// to three files there: B.crt, B.key and B.tpk (the key of a pending request).
//
// Every function here depends on its arguments alone, touches no file, may be
// called from any thread and throws nothing but std::bad_alloc.
#ifndef TAVIK_BASE_FILENAME_H_
#define TAVIK_BASE_FILENAME_H_

#include <boost/filesystem/path.hpp>
#include <string>

namespace tavik {

inline constexpr char kCertExtension[] = ".crt";
inline constexpr char kKeyExtension[] = ".key";
inline constexpr char kTempKeyExtension[] = ".tpk";

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

// The file base name of a credential: the encoded subject when there is one,
// otherwise the encoded e-mail address with every "@" written as "_at_".
std::string subjectToFilename(const std::string& subject, const std::string& email);

// True when a base name taken from a person stays inside the cache directory:
// not empty, not "." or "..", no "/" and no NUL. Every name encodeFilename
// gives except the empty one passes.
bool isSafeBaseName(const std::string& baseName);

// LOCATION/SUBDIRECTORY.
boost::filesystem::path cacheDirectory(const std::string& location, const char* subdirectory);

// DIRECTORY/BASENAME+EXTENSION. The extension is appended as text, so a base
// name with dots of its own keeps them.
boost::filesystem::path credentialFile(const boost::filesystem::path& directory,
                                       const std::string& baseName, const char* extension);

}  // namespace tavik

#endif  // TAVIK_BASE_FILENAME_H_

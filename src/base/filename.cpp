#include "base/filename.h"

#include <boost/algorithm/string/replace.hpp>

namespace tavik {

namespace {

bool keptAsIs(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' ||
         c == '_' || c == '-' || c == '@' || c == '+';
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

}  // namespace

std::string encodeFilename(const std::string& name) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string encoded;
  encoded.reserve(name.size());
  for (std::string::size_type i = 0; i < name.size(); ++i) {
    const auto c = static_cast<unsigned char>(name[i]);
    // A leading dot would make the name hidden, "." or "..".
    if (keptAsIs(c) && !(i == 0 && c == '.')) {
      encoded.push_back(static_cast<char>(c));
    } else {
      encoded.push_back('%');
      encoded.push_back(kHex[c >> 4]);
      encoded.push_back(kHex[c & 0x0F]);
    }
  }
  return encoded;
}

std::string decodeFilename(const std::string& fileName) {
  std::string decoded;
  decoded.reserve(fileName.size());
  for (std::string::size_type i = 0; i < fileName.size(); ++i) {
    if (fileName[i] == '%' && i + 2 < fileName.size()) {
      const int high = hexValue(fileName[i + 1]);
      const int low = hexValue(fileName[i + 2]);
      if (high >= 0 && low >= 0) {
        decoded.push_back(static_cast<char>(high * 16 + low));
        i += 2;
        continue;
      }
    }
    decoded.push_back(fileName[i]);
  }
  return decoded;
}

std::string to_lowercase(const std::string& text) {
  std::string lowered(text);
  for (char& c : lowered) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lowered;
}

std::string subjectToFilename(const std::string& subject, const std::string& email) {
  if (!subject.empty()) return encodeFilename(subject);
  return encodeFilename(boost::algorithm::replace_all_copy(email, "@", "_at_"));
}

bool isSafeBaseName(const std::string& baseName) {
  return !baseName.empty() && baseName != "." && baseName != ".." &&
         baseName.find('/') == std::string::npos && baseName.find('\0') == std::string::npos;
}

boost::filesystem::path cacheDirectory(const std::string& location, const char* subdirectory) {
  boost::filesystem::path directory(location);
  directory /= subdirectory;
  return directory;
}

boost::filesystem::path credentialFile(const boost::filesystem::path& directory,
                                       const std::string& baseName, const char* extension) {
  boost::filesystem::path file = directory;
  file /= baseName + extension;
  return file;
}

}  // namespace tavik

// One owner of secret bytes: a password, the PEM or DER of a decrypted key, the
// bytes of a PKCS#12 file. Its bytes never outlive their use: they are
// cleansed with OPENSSL_cleanse (which the compiler may not leave out) when
// the owner goes, when it is cleared or assigned anew, and when the text
// outgrows its room, the old room is cleansed before it is given back, so no
// reallocation leaves a copy behind.
//
// The text is a std::string, so that it reaches the members that take
// `const std::string&` passwords without a copy. Whoever copies it into a
// string of their own cleanses that copy with cleanseString() before it goes.
//
// Nothing throws but std::bad_alloc, when the text grows. Not shared between
// threads: one owner, one thread at a time.
#ifndef TAVIK_BASE_SECRETSTRING_H_
#define TAVIK_BASE_SECRETSTRING_H_

#include <cstddef>
#include <string>
#include <string_view>

namespace tavik {

class SecretString {
 public:
  SecretString() = default;
  explicit SecretString(std::string_view text);
  // Takes over the bytes of `text`, which is left cleansed and empty: a short
  // text that std::string keeps inside itself is copied, not moved.
  explicit SecretString(std::string&& text) noexcept;
  SecretString(SecretString&& other) noexcept;
  SecretString& operator=(SecretString&& other) noexcept;
  SecretString(const SecretString&) = delete;
  SecretString& operator=(const SecretString&) = delete;
  ~SecretString();

  const std::string& str() const { return text_; }
  const char* c_str() const { return text_.c_str(); }
  std::size_t size() const { return text_.size(); }
  bool empty() const { return text_.empty(); }

  void append(std::string_view more);
  void push_back(char c) { append(std::string_view(&c, 1)); }
  // The last byte is cleansed and dropped; the text must not be empty.
  void pop_back();
  // Cleansed, then empty.
  void clear();

 private:
  std::string text_;
};

// Cleanses every byte that `text` has room for, then empties it: for a string
// that held a secret and is about to go or be reused.
void cleanseString(std::string& text) noexcept;

}  // namespace tavik

#endif  // TAVIK_BASE_SECRETSTRING_H_

#include "base/secretstring.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <utility>

namespace tavik {

void cleanseString(std::string& text) noexcept {
  // The whole room, not only the text: a shorter text written over a longer
  // one leaves the longer one's end behind its terminator. Growing to the
  // capacity never reallocates, so it cannot throw.
  text.resize(text.capacity());
  if (!text.empty()) OPENSSL_cleanse(&text[0], text.size());
  text.clear();
}

SecretString::SecretString(std::string_view text) { append(text); }

SecretString::SecretString(std::string&& text) noexcept : text_(std::move(text)) {
  cleanseString(text);
}

SecretString::SecretString(SecretString&& other) noexcept : text_(std::move(other.text_)) {
  cleanseString(other.text_);
}

SecretString& SecretString::operator=(SecretString&& other) noexcept {
  if (this != &other) {
    cleanseString(text_);
    text_ = std::move(other.text_);
    cleanseString(other.text_);
  }
  return *this;
}

SecretString::~SecretString() { cleanseString(text_); }

void SecretString::append(std::string_view more) {
  if (more.size() <= text_.capacity() - text_.size()) {
    text_.append(more);
    return;
  }
  // A room of its own, twice as large, so that growing a byte at a time stays
  // linear; the old room is cleansed before it is given back.
  std::string larger;
  larger.reserve(std::max(text_.size() + more.size(), 2 * text_.capacity()));
  larger.append(text_).append(more);
  cleanseString(text_);
  text_.swap(larger);
}

void SecretString::pop_back() {
  OPENSSL_cleanse(&text_.back(), 1);
  text_.pop_back();
}

void SecretString::clear() { cleanseString(text_); }

}  // namespace tavik

#include "base/certificateparser.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <random>
#include <string>
#include <vector>

namespace tavik {
namespace {

std::string encode(const std::string& bytes) {
  std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&text[0]),
                                     reinterpret_cast<const unsigned char*>(bytes.data()),
                                     static_cast<int>(bytes.size()));
  text.resize(static_cast<std::size_t>(length));
  return text;
}

bool decode(const std::string& text, std::string& bytes) {
  return decodeBase64(text.data(), text.data() + text.size(), bytes);
}

TEST(Base64Test, DecodesWhatOpenSslEncodesWithWhiteSpaceAnywhere) {
  std::mt19937 random(7);
  const char spaces[] = {' ', '\t', '\r', '\n'};
  for (std::size_t length = 0; length < 200; ++length) {
    std::string bytes(length, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random() & 0xFF);
    const std::string text = encode(bytes);
    // White space between any two characters, padding included, and around the text.
    std::string spaced = "\n";
    for (char c : text) {
      spaced += c;
      if (random() % 3 == 0) spaced += spaces[random() % 4];
    }
    for (const std::string& input : {text, spaced, text + "\r\n", "  " + text}) {
      std::string decoded;
      ASSERT_TRUE(decode(input, decoded)) << input;
      EXPECT_EQ(decoded, bytes) << input;
    }
  }
}

TEST(Base64Test, RefusesBadPaddingStrayCharactersAndPartialGroups) {
  std::string decoded;
  const std::vector<std::string> refused = {"QUJD=",
                                            "QUI",
                                            "QQ",
                                            "Q===",
                                            "QUJ==",
                                            "=QUJ",
                                            "QQ==QUJD",
                                            "QUI=QUJD",
                                            "QQ=a",
                                            "QUJD!",
                                            "QU JD-",
                                            "QUJDQUJD\x80",
                                            std::string("QU\0D", 4)};
  for (const std::string& text : refused) {
    EXPECT_FALSE(decode(text, decoded)) << text;
  }
  ASSERT_TRUE(decode("QQ = =", decoded));
  EXPECT_EQ(decoded, "A");
  ASSERT_TRUE(decode("QUI=\n", decoded));
  EXPECT_EQ(decoded, "AB");
  ASSERT_TRUE(decode(" \t\r\n", decoded));
  EXPECT_EQ(decoded, "");
}

}  // namespace
}  // namespace tavik

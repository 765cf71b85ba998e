#include "base/stringutil.h"

#include <gtest/gtest.h>

#include <random>
#include <set>

namespace tavik {
namespace {

TEST(EncodeFilenameTest, KeepsSafeCharactersAndEscapesTheRest) {
  EXPECT_EQ(encodeFilename("Device-17_a.b@c+d"), "Device-17_a.b@c+d");
  EXPECT_EQ(encodeFilename("a/b c%"), "a%2Fb%20c%25");
  EXPECT_EQ(encodeFilename(std::string("x\0y", 3)), "x%00y");
  EXPECT_EQ(encodeFilename("\xC3\xA9"), "%C3%A9");
  EXPECT_EQ(encodeFilename(""), "");
}

TEST(EncodeFilenameTest, NeverLeavesTheDirectoryOrHides) {
  EXPECT_EQ(encodeFilename("."), "%2E");
  EXPECT_EQ(encodeFilename(".."), "%2E.");
  EXPECT_EQ(encodeFilename("../x"), "%2E.%2Fx");
  EXPECT_EQ(encodeFilename(".hidden"), "%2Ehidden");
  EXPECT_EQ(encodeFilename("a.."), "a..");
}

TEST(EncodeFilenameTest, RandomBytesRoundTripInjectivelyIntoTheSafeSet) {
  std::mt19937 random(17);
  std::set<std::string> names;
  std::set<std::string> encodings;
  for (int i = 0; i < 5000; ++i) {
    std::string name(random() % 6, '\0');
    for (char& c : name) c = static_cast<char>("./%@a_A\0\xFF-"[random() % 10]);
    const std::string encoded = encodeFilename(name);
    EXPECT_EQ(decodeFilename(encoded), name);
    EXPECT_EQ(encoded.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                        "0123456789._-@+%"),
              std::string::npos);
    if (!name.empty()) {
      EXPECT_NE(encoded[0], '.');
    }
    if (names.insert(name).second) {
      EXPECT_TRUE(encodings.insert(encoded).second) << encoded;
    }
  }
}

TEST(DecodeFilenameTest, KeepsMalformedEscapes) {
  EXPECT_EQ(decodeFilename("a%2"), "a%2");
  EXPECT_EQ(decodeFilename("%G0x"), "%G0x");
  EXPECT_EQ(decodeFilename("%2e%41"), ".A");
}

TEST(ToLowercaseTest, LowersAsciiOnly) {
  EXPECT_EQ(to_lowercase(".CrT"), ".crt");
  EXPECT_EQ(to_lowercase("\xC3\x89Z"), "\xC3\x89z");
}

}  // namespace
}  // namespace tavik

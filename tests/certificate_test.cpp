// The collaborators under the cache: DER read in place, a certificate's identity read every way,
// what counts as one certificate, base64 and file names.
#include "base/certificate.h"

#include <fcntl.h>
#include <unistd.h>

#include "base/derreader.h"
#include "base/filename.h"
#include "base/intentrecord.h"
#include "base/pem.h"
#include "support/storetest.h"

namespace tavik {
namespace {

using test::operator""_b;
using Cert = std::shared_ptr<Certificate>;

std::string tlv(int tag, const std::string& content) {  // the length in its shortest form
  std::string length(1, static_cast<char>(content.size()));
  for (std::size_t n = content.size(); content.size() > 0x7F && n > 0; n >>= 8) {
    length.insert(1, 1, static_cast<char>(n & 0xFF));
  }
  if (content.size() > 0x7F) length[0] = static_cast<char>(0x80 + length.size() - 1);
  return static_cast<char>(tag) + length + content;
}
std::string seq(const std::string& content) { return tlv(0x30, content); }
std::string rdn(const std::string& type, const std::string& value, int tag = 0x0C) {
  return tlv(0x31, seq(type + tlv(tag, value)));
}
std::string ext(const std::string& type, const std::string& value) {
  return seq(type + tlv(4, value));
}
const unsigned char* bytes(const std::string& der) {
  return reinterpret_cast<const unsigned char*>(der.data());
}
std::vector<std::string> children(const std::string& der) {  // of a constructed value
  DerCursor input(bytes(der), der.size()), outer, part;
  unsigned char tag;
  input.nextAny(tag, outer);
  std::vector<std::string> parts;
  for (auto start = outer.data(); outer.nextAny(tag, part); start = outer.data()) {
    parts.emplace_back(reinterpret_cast<const char*>(start), outer.data() - start);
  }
  return parts;
}
std::string base64(const std::string& der) {  // on one line
  std::string text(4 * (der.size() / 3 + 1) + 1, '\0');
  text.resize(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&text[0]), bytes(der), der.size()));
  return text;
}

TEST(DerCursorTest, TakesOnlyDefiniteMinimalLengthsAndTheTagAskedFor) {
  const std::string x(300, 'x');
  // clang-format off
  for (const auto& c : std::vector<std::pair<std::string, bool>>{
           {"\x05\x00"_b, true}, {"\x04\x81\x80"_b + x.substr(172), true},
           {"\x04\x82\x01\x2C"_b + x, true},
           {"\x05", false}, {"\x04\x02x", false}, {"\x04\x81\x7F"_b + x.substr(173), false},
           {"\x04\x82\x00\x80"_b + x.substr(172), false}, {"\x04\x80\x00\x00"_b, false},
           {"\x04\x85\x00\x00\x00\x00\x01x"_b, false}, {"\x04\x82\x01", false},
           {"\x1F\x01\x00"_b, false}}) {
    // clang-format on
    const std::vector<unsigned char> der(c.first.begin(), c.first.end());  // ASan sees overreads
    const DerCursor whole(der.data(), der.size());
    DerCursor cursor = whole, content, element;
    unsigned char tag = 0;
    const bool taken = cursor.nextAny(tag, content);
    EXPECT_EQ(taken, c.second) << ::testing::PrintToString(c.first);
    // Taken: all of it, the content at the end; refused: the cursor where it was.
    EXPECT_EQ(cursor.data(), der.data() + (taken ? der.size() : 0));
    EXPECT_EQ(cursor.size(), taken ? 0 : der.size());
    EXPECT_TRUE(!taken || content.data() + content.size() == der.data() + der.size());
    if (!taken) continue;
    cursor = whole;  // a tag that is not the value's is refused and reads nothing
    EXPECT_FALSE(cursor.next(tag ^ 1, content));
    EXPECT_EQ(cursor.size(), der.size());
    EXPECT_TRUE(cursor.next(tag, content, element) && cursor.empty());
    EXPECT_EQ(element.data(), der.data());
    EXPECT_EQ(element.size(), der.size());
  }
}

class CertificateTest : public test::StoreTest {};

// A subject and extensions read in place (which must agree with OpenSSL's reading, or leave the
// certificate to it), lazily as a store is loaded, whole and from text; and what the filters
// make of them.
TEST_F(CertificateTest, IdentityIsTheSameEveryWayItIsReadAndTheFiltersFollow) {
  const std::string cn = tlv(6, "\x55\x04\x03"),
                    mail = tlv(6, "\x2A\x86\x48\x86\xF7\x0D\x01\x09\x01");
  const std::string bc = tlv(6, "\x55\x1D\x13"), alt = tlv(6, "\x55\x1D\x11"),
                    n = seq(rdn(cn, "N"));
  const std::string ca = ext(bc, seq(tlv(1, "\xFF"))), user = ext(bc, seq(""));
  const struct {
    std::string subject, extensions;
    const char* inPlace;  // "authority|email|name", or "" when left to OpenSSL
    const char* read;     // the same, then the user and authority filters' ids; "" when refused
  } cases[] = {
      // clang-format off
      {seq(rdn(cn, "a@b")), "", "0|a@b|a@b", "0|a@b|a@b|a@b|-"},
      {seq(rdn(tlv(6, "\x55\x04\x06"), "DE", 0x13) + rdn(cn, "One") + rdn(mail, "one@x", 0x16)),
       seq(user + ext(alt, seq(tlv(0x81, "alt@x")))), "0|one@x|One", "0|one@x|One|one@x|-"},
      {seq(tlv(0x31, seq(mail + tlv(0x16, "e@x")) + seq(cn + tlv(0x13, "N")))), "", "0|e@x|N",
       "0|e@x|N|e@x|-"},
      {seq(rdn(cn, "cn@x") + rdn(mail, "", 0x16)), "", "0|cn@x|cn@x", "0|cn@x|cn@x|cn@x|-"},
      {n + tlv(0x31, ""), "", "", ""}, {seq(rdn(cn, "N") + tlv(0x31, "")), "", "", "0||N|-|-"},
      {n + rdn(cn, "M"), "", "", ""},
      {seq(seq(seq(cn + tlv(0x0C, "N")))), "", "", ""},
      {seq(rdn(cn, "\0N"_b, 0x1E)), seq(ca), "", "1||N|-|N"},
      {seq(rdn(cn, "J\xC3\xBC") + rdn(mail, "j@x", 0x16)), "", "", "0|j@x|J\xC3\xBC|j@x|-"},
      {seq(rdn(cn, "N", 0x13) + rdn(cn, "Caf\xE9", 0x13)), "", "", "0||N|-|-"},
      {seq(rdn(tlv(6, "\x80\x55\x04"), "x") + rdn(cn, "N")), "", "", ""},
      {seq(rdn(tlv(6, "\x55\x04\x83"), "x") + rdn(cn, "N")), "", "", ""},
      {seq(rdn(tlv(6, "\x55\x80\x84\x03"), "x") + rdn(cn, "N")), "", "", ""},
      {seq(rdn(tlv(6, "\x55\x81\x80\x01"), "x") + rdn(cn, "N")), "", "0||N", "0||N|-|-"},
      {seq(rdn(mail, "e@x", 0x16)), "", "", "0|e@x|/emailAddress=e@x|e@x|-"},
      {seq(tlv(0x31, seq(cn + tlv(0x0C, "N") + tlv(5, "")))), "", "", ""},
      {seq(rdn(tlv(6, "\x55\x04\x0A"), "Org") + rdn(mail, "o@x", 0x16)), seq(ca), "",
       "1|o@x|/O=Org/emailAddress=o@x|-|/O=Org/emailAddress=o@x"},
      {seq(""), seq(ca), "", "1|||-|"}, {n, seq(ca), "1||N", "1||N|-|N"},
      {n, seq(ca + ca), "0||N", "0||N|-|-"},
      {n, seq(ext(alt, seq(tlv(0x82, "h")))), "0||N", "0||N|-|-"},
      {n, seq(ext(alt, seq(tlv(0x82, "h") + tlv(0x81, "alt@x")))), "0|alt@x|N",
       "0|alt@x|N|alt@x|-"},
      {n, seq(ext(alt, seq(tlv(0x81, "a@x"))) + ext(alt, seq(tlv(0x81, "b@x")))), "0||N",
       "0||N|-|-"},
      {n, seq(seq(bc + tlv(1, "\x00\x00"_b) + tlv(4, seq("")))), "", ""},
      {n, seq(ext(bc, tlv(4, ""))), "", ""},
  };  // clang-format on
  X509Ptr model = test::makeCertificate(test::userRecipe("u@x"));
  const std::vector<std::string> parts = children(test::toDer(model.get())),
                                 tbs = children(parts[0]);
  UserCertificateFilter users;
  AuthorityCertificateFilter authorities;
  EXPECT_EQ(std::string(users.subdirectory()) + authorities.subdirectory(), "userca");
  const auto id = [](const CertificateIdentity& i) {
    return std::to_string(i.authority) + "|" + i.email + "|" + i.name;
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.subject + c.extensions));
    CertificateIdentity read;
    const bool taken = readCertificateIdentityFromDer(
        bytes(c.subject), c.subject.size(), c.extensions.empty() ? nullptr : bytes(c.extensions),
        c.extensions.size(), read);
    EXPECT_EQ(taken ? id(read) : "", c.inPlace);
    const std::string der =
        seq(seq(tbs[0] + tbs[1] + tbs[2] + tbs[3] + tbs[4] + c.subject + tbs[6] +
                (c.extensions.empty() ? "" : tlv(0xA3, c.extensions))) +
            parts[1] + parts[2]);
    test::writeFile(path("c.crt"), der);
    for (const Cert& cert : {Certificate::createFromFile(path("c.crt"), false),
                             Certificate::createFromFile(path("c.crt"), true),
                             Certificate::createFromBase64(base64(der))}) {
      const auto as = [&cert](CertificateFilter& f) {
        return f.acceptsCertificate(cert) ? f.certificateId(cert) : "-";
      };
      EXPECT_EQ(cert ? id(cert->identity()) + "|" + as(users) + "|" + as(authorities) : "", c.read);
    }
  }
}

// Both ways of reading a file, and an authority's reply, take one whole DER certificate and
// nothing else, of at most a mebibyte, from nothing but a regular file.
TEST_F(CertificateTest, TakesOneWholeWellFormedCertificateAndNothingElse) {
  X509Ptr cert = test::makeCertificate(test::userRecipe("u@x"));
  const std::string der = test::toDer(cert.get()), pem = test::toPem(cert.get());
  const std::vector<std::string> parts = children(der), tbs = children(parts[0]);
  const std::vector<std::string> times = children(tbs[4]);
  const auto rebuilt = [&](std::size_t at, const std::string& field, const std::string& tail = "") {
    std::string content;
    for (std::size_t i = 0; i < tbs.size(); ++i) content += i == at ? field : tbs[i];
    return seq(seq(content + (at == 8 ? field : "")) + parts[1] + parts[2] + tail);
  };
  const auto replaced = [&der](const std::string& from, const std::string& to) {
    return std::string(der).replace(der.find(from), from.size(), to);
  };
  std::string deep;  // nested deeper than any certificate goes, where OpenSSL keeps bytes
  for (int i = 0; i < 25; ++i) deep = seq(deep);
  for (const std::string& refused : std::vector<std::string>{
           rebuilt(8, tlv(0xA4, "")), rebuilt(8, tlv(0x81, "\0"_b)), rebuilt(1, tlv(2, "")),
           rebuilt(2, seq("\x30\x05\x06\x01\x00"_b)),
           rebuilt(4, seq(times[0] + times[0] + times[1])), rebuilt(9, "", tlv(5, "")),
           rebuilt(7, tlv(0xA3, seq(seq("\x06\x03\x55\x1D\x13\x04\x02\x30\x00\x05\x00"_b)))),
           rebuilt(7, tlv(0xA3, seq(seq("\x06\x03\x55\x1D\x13"_b)))),
           rebuilt(2, seq("\x06\x09\x2A\x86\x48\x86\xF7\x0D\x01\x01\x0B"_b + deep)),
           der.substr(0, der.size() - 1), der + "x", der + der, replaced("\x17\x0D", "\x13\x0D"),
           replaced(tbs[3], "\x10" + tbs[3].substr(1)),
           replaced("\x04\x02\x30\x00"_b, "\x04\x02\x04\x00"_b), replaced("\x05\x00"_b, "\x05\x01"),
           "text", "\x30\x82\xFF\xFF garbage"_b,
           "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n"}) {
    test::writeFile(path("refused.crt"), refused);
    EXPECT_FALSE(Certificate::createFromFile(path("refused.crt"), false) ||
                 Certificate::createFromFile(path("refused.crt"), true) ||
                 Certificate::createFromBase64(base64(refused)))
        << ::testing::PrintToString(refused);
  }
  test::writeFile(path("limit.crt"),
                  "Certificate:\n" + pem + std::string((1 << 20) - pem.size() - 13, '\n'));
  test::writeFile(path("over.crt"), test::readFile(path("limit.crt")) + "\n");
  test::writeFile(path("sparse.crt"), pem);
  ASSERT_EQ(
      ::truncate(path("sparse.crt").c_str(), 2LL << 30) + ::mkfifo(path("pipe.crt").c_str(), 0600),
      0);
  const int writer = ::open(path("pipe.crt").c_str(), O_RDWR | O_NONBLOCK);  // a FIFO holding one
  ASSERT_EQ(::write(writer, pem.data(), pem.size()), static_cast<ssize_t>(pem.size()));
  for (const bool whole : {false, true}) {
    const Cert limit = Certificate::createFromFile(path("limit.crt"), whole);
    EXPECT_EQ(limit ? limit->der() : "", der);
    for (const char* name : {"over.crt", "pipe.crt", "sparse.crt", "none.crt", ""}) {
      EXPECT_FALSE(Certificate::createFromFile(path(name), whole)) << name;
    }
  }
  ::close(writer);
  // Replies: PEM or bare base64 with white space around and inside, up to a mebibyte.
  std::string body = pem.substr(28, pem.size() - 54), line = body;
  line.erase(std::remove(line.begin(), line.end(), '\n'), line.end());
  for (const std::string& text : {pem, "\n \t" + pem + "\r\n", body, " " + line + "\n",
                                  pem + std::string((1 << 20) - pem.size(), ' ')}) {
    const Cert reply = Certificate::createFromBase64(text);
    EXPECT_EQ(reply ? reply->der() : "", der) << text;
  }
  for (const std::string& text :
       {pem + "x", line + "QUJD", line + "!", std::string(" "), line.substr(4), "x" + pem,
        pem + std::string((1 << 20) - pem.size() + 1, ' ')}) {
    EXPECT_FALSE(Certificate::createFromBase64(text)) << text;
  }
  ASSERT_TRUE(Certificate::createFromBase64(pem)->saveToFile(path("saved.crt")));
  EXPECT_EQ(test::readFile(path("saved.crt")), pem);
  EXPECT_FALSE(Certificate::createFromBase64(pem)->saveToFile(path("missing/saved.crt")));
}

TEST(TextTest, Base64AndFileNamesDecodeExactlyWhatIsAllowed) {
  using Pairs = std::vector<std::pair<std::string, std::string>>;
  // clang-format off
  for (const auto& c : Pairs{
           {"", ""}, {" \t\r\n", ""}, {"QQ==", "A"}, {"QQ = =\n", "A"}, {"QUI=", "AB"},
           {"Q U\nJ\rD\tQ Q = =", "ABCA"}, {"/+/+", "\xFF\xEF\xFE"}, {"AAAA", "\0\0\0"_b},
           {"QUJD=", "-"}, {"QUI", "-"}, {"Q===", "-"}, {"QUJ==", "-"}, {"=QUJ", "-"},
           {"QQ==QUJD", "-"}, {"QQ=a", "-"}, {"QU JD-", "-"}, {"QUJDQUJD\x80", "-"}}) {
    // clang-format on
    std::string decoded;
    const char* text = c.first.data();
    EXPECT_EQ(decodeBase64(text, text + c.first.size(), decoded) ? decoded : "-", c.second) << text;
  }
  // clang-format off
  for (const auto& c : Pairs{{"AZaz09.-_@+", "AZaz09.-_@+"}, {"..", "%2E."}, {".a.", "%2Ea."},
           {"", ""}, {"a/b c%\0\xC3\xA9:[`{~"_b, "a%2Fb%20c%25%00%C3%A9%3A%5B%60%7B%7E"}}) {
    // clang-format on
    EXPECT_EQ(encodeFilename(c.first), c.second);
    EXPECT_EQ(decodeFilename(c.second), c.first);
  }
  EXPECT_EQ(decodeFilename("a%2%G0x%2e%41%ff%4%7a%Aa"), "a%2%G0x.A\xFF%4z\xAA");
  EXPECT_EQ(to_lowercase("AZ.CrT\xC3\x89"), "az.crt\xC3\x89");
  // The intent record: what is written is read back, paths inside the root relative to it; a
  // record cut short, with a step it does not know, or of another version is damaged.
  namespace fs = test::fs;
  const std::string root = fs::temp_directory_path().string() + "/tavik-intent";
  fs::create_directories(root);
  const std::vector<IntentStep> steps = {
      {true, root + "/.s-1/user/a b.key", root + "/user/a b.key"}, {false, "/elsewhere/x", ""}};
  const std::string text = intentRecordText(root, steps);
  EXPECT_EQ(text,
            "certcache-intent 1\nrename %2Es-1%2Fuser%2Fa%20b.key user%2Fa%20b.key\n"
            "remove %2Felsewhere%2Fx\nend\n");
  for (const std::string& written :
       {text, text.substr(0, text.size() - 4), "x\n" + text,
        std::string("certcache-intent 2\nend\n"),
        text.substr(0, 19) + "copy a b\n" + text.substr(19), std::string("none")}) {
    std::ofstream(root + "/" + kIntentRecordName) << written;
    if (written == "none") fs::remove(root + "/" + kIntentRecordName);
    std::vector<IntentStep> read = {{}};
    const IntentRead result = readIntentRecord(root, read);
    EXPECT_EQ(result, written == text     ? IntentRead::kRead
                      : written == "none" ? IntentRead::kAbsent
                                          : IntentRead::kDamaged)
        << written;
    EXPECT_EQ(read.size(), written == text ? 2u : 0u);
    for (std::size_t i = 0; i < read.size() && i < steps.size(); ++i)
      EXPECT_EQ(std::to_string(read[i].rename) + read[i].from + read[i].to,
                std::to_string(steps[i].rename) + steps[i].from + steps[i].to);
  }
  fs::remove_all(root);
}

}  // namespace
}  // namespace tavik

// The cache's operations as a table of cases: the files before, a script of calls (see
// StoreTest::script), and exactly the files, the index and the transcript of log statements and
// results that each case must leave. The temporary directory's name holds '"' and '&', so every
// path written <...> also checks how statements quote paths.
#include <sys/stat.h>
#include <unistd.h>

#include "support/storetest.h"

namespace tavik {
namespace {

using T = test::StoreTest;
using test::operator""_b;

constexpr int kUnprivileged = 1;  // needs a file system that can refuse: skipped as root
constexpr int kAnyOrder = 2;      // the statements come in the order of a directory listing

struct Case {
  const char* name;
  const char* before;            // T::put entries, separated by blanks
  std::string calls;             // T::script
  const char* after;             // T::files
  const char* index;             // T::index
  std::vector<std::string> log;  // statements and results; a final '*' matches a prefix
  int flags = 0;
  std::function<void(T&)> also = nullptr;  // what a script cannot say, run before it
};
void PrintTo(const Case& c, std::ostream* out) { *out << c.name; }

std::string keyWritten(const std::string& file) {
  return "trace: Key was written: <%D/" + file + ">";
}
std::string certWritten(const std::string& file) {
  return "trace: Cert was written: <%D/" + file + ">";
}
std::string noFile(const std::string& file) {
  return "error: Can't create file BIO: <%D/" + file + ">";
}
std::string renaming(const std::string& from, const std::string& to, int error) {
  return "error: An error occurred when renaming <%D/" + from + "> to " + to +
         ": system:" + std::to_string(error);
}
std::string found(const std::string& dir) {
  return "info: Successfully found 1 certificate(s) in <" + dir + ">";
}
std::string keyMissing(const std::string& file) {
  return "warning: Error reading certificate. Key missing: <" + file + ">";
}
const std::string kLooking = "trace: Looking for all certificates...";
const std::string kScanD = "trace: Scanning dir %D for certificates...";
const std::string kScanS = "trace: Scanning dir %S for certificates...";
const std::string kNoPassword =
    "error: Empty password specified - not accepted by PEM_write_bio_PrivateKey when a cipher is "
    "present";
const std::string kMade = "debug: Success making requests",
                  kNoRequest = "error: Can't make request";
const std::string kText =
    "debug: Created certificate request: \n-----BEGIN CERTIFICATE REQUEST-----*";
const std::string kLong(129, 'l');
const std::string kChain = "src/crypto/certificatechain.cpp",
                  kAuthorities = kChain + "debug: Found ", kIn = " certificate(s) for chains in 2 location(s)";
const std::string kLists = "src/crypto/revocationlists.cpp", kFoundLists = kLists + "debug: Found ";
// What one revocation check over a store of `authorities` and `lists` logs first.
std::vector<std::string> kIndexed(int authorities, int lists) {
  return {kAuthorities + std::to_string(authorities) + kIn,
          kFoundLists + std::to_string(lists) + " revocation list(s) in 2 location(s)"};
}
std::string kVoid(const std::string& list, const std::string& subject, const std::string& why) {
  return kLists + "info: The revocation list of CN=" + list + " does not count for CN=" + subject +
         ": " + why;
}
std::string kRevokedBy(const std::string& subject, const std::string& list,
                       const std::string& why) {
  return kLists + "info: CN=" + subject + " is revoked by the list of CN=" + list + ": " + why;
}
const std::string kNoProfile = "error: Can't use credential profile: ";
// The extensions of a profile's certificate for `email` whose key's second use is `use`.
std::string kUses(const std::string& email, const std::string& use) {
  return " subjectAltName=email:" + email + " keyUsage!=Digital Signature, Key " + use +
         " extendedKeyUsage=E-mail Protection, TLS Web Client Authentication "
         "basicConstraints!=CA:FALSE subjectKeyIdentifier";
}
std::string kAsked(const std::string& email, const std::string& use) {
  return kUses(email, use).substr(0, kUses(email, use).find(" basicConstraints"));
}
std::string kPrivate(const std::string& file) {
  return "warning: Could not set private access mode on private key file: <%D/" + file + ">";
}

struct : Environment {
  bool setPrivateAccessMode(const std::string&) override { return false; }
} refusing;

// clang-format off
const Case kCases[] = {
  // ---- loading
  {"KeyCacheEntersPairsAndCountsCertificatesWithoutKey", "x.crt 2:y.crt 2:y.key", "open keys2",
   "2:y.crt 2:y.key x.crt", "y@x=y",
   {kLooking, kScanD, "debug: Certificate without private key. File missing: <%D/x.key>",
    "warning: 1 certificate(s) without matching key (file) found in <%D>", kScanS,
    "trace: Added certficate y@x => y", "info: Successfully found 1 certificate(s) in <%S>"}},
  {"KeyIsThereWhenAnythingButADeadLinkIsThere", "a.crt b.crt c.crt c.key/ real.key", "open keys",
   "a.crt a.key b.crt b.key c.crt c.key/ real.key", "a@x=a c@x=c",
   {kLooking, kScanD, "trace: Added certficate a@x => a",
    "debug: Certificate without private key. File missing: <%D/b.key>",
    "trace: Added certficate c@x => c",
    "warning: 1 certificate(s) without matching key (file) found in <%D>",
    "info: Successfully found 2 certificate(s) in <%D>"}, kAnyOrder, [](T& t) {
     ::symlink("real.key", t.path("a.key").c_str());
     ::symlink("nowhere.key", t.path("b.key").c_str());
   }},
  {"NothingFoundIsReportedOnceAtTheEnd", "x.crt", "open keys2", "x.crt", "",
   {kLooking, kScanD, "debug: Certificate without private key. File missing: <%D/x.key>",
    "warning: 1 certificate(s) without matching key (file) found in <%D>",
    "trace: Cert store directory <%S> does not exist (we look at other locations!)",
    "warning: Did not find any certificates with matching key in one of the dirs %R, %L"}},
  {"LaterLocationWinsForTheSameIdentifier", "a.crt 2:a.crt=email:b@x", "open plain2; lookup a -",
   "2:a.crt a.crt", "a=a",
   {kLooking, kScanD, "trace: Added certficate a => a", found("%D"), kScanS,
    "warning: Replacing certificate (a). File 'a' replaced with 'a' from '%S'", found("%S"),
    "-> 0 a@x"}},
  {"ExtensionOfAnyCaseLoadsAndPairsWithALowerCaseKey", "Cam1.CRT Cam1.key 2:Cam2.CRT 2:Cam2.KEY",
   "open keys2", "2:Cam2.CRT 2:Cam2.KEY Cam1.CRT Cam1.key", "Cam1@x=Cam1",
   {kLooking, kScanD, "trace: Added certficate Cam1@x => Cam1", found("%D"), kScanS,
    "debug: Certificate without private key. File missing: <%S/Cam2.key>",
    "warning: 1 certificate(s) without matching key (file) found in <%S>"}},
  {"MixedCaseCertificateIsListedButLookedUpInLowerCase", "Cam1.CRT", "open plainq; lookup Cam1 -",
   "Cam1.CRT", "Cam1=Cam1", {"-> 1000101"}},
  {"SkipsOtherEntriesQuietlyAndBadCertificatesWithWarnings",
   "good.crt A.crt.bak A.pem B.crt/ D.crt=junk ca.crt=ca:CN=CA der.crt=der", "open plain",
   "A.crt.bak A.pem B.crt/ D.crt ca.crt dead.crt der.crt good.crt link.crt pipe.crt",
   "der=der good=good link=link",
   {kLooking, kScanD, "warning: Loading certificate from <%D/D.crt> failed",
    "warning: The certificate in <%D/ca.crt> is not the required type",
    "trace: Added certficate der => der", "trace: Added certficate good => good",
    "trace: Added certficate link => link", "info: Successfully found 3 certificate(s) in <%D>"},
   kAnyOrder, [](T& t) {
     ::symlink("nowhere.crt", t.path("dead.crt").c_str());
     ::symlink("good.crt", t.path("link.crt").c_str());
     ::mkfifo(t.path("pipe.crt").c_str(), 0600);
   }},
  {"LoadingAgainKeepsEntriesWhoseFilesHaveGone", "a.crt",
   "open plainq; unlink a.crt; put b.crt; load", "b.crt", "a=a b=b",
   {kLooking, kScanD, "trace: Added certficate b => b", found("%D")}},
  {"OnlyTheEnabledLevelsAreWritten", "x.crt=junk y.crt y.key",
   "open keys; lookup y@x wrong; selfsigned - - - 0", "x.crt y.crt y.key", "y@x=y",
   {"-> 1000103", kNoPassword, "-> 12"}, 0, [](T&) { LogFacility::setLevels(LogMask::error); }},
  // ---- lookup
  {"UnknownIdentifierFailsQuietly", "a.crt a.key", "open keysq; lookup nobody@x pw", "a.crt a.key",
   "a@x=a", {"-> 1000100"}},
  {"CertificateInALaterLocationIsFoundWithItsKey", "2:b.crt 2:b.key", "open keys2q; lookup b@x pw",
   "2:b.crt 2:b.key", "b@x=b", {"-> 0 b@x with key"}},
  {"UnreadableFirstCopyLeaves102ButTheSecondIsFound", "c.crt 2:c.crt",
   "open plain2q; put c.crt=damaged; lookup c -", "2:c.crt c.crt", "c=c",
   {"warning: Error reading certificate in '<%D/c.crt>'", "-> 1000102 c@x"}},
  {"KeyFailuresAtEachLocationLeaveTheLastCode", "m.crt m.key 2:m.crt",
   "open keys2q; unlink m.key; lookup m@x pw; put 2:m.key; lookup m@x wrong; unlink m.crt; "
   "unlink 2:m.crt; lookup m@x pw", "2:m.key", "m@x=m",
   {keyMissing("%D/m.key"), keyMissing("%S/m.key"), "-> 1000104", keyMissing("%D/m.key"),
    "warning: Error reading certificate. Key invalid: <%S/m.key>", "-> 1000103", "-> 1000101"}},
  {"PasswordEndsAtItsFirstNul", "k.crt",
   "open keysq; writekey k.key a\0b 0; open keysq; lookup k@x a"_b, "k.crt k.key*", "k@x=k",
   {keyWritten("k.key"), "-> 0", "-> 0 k@x with key"}},
  {"CertificateOnlyInAKeyCacheUsesTheEmptyPassword",
   "a_at_b.crt=email:a_at_b a_at_b.key=key:0: k.crt k.key",
   "open keysq; only a@b; only k@x; unlink a_at_b.key; only a@b", "a_at_b.crt k.crt k.key",
   "a_at_b=a_at_b k@x=k",
   {"-> 0 a_at_b with key", "-> 1000100", keyMissing("%D/a_at_b.key"), "-> 1000104"}},
  {"FileInfoLooksInTheRootOnly", "r.crt r.key 2:s.crt 2:s.key keyonly.key",
   "open keys2q; fileinfo s; fileinfo keyonly; fileinfo r; open plain2q; fileinfo r",
   "2:s.crt 2:s.key keyonly.key r.crt r.key", "r=r s=s",
   {"6 k? c?", "5 %D/keyonly.key c?", "0 %D/r.key %D/r.crt", "0  %D/r.crt"}},
  {"ListIdsReplacesTheVectorInByteOrder", "b.crt B.crt a.crt",
   "open plainq; listids; open plain0q; listids", "B.crt a.crt b.crt", "",
   {"3:{ \"B\", \"a\", \"b\" }", "0:{}"}},
  // ---- renaming and removing
  {"RenameFileMayAllowAMissingSourceAndReplacesTheTarget", "p.tpk=key:1 p.key",
   "open keysq; renamefile no .tpk x .key 1; renamefile no .tpk x .key 0; renamefile p .tpk p .key "
   "0",
   "p.key=p.tpk", "", {"-> 1", renaming("no.tpk", "x.key", 2), "-> 0", "-> 1"}},
  {"RenameCertMovesCertificateKeyAndPendingKey", "old.crt old.key old.tpk=key:1 lone.crt",
   "open keysq; renamecert old new; renamecert lone alone; renamecert old newer",
   "alone.crt=lone.crt new.crt=old.crt new.key=old.key new.tpk=old.tpk", "old@x=old",
   {"info: Certificate in file (old) has been renamed in file store to: new", "-> 0",
    "info: Certificate in file (lone) has been renamed in file store to: alone", "-> 0",
    renaming("old.crt", "newer.crt", 2), "-> 1"}},
  {"KeyThatCannotFollowBringsTheCertificateBack", "a.crt a.key a.tpk=key:1 b.key/",
   "open keysq; renamecert a b", "a.crt a.key a.tpk b.key/", "a@x=a",
   {renaming("a.key", "b.key", 21), "-> 7"}},
  {"PendingKeyThatCannotFollowDoesNotChangeTheResult", "a.crt a.key a.tpk=key:1 b.tpk/",
   "open keysq; renamecert a b", "a.tpk b.crt=a.crt b.key=a.key b.tpk/", "a@x=a",
   {renaming("a.tpk", "b.tpk", 21),
    "info: Certificate in file (a) has been renamed in file store to: b", "-> 0"}},
  {"RemoveDeletesEveryFileAndTheEntry", "r.crt r.key r.tpk=key:1 c.crt c.key",
   "open keysq; remove nobody@x; remove r@x", "c.crt c.key", "c@x=c",
   {"-> 4", "info: Certificate (r@x) has been removed from store: <%D/r.crt>", "-> 0"}},
  {"CertificateOnlyCacheRemovesKeyFilesToo", "c.crt c.key c.tpk=key:1", "open plainq; remove c",
   "", "", {"info: Certificate (c) has been removed from store: <%D/c.crt>", "-> 0"}},
  {"CertificateGoneOrElsewhereKeepsTheEntry", "g.crt g.key 2:o.crt 2:o.key",
   "open keys2q; unlink g.crt; remove g@x; remove o@x", "2:o.crt 2:o.key g.key", "g@x=g o@x=o",
   {"warning: Error system:0 removing cert (g@x) from cert store: <%D/g.crt>", "-> 1",
    "warning: Error system:0 removing cert (o@x) from cert store: <%D/o.crt>", "-> 1"}},
  {"KeyFilesThatCannotBeRemoved", "k.crt k.key/ k.tpk t.crt t.key t.tpk/",
   "open keysq; remove k@x; remove k@x; remove t@x", "k.key/ k.tpk t.tpk/", "k@x=k",
   {"warning: Error system:39 removing key file (k@x) from cert store: <%D/k.key>", "-> 8",
    "warning: Error system:0 removing cert (k@x) from cert store: <%D/k.crt>", "-> 1",
    "warning: Error system:39 removing temp key file (t@x) from cert store: <%D/t.tpk>",
    "info: Certificate (t@x) has been removed from store: <%D/t.crt>", "-> 0"}},
  // ---- writing and self-signed pairs
  {"KeyWriterRemovesAFileItCouldNotFillAndQuotesTheEarliestError", "",
   "open keysq; seed; writekey bad.key pw empty; queue", "", "",
   {"error: ERROR writing '<%D/bad.key>' - PEM_write_bio_PrivateKey: error:40000001:lib(128)::reason(1)", "-> 1",
    "errors left"}},
  {"KeyWriterWarnsWhenTheKeyCannotBeMadePrivate", "", "open keysq; writekey open.key pw 0",
   "open.key*", "",
   {"warning: Could not set private access mode on private key file: <%D/open.key>",
    keyWritten("open.key"), "-> 0"}, 0, [](T&) { Environment::setInstance(&refusing); }},
  {"CertificateWriterReplacesAFileOrFailsInAMissingDirectory", "w.crt=old",
   "open keysq; writecert w.crt w@x; writecert missing/w.crt w@x; queue", "w.crt=pem:w@x", "",
   {"-> 0", noFile("missing/w.crt"), "-> 1", "errors left"}},
  {"SelfSignedRefusesBadInputInItsOrder", "",
   "open keysq; selfsigned - - - 0; selfsigned subject - pw 0; selfsigned - " + std::string(60, 'a')
   + "@b.cd pw 0; queue; selfsigned bad \xC3(@x pw 0", "", "",
   {kNoPassword, "-> 12", "error: atleast one of email/subject must be set in the certificate",
    "-> 13", "-> 1", "errors left", "-> 1"}},
  {"ExistingKeyDecidesAboutOverwriting", "a.crt=old d.key/ e.crt/",
   "open keysq; selfsigned a a@x pw 0; selfsigned a a@x pw 0; put a.key=mine; "
   "selfsigned a a@x pw 1; selfsigned d d@x pw 0; selfsigned d d@x pw 1; selfsigned e e@x pw 0",
   "a.crt* a.key* d.key/ e.crt/", "",
   {keyWritten("a.key"), "-> 0", "-> 2", keyWritten("a.key"), "-> 0", "-> 2", noFile("d.key"),
    "-> 1", keyWritten("e.key"), noFile("e.crt"), "-> 1"}},
  {"NewKeyFilesAreForTheirOwnerOnlyWhateverTheUmask", "",
   "umask 022; open keysq; selfsigned - s@x pw 0; csr - r@x pw 0; install - r@x 0; "
   "mode s_at_x.key; mode s_at_x.crt; mode r_at_x.key",
   "r_at_x.crt=pem:r@x r_at_x.key* s_at_x.crt* s_at_x.key*", "",
   {keyWritten("s_at_x.key"), "-> 0", kMade, kText, keyWritten("r_at_x.tpk"), "-> 0",
    "trace: Temporary private key file for <%D/r_at_x.crt> was renamed successflly",
    certWritten("r_at_x.crt"), "-> 0", "s_at_x.key 384", "s_at_x.crt 420", "r_at_x.key 384"}},
  {"ProfilePairsCarryTheirKeyDigestValidityExtensionsAndProtection", "",
   "umask 0; open keysq; selfsigned - e@x pw 0 ec256/d30; describe e_at_x.crt; describe e_at_x.key;"
   " selfsigned - e@x pw 1 ec256; describe e_at_x.crt; selfsigned p p@x pw 0 ec384/i20000; describe"
   " p.crt; describe p.key; selfsigned - r@x pw 0 rsa2048; describe r_at_x.crt; open keysq; "
   "lookup e@x pw; lookup p@x pw; lookup r@x pw; lookup r@x wrong",
   "e_at_x.crt* e_at_x.key* p.crt* p.key* r_at_x.crt* r_at_x.key*", "e@x=e_at_x p@x=p r@x=r_at_x",
   {keyWritten("e_at_x.key"), "-> 0", "v3 EC prime256v1 ecdsa-with-SHA256 serial 16 new 30d from "
    "now" + kUses("e@x", "Agreement"), "PBES2 INTEGER :0186A0 hmacWithSHA256 aes-256-cbc mode 384",
    keyWritten("e_at_x.key"), "-> 0", "v3 EC prime256v1 ecdsa-with-SHA256 serial 16 new 365d from "
    "now" + kUses("e@x", "Agreement"), keyWritten("p.key"), "-> 0", "v3 EC secp384r1 ecdsa-with-"
    "SHA384 serial 16 new 365d from now" + kUses("p@x", "Agreement"), "PBES2 INTEGER :4E20 "
    "hmacWithSHA256 aes-256-cbc mode 384", keyWritten("r_at_x.key"), "-> 0", "v3 RSA 2048 "
    "sha256WithRSAEncryption serial 16 new 365d from now" + kUses("r@x", "Encipherment"),
    "-> 0 e@x with key", "-> 0 p@x with key", "-> 0 r@x with key",
    "warning: Error reading certificate. Key invalid: <%D/r_at_x.key>", "-> 1000103"}},
  {"ProfileIsRefusedAfterTheArgumentsAndAnAddressOutsideASCIIByItsExtensions", "",
   "open keysq; selfsigned - - - 0 ec256/d0; selfsigned - e@x pw 0 ec256/d0; selfsigned - e@x pw "
   "0 ec256/d3651; selfsigned - e@x pw 0 rsa1; csr - e@x pw 0 ec256/i0; writekey w.key pw 0 "
   "ec256/i0; put e_at_x.key; selfsigned - e@x pw 0 ec256/d0; selfsigned - caf\xC3\xA9@x pw 0 ec256",
   "e_at_x.key", "",
   {kNoPassword, "-> 12", kNoProfile + "a validity of 0 days is outside 1 to 3650", "-> 1",
    kNoProfile + "a validity of 3651 days is outside 1 to 3650", "-> 1",
    kNoProfile + "unknown key type 5", "-> 1", kNoProfile + "0 PBKDF2 iterations; at least 1 is "
    "needed", "-> 1", kNoProfile + "0 PBKDF2 iterations; at least 1 is needed", "-> 1", "-> 2",
    "error: Can't add extensions to certificate", "-> 1"}},
  {"ProfileKeyFilesAreTheOwnersFromTheMomentTheyExist", "o.key", "umask 0; chmod o.key 644; "
   "open keysq; writekey n.key pw 0 ec256; writekey o.key pw 1 ec256/i1; writekey l.key pw 0; "
   "mode n.key; mode o.key; mode l.key; describe o.key; describe l.key", "l.key* n.key* o.key*", "",
   {kPrivate("n.key"), keyWritten("n.key"), "-> 0", kPrivate("o.key"), keyWritten("o.key"), "-> 0",
    kPrivate("l.key"), keyWritten("l.key"), "-> 0", "n.key 384", "o.key 384", "l.key 438",
    "PBES2 INTEGER :01 hmacWithSHA256 aes-256-cbc mode 384",
    "PBES2 INTEGER :0800 hmacWithSHA256 des-ede3-cbc mode 438"},
   0, [](T&) { Environment::setInstance(&refusing); }},
  // ---- requests
  {"SecondRequestReplacesThePendingKey", "",
   "open keysq; csr - p@x pw 0; put p_at_x.tpk=mine; csr - p@x pw 0", "p_at_x.tpk*", "",
   {kMade, kText, keyWritten("p_at_x.tpk"), "-> 0", kMade, kText, keyWritten("p_at_x.tpk"),
    "-> 0"}},
  {"ProfileRequestsAskForTheCredentialsExtensionsWhateverTheValidity", "",
   "open keysq; csr - q@x pw 0 ec384/d0; describe -; describe q_at_x.tpk; verify q_at_x.tpk; "
   "csr - q@x pw 5 rsa4096; describe -; verify q_at_x.key; request q@x rsa3072; describe -; verify -",
   "q_at_x.key* q_at_x.tpk*", "",
   {kMade, kText, keyWritten("q_at_x.tpk"), "-> 0", "EC secp384r1 ecdsa-with-SHA384" +
    kAsked("q@x", "Agreement"), "PBES2 INTEGER :0186A0 hmacWithSHA256 aes-256-cbc mode 384",
    "verifies", kMade, kText, keyWritten("q_at_x.key"), "-> 0", "RSA 4096 sha256WithRSAEncryption" +
    kAsked("q@x", "Encipherment"), "verifies", kMade, kText,
    "11 -----BEGIN CERTIFICATE REQUEST-----", "RSA 3072 sha256WithRSAEncryption" +
    kAsked("q@x", "Encipherment"), "verifies"}},
  {"CleanupRemovesThePendingKeyOnce", "p_at_x.tpk p_at_x.key",
   "open keysq; cleanup - p@x; cleanup - p@x", "p_at_x.key", "",
   {"trace: Key was cleaned up: <%D/p_at_x.tpk>", "-> 0",
    "error: Error (system:0) deleting temporary private key file: <%D/p_at_x.tpk>", "-> 11"}},
  {"FlagsDecideAboutAnExistingKey", "k.key",
   "open keysq; csr k k@x pw 0; csr k k@x pw 1; csr k k@x pw 5", "k.key* k.tpk*", "",
   {"-> 2", kMade, kText, keyWritten("k.tpk"), "-> 0", kMade, kText, keyWritten("k.key"), "-> 0"}},
  {"RequestRefusalsComeInTheirOrder", "",
   "open plainq; csr - - - 0; cleanup - -; open keysq; csr - - - 0; csr - - pw 0; cleanup - -; "
   "csr - " + kLong + " pw 0", "", "",
   {"-> 9", "-> 9", kNoPassword, "-> 12", "-> 3", "-> 3", kNoRequest,
    "error: Can't generate Certificate Request or private key: <%D/" + kLong + ".key>", "-> 1"}},
  {"RequestWhoseKeyCannotBeStoredStillGivesItsText", "",
   "open keysq; unlink -; csr - n@x pw 0; queue", "", "",
   {kMade, kText, noFile("n_at_x.tpk"), "-> 1", "errors left"}},
  {"RequestBuilderRefusesAnAddressItCannotStore", "",
   "request -; queue; request " + kLong + "; request caf\xC3\xA9@x; request a@x", "", "",
   {kNoRequest, "01 untouched", "errors left", kNoRequest, "01 untouched", kNoRequest,
    "01 untouched", kMade, kText, "11 -----BEGIN CERTIFICATE REQUEST-----"}},
  // ---- installing
  {"InstallRefusesWhatIsNotACertificateOrHasNoName", "",
   "open keysq; install id junk 0; install - garbage 0; install - nomail 0", "", "",
   {"error: Can't save certificate to file. Not a valid certificate: id", "-> 1",
    "error: Can't save certificate to file. Not a valid certificate: ", "-> 1",
    "error: Can't save certificate to file. Invalid ID: ", "-> 3"}},
  {"PendingKeyBecomesTheKeyUnlessACertificateIsInTheWay", "p_at_x.tpk p_at_x.crt=installed",
   "open keysq; install - p@x 0; install - p@x 1", "p_at_x.crt=pem:p@x p_at_x.key=p_at_x.tpk", "",
   {"-> 2", "trace: Temporary private key file for <%D/p_at_x.crt> was renamed successflly",
    certWritten("p_at_x.crt"), "-> 0"}},
  {"NoPendingKeyTakesTheNewCertificateAwayAgain", "",
   "open keysq; install - q@x 0; put q_at_x.crt=installed; put q_at_x.key; install q_at_x q@x 1",
   "q_at_x.crt q_at_x.key", "",
   {renaming("q_at_x.tpk", "q_at_x.key", 2), "-> 10", renaming("q_at_x.tpk", "q_at_x.key", 2),
    "-> 10"}},
  {"ACertificateThatCannotBeRestoredIsTakenAwayToo", "q_at_x.key",
   "put q_at_x.crt=" + std::string(3000, 'x') + "; open keysq; fsize 2000; install q_at_x q@x 1; "
   "fsize 0", "q_at_x.key", "", {renaming("q_at_x.tpk", "q_at_x.key", 2), "-> 10"}},
  {"CertificateOnlyCacheWritesTheCertificateAlone", "named.tpk",
   "open plainq; install named n@x 0; install x/y n@x 0",
   "named.crt=pem:n@x named.tpk x%2Fy.crt=pem:n@x", "",
   {certWritten("named.crt"), "-> 0", certWritten("x%2Fy.crt"), "-> 0"}},
  {"InstallIntoAMissingDirectoryFails", "", "open plainq; unlink -; install named n@x 0", "", "",
   {"error: Can't save certificate: <%D/named.crt>", "-> 1"}},
  // ---- hostile names, from subjects, addresses and identities inside certificates
  {"HostileNamesAreFileNamesInTheCacheDirectory", "%2E.%2F..%2Fi_at_x.tpk user.tpk",
   "open keysq; selfsigned .. a@x pw 0; selfsigned ../x a@x pw 1; selfsigned - ../../v@x pw 0; "
   "csr /etc/passwd a@x pw 0; csr - a/b@x pw 4; cleanup ../../victim -; cleanup - ../v@x; "
   "install - ../../i@x 0; install user /i@x 1; selfsigned .hidden a@x pw 0; selfsigned nul\0in "
   "a@x pw 0; selfsigned %2E%2E%2Fx a@x pw 0; selfsigned - \x01\x1b[31m@x pw 0; selfsigned "_b
   + std::string(300, 'a') + " a@x pw 0; selfsigned " + std::string(100, '/') + " a@x pw 0",
   "%01%1B%5B31m_at_x.crt* %01%1B%5B31m_at_x.key* %252E%252E%252Fx.crt* %252E%252E%252Fx.key* "
   "%2E.%2F..%2Fi_at_x.crt=pem:../../i@x %2E.%2F..%2Fi_at_x.key=%2E.%2F..%2Fi_at_x.tpk "
   "%2E.%2F..%2Fv_at_x.crt* %2E.%2F..%2Fv_at_x.key* %2E.%2Fx.crt* %2E.%2Fx.key* %2E..crt* "
   "%2E..key* %2Ehidden.crt* %2Ehidden.key* %2Fetc%2Fpasswd.tpk* a%2Fb_at_x.key* nul%00in.crt* "
   "nul%00in.key* user.crt=pem:/i@x user.key=user.tpk", "",
   {"-> 0", "-> 0", "-> 0", "-> 0", "-> 0", "-> 11", "-> 11", "-> 0", "-> 0", "-> 0", "-> 0",
    "-> 0", "-> 0", "-> 1", "-> 1"}, 0,
   [](T& t) { test::writeFile(t.dir_ + "/victim.tpk", "victim"), LogFacility::setLevels(0); }},
  // ---- the path above a certificate, through the authorities of every location
  {"ChainRunsThroughTheIssuerValidNowAcrossLocations", "ca/r.crt=by:R:0:R:0 ca/o.crt=by:I:1:R:0:x "
   "ca/decoy.crt=by:I:3:R:0 2:ca/i.crt=by:I:1:R:0 l.crt=by:l@x:2:I:1:n", "chain l.crt", "l.crt", "",
   {kAuthorities + "4" + kIn, kChain + "info: Passed over <%R/ca/o.crt> as the issuer of CN=l@x: "
    "not valid now", "-> l@x I R complete"}},
  {"ChainEndsWhereItLoopsOrNoAuthorityIssued", "ca/a.crt=by:A:1:B:2 ca/b.crt=by:B:2:A:1 "
   "ca/p.crt=by:P:1:P:1:n l.crt=by:l@x:3:A:1:n m.crt=by:m@x:3:P:1:n s.crt=by:s@x:3:s@x:3:n",
   "chain l.crt; chain m.crt; chain s.crt", "l.crt m.crt s.crt", "",
   {kAuthorities + "3" + kIn, kChain + "warning: The chain of CN=l@x loops back to <%R/ca/a.crt>",
    "-> l@x A B open", kAuthorities + "3" + kIn, kChain + "warning: Passed over <%R/ca/p.crt> as "
    "the issuer of CN=m@x: not an authority", "-> m@x open", kAuthorities + "3" + kIn,
    "-> s@x complete"}},
  {"ChainIsCutOffAfterTenSteps", "l.crt=by:l@x:3:C1:2:n", "chain l.crt", "l.crt", "",
   {kAuthorities + "12" + kIn, kChain + "warning: The chain of CN=l@x is cut off after 10 steps",
    "-> l@x C1 C2 C3 C4 C5 C6 C7 C8 C9 C10 open"}, 0, [](T& t) {
     for (int i = 1; i <= 12; ++i)
       t.put({"ca/c" + std::to_string(i) + ".crt=by:C" + std::to_string(i) + ":" +
              std::to_string(1 + i % 2) + ":C" + std::to_string(i + 1) + ":" +
              std::to_string(1 + (i + 1) % 2)});
   }},
  // ---- revocation: each certificate of the path against its issuer's list, as OpenSSL judges it
  {"RevocationNamesTheRevokedCertificateOfThePathWithReasonAndDate", "ca/r.crt=by:R:4:R:4 "
   "2:ca/i.crt=by:I:5:R:4 l.crt=by:l@x:6:I:5:n crl/r.crl=crl:R:4:105/4 2:crl/i.crl=crl:I:5:-:b",
   "revocation l.crt all; revocation l.crt leaf", "l.crt", "",
   test::concat({kIndexed(2, 2), {kRevokedBy("I", "R", "superseded"), "-> good revoked superseded "
    "2025-01-01 good"}, kIndexed(2, 2), {"-> good"}})},
  {"RevokedLeafWithoutAReasonIsUnspecifiedAndAStaleListStillRevokes", "ca/r.crt=by:R:4:R:4 "
   "l.crt=by:l@x:6:R:4:n m.crt=by:m@x:7:R:4:n crl/r.crl=crl:R:4:106/1,107:s",
   "revocation l.crt leaf; revocation m.crt all", "l.crt m.crt", "",
   test::concat({kIndexed(1, 1), {kRevokedBy("l@x", "R", "keyCompromise"), "-> revoked "
    "keyCompromise 2025-01-01"}, kIndexed(1, 1), {kRevokedBy("m@x", "R", "unspecified"), "-> revoked "
    "unspecified 2025-01-01 unknown (stale)"}})},
  {"UnknownWithoutAListThatCounts", "ca/r.crt=by:R:4:R:4 ca/s.crt=by:S:5:S:5 ca/t.crt=by:T:7:T:7 "
   "l.crt=by:l@x:6:R:4:n m.crt=by:m@x:6:S:5:n n.crt=by:n@x:6:T:7:n crl/r.crl=crl:R:4:-:s "
   "crl/s.crl=crl:S:7:106 crl/t.crl=crl:T:7:106/1:f",
   "revocation l.crt all; revocation m.crt leaf; revocation n.crt leaf; revocation "
   "ca/s.crt leaf", "l.crt m.crt n.crt", "",
   test::concat({kIndexed(3, 3), {"-> unknown (stale) unknown (stale)"}, kIndexed(3, 3),
    {kVoid("S", "m@x", "CRL signature failure"), "-> unknown"}, kIndexed(3, 3),
    {kVoid("T", "n@x", "CRL is not yet valid"), "-> unknown"}, kIndexed(3, 3),
    {kVoid("S", "S", "CRL signature failure"), "-> unknown"}})},
  {"TheNewestListOfAnIssuerCountsInWhicheverLocation", "ca/r.crt=by:R:4:R:4 l.crt=by:l@x:6:R:4:n "
   "crl/r.crl=crl:R:4:-:o 2:crl/r.crl=crl:R:4:106/6:2 2:crl/s.crl=crl:R:4:-:o3",
   "revocation l.crt leaf", "l.crt", "", test::concat({kIndexed(1, 3), {kRevokedBy("l@x", "R",
   "certificateHold"), "-> revoked certificateHold 2025-01-01"}})},
  {"ANewerListUnderTheIssuersNameSignedWithAnotherKeyDoesNotHideItsOwn", "ca/r.crt=by:R:4:R:4 "
   "l.crt=by:l@x:6:R:4:n crl/r.crl=crl:R:4:106/1:o crl/s.crl=crl:R:5:-", "revocation l.crt leaf",
   "l.crt", "", test::concat({kIndexed(1, 2), {kRevokedBy("l@x", "R", "keyCompromise"), "-> revoked "
   "keyCompromise 2025-01-01"}})},
  {"AnIssuerWithoutTheRightToSignListsHasNoListThatCounts", "ca/r.crt=by:R:4:R:4:k "
   "l.crt=by:l@x:6:R:4:n crl/r.crl=crl:R:4:106/1", "revocation l.crt leaf", "l.crt", "",
   test::concat({kIndexed(1, 1), {kVoid("R", "l@x", "key usage does not include CRL signing"),
   "-> unknown"}})},
  {"DeltaAndIndirectListsArePassedOver", "ca/r.crt=by:R:4:R:4 l.crt=by:l@x:6:R:4:n "
   "crl/d.crl=crl:R:4:106:d2 crl/i.crl=crl:R:4:106:i crl/x.crl=junk 2:crl/two.CRL=crl:R:4 "
   "2:crl/r.crl.bak=crl:R:4:106", "revocation l.crt leaf", "l.crt", "",
   {kAuthorities + "1" + kIn, kLists + "warning: Passed over the revocation list <%R/crl/d.crl>: a "
    "delta list, which holds only what changed since a base list", kLists + "warning: Passed over "
    "the revocation list <%R/crl/i.crl>: an indirect list, which revokes certificates of other "
    "issuers", kLists + "warning: Passed over the revocation list <%R/crl/x.crl>: it is neither PEM"
    " nor DER of a revocation list", kFoundLists + "1 revocation list(s) in 2 location(s)",
    "-> good"}},
  // ---- as a user whom the file system refuses, run by run_unprivileged.sh
  {"UnreadableCertificateIsSkippedWithItsWarning", "locked.crt",
   "chmod locked.crt 0; open plain; chmod locked.crt 600", "locked.crt", "",
   {kLooking, kScanD, "warning: Loading certificate from <%D/locked.crt> failed",
    "info: Did not find any certificates in one of the dirs %R"}, kUnprivileged},
  {"ALinkWhoseTargetCannotBeExaminedStopsTheScan", "sealed/", "chmod sealed 0; open plainq; "
   "chmod sealed 700", "l.crt sealed/", "", {"throws"}, kUnprivileged,
   [](T& t) { ::symlink("sealed/x.crt", t.path("l.crt").c_str()); }},
  {"UnlistableCacheDirectoryGivesAnEmptyIndex", "a.crt a.key", "chmod - 0; open keys; chmod - 700",
   "a.crt a.key", "",
   {kLooking, kScanD, "warning: Did not find any certificates with matching key in one of the "
    "dirs %R"},
   kUnprivileged},
  {"UnreadableFilesFailLookupsWithTheirCodes", "a.crt a.key",
   "open keysq; chmod a.key 0; lookup a@x pw; open plainq; chmod a.crt 0; lookup a -; "
   "chmod - 600; fileinfo a; chmod - 700; chmod a.crt 600; chmod a.key 600", "a.crt a.key", "a=a",
   {"warning: Error reading certificate. Key invalid: <%D/a.key>", "-> 1000103",
    "warning: Error reading certificate in '<%D/a.crt>'", "-> 1000102", "throws"}, kUnprivileged},
  {"LockedDirectoryRefusesEveryChange", "a.crt a.key a.tpk=key:1",
   "open keysq; chmod - 555; selfsigned - s@x pw 0; csr - r@x pw 0; renamecert a b; remove a@x; "
   "cleanup a -; install - n@x 0; install a a@x 1; chmod - 700", "a.crt a.key a.tpk", "a@x=a",
   {noFile("s_at_x.key"), "-> 1", kMade, kText, noFile("r_at_x.tpk"), "-> 1",
    renaming("a.crt", "b.crt", 13), "-> 1",
    "warning: Error system:13 removing cert (a@x) from cert store: <%D/a.crt>", "-> 1",
    "error: Error (system:13) deleting temporary private key file: <%D/a.tpk>", "-> 11",
    "error: Can't save certificate: <%D/n_at_x.crt>", "-> 1", renaming("a.tpk", "a.key", 13),
    "-> 10"}, kUnprivileged},
};
// clang-format on

class CacheTest : public T, public ::testing::WithParamInterface<Case> {};

TEST_P(CacheTest, LeavesExactlyItsFilesIndexAndLog) {
  const Case& c = GetParam();
  if ((c.flags & kUnprivileged) != 0 && ::geteuid() == 0)
    GTEST_SKIP() << "needs a refusing file system";
  put(test::words(c.before));
  if (c.also) c.also(*this);
  const auto outside = [this] {  // of the cache directories, which nothing may change
    std::map<std::string, std::string> tree = test::snapshot(dir_);
    for (const char* cacheDir : {"root/user", "second/user"}) {
      tree.erase(tree.lower_bound(cacheDir), tree.lower_bound(cacheDir + std::string("0")));
    }
    return tree;
  };
  const std::map<std::string, std::string> before = outside();
  script(c.calls);
  EXPECT_EQ(outside(), before);
  std::vector<::testing::Matcher<std::string>> expected;
  for (const std::string& line : c.log) {
    const bool prefix = line.back() == '*';
    if (prefix) expected.push_back(::testing::StartsWith(expand(line.substr(0, line.size() - 1))));
    if (!prefix) expected.push_back(::testing::Eq(expand(line)));
  }
  EXPECT_THAT(files(), ::testing::ElementsAreArray(test::words(c.after)));
  EXPECT_THAT(index(), ::testing::ElementsAreArray(test::words(c.index)));
  using Log = ::testing::Matcher<std::vector<std::string>>;
  EXPECT_THAT(log_, (c.flags & kAnyOrder) != 0 ? Log(::testing::UnorderedElementsAreArray(expected))
                                               : Log(::testing::ElementsAreArray(expected)));
}

INSTANTIATE_TEST_SUITE_P(Cache, CacheTest, ::testing::ValuesIn(kCases), [](const auto& info) {
  return std::string((info.param.flags & kUnprivileged) ? "Unprivileged" : "") + info.param.name;
});

}  // namespace
}  // namespace tavik

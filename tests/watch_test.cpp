// The store watcher as a table of changes made by other programs (cp, mv, rm, ln, a program
// writing files, a commit killed half way): after each, the watcher's index is what a fresh cache
// holds over the same files, and its listener heard exactly the changes of the row. Then readers
// beside a writer that rotates one pair.
#include <openssl/x509.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "crypto/certstorewatcher.h"
#include "support/storetest.h"

// A watcher made while this is set finds no change notification, as where inotify cannot be had.
std::atomic<bool> noNotification{false};
extern "C" int inotify_init1(int flags) {
  if (!noNotification) return static_cast<int>(::syscall(SYS_inotify_init1, flags));
  errno = EMFILE;
  return -1;
}

namespace tavik {
namespace {

struct Change {
  const char* name;
  const char* kind;    // T::open; "-poll": without change notification
  const char* before;  // T::put entries
  // ';'-separated: "sh COMMAND" (a shell, %D and %S the cache directories, %R the root),
  // "unchanged" (no index was published so far), "hold" (the listener's next call waits),
  // "held" (until it does), "release", "read ID CODE" (once the watcher is quiet, a lookup in
  // current() with "pw" gives CODE, and a found certificate comes with its own key), "chain ID
  // N" (then the watcher's credential of ID has N authorities above it), or a T::script call.
  const char* calls;
  // "+ID", "-ID", "~ID", sorted: per identifier the net effect of what the listener heard
  // (a pair renamed in two steps may be heard as removed, then added); after "=", exactly what
  // it heard, in order.
  const char* heard;
  const char* logged = "";  // the watcher's warning or error; a final '*' matches a prefix
};
void PrintTo(const Change& c, std::ostream* out) { *out << c.name; }

// clang-format off
const Change kChanges[] = {
    {"ProgramWritesPair", "keys", "", "put a_at_x.crt; put a_at_x.key", "+a@x"},
    {"KeyRemoved", "keys", "a_at_x.crt a_at_x.key", "sh rm '%D/a_at_x.key'", "-a@x"},
    {"KeyReplaced", "keys", "a_at_x.crt a_at_x.key", "put a_at_x.key=key:1", "=~a@x"},
    // Written file by file, the key's content a moment after the file: one addition.
    {"PairWrittenInOneBurst", "keys", "2:a_at_x.crt 2:a_at_x.key", "sh cp '%S/a_at_x.crt' '%D' "
     "&& (sleep 0.05 && cat '%S/a_at_x.key') >'%D/a_at_x.key'", "=+a@x"},
    // The authorities and the lists beside the index: an intermediate comes and goes, a list
    // comes and is replaced; no identifier changes.
    {"IntermediateComesAndGoes", "keys", "a_at_x.crt=by:a@x:2:I:1:n a_at_x.key=key:2 "
     "ca/r.crt=by:R:0:R:0", "put ca/i.crt=by:I:1:R:0; chain a@x 2; sh rm "
     "'%R/ca/i.crt'; chain a@x 0", ""},
    {"ListComesAndIsReplaced", "plain", "a.crt 2:ca/r.crt=by:R:0:R:0", "put crl/r.crl=crl:R:0; "
     "sh sleep 0.2; put crl/r.crl=crl:R:0:5:2", ""},
    {"PairRenamedKeepsId", "keys", "a_at_x.crt a_at_x.key",
     "sh cd '%D' && python3 -c '[__import__(\"os\").rename(a, b) for a, b in "
     "((\"a_at_x.crt\", \"b.crt\"), (\"a_at_x.key\", \"b.key\"))]'", "~a@x"},
    {"PlainRenamed", "plain", "a.crt", "sh mv '%D/a.crt' '%D/b.crt'", "+b -a"},
    {"CopiedUnderUpperCase", "plain", "a.crt", "sh cp '%D/a.crt' '%D/A.CRT'", "+A"},
    {"Rewritten", "plain", "a.crt", "put a.crt=email:z@x", "~a"},
    {"NotRequiredTypeLeaves", "plain", "a.crt", "put a.crt=ca:CN=Root", "-a",
     "warning: The certificate in <%D/a.crt> is not the required type"},
    {"LaterLocationLosesItsKey", "keys2", "a_at_x.crt a_at_x.key 2:b.crt=email:a@x 2:b.key",
     "sh rm '%S/b.key'", "~a@x"},
    {"LocationAppearsLater", "plain2", "a.crt",
     "sh mkdir -p '%S' && cp '%D/a.crt' '%S/c.crt'", "+c"},
    {"CacheDirectoryReplaced", "plain", "a.crt",
     "sh mkdir '%D.new' && cp '%D/a.crt' '%D.new/d.crt' && rm -r '%D' && mv '%D.new' '%D'",
     "+d -a"},
    {"LoopingLinkKeepsLastIndex", "plain", "a.crt",
     "sh ln -s self.crt '%D/self.crt'; sh sleep 0.3; unchanged; unlink self.crt; put b.crt", "+b",
     "src/crypto/certstorewatcher.cpperror: Rescanning the store failed, keeping the last "
     "index: boost::filesystem::status: Too many levels of symbolic links*"},
    {"AnIdOfTwoFilesOutlivesEither", "keys", "", "put a_at_x.crt; put b.crt=email:a@x; put "
     "a_at_x.key; put b.key; sh sleep 0.2; sh rm '%D/a_at_x.crt'", "+a@x"},
    {"AnIdGainsASecondFile", "keys", "a_at_x.crt a_at_x.key", "sh cd '%D' && cp a_at_x.key b.key "
     "&& cp a_at_x.crt b.crt; sh sleep 0.2; sh rm '%D/a_at_x.crt'", "~a@x"},
    // The queue holds 16,384 events: a burst of 24,000 while the watcher waits loses the removal.
    {"QueueOverflowRescans", "plain", "a.crt", "hold; put b.crt; held; sh cd '%D' && seq 8000 | "
     "xargs touch && rm a.crt; release", "+b -a"},
    {"PollsWithoutNotification", "plain-poll", "a.crt", "put b.crt; sh rm '%D/a.crt'", "+b -a"},
    // A commit killed after its key's rename: the new pair is read whole, the key where it went
    // and the certificate from the staging place, until the record is gone.
    {"KilledCommitReadsTheNewPairWhole", "keys", "a_at_x.crt a_at_x.key",
     "sh S='%R/.certcache-staging-k/user' && mkdir -p \"$S\" && openssl req -x509 -newkey ec "
     "-pkeyopt ec_paramgen_curve:P-256 -extensions v3_req -subj /CN=a@x -passout pass:pw -keyout "
     "\"$S/a_at_x.key\" -out \"$S/a_at_x.crt\" 2>/dev/null && printf 'certcache-intent 1\\n"
     "rename %%2Ecertcache-staging-k%%2Fuser%%2Fa_at_x.key user%%2Fa_at_x.key\\nrename %%2E"
     "certcache-staging-k%%2Fuser%%2Fa_at_x.crt user%%2Fa_at_x.crt\\nend\\n' >'%R/.certcache-"
     "intent' && mv \"$S/a_at_x.key\" '%D'; read a@x 0; sh mv '%R/.certcache-staging-k/user/"
     "a_at_x.crt' '%D' && rm '%R/.certcache-intent'; read a@x 0", "~a@x"},
    {"KilledRenameReadsThePairWhereItGoes", "keys", "a_at_x.crt a_at_x.key",
     "sh printf 'certcache-intent 1\\nrename user%%2Fa_at_x.crt user%%2Fb.crt\\nrename user%%2F"
     "a_at_x.key user%%2Fb.key\\nend\\n' >'%R/.certcache-intent' && mv '%D/a_at_x.crt' '%D/b.crt';"
     " read a@x 0; sh mv '%D/a_at_x.key' '%D/b.key' && rm '%R/.certcache-intent'", "~a@x"},
    {"DamagedRecordLeavesTheFilesAsTheyStand", "plain", "a.crt", "sh echo junk >'%R/.certcache-"
     "intent'; put b.crt", "+b", "src/crypto/certstorewatcher."
     "cpperror: The intent record in %R is damaged: its files are read as they are"},
    {"KilledRemovalHidesThePair", "keys", "a_at_x.crt a_at_x.key b_at_x.crt b_at_x.key",
     "sh printf 'certcache-intent 1\\nremove user%%2Fa_at_x.crt\\nremove user%%2Fa_at_x.key"
     "\\nend\\n' >'%R/.certcache-intent' && rm '%D/a_at_x.crt'; read a@x 1000100; read b@x 0; "
     "sh rm '%D/a_at_x.key' '%R/.certcache-intent'", "-a@x"},
};
// clang-format on

class WatchTest : public test::StoreTest, public ::testing::WithParamInterface<Change> {};

TEST_P(WatchTest, IndexIsAFreshCachesAfterEachChange) {
  const Change& c = GetParam();
  put(test::words(c.before));
  open(std::string(c.kind) + "q");
  std::mutex lock;                         // the watcher's thread logs and tells its listener
  std::vector<std::string> heard, logged;  // by the watcher's thread
  std::uint64_t heardOf = 1;               // the generation the listener heard last
  const std::thread::id test = std::this_thread::get_id();
  std::atomic<int> hold{0};  // 1: the listener's next call waits; 2: it waits now
  LogFacility::setSink([&](const LogRecord& record) {
    const std::lock_guard<std::mutex> held(lock);
    if (record.level <= LogMask::warning && std::this_thread::get_id() != test)
      logged.push_back((record.file == "src/crypto/certificatefilecache.cpp" ? "" : record.file) +
                       LogFacility::levelName(record.level) + (": " + record.message));
  });
  CertificateStore store = *store_;  // open() below makes a new one for the fresh cache
  noNotification = std::string(c.kind).find("-poll") != std::string::npos;
  CertStoreWatcher watcher(store, filter_, c.kind[0] == 'k');
  noNotification = false;
  const std::shared_ptr<void> released(nullptr, [&hold](void*) { hold = 0; });
  watcher.setListener([&](const StoreChanges& changes) {
    const std::lock_guard<std::mutex> held(lock);
    for (const auto& [sign, ids] :
         {std::make_pair('+', &changes.added), std::make_pair('-', &changes.removed),
          std::make_pair('~', &changes.changed)})
      for (const std::string& id : *ids) heard.push_back(sign + id);
    heardOf = watcher.generation();
    for (int waiting = 1; hold.compare_exchange_strong(waiting, 2) || waiting == 2; waiting = 2)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
  });
  std::istringstream calls(c.calls);
  std::uint64_t changed = watcher.generation();  // before the last call that changed files
  for (std::string call; std::getline(calls, call, ';');) {
    call = call.substr(call.find_first_not_of(' '));
    const bool sh = call.compare(0, 3, "sh ") == 0, unchanged = call == "unchanged";
    if (call.compare(0, 5, "read ") != 0 && call.compare(0, 6, "chain ") != 0)
      changed = watcher.generation();
    EXPECT_EQ(sh ? test::shell(expand(call.substr(3))) : 0, 0) << call;
    EXPECT_EQ(unchanged ? watcher.generation() : 1u, 1u);
    const std::vector<std::string> a = test::words(call);
    if (a[0] == "hold" || a[0] == "release") hold = a[0] == "hold";
    for (int tries = 0; a[0] == "held" && hold != 2 && tries < 500; ++tries)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (a[0] == "read" || a[0] == "chain") {  // each follows a change the watcher publishes
      watcher.waitForNewer(changed, std::chrono::seconds(5));
      for (auto g = watcher.generation(); watcher.waitForNewer(g, std::chrono::milliseconds(300));)
        g = watcher.generation();
      int code = -1;
      const auto found = watcher.current()->getCertificate(a[1], "pw", code, true);
      const ChainedCredential chained = watcher.getCredential(a[1], "pw", code);
      EXPECT_EQ(a[0] == "read" ? std::to_string(code) : std::to_string(chained.authorities.size()),
                a[2])
          << call;
      EXPECT_TRUE(!found || X509_check_private_key(found->getX509(), found->getPrivateKey()));
    }
    if (!sh && !unchanged && a[0] != "hold" && a[0] != "held" && a[0] != "release" &&
        a[0] != "read" && a[0] != "chain")
      script(call);
  }
  // A fresh cache's index, authorities and lists over the files as they now stand, then the
  // watcher's, until they agree.
  open(c.kind);
  const auto beside = [](const CertificateChain& authorities, const RevocationLists& lists) {
    std::vector<std::string> held;
    for (const auto& authority : authorities.authorities()) held.push_back(authority->der());
    for (const auto& list : lists.lists()) held.push_back(list.file + list.list->der());
    return held;
  };
  const CertificateChain freshAuthorities(*store_);
  std::vector<std::string> fresh = index(), watched;
  for (const std::string& held :
       beside(freshAuthorities, RevocationLists(*store_, freshAuthorities)))
    fresh.push_back(held);
  const auto heardAll = [&] {
    const std::lock_guard<std::mutex> held(lock);
    return heardOf == watcher.generation() && (!heard.empty() || *c.heard == '\0');
  };
  for (int tries = 0; tries < 50 && (tries == 0 || watched != fresh || !heardAll()); ++tries) {
    if (tries != 0) watcher.waitForNewer(watcher.generation(), std::chrono::milliseconds(100));
    const StoreMoment moment = watcher.moment();
    std::vector<std::string> ids;
    moment.index->listIds(ids);
    watched.clear();
    for (const std::string& id : ids)
      watched.push_back(id + "=" + moment.index->getFileBaseName(id));
    for (const std::string& held : beside(*moment.authorities, *moment.revocationLists))
      watched.push_back(held);
  }
  EXPECT_EQ(watched, fresh);
  // What is heard exactly is heard once the watcher is quiet: a late second call would count.
  for (auto g = watcher.generation();
       c.heard[0] == '=' && watcher.waitForNewer(g, std::chrono::milliseconds(300));)
    g = watcher.generation();
  const std::lock_guard<std::mutex> held(lock);
  std::map<std::string, std::string> net;  // id -> first sign heard, last sign heard
  for (const std::string& event : heard) {
    std::string& signs = net[event.substr(1)];
    signs = (signs.empty() ? event.substr(0, 1) : signs.substr(0, 1)) + event[0];
  }
  if (c.heard[0] == '=') {
    EXPECT_EQ(heard, test::words(c.heard + 1));
  }
  std::vector<std::string> netHeard, expected = test::words(c.heard + (c.heard[0] == '='));
  for (const auto& [id, signs] : net) {
    const bool before = signs[0] != '+', after = signs[1] != '-';
    if (before || after) netHeard.push_back((before && after ? "~" : after ? "+" : "-") + id);
  }
  std::sort(netHeard.begin(), netHeard.end()), std::sort(expected.begin(), expected.end());
  EXPECT_EQ(netHeard, expected) << ::testing::PrintToString(heard);
  // A file caught half written may warn as a fresh cache would at that moment; the watcher's
  // own errors are exactly the row's.
  const std::string said = expand(c.logged);
  const std::size_t prefix = said.find('*');
  const auto starts = [&](const std::string& line) {
    return line.substr(0, prefix) == said.substr(0, prefix);
  };
  const auto own = [](const std::string& line) {
    return line.find("certstorewatcher") != std::string::npos;
  };
  EXPECT_EQ(std::count_if(logged.begin(), logged.end(), own),
            std::count_if(logged.begin(), logged.end(), starts) * own(said))
      << ::testing::PrintToString(logged);
  EXPECT_TRUE(said.empty() || std::any_of(logged.begin(), logged.end(), starts))
      << ::testing::PrintToString(logged);
}

INSTANTIATE_TEST_SUITE_P(Watch, WatchTest, ::testing::ValuesIn(kChanges),
                         [](const auto& info) { return std::string(info.param.name); });

// A writer rotates one pair in place with the library's own writers while readers look it up
// through the watcher: each certificate comes with its own key, and the right password never
// reads as a wrong one.
using WatchRotation = test::StoreTest;
TEST_F(WatchRotation, ReadersNeverGetAForeignKeyOrAWrongPassword) {
  CredentialProfile profile;
  profile.key = CredentialProfile::Key::ecP256;
  profile.kdfIterations = 1000;
  CertFileCache& writer = open("keysq");
  ASSERT_EQ(writer.createSelfSignedKeyPair("", "r@x", "pw", 0, profile), 0);
  CertStoreWatcher watcher(*store_, filter_, true);
  LogFacility::setUp(false);  // the readers' retries warn, as lookups do
  std::atomic<bool> done{false};
  std::atomic<int> reads{0}, foreign{0}, refused{0}, lastCode{0};
  std::vector<std::thread> readers;
  for (int i = 0; i < 4; ++i) {
    readers.emplace_back([&] {
      while (!done) {
        int code = 0;
        std::shared_ptr<Certificate> found = watcher.getCertificate("r@x", "pw", code);
        ++reads;
        if (found && X509_check_private_key(found->getX509(), found->getPrivateKey()) != 1)
          ++foreign;
        if (!found) ++refused, lastCode = code;
      }
    });
  }
  for (int i = 0; i < 30; ++i) {
    EXPECT_EQ(
        writer.createSelfSignedKeyPair("", "r@x", "pw", CertFileCache::overwriteExisting, profile),
        0);
  }
  done = true;
  for (std::thread& reader : readers) reader.join();
  LogFacility::setUp(true);
  EXPECT_GT(reads.load(), 0);
  EXPECT_EQ(foreign.load(), 0);
  EXPECT_EQ(refused.load(), 0) << lastCode;
}

}  // namespace
}  // namespace tavik

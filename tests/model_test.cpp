// Thousands of operations in random order (fixed seeds) on one store, checked
// after every step against a small model of which files exist in the cache
// directory, which key each certificate and key file holds, and which entries
// the cache's index must have. Key generation is the slow part, so about one
// step in five makes a key; the others install, cancel, rename, remove, look
// up and build new caches.
#include <gtest/gtest.h>
#include <openssl/pem.h>

#include <map>
#include <optional>
#include <random>
#include <set>

#include "crypto/certificatefilecache.h"
#include "support/testsupport.h"

namespace tavik {
namespace {

const std::string kPassword = "model-password";
constexpr int kEmails = 5;
constexpr int kStepsPerSeed = 1000;

std::string email(int i) { return "u" + std::to_string(i) + "@example.org"; }
std::string baseOf(int i) { return "u" + std::to_string(i) + "_at_example.org"; }

// The files of one base name. Keys are numbered as they are made; a
// certificate records the number of the key it is for.
struct Files {
  std::optional<int> crt;
  std::string crtEmail;
  std::optional<int> key;
  std::optional<int> tpk;
  bool empty() const { return !crt && !key && !tpk; }
};

class ModelTest : public test::StoreTest {
 protected:
  void SetUp() override {
    StoreTest::SetUp();
    cache_ = makeCache(true);
  }

  // ---- the steps ----------------------------------------------------------

  void selfSigned(int i, int flags) {
    Files& f = files_[baseOf(i)];
    const int expected = (flags & CertFileCache::overwriteExisting) == 0 && f.key ? 2 : 0;
    ASSERT_EQ(cache_->createSelfSignedKeyPair("", email(i), kPassword, flags), expected);
    if (expected != 0) return;
    f.crt = f.key = ++keys_;
    f.crtEmail = email(i);
  }

  void request(int i, int flags) {
    Files& f = files_[baseOf(i)];
    const int expected = (flags & CertFileCache::overwriteExisting) == 0 && f.key ? 2 : 0;
    std::string csr;
    ASSERT_EQ(cache_->createCsr("", email(i), kPassword, flags, csr), expected);
    if (expected != 0) return;
    ++keys_;
    requests_[keys_] = csr;
    if ((flags & CertFileCache::skipTemporaryKey) != 0) {
      f.key = keys_;
    } else {
      f.tpk = keys_;
    }
  }

  void cancel(int i) {
    Files& f = files_[baseOf(i)];
    ASSERT_EQ(cache_->cleanupCsr("", email(i)), f.tpk ? 0 : 11);
    f.tpk.reset();
  }

  void install(int i, bool overwrite) {
    Files& f = files_[baseOf(i)];
    // For the pending key when there is one; otherwise for a key nobody has.
    const int forKey = f.tpk ? *f.tpk : 0;
    const std::string pem = signedFor(forKey, email(i));
    int expected = 0;
    if (!overwrite && f.crt) {
      expected = 2;
    } else if (!f.tpk) {
      expected = 10;
    }
    ASSERT_EQ(cache_->saveCert("", pem, overwrite), expected);
    ++outcomes_["install " + std::to_string(expected)];
    if (expected != 0) return;
    f.crt = forKey;
    f.crtEmail = email(i);
    f.key = f.tpk;
    f.tpk.reset();
  }

  void rename(const std::string& from, const std::string& to) {
    Files source = files_[from];
    if (!source.crt) {
      ASSERT_EQ(cache_->renameCert(from, to), 1);
      return;
    }
    ASSERT_EQ(cache_->renameCert(from, to), 0);
    if (from == to) return;
    Files& target = files_[to];
    Files& moved = files_[from];
    target.crt = source.crt;
    target.crtEmail = source.crtEmail;
    moved.crt.reset();
    // A missing key or temporary key leaves the target's own in place.
    if (source.key) {
      target.key = source.key;
      moved.key.reset();
    }
    if (source.tpk) {
      target.tpk = source.tpk;
      moved.tpk.reset();
    }
  }

  void remove(const std::string& id) {
    const auto entry = index_.find(id);
    if (entry == index_.end()) {
      ASSERT_EQ(cache_->removeCert(id), 4);
      return;
    }
    Files& f = files_[entry->second];
    if (!f.crt) {
      ASSERT_EQ(cache_->removeCert(id), 1);
      return;
    }
    ASSERT_EQ(cache_->removeCert(id), 0);
    ++outcomes_["remove 0"];
    f = Files();
    index_.erase(entry);
  }

  void lookup(const std::string& id) {
    int expected = CertFileCache::kNotInIndex;
    std::string base;
    if (index_.count(id) != 0) {
      base = index_[id];
      const Files& f = files_[base];
      if (!f.crt) {
        expected = CertFileCache::kNoLocationHasIt;
      } else if (!f.key) {
        expected = CertFileCache::kKeyMissing;
      } else if (*f.key != *f.crt) {
        expected = CertFileCache::kKeyUnreadable;
      } else {
        expected = CertFileCache::kFound;
      }
    }
    int errorCode = -1;
    std::shared_ptr<Certificate> found = cache_->getCertificate(id, kPassword, errorCode, true);
    ASSERT_EQ(errorCode, expected) << id;
    ASSERT_EQ(found != nullptr, expected == CertFileCache::kFound);
    if (found) {
      ASSERT_NE(found->getPrivateKey(), nullptr);
      ++outcomes_["lookup found"];
    }
    if (base.empty()) return;
    const Files& f = files_[base];
    std::string keyFile;
    std::string certFile;
    ASSERT_EQ(cache_->getFileInfo(base, keyFile, certFile), !f.key ? 6 : !f.crt ? 5 : 0);
  }

  // A new key-holding cache: every base name with certificate and key enters
  // under its certificate's e-mail address. When two base names give the same
  // address, the directory's order decides; either may win.
  void newCache() {
    std::map<std::string, std::set<std::string>> candidates;
    for (const auto& entry : files_) {
      if (entry.second.crt && entry.second.key) {
        candidates[entry.second.crtEmail].insert(entry.first);
      }
    }
    cache_ = std::make_unique<CertFileCache>(store_, filter_, true);
    index_.clear();
    std::vector<std::string> ids;
    cache_->listIds(ids);
    ASSERT_EQ(ids.size(), candidates.size());
    for (const std::string& id : ids) {
      ASSERT_EQ(candidates.count(id), 1u) << id;
      const std::string base = cache_->getFileBaseName(id);
      ASSERT_EQ(candidates[id].count(base), 1u) << id << " => " << base;
      index_[id] = base;
    }
  }

  // A cache of certificates alone lists every base name with a certificate.
  void certificateOnlyCache() {
    std::vector<std::string> expected;
    for (const auto& entry : files_) {
      if (entry.second.crt) expected.push_back(entry.first);
    }
    CertFileCache plain(store_, filter_, false);
    std::vector<std::string> ids;
    plain.listIds(ids);
    ASSERT_EQ(ids, expected);
  }

  // ---- checks after every step ---------------------------------------------

  void expectMatchesModel() {
    std::vector<std::string> expected;
    for (const auto& entry : files_) {
      if (entry.second.crt) expected.push_back(entry.first + ".crt");
      if (entry.second.key) expected.push_back(entry.first + ".key");
      if (entry.second.tpk) expected.push_back(entry.first + ".tpk");
    }
    std::sort(expected.begin(), expected.end());
    ASSERT_EQ(files(), expected);
    std::vector<std::string> ids;
    cache_->listIds(ids);
    std::vector<std::string> modelIds;
    for (const auto& entry : index_) modelIds.push_back(entry.first);
    ASSERT_EQ(ids, modelIds);
    for (const auto& entry : index_) ASSERT_EQ(cache_->getFileBaseName(entry.first), entry.second);
  }

  // A certificate for the key of request `key` (0: for a key of no request),
  // as a signing authority would return it.
  std::string signedFor(int key, const std::string& address) {
    PkeyHandle publicKey;
    if (key != 0) {
      const std::string& pem = requests_.at(key);
      BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
      X509ReqPtr request(PEM_read_bio_X509_REQ(bio.get(), nullptr, nullptr, nullptr));
      publicKey = PkeyHandle(X509_REQ_get_pubkey(request.get()));
    }
    test::CertOptions options;
    options.commonName = "Signed";
    options.email = address;
    options.key = key != 0 ? publicKey.get() : test::testKey(2);
    options.issuerKey = test::testKey(3);
    options.serial = ++serial_;
    return test::toPem(test::makeCertificate(options).get());
  }

  // Runs `steps` random steps from `seed`; returns how many ran.
  int runSteps(unsigned seed, int steps) {
    std::mt19937 random(seed);
    const auto pick = [&random](int n) {
      return static_cast<int>(random() % static_cast<unsigned>(n));
    };
    std::vector<std::string> bases = {"r0", "r1", "r2"};
    bases.reserve(bases.size() + kEmails);
    for (int i = 0; i < kEmails; ++i) bases.push_back(baseOf(i));

    int done = 0;
    for (; done < steps && !HasFatalFailure(); ++done) {
      clearLog();
      const int i = pick(kEmails);
      const int what = pick(100);
      std::string step;
      if (what < 8) {
        step = "selfSigned";
        selfSigned(i, pick(2));
      } else if (what < 18) {
        step = "request";
        request(i, pick(2) | (pick(4) == 0 ? CertFileCache::skipTemporaryKey : 0));
      } else if (what < 26) {
        step = "cancel";
        cancel(i);
      } else if (what < 38) {
        step = "install";
        install(pending(pick).value_or(i), pick(2) == 0);
      } else if (what < 50) {
        step = "rename";
        rename(bases[pick(static_cast<int>(bases.size()))],
               bases[pick(static_cast<int>(bases.size()))]);
      } else if (what < 60) {
        step = "remove";
        remove(pick(4) == 0 ? email(i) : anyId(pick));
      } else if (what < 85) {
        step = "lookup";
        lookup(pick(4) == 0 ? email(i) : anyId(pick));
      } else if (what < 95) {
        step = "newCache";
        newCache();
      } else {
        step = "certificateOnlyCache";
        certificateOnlyCache();
      }
      if (HasFatalFailure()) {
        ADD_FAILURE() << "seed " << seed << ", step " << done << ": " << step;
        break;
      }
      ++outcomes_[step];
      expectMatchesModel();
      if (HasFatalFailure())
        ADD_FAILURE() << "seed " << seed << ", after step " << done << ": " << step;
    }
    return done;
  }

  // Most installs answer a pending request, as they do in use; the others
  // find none (10) or a certificate already there (2).
  template <typename Pick>
  std::optional<int> pending(Pick& pick) {
    std::vector<int> waiting;
    for (int i = 0; i < kEmails; ++i) {
      if (files_[baseOf(i)].tpk) waiting.push_back(i);
    }
    if (waiting.empty() || pick(4) == 0) return std::nullopt;
    return waiting[static_cast<std::size_t>(pick(static_cast<int>(waiting.size())))];
  }

  template <typename Pick>
  std::string anyId(Pick& pick) {
    if (index_.empty()) return email(0);
    auto entry = index_.begin();
    std::advance(entry, pick(static_cast<int>(index_.size())));
    return entry->first;
  }

  std::unique_ptr<CertFileCache> cache_;

  std::map<std::string, Files> files_;        // base name -> its files
  std::map<std::string, std::string> index_;  // the cache's expected index
  std::map<int, std::string> requests_;       // key number -> its request
  std::map<std::string, int> outcomes_;       // step or result -> how often
  int keys_ = 0;
  long serial_ = 100;
};

TEST_F(ModelTest, RandomOperationsKeepFilesAndIndexAsModelled) {
  int total = 0;
  for (unsigned seed : {1u, 2u, 3u}) {
    total += runSteps(seed, kStepsPerSeed);
    if (HasFailure()) break;
  }
  EXPECT_EQ(total, 3 * kStepsPerSeed);
  std::cout << "[ MODEL    ] " << total << " random operations checked against the model:";
  for (const auto& entry : outcomes_) std::cout << " " << entry.first << " " << entry.second << ";";
  std::cout << "\n";
  // The seeds reach the outcomes that matter, not only refusals.
  EXPECT_GT(outcomes_["lookup found"], 0);
  EXPECT_GT(outcomes_["install 0"], 0);
  EXPECT_GT(outcomes_["remove 0"], 0);
}

}  // namespace
}  // namespace tavik

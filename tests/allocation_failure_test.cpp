// Every public operation of the cache and the request builder, in both kinds of cache, with one
// OpenSSL allocation made to fail at a time: each of the first 300 and the last 100, and a
// sample of the rest within TAVIK_FAULT_SECONDS. Whatever fails, the operation gives a result it
// may give; on success it leaves what a clean run leaves, else the files as they were; the index
// keeps what it had; and no OpenSSL allocation or file descriptor outlives it.
#include <dlfcn.h>
#include <execinfo.h>
#include <openssl/err.h>

#include <chrono>

#include "support/storetest.h"

namespace tavik {
namespace {

// Installed at the start of main(): OpenSSL refuses an allocator once it has allocated.
long counted = 0, failAt = 0, live = 0;
bool counting = false, injected = false;

// OpenSSL 3.0's ASN1_item_sign_ctx decodes the signature algorithm into the X509_ALGOR embedded
// in what it signs; when that runs out of memory, ASN1_item_d2i_ex frees the embedded structure,
// which malloc never gave. Allocations with both on the stack are spared.
bool inSigningDefect() {
  void* frames[64];
  const int depth = ::backtrace(frames, 64);
  const auto onStack = [&](const char* function) {
    Dl_info info{};
    for (int i = 0; i < depth; ++i) {
      if (::dladdr(frames[i], &info) && info.dli_sname && !std::strcmp(info.dli_sname, function))
        return true;
    }
    return false;
  };
  return onStack("ASN1_item_d2i_ex") && onStack("ASN1_item_sign_ctx");
}
bool fails() { return counting && ++counted == failAt && (injected = !inSigningDefect()); }
void* countedMalloc(size_t size, const char*, int) {
  void* block = fails() ? nullptr : std::malloc(size);
  live += block != nullptr;
  return block;
}
void* countedRealloc(void* block, size_t size, const char*, int) {
  if (fails()) return nullptr;
  void* moved = std::realloc(block, size);
  live += (block == nullptr && moved != nullptr) - (block != nullptr && size == 0);
  return moved;
}
void countedFree(void* block, const char*, int) {
  live -= block != nullptr;
  std::free(block);
}
long openDescriptors() { return std::distance(test::fs::directory_iterator("/proc/self/fd"), {}); }

struct Operation {
  const char* name;
  const char* call;                  // T::script: not counted up to its last ';', then counted
  std::vector<std::string> results;  // the last note of a clean run, then others that are legal
  const char* added = "";    // files after success, first "-FILE" for those gone; "*": a failure
  const char* check = "";    // may leave files too; "?FILE": it may leave FILE empty. Then a
  const char* checked = "";  // script run after success and the last note it must give.
};
void PrintTo(const Operation& op, std::ostream* out) { *out << op.name; }

// Renaming, removing, listing and file information allocate nothing in OpenSSL.
// clang-format off
const Operation kOperations[] = {
  {"ConstructKeyCache", "open keys", {""}},
  {"ConstructPlainCache", "open plain", {""}},
  {"ConstructAuthorityCache", "cadir; open keysc", {""}},
  {"LoadAgain", "open keysq; put n.crt; put n.key; load", {""}},
  {"LookupWithKey", "open keysq; lookup a@x pw", {"-> 0 a@x with key", "-> 1000103"}},
  {"LookupWhole", "open plainq; lookup a -", {"-> 0 a@x", "-> 1000102"}},
  {"LookupDeferred", "open plainq; lazy a -", {"-> 0 a@x", "-> -1 a@x", "-> 1000102"}},
  {"LookupCertificateOnly", "put e_at_x.crt; open plainq; only e@x", {"-> 0 e@x", "-> 1000102"}},
  {"WriteCert", "open keysq; writecert w.crt w@x", {"-> 0", "-> 1"}, "* w.crt=pem:w@x"},
  {"WritePrivateKey", "open keysq; writekey w.key pw 2", {"-> 0", "-> 1"}, "w.key* ?w.key"},
  {"SelfSigned", "open keysq; selfsigned - s@x pw 0", {"-> 0", "-> 1"}, "s_at_x.crt* s_at_x.key*",
   "open keysq; lookup s@x pw", "-> 0 s@x with key"},
  {"Request", "open keysq; csr - r@x pw 0", {"-> 0", "-> 1"}, "r_at_x.tpk* ?r_at_x.tpk",
   "verify r_at_x.tpk", "verifies"},
  {"RequestBuilder", "request r@x", {"11 -----BEGIN CERTIFICATE REQUEST-----", "01 untouched",
   "00 untouched"}, "", "verify -", "verifies"},
  {"WritePrivateKeyWithProfile", "open keysq; writekey w.key pw 2 ec256/i1000", {"-> 0", "-> 1"},
   "w.key* ?w.key"},
  {"SelfSignedWithProfile", "open keysq; selfsigned - s@x pw 0 ec256", {"-> 0", "-> 1"},
   "s_at_x.crt* s_at_x.key*", "open keysq; lookup s@x pw", "-> 0 s@x with key"},
  {"RequestWithProfile", "open keysq; csr - r@x pw 0 ec384", {"-> 0", "-> 1"},
   "r_at_x.tpk* ?r_at_x.tpk", "verify r_at_x.tpk", "verifies"},
  {"RequestBuilderWithProfile", "request r@x ec256", {"11 -----BEGIN CERTIFICATE REQUEST-----",
   "01 untouched", "00 untouched"}, "", "verify -", "verifies"},
  {"InstallWithKey", "put r_at_x.tpk; open keysq; install - r@x 0", {"-> 0", "-> 1"},
   "-r_at_x.tpk r_at_x.crt=pem:r@x r_at_x.key=r_at_x.tpk", "open keysq; lookup r@x pw",
   "-> 0 r@x with key"},
  {"InstallOverAnEarlierOne", "put r_at_x.tpk; put r_at_x.crt=cert:CN=r/emailAddress=r@x; "
   "chmod r_at_x.crt 640; open keysq; install - r@x 1", {"-> 0", "-> 1"},
   "-r_at_x.tpk -r_at_x.crt r_at_x.crt=pem:r@x r_at_x.key=r_at_x.tpk"},
  {"InstallWithoutKeys", "put r_at_x.tpk; open plainq; install - r@x 0", {"-> 0", "-> 1"},
   "r_at_x.crt=pem:r@x"},
  {"ChainOfThree", "put ca/r.crt=by:R:0:R:0; put ca/i.crt=by:I:1:R:0; put l.crt=by:l@x:2:I:1:n; "
   "chain l.crt", {"-> l@x I R complete", "-> l@x I R open", "-> l@x I open", "-> l@x open",
   "-> open"}},
  // A revoked certificate is never judged good for want of memory: unknown at worst.
  {"RevocationCheck", "put ca/r.crt=by:R:4:R:4; put ca/i.crt=by:I:5:R:4; put l.crt=by:l@x:6:I:5:n; "
   "put crl/i.crl=crl:I:5:106/1; revocation l.crt leaf alone", {"-> revoked keyCompromise "
   "2025-01-01", "-> unknown", "->"}},
};
// clang-format on

bool has(const std::vector<std::string>& list, const std::string& item) {
  return std::find(list.begin(), list.end(), item) != list.end();
}

class AllocationFailureTest : public ::testing::TestWithParam<Operation> {
 protected:
  struct Scene : test::StoreTest {
    void TestBody() override {}
  };

  // One run with the k-th allocation failing (0: none), checked; whether the k-th was reached.
  bool run(long k, bool warmingUp = false) {
    const Operation& op = GetParam();
    const std::string call = op.call, counted = call.substr(call.rfind(';') + 1);
    const long liveBefore = live, descriptorsBefore = openDescriptors();
    Scene s;
    s.SetUp();
    // Read in place, and by OpenSSL (a name not in ASCII, a name without a common name); an
    // authority, which a user cache never lists; a file that is no certificate; a lone one.
    s.put({"ca.crt=ca:CN=Beh\xC3\xB6rde", "u.crt=cert:CN=J\xC3\xBCrgen/emailAddress=u@x",
           "o.crt=ca:emailAddress=o@x"});
    s.put(test::words("a.crt a.key b.crt b.key=key:1 c.crt bad.crt=x ca.key u.key o.key"));
    s.script(call.substr(0, call.size() - counted.size()));
    const std::vector<std::string> filesBefore = s.files(), indexBefore = s.index();
    const std::map<std::string, std::string> treeBefore = test::snapshot(s.path(""));
    std::vector<std::string> after = filesBefore;
    for (const std::string& file : test::words(op.added)) {
      if (file[0] == '-') after.erase(std::find(after.begin(), after.end(), file.substr(1)));
      if (file[0] != '-' && file[0] != '?' && file != "*") after.push_back(file);
    }
    std::sort(after.begin(), after.end());
    s.notes_.clear();
    ::tavik::counted = 0, failAt = k, injected = false, counting = true;
    s.script(counted);
    counting = false;
    const std::string result = s.notes_.empty() ? "" : s.notes_.back();
    const bool clean = result == op.results[0];
    EXPECT_TRUE(has(op.results, result) && (clean || injected)) << result;
    // Loading may enter less for want of memory, never another entry, and keeps what it had.
    const std::string verb = test::words(counted)[0];
    const bool loads = verb == "open" || verb == "load";
    if (loads && k == 0) cleanIndex_ = s.index();
    for (const std::string& id : s.index()) EXPECT_TRUE(has(loads ? cleanIndex_ : indexBefore, id));
    for (const std::string& id : indexBefore) EXPECT_TRUE(has(s.index(), id)) << id;
    std::vector<std::string> files = s.files();
    if (!clean && op.added[0] == '*') {  // what a failure wrote so far
      files.erase(std::remove_if(files.begin(), files.end(),
                                 [&](const std::string& f) { return !has(filesBefore, f); }),
                  files.end());
    }
    // BIO_new_file creates the file before it makes the BIO: a key writer failing there leaves it.
    for (const std::string& file : test::words(op.added)) {
      const auto left = std::find(files.begin(), files.end(), file.substr(1) + "*");
      if (!clean && file[0] == '?' && left != files.end() &&
          test::readFile(s.path(file.substr(1))).empty()) {
        files.erase(left);
      }
    }
    EXPECT_EQ(files, clean ? after : filesBefore);
    std::map<std::string, std::string> tree = test::snapshot(s.path(""));
    for (const auto& file : treeBefore)  // a failure leaves every earlier file as it was, mode too
      EXPECT_TRUE(clean || tree[file.first] == file.second) << file.first;
    // What reads certificates leaves no error behind for the next reader of the queue.
    const bool reads = loads || verb == "lookup" || verb == "lazy" || verb == "only";
    EXPECT_TRUE(!reads || ERR_peek_error() == 0) << "an error was left";
    if (clean && *op.check != '\0') {
      s.script(op.check);
      EXPECT_EQ(s.notes_.back(), op.checked);
    }
    s.TearDown();
    ERR_clear_error();
    EXPECT_TRUE(warmingUp || live == liveBefore) << "OpenSSL allocations outlived the operation";
    EXPECT_TRUE(warmingUp || openDescriptors() == descriptorsBefore) << "a descriptor was left";
    return k == 0 || ::tavik::counted >= k;
  }
  std::vector<std::string> cleanIndex_;
};

// Each of the first 300 allocations and the last 100 (where results are written), and the rest
// in a scattered order, so that wherever the time budget ends the sample spans the whole range;
// key generation makes the count vary, so a fifth more is looked at.
TEST_P(AllocationFailureTest, EveryFailureLeavesALegalOutcome) {
  run(0, true);  // OpenSSL's lazy initialisation, and the making of the certificates
  run(0);
  const long count = counted, rest = count + count / 5 - 300;
  long reached = 0;
  for (long k = 1; k <= count && !HasFailure();
       k = k == 300 ? std::max(301L, count - 100) : k + 1) {
    SCOPED_TRACE("allocation " + std::to_string(k) + " failed");
    reached += run(k);
  }
  const auto start = std::chrono::steady_clock::now();
  const char* seconds = std::getenv("TAVIK_FAULT_SECONDS");
  const std::chrono::duration<double> budget(seconds ? std::atof(seconds) : 20);
  for (long i = 0; i < rest && !HasFailure() && std::chrono::steady_clock::now() - start < budget;
       ++i) {
    const long k = 301 + (i * 7919) % rest;  // a prime step scatters them
    SCOPED_TRACE("allocation " + std::to_string(k) + " failed");
    reached += run(k);
  }
  std::printf("[ FAULTS   ] %s: %ld allocations in a clean run, %ld failed in turn\n",
              GetParam().name, count, reached);
  run(0);  // and nothing that failed spoiled a later clean run
}

INSTANTIATE_TEST_SUITE_P(Operations, AllocationFailureTest, ::testing::ValuesIn(kOperations),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace tavik

int main(int argc, char** argv) {
  if (!CRYPTO_set_mem_functions(tavik::countedMalloc, tavik::countedRealloc, tavik::countedFree)) {
    std::fprintf(stderr, "OpenSSL allocated before main(): cannot install the allocator\n");
    return 1;
  }
  // The thread's error queue keeps its state and a text buffer per slot for reuse: made now, they
  // are no leak.
  for (int i = 0; i < 2 * ERR_NUM_ERRORS; ++i) ERR_raise_data(ERR_LIB_USER, 1, "%256s", "");
  ERR_clear_error();
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}

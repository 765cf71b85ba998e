// A store that follows its files: the index of a CertFileCache, kept up to
// date while other processes (the certcache tool, cp, mv, rm, other programs
// of the library) change the store, for programs that run for months.
//
// The watcher scans the store once when it is made, then a thread of its own
// listens to the kernel's change notification (inotify) on every location and
// its cache directory, re-reads only the files that changed, by the scan's own
// rules, and publishes a new index as an immutable CertFileCache. Each
// published index is what a new cache would hold over the files as they stood
// at one moment: the later location wins, a key-holding cache enters a
// certificate only when its key lies beside it. Readers take current() and
// look up in it from any number of threads; nothing they hold ever changes.
//
// Beside the index, the watcher follows the authorities (the `ca` directories
// of every location) and the revocation lists (the `crl` directories) and
// publishes them with it, as one moment (moment()): a CertificateChain and a
// RevocationLists made anew whenever a file of theirs changes, so that a
// program that presents a chain or checks revocation on each connection takes
// a rotated intermediate or a new list within a second, without a restart.
//
// Each published index shares with the one before it all that did not change
// (CertificateIndex): a change costs the watcher the files it touched and one
// shard of the index, not a copy of the whole store's index.
//
// A commit of the certcache tool (base/intentrecord.h) is honoured: while its
// intent record lies in the store's root, the files it names are read where
// the record will leave them (each from its staging place until its rename is
// made; a file to be removed, or renamed away, as absent), and the indexes
// published meanwhile send lookups of those files to the same places. Nothing
// is published of the files as they stand half renamed, so a reader of
// current() meets the pair the commit makes, whole, even when the run that
// made it was killed half way and no other run has completed it yet. (In the
// milliseconds between a rename and the watcher's reading of the record, a
// lookup through the index before may still meet the pair mid-change, as with
// any change of files under a lookup: getCertificate below reads it again.)
// Once the
// record is gone, the files are read where they are again (a completed commit
// leaves them where they were read from, and nothing new is published).
//
// When the kernel's queue overflows, the watcher scans the store again; when
// notification cannot be set up at all, it scans once a second. A scan that
// fails (a directory that cannot be listed, a link that loops) keeps the last
// good index, is logged, and is tried again on the next change.
#ifndef TAVIK_CRYPTO_CERTSTOREWATCHER_H_
#define TAVIK_CRYPTO_CERTSTOREWATCHER_H_

#include <boost/shared_ptr.hpp>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/certificate.h"
#include "base/certificatefilter.h"
#include "base/certificatestore.h"
#include "crypto/certificatechain.h"
#include "crypto/certificatefilecache.h"
#include "crypto/revocationlists.h"

namespace tavik {

// What one publication changed: identifiers that entered the index, that left
// it, and whose certificate or key was replaced or whose base name changed.
// A pair written file by file in one burst (certificate, then key) is one
// addition. A publication that changed only the authorities or the lists
// names no identifier.
struct StoreChanges {
  std::vector<std::string> added, removed, changed;
};

// Everything the watcher published at one moment. Never null members.
struct StoreMoment {
  std::shared_ptr<const CertFileCache> index;
  std::shared_ptr<const CertificateChain> authorities;
  std::shared_ptr<const RevocationLists> revocationLists;
  std::uint64_t generation = 0;
};

class CertStoreWatcher {
 public:
  // Scans `store` (which must outlive the watcher) as a CertFileCache with the
  // same arguments would, then follows it on a thread of its own.
  CertStoreWatcher(CertificateStore& store, boost::shared_ptr<CertificateFilter> filter,
                   bool withPrivateKeys);
  // Stops watching; returns when its thread is gone. No listener call is made
  // afterwards.
  ~CertStoreWatcher();
  CertStoreWatcher(const CertStoreWatcher&) = delete;
  CertStoreWatcher& operator=(const CertStoreWatcher&) = delete;

  // The index as of one moment, never changed afterwards: its lookups are
  // safe from any number of threads while the watcher publishes newer ones.
  // Never null: the constructor returns after a first full scan. Callers must
  // not load() it: it is shared.
  std::shared_ptr<const CertFileCache> current() const;
  // The index, the authorities and the revocation lists of one moment, and its
  // generation: what a reader needs to look a credential up, build its chain
  // and check it, all as the store stood at once.
  StoreMoment moment() const;
  // Grows by one with every publication (a new index, new authorities or new
  // lists); the first scan's is 1.
  std::uint64_t generation() const;
  // True once an index newer than `generation` is published, false after `timeout`.
  bool waitForNewer(std::uint64_t generation, std::chrono::milliseconds timeout) const;
  // Called on the watcher's thread after each publication with the identifiers
  // added, removed and changed. An index is published only when it differs
  // from the last one or a certificate in it was rewritten. The listener must
  // not destroy the watcher.
  void setListener(std::function<void(const StoreChanges&)> listener);
  // current()->getCertificate (the certificate decoded whole), except that a
  // pair caught between its writes (certificate and key that do not match, or
  // a file missing mid-rename: 1000101, 1000103, 1000104 while the pair's
  // files or their directory changed within the last second) is read again
  // until its files have settled, waiting at most one second, before a
  // failure is reported.
  std::shared_ptr<Certificate> getCertificate(const std::string& id, const std::string& password,
                                              int& errorCode) const;
  // getCertificate with the chain above the certificate, built from the
  // authorities of the moment the certificate was found in: for a TLS
  // context's certificate, key and chain, or a signature's extra certificates.
  ChainedCredential getCredential(const std::string& id, const std::string& password,
                                  int& errorCode) const;

 private:
  class Follower;  // the watcher thread's state: what each file gave, the notification

  // Makes `moment` current and tells the listener; on the watcher's thread.
  // `sides`: the authorities or the lists are new.
  void publish(StoreMoment moment, const StoreChanges& changes, bool sides);
  // getCertificate, and the moment whose index found it.
  std::shared_ptr<Certificate> find(const std::string& id, const std::string& password,
                                    int& errorCode, StoreMoment& moment) const;
  // Whether a failed lookup of `id` met files that are still being written.
  bool caughtBetweenWrites(const CertFileCache& index, const std::string& id, int errorCode) const;

  std::vector<std::string> locations_;  // as the store gave them when the watcher was made
  std::string subdirectory_;

  mutable std::mutex mutex_;  // guards current_ and listener_
  mutable std::condition_variable published_;
  StoreMoment current_;
  std::function<void(const StoreChanges&)> listener_;

  std::unique_ptr<Follower> follower_;
  std::thread thread_;
};

}  // namespace tavik

#endif  // TAVIK_CRYPTO_CERTSTOREWATCHER_H_

#include "crlcommands.h"

#include <boost/filesystem/operations.hpp>
#include <ctime>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "base/certificatefilter.h"
#include "base/filecontents.h"
#include "base/filename.h"
#include "certificatedescription.h"
#include "crypto/revocationlists.h"
#include "storecommit.h"
#include "storefiles.h"
#include "toolerror.h"

namespace tavik {
namespace cli {

namespace {

namespace fs = boost::filesystem;

// A list given to `crl add`, with the file it came in.
struct Offered {
  std::string file;
  std::shared_ptr<const RevocationList> list;
};

[[noreturn]] void refuse(const std::string& file, const std::string& why) {
  throw ToolError(kExitDataError, file + why);
}

// Every list of `files`, in their order; the first file that is not what
// `crl add` keeps ends the run before the store is touched.
std::vector<Offered> readOffered(const std::vector<std::string>& files) {
  std::vector<Offered> offered;
  for (const std::string& file : files) {
    std::string contents;
    if (!readSmallRegularFile(file, RevocationList::kMaxFileSize, contents)) {
      boost::system::error_code error;
      if (fs::is_regular_file(file, error) &&
          fs::file_size(file, error) > RevocationList::kMaxFileSize) {
        throw ToolError(kExitDataError, file + " is larger than any revocation list (64 MiB)");
      }
      throw ToolError(kExitNoInput, "cannot read " + file + " (missing, unreadable or no file)");
    }
    std::vector<std::shared_ptr<const RevocationList>> lists;
    const std::string refusal = RevocationList::read(contents, lists);
    if (!refusal.empty()) {
      refuse(file, " is not a revocation list: " + refusal);
    }
    for (std::shared_ptr<const RevocationList>& list : lists) {
      const std::string kind = list->unusedKind();
      if (!kind.empty()) {
        refuse(file, " holds " + kind + ", which the store does not use");
      }
      offered.push_back({file, std::move(list)});
    }
  }
  return offered;
}

// Decides, list by list, what `crl add` does with the lists it is given, and
// stages what it keeps: for each issuer the newest list, over the file of
// the issuer's list in the root where there is one.
class ListKeeping {
 public:
  ListKeeping(const CertificateChain& authorities, const RevocationLists& kept, StoreCommit& commit)
      : authorities_(authorities), kept_(kept), commit_(commit) {}

  // Takes `offered` (kept by the caller until staged) or refuses it with
  // ToolError 65; true when the store holds it already.
  bool take(const Offered& offered) {
    bool named = false;
    const std::vector<std::shared_ptr<Certificate>> issuers =
        offered.list->issuers(authorities_, &named);
    const std::string& issuerName = offered.list->issuer();
    if (issuers.empty()) {
      throw ToolError(kExitDataError,
                      offered.file + ": " +
                          (named ? "its signature does not verify with the key of the store's "
                                   "authority " +
                                       issuerName
                                 : "the store holds no authority " + issuerName + ", its issuer"));
    }
    Issuer& issuer = issuerOf(issuers.front());
    // The newest list of the issuer again: kept already, or given before.
    if (issuer.newest != nullptr && issuer.newest->der() == offered.list->der()) {
      return issuer.staged == nullptr;
    }
    if (issuer.newest != nullptr && RevocationList::compare(*offered.list, *issuer.newest) < 0) {
      throw ToolError(kExitDataError, offered.file + " holds a revocation list of " + issuerName +
                                          " older than the one " +
                                          (issuer.staged == nullptr ? "kept" : "given before it") +
                                          " (by CRL number, else thisUpdate)");
    }
    issuer.newest = offered.list.get();
    issuer.staged = &offered;
    return false;
  }

  // Whether `offered` is the list staged for its issuer.
  bool staged(const Offered& offered) const {
    for (const auto& entry : issuers_) {
      if (entry.second.staged == &offered) return true;
    }
    return false;
  }

  // Writes each list to stage into the staging place, to be renamed over its
  // target by the commit.
  void stage() {
    for (const auto& entry : issuers_) {
      const Issuer& issuer = entry.second;
      if (issuer.staged == nullptr) continue;
      const std::string name = fs::path(issuer.target).filename().string();
      const std::string staged = commit_.aside(kRevocationSubdirectory, name, "");
      const std::string pem = issuer.staged->list->pem();
      if (pem.empty() || !writeWholeFile(staged, pem, 0644)) {
        throw ToolError(kExitIoError, "cannot write " + staged);
      }
      commit_.rename(staged, issuer.target);
    }
  }

 private:
  struct Issuer {
    const RevocationList* newest = nullptr;  // of those kept and those taken
    const Offered* staged = nullptr;         // the list to keep; null: none
    std::string target;                      // where it goes
  };

  Issuer& issuerOf(const std::shared_ptr<Certificate>& authority) {
    const auto found = issuers_.find(authority->der());
    if (found != issuers_.end()) return found->second;
    Issuer& issuer = issuers_[authority->der()];
    for (const KeptRevocationList* list : kept_.keptOf(*authority)) {
      if (issuer.newest == nullptr || RevocationList::compare(*list->list, *issuer.newest) > 0) {
        issuer.newest = list->list.get();
      }
    }
    issuer.target = targetFor(authority);
    return issuer;
  }

  // The file in the root that the issuer's list is written to: the one its
  // list has there, else one named after the issuer by the store's naming
  // rule, with a short fingerprint where another file holds that name.
  std::string targetFor(const std::shared_ptr<Certificate>& authority) {
    const fs::path directory = commit_.stored(kRevocationSubdirectory, "", "");
    for (const KeptRevocationList* list : kept_.keptOf(*authority)) {
      boost::system::error_code error;
      if (fs::equivalent(fs::path(list->file).parent_path(), directory, error)) return list->file;
    }
    std::string baseName =
        subjectToFilename("", AuthorityCertificateFilter().certificateId(authority));
    std::string target = commit_.stored(kRevocationSubdirectory, baseName, kRevocationExtension);
    if (baseName.empty() || entryExists(target) || targets_.count(target) != 0) {
      baseName += (baseName.empty() ? "" : "-") +
                  describeCertificate(authority->getX509(), 0).sha256.substr(0, 8);
      target = commit_.stored(kRevocationSubdirectory, baseName, kRevocationExtension);
    }
    targets_.insert(target);
    return target;
  }

  const CertificateChain& authorities_;
  const RevocationLists& kept_;
  StoreCommit& commit_;
  std::map<std::string, Issuer> issuers_;  // by the issuing authority's DER
  std::set<std::string> targets_;
};

void warnAboutTimes(const RevocationList& list, std::time_t now) {
  if (list.isStale(now)) {
    std::cerr << "certcache: crl add: warning: the revocation list of " << list.issuer()
              << " is past its nextUpdate, " << formatTime(list.nextUpdate())
              << "; kept all the same\n";
  }
  if (list.thisUpdate() > now) {
    std::cerr << "certcache: crl add: warning: the revocation list of " << list.issuer()
              << " is not in force before its thisUpdate, " << formatTime(list.thisUpdate())
              << "\n";
  }
}

}  // namespace

int crlAddCommand(const Invocation& invocation, std::ostream& out) {
  const std::vector<Offered> offered = readOffered(invocation.inputFiles);
  StoreSession session(invocation.store, StoreAccess::kChange);
  const CertificateChain authorities(session.store());
  const RevocationLists kept(session.store(), authorities);
  StoreCommit commit(session.root(), session.filter().subdirectory());
  ListKeeping keeping(authorities, kept, commit);
  std::vector<bool> alreadyKept;
  alreadyKept.reserve(offered.size());
  for (const Offered& list : offered) alreadyKept.push_back(keeping.take(list));
  keeping.stage();
  commit.commit();
  const std::time_t now = std::time(nullptr);
  for (std::size_t i = 0; i < offered.size(); ++i) {
    const RevocationList& list = *offered[i].list;
    if (alreadyKept[i]) out << "already kept: " << list.issuer() << '\n';
    if (!keeping.staged(offered[i])) continue;
    out << "kept revocation list: " << list.issuer() << '\n';
    warnAboutTimes(list, now);
  }
  return kExitOk;
}

int crlListCommand(const Invocation& invocation, std::ostream& out) {
  StoreSession session(invocation.store, StoreAccess::kRead);
  const CertificateChain authorities(session.store());
  const RevocationLists kept(session.store(), authorities);
  const auto nextUpdate = [](const RevocationList& list) {
    return list.nextUpdate() == 0 ? std::string() : formatTime(list.nextUpdate());
  };
  if (invocation.json) {
    nlohmann::ordered_json array = nlohmann::ordered_json::array();
    for (const KeptRevocationList& kept : kept.lists()) {
      const RevocationList& list = *kept.list;
      array.push_back(
          {{"issuer", list.issuer()},
           {"this_update", formatTime(list.thisUpdate())},
           {"next_update", list.nextUpdate() == 0 ? nlohmann::ordered_json(nullptr)
                                                  : nlohmann::ordered_json(nextUpdate(list))},
           {"entries", list.entries()},
           {"file", kept.file}});
    }
    out << array.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << '\n';
    return kExitOk;
  }
  for (const KeptRevocationList& kept : kept.lists()) {
    const RevocationList& list = *kept.list;
    out << list.issuer() << '\t' << formatTime(list.thisUpdate()) << '\t' << nextUpdate(list)
        << '\t' << list.entries() << '\n';
  }
  return kExitOk;
}

}  // namespace cli
}  // namespace tavik

#include "base/intentrecord.h"

#include <sys/stat.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <sstream>

#include "base/filename.h"

namespace tavik {

namespace {

constexpr char kHeader[] = "certcache-intent 1";
constexpr char kEnd[] = "end";

// Inside the root relative to it, so that a store moved after a crash is still
// completed; outside it absolute.
std::string recorded(const std::string& root, const std::string& path) {
  const std::string prefix = root + "/";
  return encodeFilename(path.compare(0, prefix.size(), prefix) == 0 ? path.substr(prefix.size())
                                                                    : path);
}

std::string resolved(const std::string& root, const std::string& word) {
  const std::string path = decodeFilename(word);
  return !path.empty() && path[0] == '/' ? path : root + "/" + path;
}

}  // namespace

IntentRead readIntentRecord(const std::string& root, std::vector<IntentStep>& steps) {
  steps.clear();
  const std::string path = root + "/" + kIntentRecordName;
  std::ifstream in(path);
  struct stat info {};
  if (!in)
    return ::lstat(path.c_str(), &info) != 0 && errno == ENOENT ? IntentRead::kAbsent
                                                                : IntentRead::kDamaged;
  std::string line;
  if (!std::getline(in, line) || line != kHeader) return IntentRead::kDamaged;
  while (std::getline(in, line)) {
    std::istringstream words(line);
    const std::vector<std::string> step{std::istream_iterator<std::string>(words), {}};
    if (step.size() == 1 && step[0] == kEnd) return IntentRead::kRead;
    if (step.size() == 3 && step[0] == "rename") {
      steps.push_back({true, resolved(root, step[1]), resolved(root, step[2])});
    } else if (step.size() == 2 && step[0] == "remove") {
      steps.push_back({false, resolved(root, step[1]), std::string()});
    } else {
      break;
    }
  }
  steps.clear();
  return IntentRead::kDamaged;
}

std::string intentRecordText(const std::string& root, const std::vector<IntentStep>& steps) {
  std::string text = std::string(kHeader) + "\n";
  for (const IntentStep& step : steps) {
    text += step.rename ? "rename " + recorded(root, step.from) + " " + recorded(root, step.to)
                        : "remove " + recorded(root, step.from);
    text += "\n";
  }
  return text + kEnd + "\n";
}

}  // namespace tavik

// The intent record of a change to a store: the one file, ROOT/.certcache-intent,
// that lists the renames and removals completing a change whose new files are
// made whole already. The certcache tool writes it (its commit), completes it
// and removes it; a store watcher reads it to tell a change in progress, or one
// that a killed run left half made, from files as they are meant to stay. The
// format is known here alone:
//
//   certcache-intent 1
//   rename FROM TO
//   remove PATH
//   end
//
// one step a line, in the order they are made, each path file-name encoded
// (encodeFilename, so no space or line break is in it) and relative to the root
// when it lies inside the root, absolute otherwise. A record without its last
// line is damaged: nothing in it may be trusted.
//
// These functions touch no file but the record, may be called from any thread
// and throw nothing but std::bad_alloc.
#ifndef TAVIK_BASE_INTENTRECORD_H_
#define TAVIK_BASE_INTENTRECORD_H_

#include <string>
#include <vector>

namespace tavik {

// The record's name in the store's root.
inline constexpr char kIntentRecordName[] = ".certcache-intent";

struct IntentStep {
  bool rename;       // a rename of `from` to `to`, else the removal of `from`
  std::string from;  // absolute
  std::string to;    // absolute; empty for a removal
};

enum class IntentRead {
  kAbsent,   // no record: no change is in progress or left half made
  kRead,     // the steps are read
  kDamaged,  // a record that no commit wrote whole; no steps
};

// The record of `root` (a normalised absolute path), its paths made absolute.
IntentRead readIntentRecord(const std::string& root, std::vector<IntentStep>& steps);

// The text of a record of `steps` (absolute paths) for `root`, last line included.
std::string intentRecordText(const std::string& root, const std::vector<IntentStep>& steps);

}  // namespace tavik

#endif  // TAVIK_BASE_INTENTRECORD_H_

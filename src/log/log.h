// The logging facility that every source file of the library writes through.
//
// Each source file owns one static LogHandle and one static LogRegister. The
// register hands the handle a LogMask, the set of levels enabled for that file;
// until then, and whenever logging is switched off, the handle gives null and
// nothing is written. A statement is a Log object: it collects the message in
// getEntry() and emits it to the sink when it is destroyed.
//
// Statements are written with the TAVIK_LOG_* macros, which test the handle and
// the level before any piece of the message is computed:
//
//   TAVIK_LOG_WARNING(logHandle) << "Loading certificate from " << path << " failed";
//
// What a program that embeds the library sees. Out of the box, errors and
// warnings are written to standard error, one line per statement: the UTC
// time, the level name, the source file and line, and the message, as in
//
//   2026-01-31T12:00:00Z warning src/crypto/certificatefilecache.cpp:107 Did not find ...
//
// Warnings come from ordinary events: a lookup with a wrong password ("Error
// reading certificate. Key invalid: PATH"), a scan of a key-holding cache that
// finds no pair, a file in a cache directory that is not a certificate of its
// kind, a file that removeCert cannot remove. Errors come from failed
// creations, writes and renames.
// Messages name files but never hold a password or a key.
//
// To silence it: LogFacility::setUp(false), or LogFacility::setLevels(0). To
// keep some levels: setLevels(LogMask::error), for one. To send the records
// elsewhere (a program's own log, syslog): LogFacility::setSink. These are
// process-wide and hold for every cache.
//
// Threads: statements may be written from any thread. The facility hands
// one record at a time to the sink, holding its lock, so a sink needs no lock
// of its own but must not log, nor call setSink or setLevels (it would wait for
// itself). setSink and setUp may be called at any time; setLevels changes
// the levels that statements read without a lock, so call it before other
// threads use the library, or while none does.
#ifndef TAVIK_LOG_LOG_H_
#define TAVIK_LOG_LOG_H_

#include <boost/system/error_code.hpp>
#include <functional>
#include <ostream>
#include <sstream>
#include <string>

namespace tavik {

struct LogMask {
  enum log_t : unsigned { error = 0x02, warning = 0x04, info = 0x08, debug = 0x10, trace = 0x20 };
  unsigned levels;  // the enabled set, a union of log_t bits
};

// One log statement. The message is written into getEntry() (or through the
// operator<< below); the destructor hands it to the facility's sink.
class Log {
 public:
  using module_t = int;

  Log(const char* file, int line, LogMask::log_t level, LogMask* mask);
  ~Log();
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;

  std::ostream& getEntry();
  Log& operator<<(const std::string& text);
  // Written as category name, colon and value: "system:2".
  Log& operator<<(const boost::system::error_code& code);
  // Anything else the stream can print: numbers, C strings, and paths, which
  // Boost.Filesystem writes in double quotes with '&' before '"' and '&'.
  template <typename T>
  Log& operator<<(const T& value) {
    entry_ << value;
    return *this;
  }

 private:
  const char* file_;
  int line_;
  LogMask::log_t level_;
  std::ostringstream entry_;
};

// The per-source-file handle. It is constructed before its register, which
// gives it the file's mask; handle() is null until then and while logging is
// switched off with LogFacility::setUp(false).
class LogHandle {
 public:
  LogHandle(const char* name, int flags, Log::module_t module);
  LogHandle(const LogHandle&) = delete;
  LogHandle& operator=(const LogHandle&) = delete;

  LogMask* handle() const;

 private:
  friend class LogRegister;
  LogMask* mask_ = nullptr;
};

// Registers one source file's handle with the facility. Registration lives
// until the process ends; nothing is undone at exit.
class LogRegister {
 public:
  LogRegister(LogHandle& handle, const char* file, int line, Log::module_t module);
};

// One emitted statement, as a sink receives it.
struct LogRecord {
  std::string file;  // the source file's path as registered
  int line;
  LogMask::log_t level;
  std::string message;  // the statement's text, exactly as written into getEntry()
};

// Process-wide controls of the facility.
class LogFacility {
 public:
  // Replaces the sink, which receives every statement written from then on; an
  // empty function restores the default sink, which writes formatLine(record)
  // and a newline to standard error (std::cerr).
  static void setSink(std::function<void(const LogRecord&)> sink);
  // Sets the enabled levels, a union of LogMask::log_t bits, of every
  // registered file and of files registered later; 0 writes nothing. The
  // default is LogMask::error | LogMask::warning.
  static void setLevels(unsigned levels);
  // Off: every LogHandle::handle() returns null, so no statement is written or
  // even built; on again restores the levels as they were. On by default.
  static void setUp(bool on);

  // The name of a level as the default sink writes it ("error", "warning", ...).
  static const char* levelName(LogMask::log_t level);
  // The default line of a record: the current UTC time as 2026-01-31T12:00:00Z,
  // the level name, file:line and the message, separated by single spaces.
  static std::string formatLine(const LogRecord& record);
};

}  // namespace tavik

// True when a statement of this level on this handle would be written. The
// message pieces that follow are evaluated only then.
#define TAVIK_LOG(logHandle, level)                                                               \
  for (::tavik::LogMask* tavikLogMask = (logHandle).handle();                                     \
       tavikLogMask != nullptr && (tavikLogMask->levels & (level)) != 0u; tavikLogMask = nullptr) \
  ::tavik::Log(TAVIK_LOG_SOURCE_FILE, __LINE__, (level), tavikLogMask)

#define TAVIK_LOG_ERROR(logHandle) TAVIK_LOG(logHandle, ::tavik::LogMask::error)
#define TAVIK_LOG_WARNING(logHandle) TAVIK_LOG(logHandle, ::tavik::LogMask::warning)
#define TAVIK_LOG_INFO(logHandle) TAVIK_LOG(logHandle, ::tavik::LogMask::info)
#define TAVIK_LOG_DEBUG(logHandle) TAVIK_LOG(logHandle, ::tavik::LogMask::debug)
#define TAVIK_LOG_TRACE(logHandle) TAVIK_LOG(logHandle, ::tavik::LogMask::trace)

// A source file that logs defines TAVIK_LOG_SOURCE_FILE as the path under which
// it registers, so that its statements name the same file. The default is the
// compiler's view of the file.
#ifndef TAVIK_LOG_SOURCE_FILE
#define TAVIK_LOG_SOURCE_FILE __FILE__
#endif

#endif  // TAVIK_LOG_LOG_H_

#include "log/log.h"

#include <atomic>
#include <ctime>
#include <iostream>
#include <mutex>
#include <utility>
#include <vector>

namespace tavik {

namespace {

constexpr unsigned kDefaultLevels = LogMask::error | LogMask::warning;

// The facility's state. It is created on first use, possibly during static
// initialisation of another file, and deliberately never destroyed: handles of
// other files may still log while static objects are torn down at exit.
struct Facility {
  std::mutex mutex;
  std::vector<LogMask*> masks;  // one per registered file, owned here for good
  unsigned levels = kDefaultLevels;
  std::function<void(const LogRecord&)> sink;
};

Facility& facility() {
  static Facility* instance = new Facility;
  return *instance;
}

std::atomic<bool> loggingUp{true};

}  // namespace

Log::Log(const char* file, int line, LogMask::log_t level, LogMask* /*mask*/)
    : file_(file), line_(line), level_(level) {}

Log::~Log() {
  LogRecord record{file_ != nullptr ? file_ : "", line_, level_, entry_.str()};
  Facility& state = facility();
  std::lock_guard<std::mutex> lock(state.mutex);
  if (state.sink) {
    state.sink(record);
  } else {
    std::cerr << LogFacility::formatLine(record) << '\n';
  }
}

std::ostream& Log::getEntry() { return entry_; }

Log& Log::operator<<(const std::string& text) {
  entry_ << text;
  return *this;
}

Log& Log::operator<<(const boost::system::error_code& code) {
  entry_ << code.category().name() << ':' << code.value();
  return *this;
}

LogHandle::LogHandle(const char* /*name*/, int /*flags*/, Log::module_t /*module*/) {}

LogMask* LogHandle::handle() const {
  return loggingUp.load(std::memory_order_relaxed) ? mask_ : nullptr;
}

LogRegister::LogRegister(LogHandle& handle, const char* /*file*/, int /*line*/,
                         Log::module_t /*module*/) {
  Facility& state = facility();
  std::lock_guard<std::mutex> lock(state.mutex);
  auto* mask = new LogMask{state.levels};
  state.masks.push_back(mask);
  handle.mask_ = mask;
}

void LogFacility::setSink(std::function<void(const LogRecord&)> sink) {
  Facility& state = facility();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.sink = std::move(sink);
}

void LogFacility::setLevels(unsigned levels) {
  Facility& state = facility();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.levels = levels;
  for (LogMask* mask : state.masks) mask->levels = levels;
}

void LogFacility::setUp(bool on) { loggingUp.store(on, std::memory_order_relaxed); }

const char* LogFacility::levelName(LogMask::log_t level) {
  switch (level) {
    case LogMask::error:
      return "error";
    case LogMask::warning:
      return "warning";
    case LogMask::info:
      return "info";
    case LogMask::debug:
      return "debug";
    case LogMask::trace:
      return "trace";
  }
  return "unknown";
}

std::string LogFacility::formatLine(const LogRecord& record) {
  std::time_t now = std::time(nullptr);
  std::tm utc{};
  gmtime_r(&now, &utc);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%SZ", &utc);
  std::ostringstream line;
  line << stamp << ' ' << levelName(record.level) << ' ' << record.file << ':' << record.line << ' '
       << record.message;
  return line.str();
}

}  // namespace tavik

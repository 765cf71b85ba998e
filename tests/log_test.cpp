#define TAVIK_LOG_SOURCE_FILE "tests/log_test.cpp"

#include "log/log.h"

#include <gtest/gtest.h>

#include <boost/filesystem/path.hpp>
#include <boost/system/error_code.hpp>

#include "support/testsupport.h"

namespace tavik {
namespace {

LogHandle testLogHandle(nullptr, 0, 2);
LogRegister testLogRegister(testLogHandle, TAVIK_LOG_SOURCE_FILE, __LINE__, 8);

class LogFacilityTest : public test::LogCaptureTest {};

std::string countedPiece(int& evaluations) {
  ++evaluations;
  return "piece";
}

TEST_F(LogFacilityTest, RecordCarriesFileLineLevelAndExactText) {
  const int line = __LINE__ + 1;
  TAVIK_LOG_WARNING(testLogHandle) << "count " << 3 << " of " << std::string("ids");
  ASSERT_EQ(records_.size(), 1u);
  EXPECT_EQ(records_[0].file, "tests/log_test.cpp");
  EXPECT_EQ(records_[0].line, line);
  EXPECT_EQ(records_[0].level, LogMask::warning);
  EXPECT_EQ(records_[0].message, "count 3 of ids");
}

TEST_F(LogFacilityTest, DisabledLevelBuildsNoText) {
  LogFacility::setLevels(LogMask::error);
  int evaluations = 0;
  TAVIK_LOG_WARNING(testLogHandle) << countedPiece(evaluations);
  TAVIK_LOG_INFO(testLogHandle) << countedPiece(evaluations);
  TAVIK_LOG_DEBUG(testLogHandle) << countedPiece(evaluations);
  TAVIK_LOG_TRACE(testLogHandle) << countedPiece(evaluations);
  EXPECT_EQ(evaluations, 0);
  EXPECT_TRUE(records_.empty());
  TAVIK_LOG_ERROR(testLogHandle) << countedPiece(evaluations);
  EXPECT_EQ(evaluations, 1);
  EXPECT_EQ(statements(), std::vector<std::string>({"error: piece"}));
}

TEST_F(LogFacilityTest, LoggingSwitchedOffGivesNullHandle) {
  LogFacility::setUp(false);
  EXPECT_EQ(testLogHandle.handle(), nullptr);
  int evaluations = 0;
  TAVIK_LOG_ERROR(testLogHandle) << countedPiece(evaluations);
  EXPECT_EQ(evaluations, 0);
  EXPECT_TRUE(records_.empty());
  LogFacility::setUp(true);
  EXPECT_NE(testLogHandle.handle(), nullptr);
}

TEST_F(LogFacilityTest, UnregisteredHandleIsNull) {
  LogHandle unregistered(nullptr, 0, 2);
  EXPECT_EQ(unregistered.handle(), nullptr);
}

TEST_F(LogFacilityTest, ErrorCodesAndPathsHaveTheirForms) {
  TAVIK_LOG_ERROR(testLogHandle) << boost::system::error_code(2, boost::system::system_category())
                                 << " " << boost::system::error_code();
  TAVIK_LOG_ERROR(testLogHandle) << boost::filesystem::path("/s/a\"b&c.crt");
  EXPECT_EQ(messages(LogMask::error),
            std::vector<std::string>({"system:2 system:0", "\"/s/a&\"b&&c.crt\""}));
}

TEST_F(LogFacilityTest, DefaultSinkWritesOneLineToStandardError) {
  LogFacility::setSink(nullptr);
  testing::internal::CaptureStderr();
  TAVIK_LOG_ERROR(testLogHandle) << "broken";
  const std::string written = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(::testing::Matches(::testing::MatchesRegex(
      "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z error tests/log_test.cpp:[0-9]+ "
      "broken\n"))(written))
      << written;
}

}  // namespace
}  // namespace tavik

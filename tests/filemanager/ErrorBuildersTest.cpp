// The three error builders: what goes into a record and what is logged.
#include <gtest/gtest.h>

#include <cerrno>
#include <optional>
#include <string>

#include "platform/Value.h"
#include "shared/filemanager/CVErrors.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace testing_support;

long numberAt(const CVError& error, std::string_view key) {
  const CVNumber* number = error.userInfo().findNumber(key);
  return number ? static_cast<long>(number->int64Value()) : -1;
}

std::string stringAt(const CVError& error, std::string_view key) {
  const std::string* text = error.userInfo().findString(key);
  return text ? *text : std::string("<absent>");
}

TEST(CreateErrorTest, HoldsExactlyDescriptionFunctionAndLineAndLogsNothing) {
  CapturedLog log(platform::installerLog());
  const long line = __LINE__ + 1;
  const CVError error = CreateError("-[X y]", CVInstallerErrorDomain, 4, "made %d of %s", 7, "it");

  EXPECT_EQ(error.domain(), "CVInstallerErrorDomain");
  EXPECT_EQ(error.code(), 4);
  EXPECT_EQ(error.userInfo().count(), 3u);
  EXPECT_EQ(error.localizedDescription(), "made 7 of it");
  EXPECT_EQ(stringAt(error, "FunctionName"), "-[X y]");
  EXPECT_EQ(numberAt(error, "SourceFileLine"), line);
  EXPECT_EQ(log.count(), 0u) << log.dump();
}

TEST(CreateAndLogErrorTest, CallerFunctionNameAndDescriptionWinOverGivenUserInfo) {
  CapturedLog log(platform::installerLog());
  const CVURL url = CVURL::fileURLWithPath("/var/x", false);
  const CVDictionary given{{"FunctionName", "-[Other method]"},
                           {"SourceFileLine", 1},
                           {std::string(kLocalizedDescriptionKey), "old text"},
                           {"PathArgument", url}};

  const long line = __LINE__ + 1;
  const CVError error = CreateAndLogError("-[CVFileManager f]", kPOSIXErrorDomain, EIO, CVError(),
                                          &given, "new text for %@", url);

  EXPECT_TRUE(error.isPOSIX(EIO));
  EXPECT_EQ(stringAt(error, "FunctionName"), "-[CVFileManager f]");
  EXPECT_EQ(numberAt(error, "SourceFileLine"), line);
  EXPECT_EQ(error.localizedDescription(), "new text for file:///var/x");
  const CVValue* path = error.userInfo().find("PathArgument");
  ASSERT_NE(path, nullptr);
  EXPECT_EQ(*path, CVValue(url));
  EXPECT_TRUE(error.underlyingError().isNil());

  ASSERT_EQ(log.count(), 1u) << log.dump();
  const auto lines = log.lines();
  EXPECT_EQ(lines[0].level, 3);
  EXPECT_EQ(lines[0].function, "-[CVFileManager f]");
  EXPECT_EQ(lines[0].message, std::to_string(line) + ": new text for file:///var/x");
}

TEST(CreateAndLogErrorTest, StoresUnderlyingErrorAndNamesItInTheLogLine) {
  CapturedLog log(platform::installerLog());
  const CVError underlying = CreateError("inner", kPOSIXErrorDomain, ENOENT, "inner failed");

  const long line = __LINE__ + 1;
  const CVError error = CreateAndLogError("outer", "D", 24, underlying, nullptr, "outer failed");

  EXPECT_EQ(error.underlyingError(), underlying);
  EXPECT_EQ(error.localizedDescription(), "outer failed");
  EXPECT_EQ(error.userInfo().count(), 4u);  // description, underlying, function, line
  EXPECT_TRUE(
      log.contains(3, std::to_string(line) + ": outer failed (" + underlying.description() + ")"))
      << log.dump();
}

TEST(CreateAndLogErrorTest, WithoutFormatThereIsNeitherDescriptionNorLogLine) {
  CapturedLog log(platform::installerLog());
  const CVError underlying = CVError::posix(EACCES, "denied");
  const CVDictionary given{{"LegacyErrorString", 70}};

  const CVError error = CreateAndLogErrorV("fn", 42, CVInstallerErrorDomain, kCVErrorInvalidSymlink,
                                           underlying, &given, std::nullopt, {});

  EXPECT_EQ(error.code(), 70);
  EXPECT_FALSE(error.userInfo().contains(kLocalizedDescriptionKey));
  EXPECT_EQ(error.underlyingError(), underlying);
  EXPECT_EQ(stringAt(error, "FunctionName"), "fn");
  EXPECT_EQ(numberAt(error, "SourceFileLine"), 42);
  EXPECT_NE(error.userInfo().find("LegacyErrorString"), nullptr);
  EXPECT_EQ(log.count(), 0u) << log.dump();
}

}  // namespace

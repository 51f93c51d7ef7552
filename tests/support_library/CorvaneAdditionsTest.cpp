// Paths in the file system's byte representation, and ".." screening.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "shared/support/CorvaneAdditions.h"

namespace {

using CorvaneAdditions::containsDotDotPathComponents;
using CorvaneAdditions::stringWithFileSystemRepresentation;

std::optional<std::string> decode(std::string_view bytes) {
  // An exactly sized copy without terminator: reading past it is an
  // AddressSanitizer report.
  const auto buffer = std::make_unique<char[]>(bytes.size() + 1);
  std::memcpy(buffer.get(), bytes.data(), bytes.size());
  return stringWithFileSystemRepresentation(buffer.get(), bytes.size());
}

TEST(CorvaneAdditionsTest, OnlyWholeParentComponentsCountAsDotDot) {
  for (const char* path : {"a/../b", "../x", "..", "/..", "/a/b/..", "a/b/../", "a//..//b"})
    EXPECT_TRUE(containsDotDotPathComponents(path)) << path;
  for (const char* path :
       {"a/..b", "a/.../b", "a/./b", "", "/", "..a", "b..", "a/b.. /c", ". ./a", "a/.", "./."})
    EXPECT_FALSE(containsDotDotPathComponents(path)) << path;
}

TEST(FileSystemRepresentationTest, WellFormedTextDecodes) {
  for (const char* text : {"Documents/Inbox", "caf\xC3\xA9", "\xE6\x97\xA5\xE6\x9C\xAC",
                           "\xF0\x9F\x93\x81",  // U+1F4C1
                           "\xF4\x8F\xBF\xBF",  // U+10FFFF, the last one
                           "\xEF\xBF\xBD",      // U+FFFD
                           "\xED\x9F\xBF",      // U+D7FF, just below surrogates
                           ""})
    EXPECT_EQ(decode(text), text);
}

TEST(FileSystemRepresentationTest, IllFormedBytesAreRejected) {
  const char* const illFormed[] = {
      "\xC0\xAF",          // overlong "/"
      "\xC1\xBF",          // overlong lead
      "\xE0\x80\xAF",      // overlong "/" in three bytes
      "\xE0\x9F\xBF",      // overlong U+07FF
      "\xF0\x8F\xBF\xBF",  // overlong U+FFFF
      "\xED\xA0\x80",      // high surrogate
      "\xED\xBF\xBF",      // low surrogate
      "\xF4\x90\x80\x80",  // U+110000
      "\xF5\x80\x80\x80",  // lead beyond the range
      "\xFF",
      "\x80",  // stray continuation
      "a\xBF",
      "\xE6\x97",      // truncated at the end
      "\xE6\x41\x97",  // continuation replaced by ASCII
      "\xC3",
  };
  for (const char* bytes : illFormed) {
    SCOPED_TRACE(testing::PrintToString(std::string(bytes)));
    EXPECT_EQ(decode(bytes), std::nullopt);
    EXPECT_EQ(stringWithFileSystemRepresentation(bytes), std::nullopt);
  }
}

// Exactly the given length is decoded; the terminated form stops at the NUL.
TEST(FileSystemRepresentationTest, LengthAndTerminatorBoundTheText) {
  EXPECT_EQ(stringWithFileSystemRepresentation("Library/Caches", 7), "Library");
  // The cut lands inside "é": what is left is a truncated sequence.
  EXPECT_EQ(stringWithFileSystemRepresentation("caf\xC3\xA9", 4), std::nullopt);
  // Bytes beyond the length do not matter, even ill-formed ones.
  EXPECT_EQ(stringWithFileSystemRepresentation("ok\xFF", 2), "ok");
  EXPECT_EQ(decode(std::string_view("a\0b", 3)), std::nullopt);
  EXPECT_EQ(decode(std::string_view("\0", 1)), std::nullopt);
  EXPECT_EQ(stringWithFileSystemRepresentation("tmp/a"), "tmp/a");
  EXPECT_EQ(stringWithFileSystemRepresentation(""), "");
  EXPECT_EQ(stringWithFileSystemRepresentation(nullptr), std::nullopt);
  EXPECT_EQ(stringWithFileSystemRepresentation(nullptr, 0), "");
  EXPECT_EQ(stringWithFileSystemRepresentation(nullptr, 3), std::nullopt);
}

}  // namespace

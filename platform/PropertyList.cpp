#include "platform/PropertyList.h"

#include <plist/plist.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/FileIO.h"
#include "platform/FileIOPosix.h"
#include "platform/PropertyListBinary.h"
#include "platform/PropertyListGuard.h"
#include "platform/PropertyListNodes.h"
#include "platform/RecentResults.h"

namespace platform {
namespace {

constexpr std::string_view kBinaryMagic = "bplist00";

struct ParseOutcome {
  std::optional<CVValue> value;
  std::string reason;  // why there is no value
};

// Files up to this size have their parses kept in a small memo.
constexpr std::size_t kMaxRecentParseSize = 64 * 1024;

RecentResults<CVValue>& recentParses() {
  static RecentResults<CVValue>* const parses = new RecentResults<CVValue>(8);
  return *parses;
}

ParseOutcome parseBytes(std::span<const std::uint8_t> bytes, const PropertyListLimits& limits) {
  if (bytes.empty()) return {std::nullopt, "the data is empty"};
  const std::size_t maxSize = std::min(limits.maxFileSize, kMaxPropertyListFileSize);
  const std::uint64_t maxObjects = std::min(limits.maxObjects, kMaxPropertyListObjects);
  if (bytes.size() > maxSize)
    return {std::nullopt, "the data is larger than " + std::to_string(maxSize) + " bytes"};
  const bool binary = bytes.size() >= kBinaryMagic.size() &&
                      std::memcmp(bytes.data(), kBinaryMagic.data(), kBinaryMagic.size()) == 0;
  const char* const format = binary ? "binary" : "XML";
  // The guard runs first: it bounds nesting (libplist recurses per level) and
  // the number of objects, and checks a binary list's structure.
  const auto refusal =
      binary ? plist_guard::checkBinary(bytes, kMaxPropertyListDepth, maxObjects)
             // Elements: the <plist> wrapper and a scalar's own element add two.
             : plist_guard::checkXML(bytes, kMaxPropertyListDepth + 2, maxObjects + 1);
  if (refusal && refusal->starts_with("holds more than"))
    return {std::nullopt, "the property list " + *refusal};
  if (refusal)
    return {std::nullopt,
            "not a valid " + std::string(format) + " property list (" + *refusal + ")"};
  std::string reason;
  if (binary) {
    auto value = plist_binary::decode(bytes, reason);
    if (!value) return {std::nullopt, "the property list " + reason};
    return {std::move(value), {}};
  }
  plist_t root = nullptr;
  plist_from_xml(reinterpret_cast<const char*>(bytes.data()),
                 static_cast<std::uint32_t>(bytes.size()), &root);
  const plist_nodes::PlistNode owner(root);
  if (root == nullptr) return {std::nullopt, "not a valid XML property list"};
  auto value = plist_nodes::valueFromNode(root, kMaxPropertyListDepth, reason);
  if (!value) return {std::nullopt, "the property list " + reason};
  return {std::move(value), {}};
}

CVError platformError(long code, std::string description, const CVError& underlying = {}) {
  CVDictionary userInfo;
  userInfo.set(std::string(kLocalizedDescriptionKey), std::move(description));
  if (underlying) userInfo.set(std::string(kUnderlyingErrorKey), underlying);
  return CVError(std::string(kPlatformErrorDomain), code, std::move(userInfo));
}

std::string readFailureDescription(const CVURL& url, std::string_view reason) {
  return "The property list at " + (url.isNil() ? std::string("(null)") : url.path()) +
         " could not be read: " + std::string(reason);
}

// Why a file could not be read, from the POSIX error of readFileContents.
std::string fileReadReason(const CVError& posixError, std::size_t maxSize) {
  switch (posixError.code()) {
    case ENOENT:
      return "no such file";
    case ELOOP:
      return "it is a symbolic link";
    case EINVAL:
      return "not a regular file";
    case EFBIG:
      return "larger than " + std::to_string(maxSize) + " bytes";
    default:
      return errnoDescription(static_cast<int>(posixError.code()));
  }
}

std::string_view rootKindName(const CVValue& value) {
  return value.asNumber() && value.asNumber()->isBoolean() ? std::string_view("boolean")
                                                           : CVValue::kindName(value.kind());
}

}  // namespace

std::optional<CVValue> parsePropertyList(std::span<const std::uint8_t> bytes, CVError* error,
                                         const PropertyListLimits& limits) {
  ParseOutcome outcome = parseBytes(bytes, limits);
  if (!outcome.value) {
    CVSetError(error,
               platformError(kPlatformPropertyListReadCorruptError,
                             "The data could not be read as a property list: " + outcome.reason));
  }
  return std::move(outcome.value);
}

std::optional<CVValue> readPropertyList(const CVURL& url, CVError* error,
                                        const PropertyListLimits& limits) {
  CVError readError;
  const std::size_t maxSize = std::min(limits.maxFileSize, kMaxPropertyListFileSize);
  const auto bytes = readFileContents(url, maxSize, &readError);
  if (!bytes) {
    const long code = readError.code() == ENOENT ? kPlatformFileReadNoSuchFileError
                                                 : kPlatformFileReadUnknownError;
    CVSetError(error,
               platformError(code, readFailureDescription(url, fileReadReason(readError, maxSize)),
                             readError));
    return std::nullopt;
  }
  ParseOutcome outcome;
  if (bytes->size() <= kMaxRecentParseSize) {
    // The same small file is often read again by the next step (a bundle's
    // Info.plist by classification, placeholder and install): its bytes are
    // parsed once.
    std::vector<std::uint8_t> key(sizeof limits.maxFileSize + sizeof limits.maxObjects);
    std::memcpy(key.data(), &limits.maxFileSize, sizeof limits.maxFileSize);
    std::memcpy(key.data() + sizeof limits.maxFileSize, &limits.maxObjects,
                sizeof limits.maxObjects);
    key.insert(key.end(), bytes->begin(), bytes->end());
    outcome.value = recentParses().findOrMake(key, [&]() -> std::optional<CVValue> {
      ParseOutcome parsed = parseBytes(*bytes, limits);
      outcome.reason = std::move(parsed.reason);
      return std::move(parsed.value);
    });
  } else {
    outcome = parseBytes(*bytes, limits);
  }
  if (!outcome.value) {
    CVSetError(error, platformError(kPlatformPropertyListReadCorruptError,
                                    readFailureDescription(url, outcome.reason)));
  }
  return std::move(outcome.value);
}

std::optional<CVDictionary> readPropertyListDictionary(const CVURL& url, CVError* error,
                                                       const PropertyListLimits& limits) {
  std::optional<CVValue> value = readPropertyList(url, error, limits);
  if (!value) return std::nullopt;
  CVDictionary* dictionary = value->asDictionary();
  if (dictionary == nullptr) {
    CVSetError(error, platformError(kPlatformPropertyListReadCorruptError,
                                    readFailureDescription(
                                        url, "not a dictionary (the root is " +
                                                 std::string(rootKindName(*value)) + ")")));
    return std::nullopt;
  }
  return std::move(*dictionary);
}

std::string encodeXMLPropertyList(const CVValue& value) {
  const plist_nodes::PlistNode root = plist_nodes::nodeFromValue(value, kMaxPropertyListDepth);
  if (!root) return {};
  char* xml = nullptr;
  std::uint32_t length = 0;
  plist_to_xml(root.get(), &xml, &length);
  if (xml == nullptr) return {};
  std::string text(xml, length);
  plist_to_xml_free(xml);
  // libplist names a vendor's document type; the <plist> element alone is
  // what every reader reads.
  if (const std::size_t start = text.find("<!DOCTYPE"); start != std::string::npos) {
    const std::size_t end = text.find('\n', start);
    text.erase(start, end == std::string::npos ? std::string::npos : end + 1 - start);
  }
  return text;
}

std::vector<std::uint8_t> encodeBinaryPropertyList(const CVValue& value) {
  const plist_nodes::PlistNode root = plist_nodes::nodeFromValue(value, kMaxPropertyListDepth);
  if (!root) return {};
  char* binary = nullptr;
  std::uint32_t length = 0;
  plist_to_bin(root.get(), &binary, &length);
  if (binary == nullptr) return {};
  std::vector<std::uint8_t> bytes(binary, binary + length);
  plist_to_bin_free(binary);
  return bytes;
}

namespace {

// "The property list could not be written to PATH: REASON", over `underlying`.
void setWriteError(CVError* error, const CVURL& url, const std::string& reason,
                   const CVError& underlying = CVError()) {
  const std::string path = url.isNil() ? std::string("(null)") : url.path();
  CVSetError(error,
             platformError(kPlatformFileWriteUnknownError,
                           "The property list could not be written to " + path + ": " + reason,
                           underlying));
}

}  // namespace

std::optional<AtomicFileWrite> beginPropertyListWrite(const CVValue& value, const CVURL& url,
                                                      CVError* error) {
  const std::string xml = encodeXMLPropertyList(value);
  if (xml.empty()) {
    setWriteError(
        error, url,
        "it is nested more than " + std::to_string(kMaxPropertyListDepth) + " levels deep");
    return std::nullopt;
  }
  CVError writeError;
  const std::string_view whole(xml);
  std::optional<AtomicFileWrite> write =
      AtomicFileWrite::begin(url, std::span<const std::string_view>(&whole, 1), &writeError);
  if (!write) setWriteError(error, url, writeError.localizedDescription(), writeError);
  return write;
}

bool writePropertyListAtomically(const CVValue& value, const CVURL& url, CVError* error,
                                 WriteDurability durability) {
  std::optional<AtomicFileWrite> write = beginPropertyListWrite(value, url, error);
  if (!write) return false;
  if (CVError writeError; !write->finish(durability, &writeError)) {
    setWriteError(error, url, writeError.localizedDescription(), writeError);
    return false;
  }
  return true;
}

}  // namespace platform

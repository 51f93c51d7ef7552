#include "host/SafetyNetManifest.h"

#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/FileIO.h"
#include "platform/URL.h"

namespace mavrel_host {
namespace {

// A record's fields: the link's name, the container, the path inside it.
constexpr std::size_t kRecordFields = 3;

// Large enough for tens of millions of files; the manifest is read whole.
constexpr std::size_t kManifestMaxSize = std::size_t{4} << 30;

CVURL manifestURL(const std::string& runHostPath) {
  return CVURL::fileURLWithPath(runHostPath + "/" + std::string(kSafetyNetManifestFile), false);
}

// A link's name is a number; the paths are relative and never step out of
// their directory (the manifest is read from an image, which may be crafted).
bool isLinkName(std::string_view name) {
  return !name.empty() && name.size() <= 18 &&
         name.find_first_not_of("0123456789") == std::string_view::npos;
}

bool isRelativeBelow(std::string_view path) {
  if (path.empty()) return false;
  for (std::size_t start = 0;;) {
    const std::size_t slash = path.find('/', start);
    const std::string_view component = path.substr(start, slash - start);
    if (component.empty() || component == "." || component == "..") return false;
    if (slash == std::string_view::npos) return true;
    start = slash + 1;
  }
}

}  // namespace

std::string NetLinkRecord::legacyRelative() const {
  std::string relative(container);
  relative += '/';
  relative += inner;
  return relative;
}

void appendNetLinkRecord(std::string& manifest, std::string_view linkName,
                         std::string_view container, std::string_view inner) {
  const std::string_view fields[kRecordFields] = {linkName, container, inner};
  for (const std::string_view field : fields) {
    manifest += field;
    manifest += '\0';
  }
}

std::vector<NetLinkRecord> parseNetManifest(std::string_view manifest) {
  std::vector<NetLinkRecord> records;
  std::string_view fields[kRecordFields];
  std::size_t field = 0;
  std::size_t start = 0;
  for (std::size_t end = manifest.find('\0'); end != std::string_view::npos;
       start = end + 1, end = manifest.find('\0', start)) {
    fields[field++] = manifest.substr(start, end - start);
    if (field < kRecordFields) continue;
    field = 0;
    if (isLinkName(fields[0]) && isRelativeBelow(fields[1]) && isRelativeBelow(fields[2]))
      records.push_back(NetLinkRecord{fields[0], fields[1], fields[2]});
  }
  return records;
}

std::string readNetManifest(const std::string& runHostPath) {
  const auto bytes =
      platform::readFileContents(manifestURL(runHostPath), kManifestMaxSize, nullptr);
  if (!bytes) return std::string();
  std::size_t fields = 0;
  std::size_t whole = 0;  // the bytes of the whole records
  for (std::size_t at = 0; at < bytes->size(); ++at) {
    if ((*bytes)[at] == '\0' && ++fields % kRecordFields == 0) whole = at + 1;
  }
  return std::string(bytes->begin(), bytes->begin() + static_cast<std::ptrdiff_t>(whole));
}

bool writeNetManifest(const std::string& runHostPath, const std::vector<std::string>& parts,
                      CVError* error) {
  const std::vector<std::string_view> views(parts.begin(), parts.end());
  return platform::writeFileAtomically(manifestURL(runHostPath),
                                       std::span<const std::string_view>(views), error);
}

}  // namespace mavrel_host

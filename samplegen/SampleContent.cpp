#include "samplegen/SampleContent.h"

#include <algorithm>
#include <array>
#include <string>

#include "samplegen/SampleNames.h"

namespace samplegen {
namespace {

struct Format {
  std::string_view extension;
  std::string_view magic;  // empty: text
};
// Magic numbers make files look like what their names say to tools like file(1).
constexpr std::array<Format, 16> kFormats = {{
    {"txt", ""},
    {"json", ""},
    {"csv", ""},
    {"log", ""},
    {"md", ""},
    {"jpg", std::string_view("\xFF\xD8\xFF\xE0\x00\x10JFIF\x00", 11)},
    {"png", "\x89PNG\r\n\x1A\n"},
    {"pdf", "%PDF-1.4\n"},
    {"sqlite", std::string_view("SQLite format 3\x00", 16)},
    {"db", std::string_view("SQLite format 3\x00", 16)},
    {"m4a", std::string_view("\x00\x00\x00\x20"
                             "ftypM4A ",
                             12)},
    {"mov", std::string_view("\x00\x00\x00\x14"
                             "ftypqt  ",
                             12)},
    {"zip", "PK\x03\x04"},
    {"binarycookies", "cook"},
    {"car", "BOMStore"},
    {"dat", ""},
}};

std::string_view extensionOf(std::string_view relative) {
  const auto slash = relative.rfind('/');
  const std::string_view name =
      slash == std::string_view::npos ? relative : relative.substr(slash + 1);
  const auto dot = name.rfind('.');
  return dot == std::string_view::npos || dot == 0 ? std::string_view() : name.substr(dot + 1);
}

}  // namespace

bool writeBinaryFile(SampleFileWriter& writer, std::string_view relative, std::uint64_t size,
                     std::string_view magic, DeterministicRandom& random, mode_t mode) {
  DeterministicRandom fileRandom(random.next());
  std::uint64_t written = 0;
  return writer.writeGeneratedFile(
      relative, size,
      [&](std::span<std::uint8_t> chunk) {
        std::size_t offset = 0;
        while (written + offset < magic.size() && offset < chunk.size()) {
          chunk[offset] = static_cast<std::uint8_t>(magic[written + offset]);
          ++offset;
        }
        fileRandom.fill(chunk.subspan(offset));
        written += chunk.size();
      },
      mode);
}

bool writeDataFile(SampleFileWriter& writer, std::string_view relative, std::uint64_t size,
                   DeterministicRandom& random) {
  const std::string_view extension = extensionOf(relative);
  const auto format = std::find_if(kFormats.begin(), kFormats.end(),
                                   [&](const Format& f) { return f.extension == extension; });
  const bool text = format != kFormats.end() && format->magic.empty() && extension != "dat";
  if (!text) {
    return writeBinaryFile(writer, relative, size,
                           format == kFormats.end() ? std::string_view() : format->magic, random);
  }
  DeterministicRandom fileRandom(random.next());
  std::string line;
  return writer.writeGeneratedFile(relative, size, [&](std::span<std::uint8_t> chunk) {
    line.clear();
    appendFillerText(fileRandom, line, chunk.size());
    std::copy(line.begin(), line.end(), chunk.begin());
  });
}

}  // namespace samplegen

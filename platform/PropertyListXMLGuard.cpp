#include <string>
#include <string_view>
#include <vector>

#include "platform/PropertyListGuard.h"

namespace platform::plist_guard {
namespace {

bool isNameEnd(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '/' || c == '>';
}

// Position just past the '>' closing the tag that starts at `position`,
// skipping quoted attribute values; npos when the tag is not closed.
std::size_t endOfTag(std::string_view text, std::size_t position) {
  char quote = 0;
  for (std::size_t i = position; i < text.size(); ++i) {
    const char c = text[i];
    if (quote != 0) {
      if (c == quote) quote = 0;
    } else if (c == '"' || c == '\'') {
      quote = c;
    } else if (c == '>') {
      return i + 1;
    }
  }
  return std::string_view::npos;
}

// Position just past a declaration such as <!DOCTYPE ...>, whose internal
// subset in brackets may itself contain '>'.
std::size_t endOfDeclaration(std::string_view text, std::size_t position) {
  char quote = 0;
  int brackets = 0;
  for (std::size_t i = position; i < text.size(); ++i) {
    const char c = text[i];
    if (quote != 0) {
      if (c == quote) quote = 0;
    } else if (c == '"' || c == '\'') {
      quote = c;
    } else if (c == '[') {
      ++brackets;
    } else if (c == ']') {
      if (brackets > 0) --brackets;
    } else if (c == '>' && brackets == 0) {
      return i + 1;
    }
  }
  return std::string_view::npos;
}

std::size_t pastTerminator(std::string_view text, std::size_t from, std::string_view terminator) {
  const std::size_t found = text.find(terminator, from);
  return found == std::string_view::npos ? found : found + terminator.size();
}

}  // namespace

std::optional<std::string> checkXML(std::span<const std::uint8_t> bytes,
                                    std::size_t maxElementDepth, std::uint64_t maxElements) {
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  if (text.find('\0') != std::string_view::npos) return "contains NUL bytes (not UTF-8 XML)";

  std::vector<std::string_view> open;  // names of the elements enclosing the position
  std::uint64_t elements = 0;
  std::size_t position = 0;
  while ((position = text.find('<', position)) != std::string_view::npos) {
    const std::string_view rest = text.substr(position);
    std::size_t next = std::string_view::npos;
    if (rest.starts_with("<!--")) {
      next = pastTerminator(text, position + 4, "-->");
      if (next == std::string_view::npos) return "unterminated comment";
    } else if (rest.starts_with("<![CDATA[")) {
      next = pastTerminator(text, position + 9, "]]>");
      if (next == std::string_view::npos) return "unterminated CDATA section";
    } else if (rest.starts_with("<?")) {
      next = pastTerminator(text, position + 2, "?>");
      if (next == std::string_view::npos) return "unterminated processing instruction";
    } else if (rest.starts_with("<!")) {
      next = endOfDeclaration(text, position + 2);
      if (next == std::string_view::npos) return "unterminated declaration";
    } else {
      const bool isEnd = rest.starts_with("</");
      const std::size_t nameStart = position + (isEnd ? 2 : 1);
      std::size_t nameEnd = nameStart;
      while (nameEnd < text.size() && !isNameEnd(text[nameEnd]))
        ++nameEnd;
      const std::string_view name = text.substr(nameStart, nameEnd - nameStart);
      next = endOfTag(text, nameEnd);
      if (next == std::string_view::npos) return "unterminated tag";
      if (isEnd) {
        if (open.empty() || open.back() != name) return "mismatched end tag";
        open.pop_back();
      } else if (++elements > maxElements) {
        // Every element but the <plist> wrapper is an object.
        return "holds more than " + std::to_string(maxElements - 1) + " objects";
      } else if (text[next - 2] != '/') {
        if (open.size() == maxElementDepth) return "nested too deeply";
        open.push_back(name);
      }
    }
    position = next;
  }
  return std::nullopt;
}

}  // namespace platform::plist_guard

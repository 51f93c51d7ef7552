#include "platform/URL.h"

#include <unistd.h>

#include <cerrno>
#include <climits>

namespace {

std::string currentDirectory() {
  std::string buffer(PATH_MAX, '\0');
  if (::getcwd(buffer.data(), buffer.size()) == nullptr) return "/";
  buffer.resize(std::char_traits<char>::length(buffer.c_str()));
  return buffer;
}

std::string withoutTrailingSeparators(std::string path) {
  while (path.size() > 1 && path.back() == '/')
    path.pop_back();
  return path;
}

}  // namespace

CVURL CVURL::fileURLWithPath(std::string_view path, bool isDirectory) {
  if (path.empty()) return CVURL();
  std::string absolute;
  if (path.front() == '/') {
    absolute = std::string(path);
  } else {
    absolute = currentDirectory();
    if (absolute.back() != '/') absolute += '/';
    absolute += path;
  }
  return CVURL(withoutTrailingSeparators(std::move(absolute)), isDirectory);
}

std::string CVURL::absoluteString() const {
  std::string text = "file://" + path_;
  if (isDirectory_ && path_ != "/") text += '/';
  return text;
}

std::string CVURL::lastPathComponent() const {
  if (path_ == "/") return "/";
  const auto slash = path_.find_last_of('/');
  return slash == std::string::npos ? path_ : path_.substr(slash + 1);
}

std::string CVURL::pathExtension() const {
  const std::string last = lastPathComponent();
  const auto dot = last.find_last_of('.');
  if (dot == std::string::npos || dot == 0 || dot + 1 == last.size()) return "";
  return last.substr(dot + 1);
}

CVURL CVURL::URLByAppendingPathComponent(std::string_view component, bool isDirectory) const {
  if (isNil()) return CVURL();
  while (!component.empty() && component.front() == '/')
    component.remove_prefix(1);
  // One allocation: listings make a URL per entry.
  std::string path;
  path.reserve(path_.size() + 1 + component.size());
  path += path_;
  if (path.back() != '/') path += '/';
  path += component;
  return CVURL(withoutTrailingSeparators(std::move(path)), isDirectory);
}

CVURL CVURL::URLByAppendingPathExtension(std::string_view extension) const {
  if (isNil() || path_ == "/") return *this;
  return CVURL(path_ + "." + std::string(extension), isDirectory_);
}

CVURL CVURL::URLByDeletingLastPathComponent() const {
  if (isNil() || path_ == "/") return *this;
  const auto slash = path_.find_last_of('/');
  if (slash == 0 || slash == std::string::npos) return CVURL("/", true);
  return CVURL(path_.substr(0, slash), true);
}

std::vector<std::string> CVURL::pathComponents(std::string_view path) {
  std::vector<std::string> components;
  if (path.empty()) return components;
  std::size_t position = 0;
  if (path.front() == '/') {
    components.emplace_back("/");
    position = 1;
  }
  while (position < path.size()) {
    const auto slash = path.find('/', position);
    const auto end = slash == std::string_view::npos ? path.size() : slash;
    if (end > position) components.emplace_back(path.substr(position, end - position));
    position = end + 1;
  }
  return components;
}

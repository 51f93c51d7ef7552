// File URLs: an absolute path plus a mark that says whether the URL names a
// directory. The string form is "file://" + path, with a trailing "/" when the
// URL is marked as a directory. A default-constructed URL is nil: it has no
// path, and its description is "(null)".
#pragma once

#include <string>
#include <string_view>
#include <vector>

class CVURL {
 public:
  CVURL() = default;  // nil
  // A file URL of `path`. A relative path is taken relative to the current
  // directory. Trailing separators are dropped from the stored path; the
  // directory mark decides the string form.
  static CVURL fileURLWithPath(std::string_view path, bool isDirectory);

  bool isNil() const { return path_.empty(); }
  explicit operator bool() const { return !isNil(); }
  bool isDirectory() const { return isDirectory_; }

  // The file-system path, without trailing separator (except for "/").
  const std::string& path() const { return path_; }
  const char* fileSystemRepresentation() const { return path_.c_str(); }
  std::string absoluteString() const;
  std::string description() const { return isNil() ? "(null)" : absoluteString(); }

  std::string lastPathComponent() const;
  // The extension of the last path component, without the dot; "" if none.
  std::string pathExtension() const;
  CVURL URLByAppendingPathComponent(std::string_view component, bool isDirectory) const;
  CVURL URLByAppendingPathExtension(std::string_view extension) const;
  CVURL URLByDeletingLastPathComponent() const;

  // Components by the platform's rules: a leading "/" is a component of its own.
  static std::vector<std::string> pathComponents(std::string_view path);

  bool operator==(const CVURL& other) const {
    return path_ == other.path_ && isDirectory_ == other.isDirectory_;
  }

 private:
  CVURL(std::string path, bool isDirectory) : path_(std::move(path)), isDirectory_(isDirectory) {}
  std::string path_;
  bool isDirectory_ = false;
};

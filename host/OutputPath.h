// Where the host writes the files the user names outside the image (the JSON
// report, the JSON logs): checked before anything is written anywhere.
//
// "-", "/dev/stdout", "/dev/fd/1" and "/proc/self/fd/1" mean standard output:
// the document is written through it, whatever it leads to. Any other path
// must name an existing regular file or a new name in an existing directory;
// a symbolic link, a directory, a device, a named pipe or a socket is refused
// (never replaced and never followed).
//
// Error contract: checkOutputPath returns nullopt with a one-line reason that
// names the option and the path.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace mavrel_host {

struct OutputPath {
  bool standardOutput = false;
  std::string path;  // as given; for a file also usable as it is
};

std::optional<OutputPath> checkOutputPath(std::string_view option, const std::string& path,
                                          std::string* reason);

}  // namespace mavrel_host

// CVCreateSHA256Digest: the SHA-256 digest of a file's contents, as 64
// lowercase hexadecimal characters.
//
// The file is read sequentially in chunks of at most 64 KiB through one buffer,
// each byte once, up to the size the file had when it was opened: bytes
// appended meanwhile are not hashed, and a file that shrinks meanwhile fails.
//
// Error contract: nullopt on failure, with the reader's message under
// "_ReadFile" ("failed to open %s : %s", "failed to stat %s : %s", "malloc
// failed for %ld bytes: %s", "read failed for %s : %s" or "read failed for %s,
// got %lld bytes") followed by "Failed to read %@ : %s" under
// "CVCreateSHA256Digest", both at level 3 in the installer log. A path with an
// embedded NUL byte cannot name a file: it fails with EINVAL and only the
// second message. Should libcrypto fail to set up the computation, nullopt
// without a message. Callable from any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

std::optional<std::string> CVCreateSHA256Digest(std::string_view path);

// The same for a file already open for reading, read from where it stands
// (its start, when just opened); `name` stands for it in the messages. The
// descriptor stays open. Lets a caller reach a file relative to a directory
// descriptor, whatever the length of its path.
std::optional<std::string> CVCreateSHA256DigestOfOpenFile(int fd, std::string_view name);

// Whether an image's legacy tree and its new containers share one file system.
//
// The migration moves user data by renaming. Between two file systems a move
// becomes a copy followed by the removal of the source, and the file
// manager's cross-device move keeps a quirk that removes the source even when
// the copy failed. So an image whose legacy containers or legacy group
// containers lie on another file system than the places they go is refused
// before anything is written; `mavrel plan` shows the devices of each move.
//
// Error contract: false with a one-line reason naming both places.
#pragma once

#include <string>

namespace mavrel_host {

// `root` is the resolved device root, already the process's device root.
bool checkOneFileSystem(const std::string& root, std::string* reason);

}  // namespace mavrel_host

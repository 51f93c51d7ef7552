// The options of `mavrel recover` (RecoverCommand.h).
#pragma once

#include <optional>
#include <string>

namespace mavrel_host {

struct RecoverOptions {
  std::string root;
  std::optional<std::string> runId;        // one net only
  std::optional<std::string> destination;  // --to: copy the nets' files out
  bool move = false;                       // --move: remove each net once copied out
  bool purge = false;                      // --purge: remove the nets
};

}  // namespace mavrel_host

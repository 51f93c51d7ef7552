// `mavrel recover`: what the safety nets of earlier migrations hold
// (SafetyNet.h), and getting it out.
//
//   mavrel recover --root DIR [--run ID]            lists each net: its run, whether its run
//                                                   settled it, what it keeps and why, and
//                                                   every file with its legacy path
//   mavrel recover --root DIR [--run ID] --to OUT [--move]
//                                                   copies each net's files to
//                                                   OUT/<run id>/<legacy path> (OUT must be
//                                                   new or empty); --move then removes the net
//   mavrel recover --root DIR --purge [--run ID]    removes the nets of settled runs, or the
//                                                   one named (even an interrupted run's)
//
// Writes are confined (Confinement.h): nothing when listing, the root when
// purging, OUT (and the root with --move) when copying.
//
// Error contract: exit 0 when done (also when there is no net), 2 for a usage
// error, an unknown run, a destination that is not new or empty, or a copy
// or removal that failed; messages name the path at fault.
#pragma once

#include <cstdio>
#include <span>
#include <string>
#include <string_view>

#include "host/CommandLine.h"

namespace mavrel_host {

// Parses the words after "recover".
ParsedCommand parseRecover(std::span<const std::string_view> words);

std::string_view recoverUsageText();

int runRecover(const RecoverOptions& options, std::FILE* out, std::FILE* err);

// One line naming the nets of the image at `root` that still hold files, or
// "" when there are none (for `mavrel apps` and `mavrel plan`). Reads only.
std::string safetyNetNotice(const std::string& root);

}  // namespace mavrel_host

// Reads the trace of one migration and checks the order of its writes,
// flushes and renames:
//
//  - a file written aside (created by this run, then renamed into place) is
//    flushed (fsync or fdatasync) after its last write and before the rename;
//  - the directory it was renamed into is flushed after the rename, before
//    the run changes anything else;
//  - the migration marker of a legacy container is durable (flushed, renamed,
//    its directory flushed) before the first item leaves that container;
//  - nothing outside the device root is created, written, renamed or
//    removed (the run's own standard output and error excepted).
//
// Error contract: lintTrace never fails; every violation is one line that
// names the file and the rule.
#pragma once

#include <string>
#include <vector>

#include "tests/reliability/StraceTrace.h"

namespace reliability {

struct DurabilityFindings {
  std::vector<std::string> violations;
  std::size_t filesWrittenAside = 0;
  std::size_t filesInScratch = 0;  // written aside below a scratch directory
  std::size_t markersChecked = 0;
  std::size_t callsChecked = 0;
};

// The system calls the lint needs traced.
const std::vector<std::string>& durabilityTracedCalls();

// `root`: the device root; `allowedOutside`: paths outside it that the run
// may write (its standard output and error); `scratch`: directories whose
// files need not outlive a crash (staging removed by the call that fills
// it), exempt from the flush rules.
DurabilityFindings lintTrace(const Trace& trace, const std::string& root,
                             const std::vector<std::string>& allowedOutside,
                             const std::vector<std::string>& scratch = {});

}  // namespace reliability

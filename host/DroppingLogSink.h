// A log sink that drops every line, for work that reads what the pass reads
// (and so writes the pass's notices) without being the pass: the plan, and
// the verification's manifest.
#pragma once

#include "platform/Log.h"

namespace mavrel_host {

class DroppingLogSink final : public platform::LogSink {
 public:
  void write(const platform::LogLine&) override {}
};

}  // namespace mavrel_host

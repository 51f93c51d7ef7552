// `mavrel plan --root DIR [--json]`: prints what a migration of the device
// image would do (MigrationPlan.h, PlanFormat.h), writing nothing anywhere:
// not in the image (no registry lock, no companion files, no directories, no
// logs, no temporary directory) and not outside it.
//
// Exit codes: 0 when the plan was made, whatever it predicts; 2 when the
// root is unusable, the legacy directory cannot be listed or the registry
// cannot be read. The reason goes to `err`.
#pragma once

#include <cstdio>

#include "host/CommandLine.h"

namespace mavrel_host {

int runPlan(const PlanOptions& options, std::FILE* out, std::FILE* err);

}  // namespace mavrel_host

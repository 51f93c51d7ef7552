#include "host/PlanCommand.h"

#include <memory>
#include <string>

#include "host/Confinement.h"
#include "host/DroppingLogSink.h"
#include "host/MigrationHost.h"
#include "host/MigrationPlan.h"
#include "host/PlanFormat.h"
#include "host/RootDirectory.h"
#include "installer/EmbeddedInstallerService.h"
#include "platform/DeviceRoot.h"
#include "platform/Log.h"

namespace mavrel_host {

int runPlan(const PlanOptions& options, std::FILE* out, std::FILE* err) {
  std::string reason;
  const auto root = resolveRootDirectory(options.root, &reason);
  if (!root) {
    std::fprintf(err, "mavrel: option '--root': %s\nRun 'mavrel plan --help' for usage.\n",
                 reason.c_str());
    return kExitUsageOrSetUp;
  }
  if (!holdsDeviceImage(*root, &reason)) {
    std::fprintf(err,
                 "mavrel: option '--root': %s; there is nothing to plan ('mavrel migrate --force' "
                 "would make one there)\n",
                 reason.c_str());
    return kExitUsageOrSetUp;
  }
  // The plan writes nothing, and the kernel holds it to that.
  if (!confineWrites({}, err, &reason)) {
    std::fprintf(err, "mavrel: %s\n", reason.c_str());
    return kExitUsageOrSetUp;
  }
  platform::setProcessDeviceRoot(platform::DeviceRoot(*root));

  std::optional<MigrationPlan> plan;
  {
    // The classification writes the pass's notices; the plan says it in its own words.
    const auto drop = std::make_shared<DroppingLogSink>();
    const platform::ScopedLogSink migrationSink(platform::migrationLog(), drop, std::nullopt);
    const platform::ScopedLogSink installerSink(platform::installerLog(), drop, std::nullopt);
    plan = buildMigrationPlan(*root, &reason);
  }
  if (!plan) {
    std::fprintf(err, "mavrel: %s\n", reason.c_str());
    return kExitUsageOrSetUp;
  }
  PlanCircumstances circumstances;
  // Tested on a read-only descriptor: nothing is created.
  circumstances.migrationRunning =
      registryLockIsHeld(platform::DeviceRoot(*root).homeURL().path() + "/Library/Corvane/" +
                         std::string(mavrel_installer::kRegistryLockFileName));
  const std::string text =
      options.json ? formatPlanJSON(*plan, circumstances) : formatPlanText(*plan, circumstances);
  std::fwrite(text.data(), 1, text.size(), out);
  std::fflush(out);
  return kExitSucceeded;
}

}  // namespace mavrel_host

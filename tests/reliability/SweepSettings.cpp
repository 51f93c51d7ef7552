#include "tests/reliability/SweepSettings.h"

#include <cstdlib>
#include <sstream>

namespace reliability {
namespace {

bool readCount(const char* name, std::uint64_t& value, std::string& error) {
  const char* text = std::getenv(name);
  if (text == nullptr || *text == '\0') return false;
  char* end = nullptr;
  const unsigned long long parsed = std::strtoull(text, &end, 10);
  if (*end != '\0') {
    error += std::string(name) + " is not a count: " + text + "\n";
    return false;
  }
  value = parsed;
  return true;
}

}  // namespace

std::string SweepSettings::describe() const {
  std::ostringstream text;
  text << "mode "
       << (mode == SweepMode::CI        ? "ci"
           : mode == SweepMode::Sampled ? "sampled"
                                        : "exhaustive")
       << ", image of " << image.applications << " applications + " << image.vpnOnly
       << " VPN-only (seed " << image.seed << ", data scale " << image.dataScale << "), " << workers
       << " workers";
  return text.str();
}

SweepSettings sweepSettings() {
  SweepSettings settings;
  const char* mode = std::getenv("MAVREL_RELIABILITY_MODE");
  const std::string modeName = mode ? mode : "ci";
  if (modeName == "sampled") {
    settings.mode = SweepMode::Sampled;
    settings.image = ImageSettings{12, 1, 17, 0.2};
  } else if (modeName == "exhaustive") {
    settings.mode = SweepMode::Exhaustive;
  } else if (modeName != "ci") {
    settings.error += "MAVREL_RELIABILITY_MODE must be ci, sampled or exhaustive\n";
  }
  // The CI sample of fault trials; the longer modes run them all.
  settings.faultTrials = settings.mode == SweepMode::CI ? 120 : 0;
  settings.idempotenceEvery = settings.mode == SweepMode::CI ? 8 : 1;
  std::uint64_t value = 0;
  if (readCount("MAVREL_RELIABILITY_APPS", value, settings.error))
    settings.image.applications = value;
  if (readCount("MAVREL_RELIABILITY_VPN", value, settings.error)) settings.image.vpnOnly = value;
  if (readCount("MAVREL_RELIABILITY_SEED", value, settings.error)) settings.image.seed = value;
  if (readCount("MAVREL_RELIABILITY_POINTS", value, settings.error)) {
    settings.sampledKillPoints = value;
    settings.faultTrials = value;
  }
  if (readCount("MAVREL_RELIABILITY_RANDOM_KILLS", value, settings.error))
    settings.randomInstantKills = value;
  if (readCount("MAVREL_RELIABILITY_WORKERS", value, settings.error) && value > 0)
    settings.workers = value;
  return settings;
}

}  // namespace reliability

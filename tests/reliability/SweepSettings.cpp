#include "tests/reliability/SweepSettings.h"

#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "platform/linux/ExtendedAttributes.h"
#include "tests/support/TestSupport.h"

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

// Whether the sweeps can run in `parent`: a directory with room for the
// images and traces (a container's /dev/shm may be small) where a new
// directory takes a "user." attribute (the platform keeps protection classes
// and placeholder marks in them).
bool suitsTheSweeps(const std::string& parent) {
  constexpr std::uintmax_t kRoomNeeded = 512u << 20;
  std::error_code error;
  if (!std::filesystem::is_directory(parent, error)) return false;
  const std::filesystem::space_info space = std::filesystem::space(parent, error);
  if (error || space.available < kRoomNeeded) return false;
  testing_support::TemporaryDirectory probe(parent);
  return platform::sys::setAttribute(platform::sys::AttributeItem::link(probe.path().c_str()),
                                     "user.mavrel.probe", "1") == 0;
}

std::string defaultWorkspaceParent() {
  if (suitsTheSweeps("/dev/shm")) return "/dev/shm";
  const char* temporary = std::getenv("TMPDIR");
  return temporary && *temporary ? temporary : "/tmp";
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
       << " workers, workspaces in " << workspaceParent;
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
  settings.faultTrials = settings.mode == SweepMode::CI ? 240 : 0;
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
  const char* parent = std::getenv("MAVREL_RELIABILITY_DIR");
  settings.workspaceParent = parent && *parent ? parent : defaultWorkspaceParent();
  return settings;
}

}  // namespace reliability

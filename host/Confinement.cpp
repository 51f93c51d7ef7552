#include "host/Confinement.h"

#include <filesystem>

#include "host/OutputPath.h"
#include "platform/linux/Landlock.h"

namespace mavrel_host {

std::vector<std::string> writablePlacesForMigration(const std::string& root,
                                                    const MigrateOptions& options) {
  std::vector<std::string> places{root};
  // The JSON logs are open before the confinement begins, and a report
  // written through standard output needs no place either.
  std::string ignored;
  if (options.reportPath && !checkOutputPath("--report", *options.reportPath, &ignored)
                                 .value_or(OutputPath{})
                                 .standardOutput) {
    places.push_back(
        std::filesystem::absolute(*options.reportPath).parent_path().lexically_normal().string());
  }
  return places;
}

bool confineWrites(const std::vector<std::string>& writablePlaces, std::FILE* err,
                   std::string* reason) {
  CVError error;
  if (platform::sys::confineWritesBeneath(writablePlaces, &error)) return true;
  if (platform::sys::isConfinementUnavailable(error)) {
    std::fprintf(err,
                 "mavrel: warning: writes cannot be confined to the device image here (%s); "
                 "going on without confinement\n",
                 error.localizedDescription().c_str());
    return true;
  }
  *reason = "cannot confine writes to the device image: " + error.localizedDescription();
  return false;
}

}  // namespace mavrel_host

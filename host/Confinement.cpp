#include "host/Confinement.h"

#include "host/LogFile.h"
#include "platform/linux/Landlock.h"

namespace mavrel_host {

std::vector<std::string> writablePlacesForMigration(const std::string& root,
                                                    const MigrateOptions& options) {
  std::vector<std::string> places{root};
  for (const auto& log : {options.migrationLogJSON, options.installerLogJSON}) {
    // A rule needs the file to exist; opening it for appending makes it.
    std::string ignored;
    if (log && AppendOnlyFile::open(*log, &ignored)) places.push_back(*log);
  }
  // The report file is opened before confinement and written through that
  // descriptor: its directory needs no rule.
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

#include "host/Confinement.h"

#include "platform/linux/Landlock.h"

namespace mavrel_host {

std::vector<std::string> writablePlacesForMigration(const std::string& root,
                                                    const MigrateOptions& /*options*/) {
  // The JSON logs and the report file are open before the confinement
  // begins and written through their descriptors: nothing outside the root
  // needs a rule, not even the report's directory.
  return {root};
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

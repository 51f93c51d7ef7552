// Migration of one classified legacy container.
#include "AppMigrator/AppMigrator.h"

// Until the installer service can take bundles, no container is migrated.
bool CVAppMigrator::_migrateContainerWithInfo(const CVDictionary& info) {
  (void)info;
  return false;
}

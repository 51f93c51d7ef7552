// mavrel: runs the migrator plug-ins over a device image. See MigrationHost.h.
#include <exception>
#include <string_view>
#include <vector>

#include "host/MigrationHost.h"

int main(int argc, char** argv) {
  try {
    const std::vector<std::string_view> arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
    return mavrel_host::runHost(arguments, stdout, stderr);
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "mavrel: %s\n", exception.what());
    return mavrel_host::kExitUsageOrSetUp;
  }
}

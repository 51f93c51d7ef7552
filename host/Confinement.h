// Confines the host's writes to the device image before a pass, so that no
// path the image leads to (a symbolic link, a marker's hostile
// "ContainerPath") can make the migration write or remove anything outside
// it: a behaviour that would reach outside fails with a logged error instead.
//
// Writable: the device root only. The JSON log files and the report file the
// user named are opened before the confinement begins and written through
// their descriptors, so the confined process may write those files and
// nothing else outside the root. The plan gets no writable place at all.
//
// Error contract: true when confined, or when the kernel offers no usable
// Landlock (a warning goes to `err` and the run goes on unconfined); false
// with `*reason` when confinement was possible but failed.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "host/CommandLine.h"

namespace mavrel_host {

// The places a migration of `root` with `options` may write.
std::vector<std::string> writablePlacesForMigration(const std::string& root,
                                                    const MigrateOptions& options);

bool confineWrites(const std::vector<std::string>& writablePlaces, std::FILE* err,
                   std::string* reason);

}  // namespace mavrel_host

// The steps every kind of install shares: names in the staging root,
// preparing containers, and registering with the journal's finish steps.
#include <cerrno>

#include "installer/EmbeddedInstallerService.h"
#include "installer/FaultInjection.h"
#include "installer/RandomUUID.h"
#include "platform/FileIOPosix.h"
#include "platform/Log.h"
#include "shared/filemanager/CVFileManager.h"

namespace mavrel_installer {
namespace {

constexpr std::string_view kFunction = "EmbeddedInstallerService";

InstallFailure containerFailure(const std::string& what, CVError underlying) {
  return InstallFailure{InstallError::ContainerCreationFailed, what, std::move(underlying)};
}

}  // namespace

std::string EmbeddedInstallerService::relative(const std::string& absolutePath) const {
  // Every path the installer builds lies under the root.
  return layout_.relative(absolutePath).value_or(absolutePath);
}

ApplicationEntry EmbeddedInstallerService::entryForBundle(
    const InstallRequest& request, ApplicationKind kind, const BundleFacts& facts,
    const std::string& bundleContainer, const std::string& bundleName,
    const std::optional<ApplicationEntry>& existing) const {
  ApplicationEntry entry;
  entry.identifier = request.identifier;
  entry.kind = kind;
  entry.version = facts.version;
  entry.shortVersion = facts.shortVersion;
  entry.bundleContainer = relative(bundleContainer);
  entry.bundlePath = relative(bundleContainer + "/" + bundleName);
  if (existing) entry.dataContainer = existing->dataContainer;  // a new version keeps the data
  return entry;
}

std::optional<std::string> EmbeddedInstallerService::newStagingPath(InstallFailure* failure) {
  if (const auto uuid = makeRandomUUIDString()) return stagingRoot_ + "/" + *uuid;
  *failure = InstallFailure{InstallError::StagingFailed, "cannot name an item in " + stagingRoot_,
                            platform::posixCallError(errno, "getrandom", stagingRoot_)};
  return std::nullopt;
}

void EmbeddedInstallerService::discardStagingItems(const std::vector<std::string>& paths) {
  for (const std::string& path : paths) {
    CVError error;
    if (!CVFileManager::defaultManager().removeItemAtURL(CVURL::fileURLWithPath(path, false),
                                                         &error)) {
      platform::logInstaller(platform::kLogLevelError, kFunction,
                             "Could not remove %s (it goes at the next start): %@", path, error);
    }
  }
}

bool EmbeddedInstallerService::discardStagingDirectory(const std::string& origin) {
  InstallFailure failure;
  const auto staged = newStagingPath(&failure);
  CVError error = failure.underlying;
  if (!staged || !renameItem(origin, *staged, &error)) {
    platform::logInstaller(platform::kLogLevelError, kFunction, "Could not consume %s: %@", origin,
                           error);
    return false;
  }
  faultPoint("staging directory consumed");
  discardStagingItems({*staged});
  return true;
}

bool EmbeddedInstallerService::prepareContainers(Preparation& preparation,
                                                 const std::vector<std::string>& groups,
                                                 DataContainerShape shape,
                                                 InstallFailure* failure) {
  ApplicationEntry& entry = preparation.entry;
  CVError error;
  if (entry.dataContainer.empty()) {
    const auto target = layout_.newContainerPath(ContainerClass::Data);
    const auto prepared = newStagingPath(failure);
    if (!prepared) return false;
    const bool made = shape == DataContainerShape::Bare
                          ? makeOwnedDirectory(*prepared, kContainerMode, owner_, &error)
                          : makeDataContainer(*prepared, owner_, &error);
    if (!target || !made) {
      preparation.prepared.push_back(*prepared);  // whatever of it was made
      *failure = containerFailure("cannot make a data container for " + entry.identifier, error);
      return false;
    }
    preparation.prepared.push_back(*prepared);
    faultPoint("data container prepared");
    preparation.steps.push_back(
        {JournalStep::Action::Rename, relative(*prepared), relative(*target)});
    entry.dataContainer = relative(*target);
  }

  entry.groups.clear();
  for (const std::string& group : groups) {
    std::optional<std::string> container;
    if (!store_->findGroupContainer(group, container, &error)) {
      *failure =
          InstallFailure{InstallError::RegistryFailure, "cannot look up group " + group, error};
      return false;
    }
    if (!container) {
      const auto target = layout_.newContainerPath(ContainerClass::Group);
      const auto prepared = newStagingPath(failure);
      if (!prepared) return false;
      if (!target || !makeOwnedDirectory(*prepared, kContainerMode, owner_, &error)) {
        *failure = containerFailure("cannot make the group container of " + group, error);
        return false;
      }
      preparation.prepared.push_back(*prepared);
      faultPoint("group container prepared");
      preparation.steps.push_back(
          {JournalStep::Action::Rename, relative(*prepared), relative(*target)});
      container = relative(*target);
    }
    entry.groups.push_back(GroupMembership{group, *container});
  }
  return true;
}

bool EmbeddedInstallerService::completePlaceholderDataContainers(
    const std::set<std::string, std::less<>>* only) {
  std::vector<ApplicationEntry> entries;
  if (only != nullptr) {
    for (const std::string& identifier : *only) {
      std::optional<ApplicationEntry> entry;
      CVError error;
      if (!store_->findApplication(identifier, entry, &error)) {
        platform::logInstaller(platform::kLogLevelError, kFunction,
                               "Could not look up %@ to complete its data container: %@",
                               identifier, error);
        return false;
      }
      if (entry) entries.push_back(std::move(*entry));
    }
  } else if (CVError error; !store_->listApplications(entries, &error)) {
    platform::logInstaller(platform::kLogLevelError, kFunction,
                           "Could not list the placeholders to complete their data containers: %@",
                           error);
    return false;
  }
  bool completed = true;
  for (const ApplicationEntry& entry : entries) {
    if (entry.kind != ApplicationKind::Placeholder || entry.dataContainer.empty()) continue;
    const std::string container = layout_.absolute(entry.dataContainer);
    CVError error;
    if (!completeDataContainer(container, owner_, &error)) {
      platform::logInstaller(platform::kLogLevelError, kFunction,
                             "Could not complete the data container %s of %@: %@", container,
                             entry.identifier, error);
      completed = false;
    }
  }
  return completed;
}

bool EmbeddedInstallerService::beginWrite(WriteTransaction& transaction, CVError* error) {
  return transaction.begin(error) &&
         (doneJournal_.empty() || store_->removeJournal(doneJournal_, error));
}

bool EmbeddedInstallerService::commitWrite(WriteTransaction& transaction, CVError* error) {
  if (!transaction.commit(error)) return false;
  doneJournal_.clear();
  changed_ = true;
  return true;
}

bool EmbeddedInstallerService::registerAndFinish(Preparation& preparation,
                                                 InstallFailure* failure) {
  return commitAndFinish(
      preparation, [&](CVError* error) { return store_->putApplication(preparation.entry, error); },
      failure);
}

bool EmbeddedInstallerService::commitAndFinish(Preparation& preparation,
                                               const RegistryWrite& record,
                                               InstallFailure* failure) {
  CVError error;
  std::optional<std::int64_t> id;
  {
    WriteTransaction transaction(store_->database());
    const bool written =
        beginWrite(transaction, &error) && record(&error) &&
        (id = store_->addJournal(preparation.entry.identifier, preparation.steps, &error))
            .has_value();
    faultPoint("registration about to commit");
    if (!written || !commitWrite(transaction, &error)) {
      *failure = InstallFailure{InstallError::RegistryFailure,
                                "cannot register " + preparation.entry.identifier, error};
      return false;
    }
  }
  faultPoint("registration committed");
  bool cleanupLeft = false;
  if (!performCommittedSteps(layout_, preparation.steps, &error, &cleanupLeft)) {
    // The entry stays in the journal: the next opening puts everything in place.
    *failure =
        InstallFailure{InstallError::InstallFinishFailed, preparation.entry.identifier, error};
    return false;
  }
  // Leftovers that could not be removed keep the entry for the next opening;
  // the install itself is complete.
  if (!cleanupLeft) doneJournal_.push_back(*id);
  return true;
}

}  // namespace mavrel_installer

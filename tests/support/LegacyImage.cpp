#include "tests/support/LegacyImage.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <sstream>

#include "platform/linux/ExtendedAttributes.h"
#include "shared/support/CVFileDigest.h"

namespace testing_support {

std::map<std::string, std::string> describeTree(const std::string& directory,
                                                const TreeDescription& how) {
  std::map<std::string, std::string> items;
  const auto describe = [&](const std::filesystem::path& path) {
    const std::string key = !how.relativeKeys   ? path.string()
                            : path == directory ? std::string()
                                                : path.lexically_relative(directory).string();
    if (how.skipped && how.skipped(key)) return;
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) return;
    std::ostringstream text;
    // A directory's size is the file system's business (it changes as entries
    // come and go, bookkeeping left out included).
    text << std::oct << status.st_mode << std::dec;
    if (S_ISREG(status.st_mode)) {
      text << " " << status.st_size << " "
           << CVCreateSHA256Digest(path.string()).value_or("unreadable");
    }
    std::error_code ignored;
    if (S_ISLNK(status.st_mode)) text << " -> " << std::filesystem::read_symlink(path, ignored);
    if (how.times) text << " " << status.st_mtim.tv_sec << "." << status.st_mtim.tv_nsec;
    if (how.ownersAndAttributes) {
      text << " " << status.st_uid << ":" << status.st_gid;
      std::vector<std::string> names;
      const auto item = platform::sys::AttributeItem::link(path.c_str());
      if (platform::sys::listAttributes(item, names) == 0) {
        for (const std::string& name : names) {
          std::vector<char> value;
          platform::sys::getAttribute(item, name.c_str(), value);
          text << " [" << name << "=" << std::string(value.begin(), value.end()) << "]";
        }
      }
    }
    items[key] = text.str();
  };
  describe(directory);
  std::error_code error;
  for (std::filesystem::recursive_directory_iterator it(directory, error), end; !error && it != end;
       it.increment(error))
    describe(it->path());
  return items;
}

LegacyImage::LegacyImage() : outsidePath_(std::filesystem::canonical(outside_.path()).string()) {
  writePlist(rootPath() + "/System/Library/CoreServices/SystemBuild.plist",
             CVDictionary{{"SystemBuildVersion", "23A344"},
                          {"SystemName", "Corvane OS"},
                          {"SystemVersion", "17.0"}});
  makeDirectories(outside("json"));
  makeDirectories(outside("scratch"));
  writeApplication(canary() + "/Container/Victim.app", "com.example.victim");
  writeFile(canary() + "/Container/Documents/diary.txt", "outside the image");
  writeFile(canary() + "/Group/shared.txt", "shared outside the image");
  writeFile(canary() + "/Documents/notes.txt", "notes outside the image");
  canaryBefore_ = describeTree(canary());
}

LegacyImage::~LegacyImage() {
  EXPECT_EQ(describeTree(canary()), canaryBefore_) << "something outside the image changed";
}

std::string LegacyImage::outside(std::string_view relative) const {
  return relative.empty() ? outsidePath_ : outsidePath_ + "/" + std::string(relative);
}

void LegacyImage::writeApplication(const std::string& path, std::string_view identifier,
                                   const std::vector<std::string>& groups, bool executable) const {
  CVDictionary info{{"QXBundleIdentifier", std::string(identifier)},
                    {"QXBundleExecutable", "App"},
                    {"QXBundleVersion", "1.0"}};
  writeBundle(path, info);
  if (executable) writeFile(path + "/App", "#!/bin/sh\n", 0755);
  if (groups.empty()) return;
  CVArray array;
  for (const std::string& group : groups)
    array.append(group);
  writePlist(path + "/Entitlements.plist", CVDictionary{{"application-groups", std::move(array)}});
}

ProgramRun LegacyImage::mavrel(const std::vector<std::string>& arguments) const {
  // A run that never ends (blocked on a FIFO, walking a cycle) is ended and
  // fails the test instead of hanging the suite.
  ChildOptions options;
  options.outPath = outside("scratch/stdout.txt");
  options.errPath = outside("scratch/stderr.txt");
  options.timeout = std::chrono::minutes(10);
  ProgramRun run = runChild(MAVREL_BINARY_DIR "/bin/mavrel", arguments, options);
  EXPECT_TRUE(run.started && !run.timedOut) << run.describe() << " " << run.err;
  return run;
}

ProgramRun LegacyImage::migrate(const std::vector<std::string>& extraArguments) const {
  std::vector<std::string> arguments{"migrate",
                                     "--root",
                                     rootPath(),
                                     "--log-json",
                                     outside("json/migration.json"),
                                     "--installer-log-json",
                                     outside("json/installer.json")};
  arguments.insert(arguments.end(), extraArguments.begin(), extraArguments.end());
  return mavrel(arguments);
}

bool LegacyImage::logged(std::string_view fragment) const {
  return migrationLog().find(fragment) != std::string::npos;
}

}  // namespace testing_support

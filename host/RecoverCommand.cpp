#include "host/RecoverCommand.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <vector>

#include "host/Confinement.h"
#include "host/DataUsage.h"
#include "host/MigrationHost.h"
#include "host/RootDirectory.h"
#include "host/SafetyNet.h"
#include "host/SafetyNetManifest.h"
#include "host/SafetyNetStore.h"
#include "platform/DeviceRoot.h"
#include "platform/linux/DirectoryStream.h"
#include "platform/linux/TreeCopy.h"
#include "platform/linux/TreeWipe.h"
#include "shared/configuration/CVGlobalConfiguration.h"

namespace mavrel_host {
namespace {

using platform::sys::UniqueFd;

ParsedCommand failure(std::string message) {
  ParsedCommand command;
  command.kind = ParsedCommand::Kind::Error;
  command.error = std::move(message);
  return command;
}

int fail(std::FILE* err, const std::string& message) {
  std::fprintf(err, "mavrel: %s\n", message.c_str());
  return kExitUsageOrSetUp;
}

void print(std::FILE* out, const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), out);
}

std::string joinHost(const std::string& root, std::string_view relative) {
  return root == "/" ? "/" + std::string(relative) : root + "/" + std::string(relative);
}

// The nets of the image, opened; nullopt when there is no net directory.
struct ImageNets {
  std::string basePath;
  std::string baseRelative;
  UniqueFd rootFd;
  UniqueFd base;
  std::vector<StoredNet> nets;
};

std::optional<ImageNets> openImageNets(const std::string& root, bool withContents) {
  ImageNets image;
  image.baseRelative = safetyNetBaseRelative(root, CVGlobalConfiguration::sharedInstance());
  image.basePath = joinHost(root, image.baseRelative);
  image.rootFd = platform::sys::openDirectory(root.c_str(), platform::sys::FinalLink::NotFollowed);
  if (!image.rootFd) return std::nullopt;
  image.base = openBeneath(image.rootFd.get(), image.baseRelative);
  if (!image.base) return std::nullopt;
  image.nets = listStoredNets(image.base.get(), image.basePath, withContents);
  return image;
}

std::string describeNet(const StoredNet& net, const std::string& basePath,
                        const std::string& root) {
  std::string text = "Safety net " + net.runId + " (" +
                     (net.complete ? "kept by its run" : "of an interrupted run, not settled") +
                     ") in " + basePath + "/" + net.runId + ": " +
                     std::to_string(net.files.size()) + " file(s), " + formatBytes(net.bytes) +
                     "\n";
  for (const StoredEntry& entry : net.entries) {
    text += "  " + joinHost(root, entry.devicePath.substr(entry.devicePath.empty() ? 0 : 1)) +
            ": " + std::to_string(entry.files) + " file(s), " + formatBytes(entry.bytes) + "; " +
            entry.reason + "\n";
  }
  for (const StoredFile& file : net.files)
    text += "    /" + file.relative + " (" + formatBytes(file.size) + ")\n";
  return text;
}

bool isEmptyOrMissingDirectory(const std::string& path, std::string* reason) {
  std::error_code error;
  const auto status = std::filesystem::symlink_status(path, error);
  if (!std::filesystem::exists(status)) return true;
  if (!std::filesystem::is_directory(status)) {
    *reason = "option '--to': '" + path + "' is not a directory";
    return false;
  }
  if (!std::filesystem::is_empty(path, error) || error) {
    *reason = "option '--to': '" + path + "' is not empty; give a new or empty directory";
    return false;
  }
  return true;
}

// Copies every top-level item of a settled net's directory but its own
// files; of an interrupted run's net, each file to its legacy path.
bool copyNet(const ImageNets& image, const StoredNet& net, const std::string& destination,
             std::string* reason) {
  const std::string source = image.basePath + "/" + net.runId;
  const std::string target = destination + "/" + net.runId;
  std::error_code error;
  std::filesystem::create_directories(target, error);
  if (error) {
    *reason = "cannot make '" + target + "': " + error.message();
    return false;
  }
  const auto copy = [&](const std::string& from, const std::string& to) {
    if (platform::sys::copyTree((source + "/" + from).c_str(), (target + "/" + to).c_str()) == 0)
      return true;
    *reason = "cannot copy '" + source + "/" + from + "' to '" + target + "/" + to +
              "': " + std::strerror(errno);
    return false;
  };
  if (!net.complete) {
    for (const StoredFile& file : net.files) {
      std::filesystem::create_directories(
          std::filesystem::path(target + "/" + file.relative).parent_path(), error);
      if (!copy(file.inNet, file.relative)) return false;
    }
    return true;
  }
  const UniqueFd run = platform::sys::openDirectoryAt(image.base.get(), net.runId.c_str());
  if (!run) {
    *reason = "cannot open '" + source + "': " + std::strerror(errno);
    return false;
  }
  auto stream =
      platform::sys::DirectoryStream::adopt(platform::sys::openDirectoryAt(run.get(), "."));
  platform::sys::DirectoryEntry entry;
  bool atEnd = false;
  std::vector<std::string> names;
  while (stream.valid() && stream.next(entry, atEnd) == 0 && !atEnd) {
    if (entry.name != kSafetyNetStateFile && entry.name != kSafetyNetManifestFile)
      names.emplace_back(entry.name);
  }
  for (const std::string& name : names) {
    if (!copy(name, name)) return false;
  }
  return true;
}

bool removeNet(const ImageNets& image, const StoredNet& net, std::string* reason) {
  const std::string path = image.basePath + "/" + net.runId;
  if (platform::sys::treeWipe(path.c_str(), nullptr, platform::sys::kTreeWipeRecursive) != 0) {
    *reason = "cannot remove '" + path + "': " + std::strerror(errno);
    return false;
  }
  return true;
}

}  // namespace

ParsedCommand parseRecover(std::span<const std::string_view> words) {
  ParsedCommand command;
  command.kind = ParsedCommand::Kind::Recover;
  RecoverOptions& options = command.recover;
  bool haveRoot = false;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::string_view word = words[i];
    if (word == "--help" || word == "-h") {
      ParsedCommand help;
      help.kind = ParsedCommand::Kind::RecoverHelp;
      return help;
    }
    if (word == "--purge" || word == "--move") {
      bool& flag = word == "--purge" ? options.purge : options.move;
      if (flag) return failure("option '" + std::string(word) + "' given more than once");
      flag = true;
      continue;
    }
    std::string_view name = word;
    std::optional<std::string_view> value;
    if (const auto equals = word.find('='); word.starts_with("--") && equals != word.npos) {
      name = word.substr(0, equals);
      value = word.substr(equals + 1);
    }
    if (name != "--root" && name != "--run" && name != "--to") {
      if (word.starts_with("-")) return failure("unknown option '" + std::string(name) + "'");
      return failure("unexpected argument '" + std::string(word) + "'");
    }
    if (!value) {
      if (i + 1 >= words.size()) return failure("option '" + std::string(name) + "' needs a value");
      value = words[++i];
    }
    if (value->empty())
      return failure("option '" + std::string(name) + "' needs a non-empty value");
    std::optional<std::string>* slot = name == "--run"  ? &options.runId
                                       : name == "--to" ? &options.destination
                                                        : nullptr;
    if (slot == nullptr) {
      if (haveRoot) return failure("option '--root' given more than once");
      haveRoot = true;
      options.root = std::string(*value);
    } else {
      if (*slot) return failure("option '" + std::string(name) + "' given more than once");
      *slot = std::string(*value);
    }
  }
  if (!haveRoot) return failure("option '--root' is required: the device image to recover from");
  if (options.runId && (options.runId->find('/') != std::string::npos || *options.runId == "." ||
                        *options.runId == ".."))
    return failure("option '--run' needs a run id as 'mavrel recover' lists it");
  if (options.purge && options.destination)
    return failure("options '--purge' and '--to' cannot be used together");
  if (options.move && !options.destination) return failure("option '--move' needs '--to DIR'");
  return command;
}

std::string_view recoverUsageText() {
  return "usage: mavrel recover --root DIR [--run ID] [--to OUT [--move]]\n"
         "       mavrel recover --root DIR --purge [--run ID]\n"
         "\n"
         "Every 'mavrel migrate' keeps a hard link of each user-data file until its pass is\n"
         "over; what the migration discarded stays in a safety net in the image\n"
         "(<home>/Library/Mavrel/SafetyNet/<run id>/, under its legacy path). This command\n"
         "lists what the nets hold, copies it out for a person to put back, or removes them.\n"
         "\n"
         "Options:\n"
         "  --root DIR   the device image's root directory (required)\n"
         "  --run ID     only the net of this run\n"
         "  --to OUT     copy each net's files to OUT/<run id>/<legacy path>; OUT must be\n"
         "               new or empty\n"
         "  --move       with --to: remove each net once its files are copied out\n"
         "  --purge      remove the nets of settled runs (with --run, the one named, even\n"
         "               the net of an interrupted run)\n"
         "  --help       show this text\n"
         "\n"
         "Exit status: 0 when done (also when there is no net), 2 for a usage error or a\n"
         "copy or removal that failed.\n";
}

int runRecover(const RecoverOptions& options, std::FILE* out, std::FILE* err) {
  std::string reason;
  const auto root = resolveRootDirectory(options.root, &reason);
  if (!root) {
    std::fprintf(err, "mavrel: option '--root': %s\nRun 'mavrel recover --help' for usage.\n",
                 reason.c_str());
    return kExitUsageOrSetUp;
  }
  std::vector<std::string> writable;
  std::string destination;
  if (options.destination) {
    if (!isEmptyOrMissingDirectory(*options.destination, &reason)) return fail(err, reason);
    std::error_code error;
    std::filesystem::create_directories(*options.destination, error);
    if (error) return fail(err, "cannot make '" + *options.destination + "': " + error.message());
    destination = std::filesystem::canonical(*options.destination, error).string();
    if (error)
      return fail(err, "cannot resolve '" + *options.destination + "': " + error.message());
    writable.push_back(destination);
  }
  if (options.purge || options.move) writable.push_back(*root);
  if (!confineWrites(writable, err, &reason)) return fail(err, reason);
  platform::setProcessDeviceRoot(platform::DeviceRoot(*root));

  auto image = openImageNets(*root, /*withContents=*/!options.purge);
  if (image && options.runId) {
    std::erase_if(image->nets, [&](const StoredNet& net) { return net.runId != *options.runId; });
    if (image->nets.empty())
      return fail(err,
                  "option '--run': no safety net '" + *options.runId + "' in " + image->basePath);
  } else if (!image && options.runId) {
    return fail(err, "option '--run': the image at " + *root + " has no safety net");
  }
  if (!image || image->nets.empty()) {
    print(out, "No safety net in the image at " + *root + ".\n");
    return kExitSucceeded;
  }

  if (options.purge) {
    std::size_t removed = 0;
    for (const StoredNet& net : image->nets) {
      // An interrupted run's net is still the only copy of what that run may
      // have discarded; it goes only when named.
      if (!net.complete && !options.runId) {
        print(out, "Kept the net of the interrupted run " + net.runId +
                       " (the next migration takes it over; name it with --run to remove it).\n");
        continue;
      }
      if (!removeNet(*image, net, &reason)) return fail(err, reason);
      print(out, "Removed the safety net " + image->basePath + "/" + net.runId + "\n");
      ++removed;
    }
    removeEmptyNetBase(image->rootFd.get(), image->baseRelative);
    print(out, "Removed " + std::to_string(removed) + " safety net(s).\n");
    return kExitSucceeded;
  }

  for (const StoredNet& net : image->nets)
    print(out, describeNet(net, image->basePath, *root));
  if (!options.destination) return kExitSucceeded;

  for (const StoredNet& net : image->nets) {
    if (!copyNet(*image, net, destination, &reason)) return fail(err, reason);
    print(out, "Copied " + std::to_string(net.files.size()) + " file(s) of " + net.runId + " to " +
                   destination + "/" + net.runId + "\n");
    if (options.move) {
      if (!removeNet(*image, net, &reason)) return fail(err, reason);
      print(out, "Removed the safety net " + image->basePath + "/" + net.runId + "\n");
    }
  }
  if (options.move) removeEmptyNetBase(image->rootFd.get(), image->baseRelative);
  return kExitSucceeded;
}

std::string safetyNetNotice(const std::string& root) {
  const auto image = openImageNets(root, /*withContents=*/true);
  if (!image) return "";
  std::size_t files = 0;
  std::uint64_t bytes = 0;
  std::size_t holding = 0;
  for (const StoredNet& net : image->nets) {
    if (net.files.empty()) continue;
    ++holding;
    files += net.files.size();
    bytes += net.bytes;
  }
  if (holding == 0) return "";
  return "Safety net: " + std::to_string(holding) + " net(s) in " + image->basePath + " hold " +
         std::to_string(files) + " user-data file(s) (" + formatBytes(bytes) +
         ") an earlier migration discarded; see 'mavrel recover --root " + root + "'.\n";
}

}  // namespace mavrel_host

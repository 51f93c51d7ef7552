#include "host/RunObserver.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "host/CommandLine.h"
#include "host/EntryOutcomeNames.h"
#include "host/Interruption.h"
#include "platform/JSONWriter.h"

namespace mavrel_host {

void ProgressStream::emit(std::string line) {
  if (!fd_) return;
  if (!line.ends_with('\n')) line += '\n';
  std::string_view rest = line;
  while (!rest.empty()) {
    const ssize_t written = ::write(*fd_, rest.data(), rest.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    rest.remove_prefix(static_cast<std::size_t>(written));
  }
}

void ProgressStream::start(const std::string& root) {
  platform::JSONWriter json;
  json.beginObject()
      .member("event", "start")
      .member("tool", "mavrel")
      .member("toolVersion", toolVersion())
      .member("schemaVersion", kProgressSchemaVersion)
      .member("root", root)
      .endObject();
  emit(json.text());
}

void ProgressStream::passBegan(const std::string& migrator, std::optional<std::uint64_t> entries) {
  total_ = entries;
  done_ = 0;
  platform::JSONWriter json;
  json.beginObject().member("event", "pass").member("migrator", migrator).key("entries");
  if (entries) {
    json.value(*entries);
  } else {
    json.null();
  }
  emit(json.endObject().text());
}

void ProgressStream::entryBegan(std::string_view path, std::string_view identifier) {
  platform::JSONWriter json;
  json.beginObject().member("event", "entry-began").member("path", path);
  json.member("identifier", identifier);
  emit(json.endObject().text());
}

void ProgressStream::entryStep(std::string_view path, MavrelEntryStep step) {
  platform::JSONWriter json;
  json.beginObject()
      .member("event", "entry-step")
      .member("path", path)
      .member("step", stepName(step));
  emit(json.endObject().text());
}

void ProgressStream::entryFinished(std::string_view path, const MavrelEntryResult& result) {
  ++done_;
  platform::JSONWriter json;
  json.beginObject()
      .member("event", "entry")
      .member("path", path)
      .member("outcome", outcomeName(result.outcome));
  json.key("failedStep");
  if (result.outcome == MavrelEntryOutcome::Failed) {
    json.value(stepName(result.failedStep));
  } else {
    json.null();
  }
  json.member("container", containerFateName(result.containerRemoved)).member("done", done_);
  json.key("total");
  if (total_) {
    json.value(*total_);
  } else {
    json.null();
  }
  emit(json.endObject().text());
}

void ProgressStream::passEnded(const std::string& migrator, bool succeeded) {
  platform::JSONWriter json;
  json.beginObject()
      .member("event", "pass-end")
      .member("migrator", migrator)
      .member("succeeded", succeeded);
  emit(json.endObject().text());
}

void ProgressStream::end(int exitCode, const std::optional<std::string>& interrupted,
                         const std::string& error) {
  platform::JSONWriter json;
  json.beginObject()
      .member("event", "end")
      .member("exitCode", static_cast<std::uint64_t>(exitCode))
      .member("succeeded", exitCode == 0);
  json.key("interrupted");
  if (interrupted) {
    json.value(*interrupted);
  } else {
    json.null();
  }
  json.key("error").stringOrNull(error);
  emit(json.endObject().text());
}

void RunObserver::migrationEntryBegan(std::string_view entryPath, std::string_view identifier) {
  if (interruption_ != nullptr) interruption_->atSafePoint();
  next_.migrationEntryBegan(entryPath, identifier);
  if (progress_ != nullptr) progress_->entryBegan(entryPath, identifier);
}

void RunObserver::migrationEntryStep(std::string_view entryPath, MavrelEntryStep step) {
  next_.migrationEntryStep(entryPath, step);
  if (progress_ != nullptr) progress_->entryStep(entryPath, step);
}

void RunObserver::migrationEntryFinished(std::string_view entryPath,
                                         const MavrelEntryResult& result) {
  next_.migrationEntryFinished(entryPath, result);
  if (progress_ != nullptr) progress_->entryFinished(entryPath, result);
  if (interruption_ != nullptr) interruption_->atSafePoint();
}

bool isWritableDescriptor(int fd) {
  const int flags = ::fcntl(fd, F_GETFL);
  if (flags < 0) return false;
  const int access = flags & O_ACCMODE;
  return access == O_WRONLY || access == O_RDWR;
}

}  // namespace mavrel_host

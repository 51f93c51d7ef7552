#include "installer/DeferredRemoval.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <string_view>
#include <system_error>
#include <utility>

#include "platform/Log.h"
#include "shared/filemanager/CVFileManager.h"

namespace mavrel_installer {
namespace {

constexpr std::string_view kFunction = "removeDiscardedItems";

void removeNow(const std::string& path) {
  CVError error;
  if (!CVFileManager::defaultManager().removeItemAtURL(CVURL::fileURLWithPath(path, false),
                                                       &error)) {
    platform::logInstaller(platform::kLogLevelError, kFunction,
                           "Could not remove the discarded %s (the next opening does): %@", path,
                           error);
  }
}

}  // namespace

DeferredRemoval::DeferredRemoval(std::string directory) : directory_(std::move(directory)) {}

DeferredRemoval::~DeferredRemoval() {
  finish();
}

bool DeferredRemoval::discard(const std::string& path) {
  if (!directoryMade_) {
    if (::mkdir(directory_.c_str(), 0700) != 0 && errno != EEXIST) return false;
    directoryMade_ = true;
  }
  const std::string target = directory_ + "/" + std::to_string(discarded_++);
  if (std::rename(path.c_str(), target.c_str()) != 0) return false;

  std::unique_lock lock(mutex_);
  if (!stopping_ && !remover_.joinable()) {
    try {
      remover_ = std::thread([this] { removeQueued(); });
    } catch (const std::system_error&) {
      stopping_ = true;  // no thread to be had: every later item is removed here
    }
  }
  if (stopping_) {
    lock.unlock();
    removeNow(target);
    return true;
  }
  queue_.push_back(target);
  wake_.notify_one();
  return true;
}

void DeferredRemoval::removeQueued() {
  std::unique_lock lock(mutex_);
  for (;;) {
    wake_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
    if (queue_.empty()) return;
    const std::string path = std::move(queue_.front());
    queue_.pop_front();
    lock.unlock();
    removeNow(path);
    lock.lock();
  }
}

void DeferredRemoval::finish() {
  {
    std::lock_guard lock(mutex_);
    if (finished_) return;
    finished_ = stopping_ = true;
  }
  wake_.notify_one();
  if (remover_.joinable()) remover_.join();
  if (directoryMade_) removeNow(directory_);
}

}  // namespace mavrel_installer

#include "platform/DispatchQueue.h"

#include <utility>

#include "platform/ThreadName.h"

namespace platform {

DispatchQueue::DispatchQueue(std::string label)
    : label_(std::move(label)), worker_([this] { run(); }) {}

DispatchQueue::~DispatchQueue() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wakeUp_.notify_one();
  worker_.join();
}

void DispatchQueue::async(std::function<void()> task) {
  {
    std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
  }
  wakeUp_.notify_one();
}

void DispatchQueue::run() {
  setCurrentThreadName(label_);
  std::unique_lock lock(mutex_);
  for (;;) {
    wakeUp_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
    if (tasks_.empty()) return;  // stopping, and drained
    std::function<void()> task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();
    if (task) task();
    task = nullptr;  // the task's captures go away before the next one starts
    lock.lock();
  }
}

}  // namespace platform

// DispatchQueue: a serial queue of tasks run, in submission order, on one
// worker thread of its own.
//
// Submission is asynchronous and thread-safe: async() returns at once, from
// any thread, including from a task running on the queue itself. The queue
// keeps each task alive until it has run and destroys it right after, on the
// worker thread.
//
// Destroying the queue drains it: every task submitted before (and by tasks
// running during) destruction runs, then the worker is joined. A queue must not
// be destroyed from one of its own tasks.
//
// Error contract: nothing here fails. A task that throws ends the process
// (std::terminate), as an exception leaving any thread does.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace platform {

class DispatchQueue {
 public:
  // `label` also names the worker thread (cut to the platform's limit).
  explicit DispatchQueue(std::string label);
  ~DispatchQueue();
  DispatchQueue(const DispatchQueue&) = delete;
  DispatchQueue& operator=(const DispatchQueue&) = delete;

  const std::string& label() const { return label_; }

  // Queues `task` behind every task already submitted.
  void async(std::function<void()> task);

 private:
  void run();

  const std::string label_;
  std::mutex mutex_;
  std::condition_variable wakeUp_;
  std::deque<std::function<void()>> tasks_;
  bool stopping_ = false;
  std::thread worker_;  // last: started once the members above exist
};

}  // namespace platform

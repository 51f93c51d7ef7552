#include "host/Interruption.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>

namespace mavrel_host {
namespace {

// State the signal handler may touch: lock-free atomics and a pipe.
std::atomic<int> gSignal{0};
std::atomic<int> gSignalCount{0};
std::atomic<int> gWakeWrite{-1};
static_assert(std::atomic<int>::is_always_lock_free);

// The byte the destructor writes to end the watcher.
constexpr char kQuit = 0;

struct sigaction gPreviousInterrupt {};
struct sigaction gPreviousTerminate {};

extern "C" void recordSignal(int signal) {
  const int savedErrno = errno;
  int none = 0;
  gSignal.compare_exchange_strong(none, signal);
  gSignalCount.fetch_add(1);
  const char byte = static_cast<char>(signal);
  if (const int fd = gWakeWrite.load(); fd >= 0) {
    [[maybe_unused]] const ssize_t written = ::write(fd, &byte, 1);
  }
  errno = savedErrno;
}

// Waits up to `timeout` (forever when negative) for a byte from the pipe.
// Returns the byte, or -1 when the time ran out.
int waitForByte(int fd, int timeoutMilliseconds) {
  for (;;) {
    pollfd wake{fd, POLLIN, 0};
    const int ready = ::poll(&wake, 1, timeoutMilliseconds);
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return -1;
    char byte = 0;
    const ssize_t got = ::read(fd, &byte, 1);
    if (got < 0 && errno == EINTR) continue;
    return got == 1 ? static_cast<unsigned char>(byte) : kQuit;
  }
}

}  // namespace

std::string signalName(int signal) {
  if (signal == SIGINT) return "SIGINT";
  if (signal == SIGTERM) return "SIGTERM";
  return "signal " + std::to_string(signal);
}

InterruptionWatch::InterruptionWatch(std::FILE* notices, std::chrono::seconds grace, Stopper stop)
    : notices_(notices), grace_(grace), stop_(std::move(stop)) {
  int ends[2] = {-1, -1};
  if (::pipe2(ends, O_CLOEXEC) != 0)
    throw std::runtime_error(std::string("pipe2: ") + std::strerror(errno));
  wakeRead_ = UniqueFd(ends[0]);
  gWakeWrite.store(ends[1]);
  gSignal.store(0);
  gSignalCount.store(0);

  // The watcher must not take the signals itself: the migrating thread
  // should, so that a stop asked for is seen at its next safe point.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigset_t previousMask;
  ::pthread_sigmask(SIG_BLOCK, &signals, &previousMask);
  watcher_ = std::thread([this] { watch(); });
  ::pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);

  struct sigaction action {};
  action.sa_handler = recordSignal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  ::sigaction(SIGINT, &action, &gPreviousInterrupt);
  ::sigaction(SIGTERM, &action, &gPreviousTerminate);
}

InterruptionWatch::~InterruptionWatch() {
  ::sigaction(SIGINT, &gPreviousInterrupt, nullptr);
  ::sigaction(SIGTERM, &gPreviousTerminate, nullptr);
  const int writeEnd = gWakeWrite.exchange(-1);
  const char quit = kQuit;
  [[maybe_unused]] const ssize_t written = ::write(writeEnd, &quit, 1);
  watcher_.join();
  ::close(writeEnd);
}

void InterruptionWatch::atSafePoint() {
  const int signal = gSignal.load();
  if (signal != 0 && claimEnd()) stop_(signal, true);
}

bool InterruptionWatch::claimEnd() {
  return !ended_.exchange(true);
}

void InterruptionWatch::watch() {
  if (waitForByte(wakeRead_.get(), -1) == kQuit) return;
  const int signal = gSignal.load();
  std::fprintf(notices_,
               "\nmavrel: %s received: stopping after the entry under way (again to stop at "
               "once)\n",
               signalName(signal).c_str());
  std::fflush(notices_);
  const auto graceMilliseconds = static_cast<int>(grace_.count() * 1000);
  // A second signal, or no safe point in time: stop now.
  if (waitForByte(wakeRead_.get(), graceMilliseconds) == kQuit) return;
  if (claimEnd()) stop_(signal, false);
}

}  // namespace mavrel_host

#include "platform/ThreadName.h"

#include <pthread.h>

#include <array>

namespace platform {
namespace {

// The kernel's limit, terminating NUL included.
constexpr std::size_t kThreadNameCapacity = 16;

// Whether the program named the current thread. The kernel's name of a
// thread nobody named is the program's or the creating thread's, not its own.
thread_local bool threadWasNamed = false;

bool isUTF8Continuation(char byte) {
  return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

}  // namespace

bool setCurrentThreadName(std::string_view name) {
  std::string_view kept = name.substr(0, name.find('\0'));
  if (kept.size() >= kThreadNameCapacity) {
    std::size_t cut = kThreadNameCapacity - 1;
    // Never leave half a character behind.
    while (cut > 0 && isUTF8Continuation(kept[cut]))
      --cut;
    kept = kept.substr(0, cut);
  }
  const std::string terminated(kept);
  if (::pthread_setname_np(::pthread_self(), terminated.c_str()) != 0) return false;
  threadWasNamed = !terminated.empty();
  return true;
}

std::string currentThreadName() {
  if (!threadWasNamed) return {};
  std::array<char, kThreadNameCapacity> buffer{};
  if (::pthread_getname_np(::pthread_self(), buffer.data(), buffer.size()) != 0) return {};
  return std::string(buffer.data());
}

}  // namespace platform

#include "platform/ExceptionRecord.h"

#include <cxxabi.h>
#include <execinfo.h>

#include <array>
#include <cstdlib>
#include <exception>
#include <memory>
#include <typeinfo>

namespace platform {
namespace {

constexpr int kMaximumFrames = 128;

struct FreeDeleter {
  void operator()(void* pointer) const { std::free(pointer); }
};

std::string demangled(const char* mangled) {
  int status = 0;
  const std::unique_ptr<char, FreeDeleter> readable(
      abi::__cxa_demangle(mangled, nullptr, nullptr, &status));
  return status == 0 && readable ? std::string(readable.get()) : std::string(mangled);
}

}  // namespace

std::vector<std::string> currentCallStackSymbols() {
  std::array<void*, kMaximumFrames> frames{};
  const int count = ::backtrace(frames.data(), kMaximumFrames);
  std::vector<std::string> symbols;
  if (count <= 1) return symbols;
  const std::unique_ptr<char*, FreeDeleter> names(::backtrace_symbols(frames.data(), count));
  if (!names) return symbols;
  symbols.reserve(static_cast<std::size_t>(count - 1));
  for (int i = 1; i < count; ++i)
    symbols.emplace_back(names.get()[i]);
  return symbols;
}

ExceptionRecord ExceptionRecord::fromCurrentException() {
  ExceptionRecord record;
  record.callStackSymbols = currentCallStackSymbols();
  const std::exception_ptr current = std::current_exception();
  if (!current) return record;
  if (const std::type_info* type = abi::__cxa_current_exception_type())
    record.name = demangled(type->name());
  try {
    std::rethrow_exception(current);
  } catch (const std::exception& exception) {
    record.reason = exception.what();
  } catch (...) {
    // Not a std::exception: there is no text to report.
  }
  return record;
}

}  // namespace platform

// Test seam of the protection-class attribute calls. Only tests include this
// header.
#pragma once

namespace platform::sys {

// While set to a non-zero error number, every read and write of the
// protection-class attribute fails with that number before reaching the file
// system (EOPNOTSUPP acts as a file system without user extended
// attributes). 0 restores the real calls. Returns the previous number.
int setProtectionClassFaultForTesting(int errorNumber);

// Sets the fault for the lifetime of the object.
class ScopedProtectionClassFault {
 public:
  explicit ScopedProtectionClassFault(int errorNumber)
      : previous_(setProtectionClassFaultForTesting(errorNumber)) {}
  ~ScopedProtectionClassFault() { setProtectionClassFaultForTesting(previous_); }
  ScopedProtectionClassFault(const ScopedProtectionClassFault&) = delete;
  ScopedProtectionClassFault& operator=(const ScopedProtectionClassFault&) = delete;

 private:
  int previous_;
};

}  // namespace platform::sys

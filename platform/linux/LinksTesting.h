// Test seam of platform::sys::renamePath. Only tests include this header.
#pragma once

namespace platform::sys {

// While set to a non-zero error number, every renamePath fails with that
// number and renames nothing (EXDEV makes a cross-device move on one file
// system). 0 restores the real call. Returns the previous number.
int setRenameFaultForTesting(int errorNumber);

// Sets the rename fault for the lifetime of the object.
class ScopedRenameFault {
 public:
  explicit ScopedRenameFault(int errorNumber) : previous_(setRenameFaultForTesting(errorNumber)) {}
  ~ScopedRenameFault() { setRenameFaultForTesting(previous_); }
  ScopedRenameFault(const ScopedRenameFault&) = delete;
  ScopedRenameFault& operator=(const ScopedRenameFault&) = delete;

 private:
  int previous_;
};

}  // namespace platform::sys

// The activity lock held by a test fixture from SetUp to TearDown, as the
// agent's thread holds it.
//
// Kiln::ActivityLockGuard's destructor may throw (a failed release), so a
// fixture holding one directly, or in a std::optional, gets a destructor
// that may throw, which may not override testing::Test's non-throwing one
// (clang refuses the fixture). This holder's destructor does not throw: the
// fixture releases the lock in TearDown with release(), where a failure is
// reported as a test failure; a guard still held at destruction is released
// there and a failure then ends the program.
#pragma once

#include <memory>

#include "Kiln/Lock.h"

namespace NextHopTest {

class HeldActivityLock {
 public:
  void take() { guard_ = std::make_unique<Kiln::ActivityLockGuard>(); }
  // A failed release throws out of here (unique_ptr::reset would end the
  // program instead).
  void release() { delete guard_.release(); }

 private:
  std::unique_ptr<Kiln::ActivityLockGuard> guard_;
};

}  // namespace NextHopTest

// generated from tuning.kiln by kilngen; do not edit
//
// entity Tuning : Kiln::PtrInterface
//   nonotify
//   attr delay : double = 5.0 settable
//   attr fixedAt : U16
//   counter runs : U32
//   counter retries : U16 settable
//   attr mode : bool custom settable
#pragma once

#include <string>

#include "Kiln/Support.h"

namespace Golden {

class Tuning : public Kiln::PtrInterface, public Kiln::Allocated<Tuning> {
 public:
  // Counted per type by the runtime's allocator.
  using Kiln::Allocated<Tuning>::operator new;
  using Kiln::Allocated<Tuning>::operator delete;

  // Indexes of the type record's attributes and operations.
  static constexpr U32 kilnAttributeStart = Kiln::PtrInterface::kilnAttributeStart + 128;  // 130
  static constexpr U32 kilnDelayIndex = kilnAttributeStart + 0;  // 130
  static constexpr U32 kilnFixedAtIndex = kilnAttributeStart + 1;  // 131
  static constexpr U32 kilnRunsIndex = kilnAttributeStart + 2;  // 132
  static constexpr U32 kilnRetriesIndex = kilnAttributeStart + 3;  // 133
  static constexpr U32 kilnModeIndex = kilnAttributeStart + 4;  // 134

  Tuning();
  Tuning(const Tuning&) = delete;
  Tuning& operator=(const Tuning&) = delete;
  ~Tuning() override;

  // delay (double, default 5.0): delay() returns it; delayIs(v) stores v.
  double delay() const { return delay_; }
  void delayIs(double delay) { delay_ = delay; }

  // fixedAt (U16): fixedAt() returns it; fixedAtIs(v) stores v.
  U16 fixedAt() const { return fixedAt_; }
  void fixedAtIs(U16 fixedAt) { fixedAt_ = fixedAt; }

  // runs (U32): runs() returns it; runsIs(v) stores v.
  U32 runs() const { return runs_; }
  void runsIs(U32 runs) { runs_ = runs; }
  // Adds n (wrapping) and returns the sum.
  U32 runsInc(U32 n) {
    const U32 sum = static_cast<U32>(runs_ + n);
    if (sum == runs_) return sum;
    runs_ = sum;
    return sum;
  }

  // retries (U16): retries() returns it; retriesIs(v) stores v.
  U16 retries() const { return retries_; }
  void retriesIs(U16 retries) { retries_ = retries; }
  // Adds n (wrapping) and returns the sum.
  U16 retriesInc(U16 n) {
    const U16 sum = static_cast<U16>(retries_ + n);
    if (sum == retries_) return sum;
    retries_ = sum;
    return sum;
  }

  // mode (bool): mode() returns it; modeIs(v) stores v.
  bool mode() const { return mode_; }
  void modeIs(bool mode);  // hand-written

  // The registered record of Golden::Tuning.
  static const Kiln::TypeRecord& kilnType();
  const Kiln::TypeRecord& fwkType() const override { return kilnType(); }

 private:
  double delay_ = 5.0;
  U16 fixedAt_{};
  U32 runs_{};
  U16 retries_{};
  bool mode_{};
};

}  // namespace Golden

#pragma once
// Ages drawn from one process-wide, monotonically increasing clock.

#include <cstdint>

namespace Ostrak {

/// A point of the process-wide clock. Larger is younger.
using Age = uint64_t;

/// An object with an age. A new object takes the clock's current time;
/// `touch` advances the clock and takes the new time.
class Ageable {
 public:
  Ageable() noexcept;
  Ageable(const Ageable&) noexcept = default;
  Ageable& operator=(const Ageable&) noexcept = default;
  virtual ~Ageable();

  Age getAge() const noexcept { return age_; }
  /// Marks the object as changed now.
  void touch() noexcept;
  /// Takes `other`'s age when it is younger; an age never moves backward.
  void updateAge(const Ageable& other) noexcept;
  bool isYoungerThan(const Ageable& other) const noexcept { return age_ > other.age_; }
  bool isOlderThan(const Ageable& other) const noexcept { return age_ < other.age_; }

  /// The clock's current time.
  static Age getGlobalTime() noexcept;
  /// Advances the clock by one and returns the new time.
  static Age advanceGlobalTime() noexcept;

 private:
  Age age_;
};

}  // namespace Ostrak

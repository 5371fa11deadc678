#pragma once
// The one error type inside the format, and how the entry points turn it
// into an outcome: a failed call or an inconsistency found in a file is
// thrown as a Failure carrying its reason and caught where the format is
// entered.

#include <charconv>
#include <concepts>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "formats/hdf5/Options.hpp"

namespace Quaril::H5::detail {

/// A failed HDF5 or system call, or an inconsistency found in a file. Never leaves the
/// format: the entry points turn it into an error text.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Runs `action`; returns nothing when it succeeds, otherwise what it threw
/// as an error text (the format's own failures as they are).
template <class Action>
std::optional<std::string> failureOf(Action&& action) {
  try {
    action();
    return std::nullopt;
  } catch (const Failure& failure) {
    return failure.what();
  } catch (const std::bad_alloc&) {
    return "out of memory";
  } catch (const std::exception& error) {
    return std::string("stopped by an exception: ") + error.what();
  } catch (...) {
    return "stopped by an exception";
  }
}

/// Runs `action`, turning whatever it throws into the outcome's error.
template <class Action>
Outcome attempt(Action&& action) {
  std::optional<std::string> error = failureOf(std::forward<Action>(action));
  return {!error, error.value_or("")};
}

/// Throws a Failure with `text` when `condition` is false.
inline void require(bool condition, std::string_view text) {
  if (!condition) throw Failure(std::string(text));
}

/// Throws a Failure with the text that `text()` makes when `condition` is
/// false: for checks made for every array or slice read, where making the
/// text would cost more than checking.
template <std::invocable Text>
void require(bool condition, Text&& text) {
  if (!condition) throw Failure(std::string(text()));
}

/// A time as error texts print it: the shortest text that reads back to the
/// same double.
inline std::string timeText(double time) {
  char text[32];
  const auto written = std::to_chars(text, text + sizeof(text), time);
  return std::string(text, written.ptr);
}

}  // namespace Quaril::H5::detail

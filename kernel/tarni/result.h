// Result<T>: a value, an error, or (for the few operations that define one) a value together with
// its error. Result<void> is success or an error.
#pragma once

#include <new>
#include <type_traits>
#include <utility>

#include "tarni/error.h"

namespace tarni {

struct OkType {
  explicit constexpr OkType() = default;
};
// Success of a Result<void>.
inline constexpr OkType OK{};

template <typename T>
class [[nodiscard]] Result {
  static_assert(!std::is_reference_v<T>, "Result holds values; use a pointer for references");

 public:
  using ValueType = T;

  template <typename U = T, typename = std::enable_if_t<std::is_constructible_v<T, U&&> &&
                                                        !std::is_same_v<std::decay_t<U>, Result> &&
                                                        !std::is_same_v<std::decay_t<U>, Error>>>
  Result(U&& value) noexcept : _hasValue(true) {  // NOLINT: implicit by design
    ::new (&_value) T(std::forward<U>(value));
  }
  // An error without a value.
  Result(Error error) noexcept : _error(std::move(error)) {}  // NOLINT: implicit by design
  // A value together with its error (e.g. the identity matrix returned with an illegal-state
  // error).
  Result(T value, Error error) noexcept : _hasValue(true), _error(std::move(error)) {
    ::new (&_value) T(std::move(value));
  }

  Result(const Result& other) noexcept : _hasValue(other._hasValue), _error(other._error) {
    if (_hasValue) ::new (&_value) T(other._value);
  }
  Result(Result&& other) noexcept : _hasValue(other._hasValue), _error(std::move(other._error)) {
    if (_hasValue) ::new (&_value) T(std::move(other._value));
  }
  Result& operator=(const Result& other) noexcept {
    if (this != &other) {
      Reset();
      _hasValue = other._hasValue;
      _error = other._error;
      if (_hasValue) ::new (&_value) T(other._value);
    }
    return *this;
  }
  Result& operator=(Result&& other) noexcept {
    if (this != &other) {
      Reset();
      _hasValue = other._hasValue;
      _error = std::move(other._error);
      if (_hasValue) ::new (&_value) T(std::move(other._value));
    }
    return *this;
  }
  ~Result() { Reset(); }

  // True when there is no error.
  explicit operator bool() const noexcept { return !_error; }
  bool has_value() const noexcept { return _hasValue; }
  bool has_error() const noexcept { return static_cast<bool>(_error); }

  // The value; calling these without a value is a programming error.
  T& value() & noexcept { return _value; }
  const T& value() const& noexcept { return _value; }
  // A temporary result hands its value out by value, so `for (auto& x : F().value())` and
  // `const auto& v = F().value();` hold a live object rather than one inside a destroyed result.
  T value() && noexcept { return std::move(_value); }
  T* operator->() noexcept { return &_value; }
  const T* operator->() const noexcept { return &_value; }
  T& operator*() & noexcept { return _value; }
  const T& operator*() const& noexcept { return _value; }

  const Error& error() const& noexcept { return _error; }
  Error error() && noexcept { return std::move(_error); }

 private:
  void Reset() noexcept {
    if (_hasValue) _value.~T();
    _hasValue = false;
  }
  union {
    T _value;
  };
  bool _hasValue = false;
  Error _error;
};

template <>
class [[nodiscard]] Result<void> {
 public:
  using ValueType = void;
  Result(OkType) noexcept {}                                  // NOLINT: implicit by design
  Result(Error error) noexcept : _error(std::move(error)) {}  // NOLINT: implicit by design
  template <typename U>
  Result(const Result<U>& other) noexcept : _error(other.error()) {}  // NOLINT: drops the value

  explicit operator bool() const noexcept { return !_error; }
  bool has_error() const noexcept { return static_cast<bool>(_error); }
  const Error& error() const& noexcept { return _error; }
  Error error() && noexcept { return std::move(_error); }

 private:
  Error _error;
};

namespace detail {
template <typename T>
T TryValue(Result<T>&& result) noexcept {
  return std::move(result).value();
}
inline void TryValue(Result<void>&&) noexcept {}
}  // namespace detail

}  // namespace tarni

// Evaluates a Result expression; on error returns the error from the enclosing function, otherwise
// yields the value (nothing for Result<void>).
#define TARNI_TRY(...)                                               \
  ({                                                                 \
    auto tarniTryResult_ = (__VA_ARGS__);                            \
    if (!tarniTryResult_) return std::move(tarniTryResult_).error(); \
    ::tarni::detail::TryValue(std::move(tarniTryResult_));           \
  })

// Preconditions. The message is built from the tested expression at compile time:
// TARNI_CHECK_ARGUMENT(config && sourcePose) fails with
// "Illegal argument: Condition config && sourcePose not fulfilled. ".
#define TARNI_CHECK_ARGUMENT(condition)                                                      \
  do {                                                                                       \
    if (!(condition))                                                                        \
      return ::tarni::IllegalArgumentError(                                                  \
          "Illegal argument: Condition " #condition " not fulfilled. ", __FILE__, __LINE__); \
  } while (false)

#define TARNI_CHECK_STATE(condition)                                                               \
  do {                                                                                             \
    if (!(condition))                                                                              \
      return ::tarni::IllegalStateError("Illegal state: Condition " #condition " not fulfilled. ", \
                                        __FILE__, __LINE__);                                       \
  } while (false)

// As above, for results that return a defined value together with the error.
#define TARNI_CHECK_ARGUMENT_WITH(condition, value)                                            \
  do {                                                                                         \
    if (!(condition))                                                                          \
      return {(value), ::tarni::IllegalArgumentError("Illegal argument: Condition " #condition \
                                                     " not fulfilled. ",                       \
                                                     __FILE__, __LINE__)};                     \
  } while (false)

#define TARNI_CHECK_STATE_WITH(condition, value)                                                   \
  do {                                                                                             \
    if (!(condition))                                                                              \
      return {(value),                                                                             \
              ::tarni::IllegalStateError(                                                          \
                  "Illegal state: Condition " #condition " not fulfilled. ", __FILE__, __LINE__)}; \
  } while (false)

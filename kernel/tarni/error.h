// Errors: immutable, reference-counted objects holding a kind (an error id), a message and the
// source location (unit and line) where they were raised. Operations never throw; they return a
// Result that carries an Error.
#pragma once

#include <atomic>
#include <cstdint>
#include <string_view>

#include "tarni/id.h"

namespace tarni {

enum class ErrorKind : std::uint8_t {
  kOutOfMemory,
  kNullReference,
  kIllegalArgument,
  kIllegalState,
  kUnexpected,
  kUnresolved,
  kUnknown,
  kAggregated,
};

// The framework id of an error kind ("net.tarni.error.outofmemory", ...,
// "net.tarni.object.aggregatederror").
Id ErrorKindId(ErrorKind kind) noexcept;

namespace detail {
struct ErrorData;
}

class Error {
 public:
  // No error.
  constexpr Error() noexcept = default;
  // "No error" is the common case of every Result, so it costs no call: only an error's data is
  // retained and released out of line.
  Error(const Error& other) noexcept : _data(other._data) {
    if (_data != nullptr) Retain(_data);
  }
  Error(Error&& other) noexcept : _data(other._data) { other._data = nullptr; }
  Error& operator=(const Error& other) noexcept {
    if (_data != other._data) {
      if (other._data != nullptr) Retain(other._data);
      if (_data != nullptr) Release(_data);
      _data = other._data;
    }
    return *this;
  }
  Error& operator=(Error&& other) noexcept {
    if (this != &other) {
      if (_data != nullptr) Release(_data);
      _data = other._data;
      other._data = nullptr;
    }
    return *this;
  }
  ~Error() {
    if (_data != nullptr) Release(_data);
  }

  // An error whose message is a string literal (not copied). When the error object itself cannot
  // be allocated, a shared, preallocated out-of-memory error stands in.
  static Error Make(ErrorKind kind, const char* literalMessage, const char* file = __builtin_FILE(),
                    int line = __builtin_LINE()) noexcept;
  // An error whose message is copied (for texts built at run time, such as a file name and line).
  static Error MakeCopy(ErrorKind kind, std::string_view message,
                        const char* file = __builtin_FILE(), int line = __builtin_LINE()) noexcept;
  // An aggregated error holding copies of `count` errors (kind kAggregated, message of the first).
  static Error Aggregate(const Error* errors, std::int64_t count,
                         const char* file = __builtin_FILE(), int line = __builtin_LINE()) noexcept;

  explicit operator bool() const noexcept { return _data != nullptr; }
  bool IsError() const noexcept { return _data != nullptr; }
  bool Is(ErrorKind kind) const noexcept { return _data != nullptr && GetKind() == kind; }

  // Accessors; on "no error" they return kUnknown, "", "", 0.
  ErrorKind GetKind() const noexcept;
  Id GetId() const noexcept { return ErrorKindId(GetKind()); }
  std::string_view GetMessage() const noexcept;
  // The source file as compiled (relative to the project root) and its line.
  const char* GetFile() const noexcept;
  int GetLine() const noexcept;
  // The unit: the file name without directories and extension ("charactersolver_impl").
  std::string_view GetUnit() const noexcept;
  // The errors of an aggregated error.
  std::int64_t GetAggregatedCount() const noexcept;
  const Error& GetAggregated(std::int64_t index) const noexcept;

 private:
  explicit Error(detail::ErrorData* data) noexcept : _data(data) {}
  // One more holder of `data` / one holder less (the last one frees it); never null.
  static void Retain(detail::ErrorData* data) noexcept;
  static void Release(detail::ErrorData* data) noexcept;
  detail::ErrorData* _data = nullptr;
};

// Factories for the framework's error kinds. The location defaults to the caller's.
Error OutOfMemoryError(const char* file = __builtin_FILE(), int line = __builtin_LINE()) noexcept;
Error NullReferenceError(const char* literalMessage = "Null reference.",
                         const char* file = __builtin_FILE(), int line = __builtin_LINE()) noexcept;
Error IllegalArgumentError(const char* literalMessage, const char* file = __builtin_FILE(),
                           int line = __builtin_LINE()) noexcept;
Error IllegalStateError(const char* literalMessage, const char* file = __builtin_FILE(),
                        int line = __builtin_LINE()) noexcept;
Error UnexpectedError(const char* literalMessage, const char* file = __builtin_FILE(),
                      int line = __builtin_LINE()) noexcept;
Error UnresolvedError(const char* literalMessage, const char* file = __builtin_FILE(),
                      int line = __builtin_LINE()) noexcept;

}  // namespace tarni

// The host application's shared pieces: loading the module and reporting errors the one way every
// sub-command uses.
#pragma once

#include <charconv>
#include <string>
#include <string_view>
#include <system_error>

#include "tarni/error.h"

namespace tarni::host {

// Exit statuses: 0 done, 1 an internal failure, 2 bad input or usage.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitBadInput = 2;

// Reads a whole option value as a number (no locale, no trailing text); false when it is not one.
template <typename T>
bool ParseNumber(std::string_view text, T& value) {
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, value);
  return ec == std::errc() && ptr == end;
}

// Prints "tarni-ca: <message>" on standard error.
void PrintError(std::string_view message);
// The text of a kernel error, with its kind when the message alone would not say it.
std::string ErrorText(const Error& error);

}  // namespace tarni::host

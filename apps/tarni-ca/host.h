// The host application's shared pieces: loading the module and reporting errors the one way every
// sub-command uses.
#pragma once

#include <string>
#include <string_view>

#include "tarni/error.h"

namespace tarni::host {

// Exit statuses: 0 done, 1 an internal failure, 2 bad input or usage.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitBadInput = 2;

// Prints "tarni-ca: <message>" on standard error.
void PrintError(std::string_view message);
// The text of a kernel error, with its kind when the message alone would not say it.
std::string ErrorText(const Error& error);

}  // namespace tarni::host

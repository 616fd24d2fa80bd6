#include "tarni/error.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace tarni {
namespace detail {
struct ErrorData {
  std::atomic<std::int32_t> refs;
  bool immortal;
  ErrorKind kind;
  std::int32_t line;
  const char* file;
  const char* message;
  std::size_t messageLength;
  Error* aggregated;
  std::int64_t aggregatedCount;
};
}  // namespace detail

namespace {
using detail::ErrorData;

// Stands in when an error object cannot be allocated; never freed.
ErrorData g_outOfMemoryFallback{
    {1},     true, ErrorKind::kOutOfMemory, 0, "kernel/src/error.cpp", "Out of memory.", 14,
    nullptr, 0};

// Error objects are allocated with plain malloc, outside the kernel heap's fault injection: a test
// that fails the n-th allocation must see the error that failure causes, not a second failure.
ErrorData* NewData(std::size_t extra) noexcept {
  void* memory = std::malloc(sizeof(ErrorData) + extra);
  if (memory == nullptr) return nullptr;
  return ::new (memory) ErrorData{};
}

void RetainData(ErrorData* data) noexcept {
  if (data != nullptr && !data->immortal) data->refs.fetch_add(1, std::memory_order_relaxed);
}

void ReleaseData(ErrorData* data) noexcept {
  if (data == nullptr || data->immortal) return;
  if (data->refs.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  for (std::int64_t i = 0; i < data->aggregatedCount; ++i) data->aggregated[i].~Error();
  data->~ErrorData();
  std::free(data);
}

const Error& NoError() noexcept {
  static const Error none;
  return none;
}
}  // namespace

Id ErrorKindId(ErrorKind kind) noexcept {
  switch (kind) {
    case ErrorKind::kOutOfMemory:
      return Id("net.tarni.error.outofmemory");
    case ErrorKind::kNullReference:
      return Id("net.tarni.error.nullptr");
    case ErrorKind::kIllegalArgument:
      return Id("net.tarni.error.illegalargument");
    case ErrorKind::kIllegalState:
      return Id("net.tarni.error.illegalstate");
    case ErrorKind::kUnexpected:
      return Id("net.tarni.error.unexpected");
    case ErrorKind::kUnresolved:
      return Id("net.tarni.error.unresolved");
    case ErrorKind::kUnknown:
      return Id("net.tarni.error.unknown");
    case ErrorKind::kAggregated:
      return Id("net.tarni.object.aggregatederror");
  }
  return Id("net.tarni.error.unknown");
}

void Error::Retain(ErrorData* data) noexcept { RetainData(data); }

void Error::Release(ErrorData* data) noexcept { ReleaseData(data); }

Error Error::Make(ErrorKind kind, const char* literalMessage, const char* file, int line) noexcept {
  ErrorData* data = NewData(0);
  if (data == nullptr) return Error(&g_outOfMemoryFallback);
  data->refs.store(1, std::memory_order_relaxed);
  data->kind = kind;
  data->file = file;
  data->line = line;
  data->message = literalMessage;
  data->messageLength = std::strlen(literalMessage);
  return Error(data);
}

Error Error::MakeCopy(ErrorKind kind, std::string_view message, const char* file,
                      int line) noexcept {
  ErrorData* data = NewData(message.size() + 1);
  if (data == nullptr) return Error(&g_outOfMemoryFallback);
  char* text = reinterpret_cast<char*>(data + 1);
  std::memcpy(text, message.data(), message.size());
  text[message.size()] = '\0';
  data->refs.store(1, std::memory_order_relaxed);
  data->kind = kind;
  data->file = file;
  data->line = line;
  data->message = text;
  data->messageLength = message.size();
  return Error(data);
}

Error Error::Aggregate(const Error* errors, std::int64_t count, const char* file,
                       int line) noexcept {
  if (count < 0) count = 0;
  ErrorData* data = NewData(sizeof(Error) * static_cast<std::size_t>(count));
  if (data == nullptr) return Error(&g_outOfMemoryFallback);
  data->refs.store(1, std::memory_order_relaxed);
  data->kind = ErrorKind::kAggregated;
  data->file = file;
  data->line = line;
  data->aggregated = reinterpret_cast<Error*>(data + 1);
  data->aggregatedCount = count;
  for (std::int64_t i = 0; i < count; ++i) ::new (&data->aggregated[i]) Error(errors[i]);
  std::string_view first =
      count > 0 ? errors[0].GetMessage() : std::string_view("Aggregated error.");
  data->message = count > 0 ? errors[0].GetMessage().data() : "Aggregated error.";
  data->messageLength = first.size();
  return Error(data);
}

ErrorKind Error::GetKind() const noexcept { return _data ? _data->kind : ErrorKind::kUnknown; }

std::string_view Error::GetMessage() const noexcept {
  return _data ? std::string_view(_data->message, _data->messageLength) : std::string_view();
}

const char* Error::GetFile() const noexcept { return _data ? _data->file : ""; }

int Error::GetLine() const noexcept { return _data ? _data->line : 0; }

std::string_view Error::GetUnit() const noexcept {
  std::string_view file = GetFile();
  const std::size_t slash = file.find_last_of("/\\");
  if (slash != std::string_view::npos) file.remove_prefix(slash + 1);
  const std::size_t dot = file.find('.');
  if (dot != std::string_view::npos) file = file.substr(0, dot);
  return file;
}

std::int64_t Error::GetAggregatedCount() const noexcept {
  return _data ? _data->aggregatedCount : 0;
}

const Error& Error::GetAggregated(std::int64_t index) const noexcept {
  if (_data == nullptr || index < 0 || index >= _data->aggregatedCount) return NoError();
  return _data->aggregated[index];
}

Error OutOfMemoryError(const char* file, int line) noexcept {
  return Error::Make(ErrorKind::kOutOfMemory, "Out of memory.", file, line);
}
Error NullReferenceError(const char* literalMessage, const char* file, int line) noexcept {
  return Error::Make(ErrorKind::kNullReference, literalMessage, file, line);
}
Error IllegalArgumentError(const char* literalMessage, const char* file, int line) noexcept {
  return Error::Make(ErrorKind::kIllegalArgument, literalMessage, file, line);
}
Error IllegalStateError(const char* literalMessage, const char* file, int line) noexcept {
  return Error::Make(ErrorKind::kIllegalState, literalMessage, file, line);
}
Error UnexpectedError(const char* literalMessage, const char* file, int line) noexcept {
  return Error::Make(ErrorKind::kUnexpected, literalMessage, file, line);
}
Error UnresolvedError(const char* literalMessage, const char* file, int line) noexcept {
  return Error::Make(ErrorKind::kUnresolved, literalMessage, file, line);
}

}  // namespace tarni

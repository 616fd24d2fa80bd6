// BaseArray<T>: the framework's growable array. Growth reports out-of-memory as an error instead of
// throwing; element order is always the caller's.
#pragma once

#include <cstdint>
#include <cstring>
#include <new>
#include <span>
#include <type_traits>
#include <utility>

#include "tarni/memory.h"
#include "tarni/result.h"

namespace tarni {

using Int = std::int64_t;

template <typename T>
class BaseArray {
 public:
  using ValueType = T;

  BaseArray() noexcept = default;
  BaseArray(const BaseArray&) = delete;  // copies can fail: use CopyFrom
  BaseArray& operator=(const BaseArray&) = delete;
  BaseArray(BaseArray&& other) noexcept
      : _data(other._data), _count(other._count), _capacity(other._capacity) {
    other._data = nullptr;
    other._count = other._capacity = 0;
  }
  BaseArray& operator=(BaseArray&& other) noexcept {
    if (this != &other) {
      Reset();
      _data = other._data;
      _count = other._count;
      _capacity = other._capacity;
      other._data = nullptr;
      other._count = other._capacity = 0;
    }
    return *this;
  }
  ~BaseArray() { Reset(); }

  Int GetCount() const noexcept { return _count; }
  Int GetCapacity() const noexcept { return _capacity; }
  bool IsEmpty() const noexcept { return _count == 0; }

  // Element access; the index must be in [0, count).
  T& operator[](Int index) noexcept { return _data[index]; }
  const T& operator[](Int index) const noexcept { return _data[index]; }
  T& GetLast() noexcept { return _data[_count - 1]; }
  const T& GetLast() const noexcept { return _data[_count - 1]; }
  T* GetFirst() noexcept { return _data; }
  const T* GetFirst() const noexcept { return _data; }

  T* begin() noexcept { return _data; }
  T* end() noexcept { return _data + _count; }
  const T* begin() const noexcept { return _data; }
  const T* end() const noexcept { return _data + _count; }
  std::span<T> AsSpan() noexcept { return {_data, static_cast<std::size_t>(_count)}; }
  std::span<const T> AsSpan() const noexcept { return {_data, static_cast<std::size_t>(_count)}; }

  // Makes room for at least `capacity` elements; the count is unchanged.
  Result<void> EnsureCapacity(Int capacity) noexcept {
    if (capacity <= _capacity) return OK;
    return Reallocate(capacity);
  }

  // Changes the count; new elements are value-initialised (zero for plain data).
  Result<void> Resize(Int count) noexcept {
    if (count < 0) return IllegalArgumentError("Illegal argument: negative array count.");
    if (count > _capacity) TARNI_TRY(Reallocate(count));
    if constexpr (std::is_trivially_default_constructible_v<T>) {
      if (count > _count)
        std::memset(static_cast<void*>(_data + _count), 0, sizeof(T) * (count - _count));
    } else {
      for (Int i = _count; i < count; ++i) ::new (&_data[i]) T();
    }
    for (Int i = count; i < _count; ++i) _data[i].~T();
    _count = count;
    return OK;
  }

  Result<void> Append(const T& value) noexcept {
    if (_count == _capacity) {
      if (&value >= _data && &value < _data + _count) {  // appending one of our own elements
        T copy(value);
        TARNI_TRY(Grow(_count + 1));
        ::new (&_data[_count]) T(std::move(copy));
        ++_count;
        return OK;
      }
      TARNI_TRY(Grow(_count + 1));
    }
    ::new (&_data[_count]) T(value);
    ++_count;
    return OK;
  }
  Result<void> Append(T&& value) noexcept {
    if (_count == _capacity) TARNI_TRY(Grow(_count + 1));
    ::new (&_data[_count]) T(std::move(value));
    ++_count;
    return OK;
  }
  // Appends copies of all the given elements, or none when memory runs out.
  Result<void> AppendAll(std::span<const T> values) noexcept {
    const Int n = static_cast<Int>(values.size());
    if (_count + n > _capacity && Holds(values)) {
      // Growing would free the elements being copied: copy them out first.
      BaseArray copy;
      TARNI_TRY(copy.CopyFrom(values));
      TARNI_TRY(Grow(_count + n));
      for (Int i = 0; i < n; ++i) ::new (&_data[_count + i]) T(std::move(copy[i]));
      _count += n;
      return OK;
    }
    if (_count + n > _capacity) TARNI_TRY(Grow(_count + n));
    for (Int i = 0; i < n; ++i) ::new (&_data[_count + i]) T(values[i]);
    _count += n;
    return OK;
  }
  // Inserts at `index` (0..count).
  Result<void> Insert(Int index, T value) noexcept {
    if (index < 0 || index > _count)
      return IllegalArgumentError("Illegal argument: index out of range.");
    if (_count == _capacity) TARNI_TRY(Grow(_count + 1));
    ::new (&_data[_count]) T();
    for (Int i = _count; i > index; --i) _data[i] = std::move(_data[i - 1]);
    _data[index] = std::move(value);
    ++_count;
    return OK;
  }
  // Removes `count` elements at `index`, keeping the order of the rest.
  void Erase(Int index, Int count = 1) noexcept {
    if (index < 0 || count <= 0 || index >= _count) return;
    if (index + count > _count) count = _count - index;
    for (Int i = index; i + count < _count; ++i) _data[i] = std::move(_data[i + count]);
    for (Int i = _count - count; i < _count; ++i) _data[i].~T();
    _count -= count;
  }
  void Pop() noexcept { Erase(_count - 1); }

  // Destroys the elements and keeps the memory.
  void Flush() noexcept {
    for (Int i = 0; i < _count; ++i) _data[i].~T();
    _count = 0;
  }
  // Destroys the elements and frees the memory.
  void Reset() noexcept {
    Flush();
    Free(_data);
    _data = nullptr;
    _capacity = 0;
  }

  // Replaces the content by copies of `source`'s elements. Copying the array itself is a no-op.
  // When memory runs out the array is left empty and the out-of-memory error returned.
  Result<void> CopyFrom(const BaseArray& source) noexcept { return CopyFrom(source.AsSpan()); }
  Result<void> CopyFrom(std::span<const T> source) noexcept {
    if (source.data() == _data && static_cast<Int>(source.size()) == _count) return OK;
    if (Holds(source)) {
      // Part of this array: copy it out before the elements it points at are destroyed.
      BaseArray copy;
      if (copy.CopyFrom(source).has_error()) {
        Flush();
        return OutOfMemoryError();
      }
      *this = std::move(copy);
      return OK;
    }
    Flush();
    const Int n = static_cast<Int>(source.size());
    if (n > _capacity) {
      if (Reallocate(n).has_error()) return OutOfMemoryError();
    }
    for (Int i = 0; i < n; ++i) {
      if constexpr (std::is_copy_constructible_v<T>) {
        ::new (&_data[i]) T(source[i]);
      } else {  // elements that copy through CopyFrom, such as arrays of arrays
        ::new (&_data[i]) T();
        _count = i + 1;
        if (_data[i].CopyFrom(source[i]).has_error()) {
          Flush();
          return OutOfMemoryError();
        }
      }
    }
    _count = n;
    return OK;
  }

 private:
  // Whether `values` lies (at least partly) in this array's elements.
  bool Holds(std::span<const T> values) const noexcept {
    return !values.empty() && _count > 0 && values.data() < _data + _count &&
           _data < values.data() + values.size();
  }
  Result<void> Grow(Int needed) noexcept {
    Int capacity = _capacity < 4 ? 4 : _capacity + _capacity / 2;
    if (capacity < needed) capacity = needed;
    return Reallocate(capacity);
  }
  Result<void> Reallocate(Int capacity) noexcept {
    constexpr Int kMax = INT64_MAX / static_cast<Int>(sizeof(T) == 0 ? 1 : sizeof(T)) / 2;
    if (capacity > kMax) return OutOfMemoryError();
    T* data = static_cast<T*>(Allocate(sizeof(T) * static_cast<std::size_t>(capacity)));
    if (data == nullptr) return OutOfMemoryError();
    if constexpr (std::is_trivially_copyable_v<T>) {
      if (_count > 0) std::memcpy(static_cast<void*>(data), _data, sizeof(T) * _count);
    } else {
      for (Int i = 0; i < _count; ++i) {
        ::new (&data[i]) T(std::move(_data[i]));
        _data[i].~T();
      }
    }
    Free(_data);
    _data = data;
    _capacity = capacity;
    return OK;
  }

  T* _data = nullptr;
  Int _count = 0;
  Int _capacity = 0;
};

// Replaces `list` by a copy of `source`: the shared list-replace rule of the model's setters.
// The list itself as source changes nothing; when memory runs out the list is left empty and the
// out-of-memory error is returned.
template <typename T>
Result<void> ReplaceList(BaseArray<T>& list, const BaseArray<T>& source) noexcept {
  return list.CopyFrom(source);
}

}  // namespace tarni

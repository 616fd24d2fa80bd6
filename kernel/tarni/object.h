// Objects and references. Every component is an Object: reference-counted (atomically), created by
// class id through the class registry, queried for its interfaces by interface id, cloned through
// its class's copy-construct, and able to print itself.
//
// Ownership rules:
// 1. Ref<T> is a plain shared reference: every holder sees the same object.
// 2. CowRef<T> is a copy-on-write reference: a writer calls MakeWritable() explicitly, which gives
//    this reference a clone of its own when (and only when) the object is shared.
// 3. Objects are allocated on the kernel heap with their memory cleared; construction never fails,
//    and initialisation that can fail belongs in Init().
#pragma once

#include <atomic>
#include <cstdint>
#include <type_traits>
#include <utility>

#include "tarni/format.h"
#include "tarni/id.h"
#include "tarni/memory.h"
#include "tarni/result.h"
#include "tarni/string.h"

namespace tarni {

class ClassInfo;
class Describer;
class Object;
template <typename T>
class Ref;

// The interfaces an implementation answers for, and (in an interface) the interfaces it extends.
template <typename... I>
struct InterfaceList {};

class Object {
 public:
  static constexpr Id kInterfaceId{"net.tarni.interface.object"};
  using Extends = InterfaceList<>;

  // Objects live on the kernel heap, cleared; a null result makes `new` yield nullptr.
  static void* operator new(std::size_t size) noexcept { return AllocateCleared(size); }
  static void operator delete(void* memory) noexcept { Free(memory); }

  void AddRef() const noexcept { _refCount.fetch_add(1, std::memory_order_relaxed); }
  // The last holder frees the object without the atomic decrement: with a count of 1 the caller's
  // reference is the only one, so no other thread can take a new one meanwhile, and the acquire
  // load orders the other holders' earlier releases before the deletion.
  void Release() const noexcept {
    if (_refCount.load(std::memory_order_acquire) == 1 ||
        _refCount.fetch_sub(1, std::memory_order_acq_rel) == 1)
      delete this;
  }
  std::int32_t GetRefCount() const noexcept { return _refCount.load(std::memory_order_acquire); }
  bool IsShared() const noexcept { return GetRefCount() > 1; }

  // The class this object was created through (null for objects made directly).
  const ClassInfo* GetClass() const noexcept { return _class; }
  void SetClass(const ClassInfo* info) noexcept { _class = info; }

  // The object as the interface `interfaceId`, or nullptr when it has no such interface.
  virtual void* QueryInterface(const Id& interfaceId) noexcept;
  const void* QueryInterface(const Id& interfaceId) const noexcept {
    return const_cast<Object*>(this)->QueryInterface(interfaceId);
  }
  // A new object of the same class holding a copy of this object's state (the copy-construct).
  virtual Result<Ref<Object>> Clone() const noexcept;
  // Copies the state of `source`, an object of the same class, into this object.
  virtual Result<void> CopyFrom(const Object& source) noexcept;
  // The object's text form; the format statement is passed on to nested texts.
  virtual String ToString(const FormatStatement* format = nullptr) const noexcept;
  // Declares this object's members, with their addresses, in the order of its class's DescribeIO.
  virtual Result<void> DescribeIO(Describer& describer) noexcept;
  // Initialisation that can fail, run by the class registry after construction.
  virtual Result<void> Init() noexcept { return OK; }

 protected:
  Object() noexcept = default;
  // A copy starts unshared and belongs to no class until its creator says so.
  Object(const Object&) noexcept {}
  Object& operator=(const Object&) noexcept { return *this; }
  // Inline, so that releasing an object costs no call into the kernel library for this base.
  virtual ~Object() = default;

 private:
  template <typename T>
  friend class Ref;
  mutable std::atomic<std::int32_t> _refCount{0};
  const ClassInfo* _class = nullptr;
};

namespace detail {
template <typename T>
const Object* AsObject(const T* p) noexcept {
  return static_cast<const Object*>(p);
}
}  // namespace detail

template <typename T>
class Ref {
 public:
  using ElementType = T;
  constexpr Ref() noexcept = default;
  constexpr Ref(std::nullptr_t) noexcept {}  // NOLINT: implicit by design
  explicit Ref(T* object) noexcept : _ptr(object) {
    if (_ptr) detail::AsObject(_ptr)->AddRef();
  }
  Ref(const Ref& other) noexcept : _ptr(other._ptr) {
    if (_ptr) detail::AsObject(_ptr)->AddRef();
  }
  Ref(Ref&& other) noexcept : _ptr(other._ptr) { other._ptr = nullptr; }
  template <typename U, typename = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ref(const Ref<U>& other) noexcept : _ptr(other.Get()) {  // NOLINT: upcast
    if (_ptr) detail::AsObject(_ptr)->AddRef();
  }
  template <typename U, typename = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ref(Ref<U>&& other) noexcept : _ptr(other._ptr) {  // NOLINT: upcast
    other._ptr = nullptr;
  }
  Ref& operator=(const Ref& other) noexcept {
    Ref(other).Swap(*this);
    return *this;
  }
  Ref& operator=(Ref&& other) noexcept {
    Ref(std::move(other)).Swap(*this);
    return *this;
  }
  ~Ref() {
    if (_ptr) detail::AsObject(_ptr)->Release();
  }

  // Takes over a reference the caller already counts (one given up by Detach), counting none.
  static Ref Adopt(T* object) noexcept {
    Ref ref;
    ref._ptr = object;
    return ref;
  }
  // The first reference to an object just constructed, which nobody else can see yet: its count
  // is set rather than incremented, which spares the atomic operation on every clone.
  static Ref AdoptNew(T* object) noexcept {
    if (object) detail::AsObject(object)->_refCount.store(1, std::memory_order_relaxed);
    return Adopt(object);
  }
  // Gives up this reference without releasing it: the caller now holds the count (see Adopt).
  T* Detach() noexcept { return std::exchange(_ptr, nullptr); }

  T* Get() const noexcept { return _ptr; }
  T* operator->() const noexcept { return _ptr; }
  T& operator*() const noexcept { return *_ptr; }
  explicit operator bool() const noexcept { return _ptr != nullptr; }
  void Reset() noexcept { Ref().Swap(*this); }
  void Swap(Ref& other) noexcept { std::swap(_ptr, other._ptr); }

  // Same object (whatever interface each reference is typed as).
  template <typename U>
  bool operator==(const Ref<U>& other) const noexcept {
    return ObjectOf() == other.ObjectOf();
  }
  bool operator==(std::nullptr_t) const noexcept { return _ptr == nullptr; }
  const Object* ObjectOf() const noexcept { return _ptr ? detail::AsObject(_ptr) : nullptr; }

 private:
  template <typename U>
  friend class Ref;
  T* _ptr = nullptr;
};

// The object behind `object` as interface I, or null when it lacks I.
template <typename I>
I* Cast(Object* object) noexcept {
  return object ? static_cast<I*>(object->QueryInterface(I::kInterfaceId)) : nullptr;
}
template <typename I>
const I* Cast(const Object* object) noexcept {
  return object ? static_cast<const I*>(object->QueryInterface(I::kInterfaceId)) : nullptr;
}
template <typename I, typename U>
Ref<I> Cast(const Ref<U>& ref) noexcept {
  return Ref<I>(Cast<I>(const_cast<Object*>(ref.ObjectOf())));
}

// A copy-on-write reference. Reading needs nothing; writing goes through MakeWritable().
template <typename T>
class CowRef {
 public:
  using ElementType = T;
  constexpr CowRef() noexcept = default;
  constexpr CowRef(std::nullptr_t) noexcept {}  // NOLINT: implicit by design
  explicit CowRef(Ref<T> ref) noexcept : _ref(std::move(ref)) {}
  template <typename U, typename = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  CowRef(const CowRef<U>& other) noexcept : _ref(other.GetRef()) {}  // NOLINT: upcast

  const T* Get() const noexcept { return _ref.Get(); }
  const T* operator->() const noexcept { return _ref.Get(); }
  const T& operator*() const noexcept { return *_ref; }
  explicit operator bool() const noexcept { return static_cast<bool>(_ref); }
  template <typename U>
  bool operator==(const CowRef<U>& other) const noexcept {
    return _ref == other.GetRef();
  }
  bool operator==(std::nullptr_t) const noexcept { return !_ref; }
  // The shared reference (reading only; writers use MakeWritable).
  const Ref<T>& GetRef() const noexcept { return _ref; }
  void Reset() noexcept { _ref.Reset(); }

  // Gives this reference an object of its own and returns it for writing. An unshared object is
  // returned as it is; a shared one is replaced by a clone made through its class's copy-construct.
  // Fails with the null-reference error when the reference is empty or no clone can be made.
  Result<T*> MakeWritable() noexcept {
    if (!_ref) return NullReferenceError("Copy-on-write reference is empty.");
    if (detail::AsObject(_ref.Get())->IsShared()) TARNI_TRY(TakeCloneOf(*_ref));
    return _ref.Get();
  }

  // A new reference to a clone of `source`'s object: what copying `source` and making the copy
  // writable gives (the object is shared then, so it is always cloned), without counting the
  // short-lived shared reference. Fails with MakeWritable's errors.
  static Result<CowRef> WritableCopyOf(const CowRef& source) noexcept;
  // MakeWritable's error when no clone can be made, for shortcuts that clone on their own.
  static Error CloneFailedError() noexcept {
    return NullReferenceError("Copy-on-write reference could not be made writable.");
  }

 private:
  // Replaces the reference by one to a clone of `object`; the clone's one reference moves over
  // as it is.
  Result<void> TakeCloneOf(const T& object) noexcept {
    Result<Ref<Object>> clone = detail::AsObject(&object)->Clone();
    T* typed = clone ? Cast<T>(clone.value().Get()) : nullptr;
    if (!typed) return CloneFailedError();
    clone.value().Detach();
    _ref = Ref<T>::Adopt(typed);
    return OK;
  }

  Ref<T> _ref;
};

template <typename T>
Result<CowRef<T>> CowRef<T>::WritableCopyOf(const CowRef& source) noexcept {
  if (!source._ref) return NullReferenceError("Copy-on-write reference is empty.");
  CowRef copy;
  TARNI_TRY(copy.TakeCloneOf(*source._ref));
  return copy;
}

namespace detail {
template <typename Self, typename I>
void* QueryOne(Self* self, const Id& interfaceId) noexcept;

template <typename Self, typename... I>
void* QueryList(Self* self, const Id& interfaceId, InterfaceList<I...>) noexcept {
  void* found = nullptr;
  (void)self;  // unused when the list is empty
  (void)interfaceId;
  ((found = found ? found : QueryOne<Self, I>(self, interfaceId)), ...);
  return found;
}

template <typename Self, typename I>
void* QueryOne(Self* self, const Id& interfaceId) noexcept {
  if (interfaceId == I::kInterfaceId) return static_cast<I*>(self);
  return QueryList(self, interfaceId, typename I::Extends{});
}

template <typename Self>
concept ClonesByCopyConstructor =
    Self::kCloneByCopyConstructor && std::is_copy_constructible_v<Self>;

// The one copy-construct of every class: default construction, Init and CopyFrom. A class whose
// members are all plain values and shared references, for which the C++ copy constructor does
// exactly what its CopyFrom does, may say `static constexpr bool kCloneByCopyConstructor = true;`
// and is then cloned in one step; copy-on-write node data is cloned on every solved frame.
template <typename Self>
Result<Ref<Object>> CloneObject(const Self& source) noexcept {
  if constexpr (ClonesByCopyConstructor<Self>) {
    // The copy constructor sets every member, so the memory is not cleared first; the object is
    // still released through Object's operator delete, which frees it to the kernel heap.
    void* memory = Allocate(sizeof(Self));
    if (memory == nullptr) return NullReferenceError("Class could not create an instance.");
    Ref<Self> copy = Ref<Self>::AdoptNew(::new (memory) Self(source));
    copy->SetClass(source.GetClass());
    return Ref<Object>(std::move(copy));
  }
  Ref<Self> copy = Ref<Self>::AdoptNew(new Self());
  if (!copy) return NullReferenceError("Class could not create an instance.");
  copy->SetClass(source.GetClass());
  TARNI_TRY(copy->Init());
  TARNI_TRY(copy->CopyFrom(source));
  return Ref<Object>(std::move(copy));
}
}  // namespace detail

// The source of a CopyFrom as the implementation `Self`, or null when it is of another class.
template <typename Self>
const Self* SameClass(const Object& source) noexcept {
  return dynamic_cast<const Self*>(&source);
}

}  // namespace tarni

// Declares, inside an implementation class, its interface query and its clone:
//   TARNI_IMPLEMENTS(CharacterTreeImpl, CharacterTree)
// The listed interfaces answer QueryInterface, with every interface they extend and the object's.
#define TARNI_IMPLEMENTS(Self, ...)                                                               \
 public:                                                                                          \
  void* QueryInterface(const ::tarni::Id& interfaceId) noexcept override {                        \
    if (interfaceId == ::tarni::Object::kInterfaceId) return static_cast<::tarni::Object*>(this); \
    return ::tarni::detail::QueryList<Self>(this, interfaceId,                                    \
                                            ::tarni::InterfaceList<__VA_ARGS__>{});               \
  }                                                                                               \
  ::tarni::Result<::tarni::Ref<::tarni::Object>> Clone() const noexcept override {                \
    return ::tarni::detail::CloneObject<Self>(*this);                                             \
  }

// The command framework: commands run on a command data object, a dictionary of typed values by id.
// The host creates both by id, fills the data, executes, and reads the results back by id.
#pragma once

#include <cstdint>
#include <type_traits>
#include <utility>

#include "tarni/array.h"
#include "tarni/classes.h"
#include "tarni/hashmap.h"
#include "tarni/id.h"
#include "tarni/object.h"
#include "tarni/registry.h"

namespace tarni {

inline constexpr Id kCommandClassesRegistry{"net.tarni.command.registry.commandclasses"};
inline constexpr Id kCommandDataClassesRegistry{"net.tarni.command.registry.commanddataclasses"};
// The empty interface id, for component slots that implement no interface of their own.
inline constexpr Id kIdentVoid{"net.tarni.ident_void"};

// The type id under which a C++ type travels in a data dictionary. Scalars are built in; other
// types declare theirs with TARNI_DATA_TYPE in the header that defines them, so that every module
// agrees on the id by its text.
template <typename T>
struct DataTypeOf;

#define TARNI_DATA_TYPE(Type, idText)         \
  template <>                                 \
  struct tarni::DataTypeOf<Type> {            \
    static constexpr ::tarni::Id kId{idText}; \
  }

template <>
struct DataTypeOf<std::int32_t> {
  static constexpr Id kId{"net.tarni.datatype.int32"};
};
template <>
struct DataTypeOf<std::int64_t> {
  static constexpr Id kId{"net.tarni.datatype.int64"};
};
template <>
struct DataTypeOf<float> {
  static constexpr Id kId{"net.tarni.datatype.float32"};
};
template <>
struct DataTypeOf<double> {
  static constexpr Id kId{"net.tarni.datatype.float64"};
};
template <>
struct DataTypeOf<bool> {
  static constexpr Id kId{"net.tarni.datatype.bool"};
};

template <typename T>
inline constexpr bool kIsScalarData =
    std::is_same_v<T, std::int32_t> || std::is_same_v<T, std::int64_t> ||
    std::is_same_v<T, float> || std::is_same_v<T, double> || std::is_same_v<T, bool>;

// A value of a non-scalar type held in a data dictionary: reference-counted and shared until a
// writer makes it writable (copy on write). T needs a default constructor and either
// `Result<void> CopyFrom(const T&)` or a copy constructor.
template <typename T>
class Box final : public Object {
 public:
  static constexpr Id kInterfaceId = DataTypeOf<T>::kId;
  using Extends = InterfaceList<>;
  TARNI_IMPLEMENTS(Box, Box)

  Result<void> CopyFrom(const Object& source) noexcept override {
    const Box* box = Cast<Box>(&source);
    if (box == nullptr) return IllegalArgumentError("Illegal argument: copy from another type.");
    if constexpr (requires(T & a, const T& b) { a.CopyFrom(b); }) {
      return value.CopyFrom(box->value);
    } else {
      value = box->value;
      return OK;
    }
  }

  T value{};
};

// A shared value of type T in a dictionary.
template <typename T>
using Shared = CowRef<Box<T>>;

// Makes a shared value holding `value`.
template <typename T>
Result<Shared<T>> MakeShared(T value) noexcept {
  Ref<Box<T>> box(new Box<T>());
  if (!box) return OutOfMemoryError();
  box->value = std::move(value);
  return Shared<T>(std::move(box));
}

// One typed value of a dictionary: a scalar held inline, or a shared object.
class DataValue {
 public:
  DataValue() noexcept = default;
  template <typename T, typename = std::enable_if_t<kIsScalarData<T>>>
  static DataValue Of(T value) noexcept {
    DataValue data;
    data._type = DataTypeOf<T>::kId;
    if constexpr (std::is_same_v<T, float>)
      data._float32 = value;
    else if constexpr (std::is_same_v<T, double>)
      data._float64 = value;
    else
      data._integer = static_cast<std::int64_t>(value);
    return data;
  }
  template <typename T>
  static DataValue Of(const Shared<T>& value) noexcept {
    DataValue data;
    data._type = DataTypeOf<T>::kId;
    data._object = value.GetRef();
    return data;
  }

  Id GetType() const noexcept { return _type; }
  bool IsEmpty() const noexcept { return _type.IsEmpty(); }

  // The value as T; the illegal-argument error when it holds another type.
  template <typename T>
  Result<T> GetScalar() const noexcept {
    if (!(_type == DataTypeOf<T>::kId))
      return IllegalArgumentError("Illegal argument: data value holds another type.");
    if constexpr (std::is_same_v<T, float>)
      return _float32;
    else if constexpr (std::is_same_v<T, double>)
      return _float64;
    else
      return static_cast<T>(_integer);
  }
  template <typename T>
  Result<Shared<T>> GetShared() const noexcept {
    if (!(_type == DataTypeOf<T>::kId) || !_object)
      return IllegalArgumentError("Illegal argument: data value holds another type.");
    return Shared<T>(Ref<Box<T>>(static_cast<Box<T>*>(const_cast<Object*>(_object.Get()))));
  }

 private:
  Id _type;
  std::int64_t _integer = 0;
  float _float32 = 0.0f;
  double _float64 = 0.0;
  Ref<Object> _object;
};

// The command data interface: typed values by id.
class CommandData : public virtual Object {
 public:
  static constexpr Id kInterfaceId{"net.tarni.command.interface.commanddata"};
  using Extends = InterfaceList<>;

  // Stores `value` under `key`, replacing what was there. When memory runs out it fails with the
  // out-of-memory error and the dictionary is unchanged.
  virtual Result<void> SetValue(const Id& key, DataValue value) noexcept = 0;
  // The value stored under `key`; the unresolved error when there is none.
  virtual Result<DataValue> GetValue(const Id& key) const noexcept = 0;
  virtual bool HasValue(const Id& key) const noexcept = 0;

  // Typed access: scalars by value, other types as shared values.
  template <typename T>
  Result<void> Set(const Id& key, T value) noexcept {
    if constexpr (kIsScalarData<T>) {
      return SetValue(key, DataValue::Of<T>(value));
    } else {
      Shared<T> shared = TARNI_TRY(MakeShared<T>(std::move(value)));
      return SetValue(key, DataValue::Of<T>(shared));
    }
  }
  template <typename T>
  Result<void> SetShared(const Id& key, const Shared<T>& value) noexcept {
    return SetValue(key, DataValue::Of<T>(value));
  }
  template <typename T>
  Result<T> Get(const Id& key) const noexcept {
    DataValue value = TARNI_TRY(GetValue(key));
    return value.GetScalar<T>();
  }
  template <typename T>
  Result<Shared<T>> GetShared(const Id& key) const noexcept {
    DataValue value = TARNI_TRY(GetValue(key));
    return value.GetShared<T>();
  }
};

// The data dictionary component (class net.tarni.class.datadictionaryblockarraysmallobject),
// stacked under an interface that extends CommandData. Copying assigns the source's dictionary:
// shared values stay shared until a writer makes them writable.
template <typename Base>
class DataDictionaryComponent : public Base {
 public:
  static constexpr Id kClassId{"net.tarni.class.datadictionaryblockarraysmallobject"};

  Result<void> SetValue(const Id& key, DataValue value) noexcept override {
    return _values.Insert(key, std::move(value));
  }
  Result<DataValue> GetValue(const Id& key) const noexcept override {
    const DataValue* value = _values.Find(key);
    if (value == nullptr) return UnresolvedError("No value stored under this id.");
    return *value;
  }
  bool HasValue(const Id& key) const noexcept override { return _values.Find(key) != nullptr; }

 protected:
  Result<void> CopyDictionaryFrom(const DataDictionaryComponent& source) noexcept {
    return _values.CopyFrom(source._values);
  }

 private:
  HashMap<Id, DataValue> _values;
};

// The command observer interface: progress reports and cancellation between a command and its host.
class CommandObserver : public virtual Object {
 public:
  static constexpr Id kInterfaceId{"net.tarni.command.interface.observer"};
  using Extends = InterfaceList<>;
  using ProgressFunction = void (*)(double fraction, void* user);

  virtual void SetProgressFunction(ProgressFunction function, void* user) noexcept = 0;
  virtual void ReportProgress(double fraction) noexcept = 0;
  virtual void RequestCancel() noexcept = 0;
  virtual bool IsCancelRequested() const noexcept = 0;
};

// The command observer component (class net.tarni.command.class.observer).
template <typename Base>
class CommandObserverComponent : public Base {
 public:
  static constexpr Id kClassId{"net.tarni.command.class.observer"};

  void SetProgressFunction(CommandObserver::ProgressFunction function,
                           void* user) noexcept override {
    _progress = function;
    _user = user;
  }
  void ReportProgress(double fraction) noexcept override {
    if (_progress != nullptr) _progress(fraction, _user);
  }
  void RequestCancel() noexcept override { _cancel = true; }
  bool IsCancelRequested() const noexcept override { return _cancel; }

 private:
  CommandObserver::ProgressFunction _progress = nullptr;
  void* _user = nullptr;
  bool _cancel = false;
};

// A command: executes on a command data object.
class Command : public virtual Object {
 public:
  static constexpr Id kInterfaceId{"net.tarni.command.interface.command"};
  using Extends = InterfaceList<>;
  virtual Result<void> Execute(CommandData& data) noexcept = 0;
};

// Creates a command registered in the command-classes registry; the null-reference error when the
// id is not registered there.
Result<Ref<Command>> CreateCommand(const Id& commandId) noexcept;
// Creates a command data object registered in the command-data-classes registry.
Result<Ref<CommandData>> CreateCommandData(const Id& dataClassId) noexcept;

}  // namespace tarni

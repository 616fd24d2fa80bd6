#include "tarni/object.h"

#include "tarni/classes.h"
#include "tarni/describe.h"

namespace tarni {

void* Object::QueryInterface(const Id& interfaceId) noexcept {
  return interfaceId == kInterfaceId ? this : nullptr;
}

Result<Ref<Object>> Object::Clone() const noexcept {
  return NullReferenceError("Class has no copy-construct.");
}

Result<void> Object::CopyFrom(const Object& source) noexcept {
  if (&source == this) return OK;
  return IllegalArgumentError("Illegal argument: class has no copy-from.");
}

String Object::ToString(const FormatStatement*) const noexcept {
  TextBuilder out;
  out.Append("object of class ");
  if (_class != nullptr)
    out.Append(_class->GetImplementationName());
  else
    out.Append("?");
  return out.ToString();
}

Result<void> Object::DescribeIO(Describer&) noexcept { return OK; }

}  // namespace tarni

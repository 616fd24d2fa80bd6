// The node-info component: the Uuid and name every node of the character model carries. Node
// transforms, skeleton tree nodes, body parts and character definitions are assembled on it.
#pragma once

#include "tarni/characternodeinfo.h"
#include "tarni/describe.h"
#include "tarni/format.h"

namespace tarni::ca {

// Stack under an interface that extends CharacterNodeInfo.
template <typename Base>
class NodeInfoComponent : public Base {
 public:
  NodeInfoComponent() noexcept = default;
  NodeInfoComponent(const NodeInfoComponent&) noexcept = default;
  NodeInfoComponent& operator=(const NodeInfoComponent&) noexcept = default;

  Result<void> SetUuid(const Uuid& uuid) noexcept override {
    _objectID = uuid;
    return OK;
  }
  const Uuid& GetUuid() const noexcept override { return _objectID; }
  Result<void> SetName(const String& name) noexcept override {
    if (!_objectName.SharesData(name)) _objectName = name;
    return OK;
  }
  const String& GetName() const noexcept override { return _objectName; }

  String ToString(const FormatStatement* format = nullptr) const noexcept override {
    TextBuilder out;
    AppendNodeInfoText(out, format);
    return out.ToString();
  }

 protected:
  // "Object ID : " id "\n" "Object Name : " name "\n".
  void AppendNodeInfoText(TextBuilder& out, const FormatStatement* format) const noexcept {
    out.Append("Object ID : ");
    _objectID.AppendText(out, format);
    out.Append("\nObject Name : ").Append(_objectName).Append('\n');
  }
  // A copy of `source` under the Uuid `uuid`: the name is shared, the old Uuid is not taken.
  NodeInfoComponent(const NodeInfoComponent& source, const Uuid& uuid) noexcept
      : Base(source), _objectID(uuid), _objectName(source._objectName) {}
  // Shares both fields with the source (one more reference each).
  void CopyNodeInfoFrom(const NodeInfoComponent& source) noexcept {
    _objectID = source._objectID;
    _objectName = source._objectName;
  }
  // Members "_objectID" (Uuid) and "_objectName" (String), in that order.
  static Result<void> DescribeNodeInfo(Describer& describer, NodeInfoComponent* self) noexcept {
    TARNI_TRY(describer.Member(
        {"_objectID", types::kUuid, kDescribeNone, {}, self ? &self->_objectID : nullptr}));
    return describer.Member(
        {"_objectName", types::kString, kDescribeNone, {}, self ? &self->_objectName : nullptr});
  }

 private:
  // Declared in this order so destruction releases the name first, then the id.
  Uuid _objectID;
  String _objectName;
};

}  // namespace tarni::ca

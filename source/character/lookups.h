// Module-internal lookups the solver makes per node and frame: they read this module's own
// classes directly instead of through virtual calls and new references, and fall back to the
// interfaces for objects of other classes.
#pragma once

#include "tarni/characterassociation.h"
#include "tarni/characterpose.h"
#include "tarni/charactersolverconfiguration.h"

namespace tarni::ca {

// The first element of `nodes`, in array order, whose Uuid equals `id` (an empty element counts
// as having the empty Uuid), or null when none does: GetNodeTransformByID's rule. The pointer is
// valid while the array is neither changed nor released.
const CharacterNodeTransformRef* FindFirstNode(const BaseArray<CharacterNodeTransformRef>& nodes,
                                               const Uuid& id) noexcept;

// The Uuid GetAssociatedUuid(key) gives, without copying it: for this module's own association
// class a pointer into the table, valid while the association is neither changed nor released;
// for other classes into `holder`. Fails exactly as GetAssociatedUuid does.
Result<const Uuid*> PeekAssociatedUuid(const CharacterAssociation& association, const Uuid& key,
                                       Uuid& holder) noexcept;

// The setting GetBodyPartSetting(identifier) gives, or null when there is none, without taking a
// reference: for this module's own configuration class the pointer is valid while the
// configuration is neither changed nor released; for other classes `holder` keeps it alive.
const CharacterBodyPartSolverSetting* PeekBodyPartSetting(
    const CharacterSolverConfiguration& config, const InternedId& identifier,
    CharacterBodyPartSolverSettingRef& holder) noexcept;

}  // namespace tarni::ca

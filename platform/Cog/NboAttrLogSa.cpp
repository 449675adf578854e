#include "Cog/NboAttrLogSa.h"

#include "Cog/Exception.h"
#include "Cog/Type.h"

namespace Cog {

Entity::CogNboAttrLogSa::CogNboAttrLogSa(Entity* entity, NboAttrLogSaFlags flags,
                                         const Ptr<NboAttrLog::Out>& out)
    : entity_(entity), flags_(flags), out_(out) {}

void Entity::CogNboAttrLogSa::suspendedIs(bool suspended) {
  if (suspended) flags_ |= NboAttrLogSaFlag::suspended;
  else flags_ &= ~NboAttrLogSaFlag::suspended;
}

std::size_t Entity::CogNboAttrLogSa::dirtyKeys(AttributeId id) const {
  auto it = dirtyKeys_.find(id);
  return it == dirtyKeys_.end() ? 0 : it->second->size();
}

Entity::CogNboAttrLogSa::DirtyKeys* Entity::CogNboAttrLogSa::dirtyKeysOf(AttributeId id) const {
  auto it = dirtyKeys_.find(id);
  return it == dirtyKeys_.end() ? nullptr : it->second.get();
}

Entity::CogNboAttrLogSa::DirtyKeys* Entity::CogNboAttrLogSa::dirtyKeysIs(
    AttributeId id, std::unique_ptr<DirtyKeys> keys) {
  return (dirtyKeys_[id] = std::move(keys)).get();
}

void Entity::CogNboAttrLogSa::freeResyncState() {
  dirty_.clear();
  dirtyKeys_.clear();
  flowOut_ = FlowOut();
}

bool Entity::CogNboAttrLogSa::prepareImmediateTransmission() const {
  return out_ && !suspended() && out_->size() < capacity_;
}

void Entity::CogNboAttrLogSa::beginRecord(const Ptr<NboAttrLog::Out>& out, AttributeId id,
                                          AttrLogOp op) {
  out->putU32(id);
  out->putU8(static_cast<std::uint8_t>(op));
}

AttrLogOp Entity::CogNboAttrLogSa::readOp(const Ptr<NboAttrLog::In>& in) {
  std::uint8_t op = in->nextU8();
  if (op > static_cast<std::uint8_t>(AttrLogOp::delAll)) {
    throw StreamException("attribute log malformed: record op " + std::to_string(op));
  }
  return static_cast<AttrLogOp>(op);
}

void Entity::CogNboAttrLogSa::checkWriteFromRemote(AttributeId id) const {
  if (readOnlyRemoteProxy() && !allowWriteFromReadOnlyRemote(id)) {
    throw WriteUpdateFromReadOnlyProxyException(
        std::string("update of attribute ") + std::to_string(id) + " of " + typeName() +
        " from a read-only proxy");
  }
}

bool Entity::CogNboAttrLogSa::changeToSend(AttributeId id, const char* name) const {
  if (zombie_ || applying_ == id || suspended()) return false;
  if (readOnly()) throw ReadOnlyException(name);
  return true;
}

void Entity::CogNboAttrLogSa::attrChanged(AttributeId id, const char* name) {
  if (!changeToSend(id, name)) return;
  // An earlier mark of the same attribute keeps its place in the flow.
  if (!dirty_.count(id) && prepareImmediateTransmission()) {
    doSerializeAttr(id, out_);
    return;
  }
  dirty_.insert(id);
}

void Entity::CogNboAttrLogSa::flowOutIs(bool active) {
  if (!active) {
    flowOut_ = FlowOut();
    return;
  }
  flowOut_.active = true;
  flowOut_.current = 0;
  handleAttrFlowOut(0);
}

bool Entity::CogNboAttrLogSa::handleAttrFlowOut(AttributeId from) {
  flowOut_.active = true;
  for (AttributeId id : attrIds()) {
    if (id < from) continue;
    flowOut_.current = id;
    if (dirty_.count(id)) {
      if (!prepareImmediateTransmission()) return false;
      doSerializeAttr(id, out_);
      dirty_.erase(id);
      // A whole collection went out: its key marks are covered.
      dirtyKeys_.erase(id);
    }
    auto keys = dirtyKeys_.find(id);
    if (keys != dirtyKeys_.end()) {
      if (!keys->second->flowOut(*this, id)) return false;
      dirtyKeys_.erase(keys);
    }
  }
  flowOut_ = FlowOut();
  return true;
}

bool Entity::CogNboAttrLogSa::resync() {
  for (AttributeId id : attrIds()) {
    if (isCollection(id) && isResync(id)) {
      allKeysMarked(id);
      // Keys deleted while disconnected: the receiver drops what it does not hear of.
      dirty_.erase(id);
    } else {
      dirty_.insert(id);
    }
  }
  return handleAttrFlowOut(0);
}

void Entity::CogNboAttrLogSa::cogInstantiateSerialize(const Ptr<NboAttrLog::Out>& out) const {
  out->putString(typeName());
  doSerializeCtorArgs(out);
}

void Entity::CogNboAttrLogSa::doSerializeOrphan(const Ptr<NboAttrLog::Out>& out) const {
  for (AttributeId id : attrIds()) doSerializeAttr(id, out);
}

std::vector<AttributeId> Entity::CogNboAttrLogSa::attrIds() const { return {kAttrIdEntityName}; }

void Entity::CogNboAttrLogSa::doSerializeAttr(AttributeId id,
                                              const Ptr<NboAttrLog::Out>& out) const {
  if (id == kAttrIdEntityName) {
    beginRecord(out, id, AttrLogOp::set);
    out->putString(entity_->name().str());
  }
}

void Entity::CogNboAttrLogSa::allKeysMarked(AttributeId) {}

void Entity::CogNboAttrLogSa::doSerializeCtorArgs(const Ptr<NboAttrLog::Out>&) const {}

void Entity::CogNboAttrLogSa::deserialize(const Ptr<NboAttrLog::In>& in) {
  while (!in->atEnd()) {
    AttributeId id = in->nextU32();
    doHandleAttrDeserialization(id, false, 0, in);
  }
}

void Entity::CogNboAttrLogSa::doHandleAttrDeserialization(AttributeId id, bool, unsigned,
                                                          const Ptr<NboAttrLog::In>& in) {
  if (id == kAttrIdEntityName) {
    checkWriteFromRemote(id);
    if (readOp(in) != AttrLogOp::set) {
      throw StreamException("attribute log malformed: the entity name takes a set record");
    }
    entity_->nameIs(Name(in->nextString()));
    return;
  }
  throw StreamException(std::string("attribute log malformed: ") + typeName() +
                        " has no attribute id " + std::to_string(id));
}

void Entity::CogNboAttrLogSa::doHandleAttrTransaction(bool, unsigned) {}

Ptr<PtrInterface> entityFromAttrLog(const Ptr<NboAttrLog::In>& in, NboAttrLogSaFlags flags,
                                    unsigned version) {
  String name = in->nextString();
  const CogType* type = typeByName(name.str());
  if (type == nullptr || type->glue().newEntityForAttrLog == nullptr) {
    throw NotSupportedException("attribute log names " + name.str() +
                                ", which is not a registered entity type");
  }
  return type->glue().newEntityForAttrLog(in, flags, version);
}

}  // namespace Cog

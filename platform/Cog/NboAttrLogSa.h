// Attribute-log stream adapters: Cog::Entity::CogNboAttrLogSa mirrors one
// entity across processes over an attribute log (NboAttrLog.h). Every
// generated entity type T has T::CogNboAttrLogSa, derived from its base's
// adapter (the root's from this class), made by T::cogNboAttrLogSaIs().
//
// Wire form: a sequence of records, each
//   u32 attribute id, u8 op, then by op:
//     set     (0)  the attribute's value (its value-type rule)
//     keySet  (1)  key, then value (sets: key only; entity collections: key
//                  and the member's other constructor parameters)
//     keyDel  (2)  key
//     delAll  (3)  nothing
// Ids below 258 are the framework's entity base (2: the entity's name); an
// entity numbers its own attributes from 258 per inheritance level (386,
// 514). An instantiation header (cogInstantiateSerialize) is the full type
// name as a string followed by the constructor parameters in order.
//
// Output. The adapter observes its entity through a nested notifiee. On a
// change of attribute x (or of one key of collection x) it transmits the
// record at once when the output log has room (out size below capacity),
// else marks the attribute (or that key: per-key dirty marks) dirty; a
// change that came in from the log for that very attribute is not echoed,
// and nothing is sent while output is suspended. A read-only adapter
// refuses local changes with ReadOnlyException naming the attribute.
// handleAttrFlowOut(from) sends what is dirty in id order and stops when the
// log is full, remembering where (flowOutState().current): call it again
// after draining the log. resync() marks everything dirty (collections
// declared `resync` key by key) and flows it out: a full resynchronisation.
//
// Input. deserialize(in) applies every record of `in` to the entity through
// its setters. A read-only remote proxy refuses updates with
// WriteUpdateFromReadOnlyProxyException unless allowWriteFromReadOnlyRemote
// says the attribute may be written.
//
// Adapters belong to their entity's reactor thread.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "Cog/Entity.h"
#include "Cog/NboAttrLog.h"
#include "Cog/Ptr.h"

namespace Cog {

// The "notifiee bit set" an adapter is created with.
using NboAttrLogSaFlags = std::uint32_t;
namespace NboAttrLogSaFlag {
constexpr NboAttrLogSaFlags readOnly = 1;             // local changes may not be sent
constexpr NboAttrLogSaFlags readOnlyRemoteProxy = 2;  // incoming updates are refused
constexpr NboAttrLogSaFlags suspended = 4;            // output suspended at start
}  // namespace NboAttrLogSaFlag

enum class AttrLogOp : std::uint8_t { set = 0, keySet = 1, keyDel = 2, delAll = 3 };

constexpr AttributeId kAttrIdEntityName = 2;
constexpr AttributeId kAttrIdFirstOwn = 258;

class Entity::CogNboAttrLogSa : public PtrInterface {
 public:
  struct FlowOut {
    AttributeId current = 0;  // the attribute the flow is at (resume point)
    bool active = false;      // a flow out is under way
  };

  // The dirty keys of one collection, held as keys of the collection's own
  // key type (DirtyKeySet<K>, defined in Generated.h for the generated
  // adapters). Made on the collection's first mark, dropped when its last
  // mark is sent.
  class DirtyKeys {
   public:
    virtual ~DirtyKeys() = default;
    virtual std::size_t size() const = 0;
    // Sends the marked keys in the order of their attribute-log form, each
    // as the collection holds it now, unmarking each sent key; false when
    // the log filled up first (the rest stay marked).
    virtual bool flowOut(CogNboAttrLogSa& sa, AttributeId id) = 0;
  };
  template <typename K>
  class DirtyKeySet;
  // Writes the record of one key of collection `id` as it is now (keySet
  // when present, keyDel when not).
  template <typename K>
  using KeyWriter = void (*)(const CogNboAttrLogSa& sa, AttributeId id, const K& key,
                             const Ptr<NboAttrLog::Out>& out);

  Entity* entity() const { return entity_.ptr(); }
  const Ptr<NboAttrLog::Out>& out() const { return out_; }
  void outIs(const Ptr<NboAttrLog::Out>& out) { out_ = out; }
  // Bytes the output log may hold before changes wait as dirty marks.
  std::size_t capacity() const { return capacity_; }
  void capacityIs(std::size_t capacity) { capacity_ = capacity; }
  NboAttrLogSaFlags flags() const { return flags_; }
  bool readOnly() const { return flags_ & NboAttrLogSaFlag::readOnly; }
  bool readOnlyRemoteProxy() const { return flags_ & NboAttrLogSaFlag::readOnlyRemoteProxy; }
  bool suspended() const { return flags_ & NboAttrLogSaFlag::suspended; }
  void suspendedIs(bool suspended);

  // ---- output
  bool flowOut() const { return flowOut_.active; }
  // Starts (true) a flow out of everything dirty, or abandons it (false).
  void flowOutIs(bool active);
  const FlowOut& flowOutState() const { return flowOut_; }
  // Sends dirty attributes and keys with ids >= `from` in id order; returns
  // true when nothing dirty is left, false when the log filled up.
  virtual bool handleAttrFlowOut(AttributeId from);
  // Marks every attribute dirty and flows out.
  bool resync();
  bool dirty(AttributeId id) const { return dirty_.count(id) != 0; }
  std::size_t dirtyKeys(AttributeId id) const;
  // Drops every dirty mark.
  void freeResyncState();
  // Writes the instantiation header: type name and constructor parameters.
  void cogInstantiateSerialize(const Ptr<NboAttrLog::Out>& out) const;
  // Writes every attribute to `out` (no dirty marks involved).
  void doSerializeOrphan(const Ptr<NboAttrLog::Out>& out) const;
  // True when a record of `size` more bytes fits now.
  bool prepareImmediateTransmission() const;

  // ---- input
  // Applies every record of `in`; StreamException on malformed input.
  void deserialize(const Ptr<NboAttrLog::In>& in);
  virtual void doHandleAttrDeserialization(AttributeId id, bool transaction, unsigned version,
                                           const Ptr<NboAttrLog::In>& in);
  // Records of a transaction are applied as they come.
  virtual void doHandleAttrTransaction(bool begin, unsigned version);
  virtual bool allowWriteFromReadOnlyRemote(AttributeId) const { return false; }

  // A second adapter for the same entity writing to `out`.
  virtual Ptr<CogNboAttrLogSa> cloneSa(const Ptr<NboAttrLog::Out>& out) const = 0;
  // Switches the adapter's subscription to its entity.
  virtual void hasNotificationActiveIs(bool active) = 0;
  // A zombie adapter ignores its entity's changes.
  virtual void cogDoZombieReactors(bool zombie) { zombie_ = zombie; }
  bool zombie() const { return zombie_; }

  // Every attribute id, base first, in order; whether an id is a collection
  // and whether it is resynchronised key by key.
  virtual std::vector<AttributeId> attrIds() const;
  virtual bool isCollection(AttributeId) const { return false; }
  virtual bool isResync(AttributeId) const { return false; }

 protected:
  CogNboAttrLogSa(Entity* entity, NboAttrLogSaFlags flags, const Ptr<NboAttrLog::Out>& out);

  // Called by generated onX(): a scalar changed / a key changed. The key is
  // sent at once through `write` when the log has room and no earlier mark
  // of it waits, else marked. Defined in Generated.h.
  void attrChanged(AttributeId id, const char* name);
  template <typename K>
  void keyChanged(AttributeId id, const char* name, const K& key, KeyWriter<K> write);
  // Marks every key of `keys` (resynchronisation). Defined in Generated.h.
  template <typename K>
  void keysMarked(AttributeId id, const std::vector<K>& keys, KeyWriter<K> write);

  // Generated: the whole attribute (collections: delAll then every key).
  virtual void doSerializeAttr(AttributeId id, const Ptr<NboAttrLog::Out>& out) const;
  // Generated: marks every key a collection holds now (keysMarked).
  virtual void allKeysMarked(AttributeId id);
  // Generated: the constructor parameters after the type name.
  virtual void doSerializeCtorArgs(const Ptr<NboAttrLog::Out>& out) const;
  virtual const char* typeName() const = 0;

  static void beginRecord(const Ptr<NboAttrLog::Out>& out, AttributeId id, AttrLogOp op);
  static AttrLogOp readOp(const Ptr<NboAttrLog::In>& in);
  // Throws WriteUpdateFromReadOnlyProxyException when `id` may not be
  // written from the log.
  void checkWriteFromRemote(AttributeId id) const;

  // Marks the attribute being applied from the log, so its change is not echoed.
  class Applying {
   public:
    Applying(CogNboAttrLogSa* sa, AttributeId id) : sa_(sa), saved_(sa->applying_) {
      sa_->applying_ = id;
    }
    ~Applying() { sa_->applying_ = saved_; }
    Applying(const Applying&) = delete;
    Applying& operator=(const Applying&) = delete;

   private:
    CogNboAttrLogSa* sa_;
    AttributeId saved_;
  };

  // False when a change of `id` is not to be sent: the adapter is a
  // zombie, the change came in from the log, or output is suspended.
  // ReadOnlyException naming the attribute for a read-only adapter.
  bool changeToSend(AttributeId id, const char* name) const;
  // The marks of collection `id`, or null when it has none.
  DirtyKeys* dirtyKeysOf(AttributeId id) const;
  DirtyKeys* dirtyKeysIs(AttributeId id, std::unique_ptr<DirtyKeys> keys);
  // The marks of collection `id`, made on its first mark.
  template <typename K>
  DirtyKeySet<K>& markedKeys(AttributeId id, KeyWriter<K> write);

 private:

  Ptr<Entity> entity_;
  NboAttrLogSaFlags flags_;
  Ptr<NboAttrLog::Out> out_;
  std::size_t capacity_ = ~std::size_t(0);
  std::set<AttributeId> dirty_;
  std::map<AttributeId, std::unique_ptr<DirtyKeys>> dirtyKeys_;
  FlowOut flowOut_;
  AttributeId applying_ = 0;
  bool zombie_ = false;
};

// Reads an instantiation header (type name, constructor parameters) and
// makes the entity through its type's newEntityForAttrLog hook.
// NotSupportedException for a type that is not a registered entity.
Ptr<PtrInterface> entityFromAttrLog(const Ptr<NboAttrLog::In>& in, NboAttrLogSaFlags flags = 0,
                                    unsigned version = 0);

}  // namespace Cog

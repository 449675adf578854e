// Keyed tables of values that carry their own key, shared between processes
// through POSIX shared memory: one writer process, any number of readers.
//
//   Memtab::Writer<Error> w("error");          // creates or re-attaches
//   w.insert(e);                               // insert or overwrite
//   w.del(key);  w.delAll();
//
//   Memtab::Reader<Error> r("error");          // in another process
//   Error e = r.lookup(key);                   // default value when absent
//   for (const Error& e : r) ...               // every key, in the table's order
//   poll r.fd(); then r.processNotifications(notifiee);
//
// The value type V (see TableValue) is default-constructible, carries its key
// (ValueTraits<V>::key(v), by default v.key()), and has a variable-length
// image: serializeLen(), serialize(uint8_t*), static deserializeLen(const
// uint8_t*, size_t) (0 for an invalid image; otherwise how many bytes
// deserialize may read, which can exceed the image: the table zero-pads) and
// deserialize(const uint8_t*, size_t). Keys have hash() and ==.
//
// Guarantees:
//  - A reader never sees a torn value: every lookup yields a value that was
//    stored under that key at some moment during the call, or the default
//    value if the key was absent at some moment during it. The writer never
//    waits for readers.
//  - Iteration visits keys in order of their (mixed) hash. A key present
//    for the whole iteration is visited exactly once, even across a resize;
//    keys inserted or deleted meanwhile may or may not be visited. Values are
//    read as the iteration reaches them.
//  - The writer killed at any moment leaves every key with its old or its new
//    value. A new writer of the same name re-attaches, checks every entry,
//    drops (and reports) the ones it cannot read, and carries on.
//  - Everything read from the segment is checked: an invalid image, offset or
//    length goes to the table's corruption handler with a message; the lookup
//    then yields the default value and an iteration ends. Nothing in the
//    segment can crash a reader or make it loop forever.
//  - Segments are "/memtab.<name>" (see validateTableName), mode 0600 unless
//    Options say otherwise, written only by their owner; readers map them
//    read-only and refuse segments owned by a user other than themselves or
//    root.
//
// Notifications (Reader): fd() is readable when something happened;
// processNotifications() then delivers, on the caller's thread: mount-status
// changes; onTable() when a segment is first mapped, replaced or gone, or
// the writer restarted or cleared the table; and onKey(k) once per key that
// changed since the last call (several changes of a key arrive as one; look
// the key up for its current value). No change is lost: whatever happened
// (this reader fell behind the writer's change ring, the writer restarted,
// cleared the table, or the table was replaced or removed), every key whose
// entry may differ from the one last delivered gets its onKey(k), removed
// keys included. onTable() on the first mapping is the one exception: it
// stands for every key present then; replay() announces them one by one
// for a notifiee that needs that.
//
// How: every record of a key has a version of its own, and every change in
// the ring names it. The reader keeps, per key, the version it last
// delivered (its shadow of the table): that of the change, or what the
// notifiee's own lookups and iterations returned while it was being
// notified, for the table may have moved on by then. When it has missed
// changes it compares the table with the shadow instead. The shadow is
// bounded by the table's size, never by the rate of change: one slot of a
// key and 8 bytes per key, at a load of a quarter to seven tenths. (A notifiee that looks keys up later,
// outside its callbacks, may see a state the reader does not know it saw.)
//
// The writer needs no polling for any of this: changes ring the readers'
// doorbells, and readers that join are taken in on the next change (see
// Notify.h). Polling fd() and calling serviceReaders() only lets it drop
// departed readers and take in new ones while it makes no changes.
//
// Writer and LocalTable deliver the same callbacks synchronously to the
// notifiee set with notifieeIs(), as each change is made.
//
// Threads: a table object is used by one thread at a time.
#pragma once

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <concepts>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeinfo>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Activity/Counter.h"
#include "Cog/Assert.h"
#include "Cog/Exception.h"
#include "Memtab/Notify.h"
#include "Memtab/Segment.h"

namespace Memtab {

// How a table finds the key in its values; specialise for values whose key
// is not v.key().
template <class V>
struct ValueTraits {
  static decltype(auto) key(const V& v) { return v.key(); }
  // Identifies the value type in the segment, so that a reader of another
  // type refuses the table.
  static const char* typeName() { return typeid(V).name(); }
};

template <class V>
using KeyOf = std::remove_cvref_t<decltype(ValueTraits<V>::key(std::declval<const V&>()))>;

template <class V>
concept TableValue =
    std::default_initializable<V> && std::copyable<V> &&
    requires(const V& cv, V& v, const std::uint8_t* in, std::uint8_t* out, std::size_t n) {
      { cv.serializeLen() } -> std::convertible_to<std::size_t>;
      cv.serialize(out);
      { V::deserializeLen(in, n) } -> std::convertible_to<std::size_t>;
      v.deserialize(in, n);
      { ValueTraits<V>::key(cv).hash() } -> std::convertible_to<std::uint64_t>;
      { ValueTraits<V>::key(cv) == ValueTraits<V>::key(cv) } -> std::convertible_to<bool>;
    };

template <class Key>
class Notifiee {
 public:
  virtual ~Notifiee() = default;
  virtual void onKey(const Key&) {}
  virtual void onTable() {}
  virtual void onMountStatus(MountStatus) {}
};

struct Options {
  // Entries to make room for when the table is created.
  std::size_t capacity = 0;
  // Bytes of change ring (a power of two, at least 4096; 0 for none).
  // A reader that falls more than this behind compares the whole table
  // with what it delivered instead, which costs it more.
  std::size_t ringBytes = 1u << 20;
  mode_t mode = 0600;
  // Writer: a group whose members may read the table (adds group read to
  // `mode`). Readers in that group that run as another user name the
  // writer's user in `writerUid`; by default a reader trusts only tables
  // owned by its own user or root.
  std::string group;
  uid_t writerUid = static_cast<uid_t>(-1);
  // Receives a message for every piece of corruption met; by default the
  // message goes to stderr.
  std::function<void(const std::string&)> corruptionHandler;
};

namespace detail {

inline std::uint32_t typeTag(const char* name) {
  std::uint32_t h = 2166136261u;  // FNV-1a
  for (const char* p = name; *p != 0; ++p) h = (h ^ static_cast<unsigned char>(*p)) * 16777619u;
  return h;
}

template <class V>
std::uint32_t hashOf(const KeyOf<V>& key) {
  return Shm::mixHash(static_cast<std::uint32_t>(key.hash()));
}

// Turns an image copied out of a segment into a value, checking it on the
// way. `image` holds `length` bytes and may be zero-padded here.
template <class V>
bool decode(std::vector<std::uint8_t>& image, std::uint32_t length, V* out, std::string* why) {
  const std::size_t need = V::deserializeLen(image.data(), length);
  if (need == 0) {
    *why = "invalid image of " + std::to_string(length) + " bytes";
    return false;
  }
  if (need > Shm::kMaxImageBytes) {
    *why = "image claims " + std::to_string(need) + " bytes";
    return false;
  }
  if (need > image.size()) image.resize(need, 0);
  try {
    *out = V();
    out->deserialize(image.data(), length);
  } catch (const Cog::Exception& e) {
    *why = "image of " + std::to_string(length) + " bytes does not deserialize: " + e.what();
    return false;
  }
  if (static_cast<std::size_t>(out->serializeLen()) != length) {
    *why = "image of " + std::to_string(length) + " bytes holds a value of " +
           std::to_string(static_cast<std::size_t>(out->serializeLen())) + " bytes";
    return false;
  }
  return true;
}

template <class V>
class Codec final : public Shm::Codec {
 public:
  bool check(std::vector<std::uint8_t>& image, std::uint32_t length, std::uint32_t* hash,
             std::string* why) const override {
    V v;
    if (!decode(image, length, &v, why)) return false;
    *hash = hashOf<V>(ValueTraits<V>::key(v));
    return true;
  }
  bool sameKey(std::vector<std::uint8_t>& a, std::uint32_t aLength, std::vector<std::uint8_t>& b,
               std::uint32_t bLength) const override {
    V x, y;
    std::string why;
    return decode(a, aLength, &x, &why) && decode(b, bLength, &y, &why) &&
           ValueTraits<V>::key(x) == ValueTraits<V>::key(y);
  }
};

// A reader's shadow of its table: per key, one 64-bit word (never 0 or 1).
// Open addressing with linear probing in one array: no allocation per key,
// (sizeof(Key) + 8) bytes per slot at a load of a quarter to seven tenths.
template <class Key, class Hash>
class ShadowMap {
 public:
  std::size_t size() const { return size_; }
  std::size_t bytes() const { return slots_.capacity() * sizeof(Slot); }

  // The word of `key`, or null.
  std::uint64_t* find(const Key& key) {
    Slot* s = at(key);
    return s == nullptr ? nullptr : &s->word;
  }
  // The word of `key`, inserted (as kFresh) when absent; `fresh` says
  // which. Valid until the next insertion.
  std::uint64_t* slot(const Key& key, bool* fresh) {
    if (auto* w = find(key)) {
      *fresh = false;
      return w;
    }
    if ((used_ + 1) * 10 > slots_.size() * 7) rehash();
    std::size_t i = home(key);
    while (slots_[i].word != kEmpty && slots_[i].word != kRemoved) i = (i + 1) & mask_;
    used_ += slots_[i].word == kEmpty;
    ++size_;
    slots_[i].key = key;
    slots_[i].word = kFresh;
    *fresh = true;
    return &slots_[i].word;
  }
  void erase(const Key& key) {
    if (Slot* s = at(key)) remove(*s);
  }
  // Calls fn(key, word) for every entry; removes those for which it says so.
  template <class Fn>
  void eraseIf(Fn&& fn) {
    for (Slot& s : slots_) {
      if (s.word != kEmpty && s.word != kRemoved && fn(s.key, s.word)) remove(s);
    }
  }
  void clear() {
    slots_.clear();
    slots_.shrink_to_fit();
    size_ = used_ = 0;
    mask_ = 0;
  }

  static constexpr std::uint64_t kFresh = 2;

 private:
  static constexpr std::uint64_t kEmpty = 0;
  static constexpr std::uint64_t kRemoved = 1;
  struct Slot {
    Key key{};
    std::uint64_t word = kEmpty;
  };
  Slot* at(const Key& key) {
    if (slots_.empty()) return nullptr;
    for (std::size_t i = home(key);; i = (i + 1) & mask_) {
      Slot& s = slots_[i];
      if (s.word == kEmpty) return nullptr;
      if (s.word != kRemoved && s.key == key) return &s;
    }
  }
  std::size_t home(const Key& key) const {
    // Fibonacci hashing spreads even a weak key hash over the array.
    const std::uint64_t h = static_cast<std::uint64_t>(Hash()(key)) * 0x9e3779b97f4a7c15ull;
    return static_cast<std::size_t>(h >> 32) & mask_;
  }
  void remove(Slot& s) {
    s.key = Key();
    s.word = kRemoved;
    --size_;
  }
  void rehash() {
    std::size_t capacity = 16;
    while (capacity < (size_ + 1) * 2) capacity *= 2;
    std::vector<Slot> old(capacity);
    old.swap(slots_);
    mask_ = capacity - 1;
    used_ = size_;
    for (Slot& s : old) {
      if (s.word == kEmpty || s.word == kRemoved) continue;
      std::size_t i = home(s.key);
      while (slots_[i].word != kEmpty) i = (i + 1) & mask_;
      slots_[i] = std::move(s);
    }
  }

  std::vector<Slot> slots_;
  std::size_t size_ = 0;
  std::size_t used_ = 0;  // entries and removed slots
  std::size_t mask_ = 0;
};

struct Counters {
  explicit Counters(const std::string& prefix)
      : insert(counter(prefix, "insert")),
        del(counter(prefix, "del")),
        delAll(counter(prefix, "delAll")),
        commit(counter(prefix, "commit")),
        notify(counter(prefix, "notify")),
        fellBehind(counter(prefix, "fellBehind")),
        corruption(counter(prefix, "corruption")) {}
  static Activity::Counter& counter(const std::string& prefix, const char* op) {
    return Activity::CounterWriter::process().counter(prefix + "." + op);
  }
  Activity::Counter& insert;
  Activity::Counter& del;
  Activity::Counter& delAll;
  Activity::Counter& commit;
  Activity::Counter& notify;
  Activity::Counter& fellBehind;
  Activity::Counter& corruption;
};

inline gid_t groupId(const std::string& group) {
  if (group.empty()) return static_cast<gid_t>(-1);
  struct group g, *found = nullptr;
  std::vector<char> buf(16384);
  if (getgrnam_r(group.c_str(), &g, buf.data(), buf.size(), &found) != 0 || found == nullptr) {
    throw Cog::RangeException("memtab: no group named '" + group + "'");
  }
  return g.gr_gid;
}

}  // namespace detail

// What every table offers for reading.
template <TableValue V>
class Table {
 public:
  using Value = V;
  using Key = KeyOf<V>;
  struct KeyHash {
    std::size_t operator()(const Key& k) const { return static_cast<std::size_t>(k.hash()); }
  };

  virtual ~Table() = default;
  Table(const Table&) = delete;
  Table& operator=(const Table&) = delete;

  const std::string& name() const { return name_; }

  // The value stored under `key`, or V() when there is none (or it cannot be
  // read: then the corruption handler has the reason).
  V lookup(const Key& key) const {
    V out;
    if (!find(key, &out)) out = V();
    return out;
  }
  std::optional<V> find(const Key& key) const {
    V out;
    if (find(key, &out)) return out;
    return std::nullopt;
  }
  bool contains(const Key& key) const {
    V out;
    return find(key, &out);
  }
  // Entries in the table (for readers, as last published by the writer).
  std::size_t size() const {
    Shm::View* v = view();
    return v == nullptr ? 0 : static_cast<std::size_t>(v->count());
  }

  void corruptionHandlerIs(std::function<void(const std::string&)> handler) {
    handler_ = std::move(handler);
  }

  // Iteration in the table's order; values are read as it goes.
  class Iterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using value_type = V;
    using difference_type = std::ptrdiff_t;
    using pointer = const V*;
    using reference = const V&;

    Iterator() = default;
    const V& operator*() const {
      COG_ASSERT(!done_);
      return group_[at_];
    }
    const V* operator->() const { return &**this; }
    Iterator& operator++() {
      COG_ASSERT(!done_);
      if (++at_ == group_.size()) fill();
      return *this;
    }
    void operator++(int) { ++*this; }
    bool operator==(const Iterator& other) const {
      return done_ == other.done_ && (done_ || (table_ == other.table_ && last_ == other.last_ &&
                                                at_ == other.at_));
    }

   private:
    friend class Table;
    explicit Iterator(const Table* table) : table_(table), done_(false) { fill(); }
    void fill() {
      group_.clear();
      at_ = 0;
      while (group_.empty()) {
        Shm::View* v = table_->view();
        std::uint32_t h = 0;
        std::string why;
        auto step = v == nullptr ? Shm::View::Step::end : v->nextGroup(started_, last_, &h, &why);
        if (step != Shm::View::Step::group) {
          if (step == Shm::View::Step::corrupt) table_->reportCorruption(why);
          done_ = true;
          return;
        }
        started_ = true;
        last_ = h;
        for (std::size_t i = 0; i < v->groupImages().size(); ++i) {
          V value;
          if (!detail::decode(v->groupImage(i), v->groupImages()[i].length, &value, &why)) {
            table_->reportCorruption("record at offset " +
                                     std::to_string(v->groupImages()[i].offset) + ": " + why);
            group_.clear();
            done_ = true;
            return;
          }
          bool seen = false;
          for (auto& g : group_) seen = seen || ValueTraits<V>::key(g) == ValueTraits<V>::key(value);
          if (seen) continue;
          if (table_->observing_) {
            table_->observed(ValueTraits<V>::key(value), true, v->groupImages()[i].version);
          }
          group_.push_back(std::move(value));
        }
      }
    }

    const Table* table_ = nullptr;
    bool done_ = true;
    bool started_ = false;
    std::uint32_t last_ = 0;
    std::vector<V> group_;
    std::size_t at_ = 0;
  };
  Iterator begin() const { return Iterator(this); }
  Iterator end() const { return Iterator(); }

 protected:
  // A local table has no name of its own; its counters are shared.
  Table(std::string name, const Options& options, bool local)
      : name_(local ? std::move(name) : checked(std::move(name))),
        handler_(options.corruptionHandler),
        counters_(local ? std::string("memtab.local") : "memtab." + name_) {}

  static std::string checked(std::string name) {
    validateTableName(name);
    return name;
  }

  static Shm::Verdict matchKey(void* context, std::vector<std::uint8_t>& image,
                               std::uint32_t length, std::string* why) {
    const Key* key = static_cast<const Key*>(context);
    V v;
    if (!detail::decode(image, length, &v, why)) return Shm::Verdict::invalid;
    return ValueTraits<V>::key(v) == *key ? Shm::Verdict::match : Shm::Verdict::noMatch;
  }

  // The mapped segment, or null while there is none.
  virtual Shm::View* view() const = 0;

  bool find(const Key& key, V* out) const {
    Shm::View* v = view();
    if (v == nullptr) return false;
    auto match = [&](std::vector<std::uint8_t>& image, std::uint32_t length, std::string* why) {
      if (!detail::decode(image, length, out, why)) return Shm::Verdict::invalid;
      return ValueTraits<V>::key(*out) == key ? Shm::Verdict::match : Shm::Verdict::noMatch;
    };
    std::string why;
    switch (v->find(detail::hashOf<V>(key), match, &why)) {
      case Shm::View::Found::yes:
        if (observing_) observed(key, true, v->foundVersion());
        return true;
      case Shm::View::Found::no:
        if (observing_) observed(key, false, 0);
        return false;
      case Shm::View::Found::corrupt: reportCorruption(why); return false;
    }
    return false;
  }

  // While `observing_` is set, lookups and iterations report here each key
  // they found (with its record's version) or found absent.
  virtual void observed(const Key&, bool /*present*/, std::uint64_t /*version*/) const {}
  mutable bool observing_ = false;

  void reportCorruption(const std::string& why) const {
    counters_.corruption.increment();
    std::string message = "memtab table " + name_ + ": " + why;
    if (handler_) {
      handler_(message);
    } else {
      std::fprintf(stderr, "%s\n", message.c_str());
    }
  }
  Shm::CorruptionReport reporter() const {
    return [this](const std::string& m) {
      counters_.corruption.increment();
      if (handler_) {
        handler_(m);
      } else {
        std::fprintf(stderr, "%s\n", m.c_str());
      }
    };
  }

  std::string name_;
  std::function<void(const std::string&)> handler_;
  detail::Counters counters_;
};

namespace detail {

// The writing side, over a shared segment (Writer) or private memory
// (LocalTable).
template <TableValue V>
class WritableTable : public Table<V> {
 public:
  using Key = KeyOf<V>;

  // Inserts `value` under its key or overwrites what is there. Returns false
  // (and notifies nobody) when the stored image is already identical.
  bool insert(const V& value) {
    const bool changed = store(value, false);
    if (changed) this->counters_.insert.increment();
    return changed;
  }
  // Removes `key`; false when it was absent.
  bool del(const Key& key) {
    std::uint32_t oldLength = 0;
    const Key k = key;  // `key` may live in the entry being removed
    if (!store_->erase(detail::hashOf<V>(k), &Table<V>::matchKey, const_cast<Key*>(&k),
                       &old_, &oldLength)) {
      return false;
    }
    this->counters_.del.increment();
    edits_.erase(k);
    changed(Shm::RingKind::key, old_.data(), oldLength, &k, true);
    return true;
  }
  void delAll() {
    store_->clear();
    edits_.clear();
    this->counters_.delAll.increment();
    changed(Shm::RingKind::table, nullptr, 0, nullptr, false);
  }
  // A working copy of the value stored under `key`, to be edited in place
  // and published with commit(); null when the key is absent. The copy
  // stays valid until it is committed or its key is deleted.
  V* edit(const Key& key) {
    V v;
    if (!Table<V>::find(key, &v)) return nullptr;
    auto [it, inserted] = edits_.insert_or_assign(key, std::move(v));
    return &it->second;
  }
  // Direct commit: publishes `value` (typically from edit()) under its key
  // and notifies, even when the image is unchanged.
  void commit(const V* value) {
    COG_ASSERT(value != nullptr);
    store(*value, true);
    this->counters_.commit.increment();
    const Key k = ValueTraits<V>::key(*value);
    edits_.erase(k);
  }
  // Makes room for `entries` entries at once.
  void reserve(std::size_t entries) { store_->reserve(entries); }

  void notifieeIs(Notifiee<Key>* notifiee) { notifiee_ = notifiee; }

  // Bytes the table uses: header, change ring, bucket array and records.
  std::uint64_t usedBytes() const { return store_->usedBytes(); }
  std::uint64_t resizes() const { return store_->resizes(); }

 protected:
  WritableTable(std::string name, const Options& options, bool local)
      : Table<V>(std::move(name), options, local) {}

  Shm::View* view() const override { return store_.get(); }

  bool store(const V& value, bool force) {
    const std::size_t length = value.serializeLen();
    if (length > Shm::kMaxImageBytes) {
      throw Cog::RangeException("memtab table " + this->name_ + ": value image of " +
                                std::to_string(length) + " bytes is too large");
    }
    image_.resize(length);
    value.serialize(image_.data());
    const Key k = ValueTraits<V>::key(value);
    auto r = store_->upsert(detail::hashOf<V>(k), image_.data(), static_cast<std::uint32_t>(length),
                            force, &Table<V>::matchKey, const_cast<Key*>(&k));
    if (r == Shm::Store::Upsert::unchanged) return false;
    changed(Shm::RingKind::key, image_.data(), static_cast<std::uint32_t>(length), &k, false);
    return true;
  }

  // A key's entry was written, or removed (`erased`), or the whole table
  // changed (`key` null).
  virtual void changed(Shm::RingKind /*kind*/, const std::uint8_t* /*image*/,
                       std::uint32_t /*length*/, const Key* key, bool /*erased*/) {
    if (notifiee_ == nullptr) return;
    if (key != nullptr) {
      notifiee_->onKey(*key);
    } else {
      notifiee_->onTable();
    }
  }

  std::unique_ptr<Shm::Store> store_;
  std::vector<std::uint8_t> image_;
  std::vector<std::uint8_t> old_;
  std::unordered_map<Key, V, typename Table<V>::KeyHash> edits_;
  Notifiee<Key>* notifiee_ = nullptr;
};

}  // namespace detail

// The one writer of a shared table.
template <TableValue V>
class Writer : public detail::WritableTable<V> {
 public:
  using Key = KeyOf<V>;

  // Creates table `name` or re-attaches to it (checking and repairing it).
  // Throws Cog::RangeException for a bad name or when the segment cannot be
  // made, Cog::NameInUseException when another process is its writer or it
  // holds another value type.
  explicit Writer(std::string name, Options options = {})
      : detail::WritableTable<V>(std::move(name), options, false) {
    Shm::StoreConfig config;
    config.name = this->name_;
    config.typeTag = detail::typeTag(ValueTraits<V>::typeName());
    config.typeName = ValueTraits<V>::typeName();
    config.ringBytes = options.ringBytes;
    config.initialCapacity = options.capacity;
    config.group = detail::groupId(options.group);
    config.mode = options.mode | (options.group.empty() ? 0 : S_IRGRP);
    detail::Codec<V> codec;
    this->store_ = Shm::Store::open(config, codec, this->reporter());
    links_ = std::make_unique<Shm::ReaderLinks>(this->name_, config.group, config.mode);
    // Lets waiting readers know the writer is ready.
    this->store_->touch();
  }

  // Readable when readers come or go; serviceReaders() then takes them in
  // or lets them go. Optional: every change takes in the readers that have
  // joined since the last one, and now and then drops departed ones.
  int fd() const { return links_->fd(); }
  void serviceReaders() {
    links_->service();
    this->store_->readersAre(static_cast<std::uint32_t>(links_->readers()));
  }
  std::size_t readers() const { return links_->readers(); }

 private:
  void changed(Shm::RingKind kind, const std::uint8_t* image, std::uint32_t length,
               const Key* key, bool erased) override {
    this->store_->publish(kind, image, length, this->store_->changedVersion(), erased);
    if (links_->joined() || (++ops_ & 1023) == 0) serviceReaders();
    links_->ring();
    detail::WritableTable<V>::changed(kind, image, length, key, erased);
  }

  std::unique_ptr<Shm::ReaderLinks> links_;
  std::uint64_t ops_ = 0;
};

// A table with the same interface in process-private memory.
template <TableValue V>
class LocalTable : public detail::WritableTable<V> {
 public:
  explicit LocalTable(Options options = {})
      : detail::WritableTable<V>("local", options, true) {
    Shm::StoreConfig config;
    config.ringBytes = 0;
    config.initialCapacity = options.capacity;
    this->store_ = Shm::Store::local(config);
  }
};

// A reader of a shared table, in any process.
template <TableValue V>
class Reader : public Table<V> {
 public:
  using Key = KeyOf<V>;

  // Maps table `name` if it exists; otherwise the reader is unmounted until
  // the table appears (which processNotifications() takes in).
  explicit Reader(std::string name, Options options = {})
      : Table<V>(std::move(name), options, false) {
    mount_ = std::make_unique<Shm::Mount>(this->name_, detail::typeTag(ValueTraits<V>::typeName()),
                                          options.writerUid, this->reporter());
    segmentNew_ = mount_->update(true).contentsNew;
    // The first processNotifications() announces the initial state.
    mount_->wake();
  }

  int fd() const { return mount_->fd(); }
  MountStatus mountStatus() const { return mount_->status(); }

  // Delivers what happened since the last call; see the header comment.
  // Never blocks.
  void processNotifications(Notifiee<Key>& notifiee) {
    const MountStatus before = mount_->status();
    auto u = mount_->update(false);
    segmentNew_ = segmentNew_ || u.contentsNew;
    bool table = u.contentsNew || (before != MountStatus::unmounted &&
                                   mount_->status() == MountStatus::unmounted);
    if (!announced_) {
      announced_ = true;
      u.statusChanged = u.statusChanged || mount_->status() != MountStatus::unmounted;
      table = table || mount_->status() != MountStatus::unmounted;
    }
    pending_.clear();
    pendingSet_.clear();
    if (Shm::View* v = mount_->view()) {
      Context context{this, false, false};
      std::string why;
      if (!v->readRing(mount_->ringPosition(), &Reader::visitRing, &context, &why)) {
        if (!why.empty()) this->reportCorruption(why);
        this->counters_.fellBehind.increment();
        context.resync = true;
      }
      table = table || context.table;
      if (segmentNew_) {
        segmentNew_ = false;
        // The first segment stands for itself (onTable); after that, the
        // versions of another segment say nothing about this one's.
        resynchronise(v, baseline_ ? Sweep::everything : Sweep::silent);
        baseline_ = true;
      } else if (context.resync) {
        resynchronise(v, Sweep::changed);
      }
    } else {
      // Gone: every key delivered is absent now.
      shadow_.eraseIf([&](const Key& k, std::uint64_t) {
        addPending(k);
        return true;
      });
      shadow_.clear();
    }
    // What the notifiee looks up while it is told of changes is what it
    // has seen: the shadow takes that in.
    Observing observing(this);
    if (u.statusChanged) notifiee.onMountStatus(mount_->status());
    if (table) notifiee.onTable();
    for (const Key& k : pending_) {
      this->counters_.notify.increment();
      notifiee.onKey(k);
    }
    pending_.clear();
    pendingSet_.clear();
    mount_->arm();
  }

  // Announces every key present in the table once through onKey, in the
  // table's order: for a notifiee that must see what was there before it
  // started. Keys changed meanwhile may or may not be among them; their
  // changes are delivered by processNotifications() as usual.
  void replay(Notifiee<Key>& notifiee) {
    Shm::View* v = mount_->view();
    if (v == nullptr) return;
    std::vector<Key> group;
    Observing observing(this);
    forEachGroup(v, [&](std::vector<std::pair<Key, std::uint64_t>>& entries) {
      group.clear();
      for (auto& e : entries) group.push_back(std::move(e.first));
      for (const Key& k : group) {
        this->counters_.notify.increment();
        notifiee.onKey(k);
      }
    });
  }

  // Keys in this reader's shadow of the table (see the header comment).
  std::size_t shadowKeys() const { return shadow_.size(); }
  std::size_t shadowBytes() const { return shadow_.bytes(); }

 private:
  Shm::View* view() const override { return mount_->view(); }

  // The notifiee saw this state of `key` while being told of changes. A
  // key it saw absent must be announced if it is ever present again, and
  // one it saw present whenever its record is replaced or removed: even if
  // the change that made it so is lost, and even if the table went back
  // to what was last delivered before the notifiee looked.
  void observed(const Key& key, bool present, std::uint64_t version) const override {
    if (present) {
      bool fresh;
      *shadow_.slot(key, &fresh) = shadowWord(version);
    } else {
      shadow_.erase(key);
    }
  }

  // Lookups report to the shadow while one lives (even if a callback throws).
  struct Observing {
    const Reader* reader;
    explicit Observing(const Reader* r) : reader(r) { reader->observing_ = true; }
    ~Observing() { reader->observing_ = false; }
    Observing(const Observing&) = delete;
    Observing& operator=(const Observing&) = delete;
  };

  // Shadow entries: the record version last delivered (40 bits) and the
  // sweep that last saw the key in the table (24 bits).
  static constexpr std::uint64_t kVersionBits = 40;
  static constexpr std::uint64_t kVersionMask = (std::uint64_t{1} << kVersionBits) - 1;
  std::uint64_t shadowWord(std::uint64_t version) const {
    return (version & kVersionMask) | (static_cast<std::uint64_t>(sweep_) << kVersionBits);
  }

  struct Context {
    Reader* self;
    bool table;   // the writer restarted or cleared the table
    bool resync;  // compare the table with the shadow
  };
  static bool visitRing(void* c, Shm::RingKind kind, std::vector<std::uint8_t>& image,
                        std::uint32_t length, std::uint64_t version, bool erased,
                        std::string* why) {
    auto* ctx = static_cast<Context*>(c);
    Reader& self = *ctx->self;
    if (kind == Shm::RingKind::table) {
      ctx->table = true;
      ctx->resync = true;
      return true;
    }
    V value;
    if (!detail::decode(image, length, &value, why)) return false;
    Key k = ValueTraits<V>::key(value);
    if (erased) {
      // A shadow that already holds a later record of the key keeps it.
      const std::uint64_t* w = self.shadow_.find(k);
      if (w != nullptr && (*w & kVersionMask) == (version & kVersionMask)) self.shadow_.erase(k);
    } else {
      bool fresh;
      *self.shadow_.slot(k, &fresh) = self.shadowWord(version);
    }
    self.addPending(std::move(k));
    return true;
  }

  void addPending(Key k) {
    if (pendingSet_.insert(k).second) pending_.push_back(std::move(k));
  }

  // Calls `fn` with each group of entries (key, record version) in the
  // table's order; false when the iteration met corruption (reported).
  template <class Fn>
  bool forEachGroup(Shm::View* v, Fn&& fn) {
    std::vector<std::pair<Key, std::uint64_t>> entries;
    bool started = false;
    std::uint32_t last = 0;
    for (;;) {
      std::uint32_t h = 0;
      std::string why;
      const auto step = v->nextGroup(started, last, &h, &why);
      if (step == Shm::View::Step::end) return true;
      if (step == Shm::View::Step::corrupt) {
        this->reportCorruption(why);
        return false;
      }
      started = true;
      last = h;
      entries.clear();
      for (std::size_t i = 0; i < v->groupImages().size(); ++i) {
        const auto& image = v->groupImages()[i];
        V value;
        if (!detail::decode(v->groupImage(i), image.length, &value, &why)) {
          this->reportCorruption("record at offset " + std::to_string(image.offset) + ": " + why);
          return false;
        }
        Key k = ValueTraits<V>::key(value);
        bool seen = false;
        for (auto& e : entries) seen = seen || e.first == k;
        if (!seen) entries.emplace_back(std::move(k), image.version);
      }
      fn(entries);
    }
  }

  enum class Sweep {
    silent,      // take the table in as delivered (it was announced as a whole)
    changed,     // announce the keys whose entry differs from the shadow
    everything,  // announce every key in the table or the shadow
  };
  // Compares the table with the shadow, announcing keys as `sweep` says,
  // and leaves the shadow holding the table's versions. Keys the table no
  // longer holds leave the shadow (and are announced) only after a whole
  // pass: a pass cut short by corruption removes nothing.
  void resynchronise(Shm::View* v, Sweep sweep) {
    sweep_ = (sweep_ + 1) & 0xffffff;
    const std::uint64_t current = sweep_;
    // Keys met in the table are met once; only those already pending from
    // the ring need the check.
    const bool check = !pendingSet_.empty();
    auto announce = [&](const Key& k) {
      if (!check || pendingSet_.count(k) == 0) pending_.push_back(k);
    };
    const bool whole = forEachGroup(v, [&](std::vector<std::pair<Key, std::uint64_t>>& entries) {
      for (auto& [k, version] : entries) {
        bool fresh;
        std::uint64_t* w = shadow_.slot(k, &fresh);
        if (sweep == Sweep::everything ||
            (sweep == Sweep::changed && (fresh || (*w & kVersionMask) != (version & kVersionMask)))) {
          announce(k);
        }
        *w = shadowWord(version);
      }
    });
    if (!whole) return;
    shadow_.eraseIf([&](const Key& k, std::uint64_t w) {
      if ((w >> kVersionBits) == current) return false;
      if (sweep != Sweep::silent) announce(k);
      return true;
    });
  }

  std::unique_ptr<Shm::Mount> mount_;
  bool announced_ = false;
  bool segmentNew_ = false;  // a segment mapped since the last delivery
  bool baseline_ = false;    // the shadow stands for a segment once mapped
  std::uint32_t sweep_ = 0;
  // Mutable: lookups, which are const, record what the notifiee saw.
  mutable detail::ShadowMap<Key, typename Table<V>::KeyHash> shadow_;
  std::vector<Key> pending_;
  std::unordered_set<Key, typename Table<V>::KeyHash> pendingSet_;
};

}  // namespace Memtab

// Readers of shared tables whose value type is known only at run time, for
// scripts and tools: a table is opened by its name alone, the value type its
// segment records picks the reader, and keys and values travel as reflected
// handles (Cog::GenericIf).
//
//   auto r = Memtab::openGenericReader("error");          // by the segment's type
//   Cog::Ptr<Cog::GenericIf> v = r->lookup(key);          // null when absent
//   for (auto c = r->cursor(); auto v = c->next();) ...   // the table's order
//   poll r->fd(); then r->processNotifications(events);
//
// Value types register once per process (GenericReaderRegistration<V>); the
// schema compiler registers the value type of every table attribute.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "Cog/GenericIf.h"
#include "Memtab/Table.h"

namespace Memtab {

// Iteration over a table in its order; values are read as it goes (see
// Table::Iterator). The reader must outlive its cursors.
class GenericCursor {
 public:
  virtual ~GenericCursor() = default;
  // The next value, or null at the end.
  virtual Cog::Ptr<Cog::GenericIf> next() = 0;
};

class GenericReader {
 public:
  virtual ~GenericReader() = default;
  virtual const std::string& name() const = 0;
  virtual const Cog::CogType* valueType() const = 0;
  virtual const Cog::CogType* keyType() const = 0;
  // The value under `key` (converted to the key type as reflection converts
  // arguments: RangeException when it cannot be), or null when absent.
  virtual Cog::Ptr<Cog::GenericIf> lookup(const Cog::Ptr<Cog::GenericIf>& key) const = 0;
  virtual std::unique_ptr<GenericCursor> cursor() const = 0;
  virtual std::size_t size() const = 0;
  virtual int fd() const = 0;
  virtual MountStatus mountStatus() const = 0;

  struct Events {
    std::function<void(const Cog::Ptr<Cog::GenericIf>& key)> onKey;
    std::function<void()> onTable;
    std::function<void(MountStatus)> onMountStatus;
  };
  // Reader::processNotifications and Reader::replay, with the callbacks of
  // `events` that are set.
  virtual void processNotifications(const Events& events) = 0;
  virtual void replay(const Events& events) = 0;
};

using GenericReaderFactory = std::unique_ptr<GenericReader> (*)(const std::string& name,
                                                                const Options& options);

// Registers the reader of one value type under the name its tables record
// (ValueTraits<V>::typeName()) and its registered type name; a second
// registration of a name wins.
void registerGenericReader(const std::string& segmentTypeName, const std::string& cogTypeName,
                           GenericReaderFactory factory);

// The registered type name of the values a segment records as
// `segmentTypeName` (a C++ type's identity); `segmentTypeName` itself when no
// reader is registered for it.
std::string registeredTypeName(std::string_view segmentTypeName);

// Opens table `name` with the reader of the value type its segment records.
// `valueType` (a registered type name) opens a table that does not exist yet,
// as Reader does, and refuses one of another type. Throws RangeException for a
// bad name, a missing table without `valueType` or a damaged one, and
// NotSupportedException for a value type without a registered reader.
std::unique_ptr<GenericReader> openGenericReader(std::string_view name,
                                                 std::string_view valueType = {},
                                                 const Options& options = {});

namespace detail {

template <TableValue V>
class GenericReaderOf final : public GenericReader {
 public:
  using Key = KeyOf<V>;
  GenericReaderOf(const std::string& name, const Options& options) : reader_(name, options) {}

  const std::string& name() const override { return reader_.name(); }
  const Cog::CogType* valueType() const override { return Cog::TypeOf<V>::type(); }
  const Cog::CogType* keyType() const override { return Cog::TypeOf<Key>::type(); }
  Cog::Ptr<Cog::GenericIf> lookup(const Cog::Ptr<Cog::GenericIf>& key) const override {
    auto v = reader_.find(Cog::genericCast<Key>(key, "key"));
    return v ? Cog::genericIfOf(*v) : nullptr;
  }
  std::unique_ptr<GenericCursor> cursor() const override {
    return std::make_unique<Cursor>(reader_);
  }
  std::size_t size() const override { return reader_.size(); }
  int fd() const override { return reader_.fd(); }
  MountStatus mountStatus() const override { return reader_.mountStatus(); }
  void processNotifications(const Events& events) override {
    Forwarder f(events);
    reader_.processNotifications(f);
  }
  void replay(const Events& events) override {
    Forwarder f(events);
    reader_.replay(f);
  }

 private:
  class Cursor final : public GenericCursor {
   public:
    explicit Cursor(const Reader<V>& r) : it_(r.begin()) {}
    Cog::Ptr<Cog::GenericIf> next() override {
      if (it_ == end_) return nullptr;
      auto v = Cog::genericIfOf(*it_);
      ++it_;
      return v;
    }

   private:
    typename Table<V>::Iterator it_, end_;
  };
  class Forwarder final : public Notifiee<Key> {
   public:
    explicit Forwarder(const Events& e) : e_(e) {}
    void onKey(const Key& k) override {
      if (e_.onKey) e_.onKey(Cog::genericIfOf(k));
    }
    void onTable() override {
      if (e_.onTable) e_.onTable();
    }
    void onMountStatus(MountStatus s) override {
      if (e_.onMountStatus) e_.onMountStatus(s);
    }

   private:
    const Events& e_;
  };
  Reader<V> reader_;
};

}  // namespace detail

template <TableValue V>
struct GenericReaderRegistration {
  GenericReaderRegistration() {
    registerGenericReader(ValueTraits<V>::typeName(), Cog::TypeOf<V>::type()->name(),
                          [](const std::string& name, const Options& options) {
                            return std::unique_ptr<GenericReader>(
                                new detail::GenericReaderOf<V>(name, options));
                          });
  }
};

}  // namespace Memtab

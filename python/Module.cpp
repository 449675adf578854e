// The `routinglib` Python module: everything the library reflects, reached
// through the type registry and Cog::GenericIf, with no glue per type.
//
//   import routinglib as rl
//   t = rl.type("Routing::MetricPref")
//   v = t(metric=3, preference=1)            # or t.parse("Value(...)")
//   v.metric, repr(v), v.to_attrlog()
//   c = rl.type("Routing::Ucmp::UcmpConfig")("default")   # an entity
//   sub = c.notify(lambda attr: print(attr)); c.maxUcmp = 64
//   r = rl.TableReader("error")              # a shared-memory table
//
// Conversions. Results: numbers, bools and strings become Python's own; an
// entity becomes an Entity; every other value (enumerations included) a
// Value. Arguments: a Value or Entity as it is; a Python number or string
// converted to the parameter's type as reflection converts (an integer
// within range, a string parsed by the type's string form); a dict builds a
// value type from its attributes.
//
// Errors. The library's exceptions become Python exceptions: RangeError and
// ParseError (both ValueError) with the library's text, NotImplementedError,
// PermissionError; StreamError (ValueError) for malformed attribute-log
// bytes. An exception raised by a Python callback during a notification is
// held until the library call that caused it returns, then raised there
// (later callbacks of the same call still run).
#include <pybind11/functional.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Cog/Describe.h"
#include "Cog/Entity.h"
#include "Cog/Exception.h"
#include "Cog/GenericIf.h"
#include "Cog/NboAttrLog.h"
#include "Cog/Type.h"
#include "Memtab/GenericReader.h"
#include "RoutingLib/FecIdIntfId.h"
#include "RoutingLib/UcmpWeightRebase.h"

namespace py = pybind11;

namespace {

using Cog::CogType;
using Cog::GenericIf;
using Cog::MemberInfo;
using Cog::MemberKind;
using Cog::Ptr;
using Cog::TypeKind;

// ---------------------------------------------------------------- callback errors

// The first Python exception a callback raised during the current library
// call. Only touched with the GIL held.
std::optional<py::error_already_set>& pendingError() {
  static std::optional<py::error_already_set>* slot = new std::optional<py::error_already_set>();
  return *slot;
}

// Callbacks running now; notifiees dropped meanwhile wait in the graveyard
// until they have returned (a notifiee must not die inside its own call).
int& callbackDepth() {
  static int depth = 0;
  return depth;
}
std::vector<Ptr<Cog::PtrInterface>>& graveyard() {
  static auto* g = new std::vector<Ptr<Cog::PtrInterface>>();
  return *g;
}
void bury(Ptr<Cog::PtrInterface>& notifiee) {
  if (callbackDepth() > 0 && notifiee) graveyard().push_back(std::move(notifiee));
  notifiee = nullptr;
}

template <typename F>
void guardCallback(F&& f) {
  struct Depth {
    Depth() { ++callbackDepth(); }
    ~Depth() {
      if (--callbackDepth() == 0) graveyard().clear();
    }
  } depth;
  try {
    f();
  } catch (py::error_already_set& e) {
    if (!pendingError()) pendingError().emplace(std::move(e));
  } catch (const std::exception& e) {
    if (!pendingError()) {
      PyErr_SetString(PyExc_RuntimeError, e.what());
      pendingError().emplace();
    }
  }
}

void raisePending() {
  if (pendingError()) {
    py::error_already_set e = std::move(*pendingError());
    pendingError().reset();
    throw e;
  }
}

// Runs a library call that may notify Python callbacks; raises what they raised.
template <typename F>
auto notifying(F&& f) -> decltype(f()) {
  if constexpr (std::is_void_v<decltype(f())>) {
    try {
      f();
    } catch (...) {
      pendingError().reset();
      throw;
    }
    raisePending();
  } else {
    std::optional<decltype(f())> r;
    try {
      r.emplace(f());
    } catch (...) {
      pendingError().reset();
      throw;
    }
    raisePending();
    return std::move(*r);
  }
}

// ---------------------------------------------------------------- wrappers

struct Type {
  const CogType* t;
};
struct Member {
  const CogType* owner;
  const MemberInfo* m;
};
struct Handle {
  Ptr<GenericIf> g;
};
struct Value : Handle {};
struct Entity : Handle {};
// A live view of one collection (or shared-memory table) of an entity.
struct Collection {
  Ptr<GenericIf> owner;
  const MemberInfo* m;
};
// A reflected function bound to its instance (or a static one of a type).
struct Function {
  Ptr<GenericIf> self;  // null for static functions
  const CogType* type;
  const MemberInfo* m;
};
// A generic notifiee on one entity: reports changes while it lives.
struct Subscription {
  Subscription() = default;
  Subscription(const Subscription&) = delete;
  Subscription(Subscription&&) = default;
  ~Subscription() { bury(notifiee); }
  void close() {
    bury(notifiee);
    entity = py::none();
  }
  Ptr<Cog::PtrInterface> notifiee;
  py::object entity;
};
struct TableReader {
  // Shared with the iterators, which may outlive close().
  std::shared_ptr<Memtab::GenericReader> r;
  Memtab::GenericReader& reader() {
    if (!r) throw py::value_error("the table reader is closed");
    return *r;
  }
};
struct TableIterator {
  std::shared_ptr<Memtab::GenericReader> reader;  // outlives the cursor
  std::unique_ptr<Memtab::GenericCursor> cursor;
};

const CogType* prim(Cog::Primitive p) { return Cog::primitiveType(p); }

const CogType& typeNamed(const std::string& name) {
  const CogType* t = Cog::typeByName(name);
  if (t == nullptr) throw py::key_error("no registered type '" + name + "'");
  return *t;
}

// ---------------------------------------------------------------- to Python

py::object toPy(const Ptr<GenericIf>& g) {
  if (!g) return py::none();
  const CogType* t = g->type();
  if (t->kind() == TypeKind::primitive) {
    using Cog::Primitive;
    if (auto* v = g->as<bool>()) return py::bool_(*v);
    if (auto* v = g->as<std::uint8_t>()) return py::int_(*v);
    if (auto* v = g->as<std::uint16_t>()) return py::int_(*v);
    if (auto* v = g->as<std::uint32_t>()) return py::int_(*v);
    if (auto* v = g->as<std::uint64_t>()) return py::int_(*v);
    if (auto* v = g->as<std::int8_t>()) return py::int_(*v);
    if (auto* v = g->as<std::int16_t>()) return py::int_(*v);
    if (auto* v = g->as<std::int32_t>()) return py::int_(*v);
    if (auto* v = g->as<std::int64_t>()) return py::int_(*v);
    if (auto* v = g->as<float>()) return py::float_(*v);
    if (auto* v = g->as<double>()) return py::float_(*v);
    if (auto* v = g->as<Cog::String>()) return py::str(v->str());
    if (auto* v = g->as<Cog::Name>()) return py::str(v->str());
  }
  if (t->isEntity()) return py::cast(Entity{{g}});
  return py::cast(Value{{g}});
}

// ---------------------------------------------------------------- from Python

Ptr<GenericIf> fromPy(py::handle obj, const CogType* target, const char* what);

// A value of `target` from a dict of its attributes (or keyword arguments).
Ptr<GenericIf> fromAttributes(const CogType& target, const py::dict& attrs) {
  if (target.isEntity()) {
    throw py::type_error(std::string(target.name()) +
                         " is an entity: its factory takes its constructor arguments");
  }
  Ptr<GenericIf> v = target.fromCtorArgs({});
  for (auto [k, val] : attrs) {
    const std::string name = py::str(k);
    const MemberInfo* m = target.member(name);
    if (m == nullptr || !m->isStored()) {
      throw py::type_error(std::string(target.name()) + " has no attribute '" + name + "'");
    }
    if (m->kind == MemberKind::collection) {
      py::object items = py::reinterpret_borrow<py::object>(val);
      if (m->memberType() == nullptr) {  // a set: its keys
        for (py::handle key : items) {
          v->insert(name, {fromPy(key, m->memberKeyType(), m->name)});
        }
        continue;
      }
      if (!py::isinstance<py::dict>(items)) {  // a dense array from a list
        std::uint64_t i = 0;
        for (py::handle e : items) {
          v->insert(name, {Cog::genericIfOf(i++), fromPy(e, m->memberType(), m->name)});
        }
        continue;
      }
      for (auto [key, e] : items.cast<py::dict>()) {
        v->insert(name, {fromPy(key, m->memberKeyType(), m->name), fromPy(e, m->memberType(), m->name)});
      }
      continue;
    }
    v->attributeIs(m->index, fromPy(val, m->memberType(), m->name));
  }
  return v;
}

bool quotedTextForm(const CogType& t) {
  static std::map<const CogType*, bool>* known = new std::map<const CogType*, bool>();
  auto it = known->find(&t);
  if (it != known->end()) return it->second;
  bool quoted = false;
  if (t.kind() != TypeKind::primitive && !t.isEntity() && t.glue().fromStrRep != nullptr) {
    try {
      const std::string text = t.fromCtorArgs({})->strRep().str();
      quoted = !text.empty() && text[0] == '\'';
    } catch (const Cog::Exception&) {
    }
  }
  return (*known)[&t] = quoted;
}

// A value of `t` (which has a text form) from a Python string.
Ptr<GenericIf> fromText(const CogType& t, const std::string& text) {
  return t.fromStrRep(Cog::String(quotedTextForm(t) ? Cog::Parse::quote(text) : text));
}

Ptr<GenericIf> intFromPy(py::handle obj, const CogType* target, const char* what) {
  int overflow = 0;
  const long long s = PyLong_AsLongLongAndOverflow(obj.ptr(), &overflow);
  if (overflow == 0) {
    if (target != nullptr && target->kind() == TypeKind::primitive) {
      if (target == prim(Cog::Primitive::f32)) return Cog::genericIfOf(static_cast<float>(s));
      if (target == prim(Cog::Primitive::f64)) return Cog::genericIfOf(static_cast<double>(s));
    }
    return s < 0 ? Cog::genericIfOf(static_cast<std::int64_t>(s))
                 : Cog::genericIfOf(static_cast<std::uint64_t>(s));
  }
  if (overflow > 0) {
    const unsigned long long u = PyLong_AsUnsignedLongLong(obj.ptr());
    if (!PyErr_Occurred()) return Cog::genericIfOf(static_cast<std::uint64_t>(u));
    PyErr_Clear();
  }
  throw Cog::RangeException(std::string(what) + ": " + py::str(obj).cast<std::string>() +
                            " does not fit in 64 bits");
}

// `obj` as a handle of `target` (or, without a target, of the type its
// Python type suggests). Conversions the handle cannot make are left to
// the library (genericConvert), which raises its own range errors.
Ptr<GenericIf> fromPy(py::handle obj, const CogType* target, const char* what) {
  if (py::isinstance<Handle>(obj)) return obj.cast<const Handle&>().g;
  if (obj.is_none()) return nullptr;
  if (py::isinstance<py::bool_>(obj)) return Cog::genericIfOf(obj.cast<bool>());
  if (py::isinstance<py::int_>(obj)) {
    Ptr<GenericIf> n = intFromPy(obj, target, what);
    if (target == nullptr || target->kind() == TypeKind::primitive) return n;
    if (target->kind() == TypeKind::enumeration) {
      // by the enumerator's number
      return target->fromStrRep(Cog::String(n->strRep()));
    }
    if (target->isEntity()) return n;
    // A value of one number (FecId), or a number in its text form (an
    // external such as a VRF id).
    try {
      return target->fromCtorArgs({n});
    } catch (const Cog::RangeException&) {
      if (target->glue().fromStrRep == nullptr) throw;
    }
    return target->fromStrRep(Cog::String(n->strRep()));
  }
  if (py::isinstance<py::float_>(obj)) {
    const double d = obj.cast<double>();
    if (target == prim(Cog::Primitive::f32)) return Cog::genericIfOf(static_cast<float>(d));
    return Cog::genericIfOf(d);
  }
  if (py::isinstance<py::str>(obj)) {
    const std::string s = obj.cast<std::string>();
    if (target == prim(Cog::Primitive::name)) return Cog::genericIfOf(Cog::Name(s));
    // A type whose text form is a quoted string (a VRF name) takes a Python
    // string as its content; any other parses it as its text form.
    if (target != nullptr && quotedTextForm(*target)) {
      return target->fromStrRep(Cog::String(Cog::Parse::quote(s)));
    }
    return Cog::genericIfOf(Cog::String(s));
  }
  if (py::isinstance<py::dict>(obj) && target != nullptr) {
    return fromAttributes(*target, obj.cast<py::dict>());
  }
  throw py::type_error(std::string(what) + ": cannot convert a Python " +
                       py::str(obj.get_type().attr("__name__")).cast<std::string>() +
                       (target ? std::string(" to ") + target->name() : std::string()));
}

Cog::ArgList argsFromPy(const py::args& args, const std::vector<Cog::ParamInfo>* params,
                        const char* what) {
  Cog::ArgList out;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const CogType* t = params && i < params->size() ? (*params)[i].type() : nullptr;
    out.push_back(fromPy(args[i], t, params && i < params->size() ? (*params)[i].name : what));
  }
  return out;
}

// ---------------------------------------------------------------- types

const char* memberKindText(MemberKind k) { return Cog::memberKindName(k); }

std::vector<Member> membersOf(const CogType* t) {
  std::vector<Member> out;
  for (const MemberInfo* m : t->members()) out.push_back(Member{t->ownerOf(m->index), m});
  return out;
}

std::string typeDoc(const CogType& t) { return Cog::describeType(t); }

py::object construct(const Type& self, const py::args& args, const py::kwargs& kwargs) {
  const CogType& t = *self.t;
  if (!kwargs.empty()) {
    if (!args.empty()) throw py::type_error("give a value's attributes either by position or by name");
    return toPy(fromAttributes(t, kwargs));
  }
  // One string for a type with a string form: parse it.
  if (args.size() == 1 && py::isinstance<py::str>(args[0]) && t.glue().fromStrRep != nullptr &&
      !t.isEntity()) {
    return toPy(fromText(t, args[0].cast<std::string>()));
  }
  std::vector<Cog::ParamInfo> params;
  for (const MemberInfo* m : t.members()) {
    if (t.isEntity() ? m->kind == MemberKind::param
                     : (m->kind == MemberKind::attribute || m->kind == MemberKind::param)) {
      params.push_back(Cog::ParamInfo{m->name, m->type});
    }
  }
  return notifying([&] { return toPy(t.fromCtorArgs(argsFromPy(args, &params, t.name()))); });
}

py::object fromAttrLogBytes(const CogType& t, const py::bytes& data) {
  if (t.glue().fromAttrLog == nullptr) {
    throw Cog::NotSupportedException(std::string(t.name()) +
                                     " has no attribute-log form of its own");
  }
  const std::string s = data;
  auto in = Cog::allocate<Cog::NboAttrLog::In>(std::vector<std::uint8_t>(s.begin(), s.end()));
  Ptr<GenericIf> v = t.glue().fromAttrLog(in.ptr());
  if (!in->atEnd()) {
    throw Cog::StreamException(std::to_string(in->remaining()) + " bytes left after the value");
  }
  return toPy(v);
}

// ---------------------------------------------------------------- handles

py::object memberOf(const Ptr<GenericIf>& g, const std::string& name) {
  const CogType* t = g->type();
  const MemberInfo* m = t->member(name);
  if (m == nullptr) {
    if (name == "name" && t->isEntity()) return toPy(g->attribute("name"));
    throw py::attribute_error(std::string(t->name()) + " has no member '" + name + "'");
  }
  switch (m->kind) {
    case MemberKind::function: return py::cast(Function{g, t, m});
    case MemberKind::collection:
      if (t->isEntity()) return py::cast(Collection{g, m});
      {
        // a value's collection: a snapshot (values do not change)
        Ptr<Cog::GenericIterator> it = g->iterator(name);
        if (m->memberType() == nullptr) {
          py::list keys;
          for (; it->iterNonnull(); it->iterInc()) keys.append(toPy(it->iterKey()));
          return py::reinterpret_steal<py::object>(PyFrozenSet_New(keys.ptr()));
        }
        py::dict d;
        for (; it->iterNonnull(); it->iterInc()) d[toPy(it->iterKey())] = toPy(it->iterObj());
        return d;
      }
    default: return toPy(g->attribute(m->index));
  }
}

void setMember(const Entity& e, const std::string& name, py::handle value) {
  const MemberInfo* m = e.g->type()->member(name);
  if (m == nullptr) {
    throw py::attribute_error(std::string(e.g->type()->name()) + " has no member '" + name + "'");
  }
  if (!m->settable) {
    throw Cog::ReadOnlyException(std::string(e.g->type()->name()) + "::" + name +
                                 " cannot be set");
  }
  Ptr<GenericIf> v = fromPy(value, m->memberType(), m->name);
  notifying([&] { e.g->attributeIs(m->index, v); });
}

py::list memberNames(const Ptr<GenericIf>& g) {
  py::list out;
  for (const MemberInfo* m : g->type()->members()) out.append(m->name);
  return out;
}

std::string handleRepr(const Handle& h) { return h.g->strRep().str(); }

// A value also equals a Python number or string that converts to its type
// and value (FecId == 5, a VRF name == "red").
bool handleEq(const Handle& a, py::handle b) {
  if (py::isinstance<Handle>(b)) return a.g->equals(*b.cast<const Handle&>().g);
  if (a.g->type()->isEntity()) return false;
  if (!py::isinstance<py::int_>(b) && !py::isinstance<py::float_>(b) && !py::isinstance<py::str>(b)) {
    return false;
  }
  try {
    const CogType& t = *a.g->type();
    Ptr<GenericIf> other = py::isinstance<py::str>(b) && t.glue().fromStrRep != nullptr
                               ? fromText(t, b.cast<std::string>())
                               : fromPy(b, &t, "value");
    return other && a.g->equals(*other);
  } catch (const std::exception&) {  // py::error_already_set included
    return false;
  }
}

bool handleLess(const Handle& a, const Handle& b) {
  if (a.g->type() != b.g->type()) {
    throw py::type_error(std::string("cannot order a ") + a.g->type()->name() + " and a " +
                         b.g->type()->name());
  }
  return a.g->less(*b.g);
}

py::bytes toAttrLog(const Value& v) {
  auto out = Cog::allocate<Cog::NboAttrLog::Out>();
  v.g->attrLogOut(out);
  const auto& b = out->bytes();
  return py::bytes(reinterpret_cast<const char*>(b.data()), b.size());
}

// ---------------------------------------------------------------- collections

Ptr<GenericIf> collectionKey(const Collection& c, py::handle key) {
  return fromPy(key, c.m->memberKeyType(), c.m->name);
}

py::object collectionGet(const Collection& c, py::handle key) {
  Ptr<GenericIf> v = c.owner->element(c.m->name, collectionKey(c, key));
  if (!v) throw py::key_error(py::repr(key).cast<std::string>());
  return toPy(v);
}

py::list collectionKeys(const Collection& c) {
  py::list out;
  for (auto it = c.owner->iterator(c.m->name); it->iterNonnull(); it->iterInc()) {
    out.append(toPy(it->iterKey()));
  }
  return out;
}

// ---------------------------------------------------------------- preconditions

// The weight rebase asserts its preconditions (the process would abort);
// a script gets the range error instead. The checks are the rebase's own,
// on the weights widened to double and summed in order as it does.
void checkRebaseInput(const std::vector<double>& weights, float deviation) {
  if (!(deviation >= 0.0 && deviation <= 1.0)) {
    throw Cog::RangeException(
        "rebaseWeights: weightDeviation >= 0.0 && weightDeviation <= 1.0 does not hold");
  }
  double sum = 0.0;
  for (double w : weights) sum += w;
  if (weights.empty() || !(sum != 0)) {
    throw Cog::RangeException("rebaseWeights: sumOfWeights != 0 does not hold");
  }
}

// The rebase test helpers hand their input's weights (positions 0 to n - 1
// of inWeight, n its size, absent positions 0) to the rebase.
void checkTestHelperInput(const Cog::ArgList& args) {
  if (args.size() != 1 || !args[0]) return;  // the glue refuses these itself
  const Ptr<GenericIf>& in = args[0];
  if (in->type()->member("inWeight") == nullptr) return;
  std::uint64_t n = 0;
  for (auto it = in->iterator("inWeight"); it->iterNonnull(); it->iterInc()) ++n;
  std::vector<double> weights;
  for (std::uint64_t i = 0; i < n; ++i) {
    Ptr<GenericIf> w = in->element("inWeight", Cog::genericIfOf(i));
    if (!w) weights.push_back(0.0);
    else if (auto* f = w->as<float>()) weights.push_back(*f);
    else weights.push_back(static_cast<double>(Cog::genericCast<std::uint32_t>(w)));
  }
  checkRebaseInput(weights, Cog::genericCast<float>(in->attribute("weightDeviation")));
}

void checkPreconditions(const CogType* type, const MemberInfo& m, const Cog::ArgList& args) {
  const std::string name = std::string(type->name()) + "::" + m.name;
  if (name == "RoutingLib::UcmpWeightsTestHelper::rebaseWeightsTest" ||
      name == "RoutingLib::UcmpFloatWeightsTestHelper::rebaseFloatWeightsTest") {
    checkTestHelperInput(args);
  }
}

// ---------------------------------------------------------------- functions

py::object callFunction(const Function& f, const py::args& args) {
  Cog::ArgList a = argsFromPy(args, &f.m->params, f.m->name);
  checkPreconditions(f.type->ownerOf(f.m->index), *f.m, a);
  return notifying([&] {
    if (f.self) return toPy(f.self->call(f.m->name, a));
    return toPy(f.type->callStatic(f.m->name, a));
  });
}

// ---------------------------------------------------------------- notifications

Subscription subscribe(py::object entityObj, py::function callback) {
  const Entity& e = entityObj.cast<const Entity&>();
  const CogType* t = e.g->type();
  const CogType* withGlue = t;
  while (withGlue != nullptr && withGlue->glue().genericIfNotifiee == nullptr) {
    withGlue = withGlue->base();
  }
  if (withGlue == nullptr) {
    throw Cog::NotSupportedException(std::string(t->name()) + " has no generic notifiee");
  }
  auto onAttribute = [t, callback](Cog::AttributeId id) {
    py::gil_scoped_acquire gil;
    guardCallback([&] {
      const MemberInfo* m = t->member(static_cast<unsigned>(id));
      callback(m ? py::str(m->name) : py::str(std::to_string(id)));
    });
  };
  Subscription s;
  s.notifiee = withGlue->glue().genericIfNotifiee(e.g->entityPtr(), onAttribute);
  s.entity = std::move(entityObj);
  return s;
}

// ---------------------------------------------------------------- tables

const char* mountStatusText(Memtab::MountStatus s) { return Memtab::toString(s); }

Memtab::GenericReader::Events tableEvents(const py::object& onKey, const py::object& onTable,
                                          const py::object& onMountStatus) {
  Memtab::GenericReader::Events ev;
  if (!onKey.is_none()) {
    ev.onKey = [onKey](const Ptr<GenericIf>& k) { guardCallback([&] { onKey(toPy(k)); }); };
  }
  if (!onTable.is_none()) ev.onTable = [onTable] { guardCallback([&] { onTable(); }); };
  if (!onMountStatus.is_none()) {
    ev.onMountStatus = [onMountStatus](Memtab::MountStatus s) {
      guardCallback([&] { onMountStatus(mountStatusText(s)); });
    };
  }
  return ev;
}

// ---------------------------------------------------------------- rebase and FEC ids

py::tuple rebaseWeights(const std::vector<double>& weights, std::uint64_t maxUcmp,
                        double deviation) {
  checkRebaseInput(weights, static_cast<float>(deviation));
  RoutingLib::UcmpRebaseResult r =
      RoutingLib::rebaseWeights(weights, maxUcmp, static_cast<float>(deviation));
  py::list out;
  for (std::uint64_t i = 0; i < r.outWeight().size(); ++i) out.append(r.outWeight()[i]);
  return py::make_tuple(py::str(Cog::genericIfOf(r.status())->strRep().str()), out);
}

template <typename F>
py::object formOrNone(F form) {
  try {
    return form();
  } catch (const Cog::Exception&) {
    return py::none();
  }
}

py::dict decodeFecId(py::handle id) {
  using Memtab::Fib::FecId;
  FecId f;
  py::dict out;
  if (py::isinstance<py::str>(id)) {
    Velnet::IntfId intf(Cog::String(id.cast<std::string>()));
    f = FecId::hierarchicalIntfIdToFecId(intf);
    out["intfId"] = intf.name().str();
  } else {
    f = FecId(Cog::genericCast<std::uint64_t>(fromPy(id, prim(Cog::Primitive::u64), "fecId"), "fecId"));
  }
  const std::uint64_t v = f.value();
  const unsigned type = static_cast<unsigned>(v >> Memtab::Fib::adjTypePos());
  out["fecId"] = v;
  out["valid"] = f.isValid();
  out["adjType"] = type < static_cast<unsigned>(Memtab::Fib::adjTypeMax())
                       ? py::object(py::str(Cog::genericIfOf(f.adjType())->strRep().str()))
                       : py::object(py::none());
  out["adjIndex"] = f.adjIndex();
  out["toStrep"] = f.toStrep().str();
  out["fecIntfId"] = formOrNone([&] {
    return py::str(Velnet::FecIdIntfId::fecIdToIntfId(v).name().str());
  });
  out["hierarchicalIntfId"] = formOrNone([&]() -> py::object {
    const Velnet::IntfId i = FecId::fecIdToHierarchicalIntfId(f);
    if (!i) return py::none();
    return py::str(i.name().str());
  });
  return out;
}

}  // namespace

PYBIND11_MODULE(routinglib, mod) {
  mod.doc() =
      "RoutingLib from Python: the type registry, values and entities of every registered "
      "type, shared-memory table readers, the UCMP weight rebase and FEC id decoding.";

  // Exceptions: the library's kinds under Python's.
  static py::exception<Cog::RangeException> rangeError(mod, "RangeError", PyExc_ValueError);
  static py::exception<Cog::ParseException> parseError(mod, "ParseError", PyExc_ValueError);
  static py::exception<Cog::StreamException> streamError(mod, "StreamError", PyExc_ValueError);
  static py::exception<Cog::NameInUseException> nameInUse(mod, "NameInUseError", PyExc_ValueError);
  py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) std::rethrow_exception(p);
    } catch (const Cog::RangeException& e) {
      rangeError(e.what());
    } catch (const Cog::ParseException& e) {
      parseError(e.what());
    } catch (const Cog::StreamException& e) {
      streamError(e.what());
    } catch (const Cog::NameInUseException& e) {
      nameInUse(e.what());
    } catch (const Cog::NotSupportedException& e) {
      PyErr_SetString(PyExc_NotImplementedError, e.what());
    } catch (const Cog::ReadOnlyException& e) {
      PyErr_SetString(PyExc_PermissionError, e.what());
    } catch (const Cog::WriteUpdateFromReadOnlyProxyException& e) {
      PyErr_SetString(PyExc_PermissionError, e.what());
    } catch (const Cog::Exception& e) {
      PyErr_SetString(PyExc_RuntimeError, e.what());
    }
  });

  // ---- registry
  py::class_<Member>(mod, "Member", "One member of a registered type, in reflection order.")
      .def_property_readonly("name", [](const Member& m) { return m.m->name; })
      .def_property_readonly("index", [](const Member& m) { return m.m->index; })
      .def_property_readonly("kind", [](const Member& m) { return memberKindText(m.m->kind); })
      .def_property_readonly("type", [](const Member& m) -> py::object {
        const CogType* t = m.m->memberType();
        return t ? py::cast(Type{t}) : py::none();
      })
      .def_property_readonly("key_type", [](const Member& m) -> py::object {
        const CogType* t = m.m->memberKeyType();
        return t ? py::cast(Type{t}) : py::none();
      })
      .def_property_readonly("settable", [](const Member& m) { return m.m->settable; })
      .def_property_readonly("resync", [](const Member& m) { return m.m->resync; })
      .def_property_readonly("static", [](const Member& m) { return m.m->isStatic; })
      .def_property_readonly("owner", [](const Member& m) { return Type{m.owner}; })
      .def_property_readonly("params", [](const Member& m) {
        py::list out;
        for (const auto& p : m.m->params) out.append(py::make_tuple(p.name, Type{p.type()}));
        return out;
      })
      .def_property_readonly("__doc__", [](const Member& m) -> py::object {
        return m.m->doc ? py::object(py::str(m.m->doc)) : py::object(py::none());
      })
      .def("__repr__", [](const Member& m) {
        return std::string("<routinglib.Member ") + m.owner->name() + "::" + m.m->name + " " +
               memberKindText(m.m->kind) + ">";
      });

  py::class_<Type>(mod, "Type", "A registered type: its record, and the way to make its values.")
      .def_property_readonly("name", [](const Type& t) { return t.t->name(); })
      .def_property_readonly("kind", [](const Type& t) { return Cog::typeKindName(t.t->kind()); })
      .def_property_readonly("base", [](const Type& t) -> py::object {
        return t.t->base() ? py::cast(Type{t.t->base()}) : py::none();
      })
      .def_property_readonly("is_entity", [](const Type& t) { return t.t->isEntity(); })
      .def_property_readonly("members", [](const Type& t) { return membersOf(t.t); })
      .def("member", [](const Type& t, const std::string& name) {
        const MemberInfo* m = t.t->member(name);
        if (m == nullptr) throw py::key_error(std::string(t.t->name()) + " has no member '" + name + "'");
        return Member{t.t->ownerOf(m->index), m};
      })
      .def_property_readonly("enumerators", [](const Type& t) {
        py::dict out;
        if (t.t->kind() == TypeKind::enumeration) {
          for (const auto& e : static_cast<const Cog::EnumType*>(t.t)->enumerators()) out[py::str(e.name)] = e.value;
        }
        return out;
      })
      .def_property_readonly("has_text_form", [](const Type& t) { return t.t->glue().fromStrRep != nullptr; })
      .def_property_readonly("has_attrlog_form", [](const Type& t) { return t.t->glue().fromAttrLog != nullptr; })
      .def("describe", [](const Type& t) { return typeDoc(*t.t); },
           "The type's record in words, as `routinglib types --describe` prints it.")
      .def_property_readonly("__doc__", [](const Type& t) { return typeDoc(*t.t); })
      .def("parse", [](const Type& t, const std::string& text) {
        if (t.t->glue().fromStrRep == nullptr) {
          throw Cog::NotSupportedException(std::string(t.t->name()) + " has no string form");
        }
        return toPy(t.t->fromStrRep(Cog::String(text)));
      }, "A value from its text form (as repr() prints it).")
      .def("from_attrlog", [](const Type& t, const py::bytes& b) { return fromAttrLogBytes(*t.t, b); },
           "A value from its attribute-log bytes; all of them must be used.")
      .def("samples", [](const Type& t) {
        py::list out;
        for (const auto& s : t.t->samples()) out.append(toPy(s));
        return out;
      }, "Representative values: the default first.")
      .def("__call__", &construct,
           "A value from keyword attributes, positional constructor arguments or its text "
           "form; an entity from its factory's arguments.")
      .def("__getattr__", [](const Type& t, const std::string& name) -> py::object {
        const MemberInfo* m = t.t->member(name);
        if (m != nullptr && m->kind == MemberKind::function && m->isStatic) {
          return py::cast(Function{nullptr, t.t, m});
        }
        if (m != nullptr && m->kind == MemberKind::constant && !t.t->isEntity()) {
          return toPy(t.t->fromCtorArgs({})->attribute(m->index));
        }
        throw py::attribute_error(std::string(t.t->name()) + " has no static member '" + name + "'");
      })
      .def("__eq__", [](const Type& a, const Type& b) { return a.t == b.t; })
      .def("__hash__", [](const Type& t) { return std::hash<const void*>()(t.t); })
      .def("__repr__", [](const Type& t) {
        return std::string("<routinglib.Type ") + Cog::typeKindName(t.t->kind()) + " " + t.t->name() + ">";
      });

  mod.def("types", [](const std::string& pattern) {
    std::vector<Type> out;
    for (const CogType* t : Cog::registeredTypes()) {
      if (std::string(t->name()).find(pattern) != std::string::npos) out.push_back(Type{t});
    }
    return out;
  }, py::arg("pattern") = "", "Registered types whose name contains `pattern`, in registration order.");
  mod.def("type", [](const std::string& name) { return Type{&typeNamed(name)}; }, py::arg("name"),
          "The registered type `name` (KeyError when there is none).");
  mod.def("parse", [](const std::string& name, const std::string& text) {
    const CogType& t = typeNamed(name);
    if (t.glue().fromStrRep == nullptr) {
      throw Cog::NotSupportedException(std::string(t.name()) + " has no string form");
    }
    return toPy(t.fromStrRep(Cog::String(text)));
  }, py::arg("type"), py::arg("text"), "A value of type `type` from its text form.");

  // ---- values and entities
  py::class_<Handle>(mod, "Handle", "A value or an entity of a registered type.")
      .def_property_readonly("type", [](const Handle& h) { return Type{h.g->type()}; })
      .def("__repr__", &handleRepr)
      .def("__str__", &handleRepr)
      .def("__eq__", &handleEq)
      .def("__ne__", [](const Handle& a, py::handle b) { return !handleEq(a, b); })
      .def("__hash__", [](const Handle& h) { return static_cast<std::size_t>(h.g->hash()); })
      .def("__getattr__", [](const Handle& h, const std::string& name) { return memberOf(h.g, name); })
      .def("__dir__", [](const Handle& h) { return memberNames(h.g); })
      .def("call", [](const Handle& h, const std::string& name, const py::args& args) {
        const MemberInfo* m = h.g->type()->member(name);
        if (m == nullptr || m->kind != MemberKind::function) {
          throw py::attribute_error(std::string(h.g->type()->name()) + " has no function '" + name + "'");
        }
        return callFunction(Function{h.g, h.g->type(), m}, args);
      }, "Calls the reflected function `name` with the given arguments.");

  py::class_<Value, Handle>(mod, "Value",
                            "A value of a registered value type: immutable, comparable, hashable.")
      .def("__lt__", [](const Value& a, const Value& b) { return handleLess(a, b); })
      .def("__le__", [](const Value& a, const Value& b) { return !handleLess(b, a); })
      .def("__gt__", [](const Value& a, const Value& b) { return handleLess(b, a); })
      .def("__ge__", [](const Value& a, const Value& b) { return !handleLess(a, b); })
      .def("__bool__", [](const Value& v) { return !v.g->isDefault(); })
      .def("is_default", [](const Value& v) { return v.g->isDefault(); })
      .def("to_attrlog", &toAttrLog, "The value's attribute-log bytes.")
      .def("replace", [](const Value& v, const py::kwargs& kwargs) {
        const CogType& t = *v.g->type();
        py::dict attrs;
        for (const MemberInfo* m : t.members()) {
          if (m->isStored()) attrs[py::str(m->name)] = memberOf(v.g, m->name);
        }
        for (auto [k, val] : kwargs) attrs[k] = val;
        return toPy(fromAttributes(t, attrs));
      }, "A copy with the given attributes changed.")
      .def("attributes", [](const Value& v) {
        py::dict out;
        for (const MemberInfo* m : v.g->type()->members()) {
          if (m->isStored()) out[py::str(m->name)] = memberOf(v.g, m->name);
        }
        return out;
      }, "The stored attributes by name, as keyword construction takes them.");

  py::class_<Entity, Handle>(mod, "Entity",
                             "An entity: attributes by name (settable ones by assignment), "
                             "collections as live mappings, reflected functions, notifications.")
      .def("__setattr__", &setMember)
      .def_property_readonly("is_const", [](const Entity& e) { return e.g->isConst(); })
      .def("notify", &subscribe, py::arg("callback"),
           "Calls `callback(attribute_name)` on every change of the entity while the returned "
           "subscription lives (or until its close()).");

  py::class_<Subscription>(mod, "Subscription", "A registration of a callback on an entity.")
      .def("close", &Subscription::close)
      .def("__enter__", [](py::object self) { return self; })
      .def("__exit__", [](Subscription& s, py::args) { s.close(); });

  py::class_<Collection>(mod, "Collection",
                         "A live view of an entity's collection: a mapping from key to element "
                         "(a set's elements are its keys).")
      .def_property_readonly("member", [](const Collection& c) { return Member{c.owner->type()->ownerOf(c.m->index), c.m}; })
      .def("__getitem__", &collectionGet)
      .def("get", [](const Collection& c, py::handle key, py::object dflt) -> py::object {
        Ptr<GenericIf> v = c.owner->element(c.m->name, collectionKey(c, key));
        return v ? toPy(v) : dflt;
      }, py::arg("key"), py::arg("default") = py::none())
      .def("__contains__", [](const Collection& c, py::handle key) {
        return static_cast<bool>(c.owner->element(c.m->name, collectionKey(c, key)));
      })
      .def("__len__", [](const Collection& c) {
        std::size_t n = 0;
        for (auto it = c.owner->iterator(c.m->name); it->iterNonnull(); it->iterInc()) ++n;
        return n;
      })
      .def("__iter__", [](const Collection& c) { return py::iter(collectionKeys(c)); })
      .def("keys", &collectionKeys)
      .def("values", [](const Collection& c) {
        py::list out;
        for (auto it = c.owner->iterator(c.m->name); it->iterNonnull(); it->iterInc()) out.append(toPy(it->iterObj()));
        return out;
      })
      .def("items", [](const Collection& c) {
        py::list out;
        for (auto it = c.owner->iterator(c.m->name); it->iterNonnull(); it->iterInc()) {
          out.append(py::make_tuple(toPy(it->iterKey()), toPy(it->iterObj())));
        }
        return out;
      })
      .def("__setitem__", [](const Collection& c, py::handle key, py::handle value) {
        Cog::ArgList args{collectionKey(c, key), fromPy(value, c.m->memberType(), c.m->name)};
        notifying([&] { c.owner->insert(c.m->name, args); });
      })
      .def("add", [](const Collection& c, const py::args& args) {
        // key first, then a map's value or an entity's further constructor
        // arguments; a shared-memory table takes the value alone
        Cog::ArgList a;
        const CogType* element = c.m->memberType();
        const bool entities = element != nullptr && element->isEntity();
        for (std::size_t i = 0; i < args.size(); ++i) {
          const CogType* t = nullptr;
          if (i == 0) t = args.size() == 1 && element != nullptr && !entities ? element : c.m->memberKeyType();
          else if (i == 1 && !entities) t = element;
          a.push_back(fromPy(args[i], t, c.m->name));
        }
        return notifying([&] { return toPy(c.owner->insert(c.m->name, a)); });
      }, "Inserts through the collection's setter: (key) for a set or a collection of "
         "entities (returns the entity), (key, value) for a map, (value) for a shared table.")
      .def("__delitem__", [](const Collection& c, py::handle key) {
        Ptr<GenericIf> k = collectionKey(c, key);
        notifying([&] { c.owner->remove(c.m->name, k); });
      })
      .def("clear", [](const Collection& c) {
        notifying([&] {
          for (auto it = c.owner->iterator(c.m->name); it->iterNonnull();) it->iterDel();
        });
      })
      .def("__repr__", [](const Collection& c) {
        return std::string("<routinglib.Collection ") + c.owner->strRep().str() + "." + c.m->name + ">";
      });

  py::class_<Function>(mod, "Function", "A reflected function, bound to its instance when not static.")
      .def("__call__", &callFunction)
      .def_property_readonly("__doc__", [](const Function& f) -> py::object {
        return f.m->doc ? py::object(py::str(f.m->doc)) : py::object(py::none());
      })
      .def("__repr__", [](const Function& f) {
        return std::string("<routinglib.Function ") + f.type->name() + "::" + f.m->name + ">";
      });

  // ---- shared-memory tables
  py::class_<TableIterator>(mod, "TableIterator")
      .def("__iter__", [](py::object self) { return self; })
      .def("__next__", [](TableIterator& it) {
        if (!it.cursor) throw py::stop_iteration();
        Ptr<GenericIf> v = it.cursor->next();
        if (!v) {
          it.cursor.reset();
          throw py::stop_iteration();
        }
        return toPy(v);
      });

  py::class_<TableReader>(mod, "TableReader",
                          "A reader of a shared-memory table, opened by its name; the value "
                          "type its segment records picks the reader.")
      .def(py::init([](const std::string& name, const std::string& valueType) {
             return TableReader{Memtab::openGenericReader(name, valueType)};
           }),
           py::arg("name"), py::arg("value_type") = "",
           "Opens table `name`. Naming `value_type` opens a table that does not exist yet "
           "(the reader mounts it when it appears) and refuses one of another type.")
      .def_property_readonly("name", [](TableReader& r) { return r.reader().name(); })
      .def_property_readonly("value_type", [](TableReader& r) { return Type{r.reader().valueType()}; })
      .def_property_readonly("key_type", [](TableReader& r) { return Type{r.reader().keyType()}; })
      .def_property_readonly("mount_status", [](TableReader& r) { return mountStatusText(r.reader().mountStatus()); })
      .def("fileno", [](TableReader& r) { return r.reader().fd(); },
           "A descriptor that is readable when process_notifications() has something to deliver.")
      .def("lookup", [](TableReader& r, py::handle key) {
        return toPy(r.reader().lookup(fromPy(key, r.reader().keyType(), "key")));
      }, py::arg("key"), "The value under `key`, or None when absent.")
      .def("get", [](TableReader& r, py::handle key, py::object dflt) -> py::object {
        Ptr<GenericIf> v = r.reader().lookup(fromPy(key, r.reader().keyType(), "key"));
        return v ? toPy(v) : dflt;
      }, py::arg("key"), py::arg("default") = py::none())
      .def("__getitem__", [](TableReader& r, py::handle key) {
        Ptr<GenericIf> v = r.reader().lookup(fromPy(key, r.reader().keyType(), "key"));
        if (!v) throw py::key_error(py::repr(key).cast<std::string>());
        return toPy(v);
      })
      .def("__contains__", [](TableReader& r, py::handle key) {
        return static_cast<bool>(r.reader().lookup(fromPy(key, r.reader().keyType(), "key")));
      })
      .def("__len__", [](TableReader& r) { return r.reader().size(); })
      .def("__iter__", [](py::object self) {
        TableReader& r = self.cast<TableReader&>();
        auto cursor = r.reader().cursor();
        return TableIterator{r.r, std::move(cursor)};
      }, "The values, in the table's order.")
      .def("process_notifications", [](TableReader& r, py::object onKey, py::object onTable,
                                       py::object onMountStatus) {
        auto ev = tableEvents(onKey, onTable, onMountStatus);
        std::shared_ptr<Memtab::GenericReader> keep = r.r;  // a callback may close it
        r.reader();
        notifying([&] { keep->processNotifications(ev); });
      }, py::arg("on_key"), py::arg("on_table") = py::none(), py::arg("on_mount_status") = py::none(),
         "Delivers what changed since the last call: on_mount_status(status), on_table() "
         "(a whole new table: look it over), on_key(key) once per changed key. Never blocks.")
      .def("replay", [](TableReader& r, py::object onKey) {
        auto ev = tableEvents(onKey, py::none(), py::none());
        std::shared_ptr<Memtab::GenericReader> keep = r.r;  // a callback may close it
        r.reader();
        notifying([&] { keep->replay(ev); });
      }, py::arg("on_key"), "Announces every key present once through on_key.")
      .def("close", [](TableReader& r) { r.r.reset(); })
      .def("__enter__", [](py::object self) { return self; })
      .def("__exit__", [](TableReader& r, py::args) { r.r.reset(); });

  // ---- the rebase and FEC ids
  mod.def("rebase_weights", &rebaseWeights, py::arg("weights"), py::arg("max_ucmp"),
          py::arg("deviation"),
          "Rebases next-hop weights into at most `max_ucmp` integer weights whose shares stay "
          "within `deviation` (0..1) of the inputs'. Returns (status, weights) with status "
          "'rebaseSuccess', 'rebaseUnconverged' or 'rebaseTruncated'.");
  mod.def("decode_fec_id", &decodeFecId, py::arg("id"),
          "Decodes a FEC id (an int), or the FEC id an interface name folds: fecId, valid, "
          "adjType, adjIndex, toStrep, fecIntfId, hierarchicalIntfId (None where there is none).");
}

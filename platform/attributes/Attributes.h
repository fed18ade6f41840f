// Attributes by name: how the agent's inspection and scripting tools read
// any object of the runtime or of the tables, without a printer per class.
//
// A class is described once, by a specialisation of Introspect::Describe<T>
// that names its attributes and its collections:
//
//   template <> struct Introspect::Describe<Asic::GroupResolver> {
//     static constexpr const char *kClass = "Asic::GroupResolver";
//     template <typename A>
//     static void attributes(const Asic::GroupResolver &r, A &a) {
//       a("genId", r.genId());            // scalars, records, Ptr<...>
//       a.collection("resolverQueue", r.resolverQueueSize());
//     }
//     template <typename C>                // optional: collections to walk
//     static void collections(const Asic::GroupResolver &r, C &c) {
//       c.walk("resolverQueue", [&r](const Cursor &after, std::size_t limit,
//                                    auto &&emit) -> Cursor { ... });
//     }
//   };
//
// and read through one generic form:
//
//   Introspect::inspectOperation(resolver, visitor);   // every attribute
//   auto next = Introspect::genericIfIterator(table, "transientAddEntry",
//                                             cursor, 100, visitor);
//   Introspect::forEachElement(table, "entries", [](const auto &e) {...});
//
// A Visitor receives names and values (JsonVisitor in the tools turns them
// into JSON). Values are described by their type: numbers, booleans,
// strings, enums (their number), Fwk::Ptr (null or what it points to),
// records with a Describe of their own (a nested object), and any other
// type with a fmt formatter (its text).
//
// Collections are walked a page at a time: a walk starts after a Cursor
// (empty: from the start), visits at most `limit` elements and returns the
// cursor to resume from (empty: the walk is done). Cursors are opaque
// bytes (a key, a sequence number), so that a walk resumes by key however
// the collection changed in between: elements are never visited twice,
// and those inserted behind the cursor are not visited.
//
// Nothing here runs unless a tool asks: descriptions are templates that are
// instantiated only where something reads them, and objects keep no state
// for them. Reads only: no description changes what it describes.
// Everything runs on the agent's event thread, like the objects read.
#pragma once

#include <fmt/format.h>

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "platform/framework/HashMap.h"
#include "platform/framework/Object.h"

namespace Introspect {

// Where a walk resumes: opaque bytes; empty is the start (as an argument)
// or the end (as a result).
class Cursor {
public:
  Cursor() = default;
  explicit Cursor(std::string bytes) : bytes_(std::move(bytes)) {}
  // The bytes of a plain record (a key), and back.
  template <typename T> static Cursor of(const T &v) {
    static_assert(std::is_trivially_copyable_v<T>,
                  "cursors hold the bytes of plain records");
    return Cursor(std::string(reinterpret_cast<const char *>(&v), sizeof v));
  }
  template <typename T> bool to(T &out) const noexcept {
    if (bytes_.size() != sizeof(T)) {
      return false;
    }
    std::memcpy(static_cast<void *>(&out), bytes_.data(), sizeof(T));
    return true;
  }
  bool empty() const noexcept { return bytes_.empty(); }
  const std::string &bytes() const noexcept { return bytes_; }

  // Lower-case hex, as tools pass cursors around; fromHex is false for
  // anything else.
  std::string hex() const {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    out.reserve(2 * bytes_.size());
    for (unsigned char c : bytes_) {
      out += kDigits[c >> 4];
      out += kDigits[c & 15];
    }
    return out;
  }
  static bool fromHex(std::string_view text, Cursor &out) {
    const auto digit = [](char c) -> int {
      return c >= '0' && c <= '9'   ? c - '0'
             : c >= 'a' && c <= 'f' ? c - 'a' + 10
             : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                    : -1;
    };
    if (text.size() % 2 != 0) {
      return false;
    }
    std::string bytes;
    bytes.reserve(text.size() / 2);
    for (std::size_t i = 0; i < text.size(); i += 2) {
      const int hi = digit(text[i]), lo = digit(text[i + 1]);
      if (hi < 0 || lo < 0) {
        return false;
      }
      bytes += static_cast<char>(hi << 4 | lo);
    }
    out = Cursor(std::move(bytes));
    return true;
  }

private:
  std::string bytes_;
};

// A cursor that no walk of the collection made.
class BadCursor : public std::invalid_argument {
public:
  BadCursor() : std::invalid_argument("not a cursor of this collection") {}
};

// What a description hands its attributes to. Inside a list, names are
// empty and the values are its elements.
class Visitor {
public:
  virtual ~Visitor() = default;
  virtual void null(std::string_view name) = 0;
  virtual void boolean(std::string_view name, bool v) = 0;
  virtual void integer(std::string_view name, std::uint64_t v) = 0;
  virtual void signedInteger(std::string_view name, std::int64_t v) = 0;
  virtual void real(std::string_view name, double v) = 0;
  virtual void text(std::string_view name, std::string_view v) = 0;
  virtual void beginRecord(std::string_view name) = 0;
  virtual void endRecord() = 0;
  virtual void beginList(std::string_view name) = 0;
  virtual void endList() = 0;
  // A collection attribute: its size; its elements come by walking it.
  virtual void collection(std::string_view name, std::size_t size) = 0;
};

// The description of a class; specialised per class (see the top).
template <typename T> struct Describe;

template <typename T>
concept Described = requires {
  Describe<std::remove_cvref_t<T>>::kClass;
};

template <typename T>
concept HasCollections = requires(const T &v, int &c) {
  Describe<T>::collections(v, c);
};

// A key and its value, as walks of maps hand them out.
template <typename K, typename V> struct MapElement {
  const K &key;
  const V &value;
};

template <typename T> void put(Visitor &v, std::string_view name, const T &x);

namespace detail {

template <typename T> struct IsPtr : std::false_type {};
template <typename T> struct IsPtr<Fwk::Ptr<T>> : std::true_type {};
template <typename T> struct IsOptional : std::false_type {};
template <typename T> struct IsOptional<std::optional<T>> : std::true_type {};

// Hands a described object's attributes to a visitor.
class Attributes {
public:
  explicit Attributes(Visitor &v) noexcept : v_(v) {}
  template <typename T> void operator()(std::string_view name, const T &x) {
    put(v_, name, x);
  }
  void collection(std::string_view name, std::size_t size) {
    v_.collection(name, size);
  }
  Visitor &visitor() noexcept { return v_; }

private:
  Visitor &v_;
};

} // namespace detail

// Describes one value under a name.
template <typename T> void put(Visitor &v, std::string_view name, const T &x) {
  if constexpr (std::is_same_v<T, bool>) {
    v.boolean(name, x);
  } else if constexpr (std::is_enum_v<T>) {
    put(v, name, static_cast<std::underlying_type_t<T>>(x));
  } else if constexpr (std::is_integral_v<T> && std::is_unsigned_v<T>) {
    v.integer(name, x);
  } else if constexpr (std::is_integral_v<T>) {
    v.signedInteger(name, x);
  } else if constexpr (std::is_floating_point_v<T>) {
    v.real(name, x);
  } else if constexpr (std::is_convertible_v<const T &, std::string_view>) {
    v.text(name, std::string_view(x));
  } else if constexpr (detail::IsPtr<T>::value) {
    if (x) {
      put(v, name, *x);
    } else {
      v.null(name);
    }
  } else if constexpr (detail::IsOptional<T>::value) {
    if (x) {
      put(v, name, *x);
    } else {
      v.null(name);
    }
  } else if constexpr (Described<T>) {
    v.beginRecord(name);
    detail::Attributes a(v);
    Describe<T>::attributes(x, a);
    v.endRecord();
  } else if constexpr (requires {
                         x.key;
                         x.value;
                       }) {
    v.beginRecord(name);
    put(v, "key", x.key);
    put(v, "value", x.value);
    v.endRecord();
  } else {
    v.text(name, fmt::format("{}", x));
  }
}

// Every attribute of an object, by name (its class as "class"), as one
// record; collections give their sizes.
template <Described T> void inspectOperation(const T &obj, Visitor &v) {
  v.beginRecord("");
  v.text("class", Describe<T>::kClass);
  detail::Attributes a(v);
  Describe<T>::attributes(obj, a);
  v.endRecord();
}

// Walks a framework hash map (or set: HashMap<K, Unit>) in hash order from
// the key after `after`, handing emit a MapElement (a set: the key).
template <typename K, typename V, typename E>
Cursor walkMap(const Fwk::HashMap<K, V> &m, const Cursor &after,
               std::size_t limit, E &emit) {
  auto it = m.begin();
  K k{};
  if (!after.empty()) {
    if (!after.to(k)) {
      throw BadCursor();
    }
    it = m.lowerBound(k);
    if (it != m.end() && it.key() == k) {
      ++it;
    }
  }
  Cursor next;
  for (std::size_t n = 0; it != m.end() && n < limit; ++it, ++n) {
    if constexpr (std::is_same_v<V, Fwk::Unit>) {
      emit(it.key());
    } else {
      emit(MapElement<K, V>{it.key(), it.value()});
    }
    next = Cursor::of(it.key());
  }
  return it == m.end() ? Cursor() : next;
}

namespace detail {

// Finds the named collection of a description and walks it with `emit`.
template <typename Emit> class Selector {
public:
  Selector(std::string_view name, const Cursor &after, std::size_t limit,
           Emit &emit)
      : name_(name), after_(after), limit_(limit), emit_(emit) {}

  // A collection walked by a function of (after, limit, emit) -> next.
  template <typename Walk> void walk(std::string_view name, Walk &&fn) {
    if (!found_ && name == name_) {
      found_ = true;
      next_ = fn(after_, limit_, emit_);
    }
  }
  // A framework hash map (a set: HashMap<K, Fwk::Unit>), in hash order,
  // resumed after a key.
  template <typename K, typename V>
  void map(std::string_view name, const Fwk::HashMap<K, V> &m) {
    walk(name, [&m](const Cursor &after, std::size_t limit, auto &emit) {
      return walkMap(m, after, limit, emit);
    });
  }
  bool found() const noexcept { return found_; }
  const Cursor &next() const noexcept { return next_; }

private:
  std::string_view name_;
  const Cursor &after_;
  std::size_t limit_;
  Emit &emit_;
  bool found_ = false;
  Cursor next_;
};

} // namespace detail

// What a walk did: whether the collection exists, how many elements it
// visited, and where to resume (empty: done).
struct Walk {
  bool found = false;
  std::size_t visited = 0;
  Cursor next;
};

// Walks a page of a collection, handing each element to f as its typed
// value (a MapElement for maps).
template <Described T, typename F>
Walk walkElements(const T &obj, std::string_view collection,
                  const Cursor &after, std::size_t limit, F &&f) {
  Walk out;
  auto emit = [&](const auto &e) {
    ++out.visited;
    f(e);
  };
  if constexpr (HasCollections<T>) {
    detail::Selector<decltype(emit)> s(collection, after, limit, emit);
    Describe<T>::collections(obj, s);
    out.found = s.found();
    out.next = s.next();
  }
  return out;
}

// Walks a page of a collection into a visitor: one list named after the
// collection, each element described as put() would.
template <Described T>
Walk genericIfIterator(const T &obj, std::string_view collection,
                       const Cursor &after, std::size_t limit, Visitor &v) {
  v.beginList(collection);
  Walk w = walkElements(obj, collection, after, limit,
                        [&v](const auto &e) { put(v, "", e); });
  v.endList();
  return w;
}

// Every element of a collection, typed; for the scripting snapshots.
// Returns false when there is no such collection.
template <Described T, typename F>
bool forEachElement(const T &obj, std::string_view collection, F &&f) {
  constexpr std::size_t kPage = 4096;
  Cursor at;
  for (;;) {
    Walk w = walkElements(obj, collection, at, kPage, f);
    if (!w.found) {
      return false;
    }
    if (w.next.empty()) {
      return true;
    }
    at = std::move(w.next);
  }
}

} // namespace Introspect

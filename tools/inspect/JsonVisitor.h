// Builds JSON from object descriptions (platform/attributes/Attributes.h):
// the form the agent's inspection endpoint answers in, and what mpls-show
// and the Python module read.
//
//   MicaMplsInspect::JsonVisitor v;
//   Introspect::inspectOperation(*table, v);
//   nlohmann::ordered_json doc = v.take();   // {"class": ..., "unitId": 1,
//   ...}
//
// Records become objects, lists arrays, and a collection attribute its size
// under its own name. Integers above 2^53 stay exact (JSON numbers of
// nlohmann are 64-bit).
#pragma once

#include <nlohmann/json.hpp>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Every record and runtime object is described wherever JSON is made of
// it (a type whose description is not visible would print as its text).
#include "platform/attributes/Records.h"

namespace MicaMplsInspect {

using Json = nlohmann::ordered_json;

class JsonVisitor final : public Introspect::Visitor {
public:
  JsonVisitor() { stack_.push_back(&root_); }

  // The value built (the first top-level value handed in).
  Json take() { return std::move(root_); }

  void null(std::string_view name) override { add(name, nullptr); }
  void boolean(std::string_view name, bool v) override { add(name, v); }
  void integer(std::string_view name, std::uint64_t v) override {
    add(name, v);
  }
  void signedInteger(std::string_view name, std::int64_t v) override {
    add(name, v);
  }
  void real(std::string_view name, double v) override { add(name, v); }
  void text(std::string_view name, std::string_view v) override {
    add(name, std::string(v));
  }
  void beginRecord(std::string_view name) override {
    stack_.push_back(&add(name, Json::object()));
  }
  void endRecord() override { stack_.pop_back(); }
  void beginList(std::string_view name) override {
    stack_.push_back(&add(name, Json::array()));
  }
  void endList() override { stack_.pop_back(); }
  void collection(std::string_view name, std::size_t size) override {
    add(name, size);
  }

private:
  Json &add(std::string_view name, Json v) {
    Json &top = *stack_.back();
    if (top.is_array()) {
      top.push_back(std::move(v));
      return top.back();
    }
    if (top.is_object()) {
      Json &slot = top[std::string(name)];
      slot = std::move(v);
      return slot;
    }
    top = std::move(v); // the root
    return top;
  }

  Json root_;
  std::vector<Json *> stack_;
};

// The JSON of one value, as put() describes it.
template <typename T> Json toJson(const T &v) {
  JsonVisitor j;
  Introspect::put(j, "", v);
  return j.take();
}

} // namespace MicaMplsInspect

#pragma once
// IOArrayNode<T, N>: a node whose value is an array of N IOs of one type, held
// as its children in order. The class that uses it names and labels the
// elements; each element is configured like any IO, from the child element of
// its name, and the user of the array may add defaults to that configuration.
#include <array>
#include <functional>
#include <string>
#include <string_view>

#include "core/component.hpp"
#include "core/node_factory.hpp"

template <class T, int N>
class IOArrayNode : public Component {
  static_assert(N > 0);

 public:
  struct Element {
    std::string_view name;
    std::string_view label;
  };
  using Elements = std::array<Element, N>;
  // Adjusts one element's configuration before it is built (defaults only:
  // what the configuration says should win).
  using Prepare = std::function<void(int index, VTree& element_config)>;

  IOArrayNode(const VTree& config, const Elements& elements, const Prepare& prepare = {}) : Component(config) {
    for (int i = 0; i < N; ++i) {
      VTree element = config.child_or_empty(elements[i].name);
      element.set_default(std::string(LabelField::key), std::string(elements[i].label));
      if (prepare) prepare(i, element);
      items_[i] = &adopt(NodeFactory::make<T>(element));
    }
  }

  static constexpr int size() { return N; }
  T& operator[](int i) const { return *items_[i]; }

  std::array<typename T::value_type, N> values() const {
    std::array<typename T::value_type, N> out{};
    for (int i = 0; i < N; ++i) out[i] = items_[i]->get();
    return out;
  }

 private:
  std::array<T*, N> items_{};
};

#include "test/store_exerciser.hpp"

ZEL_REGISTER_NODE("store_exerciser", StoreExerciser);

namespace {
constexpr size_t kValues = 16;
constexpr unsigned long long kDefaultSize = 1024;
}  // namespace

StoreExerciser::StoreExerciser(const VTree& config)
    : Component(config),
      size_(add_setting<ValueField<unsigned long long>>(config, "size")),
      generation_(add<ValueField<unsigned long long>>("generation", 0ull)),
      text_(add<ValueField<std::string>>("text")),
      values_(add<ValueField<std::vector<double>>>("values")),
      flag_(add<ValueField<bool>>("flag")) {
  describe("Store exerciser", "Changes its stored values at every poll.", "sync");
  if (!size_.assigned()) size_.set(kDefaultSize);
  std::string store = this->store().empty() ? std::string("config") : this->store();
  for (FieldBase* f : {static_cast<FieldBase*>(&generation_), static_cast<FieldBase*>(&text_),
                       static_cast<FieldBase*>(&values_), static_cast<FieldBase*>(&flag_)})
    f->attributes_for_update().store = store;
  enable_poll(config, 1000);
  set_generation(0);  // every member assigned, so every file holds all four
}

std::string StoreExerciser::text_for(unsigned long long g, size_t size) {
  std::string unit = std::to_string(g) + ";";
  std::string text;
  text.reserve(size + unit.size());
  while (text.size() < size) text += unit;
  text.resize(size);
  return text;
}

void StoreExerciser::poll() { set_generation(generation_.get() + 1); }

void StoreExerciser::set_generation(unsigned long long g) {
  generation_.set(g);
  text_.set(text_for(g, size_.get()));
  values_.set(std::vector<double>(kValues, static_cast<double>(g)));
  flag_.set(g % 2 == 1);
}

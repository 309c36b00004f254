#include "test/stored_types.hpp"

#include "core/node_factory.hpp"

ZEL_REGISTER_NODE("stored_types", StoredTypes);

StoredTypes::StoredTypes(const VTree& config) : Node(config) {
  const std::string store = this->store().empty() ? std::string("config") : this->store();
  add_typed<bool>("b", store);
  add_typed<int>("i", store);
  add_typed<unsigned char>("u8", store);
  add_typed<unsigned short>("u16", store);
  add_typed<unsigned int>("u32", store);
  add_typed<unsigned long long>("u64", store);
  add_typed<float>("f", store);
  add_typed<double>("d", store);
  add_typed<std::string>("s", store);
  add_typed<std::vector<bool>>("vb", store);
  add_typed<std::vector<double>>("vd", store);
  add_typed<std::vector<std::string>>("vs", store);
}

template <class T>
void StoredTypes::add_typed(const char* name, const std::string& store) {
  add<ValueField<T>>(name).attributes_for_update().store = store;
}

#include "core/api/dir_api.hpp"
#include "core/api/file_api.hpp"
#include "core/api/json_api.hpp"

const FileAPIRegistry& file_api_registry() {
  static const FileAPIRegistry registry{
      {"", std::make_shared<DirAPI>()},
      {std::string(kJsonExtension), std::make_shared<JSONAPI>()},
  };
  return registry;
}

// The store-file loader: a store file of any content, loaded into a tree
// with a stored field of every value type and a stored IO. Whatever the file,
// what the store would write afterwards is a JSON object in the writer's own
// layout, and loading that text gives the same text again. A malformed file
// is kept aside; the scratch folder (scripts/fuzz.sh) is the data root.
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "core/log.hpp"
#include "core/root.hpp"
#include "core/store_manager.hpp"
#include "formats/format_xml.hpp"
#include "std/paths.hpp"
#include "value_text.hpp"

namespace {

constexpr const char* kConfig = R"(<root>
  <admin><store_manager save_delay="0" hourmeter_period="0"/></admin>
  <types type="stored_types"/>
  <level type="analog_io" store="config" value="1.5"/>
</root>)";

void write_file(const std::string& path, std::string_view text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(text.data(), static_cast<std::streamsize>(text.size()));
}

struct Instrument {
  Instrument() : root(FormatXML::instance().build(kConfig)) {
    if (!root) fuzz::fail("the instrument does not build", kConfig, "");
    root->initialize();
    stores = dynamic_cast<StoreManager*>(root->find_path("admin/store_manager"));
    if (!stores) fuzz::fail("no store manager", kConfig, "");
    file = Paths::store_file("config");
    std::filesystem::create_directories(std::filesystem::path(file).parent_path());
  }
  std::string load(std::string_view text) {
    write_file(file, text);
    stores->load("config");
    return stores->text("config");
  }
  std::unique_ptr<Root> root;
  StoreManager* stores = nullptr;
  std::string file;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  Log::set_stderr(false);
  Paths::set_data_root(std::filesystem::current_path().string());
  Paths::set_io_mount("");  // no /io file system
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Instrument instrument;
  const std::string written = instrument.load(fuzz::as_text(data, size));
  auto parsed = nlohmann::json::parse(written, nullptr, false);
  if (!parsed.is_object()) fuzz::fail("the store's text is not a JSON object", fuzz::as_text(data, size), written);
  if (instrument.load(written) != written)
    fuzz::fail("the store's own text loads to a different text", written, instrument.stores->text("config"));
  return 0;
}

// HTTP request handling below the socket: a request of any method, target
// and body (the input: "METHOD TARGET" on the first line, the body after it)
// answered by the router for an instrument with a document root. No target,
// however encoded, reads a file outside the document root: a file beside it
// holds a secret, and a link inside points at it. A target's relative path
// never climbs or starts at "/", and every answer is a known status whose
// JSON answers are valid JSON.
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "core/log.hpp"
#include "core/root.hpp"
#include "formats/format_xml.hpp"
#include "std/paths.hpp"
#include "std/platform_commands.hpp"
#include "value_text.hpp"
#include "web/document_root.hpp"
#include "web/http_router.hpp"
#include "web/web_access.hpp"

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kSecret = "secret beside the document root";

constexpr const char* kConfig = R"(<root>
  <admin><store_manager save_delay="0" hourmeter_period="0"/></admin>
  <level type="analog_io" value="1.5" units="mm"/>
  <name type="string_io" value="chamber"/>
  <guard type="range_interlock_io" input="level" upper_limit="10"/>
</root>)";

void write_file(const fs::path& path, std::string_view text) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

struct Instrument {
  Instrument() : root(FormatXML::instance().build(kConfig)) {
    if (!root) fuzz::fail("the instrument does not build", kConfig, "");
    root->initialize();
    const fs::path here = fs::current_path();
    write_file(here / "secret.txt", kSecret);
    write_file(here / "web/index.html", "<html>index</html>");
    write_file(here / "web/app.js", "export const a = 1;");
    write_file(here / "web/pages/setup.html", "<html>setup</html>");
    fs::remove(here / "web/outside.txt");
    fs::create_symlink(here / "secret.txt", here / "web/outside.txt");
    documents = std::make_unique<DocumentRoot>((here / "web").string());
    // Anonymous writes are let in as an operator's, so the write paths are reached.
    access = std::make_unique<WebAccess>((here / "config/users").string(), WebAccessSettings{.anonymous_write = true});
    router = std::make_unique<HttpRouter>(*root, *documents, *access);
  }
  std::unique_ptr<Root> root;
  std::unique_ptr<DocumentRoot> documents;
  std::unique_ptr<WebAccess> access;
  std::unique_ptr<HttpRouter> router;
};

void check_relative_path(std::string_view target, std::string_view input) {
  auto relative = DocumentRoot::relative_path(target);
  if (!relative) return;
  if (relative->starts_with('/')) fuzz::fail("a relative path starts at /", input, *relative);
  for (const auto& segment : fs::path(*relative))
    if (segment == "..") fuzz::fail("a relative path climbs out", input, *relative);
}

// The admin's buttons end the run or unpack an update: not what this target
// is about, however the target spells them.
bool presses_a_button(const HttpRequestView& request) {
  if (request.method == "GET" || request.method == "HEAD") return false;
  auto relative = DocumentRoot::relative_path(request.target);
  return request.target.find("button") != std::string_view::npos ||
         (relative && relative->find("button") != std::string::npos);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  Log::set_stderr(false);
  Paths::set_data_root(fs::current_path().string());
  Paths::set_io_mount("");
  // The admin's buttons are reachable by PUT; none of them may act on this machine.
  auto& commands = PlatformCommands::table();
  commands.kill_process = "true";
  commands.reboot = "true";
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Instrument instrument;
  std::string_view input = fuzz::as_text(data, size);
  auto line_end = input.find('\n');
  std::string_view line = input.substr(0, line_end);
  std::string_view body = line_end == std::string_view::npos ? std::string_view{} : input.substr(line_end + 1);
  auto blank = line.find(' ');
  HttpRequestView request{blank == std::string_view::npos ? std::string_view("GET") : line.substr(0, blank),
                          blank == std::string_view::npos ? line : line.substr(blank + 1), body};
  if (presses_a_button(request)) return -1;  // not kept in the corpus either

  check_relative_path(request.target, input);
  HttpReply reply = instrument.router->answer(request);
  switch (reply.status) {
    case 200: case 400: case 401: case 403: case 404: case 405: case 429: break;
    default: fuzz::fail("an answer of an unexpected status", input, std::to_string(reply.status));
  }
  if (reply.body.find(kSecret) != std::string::npos) fuzz::fail("a file outside the document root was served", input, reply.body);
  if (reply.status == 200 && reply.content_type == "application/json" &&
      nlohmann::json::parse(reply.body, nullptr, false).is_discarded())
    fuzz::fail("a JSON answer is not valid JSON", input, reply.body);
  return 0;
}

// Who may change the instrument: roles needed per field, callers named by
// sessions and tokens, logins and their limit, the same-origin rule, and one
// table over every web write path, caller and kind of field.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "core/io/io.hpp"
#include "core/permissions.hpp"
#include "core/root.hpp"
#include "formats/format_xml.hpp"
#include "log_capture.hpp"
#include "std/atomic_file.hpp"
#include "router_rig.hpp"
#include "tree_access.hpp"
#include "web/client_protocol.hpp"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

// A signal generator stands in for an admin's button: its restart is
// harmless here, and the one of the administration node is not.
constexpr const char* kRig = R"(<root>
  <rig type="component" label="Rig">
    <t type="analog_io" value="1" units="degC"/>
    <ro type="analog_io" readonly="true" value="1"/>
    <lock type="range_interlock_io" input="rig/t" upper_limit="10"/>
  </rig>
  <expert_only type="component" permissions="expert"><x type="analog_io" value="0"/></expert_only>
  <open type="component" permissions="viewer"><x type="analog_io" value="0"/></open>
  <gen type="signal_generator" enabled="false" permissions="admin"/>
</root>)";

struct Rig : RouterRig {
  Rig(WebAccessSettings settings = {}) : RouterRig(FormatXML::instance().build(kRig), std::move(settings)) {}
};

}  // namespace

TEST(Permissions, RoleNeededFollowsTheNearestPermissionsAttributeThenTheKindOfField) {
  Rig rig;
  auto& root = *rig.root;
  auto needed = [&](const char* path) { return Permissions::needed_for(at<FieldBase>(root, path)); };
  EXPECT_EQ(needed("rig/t/value"), Role::Operator) << "a value of the process";
  EXPECT_EQ(needed("gen/restart_button"), Role::Admin) << "the node's own attribute";
  EXPECT_EQ(needed("io_server/json_test/run_button"), Role::Operator) << "a command";
  EXPECT_EQ(needed("pulse/rate"), Role::Expert) << "a setting of the machine";
  EXPECT_EQ(needed("expert_only/x/value"), Role::Expert) << "an ancestor's attribute";
  EXPECT_EQ(needed("open/x/value"), Role::Viewer);
  for (const char* button : {"admin/stop_button", "admin/reset_button", "admin/reboot_button", "admin/update_button"})
    EXPECT_EQ(needed(button), Role::Admin) << button;
  EXPECT_TRUE(Permissions::allows(Role::Expert, at<FieldBase>(root, "pulse/rate")));
  EXPECT_FALSE(Permissions::allows(Role::Operator, at<FieldBase>(root, "pulse/rate")));
  EXPECT_FALSE(Permissions::allows(Role::Anonymous, at<FieldBase>(root, "open/x/value")));

  // As the write path's hook: only the web's callers are asked for a role.
  std::string reason;
  auto& stop = at<FieldBase>(root, "admin/stop_button");
  for (auto source : {WriteSource::File, WriteSource::Store, WriteSource::Local})
    EXPECT_TRUE(Permissions::check({source, "x"}, stop, reason)) << write_source_name(source);
  EXPECT_FALSE(Permissions::check({WriteSource::WebSocket, "x", Role::Expert}, stop, reason));
  EXPECT_EQ(reason, "'admin/stop_button' needs the role admin, more than expert");
}

// Every web way in x every kind of caller x every kind of field: allowed or
// refused, the answer, the log line, and that a refusal changed nothing. The
// server has HTTPS: callers come over TLS unless they say otherwise, and
// plain HTTP is for the loopback.
TEST(WebAccessTable, EveryWritePathAsksTheSameQuestionsOfEveryCaller) {
  Rig rig({.tls = true});
  auto& access = rig.access;
  access.set_https_port(8443);
  auto operator_session = access.sessions().open("olga", Role::Operator);
  auto viewer_session = access.sessions().open("vera", Role::Viewer);
  auto admin_session = access.sessions().open("ada", Role::Admin);
  auto stale_session = access.sessions().open("olga", Role::Operator, std::chrono::steady_clock::now() - 2h);
  std::string error;
  auto revoked = access.users().issue_token("old-script", Role::Admin, error);
  ASSERT_TRUE(revoked) << error;
  ASSERT_TRUE(access.users().revoke_token("old-script", error));
  auto cookie = [](const std::string& id) { return std::string(WebAccess::kCookie) + "=" + id; };

  struct CallerKind {
    const char* name;
    std::string cookie;
    std::string authorization;
    std::string origin;
    bool secure = true;
    std::string client = "10.0.0.7:5000";
  };
  const std::vector<CallerKind> callers{
      {"anonymous", "", "", ""},
      {"viewer", cookie(viewer_session), "", ""},
      {"operator", "theme=dark; " + cookie(operator_session), "", "https://127.0.0.1"},
      {"admin", cookie(admin_session), "", ""},
      {"foreign origin", cookie(admin_session), "", "http://evil.example"},
      {"plain page", cookie(admin_session), "", "http://127.0.0.1"},  // the page's origin over TLS is https://
      {"expired session", cookie(stale_session), "", ""},
      {"revoked token", "", "Bearer " + *revoked, ""},
      {"plain network", cookie(admin_session), "", "", false},
      {"plain loopback", cookie(operator_session), "", "http://127.0.0.1", false, "127.0.0.1:5000"},
  };
  struct FieldKind {
    const char* name;
    const char* path;
    const char* text;
    Role needed;  // 0 when no caller may write it
  };
  const std::vector<FieldKind> fields{
      {"ordinary", "rig/t/value", "5", Role::Operator},
      {"read-only", "rig/ro/value", "5", Role::Anonymous},
      {"attribute", "rig/t/units", "\"K\"", Role::Anonymous},
      {"state value", "rig/lock/value", "0", Role::Anonymous},
      {"admin button", "gen/restart_button", "true", Role::Admin},
  };
  auto role_of = [](const CallerKind& c) {
    if (std::string_view(c.name) == "viewer") return Role::Viewer;
    if (std::string_view(c.name) == "operator" || std::string_view(c.name) == "plain loopback") return Role::Operator;
    if (std::string_view(c.name) == "admin") return Role::Admin;
    return Role::Anonymous;  // the others are nobody, or refused before
  };

  auto& restarts = at<FieldBase>(*rig.root, "gen/restarts");
  for (bool websocket : {false, true}) {
    for (auto& caller : callers) {
      for (auto& field : fields) {
        SCOPED_TRACE(fmt::format("{} / {} / {}", websocket ? "WebSocket" : "HTTP", caller.name, field.name));
        auto& target = at<FieldBase>(*rig.root, field.path);
        std::string before = target.json() + restarts.json();
        std::string_view kind = caller.name;
        bool foreign = kind == "foreign origin" || kind == "plain page";
        bool redirected = kind == "plain network";
        bool allowed = field.needed != Role::Anonymous && !foreign && !redirected && at_least(role_of(caller), field.needed);
        LogCapture log;
        if (!websocket) {
          auto url = fmt::format("/io/{}", field.path);
          auto reply = rig.router.answer({"PUT", url, field.text, caller.client, "127.0.0.1", caller.origin,
                                          caller.cookie, caller.authorization, caller.secure});
          if (redirected) {
            EXPECT_EQ(reply.status, 308u);
            EXPECT_EQ(reply.location, "https://127.0.0.1:8443" + url);
          } else {
            EXPECT_EQ(reply.body, allowed ? HttpRouter::kSuccess : HttpRouter::kFailed);
            unsigned refused = foreign ? 403 : field.needed == Role::Anonymous ? 403 : role_of(caller) == Role::Anonymous ? 401 : 403;
            EXPECT_EQ(reply.status, allowed ? 200u : refused) << reply.error;
          }
        } else if (!foreign && !redirected) {  // neither gets a WebSocket (WebServerTest, WebServerTls)
          ClientProtocol protocol(*rig.root, std::make_shared<PushTrigger>(), 10,
                                  [&] { return access.caller_of(caller.cookie, caller.authorization, caller.client); });
          protocol.handle_message(fmt::format(R"({{"event":"set","data":{{"{}":{}}}}})", field.path, field.text));
        } else {
          continue;
        }
        std::string after = target.json() + restarts.json();
        if (allowed) {
          EXPECT_NE(after, before);
          EXPECT_TRUE(log.contains(fmt::format("{} {} '{}'", caller.client,
                                               field.needed == Role::Admin ? "pressed" : "set", field.path)));
        } else {
          EXPECT_EQ(after, before) << "a refused write changed nothing";
          EXPECT_EQ(log.texts().size(), redirected ? 0u : 1u) << "logged once; a redirection is no error";
          if (redirected) continue;
          EXPECT_TRUE(log.contains(foreign ? "Error: Cross-origin PUT" : "Error: User can't set Field")) << log.texts().front();
        }
        if (allowed) at<FieldBase>(*rig.root, field.path).read_json(field.needed == Role::Admin ? "true" : "1");
      }
    }
  }
}

TEST(WebAccessLogin, FirstStartCreatesAnAdminWhoseSessionCookieIsGuardedAndEndsAtLogout) {
  Rig rig;
  std::string password;
  ASSERT_TRUE(rig.access.users().load(&password));
  EXPECT_EQ(password.size(), 16u);
  struct stat info {};
  ASSERT_EQ(::stat(rig.access.users().file().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u) << "only its owner reads the users file";
  std::string again;
  Users reread(rig.access.users().file());
  ASSERT_TRUE(reread.load(&again));
  EXPECT_TRUE(again.empty()) << "an existing file makes no new admin";

  LogCapture log;
  auto login = rig.router.answer({"POST", "/api/login", R"({"user":"admin","password":")" + password + "\"}",
                                  "10.0.0.1:1000", "127.0.0.1:8080", "http://127.0.0.1:8080"});
  ASSERT_EQ(login.status, 200u) << login.error;
  EXPECT_EQ(login.body, R"({"role":"admin","user":"admin"})");
  EXPECT_TRUE(login.set_cookie.starts_with("zel_session="));
  EXPECT_NE(login.set_cookie.find("; HttpOnly; SameSite=Strict"), std::string::npos);
  EXPECT_EQ(login.set_cookie.find("Secure"), std::string::npos) << "plain HTTP";
  auto secure_login = rig.router.answer({"POST", "/api/login", R"({"user":"admin","password":")" + password + "\"}",
                                         "10.0.0.1:1000", "127.0.0.1:8443", "https://127.0.0.1:8443", "", "", true});
  EXPECT_EQ(secure_login.status, 200u) << secure_login.error;
  EXPECT_NE(secure_login.set_cookie.find("; HttpOnly; SameSite=Strict; Secure"), std::string::npos);
  auto cookie = login.set_cookie.substr(0, login.set_cookie.find(';'));
  EXPECT_EQ(rig.access.caller_of(cookie, "", "x").role, Role::Admin);
  EXPECT_TRUE(log.contains("User 'admin' (admin) logged in from 10.0.0.1:1000"));

  // A role changes without the password; the last admin keeps its role.
  EXPECT_EQ(rig.router.answer({"POST", "/api/users", R"({"name":"admin","role":"expert"})", "", "", "", cookie}).error,
            "The last admin stays an admin.");
  EXPECT_EQ(rig.router.answer({"POST", "/api/users", R"({"name":"olga","role":"expert"})", "", "", "", cookie}).status,
            400u) << "a new user needs a password";
  auto token = rig.router.answer({"POST", "/api/tokens", R"({"name":"nightly","role":"operator"})", "", "", "", cookie});
  ASSERT_EQ(token.status, 200u) << token.error;
  auto text = nlohmann::json::parse(token.body)["token"].get<std::string>();
  EXPECT_EQ(rig.access.caller_of("", "Bearer " + text, "x").name, "token nightly");
  EXPECT_EQ(rig.router.answer({"POST", "/api/tokens", R"({"name":"t2","role":"admin"})", "", "", "", "",
                               "Bearer " + text}).status, 403u) << "only an admin issues tokens";
  EXPECT_EQ(rig.router.answer({"DELETE", "/api/tokens/nightly", "", "", "", "", cookie}).status, 200u);
  EXPECT_EQ(rig.access.caller_of("", "Bearer " + text, "x").role, Role::Anonymous) << "revoked";

  EXPECT_NE(rig.router.answer({"POST", "/api/logout", "", "", "", "", cookie}).set_cookie.find("Max-Age=0"),
            std::string::npos);
  EXPECT_EQ(rig.access.caller_of(cookie, "", "x").role, Role::Anonymous);
}

TEST(WebAccessLogin, WrongPasswordsAreRefusedAndAnAddressIsStoppedAfterFiveInAMinute) {
  Rig rig;
  std::string error;
  ASSERT_TRUE(rig.access.users().set_user("olga", "right horse", Role::Operator, error)) << error;
  LogCapture log;
  // Each try on a connection of its own: the limit is per address, not per port.
  auto try_login = [&](const char* user, const char* password, std::string client) {
    return rig.router.answer({"POST", "/api/login", fmt::format(R"({{"user":"{}","password":"{}"}})", user, password),
                              client});
  };
  for (int i = 0; i < LoginLimiter::kFailures; ++i)
    EXPECT_EQ(try_login(i % 2 ? "olga" : "nobody", "wrong", fmt::format("[fd00::9]:{}", 4000 + i)).status, 401u);
  EXPECT_TRUE(log.contains("Error: Login of 'nobody' from [fd00::9]:4000 refused: wrong user name or password"));
  EXPECT_EQ(try_login("olga", "right horse", "[fd00::9]:5000").status, 429u) << "even with the right password";
  EXPECT_EQ(try_login("olga", "right horse", "10.0.0.10:4000").status, 200u) << "other addresses are not held up";

  LoginLimiter limiter;
  auto now = std::chrono::steady_clock::now();
  for (int i = 0; i < LoginLimiter::kFailures; ++i) limiter.failed("a", now);
  EXPECT_FALSE(limiter.may_try("a", now + 59s));
  EXPECT_TRUE(limiter.may_try("a", now + 61s));
}

TEST(WebAccessLogin, SessionsEndAfterTheIdleTimeOutButNotWhileUsed) {
  Sessions sessions(60s);
  auto start = std::chrono::steady_clock::now();
  auto id = sessions.open("olga", Role::Operator, start);
  EXPECT_TRUE(sessions.use(id, start + 50s));
  EXPECT_TRUE(sessions.use(id, start + 100s)) << "each use keeps it alive";
  EXPECT_FALSE(sessions.use(id, start + 161s));
  EXPECT_FALSE(sessions.use(id, start + 100s)) << "once ended it stays ended";
  EXPECT_NE(sessions.open("a", Role::Viewer), sessions.open("a", Role::Viewer));
}

TEST(OriginPolicy, OnlyTheInstrumentsOwnNamesAndPageMayChangeIt) {
  OriginPolicy policy({"zel.lab"}, {"https://console.lab"});
  struct Case {
    const char* host;
    const char* origin;
    bool allowed;
    bool secure = false;
  };
  for (auto& c : {Case{"127.0.0.1:8080", "", true}, Case{"127.0.0.1:8080", "http://127.0.0.1:8080", true},
                  Case{"127.0.0.1:8443", "https://127.0.0.1:8443", true, true},
                  Case{"127.0.0.1:8443", "http://127.0.0.1:8443", false, true},
                  Case{"[::1]:80", "http://[::1]:80", true}, Case{"localhost:8080", "http://localhost:8080", true},
                  Case{"zel.lab", "http://zel.lab", true}, Case{"10.1.2.3", "https://console.lab", true},
                  Case{"", "", true}, Case{"127.0.0.1:8080", "http://127.0.0.1:9999", false},
                  Case{"127.0.0.1:8080", "https://127.0.0.1:8080", false}, Case{"127.0.0.1", "null", false},
                  Case{"attacker.example:8080", "http://attacker.example:8080", false},
                  Case{"attacker.example", "", false}}) {
    std::string why;
    EXPECT_EQ(policy.allows(c.host, c.origin, c.secure, why), c.allowed) << c.host << " " << c.origin << ": " << why;
  }
}

TEST(WebAccessLogin, AnUnusableUsersFileLetsNobodyInAndIsLeftForTheAdminToMend) {
  Rig rig;
  const auto& file = rig.access.users().file();
  fs::create_directories(fs::path(file).parent_path());
  const std::string mangled = R"({"users":[{"name":"admin","role":"root","hash":"$argon2id$x"}]})";
  std::ofstream(file) << mangled;
  LogCapture log;
  std::string password;
  EXPECT_FALSE(rig.access.users().load(&password));
  EXPECT_TRUE(password.empty()) << "no admin is made over a file that exists";
  EXPECT_TRUE(log.contains("is unusable (an entry of \"users\" without a valid name, role or hash)"));
  EXPECT_FALSE(rig.access.users().check_password("admin", "anything"));
  std::string text, error;
  ASSERT_EQ(AtomicFile::read(file, text, error), AtomicFile::ReadResult::Ok);
  EXPECT_EQ(text, mangled);
}

// The value text format's self-check; its expectations are the format's
// reference examples.
#include <cstdint>
#include <string>
#include <vector>

#include "core/io_server.hpp"
#include "core/x2x.hpp"

namespace {

template <class T>
std::string read_back(std::string_view text) {
  T value{};
  if (!x2x::from_json(text, value)) return "<no value from '" + std::string(text) + "'>";
  return x2x::to_json(value);
}

template <class T>
void integer_groups(Checker& c, const char* type, T extreme) {
  c.group(std::string("to_json ") + type);
  c.equal(x2x::to_json(T(0)), "0");
  c.equal(x2x::to_json(T(1)), "1");
  c.equal(x2x::to_json(extreme), std::to_string(extreme));

  c.group(std::string("from_json ") + type);
  const std::string text = std::to_string(extreme);
  for (const std::string& form : {text, text + "\n", text + "\r\n", " " + text + " "}) {
    T value{};
    bool ok = x2x::from_json(form, value);
    c.equal(ok ? std::to_string(value) : "<no value>", text);
  }
  T zero{1};
  c.equal(x2x::from_json("0", zero) ? std::to_string(zero) : "<no value>", "0");
  T one{0};
  c.equal(x2x::from_json("1", one) ? std::to_string(one) : "<no value>", "1");

  c.group(std::string("roundtrip ") + type);
  T back{};
  bool ok = x2x::from_json(x2x::to_json(T(42)), back);
  c.equal(ok ? std::to_string(back) : "<no value>", "42");
}

template <class F>
void float_groups(Checker& c, const char* type) {
  c.group(std::string("to_json ") + type);
  c.equal(x2x::to_json(F(-2.55)), "-2.55");
  c.equal(x2x::to_json(F(1)), "1");
  c.equal(x2x::to_json(F(-2)), "-2");

  c.group(std::string("from_json ") + type);
  F value{};
  c.is_true(x2x::from_json("-2.55", value) && value == F(-2.55), "-2.55 reads as -2.55");
  c.is_true(x2x::from_json("1", value) && value == F(1), "1 reads as 1");

  c.group(std::string("scientific ") + type);
  for (const char* form : {"-4.526e-5", "-4.526e-5\n", "-4.526e-5\r\n"}) {
    F v{};
    c.is_true(x2x::from_json(form, v) && v == F(-4.526e-5), std::string(form) + " reads as -4.526e-5");
  }

  c.group(std::string("precession ") + type);
  F tiny = F(-0.000000000000001);
  F back{};
  c.is_true(x2x::from_json(x2x::to_json(tiny), back) && back == tiny, "-0.000000000000001 survives write and read");
}

}  // namespace

CheckReport IOServer::json_test() {
  Checker c;

  c.group("to_json bool");
  c.equal(x2x::to_json(true), "true");
  c.equal(x2x::to_json(false), "false");

  c.group("from_json bool");
  c.equal(read_back<bool>("true"), "true");
  c.equal(read_back<bool>("false"), "false");
  c.equal(read_back<bool>("1"), "true");
  c.equal(read_back<bool>("0"), "false");
  c.equal(read_back<bool>("    1 \r \n  "), "true");
  c.equal(read_back<bool>("  false\r \n "), "false");

  integer_groups<uint8_t>(c, "uint8_t", 255);
  integer_groups<int8_t>(c, "int8_t", -127);
  integer_groups<uint16_t>(c, "uint16_t", 64000);
  integer_groups<int16_t>(c, "int16_t", -127);
  integer_groups<uint32_t>(c, "uint32_t", 64000);
  integer_groups<int32_t>(c, "int32_t", -127);
  integer_groups<uint64_t>(c, "uint64_t", 6400000000ULL);
  integer_groups<int64_t>(c, "int64_t", -127000000000LL);

  float_groups<float>(c, "float");
  float_groups<double>(c, "double");

  const std::string with_escapes = "foo\n\"bar\"";
  const std::string escaped = "\"foo\\n\\\"bar\\\"\"";
  c.group("to_json string");
  c.equal(x2x::to_json(with_escapes), escaped);
  c.group("from_json string");
  std::string text;
  c.equal(x2x::from_json(escaped, text) ? text : "<no value>", with_escapes);

  c.group("to_json vector<bool>");
  c.equal(x2x::to_json(std::vector<bool>{true, false, true}), "[true,false,true]");
  c.group("from_json vector<bool>");
  c.equal(read_back<std::vector<bool>>("[true,false,true]"), "[true,false,true]");

  c.group("to_json vector<double>");
  c.equal(x2x::to_json(std::vector<double>{1.0, -2.0, 0.356}), "[1,-2,0.356]");
  c.group("from_json vector<double>");
  c.equal(read_back<std::vector<double>>("[1,-2,0.356]"), "[1,-2,0.356]");

  c.group("to_json vector<string>");
  c.equal(x2x::to_json(std::vector<std::string>{"foo", "bar", "biz"}), R"(["foo","bar","biz"])");
  c.group("from_json vector<string>");
  c.equal(read_back<std::vector<std::string>>(R"(["foo","bar","biz"])"), R"(["foo","bar","biz"])");

  c.group("to_json vector<vector<string>>");
  c.equal(x2x::to_json(std::vector<std::vector<std::string>>{{"foo", "bar"}, {"biz", "bax"}}),
          R"([["foo","bar"],["biz","bax"]])");

  return c.take();
}

#include "epics/ca_message.hpp"

#include <cstring>

namespace ca {

void put16(std::string& out, uint16_t v) {
  out.push_back(static_cast<char>(v >> 8));
  out.push_back(static_cast<char>(v));
}

void put32(std::string& out, uint32_t v) {
  put16(out, static_cast<uint16_t>(v >> 16));
  put16(out, static_cast<uint16_t>(v));
}

uint16_t get16(const char* p) {
  auto b = reinterpret_cast<const unsigned char*>(p);
  return static_cast<uint16_t>(b[0] << 8 | b[1]);
}

uint32_t get32(const char* p) {
  return static_cast<uint32_t>(get16(p)) << 16 | get16(p + 2);
}

std::optional<ParsedHeader> parse_header(std::string_view bytes) {
  if (bytes.size() < kHeaderSize) return std::nullopt;
  const char* p = bytes.data();
  Header h;
  h.command = get16(p);
  h.payload_size = get16(p + 2);
  h.data_type = get16(p + 4);
  h.data_count = get16(p + 6);
  h.parameter1 = get32(p + 8);
  h.parameter2 = get32(p + 12);
  if (h.payload_size == 0xFFFF && h.data_count == 0) {
    if (bytes.size() < kExtendedHeaderSize) return std::nullopt;
    h.payload_size = get32(p + 16);
    h.data_count = get32(p + 20);
    return ParsedHeader{h, kExtendedHeaderSize};
  }
  return ParsedHeader{h, kHeaderSize};
}

void append_header(std::string& out, const Header& h) {
  bool extended = h.payload_size >= 0xFFFF || h.data_count > 0xFFFF;
  put16(out, h.command);
  put16(out, extended ? 0xFFFF : static_cast<uint16_t>(h.payload_size));
  put16(out, h.data_type);
  put16(out, extended ? 0 : static_cast<uint16_t>(h.data_count));
  put32(out, h.parameter1);
  put32(out, h.parameter2);
  if (extended) {
    put32(out, h.payload_size);
    put32(out, h.data_count);
  }
}

void append_message(std::string& out, Header header, std::string_view payload) {
  header.payload_size = static_cast<uint32_t>(padded8(payload.size()));
  append_header(out, header);
  out.append(payload);
  out.append(header.payload_size - payload.size(), '\0');
}

std::string_view payload_text(std::string_view payload) {
  auto end = payload.find('\0');
  return end == std::string_view::npos ? payload : payload.substr(0, end);
}

}  // namespace ca

#include "core/api/file_api.hpp"

#include <sys/stat.h>

#include <algorithm>

#include "core/clock.hpp"

FileAttribute FileAPI::attribute(Vertex* vertex, std::string path) {
  uint32_t mode = (readable(vertex) ? 0444 : 0) | (writable(vertex) ? 0222 : 0);
  mode |= is_directory(vertex) ? S_IFDIR | 0111 : S_IFREG;
  auto now = static_cast<int64_t>(Clock::wall_ns());
  FileAttribute record;
  record.handler = this;
  record.vertex = vertex;
  record.path = std::move(path);
  record.mode = mode;
  record.atime_ns = record.mtime_ns = record.ctime_ns = now;
  return record;
}

void FileAPI::load(OpenFile& file) const {
  file.snapshot.clear();
  serialize(file.attribute->vertex, file.snapshot);
  file.attribute->size = file.snapshot.size();
}

std::string_view FileAPI::read(OpenFile& file, size_t size, uint64_t offset) const {
  if (file.snapshot.empty()) load(file);
  if (offset >= file.snapshot.size()) return {};
  auto count = std::min<uint64_t>(size, file.snapshot.size() - offset);
  // A read marks the modification time, as the instrument always has.
  file.attribute->mtime_ns = static_cast<int64_t>(Clock::cached_ns());
  return std::string_view(file.snapshot).substr(offset, count);
}

size_t FileAPI::write(OpenFile& file, std::string_view data) const {
  if (data.empty()) return 0;
  file.input.assign(data);
  file.input.push_back('\0');
  deserialize(file.attribute->vertex, file.input);
  // A write marks the change and access times, as the instrument always has.
  file.attribute->ctime_ns = file.attribute->atime_ns = static_cast<int64_t>(Clock::cached_ns());
  return data.size();
}

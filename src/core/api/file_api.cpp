#include "core/api/file_api.hpp"

#include <sys/stat.h>

#include <algorithm>

#include "core/clock.hpp"
#include "core/log.hpp"
#include "core/write_path.hpp"

FileAttribute FileAPI::attribute(Vertex* vertex, std::string path) {
  // Everybody reads; the program's own user (the files' owner) writes.
  uint32_t mode = (readable(vertex) ? 0444 : 0) | (writable(vertex) ? 0200 : 0);
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

int FileAPI::write(OpenFile& file, std::string_view data, uint64_t offset, size_t& written) const {
  written = 0;
  if (data.empty()) return 0;
  // The pieces after a refused first piece of a long value are refused too.
  bool continues = file.refused_end != 0 && offset == file.refused_end;
  if (continues || data.size() >= WritePath::kMaxTextBytes) {
    file.refused_end = offset + data.size();
    ZEL_ERROR("Write to '{}' refused: a value of {} bytes or more does not fit one write", file.attribute->path,
              WritePath::kMaxTextBytes);
    return EFBIG;
  }
  if (int error = deserialize(file.attribute->vertex, data)) return error;
  // A write marks the change and access times, as the instrument always has.
  file.attribute->ctime_ns = file.attribute->atime_ns = static_cast<int64_t>(Clock::cached_ns());
  written = data.size();
  return 0;
}

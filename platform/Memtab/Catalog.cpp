#include "Memtab/Catalog.h"

#include "Memtab/GenericReader.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <ostream>

#include "Memtab/Notify.h"
#include "Memtab/Registry.h"
#include "Memtab/Segment.h"

namespace Memtab {

namespace {

constexpr std::string_view kSegmentPrefix = "memtab.";

std::string hex(const std::vector<std::uint8_t>& bytes, std::uint32_t length) {
  static const char digits[] = "0123456789abcdef";
  std::string s;
  s.reserve(2 * length);
  for (std::uint32_t i = 0; i < length; ++i) {
    s += digits[bytes[i] >> 4];
    s += digits[bytes[i] & 15];
  }
  return s;
}

std::string jsonString(std::string_view text) {
  std::string s = "\"";
  for (char c : text) {
    switch (c) {
      case '"': s += "\\\""; break;
      case '\\': s += "\\\\"; break;
      case '\n': s += "\\n"; break;
      case '\t': s += "\\t"; break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\u%04x", static_cast<unsigned>(c));
          s += buf;
        } else {
          s += c;
        }
    }
  }
  return s + "\"";
}

// Opens table `name` whatever its type. On failure returns null with the
// exit status in `status` and the reason in `why`.
std::unique_ptr<Shm::View> openTable(std::string_view name, int* status, std::string* why) {
  try {
    validateTableName(name);
  } catch (const Cog::Exception& e) {
    *why = "'" + std::string(name) + "' is not a table name: " + e.what();
    *status = kCatalogNoTable;
    return nullptr;
  }
  why->clear();
  auto v = Shm::View::inspect(name, why);
  if (v) return v;
  if (why->empty()) {
    *why = "no table named '" + std::string(name) + "'";
    *status = kCatalogNoTable;
  } else {
    *why = "table " + std::string(name) + " is damaged: " + *why;
    *status = kCatalogFailed;
  }
  return nullptr;
}

// An entry's line: its registration's text, or its image in hex.
bool entryText(const ValueType* type, std::vector<std::uint8_t>& image, std::uint32_t length,
               std::string* text, bool* isText, std::string* why) {
  *isText = type != nullptr;
  if (type == nullptr) {
    *text = hex(image, length);
    return true;
  }
  return type->text(image, length, text, why);
}

}  // namespace

std::vector<TableInfo> listTables() {
  std::vector<TableInfo> tables;
  DIR* d = opendir("/dev/shm");
  if (d == nullptr) return tables;
  while (dirent* e = readdir(d)) {
    std::string_view file = e->d_name;
    if (file.substr(0, kSegmentPrefix.size()) != kSegmentPrefix) continue;
    TableInfo info;
    info.name = std::string(file.substr(kSegmentPrefix.size()));
    int status = 0;
    std::string why;
    auto v = openTable(info.name, &status, &why);
    if (!v) {
      if (status == kCatalogNoTable) continue;  // gone meanwhile, or not ours to name
      info.damage = why;
      tables.push_back(info);
      continue;
    }
    info.typeName = registeredTypeName(v->typeName());
    info.entries = v->count();
    info.bytes = v->mappedBytes();
    info.writerPid = v->writerPid();
    info.writerAlive = v->writerAlive();
    info.readers = info.writerAlive ? v->readers() : 0;
    tables.push_back(info);
  }
  closedir(d);
  std::sort(tables.begin(), tables.end(),
            [](const TableInfo& a, const TableInfo& b) { return a.name < b.name; });
  return tables;
}

void printTables(const std::vector<TableInfo>& tables, std::ostream& out) {
  std::vector<std::vector<std::string>> rows{
      {"NAME", "TYPE", "ENTRIES", "BYTES", "WRITER", "READERS"}};
  for (const auto& t : tables) {
    if (!t.damage.empty()) {
      rows.push_back({t.name, "-", "-", "-", "-", "-", t.damage});
      continue;
    }
    rows.push_back({t.name, t.typeName.empty() ? "-" : t.typeName, std::to_string(t.entries),
                    std::to_string(t.bytes),
                    std::to_string(t.writerPid) + (t.writerAlive ? " alive" : " gone"),
                    t.writerAlive ? std::to_string(t.readers) : "-"});
  }
  std::vector<std::size_t> width(6, 0);
  for (auto& r : rows)
    for (std::size_t i = 0; i < 6; ++i) width[i] = std::max(width[i], r[i].size());
  for (auto& r : rows) {
    std::string line;
    for (std::size_t i = 0; i < 6; ++i) {
      line += r[i];
      if (i + 1 < 6) line += std::string(width[i] - r[i].size() + 2, ' ');
    }
    if (r.size() > 6) line += "  " + r[6];
    while (!line.empty() && line.back() == ' ') line.pop_back();
    out << line << "\n";
  }
}

int dumpTable(std::string_view name, bool json, std::ostream& out, std::string* why) {
  int status = 0;
  auto v = openTable(name, &status, why);
  if (!v) return status;
  const std::string typeName = v->typeName();
  const ValueType* type = findValueType(typeName);
  if (json) {
    out << "{\"table\": " << jsonString(name) << ", \"type\": " << jsonString(registeredTypeName(typeName))
        << ", \"entries\": [";
  }
  bool started = false, first = true;
  std::uint32_t last = 0;
  for (;;) {
    std::uint32_t h = 0;
    std::string detail;
    const auto step = v->nextGroup(started, last, &h, &detail);
    if (step == Shm::View::Step::end) break;
    if (step == Shm::View::Step::corrupt) {
      if (json) out << "]}\n";
      *why = "table " + std::string(name) + " is damaged: " + detail;
      return kCatalogFailed;
    }
    started = true;
    last = h;
    for (std::size_t i = 0; i < v->groupImages().size(); ++i) {
      const auto& image = v->groupImages()[i];
      std::string text;
      bool isText = false;
      if (!entryText(type, v->groupImage(i), image.length, &text, &isText, &detail)) {
        if (json) out << "]}\n";
        *why = "table " + std::string(name) + " is damaged: record at offset " +
               std::to_string(image.offset) + ": " + detail;
        return kCatalogFailed;
      }
      if (json) {
        out << (first ? "" : ", ") << "{\"" << (isText ? "text" : "image") << "\": " << jsonString(text)
            << "}";
      } else {
        out << text << "\n";
      }
      first = false;
    }
  }
  if (json) out << "]}\n";
  return kCatalogDone;
}

namespace {

struct Watch {
  const ValueType* type;
  std::ostream* out;
  std::uint64_t keys = 0;
  Shm::View* view = nullptr;
};

bool watchVisit(void* context, Shm::RingKind kind, std::vector<std::uint8_t>& image,
                std::uint32_t length, std::uint64_t, bool erased, std::string* why) {
  auto* w = static_cast<Watch*>(context);
  if (kind == Shm::RingKind::table) {
    *w->out << "-- the whole table changed (" << w->view->count() << " entries)\n";
    return true;
  }
  std::string text;
  bool isText = false;
  if (!entryText(w->type, image, length, &text, &isText, why)) return false;
  *w->out << (erased ? "del " : "set ") << text << "\n";
  ++w->keys;
  return true;
}

}  // namespace

int watchTable(std::string_view name, std::uint64_t changes, const std::function<bool()>& stop,
               std::ostream& out, std::string* why) {
  int status = 0;
  auto v = openTable(name, &status, why);
  if (!v) return status;
  Watch w{findValueType(v->typeName()), &out};
  std::vector<std::string> reports;
  Shm::Mount mount(std::string(name), v->typeTag(), static_cast<uid_t>(-1),
                   [&](const std::string& m) { reports.push_back(m); });
  mount.update(true);
  out << "watching " << name << " (" << registeredTypeName(v->typeName()) << ", " << v->count() << " entries, "
      << toString(mount.status()) << ")\n"
      << std::flush;
  v.reset();
  while (!stop || !stop()) {
    pollfd p{mount.fd(), POLLIN, 0};
    poll(&p, 1, 100);
    auto u = mount.update(false);
    for (auto& m : reports) out << "-- " << m << "\n";
    reports.clear();
    if (u.statusChanged) out << "-- " << toString(mount.status()) << "\n";
    if (Shm::View* view = mount.view()) {
      if (u.contentsNew) out << "-- a new segment (" << view->count() << " entries)\n";
      w.view = view;
      std::string detail;
      if (!view->readRing(mount.ringPosition(), &watchVisit, &w, &detail)) {
        out << "-- " << (detail.empty() ? "fell behind the writer: changes were missed" : detail)
            << "\n";
      }
    }
    out << std::flush;
    if (changes != 0 && w.keys >= changes) break;
    mount.arm();
  }
  return kCatalogDone;
}

int removeTable(std::string_view name, std::string* why) {
  try {
    validateTableName(name);
  } catch (const Cog::Exception& e) {
    *why = "'" + std::string(name) + "' is not a table name: " + e.what();
    return kCatalogNoTable;
  }
  const std::string path = segmentName(name);
  int fd = shm_open(path.c_str(), O_RDONLY | O_CLOEXEC, 0);
  if (fd < 0) {
    *why = errno == ENOENT ? "no table named '" + std::string(name) + "'"
                           : "cannot open " + path + ": " + std::strerror(errno);
    return errno == ENOENT ? kCatalogNoTable : kCatalogFailed;
  }
  // The writer holds a lock on the segment for as long as it lives.
  struct flock fl {};
  fl.l_type = F_RDLCK;
  fl.l_whence = SEEK_SET;
  const bool alive = fcntl(fd, F_OFD_GETLK, &fl) != 0 || fl.l_type != F_UNLCK;
  std::uint32_t pid = 0;
  alignas(Shm::Header) std::uint8_t header[sizeof(Shm::Header)];
  if (pread(fd, header, sizeof header, 0) == static_cast<ssize_t>(sizeof header)) {
    pid = reinterpret_cast<const Shm::Header*>(header)->writerPid.load(std::memory_order_relaxed);
  }
  close(fd);
  if (alive) {
    *why = "table " + std::string(name) + " has a live writer";
    if (pid != 0) *why += " (pid " + std::to_string(pid) + ")";
    return kCatalogFailed;
  }
  unlinkTable(name);
  return kCatalogDone;
}

}  // namespace Memtab

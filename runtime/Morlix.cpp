#include "runtime/Morlix.h"

#include <fcntl.h>
#include <pthread.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <utility>

#include "runtime/Exception.h"
#include "runtime/OwnedDescriptor.h"

namespace Morlix {

namespace {

constexpr char magic[8] = {'M', 'O', 'R', 'L', 'I', 'X', 'R', 'B'};
constexpr std::uint32_t version = 1;
constexpr std::size_t maxFacilityLength = 255;

struct FileHeader {
  char magic[8];
  std::uint32_t version;
  std::uint32_t headerSize;
  std::uint64_t fileSize;
  std::uint64_t head;  // oldest whole record
  std::uint64_t tail;  // end of the newest whole record
  char reserved[24];
};
static_assert(sizeof(FileHeader) == 64);

struct RecordHeader {
  std::uint64_t position;
  std::uint32_t length;  // header, facility and message
  std::uint32_t checksum;
  std::int64_t timeNs;
  std::uint16_t level;
  std::uint16_t facilityLength;
  std::uint32_t messageLength;
};
static_assert(sizeof(RecordHeader) == 32);

// Catches damage, not tampering: a word at a time so that a record costs a
// few tens of nanoseconds.
class Checksum {
 public:
  void add(void const* data, std::size_t size) {
    auto const* bytes = static_cast<unsigned char const*>(data);
    for (; size >= 8; size -= 8, bytes += 8) {
      std::uint64_t word;
      memcpy(&word, bytes, 8);
      mix(word);
    }
    if (size > 0) {
      // Gathered in a register, as a little-endian load would read it: a
      // word stored byte by byte and then read whole stalls on the read.
      std::uint64_t word = 0;
      for (std::size_t i = 0; i < size; ++i) word |= std::uint64_t{bytes[i]} << (8 * i);
      mix(word);
    }
  }
  void addWord(std::uint64_t word) { mix(word); }
  std::uint32_t value() const { return static_cast<std::uint32_t>(hash_ ^ (hash_ >> 32)); }

 private:
  void mix(std::uint64_t word) {
    hash_ = (hash_ ^ word) * 0x100000001b3ull;
    hash_ ^= hash_ >> 29;
  }
  std::uint64_t hash_ = 0xcbf29ce484222325ull;
};

// The header counts as its four words as a little-endian host lays them out,
// with the checksum field zero. They are put together from the fields: the
// header was just written field by field, and reading it back whole stalls.
std::uint32_t checksumOf(RecordHeader const& header, std::string_view facility, std::string_view message) {
  Checksum checksum;
  checksum.addWord(header.position);
  checksum.addWord(header.length);
  checksum.addWord(static_cast<std::uint64_t>(header.timeNs));
  checksum.addWord(header.level | std::uint64_t{header.facilityLength} << 16 |
                   std::uint64_t{header.messageLength} << 32);
  checksum.add(facility.data(), facility.size());
  checksum.add(message.data(), message.size());
  return checksum.value();
}

// Copies in and out of the ring, wrapping at its end. No copy is longer than
// the ring.
class RingCursor {
 public:
  RingCursor(char* data, std::size_t capacity, std::uint64_t position)
      : data_(data), capacity_(capacity), index_(position % capacity) {}
  // Nearly every copy does not wrap and is then one copy of the caller's
  // size, which for a record header is two moves. memmove, not memcpy: GCC
  // turns a memcpy whose length it can bound (a facility is at most 255
  // bytes) into rep movsq, whose start-up cost was a third of a write.
  void put(void const* source, std::size_t size) {
    if (size <= capacity_ - index_) {
      memmove(data_ + index_, source, size);
    } else {
      std::size_t first = capacity_ - index_;
      memcpy(data_ + index_, source, first);
      memcpy(data_, static_cast<char const*>(source) + first, size - first);
    }
    advance(size);
  }
  void get(void* target, std::size_t size) {
    if (size <= capacity_ - index_) {
      memcpy(target, data_ + index_, size);
    } else {
      std::size_t first = capacity_ - index_;
      memcpy(target, data_ + index_, first);
      memcpy(static_cast<char*>(target) + first, data_, size - first);
    }
    advance(size);
  }

 private:
  void advance(std::size_t size) {
    index_ += size;
    if (index_ >= capacity_) index_ -= capacity_;
  }
  char* data_;
  std::size_t capacity_;
  std::size_t index_;
};

// The process's one writer. Plain data, so that it is usable from static
// constructors and destructors of other files.
struct Writer {
  int fd = -1;
  void* map = nullptr;
  std::size_t size = 0;
  FileHeader* header = nullptr;
  char* data = nullptr;
  std::size_t capacity = 0;
  std::uint64_t head = 0;
  std::uint64_t tail = 0;
};

Writer writer;
void (*openChangeHandler)() = nullptr;

// What makes header unusable for a file of fileSize bytes, or "" when it is fine.
std::string headerProblem(FileHeader const& header, std::uint64_t fileSize) {
  if (memcmp(header.magic, magic, sizeof magic) != 0) return "not a Morlix ring buffer (bad magic)";
  if (header.version != version) {
    return "unsupported version " + std::to_string(header.version) + " (this reader knows " + std::to_string(version) +
           ")";
  }
  if (header.headerSize != sizeof(FileHeader)) return "bad header size " + std::to_string(header.headerSize);
  if (header.fileSize != fileSize) {
    return "header says " + std::to_string(header.fileSize) + " bytes but the file has " + std::to_string(fileSize);
  }
  if (fileSize < minSizeBytes) return "size " + std::to_string(fileSize) + " is below the minimum";
  std::uint64_t capacity = fileSize - sizeof(FileHeader);
  if (header.head > header.tail || header.tail - header.head > capacity) {
    return "write positions out of range (head " + std::to_string(header.head) + ", tail " +
           std::to_string(header.tail) + ", capacity " + std::to_string(capacity) + ")";
  }
  return {};
}

void readAt(int fd, void* target, std::size_t size, off_t offset, std::string const& path) {
  auto* bytes = static_cast<char*>(target);
  while (size > 0) {
    ssize_t n = pread(fd, bytes, size, offset);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw Error("cannot read " + path + ": " + Kel::errnoText(errno));
    if (n == 0) throw Error(path + ": file shrank while being read");
    bytes += n;
    size -= static_cast<std::size_t>(n);
    offset += n;
  }
}

bool holdsRingOfSize(int fd, std::size_t size) {
  struct stat status;
  if (fstat(fd, &status) != 0 || static_cast<std::uint64_t>(status.st_size) != size) return false;
  FileHeader header;
  return pread(fd, &header, sizeof header, 0) == sizeof header && headerProblem(header, size).empty();
}

void notifyOpenChange() {
  if (openChangeHandler) openChangeHandler();
}

// A forked child would be a second writer on the same ring; it gives the ring
// up and leaves it to the parent. Its copy of the descriptor goes without
// releasing the parent's lock, which belongs to the shared open file.
void closeInForkedChild() { close(); }

// Moves head past the oldest records until a record ending at end fits.
void makeRoom(std::uint64_t end) {
  std::uint64_t head = writer.head;
  while (end - head > writer.capacity) {
    RecordHeader oldest;
    RingCursor(writer.data, writer.capacity, head).get(&oldest, sizeof oldest);
    if (oldest.position != head || oldest.length < sizeof oldest || oldest.length > writer.tail - head) {
      // Damaged by something other than this writer: drop the whole history
      // rather than walk garbage.
      head = writer.tail;
      break;
    }
    head += oldest.length;
  }
  if (head == writer.head) return;
  std::atomic_ref<std::uint64_t>(writer.header->head).store(head, std::memory_order_relaxed);
  // The new head must be in memory before the bytes it gives up change.
  std::atomic_thread_fence(std::memory_order_release);
  writer.head = head;
}

}  // namespace

void open(std::string const& path, std::size_t sizeBytes) {
  if (sizeBytes < minSizeBytes || sizeBytes > maxSizeBytes) {
    throw Error(path + ": ring size " + std::to_string(sizeBytes) + " is outside " + std::to_string(minSizeBytes) +
                " to " + std::to_string(maxSizeBytes) + " bytes");
  }
  close();
  Kel::OwnedDescriptor fd(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
  if (fd.get() < 0) throw Error("cannot open " + path + ": " + Kel::errnoText(errno));
  if (flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno == EWOULDBLOCK) throw Error(path + ": in use by another writer");
    throw Error("cannot lock " + path + ": " + Kel::errnoText(errno));
  }
  bool continued = holdsRingOfSize(fd.get(), sizeBytes);
  if (!continued) {
    if (ftruncate(fd.get(), 0) != 0) throw Error("cannot truncate " + path + ": " + Kel::errnoText(errno));
    // Reserving the blocks now turns a full disk into this error instead of
    // a SIGBUS in the middle of a trace statement.
    if (int error = posix_fallocate(fd.get(), 0, static_cast<off_t>(sizeBytes))) {
      throw Error("cannot allocate " + std::to_string(sizeBytes) + " bytes for " + path + ": " + Kel::errnoText(error));
    }
  }
  void* map = mmap(nullptr, sizeBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
  if (map == MAP_FAILED) throw Error("cannot map " + path + ": " + Kel::errnoText(errno));
  auto* header = static_cast<FileHeader*>(map);
  if (!continued) {
    header->version = version;
    header->headerSize = sizeof(FileHeader);
    header->fileSize = sizeBytes;
    header->head = 0;
    header->tail = 0;
    // The magic goes last: a file without it is rejected, never misread.
    std::atomic_signal_fence(std::memory_order_seq_cst);
    memcpy(header->magic, magic, sizeof magic);
  }
  writer.fd = fd.release();
  writer.map = map;
  writer.size = sizeBytes;
  writer.header = header;
  writer.data = static_cast<char*>(map) + sizeof(FileHeader);
  writer.capacity = sizeBytes - sizeof(FileHeader);
  writer.head = header->head;
  writer.tail = header->tail;
  static bool const forkHandlerRegistered = pthread_atfork(nullptr, nullptr, &closeInForkedChild) == 0;
  static_cast<void>(forkHandlerRegistered);
  notifyOpenChange();
}

void close() {
  if (!writer.map) return;
  munmap(writer.map, writer.size);
  ::close(writer.fd);
  writer = Writer();
  notifyOpenChange();
}

bool isOpen() { return writer.map != nullptr; }

void write(std::int64_t timeNs, std::string_view facility, int level, std::string_view message) {
  if (!writer.map) return;
  facility = facility.substr(0, maxFacilityLength);
  std::size_t room = writer.capacity / 4 - sizeof(RecordHeader) - facility.size();
  message = message.substr(0, room);
  RecordHeader header{};
  header.position = writer.tail;
  header.length = static_cast<std::uint32_t>(sizeof header + facility.size() + message.size());
  header.timeNs = timeNs;
  header.level = static_cast<std::uint16_t>(std::clamp(level, 0, 0xffff));
  header.facilityLength = static_cast<std::uint16_t>(facility.size());
  header.messageLength = static_cast<std::uint32_t>(message.size());
  header.checksum = checksumOf(header, facility, message);

  std::uint64_t end = writer.tail + header.length;
  makeRoom(end);
  RingCursor cursor(writer.data, writer.capacity, writer.tail);
  cursor.put(&header, sizeof header);
  cursor.put(facility.data(), facility.size());
  cursor.put(message.data(), message.size());
  std::atomic_ref<std::uint64_t>(writer.header->tail).store(end, std::memory_order_release);
  writer.tail = end;
}

void flush() {
  if (writer.map) msync(writer.map, writer.size, MS_SYNC);
}

void openChangeHandlerIs(void (*handler)()) { openChangeHandler = handler; }

Snapshot read(std::string const& path) {
  Kel::OwnedDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) throw Error("cannot open " + path + ": " + Kel::errnoText(errno));
  struct stat status;
  if (fstat(fd.get(), &status) != 0) throw Error("cannot stat " + path + ": " + Kel::errnoText(errno));
  auto fileSize = static_cast<std::uint64_t>(status.st_size);
  if (fileSize < sizeof(FileHeader)) {
    throw Error(path + ": too small for a ring buffer header (" + std::to_string(fileSize) + " bytes)");
  }
  FileHeader before;
  readAt(fd.get(), &before, sizeof before, 0, path);
  if (std::string problem = headerProblem(before, fileSize); !problem.empty()) throw Error(path + ": " + problem);
  std::size_t capacity = fileSize - sizeof(FileHeader);
  std::vector<char> data(capacity);
  readAt(fd.get(), data.data(), capacity, sizeof(FileHeader), path);
  // A live writer may have overwritten the oldest records while they were
  // copied; it moved head past them first, so the head read afterwards says
  // where the copy is whole.
  FileHeader after;
  readAt(fd.get(), &after, sizeof after, 0, path);

  Snapshot snapshot;
  std::uint64_t position = std::max(before.head, after.head);
  std::uint64_t const end = before.tail;
  while (position < end) {
    RecordHeader header;
    if (end - position < sizeof header) {
      ++snapshot.damagedRecords;
      break;
    }
    RingCursor cursor(data.data(), capacity, position);
    cursor.get(&header, sizeof header);
    if (header.position != position || header.length != sizeof header + header.facilityLength + header.messageLength ||
        header.length > end - position) {
      // Without a trustworthy length the next record cannot be found.
      ++snapshot.damagedRecords;
      break;
    }
    Record record{header.timeNs, std::string(header.facilityLength, '\0'), header.level,
                  std::string(header.messageLength, '\0')};
    cursor.get(record.facility.data(), record.facility.size());
    cursor.get(record.message.data(), record.message.size());
    if (checksumOf(header, record.facility, record.message) == header.checksum) {
      snapshot.records.push_back(std::move(record));
    } else {
      ++snapshot.damagedRecords;
    }
    position += header.length;
  }
  return snapshot;
}

std::size_t formatLine(char* out, std::size_t capacity, std::int64_t timeNs, std::string_view facility, int level,
                       std::string_view message) {
  if (capacity == 0) return 0;
  using namespace std::chrono;
  sys_time<nanoseconds> time{nanoseconds(timeNs)};
  sys_days day = floor<days>(time);
  year_month_day date(day);
  hh_mm_ss<microseconds> clock(floor<microseconds>(time - day));
  int length = snprintf(out, capacity, "%04d-%02u-%02uT%02d:%02d:%02d.%06dZ %.*s %d %.*s\n",
                        static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
                        static_cast<unsigned>(date.day()), static_cast<int>(clock.hours().count()),
                        static_cast<int>(clock.minutes().count()), static_cast<int>(clock.seconds().count()),
                        static_cast<int>(clock.subseconds().count()), static_cast<int>(facility.size()),
                        facility.data(), level, static_cast<int>(message.size()), message.data());
  if (length < 0) return 0;
  if (static_cast<std::size_t>(length) < capacity) return static_cast<std::size_t>(length);
  out[capacity - 1] = '\n';
  return capacity;
}

std::string line(Record const& record) {
  std::string text(64 + record.facility.size() + record.message.size(), '\0');
  text.resize(formatLine(text.data(), text.size(), record.timeNs, record.facility, record.level, record.message));
  return text;
}

}  // namespace Morlix

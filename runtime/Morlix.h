#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

// Morlix: the process's trace ring buffer, a file mapped MAP_SHARED so that
// its contents survive the writer's death, kill -9 included. One writer per
// file (held by an exclusive flock), no locks on the write path, no heap
// allocation per record.
//
// File layout, in the host's byte order:
//   header, 64 bytes: magic "MORLIXRB", version 1, header size, file size,
//     head, tail, reserved. head and tail are absolute byte positions that
//     only grow; position p lives at data[p % capacity].
//   data: the rest of the file, a ring holding a stream of records. A record
//     may wrap around the end. Each record is a 32-byte header (position,
//     length, checksum, time in ns since the epoch, level, facility length,
//     message length) followed by the facility and message bytes.
//
// Commit order: the writer moves head past the records it is about to
// overwrite, then writes the record, then publishes tail. [head, tail) thus
// holds whole records whenever the writer stops, so a record torn by its
// death lies past tail and is never read. The position stored in each record
// and its checksum catch any other damage; a reader skips such records.
namespace Morlix {

inline constexpr std::size_t defaultSizeBytes = 4u << 20;
inline constexpr std::size_t minSizeBytes = 4096;
inline constexpr std::size_t maxSizeBytes = 1u << 30;

// A file that cannot be opened, created or read as a ring buffer. The text
// names the file and what is wrong with it.
class Error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Makes path this process's ring buffer, sizeBytes long in all. An existing
// ring of that size is continued, so a restarted writer keeps what its
// predecessor wrote; any other file there is replaced. Closes the previous
// ring first. Throws Error.
void open(std::string const& path, std::size_t sizeBytes = defaultSizeBytes);
void close();
bool isOpen();

// Appends one record, overwriting the oldest ones as needed. A record longer
// than a quarter of the ring has its message cut. Does nothing when closed.
void write(std::int64_t timeNs, std::string_view facility, int level, std::string_view message);

// Forces the ring to the disk (msync), so it survives a crash of the system
// too. The page cache already keeps it across the death of the process.
void flush();

// Called after every open and close; tracing recomputes its masks there.
void openChangeHandlerIs(void (*handler)());

struct Record {
  std::int64_t timeNs;
  std::string facility;
  int level;
  std::string message;
};

struct Snapshot {
  std::vector<Record> records;  // oldest first
  std::size_t damagedRecords = 0;
};

// Reads a ring, also one whose writer is alive or died. Throws Error for a
// missing file or one whose header is not a valid ring's.
Snapshot read(std::string const& path);

// The one line format of tracing, on stderr and from the reader:
// "2026-11-21T23:17:02.123456Z Facility 6 message\n" (UTC). Writes at most
// capacity bytes, always ending in a newline, and returns how many.
std::size_t formatLine(char* out, std::size_t capacity, std::int64_t timeNs, std::string_view facility, int level,
                       std::string_view message);
std::string line(Record const& record);

}  // namespace Morlix

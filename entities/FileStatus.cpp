#include "entities/FileStatus.h"

namespace FileReplication {

std::ostream& operator<<(std::ostream& o, FileStatus::Status status) {
  switch (status) {
    case FileStatus::inProgress: return o << "inProgress";
    case FileStatus::synchronized: return o << "synchronized";
    case FileStatus::failed: return o << "failed";
    case FileStatus::unknown: return o << "unknown";
  }
  return o << "FileStatus::Status(" << static_cast<std::uint32_t>(status) << ")";
}

}  // namespace FileReplication

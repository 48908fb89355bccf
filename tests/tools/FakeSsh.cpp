#include "tests/tools/FakeSsh.h"

#include <sys/stat.h>

#include <sstream>
#include <stdexcept>

FakeSsh::FakeSsh(const TempDir& directory)
    : script_(directory / "fake-ssh"),
      root_(directory / "hosts"),
      log_(directory / "ssh.log"),
      run_(directory / "run") {
  if (mkdir(run_.c_str(), 0700) != 0) throw std::runtime_error("mkdir " + run_ + " failed");
  // The temporary directory's name needs no quoting inside double quotes.
  writeFile(script_, R"(#!/bin/sh
user=
while [ $# -gt 0 ]; do
  case "$1" in
    -l) user="$2@"; shift 2;;
    -o|-p) shift 2;;
    -*) shift;;
    *) break;;
  esac
done
host=$1
shift
echo "$user$host" >> ")" +
                         log_ + R"("
case "$host" in
  *.invalid) echo "ssh: Could not resolve hostname $host: Name or service not known" >&2; exit 255;;
esac
mkdir -p ")" + root_ + R"(/$host" && cd ")" +
                         root_ + R"(/$host" && exec sh -c "$*"
)");
  if (chmod(script_.c_str(), 0755) != 0) throw std::runtime_error("chmod failed");
}

std::vector<std::string> FakeSsh::hostsContacted() const {
  std::istringstream log(readFile(log_));
  std::vector<std::string> hosts;
  for (std::string line; std::getline(log, line);) hosts.push_back(line);
  return hosts;
}

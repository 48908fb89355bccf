// Goes first on PATH as ssh for the system benchmark: runs the real ssh
// with the benchmark's configuration file. ssh reads ~/.ssh/config from the
// home directory of the passwd entry, whatever $HOME says, and nothing but
// -F points it elsewhere; Replicate, and the rsync it starts, only know the
// name ssh.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

int main(int argc, char** argv) {
  char* program = std::getenv("FILEREP_BENCH_SSH_PROGRAM");
  char* config = std::getenv("FILEREP_BENCH_SSH_CONFIG");
  if (!program || !config) {
    std::fputs("ssh: FILEREP_BENCH_SSH_PROGRAM and FILEREP_BENCH_SSH_CONFIG must be set\n", stderr);
    return 255;
  }
  char dashF[] = "-F";
  std::vector<char*> args = {argv[0], dashF, config};
  args.insert(args.end(), argv + 1, argv + argc);
  args.push_back(nullptr);
  execv(program, args.data());
  std::perror(program);
  return 255;
}

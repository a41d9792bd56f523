#include "support/test_util.h"

#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <thread>

#include "base/board_path.h"
#include "base/log.h"

namespace kestro::zqp::test_support {

BoardRoot::BoardRoot() {
  base::SetBoardRootForTesting(Path());
}

BoardRoot::~BoardRoot() {
  base::SetBoardRootForTesting("");
  base::SetLogLevel(1);
}

ScopedLogLevel::ScopedLogLevel(int level) {
  base::SetLogLevel(static_cast<std::uint8_t>(level));
}
ScopedLogLevel::~ScopedLogLevel() {
  base::SetLogLevel(1);
}

std::string CaptureStderr(const std::function<void()>& body) {
  std::FILE* file = std::tmpfile();
  std::fflush(stderr);
  const int saved = dup(STDERR_FILENO);
  dup2(fileno(file), STDERR_FILENO);
  body();
  std::fflush(stderr);
  dup2(saved, STDERR_FILENO);
  close(saved);
  std::rewind(file);
  std::string text;
  char chunk[512];
  for (std::size_t got; (got = std::fread(chunk, 1, sizeof chunk, file)) > 0;)
    text.append(chunk, got);
  std::fclose(file);
  return text;
}

bool WaitFor(const std::function<bool()>& predicate, std::chrono::milliseconds timeout) {
  const auto end = std::chrono::steady_clock::now() + timeout;
  while (!predicate()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

namespace {

// Calls visit with every entry name of dir except "." and "..".
template <typename Visit>
void ForEachEntry(const char* dir, Visit visit) {
  DIR* stream = opendir(dir);
  if (stream == nullptr) return;
  while (const dirent* entry = readdir(stream)) {
    if (entry->d_name[0] != '.') visit(std::string(entry->d_name));
  }
  closedir(stream);
}

}  // namespace

int CountOpenFds() {
  int count = 0;
  ForEachEntry("/proc/self/fd", [&](const std::string&) { ++count; });
  return count;  // includes the directory's own descriptor, every time
}

int CountThreadsNamed(const std::string& name) {
  int count = 0;
  ForEachEntry("/proc/self/task", [&](const std::string& task) {
    std::ifstream comm("/proc/self/task/" + task + "/comm");
    std::string line;
    if (std::getline(comm, line) && line == name) ++count;
  });
  return count;
}

}  // namespace kestro::zqp::test_support

#include "record/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace kestro::zqp::record {
namespace {

// The temporary file of a replacement: hidden, and not ending in ".prom", so
// that node_exporter's textfile collector never reads it.
std::string TemporaryPattern(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return "./." + path + ".XXXXXX";
  return path.substr(0, slash + 1) + "." + path.substr(slash + 1) + ".XXXXXX";
}

}  // namespace

bool WriteAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(fd, text.data(), text.size());
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

OutputFile::~OutputFile() {
  if (owned && fd >= 0) close(fd);
}

std::string OutputFile::Failure(int error_number) const {
  return "cannot write " + shown + ": " + std::strerror(error_number);
}

bool OutputFile::Open(const std::string& path_in, bool replace_in, std::string& error) {
  path = path_in;
  shown = path.empty() ? "standard output" : path;
  replace = replace_in && !path.empty();
  // Created files get the modes the user's umask allows, as the shell's ">"
  // would give; read once, before any thread starts.
  const mode_t mask = umask(0);
  umask(mask);
  mode = 0666 & ~mask;
  if (path.empty()) {
    // A closed standard output would hand fd 1 to the next file opened.
    if (fcntl(STDOUT_FILENO, F_GETFD) < 0) {
      error = Failure(errno);
      return false;
    }
    fd = STDOUT_FILENO;
    return true;
  }
  if (replace && !CheckReplaceable(error)) return false;
  if (replace) {
    std::string trial = TemporaryPattern(path);
    std::vector<char> name(trial.begin(), trial.end());
    name.push_back('\0');
    const int trial_fd = mkostemp(name.data(), O_CLOEXEC);
    if (trial_fd < 0) {
      error = Failure(errno);
      return false;
    }
    close(trial_fd);
    unlink(name.data());
    return true;
  }
  fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd < 0) {
    error = Failure(errno);
    return false;
  }
  owned = true;
  return true;
}

bool OutputFile::CheckReplaceable(std::string& error) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) {
    if (errno == ENOENT) return true;
    error = Failure(errno);
    return false;
  }
  if (S_ISDIR(info.st_mode)) {
    error = Failure(EISDIR);
    return false;
  }
  // Renaming over a FIFO or a device (/dev/stdout, /dev/null) would put a
  // plain file in its place: such outputs take one record after the other.
  if (!S_ISREG(info.st_mode)) {
    replace = false;
    return true;
  }
  // Through a link the target is replaced, in its own folder, and the link
  // stays.
  if (char* real = realpath(path.c_str(), nullptr)) {
    path = real;
    std::free(real);
  }
  return true;
}

bool OutputFile::Write(std::string_view text, std::string& error) {
  return replace ? Replace(text, error) : Append(text, error);
}

bool OutputFile::Append(std::string_view text, std::string& error) {
  struct stat info {};
  const bool regular = fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
  // Where this record starts: the end for a file opened to append (as ">>"
  // opens standard output), else the current offset.
  off_t start = -1;
  if (regular) {
    start = (fcntl(fd, F_GETFL) & O_APPEND) ? info.st_size : lseek(fd, 0, SEEK_CUR);
  }
  if (WriteAll(fd, text)) return true;
  const int write_errno = errno;
  if (start >= 0 && ftruncate(fd, start) == 0) lseek(fd, start, SEEK_SET);
  error = Failure(write_errno);
  return false;
}

bool OutputFile::Replace(std::string_view text, std::string& error) {
  std::string pattern = TemporaryPattern(path);
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  const int temporary = mkostemp(name.data(), O_CLOEXEC);
  if (temporary < 0) {
    error = Failure(errno);
    return false;
  }
  // mkostemp creates 0600; readers such as node_exporter run as other users.
  bool done = fchmod(temporary, mode) == 0 && WriteAll(temporary, text);
  int failure = errno;
  if (close(temporary) != 0 && done) {
    done = false;
    failure = errno;
  }
  if (done && rename(name.data(), path.c_str()) != 0) {
    done = false;
    failure = errno;
  }
  if (!done) {
    unlink(name.data());
    error = Failure(failure);
  }
  return done;
}

}  // namespace kestro::zqp::record

#include "record/output_file.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kestro::zqp::record {
namespace {

// As many links as the kernel follows in one path.
constexpr int kMaxLinks = 40;
constexpr long kProcSuperMagic = 0x9fa0;

std::string FolderOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string BaseOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool OnProcfs(int dir_fd) {
  struct statfs info {};
  return fstatfs(dir_fd, &info) == 0 && info.f_type == kProcSuperMagic;
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
  if (dir_fd >= 0) close(dir_fd);
}

std::string OutputFile::Failure(int error_number) const {
  return "cannot write " + shown + ": " + std::strerror(error_number);
}

bool OutputFile::Open(const std::string& path, bool replace_in, bool stdout_closed,
                      std::string& error) {
  shown = path.empty() ? "standard output" : path;
  replace = replace_in && !path.empty();
  if (path.empty()) {
    if (stdout_closed || fcntl(STDOUT_FILENO, F_GETFD) < 0) {
      error = Failure(EBADF);
      return false;
    }
    fd = STDOUT_FILENO;
    return true;
  }
  if (!Resolve(path, error)) return false;
  if (replace && !CheckReplaceable(error)) return false;
  if (replace) {
    // A trial file now, so that a folder that takes no files fails at start.
    std::string trial;
    const int trial_fd = CreateTemporary(trial);
    if (trial_fd < 0) {
      error = Failure(errno);
      return false;
    }
    close(trial_fd);
    unlinkat(dir_fd, trial.c_str(), 0);
    return true;
  }
  // O_NOFOLLOW: a link planted after Resolve looked is refused, not followed.
  fd = openat(dir_fd, name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0666);
  if (fd < 0 && errno == ELOOP && OnProcfs(dir_fd)) {
    fd = openat(dir_fd, name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  }
  if (fd < 0) {
    error = Failure(errno);
    return false;
  }
  owned = true;
  return true;
}

bool OutputFile::Resolve(std::string path, std::string& error) {
  // A folder is refused by its own name first. (Under a user-mode emulator
  // with a sysroot, "/" opened as a folder is the sysroot's, where the last
  // component would then be looked up.)
  struct stat named {};
  if (path.back() == '/' || (stat(path.c_str(), &named) == 0 && S_ISDIR(named.st_mode))) {
    error = Failure(EISDIR);
    return false;
  }
  for (int links = 0;; ++links) {
    if (dir_fd >= 0) close(dir_fd);
    // The folder part is the kernel's to resolve, with its own rules; only
    // the final component is the program's to check.
    dir_fd = open(FolderOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir_fd < 0) {
      error = Failure(errno);
      return false;
    }
    name = BaseOf(path);
    struct stat link {};
    if (fstatat(dir_fd, name.c_str(), &link, AT_SYMLINK_NOFOLLOW) != 0) {
      if (errno == ENOENT) return true;
      error = Failure(errno);
      return false;
    }
    if (!S_ISLNK(link.st_mode)) return true;
    struct stat folder {};
    if (fstat(dir_fd, &folder) != 0) {
      error = Failure(errno);
      return false;
    }
    if (link.st_uid != geteuid() && link.st_uid != folder.st_uid) {
      error = "cannot write " + shown + ": " + FolderOf(path) + "/" + name +
              " is a link owned by another user (uid " + std::to_string(link.st_uid) +
              "), not followed";
      return false;
    }
    if (links == kMaxLinks) {
      error = Failure(ELOOP);
      return false;
    }
    // The kernel's links under /proc (/dev/stdout's target) name open files
    // rather than paths: the kernel follows them.
    if (OnProcfs(dir_fd)) {
      if (!replace) return true;
      char* real = realpath((FolderOf(path) + "/" + name).c_str(), nullptr);
      if (real == nullptr) return true;
      const std::string target = real;
      std::free(real);
      if (target.empty() || target.front() != '/') return true;
      path = target;
      continue;
    }
    char target[PATH_MAX];
    const ssize_t length = readlinkat(dir_fd, name.c_str(), target, sizeof target - 1);
    if (length <= 0) {
      error = Failure(length < 0 ? errno : ENOENT);
      return false;
    }
    target[length] = '\0';
    path = target[0] == '/' ? std::string(target) : FolderOf(path) + "/" + target;
    if (path.back() == '/') {
      error = Failure(EISDIR);
      return false;
    }
  }
}

bool OutputFile::CheckReplaceable(std::string& error) {
  struct stat info {};
  if (fstatat(dir_fd, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT) return true;
    error = Failure(errno);
    return false;
  }
  if (S_ISDIR(info.st_mode)) {
    error = Failure(EISDIR);
    return false;
  }
  // Renaming over a FIFO or a device would put a plain file in its place:
  // such outputs take one record after the other. So does a kernel link
  // under /proc that Resolve kept.
  if (!S_ISREG(info.st_mode)) {
    replace = false;
    fd = openat(dir_fd, name.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
      error = Failure(errno);
      return false;
    }
    owned = true;
  }
  return true;
}

int OutputFile::CreateTemporary(std::string& temporary) {
  // Hidden, and not ending in ".prom", so that node_exporter's textfile
  // collector never reads it.
  for (int attempt = 0; attempt < 100; ++attempt) {
    unsigned char random[6] = {};
    if (getrandom(random, sizeof random, 0) != static_cast<ssize_t>(sizeof random)) {
      for (unsigned char& byte : random) byte = static_cast<unsigned char>(std::rand());
    }
    char suffix[16];
    std::snprintf(suffix, sizeof suffix, ".%02x%02x%02x%02x%02x%02x", random[0], random[1],
                  random[2], random[3], random[4], random[5]);
    temporary = "." + name + suffix;
    const int created = openat(dir_fd, temporary.c_str(),
                               O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (created >= 0 || errno != EEXIST) return created;
  }
  errno = EEXIST;
  return -1;
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
  // The replacement keeps the mode of what it replaces: readers such as
  // node_exporter run as other users and were given access to this file.
  mode_t wanted = mode;
  struct stat current {};
  if (fstatat(dir_fd, name.c_str(), &current, AT_SYMLINK_NOFOLLOW) == 0 &&
      S_ISREG(current.st_mode)) {
    wanted = current.st_mode & 07777;
  }
  std::string temporary;
  const int file = CreateTemporary(temporary);
  if (file < 0) {
    error = Failure(errno);
    return false;
  }
  bool done = fchmod(file, wanted) == 0 && WriteAll(file, text);
  int failure = errno;
  if (close(file) != 0 && done) {
    done = false;
    failure = errno;
  }
  if (done && renameat(dir_fd, temporary.c_str(), dir_fd, name.c_str()) != 0) {
    done = false;
    failure = errno;
  }
  if (!done) {
    unlinkat(dir_fd, temporary.c_str(), 0);
    error = Failure(failure);
  }
  return done;
}

}  // namespace kestro::zqp::record

#include "record/output_file.h"

#include <dirent.h>
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
#include <vector>

namespace kestro::zqp::record {
namespace {

// As many links as the kernel follows in one path.
constexpr int kMaxLinks = 40;
constexpr long kProcSuperMagic = 0x9fa0;
// A temporary of NAME is ".NAME" + kTemporaryMark + kTemporaryDigits hex
// digits: hidden, and not ending in ".prom", so that node_exporter's textfile
// collector never reads it.
constexpr std::string_view kTemporaryMark = ".tmp-";
constexpr std::size_t kTemporaryDigits = 12;

bool OnProcfs(int fd) {
  struct statfs info {};
  return fstatfs(fd, &info) == 0 && info.f_type == kProcSuperMagic;
}

// Root's links are the system's; the caller's are its own. Anyone else's may
// have been planted to make this program write where that account cannot.
bool Trusted(uid_t owner) {
  return owner == 0 || owner == geteuid();
}

std::string Join(const std::string& folder, const std::string& part) {
  if (folder.empty()) return part;
  return folder.back() == '/' ? folder + part : folder + "/" + part;
}

// The components of path, last first, so that the next one is at the back.
void PushComponents(std::string_view path, std::vector<std::string>& pending) {
  std::size_t end = path.size();
  while (end > 0) {
    const std::size_t slash = path.rfind('/', end - 1);
    const std::size_t begin = slash == std::string_view::npos ? 0 : slash + 1;
    if (end > begin) pending.emplace_back(path.substr(begin, end - begin));
    if (slash == std::string_view::npos) break;
    end = slash;
  }
}

bool IsTemporaryOf(std::string_view entry, const std::string& name) {
  const std::size_t prefix = 1 + name.size() + kTemporaryMark.size();
  if (entry.size() != prefix + kTemporaryDigits || entry.front() != '.' ||
      entry.substr(1, name.size()) != name ||
      entry.substr(1 + name.size(), kTemporaryMark.size()) != kTemporaryMark) {
    return false;
  }
  for (const char c : entry.substr(prefix)) {
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  }
  return true;
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

std::string OutputFile::Refusal(const std::string& reason) const {
  return "cannot write " + shown + ": " + reason;
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
  struct stat info {};
  const bool exists = fstatat(dir_fd, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0;
  if (!exists && errno != ENOENT) {
    error = Failure(errno);
    return false;
  }
  if (!CheckExisting(info, exists, error)) return false;
  if (!replace) return OpenStream(info, exists, error);
  RemoveStaleTemporaries();
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

bool OutputFile::Resolve(const std::string& path, std::string& error) {
  if (path.back() == '/') {
    error = Failure(EISDIR);
    return false;
  }
  // Each component is opened without following it (O_PATH | O_NOFOLLOW
  // gives the link itself), so the owner checked is the owner of the link
  // then followed, however the names change meanwhile. openat2's
  // RESOLVE_NO_SYMLINKS would refuse root's own links (/var/run) and is
  // missing from older kernels and user-mode emulators.
  std::vector<std::string> pending;
  PushComponents(path, pending);
  std::string walked = path.front() == '/' ? "/" : "";
  int dir = open(walked.empty() ? "." : "/", O_PATH | O_DIRECTORY | O_CLOEXEC);
  const auto fail = [&](int error_number) {
    error = Failure(error_number);
    if (dir >= 0) close(dir);
    return false;
  };
  if (dir < 0) return fail(errno);
  int links = 0;
  name.clear();
  while (!pending.empty()) {
    std::string part = std::move(pending.back());
    pending.pop_back();
    const bool last = pending.empty();
    if (part == "." && !last) continue;
    if (last && (part == "." || part == "..")) return fail(EISDIR);
    const int next = openat(dir, part.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
    if (next < 0) {
      if (last && errno == ENOENT) {
        name = part;
        break;
      }
      return fail(errno);
    }
    struct stat info {};
    if (fstat(next, &info) != 0) {
      const int stat_errno = errno;
      close(next);
      return fail(stat_errno);
    }
    if (!S_ISLNK(info.st_mode)) {
      if (last) {
        close(next);
        name = part;
        break;
      }
      if (!S_ISDIR(info.st_mode)) {
        close(next);
        return fail(ENOTDIR);
      }
      close(dir);
      dir = next;
      walked = Join(walked, part);
      continue;
    }
    if (!Trusted(info.st_uid)) {
      close(next);
      error = Refusal(Join(walked, part) + " is a link owned by another user (uid " +
                      std::to_string(info.st_uid) + "), not followed");
      close(dir);
      return false;
    }
    if (++links > kMaxLinks) {
      close(next);
      return fail(ELOOP);
    }
    char target[PATH_MAX];
    const ssize_t length = readlinkat(next, "", target, sizeof target - 1);
    const int link_errno = errno;
    close(next);
    // The kernel's links under /proc name open files and folders rather
    // than paths: the kernel follows them. Only a replacement needs the
    // path, to put the new file beside the old one.
    if (OnProcfs(dir)) {
      // What it names, the caller opened itself: as if named directly.
      if (last) through_link = false;
      const bool path_known = replace && length > 0 && target[0] == '/';
      if (!last || !path_known) {
        if (last) {
          kernel_link = true;
          name = part;
          break;
        }
        const int folder = openat(dir, part.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        if (folder < 0) return fail(errno);
        close(dir);
        dir = folder;
        walked = Join(walked, part);
        continue;
      }
    } else if (last) {
      through_link = true;
    }
    if (length <= 0) return fail(length < 0 ? link_errno : ENOENT);
    target[length] = '\0';
    if (last && target[length - 1] == '/') return fail(EISDIR);
    PushComponents(target, pending);
    if (target[0] == '/') {
      close(dir);
      walked = "/";
      dir = open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
      if (dir < 0) return fail(errno);
    }
    // A link to "." or "/" leaves nothing to name the file.
    if (pending.empty()) return fail(EISDIR);
  }
  where = Join(walked, name);
  // Readable, unlike the O_PATH walk, for the listing of stale temporaries
  // and the flush after a rename.
  dir_fd = openat(dir, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir_fd < 0) return fail(errno);
  close(dir);
  return true;
}

bool OutputFile::CheckExisting(const struct stat& info, bool exists, std::string& error) {
  if (!exists || kernel_link) {
    // Renaming over a kernel link under /proc would put a plain file in its
    // place: it takes one record after the other.
    replace = replace && !kernel_link;
    return true;
  }
  if (S_ISDIR(info.st_mode)) {
    error = Failure(EISDIR);
    return false;
  }
  if (S_ISREG(info.st_mode)) return true;
  // Named directly, a FIFO or a device is the caller's choice; reached
  // through a link it may be a flash partition or a watchdog, which even
  // opening can harm.
  if (through_link) {
    error = Refusal(where + " is a " + (S_ISFIFO(info.st_mode) ? "FIFO" : "device") +
                    " reached through a link, not opened");
    return false;
  }
  // Renaming over a FIFO or a device would put a plain file in its place:
  // such outputs take one record after the other.
  replace = false;
  return true;
}

bool OutputFile::OpenStream(const struct stat& info, bool exists, std::string& error) {
  // O_NOFOLLOW: a link planted after Resolve looked is refused, not
  // followed. No O_TRUNC: the file is emptied only once it is known to be
  // the one checked and no other account's.
  fd = openat(dir_fd, name.c_str(),
              O_WRONLY | O_CREAT | O_CLOEXEC | (kernel_link ? O_TRUNC : O_NOFOLLOW), 0666);
  if (fd < 0) {
    error = Failure(errno);
    return false;
  }
  owned = true;
  if (kernel_link) return true;
  struct stat opened {};
  struct stat folder {};
  if (fstat(fd, &opened) != 0 || fstat(dir_fd, &folder) != 0) {
    error = Failure(errno);
    return false;
  }
  // Swapped between the check and the open by whoever can write the folder.
  if (exists && (opened.st_dev != info.st_dev || opened.st_ino != info.st_ino)) {
    error = Failure(EAGAIN);
    return false;
  }
  if (!S_ISREG(opened.st_mode)) return true;
  if (opened.st_nlink > 1 && (opened.st_uid != geteuid() || !Trusted(folder.st_uid))) {
    const bool others = opened.st_uid != geteuid();
    error = Refusal(where + " has " + std::to_string(opened.st_nlink) + " links and " +
                    (others ? "belongs to another user (uid " + std::to_string(opened.st_uid)
                            : "its folder to another user (uid " + std::to_string(folder.st_uid)) +
                    "), not emptied");
    return false;
  }
  if (ftruncate(fd, 0) != 0) {
    error = Failure(errno);
    return false;
  }
  return true;
}

void OutputFile::RemoveStaleTemporaries() {
  const int listing = openat(dir_fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (listing < 0) return;
  DIR* entries = fdopendir(listing);
  if (entries == nullptr) {
    close(listing);
    return;
  }
  while (const dirent* entry = readdir(entries)) {
    if (!IsTemporaryOf(entry->d_name, name)) continue;
    struct stat info {};
    if (fstatat(dir_fd, entry->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(info.st_mode) &&
        info.st_uid == geteuid()) {
      unlinkat(dir_fd, entry->d_name, 0);
    }
  }
  closedir(entries);
}

int OutputFile::CreateTemporary(std::string& temporary) {
  for (int attempt = 0; attempt < 100; ++attempt) {
    unsigned char random[6] = {};
    if (getrandom(random, sizeof random, 0) != static_cast<ssize_t>(sizeof random)) {
      for (unsigned char& byte : random) byte = static_cast<unsigned char>(std::rand());
    }
    char digits[kTemporaryDigits + 1];
    std::snprintf(digits, sizeof digits, "%02x%02x%02x%02x%02x%02x", random[0], random[1],
                  random[2], random[3], random[4], random[5]);
    temporary = "." + name + std::string(kTemporaryMark) + digits;
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
  // The replacement keeps the owner, group and mode of what it replaces:
  // readers such as node_exporter run as other users and were given access
  // to this file.
  struct stat current {};
  const bool existing =
      fstatat(dir_fd, name.c_str(), &current, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(current.st_mode);
  std::string temporary;
  const int file = CreateTemporary(temporary);
  if (file < 0) {
    error = Failure(errno);
    return false;
  }
  // The mode first: once the file is given away, only its new owner (or
  // CAP_FOWNER) may change it. A change of owner clears the set-id bits,
  // which a record has no use for.
  struct stat made {};
  bool done =
      fchmod(file, existing ? current.st_mode & 07777 : mode) == 0 && fstat(file, &made) == 0;
  // Only CAP_CHOWN gives a file away; without it the owner of a file may
  // still give it one of its own groups.
  if (done && existing && (made.st_uid != current.st_uid || made.st_gid != current.st_gid) &&
      fchown(file, current.st_uid, current.st_gid) != 0) {
    done = errno == EPERM &&
           (fchown(file, static_cast<uid_t>(-1), current.st_gid) == 0 || errno == EPERM);
  }
  // On disk before the rename: otherwise a power cut can leave the new name
  // on an empty file.
  done = done && WriteAll(file, text) && fsync(file) == 0;
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
    return false;
  }
  // The rename itself lasts once the folder is on disk.
  if (fsync(dir_fd) != 0 && errno != EINVAL) {
    error = Failure(errno);
    return false;
  }
  return true;
}

}  // namespace kestro::zqp::record

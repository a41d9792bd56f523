// FUSE file system that plays the drivers' text files of the simulated board.
//
// Every file is backed by one or more ordinary files (the driver's possible
// texts). A read serves the backing file selected by the monotonic clock
// (index = now_ms / step_ms modulo the number of texts), read afresh on every
// call, so values change over time and a backing file rewritten by the
// launcher shows at once. Writes are accepted and logged but never change what
// reads return, as with the drivers' loading files.
//
// A file can go bad some time after the board's clock started, as a driver's
// attribute does when its device is removed: from then on reads, also on
// descriptors opened before, fail with the given error, and with ENOENT the
// file also leaves its folder.
//
// Usage: kzm_board_fs CONFIG WRITE_LOG MOUNTPOINT [fuse options]
// CONFIG holds one tab-separated entry per line:
//   clock <TAB> /path of the file in which the launcher writes, when it starts
//         the board's clock, that moment in CLOCK_MONOTONIC milliseconds
//   dir <TAB> /path
//   file <TAB> /path <TAB> mode(octal) <TAB> step_ms <TAB> read_delay_ms <TAB> gone_after_ms
//        <TAB> gone_errno <TAB> backing...
// gone_after_ms counts on the board's clock; 0 is never.
#define FUSE_USE_VERSION 31
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <fuse.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#define KZM_MAX_TEXTS 16

struct node {
  char* path;
  int is_dir;
  mode_t mode;
  unsigned long step_ms;
  unsigned long delay_ms;
  unsigned long long gone_after_ms;
  int gone_errno;
  int ntexts;
  char* texts[KZM_MAX_TEXTS];
};

static struct node* g_nodes;
static int g_nnodes;
static const char* g_write_log;
static char* g_clock_path;
static unsigned long long g_clock_start_ms;  // 0 until the launcher started the clock
static pthread_mutex_t g_clock_lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_mutex_t g_log_lock = PTHREAD_MUTEX_INITIALIZER;

static struct node* add_node(void) {
  struct node* n = realloc(g_nodes, sizeof(struct node) * (size_t)(g_nnodes + 1));
  if (n == NULL) {
    perror("realloc");
    exit(1);
  }
  g_nodes = n;
  memset(&g_nodes[g_nnodes], 0, sizeof(struct node));
  return &g_nodes[g_nnodes++];
}

static int load_config(const char* path) {
  FILE* f = fopen(path, "r");
  if (f == NULL) {
    perror(path);
    return -1;
  }
  struct node* root = add_node();
  root->path = strdup("/");
  root->is_dir = 1;
  root->mode = 0755;
  char line[8192];
  while (fgets(line, sizeof line, f) != NULL) {
    line[strcspn(line, "\n")] = '\0';
    char* save = NULL;
    char* kind = strtok_r(line, "\t", &save);
    char* p = strtok_r(NULL, "\t", &save);
    if (kind == NULL || p == NULL) continue;
    if (strcmp(kind, "clock") == 0) {
      g_clock_path = strdup(p);
      continue;
    }
    struct node* n = add_node();
    n->path = strdup(p);
    if (strcmp(kind, "dir") == 0) {
      n->is_dir = 1;
      n->mode = 0755;
      continue;
    }
    char* mode = strtok_r(NULL, "\t", &save);
    char* step = strtok_r(NULL, "\t", &save);
    char* delay = strtok_r(NULL, "\t", &save);
    char* gone_after = strtok_r(NULL, "\t", &save);
    char* gone_errno = strtok_r(NULL, "\t", &save);
    n->mode = mode ? (mode_t)strtoul(mode, NULL, 8) : 0644;
    n->step_ms = step ? strtoul(step, NULL, 10) : 1000;
    if (n->step_ms == 0) n->step_ms = 1000;
    n->delay_ms = delay ? strtoul(delay, NULL, 10) : 0;
    n->gone_after_ms = gone_after ? strtoull(gone_after, NULL, 10) : 0;
    n->gone_errno = gone_errno ? atoi(gone_errno) : 0;
    char* t;
    while ((t = strtok_r(NULL, "\t", &save)) != NULL && n->ntexts < KZM_MAX_TEXTS) {
      n->texts[n->ntexts++] = strdup(t);
    }
  }
  fclose(f);
  return 0;
}

static unsigned long long now_ms(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (unsigned long long)now.tv_sec * 1000ull + (unsigned long long)now.tv_nsec / 1000000ull;
}

// When the board's clock started, 0 while it has not (the file is written
// whole, by rename, once).
static unsigned long long clock_start_ms(void) {
  pthread_mutex_lock(&g_clock_lock);
  FILE* f = g_clock_start_ms == 0 && g_clock_path != NULL ? fopen(g_clock_path, "r") : NULL;
  if (f != NULL) {
    if (fscanf(f, "%llu", &g_clock_start_ms) != 1) g_clock_start_ms = 0;
    fclose(f);
  }
  const unsigned long long start = g_clock_start_ms;
  pthread_mutex_unlock(&g_clock_lock);
  return start;
}

// The error the node's reads fail with from now on, 0 while it is fine.
static int gone_error(const struct node* n) {
  if (n->gone_after_ms == 0) return 0;
  const unsigned long long start = clock_start_ms();
  return start != 0 && now_ms() >= start + n->gone_after_ms ? n->gone_errno : 0;
}

static struct node* find(const char* path) {
  for (int i = 0; i < g_nnodes; ++i) {
    if (strcmp(g_nodes[i].path, path) == 0) {
      return gone_error(&g_nodes[i]) == ENOENT ? NULL : &g_nodes[i];
    }
  }
  return NULL;
}

// The parent directory of path, as a node path ("/" for top-level entries).
static int is_child(const char* parent, const char* path) {
  size_t plen = strlen(parent);
  if (strcmp(parent, "/") == 0) plen = 0;
  if (strncmp(path, parent, plen) != 0 || path[plen] != '/' || path[plen + 1] == '\0') return 0;
  return strchr(path + plen + 1, '/') == NULL;
}

static int fs_getattr(const char* path, struct stat* st, struct fuse_file_info* fi) {
  (void)fi;
  struct node* n = find(path);
  if (n == NULL) return -ENOENT;
  memset(st, 0, sizeof *st);
  if (n->is_dir) {
    st->st_mode = S_IFDIR | n->mode;
    st->st_nlink = 2;
  } else {
    // Like sysfs, report a page whatever the text is.
    st->st_mode = S_IFREG | n->mode;
    st->st_nlink = 1;
    st->st_size = 4096;
  }
  return 0;
}

static int fs_readdir(const char* path, void* buf, fuse_fill_dir_t fill, off_t off,
                      struct fuse_file_info* fi, enum fuse_readdir_flags flags) {
  (void)off;
  (void)fi;
  (void)flags;
  struct node* n = find(path);
  if (n == NULL) return -ENOENT;
  if (!n->is_dir) return -ENOTDIR;
  fill(buf, ".", NULL, 0, 0);
  fill(buf, "..", NULL, 0, 0);
  for (int i = 0; i < g_nnodes; ++i) {
    if (is_child(path, g_nodes[i].path) && gone_error(&g_nodes[i]) != ENOENT) {
      fill(buf, strrchr(g_nodes[i].path, '/') + 1, NULL, 0, 0);
    }
  }
  return 0;
}

static int fs_open(const char* path, struct fuse_file_info* fi) {
  struct node* n = find(path);
  if (n == NULL) return -ENOENT;
  if (n->is_dir) return -EISDIR;
  int acc = fi->flags & O_ACCMODE;
  if ((acc == O_WRONLY || acc == O_RDWR) && !(n->mode & 0222)) return -EACCES;
  if ((acc == O_RDONLY || acc == O_RDWR) && !(n->mode & 0444)) return -EACCES;
  fi->direct_io = 1;
  fi->keep_cache = 0;
  fi->fh = (uint64_t)(n - g_nodes);
  return 0;
}

static int fs_read(const char* path, char* buf, size_t size, off_t off, struct fuse_file_info* fi) {
  (void)path;
  struct node* n = &g_nodes[fi->fh];
  const int gone = gone_error(n);
  if (gone != 0) return -gone;
  if (n->delay_ms > 0) {
    struct timespec d = {(time_t)(n->delay_ms / 1000), (long)(n->delay_ms % 1000) * 1000000L};
    while (nanosleep(&d, &d) != 0 && errno == EINTR) {
    }
  }
  if (n->ntexts == 0) return 0;
  const char* backing = n->texts[(now_ms() / n->step_ms) % (unsigned long long)n->ntexts];
  int fd = open(backing, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -EIO;
  // Read straight from the backing text at the caller's offset: debugfs
  // files have no size limit, and a reader may take a big one in pieces.
  ssize_t len = pread(fd, buf, size, off);
  close(fd);
  if (len < 0) return -EIO;
  size = (size_t)len;
  return (int)size;
}

// Record what was written, one line per call: path, tab, the bytes with
// backslash, tab and newline escaped.
static int fs_write(const char* path, const char* buf, size_t size, off_t off,
                    struct fuse_file_info* fi) {
  (void)fi;
  (void)off;
  pthread_mutex_lock(&g_log_lock);
  FILE* f = fopen(g_write_log, "a");
  if (f != NULL) {
    fprintf(f, "%s\t", path);
    for (size_t i = 0; i < size; ++i) {
      unsigned char c = (unsigned char)buf[i];
      if (c == '\\')
        fputs("\\\\", f);
      else if (c == '\n')
        fputs("\\n", f);
      else if (c == '\t')
        fputs("\\t", f);
      else if (c < 0x20 || c >= 0x7f)
        fprintf(f, "\\x%02x", c);
      else
        fputc(c, f);
    }
    fputc('\n', f);
    fclose(f);
  }
  pthread_mutex_unlock(&g_log_lock);
  return (int)size;
}

static int fs_truncate(const char* path, off_t size, struct fuse_file_info* fi) {
  (void)size;
  (void)fi;
  struct node* n = find(path);
  if (n == NULL) return -ENOENT;
  return n->is_dir ? -EISDIR : 0;
}

static const struct fuse_operations g_ops = {
    .getattr = fs_getattr,
    .readdir = fs_readdir,
    .open = fs_open,
    .read = fs_read,
    .write = fs_write,
    .truncate = fs_truncate,
};

int main(int argc, char** argv) {
  if (argc < 4) {
    fprintf(stderr, "usage: %s CONFIG WRITE_LOG MOUNTPOINT [fuse options]\n", argv[0]);
    return 2;
  }
  if (load_config(argv[1]) != 0) return 1;
  g_write_log = argv[2];
  argv[2] = argv[0];
  return fuse_main(argc - 2, argv + 2, &g_ops, NULL);
}

// A DSP user process as the DSP runtime makes it look to a monitor.
//
// It takes one slot (the same index on every core) in the per-core loading
// nodes under the cores' lock files, announces {pid, slot} on the event fifo
// when a monitor has made one, then keeps its running bit set on the chosen
// cores for a known share of every period. At the end it either leaves
// cleanly (running bits cleared, slot freed) or is killed in the middle of its
// work, leaving its slot and running bit behind as a crashed client would.
//
// Usage: kzm_dsp_client [options]
//   --nodes N         number of DSP cores (nodes /dsp_loading_node_1_<i>)
//   --cores LIST      comma-separated cores to keep busy (default 0)
//   --duty P          busy percentage of every period (default 50)
//   --period-ms MS    length of one period (default 10)
//   --lifetime-ms MS  run this long, then end (default: until SIGTERM)
//   --die             end by SIGKILL without cleaning up
//   --exit-status N   status to exit with once the lifetime is over (default 0)
//   --trap-int        leave cleanly on SIGINT, with status 0, as on SIGTERM;
//                     otherwise SIGINT, unless ignored from the parent, ends
//                     the client as it ends most programs: it dies of the
//                     signal (logging "die"), leaving slot and running bits
//   --shm-prefix S    node name prefix (default /dsp_loading_node_1_)
//   --lock-prefix S   lock file prefix (default /var/run/dsp_loading_flock_)
//   --fifo PATH       event fifo (default /var/run/dsp_event)
//   --report PATH     write "pid slot" there once the slot is taken
//   --busy-log PATH   log, as it happens, what the client really did (below)
//   --board-log       the busy log goes to the simulated board's logs folder,
//                     $KZM_SIM_WORKDIR/logs/dsp_busy_cmd<pid>.log: for a client
//                     that a program on the board starts, whose truth the
//                     tests read with those of the board's own clients
//
// The busy log is the ground truth of the loading a monitor should show: the
// client runs on an ordinary, possibly loaded machine, where it wakes late and
// so keeps its bit set longer or shorter than the duty asks. One line per
// event, times in CLOCK_MONOTONIC nanoseconds, each written at once (a kill
// loses nothing):
//   start T PID SLOT MASK   slot taken and announced; MASK: the busy cores
//   set T DUE               running bits set (T read just after the change;
//                           DUE: the time the client meant to do it, so T - DUE
//                           is how late the machine woke it)
//   clear T DUE             running bits cleared (likewise)
//   exit T                  slot freed, about to return
//   die T                   about to die by SIGKILL, bits and slot left set
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#define KZM_NODE_SIZE 152
#define KZM_MAX_CORES 32

struct loading_node {
  uint64_t magic;
  uint64_t reserved;
  uint32_t free_mask;
  uint32_t running_mask;
  uint32_t pids[32];
};
_Static_assert(sizeof(struct loading_node) == KZM_NODE_SIZE, "node layout");

// 1: leave cleanly; SIGINT_DEATH: die of SIGINT once out of the work loop.
static volatile sig_atomic_t g_stop;
#define SIGINT_DEATH 2
static void on_term(int sig) {
  (void)sig;
  g_stop = 1;
}
static void on_int(int sig) {
  (void)sig;
  g_stop = SIGINT_DEATH;
}

static uint64_t now_ns(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (uint64_t)ts.tv_sec * 1000000000ull + (uint64_t)ts.tv_nsec;
}

static int g_log = -1;

static void log_event(const char* what, const char* rest) {
  if (g_log < 0) return;
  char line[128];
  const uint64_t t = now_ns();
  const int n = snprintf(line, sizeof line, "%s %llu%s\n", what, (unsigned long long)t, rest);
  if (n > 0 && write(g_log, line, (size_t)n) != n) {
    close(g_log);
    g_log = -1;
  }
}

static void log_due(const char* what, uint64_t due) {
  char rest[32];
  snprintf(rest, sizeof rest, " %llu", (unsigned long long)due);
  log_event(what, rest);
}

static void sleep_until(uint64_t t) {
  struct timespec ts = {(time_t)(t / 1000000000ull), (long)(t % 1000000000ull)};
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, NULL) == EINTR && !g_stop) {
  }
}

int main(int argc, char** argv) {
  int nodes = 1;
  uint32_t busy_cores = 1;
  double duty = 50;
  uint64_t period_ms = 10;
  long lifetime_ms = -1;
  int die = 0;
  int exit_status = 0;
  int trap_int = 0;
  int board_log = 0;
  const char* shm_prefix = "/dsp_loading_node_1_";
  const char* lock_prefix = "/var/run/dsp_loading_flock_";
  const char* fifo = "/var/run/dsp_event";
  const char* report = NULL;
  const char* busy_log = NULL;
  for (int i = 1; i < argc; ++i) {
    const char* a = argv[i];
    const char* v = i + 1 < argc ? argv[i + 1] : NULL;
    if (strcmp(a, "--die") == 0) {
      die = 1;
      continue;
    }
    if (strcmp(a, "--trap-int") == 0) {
      trap_int = 1;
      continue;
    }
    if (strcmp(a, "--board-log") == 0) {
      board_log = 1;
      continue;
    }
    if (v == NULL) {
      fprintf(stderr, "dsp_client: %s needs a value\n", a);
      return 2;
    }
    ++i;
    if (strcmp(a, "--nodes") == 0) {
      nodes = atoi(v);
    } else if (strcmp(a, "--cores") == 0) {
      busy_cores = 0;
      char* copy = strdup(v);
      char* save = NULL;
      for (char* t = strtok_r(copy, ",", &save); t; t = strtok_r(NULL, ",", &save)) {
        busy_cores |= 1u << (atoi(t) % 32);
      }
      free(copy);
    } else if (strcmp(a, "--duty") == 0) {
      duty = strtod(v, NULL);
    } else if (strcmp(a, "--period-ms") == 0) {
      period_ms = strtoull(v, NULL, 10);
    } else if (strcmp(a, "--lifetime-ms") == 0) {
      lifetime_ms = atol(v);
    } else if (strcmp(a, "--shm-prefix") == 0) {
      shm_prefix = v;
    } else if (strcmp(a, "--lock-prefix") == 0) {
      lock_prefix = v;
    } else if (strcmp(a, "--fifo") == 0) {
      fifo = v;
    } else if (strcmp(a, "--report") == 0) {
      report = v;
    } else if (strcmp(a, "--busy-log") == 0) {
      busy_log = v;
    } else if (strcmp(a, "--exit-status") == 0) {
      exit_status = atoi(v);
    } else {
      fprintf(stderr, "dsp_client: unknown option %s\n", a);
      return 2;
    }
  }
  if (nodes < 1 || nodes > KZM_MAX_CORES || period_ms == 0) {
    fprintf(stderr, "dsp_client: bad --nodes or --period-ms\n");
    return 2;
  }
  signal(SIGTERM, on_term);
  // The handler only ends the work loop, so the death is logged first.
  if (trap_int || signal(SIGINT, SIG_IGN) != SIG_IGN) signal(SIGINT, trap_int ? on_term : on_int);
  char board_log_path[4096];
  if (board_log) {
    const char* workdir = getenv("KZM_SIM_WORKDIR");
    if (workdir == NULL || *workdir == '\0') {
      fprintf(stderr, "dsp_client: --board-log needs KZM_SIM_WORKDIR (run it on the board)\n");
      return 2;
    }
    snprintf(board_log_path, sizeof board_log_path, "%s/logs/dsp_busy_cmd%d.log", workdir,
             (int)getpid());
    busy_log = board_log_path;
  }
  if (busy_log != NULL) {
    g_log = open(busy_log, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    if (g_log < 0) {
      fprintf(stderr, "dsp_client: open %s: %s\n", busy_log, strerror(errno));
      return 1;
    }
  }

  struct loading_node* node[KZM_MAX_CORES];
  int lock_fd[KZM_MAX_CORES];
  for (int c = 0; c < nodes; ++c) {
    char name[256];
    snprintf(name, sizeof name, "%s%d", shm_prefix, c);
    int fd = shm_open(name, O_RDWR, 0);
    if (fd < 0) {
      fprintf(stderr, "dsp_client: shm_open %s: %s\n", name, strerror(errno));
      return 1;
    }
    node[c] = mmap(NULL, KZM_NODE_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (node[c] == MAP_FAILED) {
      perror("dsp_client: mmap");
      return 1;
    }
    snprintf(name, sizeof name, "%s%d", lock_prefix, c);
    lock_fd[c] = open(name, O_RDWR | O_CLOEXEC);
    if (lock_fd[c] < 0) {
      fprintf(stderr, "dsp_client: open %s: %s\n", name, strerror(errno));
      return 1;
    }
  }

  // Take the lowest slot that is free on every core, holding all the locks.
  for (int c = 0; c < nodes; ++c) lockf(lock_fd[c], F_LOCK, 0);
  uint32_t free_all = 0xffffffffu;
  for (int c = 0; c < nodes; ++c) free_all &= node[c]->free_mask;
  int slot = free_all ? __builtin_ctz(free_all) : -1;
  if (slot >= 0) {
    for (int c = 0; c < nodes; ++c) {
      node[c]->pids[slot] = (uint32_t)getpid();
      node[c]->free_mask &= ~(1u << slot);
    }
  }
  for (int c = 0; c < nodes; ++c) lockf(lock_fd[c], F_ULOCK, 0);
  if (slot < 0) {
    fprintf(stderr, "dsp_client: no free slot\n");
    return 1;
  }
  if (report != NULL) {
    FILE* f = fopen(report, "w");
    if (f != NULL) {
      fprintf(f, "%d %d\n", (int)getpid(), slot);
      fclose(f);
    }
  }
  int ff = open(fifo, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  if (ff >= 0) {
    uint32_t msg[2] = {(uint32_t)getpid(), (uint32_t)slot};
    if (write(ff, msg, sizeof msg) != (ssize_t)sizeof msg) perror("dsp_client: fifo write");
    close(ff);
  }
  char started[64];
  snprintf(started, sizeof started, " %d %d %u", (int)getpid(), slot, busy_cores);
  log_event("start", started);

  const uint32_t bit = 1u << slot;
  const uint64_t period = period_ms * 1000000ull;
  const uint64_t busy = (uint64_t)((double)period * duty / 100.0);
  const uint64_t start = now_ns();
  const uint64_t end = lifetime_ms >= 0 ? start + (uint64_t)lifetime_ms * 1000000ull : UINT64_MAX;
  uint64_t t = start;
  int bits_set = 0;
  while (!g_stop && now_ns() < end) {
    if (busy > 0) {
      for (int c = 0; c < nodes; ++c) {
        if (busy_cores & (1u << c))
          __atomic_fetch_or(&node[c]->running_mask, bit, __ATOMIC_SEQ_CST);
      }
      if (!bits_set) log_due("set", t);
      bits_set = 1;
      sleep_until(t + busy);
    }
    // A crash happens in the middle of work: slot and running bits stay set.
    if (die && now_ns() >= end) {
      log_event("die", "");
      kill(getpid(), SIGKILL);
    }
    if (busy < period) {
      for (int c = 0; c < nodes; ++c) {
        __atomic_fetch_and(&node[c]->running_mask, ~bit, __ATOMIC_SEQ_CST);
      }
      if (bits_set) log_due("clear", t + busy);
      bits_set = 0;
    }
    t += period;
    sleep_until(t);
  }
  if (die) {
    log_event("die", "");
    kill(getpid(), SIGKILL);
  }
  if (g_stop == SIGINT_DEATH) {
    log_event("die", "");
    signal(SIGINT, SIG_DFL);
    raise(SIGINT);
  }
  for (int c = 0; c < nodes; ++c) {
    __atomic_fetch_and(&node[c]->running_mask, ~bit, __ATOMIC_SEQ_CST);
  }
  if (bits_set) log_event("clear", "");
  for (int c = 0; c < nodes; ++c) {
    lockf(lock_fd[c], F_LOCK, 0);
    node[c]->free_mask |= bit;
    node[c]->pids[slot] = 0;
    lockf(lock_fd[c], F_ULOCK, 0);
  }
  log_event("exit", "");
  // Only a lifetime that ran out ends with the chosen status: a client stopped
  // by a signal it traps leaves with 0.
  return g_stop ? 0 : exit_status;
}

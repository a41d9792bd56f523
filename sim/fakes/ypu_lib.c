// Simulated accelerator user library (libypu.so.2).
//
// Core c is busy for duty[c] percent of every period (a few ms, taken from
// CLOCK_MONOTONIC), so a sampler sees a known busy fraction. The period is a
// prime number of microseconds so that a sampler running at a round rate does
// not lock onto one phase of it.
//
// Configuration comes from the file named by KZM_SIM_YPU_CONFIG, one setting
// per line:
//   cores N              number of cores reported (default 0)
//   duty P0 P1 ...       busy percentage of each core (default 0)
//   period_us U          length of one busy/idle period (default 7919)
//   open_fail CORE STATUS   opening CORE returns STATUS (non-zero)
//   log PATH             append one line per open/close call to PATH
//   replay PATH          answer from a captured timeline instead: PATH holds
//                        lines "T_US CORE CAP", T_US ascending, microseconds
//                        on the board's clock; a core answers the CAP of its
//                        last line at or before now (idle, 64, before its first)
//   clock_us PATH        file holding when the board's clock started
//                        (CLOCK_MONOTONIC microseconds), read at the first call
//   loop_us U            the timeline starts again every U microseconds
#define _GNU_SOURCE
#include <pthread.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#define KZM_YPU_MAX_CORES 32

struct ypu_core {
  unsigned int index;
  int is_open;
};

static pthread_once_t g_once = PTHREAD_ONCE_INIT;
static pthread_mutex_t g_log_lock = PTHREAD_MUTEX_INITIALIZER;
static unsigned int g_cores;
static double g_duty[KZM_YPU_MAX_CORES];
static uint64_t g_period_us = 7919;
static int g_fail_core = -1;
static int g_fail_status;
static char g_log_path[4096];
static struct ypu_core g_core[KZM_YPU_MAX_CORES];

// A captured timeline: one array of (time, capacity) per core.
struct ypu_answer {
  uint64_t t_us;
  unsigned int cap;
};
static struct ypu_answer* g_replay[KZM_YPU_MAX_CORES];
static size_t g_replay_len[KZM_YPU_MAX_CORES];
static int g_replaying;
static uint64_t g_clock_us;
static uint64_t g_loop_us;

static void load_replay(const char* path) {
  FILE* f = fopen(path, "r");
  if (f == NULL) return;
  size_t room[KZM_YPU_MAX_CORES] = {0};
  unsigned long long t;
  unsigned int core, cap;
  while (fscanf(f, "%llu %u %u", &t, &core, &cap) == 3) {
    if (core >= KZM_YPU_MAX_CORES) continue;
    if (g_replay_len[core] == room[core]) {
      room[core] = room[core] ? room[core] * 2 : 1024;
      struct ypu_answer* grown = realloc(g_replay[core], room[core] * sizeof *grown);
      if (grown == NULL) break;
      g_replay[core] = grown;
    }
    g_replay[core][g_replay_len[core]++] = (struct ypu_answer){t, cap};
  }
  fclose(f);
  g_replaying = 1;
}

static void load_clock(const char* path) {
  FILE* f = fopen(path, "r");
  if (f == NULL) return;
  unsigned long long v;
  if (fscanf(f, "%llu", &v) == 1) g_clock_us = v;
  fclose(f);
}

static int replay_cap(unsigned int core, uint64_t now_us, unsigned int* cap) {
  const size_t n = g_replay_len[core];
  if (n == 0) return -22;
  uint64_t t = now_us > g_clock_us ? now_us - g_clock_us : 0;
  if (g_loop_us > 0) t %= g_loop_us;
  size_t lo = 0, hi = n;  // the first answer later than t
  while (lo < hi) {
    size_t mid = lo + (hi - lo) / 2;
    if (g_replay[core][mid].t_us <= t) {
      lo = mid + 1;
    } else {
      hi = mid;
    }
  }
  // Before the capture's first answer nothing is known: the core is idle.
  *cap = lo == 0 ? 64u : g_replay[core][lo - 1].cap;
  return 0;
}

static void load_config(void) {
  const char* path = getenv("KZM_SIM_YPU_CONFIG");
  if (path == NULL) return;
  FILE* f = fopen(path, "r");
  if (f == NULL) return;
  char line[4096];
  while (fgets(line, sizeof line, f) != NULL) {
    char* save = NULL;
    char* key = strtok_r(line, " \t\n", &save);
    if (key == NULL) continue;
    if (strcmp(key, "cores") == 0) {
      char* v = strtok_r(NULL, " \t\n", &save);
      if (v != NULL) g_cores = (unsigned int)strtoul(v, NULL, 10);
      if (g_cores > KZM_YPU_MAX_CORES) g_cores = KZM_YPU_MAX_CORES;
    } else if (strcmp(key, "duty") == 0) {
      char* v;
      unsigned int i = 0;
      while ((v = strtok_r(NULL, " \t\n", &save)) != NULL && i < KZM_YPU_MAX_CORES) {
        g_duty[i++] = strtod(v, NULL);
      }
    } else if (strcmp(key, "period_us") == 0) {
      char* v = strtok_r(NULL, " \t\n", &save);
      if (v != NULL && strtoull(v, NULL, 10) > 0) g_period_us = strtoull(v, NULL, 10);
    } else if (strcmp(key, "open_fail") == 0) {
      char* c = strtok_r(NULL, " \t\n", &save);
      char* s = strtok_r(NULL, " \t\n", &save);
      if (c != NULL && s != NULL) {
        g_fail_core = atoi(c);
        g_fail_status = atoi(s);
      }
    } else if (strcmp(key, "log") == 0) {
      char* v = strtok_r(NULL, "\n", &save);
      if (v != NULL) snprintf(g_log_path, sizeof g_log_path, "%s", v);
    } else if (strcmp(key, "replay") == 0) {
      char* v = strtok_r(NULL, "\n", &save);
      if (v != NULL) load_replay(v);
    } else if (strcmp(key, "clock_us") == 0) {
      char* v = strtok_r(NULL, "\n", &save);
      if (v != NULL) load_clock(v);
    } else if (strcmp(key, "loop_us") == 0) {
      char* v = strtok_r(NULL, " \t\n", &save);
      if (v != NULL) g_loop_us = strtoull(v, NULL, 10);
    }
  }
  fclose(f);
  for (unsigned int i = 0; i < KZM_YPU_MAX_CORES; ++i) g_core[i].index = i;
}

static void ensure_config(void) {
  pthread_once(&g_once, load_config);
}

static void log_call(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

static void log_call(const char* fmt, ...) {
  if (g_log_path[0] == '\0') return;
  pthread_mutex_lock(&g_log_lock);
  FILE* f = fopen(g_log_path, "a");
  if (f != NULL) {
    va_list ap;
    va_start(ap, fmt);
    vfprintf(f, fmt, ap);
    va_end(ap);
    fclose(f);
  }
  pthread_mutex_unlock(&g_log_lock);
}

unsigned int vz_ypu_core_num(void) {
  ensure_config();
  return g_cores;
}

int vz_ypu_core_open(void** handle, unsigned int core_mask, int flags) {
  ensure_config();
  int core = -1;
  for (unsigned int i = 0; i < g_cores; ++i) {
    if (core_mask == (1u << i)) core = (int)i;
  }
  int status = 0;
  if (handle == NULL || core < 0) {
    status = -22;
  } else if (core == g_fail_core) {
    status = g_fail_status;
  } else {
    g_core[core].is_open = 1;
    *handle = &g_core[core];
  }
  log_call("open core=%d mask=0x%x flags=%d status=%d\n", core, core_mask, flags, status);
  return status;
}

// Busy for the first duty percent of each period; the free capacity written
// varies so that a reader cannot get away with testing for one value only.
int vz_ypu_core_cap(unsigned int core, unsigned int* cap) {
  ensure_config();
  if (cap == NULL || core >= g_cores) return -22;
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  uint64_t now_us = (uint64_t)ts.tv_sec * 1000000u + (uint64_t)ts.tv_nsec / 1000u;
  if (g_replaying) return replay_cap(core, now_us, cap);
  // Stagger the cores so that they are not busy at the same instants.
  uint64_t phase = (now_us + core * (g_period_us / 3)) % g_period_us;
  double busy_until = g_duty[core] * (double)g_period_us / 100.0;
  if ((double)phase < busy_until) {
    *cap = (unsigned int)((phase / 97u) % 64u);
  } else {
    *cap = ((phase / 89u) % 4u == 0) ? 200u : 64u;
  }
  return 0;
}

int vz_ypu_core_close(void* handle) {
  ensure_config();
  if (handle == NULL) {
    log_call("close core=null\n");
    return 0;
  }
  struct ypu_core* c = handle;
  c->is_open = 0;
  log_call("close core=%u\n", c->index);
  return 0;
}

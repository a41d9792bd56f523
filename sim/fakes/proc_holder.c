// A board process that holds memory: it touches the given amount of memory so
// that its resident size is known, then sleeps until it is told to stop.
//
// Usage: kzm_proc_holder RSS_KB [NAME]
#define _GNU_SOURCE
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <unistd.h>

static volatile sig_atomic_t g_stop;
static void on_term(int sig) {
  (void)sig;
  g_stop = 1;
}

int main(int argc, char** argv) {
  size_t kb = argc > 1 ? strtoul(argv[1], NULL, 10) : 0;
  if (argc > 2) prctl(PR_SET_NAME, argv[2], 0, 0, 0);
  signal(SIGTERM, on_term);
  signal(SIGINT, on_term);
  char* mem = NULL;
  if (kb > 0) {
    mem = malloc(kb * 1024);
    if (mem == NULL) return 1;
    // Touch every page through a volatile pointer so that the stores are kept.
    volatile char* touch = mem;
    for (size_t i = 0; i < kb * 1024; i += 1024) touch[i] = 0x5a;
  }
  while (!g_stop) pause();
  free(mem);
  return 0;
}

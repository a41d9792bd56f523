// Samples the accelerator library the way a monitor does and prints each
// core's busy percentage: a check of the simulated library on its own.
//
// Usage: kzm_ypu_sampler [LIBRARY [SAMPLES_PER_SECOND [SECONDS]]]
// Output: "cores N", then "open I STATUS" per core, then "core I BUSY_PERCENT".
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

typedef unsigned int (*num_fn)(void);
typedef int (*open_fn)(void**, unsigned int, int);
typedef int (*cap_fn)(unsigned int, unsigned int*);
typedef int (*close_fn)(void*);

int main(int argc, char** argv) {
  const char* lib = argc > 1 ? argv[1] : "libypu.so.2";
  double rate = argc > 2 ? strtod(argv[2], NULL) : 500;
  double seconds = argc > 3 ? strtod(argv[3], NULL) : 2;
  void* h = dlopen(lib, RTLD_NOW);
  if (h == NULL) {
    fprintf(stderr, "dlopen: %s\n", dlerror());
    return 1;
  }
  num_fn num = (num_fn)dlsym(h, "vz_ypu_core_num");
  open_fn op = (open_fn)dlsym(h, "vz_ypu_core_open");
  cap_fn cap = (cap_fn)dlsym(h, "vz_ypu_core_cap");
  close_fn cl = (close_fn)dlsym(h, "vz_ypu_core_close");
  if (!num || !op || !cap || !cl) {
    fprintf(stderr, "missing symbol\n");
    return 1;
  }
  unsigned int n = num();
  printf("cores %u\n", n);
  void* handles[32] = {0};
  for (unsigned int i = 0; i < n && i < 32; ++i)
    printf("open %u %d\n", i, op(&handles[i], 1u << i, 0));
  long samples = (long)(rate * seconds);
  long busy[32] = {0};
  struct timespec gap = {0, (long)(1e9 / rate)};
  for (long s = 0; s < samples; ++s) {
    for (unsigned int i = 0; i < n && i < 32; ++i) {
      unsigned int c = 0;
      cap(i, &c);
      if (c < 64) ++busy[i];
    }
    nanosleep(&gap, NULL);
  }
  for (unsigned int i = 0; i < n && i < 32; ++i) {
    printf("core %u %.1f\n", i, samples ? 100.0 * (double)busy[i] / (double)samples : 0.0);
    cl(handles[i]);
  }
  dlclose(h);
  return 0;
}

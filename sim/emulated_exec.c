/* Stands in for a cross-built program on this machine: runs it under the
 * user-mode emulator with the cross sysroot, in the same process (exec), so
 * the caller's pid, signals, terminal and exit status are the program's own.
 * argv[0] is passed through, since getopt's messages start with it.
 * KZM_EMULATOR (a list of string literals) and KZM_TARGET come from the build. */
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

static const char* const emulator[] = {KZM_EMULATOR};

int main(int argc, char** argv) {
  enum { kEmulatorArgs = sizeof emulator / sizeof emulator[0] };
  const char* args[kEmulatorArgs + 3 + argc];
  int n = 0;
  for (int i = 0; i < kEmulatorArgs; ++i) args[n++] = emulator[i];
  args[n++] = "-0";
  args[n++] = argc > 0 ? argv[0] : KZM_TARGET;
  args[n++] = KZM_TARGET;
  for (int i = 1; i < argc; ++i) args[n++] = argv[i];
  args[n] = NULL;
  execvp(args[0], (char* const*)args);
  fprintf(stderr, "cannot run %s: %s\n", args[0], strerror(errno));
  return 127;
}

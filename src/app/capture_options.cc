#include "app/capture_options.h"

#include <getopt.h>

#include <cstdio>
#include <cstdlib>

#include "app/option_parser.h"
#include "base/log.h"
#include "base/program_name.h"

namespace kestro::zqp::app {
namespace {

constexpr const char* kProgram = base::kCaptureProgram;
constexpr int kInfoOption = 256;

const option kCaptureOptions[] = {
    {"help", no_argument, nullptr, 'h'},
    {"verbose", no_argument, nullptr, 'v'},
    {"output", required_argument, nullptr, 'o'},
    {"info", required_argument, nullptr, kInfoOption},
    {"delay", required_argument, nullptr, 'd'},
    {"freq", required_argument, nullptr, 'f'},
    {"time", required_argument, nullptr, 't'},
    {"enable", required_argument, nullptr, 'e'},
    {nullptr, 0, nullptr, 0},
};

constexpr char kUsage[] =
    "Usage: %1$s [-d MS] [-f N] [-e LIST] [-t SECONDS] -o FILE\n"
    "       %1$s --info FILE\n"
    "Captures what %2$s reads of this board (the drivers' files, the\n"
    "accelerator's and DSP nodes' answers, the heap text and the processes it\n"
    "names) into FILE, until SIGINT or SIGTERM or for -t SECONDS. Writes\n"
    "nothing on the board but FILE. The simulated board replays a capture.\n"
    "\n"
    "  -o, --output FILE   the capture file\n"
    "  -d, --delay MS      period of the files, heap text and processes (1000)\n"
    "  -f, --freq N        samples per second of the accelerator and DSP (500)\n"
    "  -e, --enable LIST   engines to capture, as %2$s -e (all)\n"
    "  -t, --time SECONDS  stop after this long\n"
    "  -v, --verbose       say why engines are missing\n"
    "      --info FILE     print what a capture holds, and check it\n"
    "  -h, --help          this help\n";

}  // namespace

CaptureOption ParseCaptureOptions(int argc, char** argv) {
  CaptureOption option;
  option.monitor.batch = true;
  option.monitor.read_only = true;
  int code;
  while (option.valid &&
         (code = getopt_long(argc, argv, "hvo:d:f:t:e:", kCaptureOptions, nullptr)) != -1) {
    switch (code) {
      case 'h':
        std::printf(kUsage, kProgram, base::kMonitorProgram);
        std::exit(0);
      case 'o':
        option.output = optarg;
        if (option.output.empty()) {
          base::LogError("%s: the output file name is empty\n", kProgram);
          option.valid = false;
        }
        break;
      case kInfoOption:
        option.info = optarg;
        break;
      case 'v':
      case 'd':
      case 'f':
      case 't':
      case 'e':
        option.valid = ApplySharedOption(code, optarg, option.monitor);
        break;
      default:
        base::LogError("Try '%s --help' for more information.\n", kProgram);
        option.valid = false;
    }
  }
  if (!option.valid) return option;
  if (optind < argc) {
    base::LogError("%s: unexpected argument '%s'\n", kProgram, argv[optind]);
    option.valid = false;
  } else if (option.info.empty() && option.output.empty()) {
    base::LogError("%s: say where the capture goes with -o FILE\n", kProgram);
    option.valid = false;
  } else if (!option.info.empty() && !option.output.empty()) {
    base::LogError("%s: --info reads a capture; it takes no -o\n", kProgram);
    option.valid = false;
  }
  return option;
}

}  // namespace kestro::zqp::app

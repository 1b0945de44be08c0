// SPDX-License-Identifier: Apache-2.0
// The runner behind `make bench`. It times zelsim on the standard workloads
// for a fixed simulated time, and the kernel floor program in the same run,
// and reports each workload's wall time, simulated ns per wall second,
// completed requests per wall second and peak memory, both as measured and
// as ratios to the kernel floor (the cost of one process activation), so
// that figures taken on different machines can be compared.
//
// Each program runs as a child process; wait4 gives its peak resident set,
// and a monotonic clock around fork and wait gives its wall time.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#ifndef ZELSIM_PROGRAM
#define ZELSIM_PROGRAM "zelsim"
#endif
#ifndef KERNEL_FLOOR_PROGRAM
#define KERNEL_FLOOR_PROGRAM "kernel_floor"
#endif

namespace {

struct Workload {
  const char* name;
  const char* description;
  std::vector<std::string> settings;  // zelsim --set values
  std::vector<std::string> options;   // other zelsim options
};

// The host hands freed response space back on request tails, as a host
// does that has requests to send, and sends a TOKEN_RETURN flit of its own
// only when the tokens have waited this long (or make a flit's worth).
const std::vector<std::string> kHostOptions = {"--token-return-wait", "4"};

// The standard workloads. All four links run at full load (no request
// spacing, host queues always full); everything not named stays at the
// compiled defaults. read64eager is read64 with zelsim's default host, which
// returns tokens at the first cycle with room: more than one TOKEN_RETURN
// flit per read, each of which the cube handles, and the links drop some of
// them without freeing them, so memory grows with simulated time.
const std::vector<Workload> kWorkloads = {
    {"read64", "random 64-byte reads", {"PERCENTAGE_READ=100", "PERCENTAGE_RD_64B=100"}, kHostOptions},
    {"mixed64",
     "50/50 random 64-byte reads and writes",
     {"PERCENTAGE_READ=50", "PERCENTAGE_RD_64B=100", "PERCENTAGE_WR_64B=100"},
     kHostOptions},
    {"posted128",
     "random 128-byte posted writes",
     {"PERCENTAGE_READ=0", "POSTED_WRITES=true", "PERCENTAGE_WR_64B=0", "PERCENTAGE_WR_128B=100"},
     kHostOptions},
    {"atomics", "random atomics of all six kinds", {"USE_ATOMICS=1", "ATOMICS_PERCENTAGE=100"}, kHostOptions},
    {"read64eager", "random 64-byte reads, tokens returned at once", {"PERCENTAGE_READ=100", "PERCENTAGE_RD_64B=100"}, {}},
};

struct ChildRun {
  int status = -1;         // wait status
  double wallSeconds = 0;  // fork to reaped
  double cpuSeconds = 0;   // user and system time of the child
  long peakRssKb = 0;      // ru_maxrss of the child
};

// Runs `argv` with standard output to `outFile` (or /dev/null when empty)
// and standard error to /dev/null.
ChildRun RunChild(const std::vector<std::string>& argv, const std::string& outFile) {
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);

  ChildRun run;
  std::cout.flush();
  const auto start = std::chrono::steady_clock::now();
  const pid_t pid = fork();
  if (pid < 0) {
    std::perror("run_bench: fork");
    return run;
  }
  if (pid == 0) {
    const int out = open(outFile.empty() ? "/dev/null" : outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int err = open("/dev/null", O_WRONLY);
    if (out >= 0) dup2(out, 1);
    if (err >= 0) dup2(err, 2);
    execv(args[0], args.data());
    _exit(127);
  }
  struct rusage usage {};
  if (wait4(pid, &run.status, 0, &usage) < 0) std::perror("run_bench: wait4");
  run.wallSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  run.peakRssKb = usage.ru_maxrss;
  run.cpuSeconds = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                   static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
  return run;
}

bool Succeeded(const ChildRun& run) { return WIFEXITED(run.status) && WEXITSTATUS(run.status) == 0; }

std::string ReadFile(const std::string& path) {
  std::ifstream in(path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// The number after `"key": ` at or after `from` in a JSON text; NaN if absent.
double JsonNumberAfter(const std::string& json, const std::string& key, size_t from = 0) {
  const size_t at = json.find("\"" + key + "\": ", from);
  if (at == std::string::npos) return std::nan("");
  return std::strtod(json.c_str() + at + key.size() + 4, nullptr);
}

std::string CpuModel() {
  std::ifstream in("/proc/cpuinfo");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("model name", 0) == 0) {
      const size_t colon = line.find(':');
      if (colon != std::string::npos) return line.substr(line.find_first_not_of(' ', colon + 1));
    }
  }
  return "unknown";
}

std::string JsonString(const std::string& text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    if (static_cast<unsigned char>(c) >= 0x20) out += c;
  }
  return out + "\"";
}

std::string Num(double value) {
  char buffer[40];
  std::snprintf(buffer, sizeof buffer, "%.6g", value);
  return buffer;
}

struct FloorResult {
  std::string kind = "method";
  unsigned processes = 0;
  unsigned runs = 0;  // runs made, of which the fastest counts
  double activations = 0;
  double nsPerActivation = 0;     // wall-clock time of sc_start per activation
  double cpuNsPerActivation = 0;  // processor time of sc_start per activation
  double wallSeconds = 0;
  long peakRssKb = 0;
};

struct WorkloadResult {
  const Workload* workload = nullptr;
  double wallSeconds = 0;
  double cpuSeconds = 0;
  double simulatedNs = 0;
  double requests = 0;  // non-posted requests completed plus posted requests sent
  long peakRssKb = 0;
  double SimNsPerSecond() const { return simulatedNs / wallSeconds; }
  double RequestsPerSecond() const { return requests / wallSeconds; }
};

struct Options {
  std::string zelsim = ZELSIM_PROGRAM;
  std::string floor = KERNEL_FLOOR_PROGRAM;
  std::string json;
  double simulatedUs = 200;
  unsigned repeat = 1;
  unsigned floorProcesses = 64;
  bool kinds = true;
  std::vector<std::string> only;
  std::string baseline;  // a second zelsim to compare with, side by side
  std::string printCommand;  // a workload whose command line to print
};

// The kernel floor program's other kinds of process, each timed with this
// many processes: what an activation costs the kernel when the timed-event
// heap holds times out of step with each other (as a model's do), when it
// resumes a thread, and when it wakes a method through an sc_event_queue.
const std::vector<std::string> kKernelKinds = {"staggered", "thread", "queue"};
constexpr unsigned kKindProcesses = 192;

void Usage(std::ostream& out) {
  out << "Usage: run_bench [--json FILE] [--sim-us US] [--repeat N] [--only NAME]... [--zelsim PATH]\n"
         "                 [--kernel-floor PATH] [--floor-processes N] [--no-kinds]\n"
         "                 [--baseline PATH] [--print-command NAME]\n"
         "Times zelsim on the standard workloads and the kernel floor, prints a table and\n"
         "optionally writes the figures as JSON. With --repeat, each program runs N times\n"
         "and the fastest run counts. --no-kinds leaves out the kernel floor's other kinds\n"
         "(staggered methods, threads, event-queue wakes). --baseline runs a second zelsim\n"
         "alternately with the first on each workload, at least 3 rounds, and prints the\n"
         "median ratio of the time per request. --print-command prints the workload's\n"
         "zelsim command line (at --sim-us, JSON to results.json) and runs nothing.\n"
         "Workloads:";
  for (const Workload& w : kWorkloads) out << " " << w.name;
  out << "\n";
}

bool ParseOptions(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
    const char* v = nullptr;
    if (arg == "--help") {
      Usage(std::cout);
      std::exit(0);
    } else if (arg == "--json" && (v = value())) {
      options.json = v;
    } else if (arg == "--sim-us" && (v = value())) {
      options.simulatedUs = std::strtod(v, nullptr);
    } else if (arg == "--repeat" && (v = value())) {
      options.repeat = std::max(1UL, std::strtoul(v, nullptr, 10));
    } else if (arg == "--only" && (v = value())) {
      options.only.push_back(v);
    } else if (arg == "--zelsim" && (v = value())) {
      options.zelsim = v;
    } else if (arg == "--kernel-floor" && (v = value())) {
      options.floor = v;
    } else if (arg == "--floor-processes" && (v = value())) {
      options.floorProcesses = static_cast<unsigned>(std::strtoul(v, nullptr, 10));
    } else if (arg == "--baseline" && (v = value())) {
      options.baseline = v;
    } else if (arg == "--print-command" && (v = value())) {
      options.printCommand = v;
    } else if (arg == "--no-kinds") {
      options.kinds = false;
    } else {
      std::cerr << "run_bench: bad argument '" << arg << "'\n";
      Usage(std::cerr);
      return false;
    }
  }
  if (!(options.simulatedUs > 0) || options.floorProcesses == 0 || options.floorProcesses >= 1600) {
    std::cerr << "run_bench: --sim-us must be positive and --floor-processes from 1 to 1599\n";
    return false;
  }
  return true;
}

std::string TempPath(const char* stem) {
  const char* dir = std::getenv("TMPDIR");
  std::string pattern = std::string(dir != nullptr && *dir != '\0' ? dir : "/tmp") + "/" + stem + "XXXXXX";
  const int fd = mkstemp(pattern.data());
  if (fd >= 0) close(fd);
  return pattern;
}

// Runs the kernel floor program `tries` times with `result.kind` and
// `result.processes`, keeping the fastest run, also against what `result`
// already holds (a cost of 0 means no run yet). The floor's simulated time keeps
// 8 million activations per run (64 processes for the workloads' 200 us).
bool RunFloor(const Options& options, FloorResult& result, unsigned tries) {
  const std::string out = TempPath("kernelfloor");
  const double us = options.simulatedUs * 64.0 / result.processes;
  for (unsigned r = 0; r < tries; ++r) {
    const ChildRun run =
        RunChild({options.floor, std::to_string(result.processes), Num(us), result.kind}, out);
    const std::string text = ReadFile(out);
    ++result.runs;
    const double ns = JsonNumberAfter(text, "ns_per_activation");
    const double cpuNs = JsonNumberAfter(text, "cpu_ns_per_activation");
    if (!Succeeded(run) || !(ns > 0) || !(cpuNs > 0)) {
      std::cerr << "run_bench: " << options.floor << " " << result.kind << " failed\n";
      std::remove(out.c_str());
      return false;
    }
    if (result.nsPerActivation == 0 || ns < result.nsPerActivation) {
      result.nsPerActivation = ns;
      result.activations = JsonNumberAfter(text, "activations");
      result.wallSeconds = run.wallSeconds;
    }
    if (result.cpuNsPerActivation == 0 || cpuNs < result.cpuNsPerActivation) result.cpuNsPerActivation = cpuNs;
    result.peakRssKb = std::max(result.peakRssKb, run.peakRssKb);
  }
  std::remove(out.c_str());
  return true;
}

// zelsim's command line for one workload, the program itself first.
std::vector<std::string> WorkloadCommand(const Options& options, const std::string& program,
                                         const Workload& workload, const std::string& json) {
  std::vector<std::string> argv = {program,
                                   "--seed",
                                   "1",
                                   "--set",
                                   "SIM_TIME=" + Num(options.simulatedUs * 1000),
                                   "--set",
                                   "NUM_REQUESTS=100000000",
                                   "--set",
                                   "NUM_GENERATORS=4",
                                   "--set",
                                   "REQUEST_SPACING=0",
                                   "--json",
                                   json};
  for (const std::string& setting : workload.settings) {
    argv.push_back("--set");
    argv.push_back(setting);
  }
  argv.insert(argv.end(), workload.options.begin(), workload.options.end());
  return argv;
}

// One run of `program` on the workload; false when it failed.
bool RunWorkloadOnce(const Options& options, const std::string& program, const Workload& workload,
                     WorkloadResult& run) {
  const std::string json = TempPath("zelsimbench");
  const ChildRun child = RunChild(WorkloadCommand(options, program, workload, json), "");
  const std::string text = ReadFile(json);
  std::remove(json.c_str());
  if (!Succeeded(child) || text.empty()) {
    std::cerr << "run_bench: " << program << " failed on workload " << workload.name << "\n";
    return false;
  }
  const size_t total = text.find("\"total\":");
  run.workload = &workload;
  run.wallSeconds = child.wallSeconds;
  run.cpuSeconds = child.cpuSeconds;
  run.peakRssKb = child.peakRssKb;
  run.simulatedNs = JsonNumberAfter(text, "end_time_ns");
  run.requests = JsonNumberAfter(text, "completed", total) + JsonNumberAfter(text, "posted", total);
  return true;
}

bool RunWorkload(const Options& options, const Workload& workload, WorkloadResult& result) {
  for (unsigned r = 0; r < options.repeat; ++r) {
    WorkloadResult run;
    if (!RunWorkloadOnce(options, options.zelsim, workload, run)) return false;
    if (r == 0 || run.wallSeconds < result.wallSeconds) {
      result.wallSeconds = run.wallSeconds;
      result.simulatedNs = run.simulatedNs;
      result.requests = run.requests;
    }
    if (r == 0 || run.cpuSeconds < result.cpuSeconds) result.cpuSeconds = run.cpuSeconds;
    result.peakRssKb = std::max(result.peakRssKb, run.peakRssKb);
    result.workload = &workload;
  }
  return true;
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const size_t n = values.size();
  return n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

// Side by side with a baseline zelsim: the two programs alternate, the
// baseline first in odd rounds, so that a busy neighbour weighs on both
// alike. Prints the wall and CPU time per request of each run and the median
// ratio (this build over the baseline) of each; 0.75 is a quarter less.
bool CompareWithBaseline(const Options& options, const Workload& workload, std::ostream& json) {
  const unsigned rounds = std::max(3u, options.repeat);
  std::vector<double> wallRatios, cpuRatios;
  std::cout << "\n" << workload.name << " against the baseline " << options.baseline
            << ", time per request (us), " << rounds << " rounds:\n";
  json << "{\"name\": " << JsonString(workload.name) << ", \"rounds\": [";
  for (unsigned r = 0; r < rounds; ++r) {
    WorkloadResult mine, base;
    const bool baseFirst = r % 2 == 1;
    if (baseFirst && !RunWorkloadOnce(options, options.baseline, workload, base)) return false;
    if (!RunWorkloadOnce(options, options.zelsim, workload, mine)) return false;
    if (!baseFirst && !RunWorkloadOnce(options, options.baseline, workload, base)) return false;
    const double mineWall = mine.wallSeconds * 1e6 / mine.requests;
    const double baseWall = base.wallSeconds * 1e6 / base.requests;
    const double mineCpu = mine.cpuSeconds * 1e6 / mine.requests;
    const double baseCpu = base.cpuSeconds * 1e6 / base.requests;
    wallRatios.push_back(mineWall / baseWall);
    cpuRatios.push_back(mineCpu / baseCpu);
    std::cout << "  round " << r + 1 << std::fixed << std::setprecision(2) << ": wall " << mineWall
              << " vs " << baseWall << " (" << std::setprecision(3) << wallRatios.back() << "), cpu "
              << std::setprecision(2) << mineCpu << " vs " << baseCpu << " (" << std::setprecision(3)
              << cpuRatios.back() << ")\n";
    json << (r == 0 ? "" : ", ") << "{\"wall_us\": " << Num(mineWall) << ", \"baseline_wall_us\": "
         << Num(baseWall) << ", \"cpu_us\": " << Num(mineCpu) << ", \"baseline_cpu_us\": "
         << Num(baseCpu) << "}";
  }
  std::cout << "  median ratio: wall " << std::setprecision(3) << Median(wallRatios) << ", cpu "
            << Median(cpuRatios) << "\n";
  json << "], \"median_wall_ratio\": " << Num(Median(wallRatios))
       << ", \"median_cpu_ratio\": " << Num(Median(cpuRatios)) << "}";
  return true;
}

void PrintTable(const Options& options, const FloorResult& floor, const std::vector<FloorResult>& kinds,
                const std::vector<WorkloadResult>& results) {
  std::cout << "zelsim benchmark: " << Num(options.simulatedUs) << " us simulated per workload, best of "
            << options.repeat << " (kernel floor: best of " << floor.runs
            << "); CPU: " << CpuModel() << "\n\n";
  std::cout << std::left << std::setw(12) << "workload" << std::right << std::setw(9) << "wall s"
            << std::setw(9) << "cpu s" << std::setw(12) << "sim ns/s" << std::setw(13) << "requests/s"
            << std::setw(10) << "peak MiB"
            << "\n";
  for (const WorkloadResult& r : results) {
    std::cout << std::left << std::setw(12) << r.workload->name << std::right << std::fixed
              << std::setprecision(2) << std::setw(9) << r.wallSeconds << std::setw(9) << r.cpuSeconds
              << std::setprecision(0) << std::setw(12) << r.SimNsPerSecond() << std::setw(13)
              << r.RequestsPerSecond() << std::setprecision(1) << std::setw(10) << r.peakRssKb / 1024.0
              << "\n";
  }
  std::cout << "\nKernel floor: " << floor.processes << " processes re-arming every 1.6 ns, "
            << Num(floor.activations) << " activations; " << std::fixed << std::setprecision(2)
            << floor.nsPerActivation
            << " ns wall, " << floor.cpuNsPerActivation << " ns CPU per activation; peak "
            << floor.peakRssKb / 1024.0 << " MiB\n\n";
  std::cout << std::left << std::setw(12) << "in floors" << std::right << std::setw(11) << "wall Mact"
            << std::setw(11) << "cpu Mact" << std::setw(12) << "act/sim ns" << std::setw(13) << "act/request"
            << std::setw(11) << "mem/floor"
            << "\n";
  for (const WorkloadResult& r : results) {
    const double activations = r.wallSeconds * 1e9 / floor.nsPerActivation;
    const double cpuActivations = r.cpuSeconds * 1e9 / floor.cpuNsPerActivation;
    std::cout << std::left << std::setw(12) << r.workload->name << std::right << std::fixed
              << std::setprecision(1) << std::setw(11) << activations / 1e6 << std::setw(11)
              << cpuActivations / 1e6 << std::setw(12) << activations / r.simulatedNs << std::setw(13)
              << activations / r.requests << std::setprecision(2) << std::setw(11)
              << double(r.peakRssKb) / double(floor.peakRssKb) << "\n";
  }
  std::cout << "\nrequests: non-posted requests completed plus posted requests sent.\n"
               "In floors: wall and CPU time as millions of kernel-floor activations, wall-clock\n"
               "activations per simulated ns and per request, peak memory over the floor's.\n";
  if (kinds.empty()) return;
  std::cout << "\nKernel cost of one activation by kind, " << kKindProcesses
            << " processes in groups of 32 a picosecond apart:\n";
  for (const FloorResult& k : kinds) {
    std::cout << std::left << std::setw(12) << k.kind << std::right << std::fixed << std::setprecision(2)
              << std::setw(9) << k.nsPerActivation << " ns wall" << std::setw(9) << k.cpuNsPerActivation << " ns CPU"
              << std::setw(8) << k.nsPerActivation / floor.nsPerActivation << " floors wall"
              << std::setw(8) << k.cpuNsPerActivation / floor.cpuNsPerActivation << " floors CPU\n";
  }
}

// Ratios to the floor of one workload's figures, by wall-clock or by CPU time.
void WriteRatios(std::ostream& out, const WorkloadResult& r, double seconds, double nsPerActivation) {
  const double activations = seconds * 1e9 / nsPerActivation;
  out << "{\"activations\": " << Num(activations)
      << ", \"activations_per_sim_ns\": " << Num(activations / r.simulatedNs)
      << ", \"activations_per_request\": " << Num(activations / r.requests) << "}";
}

bool WriteJson(const std::string& path, const Options& options, const FloorResult& floor,
               const std::vector<FloorResult>& kinds, const std::vector<WorkloadResult>& results,
               const std::string& baselineRuns) {
  std::ofstream out(path);
  out << "{\n  \"simulated_us\": " << Num(options.simulatedUs) << ",\n  \"repeat\": " << options.repeat
      << ",\n  \"cpu\": " << JsonString(CpuModel())
      << ",\n  \"kernel_floor\": {\"processes\": " << floor.processes << ", \"runs\": " << floor.runs
      << ", \"activations\": " << Num(floor.activations)
      << ", \"ns_per_activation\": " << Num(floor.nsPerActivation)
      << ", \"cpu_ns_per_activation\": " << Num(floor.cpuNsPerActivation)
      << ", \"wall_s\": " << Num(floor.wallSeconds) << ", \"peak_rss_kib\": " << floor.peakRssKb
      << "},\n  \"kernel_kinds\": [";
  for (size_t i = 0; i < kinds.size(); ++i) {
    const FloorResult& k = kinds[i];
    out << (i == 0 ? "\n" : ",\n") << "    {\"kind\": " << JsonString(k.kind) << ", \"processes\": " << k.processes
        << ", \"ns_per_activation\": " << Num(k.nsPerActivation)
        << ", \"cpu_ns_per_activation\": " << Num(k.cpuNsPerActivation)
        << ", \"floors_wall\": " << Num(k.nsPerActivation / floor.nsPerActivation)
        << ", \"floors_cpu\": " << Num(k.cpuNsPerActivation / floor.cpuNsPerActivation) << "}";
  }
  out << (kinds.empty() ? "" : "\n  ") << "],\n  \"workloads\": [\n";
  for (size_t i = 0; i < results.size(); ++i) {
    const WorkloadResult& r = results[i];
    out << "    {\"name\": " << JsonString(r.workload->name)
        << ", \"description\": " << JsonString(r.workload->description)
        << ",\n     \"wall_s\": " << Num(r.wallSeconds) << ", \"cpu_s\": " << Num(r.cpuSeconds)
        << ", \"simulated_ns\": " << Num(r.simulatedNs) << ", \"requests\": " << Num(r.requests)
        << ", \"sim_ns_per_wall_s\": " << Num(r.SimNsPerSecond())
        << ", \"requests_per_wall_s\": " << Num(r.RequestsPerSecond())
        << ", \"peak_rss_kib\": " << r.peakRssKb << ",\n     \"vs_floor\": {\"wall\": ";
    WriteRatios(out, r, r.wallSeconds, floor.nsPerActivation);
    out << ", \"cpu\": ";
    WriteRatios(out, r, r.cpuSeconds, floor.cpuNsPerActivation);
    out << ", \"peak_rss_ratio\": " << Num(double(r.peakRssKb) / double(floor.peakRssKb)) << "}}"
        << (i + 1 < results.size() ? ",\n" : "\n");
  }
  out << "  ]";
  if (!options.baseline.empty())
    out << ",\n  \"baseline\": " << JsonString(options.baseline) << ",\n  \"against_baseline\": [\n    "
        << baselineRuns << "\n  ]";
  out << "\n}\n";
  return static_cast<bool>(out);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, options)) return 2;
  if (!options.printCommand.empty()) {
    for (const Workload& workload : kWorkloads) {
      if (workload.name != options.printCommand) continue;
      const char* separator = "";
      for (const std::string& arg : WorkloadCommand(options, options.zelsim, workload, "results.json")) {
        std::cout << separator << arg;
        separator = " ";
      }
      std::cout << "\n";
      return 0;
    }
    std::cerr << "run_bench: unknown workload '" << options.printCommand << "'\n";
    return 2;
  }

  FloorResult floor;
  floor.processes = options.floorProcesses;
  // The figures hinge on the floor, and a busy machine slows some runs: it
  // runs three times first and once more after each workload, and the
  // fastest of all counts.
  if (!RunFloor(options, floor, std::max(3u, options.repeat))) return 1;
  std::vector<FloorResult> kinds;
  for (const std::string& kind : options.kinds ? kKernelKinds : std::vector<std::string>{}) {
    FloorResult result;
    result.kind = kind;
    result.processes = kKindProcesses;
    if (!RunFloor(options, result, std::max(3u, options.repeat))) return 1;
    kinds.push_back(result);
  }
  std::vector<WorkloadResult> results;
  for (const Workload& workload : kWorkloads) {
    if (!options.only.empty() &&
        std::find(options.only.begin(), options.only.end(), workload.name) == options.only.end())
      continue;
    WorkloadResult result;
    if (!RunWorkload(options, workload, result)) return 1;
    results.push_back(result);
    if (!RunFloor(options, floor, 1)) return 1;
  }
  PrintTable(options, floor, kinds, results);
  std::ostringstream baselineJson;
  if (!options.baseline.empty()) {
    const char* separator = "";
    for (const WorkloadResult& result : results) {
      baselineJson << separator;
      if (!CompareWithBaseline(options, *result.workload, baselineJson)) return 1;
      separator = ",\n    ";
    }
  }
  if (!options.json.empty()) {
    if (!WriteJson(options.json, options, floor, kinds, results, baselineJson.str())) {
      std::cerr << "run_bench: can't write " << options.json << "\n";
      return 1;
    }
    std::cout << "JSON: " << options.json << "\n";
  }
  return 0;
}

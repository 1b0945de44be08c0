// SPDX-License-Identifier: Apache-2.0
// zelsim-soak: runs zelsim --check-rest over a matrix of configurations and
// request mixes, one child process per run, and reports the figures: cases,
// requests, responses, and every model error, rest-state violation,
// mismatch and determinism failure found. Exit status 0 only when every run
// was clean.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "apps/soak/matrix.h"
#include "apps/soak/outcome.h"
#include "apps/soak/runner.h"

#ifndef ZELSIM_SOAK_DEFAULT_ZELSIM
#define ZELSIM_SOAK_DEFAULT_ZELSIM "zelsim"
#endif

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Soak {
namespace {

const char kDescription[] =
    "Runs zelsim --check-rest over a matrix of configurations and checks that no\n"
    "run trips a model error, loses a request, a credit or a token, or leaves a\n"
    "flit alive, and that runs repeat byte for byte.";

const char kFooter[] =
    "Exit status: 0 when every run was clean, 1 when any failed, 2 for a bad\n"
    "command line.";

struct SoakOptions {
  enum class Pick { Pairwise, Full, Sample } pick = Pick::Pairwise;
  uint64_t sample = 0;
  uint64_t pickSeed = 1;
  std::vector<std::pair<std::string, std::string>> only;
  uint64_t maxCases = 0;  // 0: all
  unsigned seeds = 1;
  uint64_t firstSeed = 1;
  unsigned timeNs = 3000;
  std::vector<std::string> extraKeys;
  unsigned determinismPercent = 25;
  unsigned jobs = 1;
  double timeoutSeconds = 300;
  std::string zelsim = ZELSIM_SOAK_DEFAULT_ZELSIM;
  bool list = false;
  bool matrix = false;
  bool quiet = false;
  bool stopOnFailure = false;
  bool allowKnown = false;
  std::vector<std::string> corrections;  // passed to every run as --correct NAME
  std::string jsonFile;
};

bool ParseUnsigned(const std::string& text, uint64_t& value) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || text.size() > 19)
    return false;
  value = std::stoull(text);
  return true;
}

// An option that takes an unsigned number from lo to hi into `value`;
// `range` says the range when the number is outside it.
template <class T>
CLI::Option* AddNumber(CLI::App& app, const std::string& name, T& value, const std::string& help,
                       const std::string& group, uint64_t lo = 0, uint64_t hi = UINT64_MAX,
                       const std::string& range = "") {
  const CLI::Validator check(
      [=](std::string& text) {
        uint64_t n = 0;
        if (!ParseUnsigned(text, n)) return "'" + text + "' is not an unsigned number";
        return n >= lo && n <= hi ? std::string() : range;
      },
      "");
  return app
      .add_option_function<std::string>(
          name,
          [&value](const std::string& text) {
            uint64_t n = 0;
            ParseUnsigned(text, n);
            value = static_cast<T>(n);
          },
          help)
      ->type_name("N")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
      ->check(check)
      ->group(group);
}

// 0: run; 1: help printed; 2: error printed.
int ParseOptions(int argc, char** argv, SoakOptions& o) {
  CLI::App app(kDescription, "zelsim-soak");
  app.footer(kFooter);
  app.get_formatter()->column_width(22);
  app.allow_extras();
  app.set_help_flag("--help", "this text");

  const std::string cases = "Which cases";
  auto* pairwise = app.add_flag("--pairwise",
                                "a set of cases that holds every pair of settings of any two dimensions "
                                "(the default)")
                       ->group(cases);
  auto* full = app.add_flag("--full", "every case of the matrix")->group(cases);
  auto* sample = AddNumber(app, "--sample", o.sample,
                           "N cases drawn at random from the matrix (see --pick-seed)", cases);
  AddNumber(app, "--pick-seed", o.pickSeed, "seed of the --sample draw (default 1)", cases);
  std::vector<std::string> only;
  app.add_option("--only", only, "keep one setting of a dimension; repeatable")
      ->type_name("DIM=LABEL")
      ->type_size(1)
      ->allow_extra_args(false)
      ->group(cases);
  AddNumber(app, "--max-cases", o.maxCases, "stop after N cases", cases);
  AddNumber(app, "--seeds", o.seeds, "run every case with N zelsim seeds (default 1)", cases, 1, 1000000,
            "from 1 to 1000000");
  AddNumber(app, "--first-seed", o.firstSeed, "the first zelsim seed (default 1)", cases);

  const std::string runs = "How each run goes";
  AddNumber(app, "--time", o.timeNs, "traffic time of a run, SIM_TIME, in ns (default 3000)", runs, 1,
            100000000, "from 1 to 100000000 ns")
      ->type_name("NS");
  app.add_option("--set", o.extraKeys, "one more key for every run; repeatable")
      ->type_name("KEY=VALUE")
      ->type_size(1)
      ->allow_extra_args(false)
      ->group(runs);
  AddNumber(app, "--determinism", o.determinismPercent,
            "share of runs made twice and compared byte for byte, in percent (default 25)", runs, 0, 100,
            "a percentage from 0 to 100")
      ->type_name("PCT");
  AddNumber(app, "--jobs", o.jobs, "runs at a time (default 1)", runs, 1, 64, "from 1 to 64");
  AddNumber(app, "--timeout", o.timeoutSeconds, "wall-clock limit of one run in seconds (default 300)", runs,
            1, UINT64_MAX, "at least 1 second")
      ->type_name("S");
  app.add_option("--correct", o.corrections,
                 "run the model with this correction of a known fault (a known fault's name, or all); "
                 "repeatable")
      ->type_name("NAME")
      ->type_size(1)
      ->allow_extra_args(false)
      ->check(CLI::Validator(
          [](std::string& name) {
            if (name == "all") return std::string();
            for (const KnownIssue& issue : KnownIssues())
              if (name == issue.id) return std::string();
            return "unknown correction '" + name + "'";
          },
          "NAME"))
      ->group(runs);
  app.add_option("--zelsim", o.zelsim, "the zelsim program (default: the one built with this)")
      ->type_name("PATH")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
      ->group(runs);

  const std::string output = "Output";
  app.add_flag("--list", o.list, "print the cases and their command lines, run nothing")->group(output);
  app.add_flag("--matrix", o.matrix, "print the dimensions and their settings, run nothing")->group(output);
  app.add_flag("--quiet", o.quiet, "no line per run, only failures and the figures")->group(output);
  app.add_flag("--stop-on-failure", o.stopOnFailure, "stop starting runs after the first failure")
      ->group(output);
  app.add_flag("--allow-known", o.allowKnown,
               "a run stopped by a documented known issue of the model (see docs/reliability.md) is counted "
               "and shown, but is no failure")
      ->group(output);
  app.add_option("--json", o.jsonFile, "write the figures as JSON")
      ->type_name("FILE")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
      ->group(output);
  for (CLI::Option* flag : app.get_options()) {
    if (flag->get_expected_min() == 0) flag->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  }

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    std::cout << app.help();
    return 1;
  } catch (const CLI::ParseError& e) {
    std::cerr << "zelsim-soak: " << e.what() << "\n";
    return 2;
  }
  if (!app.remaining().empty()) {
    std::cerr << "zelsim-soak: unknown option '" << app.remaining().front() << "' (see --help)\n";
    return 2;
  }
  // The last of the three ways to pick the cases wins.
  for (const CLI::Option* option : app.parse_order()) {
    if (option == pairwise) o.pick = SoakOptions::Pick::Pairwise;
    if (option == full) o.pick = SoakOptions::Pick::Full;
    if (option == sample) o.pick = SoakOptions::Pick::Sample;
  }
  for (const std::string& text : only) {
    const std::size_t at = text.find('=');
    if (at == std::string::npos) {
      std::cerr << "zelsim-soak: --only " << text << ": expected DIM=LABEL\n";
      return 2;
    }
    o.only.emplace_back(text.substr(0, at), text.substr(at + 1));
  }
  return 0;
}

// One case of the soak with one seed.
struct Run {
  std::size_t caseIndex = 0;
  uint64_t seed = 0;
  bool compared = false;  // run twice, and the two runs compared
};

// The figures of the whole soak.
struct Totals {
  uint64_t cases = 0;  // case and seed combinations
  uint64_t runs = 0;   // zelsim processes, repeats included
  uint64_t passedCases = 0;
  uint64_t failedCases = 0;
  std::map<std::string, uint64_t> knownIssues;  // id -> cases it stopped
  RunFigures requests;                          // summed over first runs
  double simulatedNs = 0;
  std::map<Failure, uint64_t> failures;  // kind -> failed cases
  uint64_t restViolationLines = 0;
  uint64_t determinismChecks = 0;
  uint64_t determinismFailures = 0;
  double runSeconds = 0;  // sum of the runs' wall times
  // Per setting of every dimension: cases, and requests issued.
  std::vector<std::vector<std::pair<uint64_t, uint64_t>>> coverage;
};

std::string Fixed(double value, int digits) {
  std::ostringstream s;
  s << std::fixed << std::setprecision(digits) << value;
  return s.str();
}

// Runs the reproducer of every known fault once, before the matrix. Without
// its correction the run must end with that fault, so that the reference
// mode shows each fault even where the matrix doesn't meet it; with its
// correction the run must be clean. Prints a line per fault and returns how
// many reproducers did not behave so.
unsigned CheckReproducers(const SoakOptions& o, const std::string& workDir) {
  unsigned wrong = 0;
  const bool all = std::find(o.corrections.begin(), o.corrections.end(), "all") != o.corrections.end();
  for (const KnownIssue& issue : KnownIssues()) {
    const bool corrected =
        all || std::find(o.corrections.begin(), o.corrections.end(), issue.id) != o.corrections.end();
    std::vector<std::string> argv;
    std::istringstream words(issue.reproducer);
    for (std::string word; words >> word;) argv.push_back(argv.empty() ? o.zelsim : word);
    argv.push_back("--check-rest");
    for (const std::string& name : o.corrections) argv.insert(argv.end(), {"--correct", name});
    const std::string name = std::string("reproducer-") + issue.id;
    argv.insert(argv.end(), {"--json", workDir + "/" + name + ".json"});
    Child child(argv, workDir, name, o.timeoutSeconds);
    child.Start();
    while (!child.Poll()) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const Outcome outcome = Judge(child.Result(), argv);
    const bool ok = corrected ? outcome.Passed() : outcome.knownIssue == issue.id;
    if (!ok) ++wrong;
    std::cout << "known fault " << issue.id << ": its reproducer "
              << (corrected ? (ok ? "runs clean with the correction" : "FAILS with the correction")
                            : (ok ? std::string("shows it (") + FailureName(issue.failure) + ")"
                                  : std::string("does NOT show it")))
              << "\n  " << ShellLine(argv) << '\n';
  }
  return wrong;
}

void PrintFigures(std::ostream& out, const Totals& t, const std::vector<Dimension>& dims, double wallSeconds,
                  const SoakOptions& o) {
  auto row = [&out](const std::string& name, const std::string& value) {
    out << "  " << std::left << std::setw(34) << name << std::right << std::setw(14) << value << '\n';
  };
  out << "==== zelsim-soak figures =======================================================\n";
  row("cases (case x seed)", std::to_string(t.cases));
  uint64_t known = 0;
  for (const auto& entry : t.knownIssues) known += entry.second;
  row("  clean", std::to_string(t.passedCases));
  row(o.allowKnown ? "  stopped by a known issue (allowed)" : "  stopped by a known issue",
      std::to_string(known));
  row("  failed", std::to_string(t.failedCases));
  row("zelsim runs (repeats included)", std::to_string(t.runs));
  row("requests issued", std::to_string(t.requests.issued));
  row("  reads", std::to_string(t.requests.reads));
  row("  writes (WR and P_WR)", std::to_string(t.requests.writes));
  row("  atomics", std::to_string(t.requests.atomics));
  row("  posted", std::to_string(t.requests.posted));
  row("  non-posted", std::to_string(t.requests.issued - t.requests.posted));
  row("responses (non-posted answered)", std::to_string(t.requests.completed));
  row("unanswered requests", std::to_string(t.requests.outstanding));
  row("request flits", std::to_string(t.requests.requestFlits));
  row("response flits", std::to_string(t.requests.responseFlits));
  row("response mismatches", std::to_string(t.requests.mismatches));
  for (unsigned f = 0; f < static_cast<unsigned>(Failure::Count); ++f) {
    const auto it = t.failures.find(static_cast<Failure>(f));
    row(std::string("cases with ") + FailureName(static_cast<Failure>(f)),
        std::to_string(it == t.failures.end() ? 0 : it->second));
  }
  for (const auto& [id, count] : t.knownIssues) row("cases stopped by " + id, std::to_string(count));
  row("rest-state violation lines", std::to_string(t.restViolationLines));
  row("determinism checks (run pairs)", std::to_string(t.determinismChecks));
  row("determinism failures", std::to_string(t.determinismFailures));
  row("simulated time, traffic+drain (us)", Fixed(t.simulatedNs / 1000.0, 1));
  row("wall time (s)", Fixed(wallSeconds, 1));
  row("  summed run time (s)", Fixed(t.runSeconds, 1));
  out << "Traffic " << o.timeNs << " ns per run; " << o.jobs << " run(s) at a time.\n";
  out << "Coverage: cases (requests issued) per setting\n";
  for (std::size_t d = 0; d < dims.size(); ++d) {
    out << "  " << std::left << std::setw(9) << dims[d].name << std::right;
    for (std::size_t s = 0; s < dims[d].settings.size(); ++s) {
      out << ' ' << dims[d].settings[s].label << ':' << t.coverage[d][s].first << " ("
          << t.coverage[d][s].second << ")";
    }
    out << '\n';
  }
}

void WriteFiguresJson(std::ostream& out, const Totals& t, const std::vector<Dimension>& dims,
                      double wallSeconds, const SoakOptions& o,
                      const std::vector<std::string>& failedCommands) {
  using Json = nlohmann::ordered_json;
  Json json;
  json["cases"] = t.cases;
  json["passed"] = t.passedCases;
  json["failed"] = t.failedCases;
  json["runs"] = t.runs;
  const RunFigures& r = t.requests;
  json["requests"] = {{"issued", r.issued},
                      {"reads", r.reads},
                      {"writes", r.writes},
                      {"atomics", r.atomics},
                      {"posted", r.posted},
                      {"completed", r.completed},
                      {"outstanding", r.outstanding},
                      {"request_flits", r.requestFlits},
                      {"response_flits", r.responseFlits},
                      {"mismatches", r.mismatches}};
  Json failures = Json::object();
  for (unsigned f = 0; f < static_cast<unsigned>(Failure::Count); ++f) {
    const auto it = t.failures.find(static_cast<Failure>(f));
    failures[FailureName(static_cast<Failure>(f))] = it == t.failures.end() ? 0 : it->second;
  }
  json["failures"] = failures;
  json["known_issues"] = Json::object();
  for (const auto& [id, count] : t.knownIssues) json["known_issues"][id] = count;
  json["rest_violation_lines"] = t.restViolationLines;
  json["determinism_checks"] = t.determinismChecks;
  json["determinism_failures"] = t.determinismFailures;
  json["traffic_ns_per_run"] = o.timeNs;
  // Rounded as the printed figures are.
  json["simulated_us"] = std::round(t.simulatedNs / 100.0) / 10;
  json["wall_seconds"] = std::round(wallSeconds * 10) / 10;
  Json coverage = Json::object();
  for (std::size_t d = 0; d < dims.size(); ++d) {
    Json settings = Json::object();
    for (std::size_t s = 0; s < dims[d].settings.size(); ++s)
      settings[dims[d].settings[s].label] = {t.coverage[d][s].first, t.coverage[d][s].second};
    coverage[dims[d].name] = settings;
  }
  json["coverage"] = coverage;
  json["failed_commands"] = failedCommands;
  out << json.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
}

// Whether two runs of the same case wrote the same JSON results, leaving out
// their wall-clock figures, the only ones that may differ.
bool SameResults(const std::string& a, const std::string& b) {
  auto withoutWallClock = [](const std::string& text) {
    nlohmann::json json = nlohmann::json::parse(text, nullptr, false);
    if (json.is_object()) json.erase("wall_clock");
    return json;
  };
  return a == b || withoutWallClock(a) == withoutWallClock(b);
}

// Whether case i (of any seed) gets a determinism twin: spread evenly.
bool ComparedRun(uint64_t runIndex, unsigned percent) {
  return (runIndex * percent) / 100 != ((runIndex + 1) * percent) / 100;
}

int SoakMain(int argc, char** argv) {
  SoakOptions o;
  const int parsed = ParseOptions(argc, argv, o);
  if (parsed == 1) return 0;
  if (parsed == 2) return 2;

  std::vector<Dimension> dims = SoakMatrix();
  if (o.matrix) {
    for (const Dimension& d : dims) {
      std::cout << d.name << ": " << d.meaning << '\n';
      for (const Setting& s : d.settings) std::cout << "  " << s.label << ": " << ShellLine(s.args) << '\n';
    }
    std::cout << ProductSize(dims) << " cases in the whole matrix\n";
    return 0;
  }
  for (const auto& [name, label] : o.only) {
    if (!Restrict(dims, name, label)) {
      std::cerr << "zelsim-soak: --only " << name << "=" << label
                << ": no such dimension or setting (see --matrix)\n";
      return 2;
    }
  }
  std::vector<Case> cases;
  switch (o.pick) {
    case SoakOptions::Pick::Pairwise:
      cases = PairwiseCases(dims);
      break;
    case SoakOptions::Pick::Full:
      cases = SampleCases(dims, ProductSize(dims), 0);
      break;
    case SoakOptions::Pick::Sample:
      cases = SampleCases(dims, o.sample, o.pickSeed);
      break;
  }
  if (o.maxCases != 0 && cases.size() > o.maxCases) cases.resize(o.maxCases);

  // The runs, in order: each case with each seed. Their command lines are
  // made as they start, which keeps a --full soak small in memory.
  std::deque<Run> pending;
  uint64_t runIndex = 0;
  for (unsigned s = 0; s < o.seeds; ++s) {
    for (std::size_t c = 0; c < cases.size(); ++c) {
      pending.push_back(Run{c, o.firstSeed + s, ComparedRun(runIndex++, o.determinismPercent)});
    }
  }
  auto argvOf = [&](const Run& r) {
    std::vector<std::string> argv = {o.zelsim, "--check-rest", "--set",
                                     "SIM_TIME=" + std::to_string(o.timeNs)};
    for (const std::string& name : o.corrections) argv.insert(argv.end(), {"--correct", name});
    for (const std::string& k : o.extraKeys) {
      argv.push_back("--set");
      argv.push_back(k);
    }
    const std::vector<std::string> args = CaseArguments(dims, cases[r.caseIndex]);
    argv.insert(argv.end(), args.begin(), args.end());
    argv.push_back("--seed");
    argv.push_back(std::to_string(r.seed));
    return argv;
  };
  if (o.list) {
    for (const Run& r : pending) {
      std::cout << CaseLabel(dims, cases[r.caseIndex]) << " seed=" << r.seed << (r.compared ? " (twice)" : "")
                << "\n  " << ShellLine(argvOf(r)) << " --json FILE\n";
    }
    std::cout << pending.size() << " runs\n";
    return 0;
  }
  if (access(o.zelsim.c_str(), X_OK) != 0) {
    std::cerr << "zelsim-soak: can't run zelsim at '" << o.zelsim << "' (see --zelsim)\n";
    return 2;
  }
  const std::string workDir = MakeWorkDir();
  if (workDir.empty()) {
    std::cerr << "zelsim-soak: can't make a working directory in TMPDIR\n";
    return 2;
  }

  std::cout << "zelsim-soak: " << cases.size() << " cases x " << o.seeds << " seeds of " << ProductSize(dims)
            << " in the matrix; " << o.timeNs << " ns of traffic each; " << o.determinismPercent
            << "% run twice\n"
            << std::flush;
  const unsigned wrongReproducers = CheckReproducers(o, workDir);

  Totals totals;
  totals.coverage.resize(dims.size());
  for (std::size_t d = 0; d < dims.size(); ++d) totals.coverage[d].assign(dims[d].settings.size(), {0, 0});
  std::vector<std::string> failedCommands;
  const auto wallStart = std::chrono::steady_clock::now();
  const uint64_t totalCases = pending.size();
  uint64_t finished = 0;
  uint64_t childName = 0;
  bool stop = false;

  // A group is one case and seed: one run, or two for the determinism check.
  // Its runs are started one by one as places free up, and it is judged once
  // all of them have ended.
  struct Group {
    Run run;
    std::unique_ptr<Child> children[2];
    unsigned count = 1;
    unsigned started = 0;
  };
  std::deque<std::unique_ptr<Group>> groups;
  for (Run& r : pending) {
    auto g = std::make_unique<Group>();
    g->count = r.compared ? 2 : 1;
    g->run = std::move(r);
    groups.push_back(std::move(g));
  }
  pending.clear();
  std::vector<Child*> running;

  auto judge = [&](Group& group) {
    const Run& r = group.run;
    const std::vector<std::string> argv = argvOf(r);
    const ChildResult& result = group.children[0]->Result();
    Outcome outcome = Judge(result, argv);
    ++totals.cases;
    ++finished;
    totals.runSeconds += result.seconds;
    bool deterministic = true;
    if (group.count == 2) {
      const ChildResult& again = group.children[1]->Result();
      totals.runSeconds += again.seconds;
      ++totals.determinismChecks;
      if (again.out != result.out || !SameResults(again.json, result.json) ||
          again.exitCode != result.exitCode || again.signal != result.signal) {
        deterministic = false;
        ++totals.determinismFailures;
      }
    }
    if (outcome.haveFigures) {
      RunFigures& t = totals.requests;
      const RunFigures& f = outcome.figures;
      t.issued += f.issued;
      t.reads += f.reads;
      t.writes += f.writes;
      t.atomics += f.atomics;
      t.posted += f.posted;
      t.completed += f.completed;
      t.outstanding += f.outstanding;
      t.requestFlits += f.requestFlits;
      t.responseFlits += f.responseFlits;
      t.mismatches += f.mismatches;
      totals.simulatedNs += f.endTimeNs;
    }
    const Case& c = cases[r.caseIndex];
    for (std::size_t d = 0; d < dims.size(); ++d) {
      totals.coverage[d][c[d]].first += 1;
      totals.coverage[d][c[d]].second += outcome.figures.issued;
    }
    totals.restViolationLines += outcome.restViolations;
    const bool known = !outcome.knownIssue.empty() && deterministic;
    const bool passed = (outcome.Passed() && deterministic) || (known && o.allowKnown);
    for (const auto& entry : outcome.failures) ++totals.failures[entry.first];
    if (known) ++totals.knownIssues[outcome.knownIssue];
    if (outcome.Passed() && deterministic) {
      ++totals.passedCases;
    } else if (!passed) {
      ++totals.failedCases;
      failedCommands.push_back(ShellLine(argv));
    }
    if (!o.quiet || !passed || known) {
      std::cout << "[" << finished << "/" << totalCases << "] " << CaseLabel(dims, c) << " seed=" << r.seed
                << ": ";
      if (known) {
        std::cout << (passed ? "known issue " : "FAILED; known issue ") << outcome.knownIssue
                  << "\n  reproduce: " << ShellLine(argv) << '\n';
        if (!outcome.details.empty()) std::cout << "  | " << outcome.details.front() << '\n';
      } else if (passed) {
        std::cout << "ok, " << outcome.figures.issued << " requests, " << outcome.figures.completed
                  << " responses" << (group.count == 2 ? ", repeated identically" : "") << ", "
                  << Fixed(result.seconds, 1) << " s\n";
      } else {
        std::cout << "FAILED";
        for (const auto& [kind, count] : outcome.failures)
          std::cout << "; " << FailureName(kind) << " x" << count;
        if (!deterministic) std::cout << "; the repeat differs";
        std::cout << "\n  reproduce: " << ShellLine(argv) << '\n';
        for (const std::string& line : outcome.details) std::cout << "  | " << line << '\n';
      }
      std::cout << std::flush;
    }
    if (!passed && o.stopOnFailure) stop = true;
  };

  std::size_t nextGroup = 0;  // first group with runs not yet started
  while (!groups.empty()) {
    // Start runs while places are free.
    while (!stop && running.size() < o.jobs && nextGroup < groups.size()) {
      Group& g = *groups[nextGroup];
      const std::string name = "run" + std::to_string(childName++);
      std::vector<std::string> argv = argvOf(g.run);
      argv.push_back("--json");
      argv.push_back(workDir + "/" + name + ".json");
      auto& child = g.children[g.started];
      child = std::make_unique<Child>(argv, workDir, name, o.timeoutSeconds);
      child->Start();
      ++totals.runs;
      running.push_back(child.get());
      if (++g.started == g.count) ++nextGroup;
    }
    bool progressed = false;
    for (auto it = running.begin(); it != running.end();) {
      if ((*it)->Poll()) {
        it = running.erase(it);
        progressed = true;
      } else {
        ++it;
      }
    }
    // Judge the groups whose runs have all ended, in their order.
    while (!groups.empty()) {
      Group& g = *groups.front();
      bool done = g.started == g.count;
      for (unsigned i = 0; done && i < g.count; ++i) done = g.children[i]->Poll();
      if (!done) break;
      judge(g);
      groups.pop_front();
      --nextGroup;
    }
    if (stop && running.empty()) {
      // Groups not yet started are dropped; a half-started group is judged
      // without its twin.
      while (!groups.empty() && groups.front()->started > 0) {
        Group& g = *groups.front();
        g.count = g.started;
        judge(g);
        groups.pop_front();
      }
      groups.clear();
    }
    if (!progressed) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  RemoveWorkDir(workDir);

  const double wallSeconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - wallStart).count();
  PrintFigures(std::cout, totals, dims, wallSeconds, o);
  if (!o.jsonFile.empty()) {
    std::ofstream json(o.jsonFile);
    WriteFiguresJson(json, totals, dims, wallSeconds, o, failedCommands);
    if (!json) {
      std::cerr << "zelsim-soak: can't write '" << o.jsonFile << "'\n";
      return 1;
    }
  }
  for (const KnownIssue& issue : KnownIssues()) {
    if (totals.knownIssues.count(issue.id) != 0)
      std::cout << "Known issue " << issue.id << ": " << issue.summary << "\n  reproducer: " << issue.reproducer
                << "\n  --correct " << issue.id << " removes it (docs/corrections.md)\n";
  }
  const bool clean = totals.failedCases == 0 && totals.cases == totalCases && wrongReproducers == 0;
  if (!clean) {
    std::cout << "zelsim-soak: FAILURES, see above\n";
  } else if (!totals.knownIssues.empty()) {
    std::cout << "zelsim-soak: no failures but the known issues counted above\n";
  } else {
    std::cout << "zelsim-soak: all runs clean\n";
  }
  return clean ? 0 : 1;
}

}  // namespace
}  // namespace Soak
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

int main(int argc, char** argv) { return Sornak::Internal::ZEL2::Soak::SoakMain(argc, argv); }

// SPDX-License-Identifier: Apache-2.0
#include "apps/soak/outcome.h"

#include <algorithm>
#include <cctype>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <sstream>

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Soak {

// ---- JSON ---------------------------------------------------------------------------

const JsonValue* JsonValue::Find(const std::string& key) const {
  for (const auto& m : members) {
    if (m.first == key) return &m.second;
  }
  return nullptr;
}

namespace {

class JsonReader {
 public:
  explicit JsonReader(const std::string& text) : s_(text) {}

  bool Read(JsonValue& v, std::string& error) {
    if (!Value(v, 0)) {
      error = error_ + " at offset " + std::to_string(pos_);
      return false;
    }
    Blanks();
    if (pos_ != s_.size()) {
      error = "text after the value at offset " + std::to_string(pos_);
      return false;
    }
    return true;
  }

 private:
  void Blanks() {
    while (pos_ < s_.size() && std::isspace(static_cast<unsigned char>(s_[pos_])) != 0) ++pos_;
  }
  bool Fail(const char* what) {
    error_ = what;
    return false;
  }
  bool Word(const char* word) {
    const std::size_t n = std::strlen(word);
    if (s_.compare(pos_, n, word) != 0) return false;
    pos_ += n;
    return true;
  }

  bool Value(JsonValue& v, int depth) {
    if (depth > 64) return Fail("nesting too deep");
    Blanks();
    if (pos_ >= s_.size()) return Fail("value expected");
    const char c = s_[pos_];
    if (c == '{') return Object(v, depth);
    if (c == '[') return Array(v, depth);
    if (c == '"') {
      v.type = JsonValue::Type::String;
      return String(v.text);
    }
    if (Word("true")) {
      v.type = JsonValue::Type::Bool;
      v.boolean = true;
      return true;
    }
    if (Word("false")) {
      v.type = JsonValue::Type::Bool;
      return true;
    }
    if (Word("null")) return true;
    const char* begin = s_.c_str() + pos_;
    char* end = nullptr;
    v.number = std::strtod(begin, &end);
    if (end == begin) return Fail("value expected");
    v.type = JsonValue::Type::Number;
    pos_ += static_cast<std::size_t>(end - begin);
    return true;
  }

  bool String(std::string& out) {
    ++pos_;  // the opening quote
    while (pos_ < s_.size() && s_[pos_] != '"') {
      char c = s_[pos_++];
      if (c == '\\') {
        if (pos_ >= s_.size()) break;
        c = s_[pos_++];
        switch (c) {
          case 'n':
            c = '\n';
            break;
          case 't':
            c = '\t';
            break;
          case 'r':
            c = '\r';
            break;
          case 'b':
            c = '\b';
            break;
          case 'f':
            c = '\f';
            break;
          case 'u': {
            // Only what zelsim writes: control characters as \u00XX.
            if (pos_ + 4 > s_.size()) return Fail("bad escape");
            c = static_cast<char>(std::strtol(s_.substr(pos_, 4).c_str(), nullptr, 16));
            pos_ += 4;
            break;
          }
          default:
            break;  // \" \\ \/
        }
      }
      out += c;
    }
    if (pos_ >= s_.size()) return Fail("unterminated string");
    ++pos_;
    return true;
  }

  bool Array(JsonValue& v, int depth) {
    v.type = JsonValue::Type::Array;
    ++pos_;
    Blanks();
    if (pos_ < s_.size() && s_[pos_] == ']') {
      ++pos_;
      return true;
    }
    for (;;) {
      v.items.emplace_back();
      if (!Value(v.items.back(), depth + 1)) return false;
      Blanks();
      if (pos_ < s_.size() && s_[pos_] == ',') {
        ++pos_;
        continue;
      }
      if (pos_ < s_.size() && s_[pos_] == ']') {
        ++pos_;
        return true;
      }
      return Fail("',' or ']' expected");
    }
  }

  bool Object(JsonValue& v, int depth) {
    v.type = JsonValue::Type::Object;
    ++pos_;
    Blanks();
    if (pos_ < s_.size() && s_[pos_] == '}') {
      ++pos_;
      return true;
    }
    for (;;) {
      Blanks();
      if (pos_ >= s_.size() || s_[pos_] != '"') return Fail("member name expected");
      std::string key;
      if (!String(key)) return false;
      Blanks();
      if (pos_ >= s_.size() || s_[pos_] != ':') return Fail("':' expected");
      ++pos_;
      v.members.emplace_back(key, JsonValue());
      if (!Value(v.members.back().second, depth + 1)) return false;
      Blanks();
      if (pos_ < s_.size() && s_[pos_] == ',') {
        ++pos_;
        continue;
      }
      if (pos_ < s_.size() && s_[pos_] == '}') {
        ++pos_;
        return true;
      }
      return Fail("',' or '}' expected");
    }
  }

  const std::string& s_;
  std::size_t pos_ = 0;
  std::string error_;
};

uint64_t Count(const JsonValue& object, const char* key) {
  const JsonValue* v = object.Find(key);
  return v != nullptr && v->type == JsonValue::Type::Number && v->number > 0
             ? static_cast<uint64_t>(v->number)
             : 0;
}

bool StartsWith(const std::string& line, const char* prefix) {
  return line.compare(0, std::strlen(prefix), prefix) == 0;
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

// Details kept per run: enough to see what happened, not the whole output.
constexpr std::size_t kMaxDetails = 12;

}  // namespace

bool ParseJson(const std::string& text, JsonValue& value, std::string& error) {
  value = JsonValue();
  return JsonReader(text).Read(value, error);
}

const std::vector<KnownIssue>& KnownIssues() {
  static const std::vector<KnownIssue> issues = {
      {"bank-ownership", Failure::ModelError,
       "ERROR - Received PRE prt:[0-9]+ bnk:[0-9]+ row:[0-9]+ col:[0-9]+ tag:[0-9]+ in Vault [0-9]+ when we "
       "shouldn't have",
       "REFRESH_ENABLED=true",
       "vault controller: refresh lets a second transaction into a busy bank, and a READ then issues under "
       "the other transaction's row before its own ACT",
       "zelsim --seed 1 --set SIM_TIME=20000 --set REFRESH_ENABLED=true --cube-size 0 --set REQUEST_STREAM=1"},
      {"smoothing-stall", Failure::Deadlock, "zelsim: deadlock: no flit moved", "--token-return-wait",
       "vault switch: once no scan reaches a vault's waiting flits, nothing moves them to the smoothing "
       "buffers again",
       "zelsim --seed 1 --set SIM_TIME=0 --set NUM_REQUESTS=200 --set HOST_MAPPING=0 --set PERCENTAGE_READ=100 "
       "--set PERCENTAGE_RD_64B=0 --set PERCENTAGE_RD_128B=100 --token-return-wait 500"},
  };
  return issues;
}

const char* FailureName(Failure f) {
  switch (f) {
    case Failure::ModelError:
      return "model error";
    case Failure::KernelReport:
      return "kernel report";
    case Failure::Sanitizer:
      return "sanitizer report";
    case Failure::Mismatch:
      return "response mismatch";
    case Failure::Unanswered:
      return "unanswered request";
    case Failure::RestViolation:
      return "rest-state violation";
    case Failure::Deadlock:
      return "deadlock";
    case Failure::Timeout:
      return "timeout";
    case Failure::Refused:
      return "refused";
    case Failure::NoResults:
      return "no results";
    case Failure::Count:
      break;
  }
  return "?";
}

namespace {

Outcome JudgeOutput(const ChildResult& run) {
  Outcome o;
  // A model error counts once per run, whatever number of lines tell of it.
  auto fail = [&o](Failure f, const std::string& detail, unsigned count = 1) {
    if (f == Failure::ModelError) {
      o.failures[f] = 1;
    } else {
      o.failures[f] += count;
    }
    if (!detail.empty() && o.details.size() < kMaxDetails) o.details.push_back(detail);
  };

  if (!run.started) {
    fail(Failure::NoResults, "zelsim could not be started");
    return o;
  }
  if (run.timedOut) fail(Failure::Timeout, "killed at the wall-clock limit");
  if (run.exited && run.exitCode == 127) fail(Failure::NoResults, "zelsim could not be executed");
  if (run.exited && run.exitCode == 2) {
    fail(Failure::Refused, "zelsim refused the case: " + run.err.substr(0, run.err.find('\n')));
    return o;
  }
  // zelsim's own verdicts on the way a run ended: the model ended it with
  // exit(0) (status 3), or the watchdog found it stuck (status 4).
  if (run.exited && run.exitCode == 3) fail(Failure::ModelError, "");
  if (run.exited && run.exitCode == 4) {
    const std::size_t at = run.err.find("zelsim: deadlock");
    fail(Failure::Deadlock, at == std::string::npos ? std::string("zelsim status 4 (deadlock)")
                                                    : run.err.substr(at, run.err.find('\n', at) - at));
  }

  bool summary = false;
  bool restOk = false;
  bool modelMessage = run.exited && run.exitCode == 3;
  for (const std::string& line : Lines(run.out)) {
    if (StartsWith(line, "==== zelsim summary")) summary = true;
    if (line == "zelsim: rest state OK") restOk = true;
    if (StartsWith(line, "zelsim: rest-state violation: ")) {
      ++o.restViolations;
      fail(Failure::RestViolation, line);
      continue;
    }
    if (StartsWith(line, "zelsim: ")) continue;
    // The model's own messages: every fatal report of a block carries ERROR
    // (or is the early-token message); a kernel report starts its line with
    // its severity.
    if (line.find("ERROR") != std::string::npos ||
        line.find("Unexpected flit to move") != std::string::npos) {
      modelMessage = true;
      fail(Failure::ModelError, line);
    }
    if (StartsWith(line, "Warning: (") || StartsWith(line, "Error: (") || StartsWith(line, "Fatal: (")) {
      fail(Failure::KernelReport, line);
    }
  }
  for (const std::string& line : Lines(run.err)) {
    if (StartsWith(line, "Warning: (") || StartsWith(line, "Error: (") || StartsWith(line, "Fatal: (")) {
      fail(Failure::KernelReport, line);
    }
    // A sanitizer build of zelsim reports on standard error.
    if (line.find("ERROR: AddressSanitizer") != std::string::npos ||
        line.find("ERROR: LeakSanitizer") != std::string::npos ||
        line.find("runtime error:") != std::string::npos) {
      fail(Failure::Sanitizer, line);
    } else if (line.find("Assertion") != std::string::npos || line.find("ERROR") != std::string::npos) {
      modelMessage = true;
      fail(Failure::ModelError, line);
    }
  }
  const bool sanitizer = o.failures.count(Failure::Sanitizer) != 0;
  if (!run.timedOut && !run.exited && !sanitizer) {
    fail(Failure::ModelError, modelMessage ? std::string()
                                           : std::string("ended by signal ") + std::to_string(run.signal) +
                                                 " (" + strsignal(run.signal) + ")");
  } else if (run.exited && run.exitCode == 0 && !summary && !modelMessage && !sanitizer) {
    // The model ends some errors with exit status 0; its message then stands
    // in the output, and zelsim never gets to its summary.
    fail(Failure::ModelError, "status 0 without zelsim's summary");
  }

  // A deadlocked run's JSON holds its figures at the stop; the deadlock is
  // its verdict.
  if (o.failures.count(Failure::Deadlock) != 0) return o;
  JsonValue json;
  std::string error;
  if (run.json.empty() || !ParseJson(run.json, json, error)) {
    if (!run.timedOut && o.failures.count(Failure::ModelError) == 0 &&
        o.failures.count(Failure::Deadlock) == 0 && !sanitizer) {
      fail(Failure::NoResults, run.json.empty() ? "no JSON results" : "JSON results unreadable: " + error);
    }
    return o;
  }
  const JsonValue* total = json.Find("total");
  if (total != nullptr && total->type == JsonValue::Type::Object) {
    RunFigures& f = o.figures;
    f.issued = Count(*total, "issued");
    f.reads = Count(*total, "reads");
    f.writes = Count(*total, "writes");
    f.atomics = Count(*total, "atomics");
    f.posted = Count(*total, "posted");
    f.completed = Count(*total, "completed");
    f.outstanding = Count(*total, "outstanding");
    f.requestFlits = Count(*total, "request_flits");
    f.responseFlits = Count(*total, "response_flits");
    f.mismatches = Count(*total, "mismatches");
    const JsonValue* runObject = json.Find("run");
    const JsonValue* end = runObject != nullptr ? runObject->Find("end_time_ns") : nullptr;
    if (end != nullptr) f.endTimeNs = end->number;
    o.haveFigures = true;
    if (f.mismatches != 0) {
      fail(Failure::Mismatch, std::to_string(f.mismatches) + " responses did not match their requests",
           static_cast<unsigned>(f.mismatches));
    }
    if (f.outstanding != 0) {
      fail(Failure::Unanswered, std::to_string(f.outstanding) + " non-posted requests never answered",
           static_cast<unsigned>(f.outstanding));
    }
    if (f.completed + f.outstanding + f.posted != f.issued) {
      fail(Failure::Unanswered,
           "issued " + std::to_string(f.issued) + " != completed + posted + outstanding");
    }
  } else {
    fail(Failure::NoResults, "JSON results without totals");
  }
  const JsonValue* rest = json.Find("rest_state");
  if (rest == nullptr) {
    fail(Failure::NoResults, "JSON results without rest_state (zelsim without --check-rest?)");
  } else if (rest->type == JsonValue::Type::String && rest->text == "ok") {
    if (!restOk) fail(Failure::NoResults, "JSON says rest state ok, but the output has no \"rest state OK\"");
  } else if (o.restViolations == 0) {
    fail(Failure::RestViolation, "JSON rest_state lists violations the output doesn't");
  }
  if (!summary) fail(Failure::NoResults, "no zelsim summary in the output");
  return o;
}

// Marks a run whose only failure is the one that a known issue explains.
void MatchKnownIssue(Outcome& o, const std::vector<std::string>& argv) {
  if (o.failures.size() != 1) return;
  for (const KnownIssue& issue : KnownIssues()) {
    if (o.failures.count(issue.failure) == 0) continue;
    if (std::find(argv.begin(), argv.end(), issue.requiredArg) == argv.end()) continue;
    const std::regex message(issue.message);
    for (const std::string& line : o.details) {
      if (std::regex_search(line, message)) {
        o.knownIssue = issue.id;
        return;
      }
    }
  }
}

}  // namespace

Outcome Judge(const ChildResult& run, const std::vector<std::string>& argv) {
  Outcome o = JudgeOutput(run);
  MatchKnownIssue(o, argv);
  return o;
}

}  // namespace Soak
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
